#pragma once

#include <QByteArray>
#include <QVector>

// ADTS AAC streams, cut into raw AAC frames. Pure: bytes in, byte ranges out.
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

} // namespace Adts
