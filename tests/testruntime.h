#pragma once

// C++ helpers for tests and benchmarks that run NDI nodes against the NDI test runtime they
// link (kest_use_ndi_test_runtime in CMake).

#include "kesttest.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QDir>
#include <QFile>
#include <QString>
#include <QVariantMap>
#include <QVector>
#include <QtGlobal>

#include <cstdio>
#include <cstring>
#include <vector>

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

inline kesttest_finder_info_t finderInfo(NDIlib_find_instance_t finder)
{
    kesttest_finder_info_t info{};
    kesttest_finder_info(finder, &info);
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

// Sends `blocks` as one scatter list: AAC as 48 kHz stereo of 1024 samples, any other FourCC as
// 1920x1080 progressive video at 30000/1001 and 16:9. `changes` alters that description
// ("xres", "yres", "N", "D", "aspect", "format"; "rate", "channels", "samples").
inline void sendBlocks(NDIlib_send_instance_t sender, const QByteArrayList &blocks, uint32_t fourcc, const QVariantMap &changes = {})
{
    std::vector<const uint8_t *> pointers;
    std::vector<int> sizes;
    for (const QByteArray &b : blocks) {
        pointers.push_back(reinterpret_cast<const uint8_t *>(b.constData()));
        sizes.push_back(b.size());
    }
    pointers.push_back(nullptr);
    sizes.push_back(0);
    const NDIlib_frame_scatter_t scatter{pointers.data(), sizes.data()};
    if (fourcc == NDIlib_FourCC_audio_type_ex_AAC) {
        NDIlib_audio_frame_v3_t frame = ndiAudioFrameDefaults();
        frame.FourCC = NDIlib_FourCC_audio_type_ex_AAC;
        frame.sample_rate = changes.value("rate", 48000).toInt();
        frame.no_channels = changes.value("channels", 2).toInt();
        frame.no_samples = changes.value("samples", 1024).toInt();
        NDIlib_send_send_audio_scatter(sender, &frame, &scatter);
        return;
    }
    NDIlib_video_frame_v2_t frame = ndiVideoFrameDefaults();
    frame.FourCC = NDIlib_FourCC_video_type_e(fourcc);
    frame.xres = changes.value("xres", 1920).toInt();
    frame.yres = changes.value("yres", 1080).toInt();
    frame.frame_rate_N = changes.value("N", 30000).toInt();
    frame.frame_rate_D = changes.value("D", 1001).toInt();
    frame.picture_aspect_ratio = changes.value("aspect", 16.0 / 9).toFloat();
    frame.frame_format_type = NDIlib_frame_format_type_e(changes.value("format", NDIlib_frame_format_type_progressive).toInt());
    NDIlib_send_send_video_scatter(sender, &frame, &scatter);
}

// A source published with the runtime's own functions, gone with the object.
class TestSource
{
public:
    explicit TestSource(const QByteArray &name, const char *groups = nullptr) : listed(ndiSourceName(name))
    {
        NDIlib_send_create_t settings{};
        settings.p_ndi_name = name.constData();
        settings.p_groups = groups;
        handle = NDIlib_send_create_v2(&settings, "{}");
    }
    // One frame, as one block, the way KestNDISend sends it: extra data only on key frames.
    void send(uint32_t fourcc, bool key, const QByteArray &payload, const QByteArray &extra = {}, int64_t pts = 0)
    {
        const uint32_t codec = fourcc == NDIlib_FourCC_audio_type_ex_AAC ? NDIlib_compressed_FourCC_type_AAC
                             : ((fourcc >> 8) & 0xff) == '2'             ? NDIlib_compressed_FourCC_type_H264
                                                                         : NDIlib_compressed_FourCC_type_HEVC;
        QByteArray frame = compressedFrame(codec, pts, payload, extra);
        frame[32] = key ? char(NDIlib_compressed_packet_flags_keyframe) : 0; // the header's flags
        sendBlocks(handle, {frame}, fourcc);
    }
    ~TestSource() { NDIlib_send_destroy(handle); }
    TestSource(const TestSource &) = delete;
    TestSource &operator=(const TestSource &) = delete;
    QString name() const { return QString::fromUtf8(listed); }

    NDIlib_send_instance_t handle = nullptr;
    QByteArray listed; // "MACHINE (name)"
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
    explicit TestReceiver(const QByteArray &sourceName, NDIlib_recv_bandwidth_e bandwidth = NDIlib_recv_bandwidth_highest,
                          NDIlib_recv_color_format_e format = NDIlib_recv_color_format_compressed_v4_with_audio)
    {
        NDIlib_recv_create_v3_t settings{};
        settings.color_format = format;
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

    // The bytes of every waiting frame, released; "wrong FourCC" for one not of `fourcc`.
    QByteArrayList drain(uint32_t fourcc)
    {
        QByteArrayList frames;
        NDIlib_video_frame_v2_t video{};
        NDIlib_audio_frame_v3_t audio{};
        for (;;) {
            const NDIlib_frame_type_e type = NDIlib_recv_capture_v3(handle, &video, &audio, nullptr, 0);
            const bool isVideo = type == NDIlib_frame_type_video;
            if (!isVideo && type != NDIlib_frame_type_audio)
                return frames;
            const QByteArray bytes(reinterpret_cast<const char *>(isVideo ? video.p_data : audio.p_data),
                                   qMax(isVideo ? video.data_size_in_bytes : audio.data_size_in_bytes, 0));
            frames << ((isVideo ? uint32_t(video.FourCC) : uint32_t(audio.FourCC)) == fourcc ? bytes : QByteArray("wrong FourCC"));
            isVideo ? NDIlib_recv_free_video_v2(handle, &video) : NDIlib_recv_free_audio_v3(handle, &audio);
        }
    }

    NDIlib_recv_instance_t handle = nullptr;
};
