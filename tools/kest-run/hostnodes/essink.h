#pragma once

#include "adts.h"
#include "kestobject.h"

#include <QFile>

class QTimer;

// Stands in for the unit's decoders: writes the compressed video it receives as an Annex-B
// H.264 or H.265 stream and the AAC audio as an ADTS stream, files that ffmpeg and ffprobe read
// as they are. Every second it sends the event "stats" with {"video": frames, "audio": frames},
// the frames written since the start.
//
// Video is written from the first key frame on (packets are told apart by their NAL units, not
// by frameType), with the stream's "extradata" parameter sets put in front of every key frame
// that does not carry its own. A new description waits for a key frame again. Audio frames go
// out behind an ADTS header made from the stream's AudioSpecificConfig ("extradata"), or from
// "samplerate" and "channels" (AAC-LC) when there is none. Other codecs are not written.
//
// Settings:
//   "video_file" (string, "")  Annex-B output, truncated on start; "" writes nothing
//   "audio_file" (string, "")  ADTS output, truncated on start; "" writes nothing
// Without a file the frames are still counted.
class EsSink : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit EsSink(QObject *parent = nullptr);

public Q_SLOTS:
    void onSetData(QVariantMap) override;
    void onStart() override;
    void onStop() override;
    void onNewInfoV(StreamInfo info) override;
    void onNewInfoA(StreamInfo info) override;
    void onNewPacketV(Packet pkt) override;
    void onNewPacketA(Packet pkt) override;
    void onTimerStats();

private:
    void open(QFile &file, const QString &key);
    void write(QFile &file, const char *data, int len);

    QTimer *timer;
    QFile videoFile;
    QFile audioFile;
    int videoCodec = KestCodec::None;
    QByteArray parameterSets;
    bool waitingForKey = true;
    bool audioUsable = false;
    Adts::Config audioConfig;
    bool videoCodecLogged = false;
    bool audioCodecLogged = false;
    qint64 videoFrames = 0;
    qint64 audioFrames = 0;
};
