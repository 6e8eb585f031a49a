#pragma once

#include "kestencodev.h"

#include <QByteArray>
#include <QVector>

#include <atomic>

class QTimer;

// Stands in for one of the unit's encoders: plays an elementary stream file in real time as
// packets, announcing the stream first. Video files (Annex-B H.264 or H.265) go out one access
// unit per packet, key frames with frameType 0; audio files (ADTS AAC) one raw AAC frame per
// packet. Packet times follow the host clock from the start on, one frame period apart.
//
// Settings (read by onStart):
//   "file"      (string)        the stream to play
//   "codec"     (4, 5, 10 or "h264", "h265", "aac"; default from the file name's extension)
//   "width", "height", "framerate" (int, 1280, 720, 25) what the video description announces
//   "loop"      (bool, true)    start over at the end; otherwise stop and send the event "end"
//
// idr() counts the request and makes the next packet the next key frame of the file.
class EsSource : public KestEncodeV
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit EsSource(QObject *parent = nullptr);
    ~EsSource() override;

public Q_SLOTS:
    void onStart() override;
    void onStop() override;
    QVariant idr() override;
    QVariant idrCount();
    void onTick();

private:
    struct Unit
    {
        int offset = 0;
        int size = 0;
        bool key = false;
    };

    bool load();
    void emitUnit(const Unit &unit, qint64 pts);
    int nextKeyFrom(int index) const;

    QTimer *timer;
    QByteArray file;
    QVector<Unit> units;
    int codec = 0;
    bool audio = false;
    bool loop = true;
    double periodUs = 0;
    qint64 startUs = 0;
    qint64 sent = 0;   // packets sent since the start; sets their times
    int position = 0;  // next unit of the file
    bool tooLargeLogged = false;
    std::atomic<int> idrRequests{0};
    std::atomic<bool> skipToKey{false};
};
