#pragma once

// The rig of every test and benchmark that runs NDI nodes against the NDI test runtime they link
// (kest_use_ndi_test_runtime in CMake): its sources and receivers, and what it recorded.

#include "kesttest.h"

#include <QByteArray>
#include <QVector>
#include <QtGlobal>

#include <cstring>

// Points the library's loader at the linked test runtime unless NDI_RUNTIME_DIR_V5 is set
// already (CTest sets it). Call before the first NDI node is created.
inline void useNdiTestRuntime()
{
    if (qEnvironmentVariableIsEmpty("NDI_RUNTIME_DIR_V5"))
        qputenv("NDI_RUNTIME_DIR_V5", KEST_NDI_RUNTIME_DIR);
}

// "MACHINE (name)", the way finders list a sender of that name.
inline QByteArray ndiSourceName(const QByteArray &name)
{
    return QByteArray(kesttest_machine_name()) + " (" + name + ")";
}

// The newest live sender and receiver (null when there is none), and what the runtime knows of them.
inline NDIlib_send_instance_t newestSender() { return kesttest_sender_at(kesttest_sender_count() - 1); }
inline NDIlib_recv_instance_t newestReceiver() { return kesttest_receiver_at(kesttest_receiver_count() - 1); }
inline kesttest_sender_info_t senderInfo(NDIlib_send_instance_t sender) { kesttest_sender_info_t i{}; return kesttest_sender_info(sender, &i), i; }
inline kesttest_receiver_info_t receiverInfo(NDIlib_recv_instance_t receiver) { kesttest_receiver_info_t i{}; return kesttest_receiver_info(receiver, &i), i; }

// A compressed frame as receivers get it: the 44-byte packet header, the payload, the extra data.
inline QByteArray compressedFrame(uint32_t codec, int64_t pts, const QByteArray &payload, const QByteArray &extra = {}, bool key = true)
{
    const NDIlib_compressed_packet_t header{NDIlib_compressed_packet_version_0, NDIlib_compressed_FourCC_type_e(codec), pts, pts, 0,
                                           uint32_t(key ? NDIlib_compressed_packet_flags_keyframe : NDIlib_compressed_packet_flags_none), uint32_t(payload.size()), uint32_t(extra.size())};
    return QByteArray(reinterpret_cast<const char *>(&header), sizeof(header)) + payload + extra;
}

// A frame a sender was given, copied out of the runtime.
struct SentFrame
{
    kesttest_sent_frame_t raw{};
    QByteArray bytes; // the frame as receivers get it
    NDIlib_compressed_packet_t header{};
    QByteArray payload; // after the header, data_size bytes
    QByteArray extra;   // after the payload, extra_data_size bytes
};

inline QVector<SentFrame> sentFrames(NDIlib_send_instance_t sender)
{
    QVector<SentFrame> frames;
    SentFrame f;
    for (int i = 0; kesttest_sent_frame(sender, i, &f.raw); ++i) {
        f.bytes = QByteArray(reinterpret_cast<const char *>(f.raw.p_bytes), f.raw.no_bytes);
        std::memcpy(&f.header, f.bytes.leftJustified(sizeof(f.header), '\0').constData(), sizeof(f.header));
        f.payload = f.bytes.mid(f.header.version, int(f.header.data_size));
        f.extra = f.bytes.mid(f.header.version + int(f.header.data_size), int(f.header.extra_data_size));
        frames.append(f);
    }
    return frames;
}

// A source published with the runtime's own functions, gone with the object.
class TestSource
{
public:
    explicit TestSource(const QByteArray &name, const char *groups = nullptr) : listed(ndiSourceName(name))
    {
        const NDIlib_send_create_t settings{name.constData(), groups, false, false};
        handle = NDIlib_send_create_v2(&settings, "{}");
    }
    ~TestSource() { NDIlib_send_destroy(handle); }
    Q_DISABLE_COPY(TestSource)
    QString name() const { return QString::fromUtf8(listed); }

    NDIlib_send_instance_t handle = nullptr;
    QByteArray listed; // "MACHINE (name)"
};
