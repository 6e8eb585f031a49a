#pragma once

#include <QByteArray>
#include <QVector>

// ADTS AAC streams: cut into raw AAC frames, and raw AAC frames put back behind ADTS headers.
// Pure: bytes in, byte ranges or bytes out.
namespace Adts {

constexpr int kSamplesPerFrame = 1024;

// One raw AAC frame: the bytes after an ADTS header (and its CRC, when present).
struct Frame
{
    int offset = 0;
    int size = 0;
};

struct Stream
{
    QVector<Frame> frames;
    int sampleRate = 0; // of the first frame; 0 when there is none
    int channels = 0;
    QByteArray audioSpecificConfig; // 2 bytes: object type, rate index, channel configuration
};

// Frames are taken while headers follow each other; bytes that do not start with a header
// are skipped up to the next sync word, and a frame cut off by the end is left out.
Stream parse(const QByteArray &data);

// What an ADTS header says about the stream: the fields of a 2-byte AudioSpecificConfig.
struct Config
{
    int objectType = 0; // 1 to 4 fit a header (2: AAC-LC)
    int rateIndex = 0;
    int channelConfig = 0;

    bool isValid() const;
};

// The AudioSpecificConfig of a stream (its "extradata"); invalid when it is shorter than 2 bytes
// or describes what an ADTS header cannot (escaped object types, explicit rates).
Config readAudioSpecificConfig(const QByteArray &config);
// AAC-LC at a rate and channel count; invalid when ADTS has no index for the rate.
Config lowComplexity(int sampleRate, int channels);

// The 7-byte header (no CRC) in front of a raw frame of `payloadSize` bytes; empty when the
// configuration is invalid or the frame too long for a header.
QByteArray header(const Config &config, int payloadSize);

} // namespace Adts
