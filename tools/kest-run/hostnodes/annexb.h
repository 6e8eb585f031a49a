#pragma once

#include <QByteArray>
#include <QVector>

// Annex-B H.264 / H.265 byte streams, cut into access units. Pure: bytes in, byte ranges out.
namespace AnnexB {

enum class Codec { H264, H265 };

// One access unit: a byte range of the stream, from the start code of its first NAL unit up
// to the start code of the next access unit (trailing zero bytes included).
struct AccessUnit
{
    int offset = 0;
    int size = 0;
    bool key = false; // holds an IDR picture (H.264) or an IRAP picture (H.265)
};

struct Stream
{
    QVector<AccessUnit> units;
    // The parameter sets (H.264 SPS, PPS; H.265 VPS, SPS, PPS) found before the first picture,
    // each behind a 4-byte start code: the form receivers expect as extra data.
    QByteArray parameterSets;
};

// Bytes before the first start code are skipped; a stream without a picture has no units.
Stream split(const QByteArray &data, Codec codec);

} // namespace AnnexB
