#include "adts.h"

namespace Adts {

namespace {

constexpr int kHeaderBytes = 7;
constexpr int kCrcBytes = 2;
const int kSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
constexpr int kRateCount = int(sizeof(kSampleRates) / sizeof(kSampleRates[0]));
constexpr int kMaxFrameBytes = 0x1fff; // 13-bit frame length, header included
constexpr int kLowComplexity = 2;
constexpr int kVariableBitRate = 0x7ff; // buffer fullness meaning "not given"

struct Header
{
    bool valid = false;
    int headerSize = 0; // with the CRC
    int frameSize = 0;  // header included
    int objectType = 0; // profile + 1
    int rateIndex = 0;
    int channelConfig = 0;
};

Header readHeader(const unsigned char *p, int available)
{
    Header h;
    if (available < kHeaderBytes || p[0] != 0xff || (p[1] & 0xf6) != 0xf0) // sync word, layer 0
        return h;
    const bool crc = !(p[1] & 0x01);
    h.objectType = (p[2] >> 6) + 1;
    h.rateIndex = (p[2] >> 2) & 0x0f;
    h.channelConfig = ((p[2] & 0x01) << 2) | (p[3] >> 6);
    h.frameSize = ((p[3] & 0x03) << 11) | (p[4] << 3) | (p[5] >> 5);
    h.headerSize = kHeaderBytes + (crc ? kCrcBytes : 0);
    h.valid = h.rateIndex < kRateCount && h.frameSize > h.headerSize;
    return h;
}

} // namespace

Stream parse(const QByteArray &data)
{
    Stream stream;
    const auto *p = reinterpret_cast<const unsigned char *>(data.constData());
    const int n = data.size();
    int i = 0;
    while (i < n) {
        const Header h = readHeader(p + i, n - i);
        if (!h.valid) {
            ++i;
            continue;
        }
        if (h.frameSize > n - i)
            break;
        if (stream.frames.isEmpty()) {
            stream.sampleRate = kSampleRates[h.rateIndex];
            stream.channels = h.channelConfig;
            const int config = h.objectType << 11 | h.rateIndex << 7 | h.channelConfig << 3;
            stream.audioSpecificConfig.append(char(config >> 8)).append(char(config & 0xff));
        }
        stream.frames.append({i + h.headerSize, h.frameSize - h.headerSize});
        i += h.frameSize;
    }
    return stream;
}

bool Config::isValid() const
{
    return objectType >= 1 && objectType <= 4 && rateIndex >= 0 && rateIndex < kRateCount && channelConfig >= 1
        && channelConfig <= 7;
}

Config readAudioSpecificConfig(const QByteArray &config)
{
    Config c;
    if (config.size() < 2)
        return c;
    const int bits = quint8(config[0]) << 8 | quint8(config[1]);
    c.objectType = bits >> 11;
    c.rateIndex = (bits >> 7) & 0x0f;
    c.channelConfig = (bits >> 3) & 0x0f;
    return c;
}

Config lowComplexity(int sampleRate, int channels)
{
    Config c;
    c.objectType = kLowComplexity;
    c.rateIndex = -1;
    for (int i = 0; i < kRateCount; ++i)
        if (kSampleRates[i] == sampleRate)
            c.rateIndex = i;
    c.channelConfig = channels;
    return c;
}

QByteArray header(const Config &config, int payloadSize)
{
    const int length = kHeaderBytes + payloadSize;
    if (!config.isValid() || payloadSize < 0 || length > kMaxFrameBytes)
        return {};
    QByteArray h(kHeaderBytes, '\0');
    h[0] = char(0xff);
    h[1] = char(0xf1); // MPEG-4, layer 0, no CRC
    h[2] = char((config.objectType - 1) << 6 | config.rateIndex << 2 | config.channelConfig >> 2);
    h[3] = char((config.channelConfig & 3) << 6 | length >> 11);
    h[4] = char((length >> 3) & 0xff);
    h[5] = char((length & 7) << 5 | kVariableBitRate >> 6);
    h[6] = char((kVariableBitRate & 0x3f) << 2); // one raw data block
    return h;
}

} // namespace Adts
