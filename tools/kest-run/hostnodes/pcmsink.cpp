#include "pcmsink.h"

#include "nodelog.h"
#include "registration.h"

#include <QTimer>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

const int registered = Kest::registerClass<PcmSink>();

constexpr int kDefaultReportMs = 1000;

const QString kFile = QStringLiteral("file");
const QString kReportMs = QStringLiteral("report_ms");

int peakOf(const char *data, int len, bool eightBit)
{
    int peak = 0;
    if (eightBit) {
        for (int i = 0; i < len; ++i)
            peak = std::max(peak, std::abs(int(quint8(data[i])) - 128));
        return peak;
    }
    for (int i = 0; i + 1 < len; i += 2) {
        qint16 s;
        std::memcpy(&s, data + i, sizeof(s));
        peak = std::max(peak, std::abs(int(s)));
    }
    return peak;
}

} // namespace

PcmSink::PcmSink(QObject *parent) : KestObject(parent), timer(new QTimer(this))
{
    data[kFile] = QString();
    data[kReportMs] = kDefaultReportMs;
    timer->setTimerType(Qt::PreciseTimer);
    connect(timer, &QTimer::timeout, this, &PcmSink::onTimerReport);
}

void PcmSink::onSetData(QVariantMap)
{
    if (!isStarted())
        return;
    const int interval = data.value(kReportMs).toInt();
    if (interval != timer->interval())
        timer->start(std::max(1, interval));
    if (data.value(kFile).toString() != file.fileName())
        openFile();
}

void PcmSink::onStart()
{
    peak = 0;
    packets = 0;
    const int interval = data.value(kReportMs).toInt();
    if (interval < 1)
        nodeLog(this) << "\"report_ms\" must be at least 1; reporting every millisecond";
    timer->start(std::max(1, interval));
    openFile();
}

void PcmSink::onStop()
{
    timer->stop();
    file.close();
}

void PcmSink::openFile()
{
    file.close();
    file.setFileName(data.value(kFile).toString());
    if (file.fileName().isEmpty())
        return;
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        nodeLog(this) << QStringLiteral("cannot write %1: %2").arg(file.fileName(), file.errorString());
}

void PcmSink::onNewInfoA(StreamInfo info)
{
    infoA = info;
}

void PcmSink::onNewPacketA(Packet pkt)
{
    if (!isStarted() || !pkt.data || pkt.len <= 0)
        return;
    const bool eightBit = infoA.params.value(QStringLiteral("bitwidth")).toInt() == 8;
    peak = std::max(peak, peakOf(pkt.data, pkt.len, eightBit));
    ++packets;
    if (file.isOpen() && file.write(pkt.data, pkt.len) != pkt.len) {
        nodeLog(this) << QStringLiteral("cannot write %1: %2 - file closed").arg(file.fileName(), file.errorString());
        file.close();
    }
}

void PcmSink::onTimerReport()
{
    sendEvent(QStringLiteral("level"), QVariantMap{{QStringLiteral("peak"), peak}, {QStringLiteral("packets"), packets}});
    peak = 0;
    packets = 0;
}
