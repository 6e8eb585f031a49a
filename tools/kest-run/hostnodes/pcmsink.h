#pragma once

#include "kestobject.h"

#include <QFile>

class QTimer;

// A loudspeaker for kest-run: takes raw PCM audio packets, writes them to a file if one is
// given, and reports how loud they were. Every "report_ms" it sends the event "level" with
// {"peak": the largest absolute sample, "packets": packets since the last report}; peak and
// count start again from 0 after each report.
//
// Settings:
//   "file"      (string, "")  raw PCM output, truncated on start; "" writes nothing
//   "report_ms" (int, 1000)   report interval
// The sample width is "bitwidth" (8 or 16) of the incoming stream description; 8-bit samples
// are unsigned around 128.
class PcmSink : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit PcmSink(QObject *parent = nullptr);

public Q_SLOTS:
    void onSetData(QVariantMap) override;
    void onStart() override;
    void onStop() override;
    void onNewInfoA(StreamInfo info) override;
    void onNewPacketA(Packet pkt) override;
    void onTimerReport();

private:
    void openFile();

    QTimer *timer;
    QFile file;
    int peak = 0;
    int packets = 0;
};
