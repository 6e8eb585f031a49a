#pragma once

#include "kestobject.h"

#include <QElapsedTimer>
#include <QFile>

class QTimer;

// A microphone for kest-run: raw PCM audio, one packet per frame period, from a file played in
// a loop or a sine tone. It announces its stream (params "samplerate", "channels", "bitwidth",
// "frame_size") to linked nodes on start, then paces the packets by the clock.
//
// Settings:
//   "samplerate" (int, 48000)  "channels" (int, 1)  "bitwidth" (8 or 16, 16)
//   "frame_size" (int, 480)    samples per channel in one packet
//   "file"       (string, "")  raw PCM in the format above, played in a loop; "" plays the tone
//   "tone_hz"    (int, 1000)   tone frequency
//   "level_db"   (number, -6)  tone peak in dB below full scale, or the gain applied to the
//                              file; -120 or less is silence. Takes effect at once when set.
// 16-bit samples are signed, 8-bit samples unsigned around 128.
class PcmSource : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit PcmSource(QObject *parent = nullptr);

public Q_SLOTS:
    void onSetData(QVariantMap) override;
    void onStart() override;
    void onStop() override;
    void onTimer();

private:
    struct Format
    {
        int sampleRate = 0;
        int channels = 0;
        int bitwidth = 0;
        int frameSize = 0;
        QString file;
        bool operator==(const Format &o) const
        {
            return sampleRate == o.sampleRate && channels == o.channels && bitwidth == o.bitwidth
                && frameSize == o.frameSize && file == o.file;
        }
    };

    bool readFormat(Format *format) const;
    bool begin();
    void end();
    void produceFrame();
    void fillTone(char *out, int samples);
    bool fillFromFile(char *out, int bytes);
    int frameBytes() const { return format.frameSize * format.channels * (format.bitwidth / 8); }

    QTimer *timer;
    Format format;
    bool running = false;
    double gain = 0;
    double toneHz = 0;
    double phase = 0;
    QFile file;
    QElapsedTimer clock;
    qint64 startPts = 0;
    qint64 framesSent = 0;
};
