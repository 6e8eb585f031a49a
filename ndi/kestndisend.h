#pragma once

#include "kestobject.h"
#include "ndi/ndiabi.h"

#include <QByteArray>
#include <QPointer>

#include <atomic>

class QTimer;
struct NdiFunctions;

// Publishes the unit's encoded video (a main and a sub stream, H.264 or H.265) and its AAC
// audio as one NDI source, passing the coded frames through without re-encoding (NDI Advanced
// SDK), and reports the tally that NDI receivers request.
//
// The first video stream wider than 640 pixels is the main (full-bandwidth) stream; other
// streams are the sub (preview) stream. Packets go out as scatter lists: the 44-byte packet
// header, the packet's own bytes and, on key frames, the stream's parameter sets.
//
// Settings:
//   "name"   (string, "NDI Test")              NDI source name
//   "group"  (string, "")                      NDI groups; empty: the default groups
//   "config" (string, "/kest/config/ndi.json") JSON configuration passed to the NDI runtime
//
// Events: "tally" {"program": bool, "preview": bool} when the tally changes (polled every 500 ms).
//
// Without an NDI runtime the node logs that once and stays idle.
class KestNDISend : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit KestNDISend(QObject *parent = nullptr);
    ~KestNDISend() override;

public Q_SLOTS:
    void onStart() override;
    void onSetData(QVariantMap data) override;
    void onNewPacketV(Packet pkt) override;
    void onNewInfoV(StreamInfo info) override;
    void onNewPacketA(Packet pkt) override;
    void onNewInfoA(StreamInfo info) override;
    void sendA();
    void sendV();
    void onStop() override;
    QVariant getTally();
    void onTimer();

private:
    static constexpr int kBlocks = 4; // header, payload, extra data, end of list

    // One video stream: its frame description, packet header, parameter sets and scatter list.
    struct VideoStream
    {
        NDIlib_video_frame_v2_t frame{};
        NDIlib_compressed_packet_t header{};
        QByteArray extra;
        const uint8_t *blocks[kBlocks] = {};
        int sizes[kBlocks] = {};
        QObject *encoder = nullptr;           // the stream's packets carry it as `source`
        QPointer<QObject> encoderToAsk;       // the same when it is an encoder, for key-frame requests
    };

    void describe(VideoStream &stream, const StreamInfo &info);
    void requestKeyFrame(VideoStream &stream, const Packet &pkt, const char *logText);
    void destroySender();
    NDIlib_tally_t readTally();

    const NdiFunctions *ndi = nullptr; // null when no usable NDI runtime was found
    NDIlib_send_instance_t sender = nullptr;
    NDIlib_send_create_t createSettings{};
    QByteArray nameBytes;
    QByteArray groupBytes;

    VideoStream mainStream;
    VideoStream subStream;

    NDIlib_audio_frame_v3_t audioFrame{};
    NDIlib_compressed_packet_t audioHeader{};
    QByteArray audioExtra;
    const uint8_t *audioBlocks[kBlocks] = {};
    int audioSizes[kBlocks] = {};

    QTimer *timer;
    bool lastProgram = false;
    bool lastPreview = false;

    // When any sender of the process was last (re)configured, in microseconds.
    static std::atomic<qint64> lastTm;
};
