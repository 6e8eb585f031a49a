#pragma once

#include "kestobject.h"
#include "ndi/ndiabi.h"

#include <QMutex>
#include <QPointer>
#include <QVector>

class QTimer;
struct CompressedFrame;
struct NdiFunctions;

// Receives one NDI source, found by name, and hands its compressed video (H.264, H.265) and
// AAC audio to the host as packets, after describing each stream (NDI Advanced SDK compressed
// receiving: nothing is decoded).
//
// All receivers of the process share one NDI finder and its list of sources, refreshed every
// 2 s by the receiver that owns the shared timer. Each receiver drains its NDI receiver every
// 10 ms without waiting. Audio and video share one time line that starts at 0 with the first
// frame of either kind after a connection. Video starts at the connection's first key frame,
// whose parameter sets go into the description.
//
// Settings:
//   "name"    (string, absent)                 source to receive, as getList() lists it
//                                              ("MACHINE (source)"); empty: disconnect
//   "config"  (string, "/kest/config/ndi.json") JSON configuration passed to the NDI runtime
//   "memSize" (int, 16384000)                  the host's packet pool for this node
//
// Slots for the host: getList(), play(name), setTally({"program": bool, "preview": bool}).
// Events: "ready" {"infoA": {...}, "infoV": {...}} whenever a stream has been described.
//
// Without an NDI runtime the node logs that once and stays idle.
class KestNDIRecv : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit KestNDIRecv(QObject *parent = nullptr);
    ~KestNDIRecv() override;

public Q_SLOTS:
    void onStart() override;
    void onSetData(QVariantMap data) override;
    void sendInfoEvent();
    void onTimer();
    QVariant getList();
    QVariant play(QVariant name);
    QVariant setTally(QVariant args);

protected:
    // The capture pass; `event` is not used (play() runs a pass with none).
    void timerEvent(QTimerEvent *event) override;

private:
    void disconnectSource();
    void takeVideo(const NDIlib_video_frame_v2_t &frame);
    void takeCompressedVideo(const NDIlib_video_frame_v2_t &frame);
    void takeUncompressedVideo(const NDIlib_video_frame_v2_t &frame);
    void takeAudio(const NDIlib_audio_frame_v3_t &frame);
    // False when whoever heard about the description ended the connection.
    bool describeCompressedVideo(const NDIlib_video_frame_v2_t &frame, const CompressedFrame &packet);
    // A packet over a pool copy of `size` bytes; its data is null when the pool has no room.
    Packet packetOf(const char *data, int size, int headroom, qint64 pts, int frameType);
    // Sends the description and "ready"; false when whoever heard it ended the connection.
    bool describe(StreamInfo &info, bool video);

    const NdiFunctions *ndi = nullptr; // null when no usable NDI runtime was found
    NDIlib_recv_instance_t recv = nullptr;
    QString sourceName; // the name play() last accepted
    qint64 audioStart = 0; // time origins and last times of the connection, microseconds
    qint64 audioLast = 0;
    qint64 videoStart = 0;
    qint64 videoLast = 0;
    int findTicks = 0; // onTimer calls since this receiver last reset the finder
    quint64 connections = 0; // counts disconnects: a pass notices when its connection ended
    bool videoDescribed = false; // this connection's video was described (also without a codec)
    bool poolTooSmallLogged = false;

    // Shared by every receiver of the process.
    static NDIlib_find_instance_t finder;
    static const NDIlib_source_t *sources; // owned by the runtime, valid until the next query
    static uint32_t sourcesCount;
    static QMutex mutex; // guards the finder's query, sources and sourcesCount
    static QPointer<QTimer> timer; // child of the receiver that refreshes the list
    static QVector<KestNDIRecv *> startedReceivers; // connected to `timer`, in start order
};
