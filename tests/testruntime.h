#pragma once

// C++ helpers for tests and benchmarks that run NDI nodes against the NDI test runtime they
// link (kest_use_ndi_test_runtime in CMake).

#include "kesttest.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QDir>
#include <QFile>
#include <QString>
#include <QVector>
#include <QtGlobal>

#include <cstdio>
#include <cstring>

// Points the library's loader at the linked test runtime unless NDI_RUNTIME_DIR_V5 is set
// already (CTest sets it). Call before the first NDI node is created.
inline void useNdiTestRuntime()
{
    if (qEnvironmentVariableIsEmpty("NDI_RUNTIME_DIR_V5"))
        qputenv("NDI_RUNTIME_DIR_V5", KEST_NDI_RUNTIME_DIR);
}

// For benchmarks: the test runtime, keeping no sent frames, and no per-connection log lines.
inline void useQuietNdiTestRuntime()
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &message) {
        if (type != QtDebugMsg)
            std::fprintf(stderr, "%s\n", qPrintable(message));
    });
    useNdiTestRuntime();
    kesttest_set_sent_frame_limit(0);
}

// The path of an NDI configuration file in `dir` holding `content`; "-" leaves the file missing.
inline QString ndiConfigFile(const QDir &dir, const QByteArray &content)
{
    QFile file(dir.filePath(QStringLiteral("ndi.json")));
    if (content != "-" && (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()))
        return {};
    return file.fileName();
}

// "MACHINE (name)", the way finders list a sender of that name.
inline QByteArray ndiSourceName(const QByteArray &name)
{
    return QByteArray(kesttest_machine_name()) + " (" + name + ")";
}

// The newest live sender and receiver of the runtime (null when there is none).
inline NDIlib_send_instance_t newestSender()
{
    return kesttest_sender_at(kesttest_sender_count() - 1);
}

inline NDIlib_recv_instance_t newestReceiver()
{
    return kesttest_receiver_at(kesttest_receiver_count() - 1);
}

inline kesttest_sender_info_t senderInfo(NDIlib_send_instance_t sender)
{
    kesttest_sender_info_t info{};
    kesttest_sender_info(sender, &info);
    return info;
}

inline kesttest_receiver_info_t receiverInfo(NDIlib_recv_instance_t receiver)
{
    kesttest_receiver_info_t info{};
    kesttest_receiver_info(receiver, &info);
    return info;
}

// A compressed key frame as receivers get it: the packet header (`version` bytes: a header
// longer than the 44 bytes known here is padded), the payload, the extra data.
inline QByteArray compressedFrame(uint32_t codec, int64_t pts, const QByteArray &payload, const QByteArray &extra = {},
                                  int version = NDIlib_compressed_packet_version_0)
{
    NDIlib_compressed_packet_t header{};
    header.version = version;
    header.fourCC = NDIlib_compressed_FourCC_type_e(codec);
    header.pts = pts;
    header.dts = pts;
    header.flags = NDIlib_compressed_packet_flags_keyframe;
    header.data_size = uint32_t(payload.size());
    header.extra_data_size = uint32_t(extra.size());
    QByteArray bytes(reinterpret_cast<const char *>(&header), sizeof(header));
    if (version > int(sizeof(header)) && version <= 64)
        bytes += QByteArray(version - int(sizeof(header)), '\xee');
    return bytes + payload + extra;
}

// A source published with the runtime's own functions, gone with the object.
class TestSource
{
public:
    explicit TestSource(const QByteArray &name) : listed(ndiSourceName(name))
    {
        NDIlib_send_create_t settings{};
        settings.p_ndi_name = name.constData();
        handle = NDIlib_send_create_v2(&settings, "{}");
    }
    ~TestSource() { NDIlib_send_destroy(handle); }
    TestSource(const TestSource &) = delete;
    TestSource &operator=(const TestSource &) = delete;
    QString name() const { return QString::fromUtf8(listed); }

    NDIlib_send_instance_t handle = nullptr;
    QByteArray listed; // For benchmarks: the test runtime, keeping no sent frames, and no per-connection log lines.
inline void useQuietNdiTestRuntime()
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &message) {
        if (type != QtDebugMsg)
            std::fprintf(stderr, "%s\n", qPrintable(message));
    });
    useNdiTestRuntime();
    kesttest_set_sent_frame_limit(0);
}

// The path of an NDI configuration file in `dir` holding `content`; "-" leaves the file missing.
inline QString ndiConfigFile(const QDir &dir, const QByteArray &content)
{
    QFile file(dir.filePath(QStringLiteral("ndi.json")));
    if (content != "-" && (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()))
        return {};
    return file.fileName();
}

// "MACHINE (name)"
};

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
        f.header = {};
        if (f.bytes.size() >= int(sizeof(f.header)))
            std::memcpy(&f.header, f.bytes.constData(), sizeof(f.header));
        const int version = qBound(0, f.header.version, f.bytes.size());
        f.payload = f.bytes.mid(version, int(f.header.data_size));
        f.extra = f.bytes.mid(version + int(f.header.data_size), int(f.header.extra_data_size));
        frames.append(f);
    }
    return frames;
}

// A receiver of the test runtime, connected to a source by name.
class TestReceiver
{
public:
    explicit TestReceiver(const QByteArray &sourceName, NDIlib_recv_bandwidth_e bandwidth = NDIlib_recv_bandwidth_highest)
    {
        NDIlib_recv_create_v3_t settings{};
        settings.color_format = NDIlib_recv_color_format_compressed_v4_with_audio;
        settings.bandwidth = bandwidth;
        settings.source_to_connect_to.p_ndi_name = sourceName.constData();
        handle = NDIlib_recv_create_v3(&settings);
    }
    ~TestReceiver() { NDIlib_recv_destroy(handle); }
    TestReceiver(const TestReceiver &) = delete;
    TestReceiver &operator=(const TestReceiver &) = delete;

    bool setTally(bool program, bool preview)
    {
        const NDIlib_tally_t tally{program, preview};
        return NDIlib_recv_set_tally(handle, &tally);
    }

    // The bytes of every waiting video frame, released; "wrong FourCC" for one not of `fourcc`.
    QByteArrayList drainVideo(uint32_t fourcc)
    {
        QByteArrayList frames;
        NDIlib_video_frame_v2_t video{};
        while (NDIlib_recv_capture_v3(handle, &video, nullptr, nullptr, 0) == NDIlib_frame_type_video) {
            const QByteArray bytes(reinterpret_cast<const char *>(video.p_data), qMax(video.data_size_in_bytes, 0));
            frames << (video.FourCC == fourcc ? bytes : QByteArray("wrong FourCC"));
            NDIlib_recv_free_video_v2(handle, &video);
        }
        return frames;
    }

    NDIlib_recv_instance_t handle = nullptr;
};
