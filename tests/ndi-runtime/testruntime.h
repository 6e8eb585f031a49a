#pragma once

// C++ helpers for tests that run NDI nodes against the NDI test runtime they link
// (kest_use_ndi_test_runtime in CMake).

#include "kesttest.h"
#include "ndiexports.h"

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

// The newest live sender of the runtime (null when there is none).
inline NDIlib_send_instance_t newestSender()
{
    return kesttest_sender_at(kesttest_sender_count() - 1);
}

inline kesttest_sender_info_t senderInfo(NDIlib_send_instance_t sender)
{
    kesttest_sender_info_t info{};
    kesttest_sender_info(sender, &info);
    return info;
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
    const int count = kesttest_sent_frame_count(sender);
    for (int i = 0; i < count; ++i) {
        SentFrame f;
        if (!kesttest_sent_frame(sender, i, &f.raw))
            break;
        f.bytes = QByteArray(reinterpret_cast<const char *>(f.raw.p_bytes), f.raw.no_bytes);
        if (f.bytes.size() >= int(sizeof(f.header))) {
            std::memcpy(&f.header, f.bytes.constData(), sizeof(f.header));
            const int version = qBound(0, f.header.version, f.bytes.size());
            f.payload = f.bytes.mid(version, int(f.header.data_size));
            f.extra = f.bytes.mid(version + int(f.header.data_size), int(f.header.extra_data_size));
        }
        frames.append(f);
    }
    return frames;
}

// A receiver of the test runtime, connected to a source by name. Captures never wait.
class TestReceiver
{
public:
    struct Frame
    {
        NDIlib_frame_type_e type = NDIlib_frame_type_none;
        NDIlib_video_frame_v2_t video{};
        NDIlib_audio_frame_v3_t audio{};
        QByteArray bytes; // payload, or metadata text
    };

    explicit TestReceiver(const QByteArray &sourceName,
                          NDIlib_recv_bandwidth_e bandwidth = NDIlib_recv_bandwidth_highest,
                          NDIlib_recv_color_format_e format = NDIlib_recv_color_format_compressed_v4_with_audio)
    {
        NDIlib_recv_create_v3_t settings{};
        settings.color_format = format;
        settings.bandwidth = bandwidth;
        settings.allow_video_fields = true;
        settings.p_ndi_recv_name = "test receiver";
        handle = NDIlib_recv_create_v3(&settings);
        NDIlib_source_t source{};
        source.p_ndi_name = sourceName.constData();
        NDIlib_recv_connect(handle, &source);
    }
    ~TestReceiver() { NDIlib_recv_destroy(handle); }
    TestReceiver(const TestReceiver &) = delete;
    TestReceiver &operator=(const TestReceiver &) = delete;

    bool connected() const { return NDIlib_recv_get_no_connections(handle) > 0; }

    bool setTally(bool program, bool preview)
    {
        NDIlib_tally_t tally{};
        tally.on_program = program;
        tally.on_preview = preview;
        return NDIlib_recv_set_tally(handle, &tally);
    }

    // The next waiting frame, copied and released; type none when nothing waits.
    Frame capture()
    {
        Frame f;
        NDIlib_metadata_frame_t metadata{};
        f.type = NDIlib_recv_capture_v3(handle, &f.video, &f.audio, &metadata, 0);
        if (f.type == NDIlib_frame_type_video) {
            f.bytes = QByteArray(reinterpret_cast<const char *>(f.video.p_data), qMax(f.video.data_size_in_bytes, 0));
            NDIlib_recv_free_video_v2(handle, &f.video);
        } else if (f.type == NDIlib_frame_type_audio) {
            f.bytes = QByteArray(reinterpret_cast<const char *>(f.audio.p_data), qMax(f.audio.data_size_in_bytes, 0));
            NDIlib_recv_free_audio_v3(handle, &f.audio);
        } else if (f.type == NDIlib_frame_type_metadata) {
            f.bytes = QByteArray(metadata.p_data);
            NDIlib_recv_free_metadata(handle, &metadata);
        }
        return f;
    }

    // Every waiting frame of one type; the others are dropped.
    QVector<Frame> drain(NDIlib_frame_type_e type)
    {
        QVector<Frame> frames;
        for (Frame f = capture(); f.type != NDIlib_frame_type_none; f = capture())
            if (f.type == type)
                frames.append(f);
        return frames;
    }

    NDIlib_recv_instance_t handle = nullptr;
};
