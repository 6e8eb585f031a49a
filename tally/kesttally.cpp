#include "kesttally.h"

#include "kestgpio.h"
#include "nodelog.h"
#include "registration.h"
#include "tally/serialframe.h"
#include "tally/stalelocks.h"

#include <QSerialPort>
#include <QThread>

namespace {

const int registered = Kest::registerClass<KestTally>();

constexpr int kCommandModeWaitMs = 100; // each of the three steps of an AT command
// A port that still holds more than this after flushing is stuck (an unplugged adapter).
constexpr qint64 kMaxWriteBacklogBytes = 10;

} // namespace

KestTally::KestTally(QObject *parent)
    : KestObject(parent), port(new QSerialPort(this)), gpio(new KestGPIO(this))
{
    typeName = QStringLiteral("share");
    typeId = 2;
    data[QStringLiteral("uart")] = QStringLiteral("/dev/ttyUSB0");
    data[QStringLiteral("baudRate")] = 9600;
    data[QStringLiteral("gpio")] = QStringLiteral("GPIO0_3");
    data[QStringLiteral("init")] = QStringLiteral("AT+C077");
    connect(port, &QSerialPort::readyRead, this, &KestTally::onRead);
}

void KestTally::onStart()
{
    if (port->isOpen())
        port->close();
    const QString uart = data.value(QStringLiteral("uart")).toString();
    port->setPortName(uart);
    // A process that died with the port open leaves its lock file behind, and the next open
    // would be refused.
    SerialTally::removeStaleLocks(QString::fromLatin1(SerialTally::kLockDirectory), uart);
    // A failed open is not reported: frames are then dropped until the next start.
    if (port->open(QIODevice::ReadWrite)) {
        port->setBaudRate(data.value(QStringLiteral("baudRate")).toInt(), QSerialPort::AllDirections);
        port->setDataBits(QSerialPort::Data8);
        port->setParity(QSerialPort::NoParity);
        port->setFlowControl(QSerialPort::NoFlowControl);
        port->setStopBits(QSerialPort::OneStop);
    }
    // Sent even when the open failed: the command-mode line is driven all the same.
    const QString init = data.value(QStringLiteral("init")).toString();
    if (!init.isEmpty())
        sendAT(init);
}

void KestTally::onStop()
{
    port->close();
}

QVariant KestTally::setTally(QVariant tally)
{
    writeData(SerialTally::kTallyCommand, SerialTally::tallyPayload(tally.toList()));
    return true;
}

QVariant KestTally::setIndex(QVariant num)
{
    writeData(SerialTally::kIndexCommand, SerialTally::indexPayload(num.toInt()));
    return true;
}

QVariant KestTally::sendAT(QVariant cmd)
{
    const QString line = data.value(QStringLiteral("gpio")).toString();
    gpio->setGPIO(QVariantList{line, 0});
    QThread::msleep(kCommandModeWaitMs);
    if (port->isOpen()) {
        port->write(cmd.toString().toUtf8());
        port->flush();
    }
    QThread::msleep(kCommandModeWaitMs);
    gpio->setGPIO(QVariantList{line, 1});
    QThread::msleep(kCommandModeWaitMs);
    return true;
}

void KestTally::onRead()
{
    port->readAll(); // replies of the module are not interpreted
}

bool KestTally::dealCmd(const QByteArray &reply)
{
    if (SerialTally::checksumMatches(reply))
        return true;
    nodeLog(this) << "check sum error";
    return false;
}

bool KestTally::writeData(quint8 cmd, const QByteArray &payload)
{
    if (!port->isOpen())
        return false;
    port->write(SerialTally::frame(cmd, payload));
    port->flush();
    if (!port->flush() && port->bytesToWrite() > kMaxWriteBacklogBytes) {
        port->close(); // stays closed until the next start
        nodeLog(this) << "write error";
        return false;
    }
    return true;
}
