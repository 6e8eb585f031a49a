#include "adts.h"

namespace Adts {

namespace {

constexpr int kHeaderBytes = 7;
constexpr int kCrcBytes = 2;
const int kSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};

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
    h.valid = h.rateIndex < int(sizeof(kSampleRates) / sizeof(kSampleRates[0])) && h.frameSize > h.headerSize;
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

} // namespace Adts
