#include "kestvmix.h"

#include "nodelog.h"
#include "registration.h"
#include "tally/vmixline.h"

#include <QHostAddress>
#include <QTcpSocket>
#include <QTimer>

namespace {
const int registered = Kest::registerClass<KestVMix>();
} // namespace

KestVMix::KestVMix(QObject *parent) : KestObject(parent), timer(new QTimer(this))
{
    typeId = 2;
    connect(timer, &QTimer::timeout, this, &KestVMix::onTimer);
    data[QStringLiteral("port")] = VMix::kDefaultPort;
    data[QStringLiteral("queryOnConnect")] = false;
}

void KestVMix::onSetData(QVariantMap /*settings*/)
{
    // Always reconnects, even with unchanged settings.
    if (socket && socket->isOpen())
        socket->close();
    timer->start(VMix::kReconnectIntervalMs);
    onTimer();
}

void KestVMix::onTimer()
{
    if (!socket) {
        socket = new QTcpSocket(this);
        connect(socket, &QTcpSocket::readyRead, this, &KestVMix::onRead);
        connect(socket, &QTcpSocket::disconnected, this, &KestVMix::onDisconnect);
        socket->bind(0);
    }
    if (socket->state() == QAbstractSocket::ConnectedState) {
        timer->stop();
        return;
    }
    const QHostAddress address(data.value(QStringLiteral("ip")).toString());
    if (address.isNull()) {
        discardSocket(); // no name look-up: an unparsable address fails like a refused one
        return;
    }
    if (socket->state() != QAbstractSocket::ConnectingState)
        socket->connectToHost(address, VMix::portNumber(data.value(QStringLiteral("port")).toInt()), QIODevice::ReadWrite);
    // Deliberately short: a switcher that needs longer to accept is never reached, and the
    // host's event loop is held for at most this long per attempt.
    if (!socket->waitForConnected(VMix::kConnectWaitMs)) {
        discardSocket();
        return;
    }
    // Set on the connected socket: Qt forgets socket options across a reconnection.
    socket->setSocketOption(QAbstractSocket::KeepAliveOption, 1);
    onConnected();
}

void KestVMix::discardSocket()
{
    // Deferred: a host that answers a "TALLY" event with new settings gets here from inside
    // this socket's readyRead().
    socket->disconnect(this);
    socket->abort();
    socket->deleteLater();
    socket = nullptr;
}

void KestVMix::onConnected()
{
    timer->stop();
    nodeLog(this) << "connected";
    socket->write(QByteArray(VMix::kSubscribeRequest));
    socket->flush();
}

void KestVMix::onRead()
{
    // A listener of the event may give new settings, which closes this socket or discards it
    // (deleteLater, so it stays valid here).
    QTcpSocket *const current = socket;
    while (current->state() == QAbstractSocket::ConnectedState && current->canReadLine())
        dealMessage(VMix::lineText(current->readLine()));
    if (current->state() == QAbstractSocket::ConnectedState && current->bytesAvailable() > VMix::kMaxLineBytes) {
        nodeLog(this) << "no line feed in" << current->bytesAvailable() << "bytes, dropping the connection";
        current->abort(); // disconnected() starts the retry cycle
    }
}

void KestVMix::dealMessage(const QString &line)
{
    // The switcher pushes changes only. The request goes out once the subscription is answered,
    // as a write of its own: Tally Arbiter's emulator reads one line per TCP chunk, and a request
    // that follows the subscription at once reaches it in the same chunk and goes unanswered.
    if (socket && line == QLatin1String(VMix::kSubscribedReply) && data.value(QStringLiteral("queryOnConnect")).toBool()) {
        socket->write(QByteArray(VMix::kTallyRequest));
        socket->flush();
        return;
    }
    if (const auto values = VMix::tally(line))
        sendEvent(QStringLiteral("TALLY"), *values);
}

void KestVMix::onDisconnect()
{
    // The socket is kept: the next tick connects it again.
    timer->start(VMix::kReconnectIntervalMs);
}
