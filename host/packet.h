#pragma once

#include <QMetaType>
#include <QObject>
#include <QVariantMap>

// Codec codes carried in StreamInfo::codec.
namespace KestCodec {
enum : int {
    None = 0,
    RawVideo = 2, // uncompressed video handed on by the NDI receiver
    H264 = 4,
    H265 = 5,
    PCMA = 7,
    PCMU = 8,
    G722 = 9,
    AAC = 10,
    MP2 = 11,
    MPEG4 = 14,
    MP3 = 15,
    AC3 = 16,
    Opus = 17,
};
}

// One coded access unit or audio frame. A Packet never owns its bytes: they live in the
// producing node's bufferData() pool (see KestObject::bufferData for how long they stay valid).
struct Packet
{
    char *data = nullptr;
    int len = 0;
    qint64 pts = 0;        // microseconds on the KestHi::getPTS clock
    qint64 dts = -1;
    int frameType = 0;     // 0: video key frame; audio packets carry 3
    QObject *source = nullptr;
};

// Description of a stream, sent ahead of its packets. A packet belongs to a stream when both
// `source` fields are equal.
struct StreamInfo
{
    int codec = KestCodec::None;
    QVariantMap params;
    QObject *source = nullptr;
};

Q_DECLARE_METATYPE(Packet)
Q_DECLARE_METATYPE(StreamInfo)
