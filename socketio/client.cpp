#include "socketio/client.h"

#include <QDateTime>
#include <QDebug>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QTimer>
#include <QWebSocket>

#include <algorithm>
#include <limits>

namespace SocketIO {

namespace {

constexpr int kDefaultTimeoutMs = 30000;
constexpr int kDefaultPulseMs = 20000;
// The server pings every pingInterval; a frame later than this margin after that means the
// connection is gone.
constexpr int kTimeoutMarginMs = 5000;
constexpr int kDefaultPort = 80;
// A handshake or connect request that gets no answer fails instead of hanging the session.
constexpr int kRequestTimeoutMs = 10000;
constexpr int kHttpOk = 200;

} // namespace

Client::Client(int eio, QObject *parent)
    : QObject(parent),
      eio(eio),
      webSocket(new QWebSocket(QString(), QWebSocketProtocol::Version13, this)),
      network(new QNetworkAccessManager(this)),
      protocol(this),
      timeoutInterval(kDefaultTimeoutMs),
      pulseInterval(kDefaultPulseMs),
      pulseTimer(new QTimer(this)),
      timeoutTimer(new QTimer(this))
{
    qRegisterMetaType<QAbstractSocket::SocketError>();
    qRegisterMetaType<QAbstractSocket::SocketState>();

    pulseTimer->setInterval(pulseInterval);
    timeoutTimer->setInterval(timeoutInterval);

    connect(network, &QNetworkAccessManager::finished, this, &Client::handshakeReplyFinished);
    connect(webSocket, &QWebSocket::textMessageReceived, this, &Client::onTextMessage);
    connect(webSocket, &QWebSocket::stateChanged, this, &Client::onWsStateChanged);
    connect(webSocket, &QWebSocket::connected, this, &Client::onWsConnected);
    connect(webSocket, &QWebSocket::disconnected, this, &Client::onWsDisconnected);
    connect(webSocket, &QWebSocket::binaryMessageReceived, this, &Client::onBinaryMessage);
    connect(pulseTimer, &QTimer::timeout, this, qOverload<>(&Client::sendPulse));
    connect(timeoutTimer, &QTimer::timeout, this, &Client::connectionTimedOut);
}

Client::~Client()
{
    pulseTimer->stop();
    timeoutTimer->stop();
    discardPendingReplies();
    // The WebSocket, the network manager and the timers go with their parent.
}

QString Client::getState() const
{
    switch (state) {
    case Opening:
        return QStringLiteral("opening");
    case Opened:
        return QStringLiteral("opened");
    case Connecting:
        return QStringLiteral("connecting");
    case Connected:
        return QStringLiteral("connected");
    case Disconnecting:
        return QStringLiteral("disconnecting");
    case Disconnected:
        break;
    }
    return QStringLiteral("disconnected");
}

QString Client::sessionID() const
{
    return sid;
}

QUrl Client::url() const
{
    return serverUrl;
}

int Client::timeoutIntervalMs() const
{
    return timeoutInterval;
}

QString Client::handshakeUrl()
{
    t = QString::number(QDateTime::currentMSecsSinceEpoch());
    const QString scheme = serverUrl.scheme() == QLatin1String("https") ? QStringLiteral("https") : QStringLiteral("http");
    return QStringLiteral("%1://%2:%3/socket.io/?EIO=%4&transport=polling&t=%5")
        .arg(scheme, serverUrl.host())
        .arg(serverUrl.port(kDefaultPort))
        .arg(eio)
        .arg(t);
}

// Always plain http, even for an https server: kept as the session has always built it.
QString Client::pollingUrl() const
{
    return QStringLiteral("http://%1:%2/socket.io/?EIO=%3&transport=polling&t=%4&sid=%5")
        .arg(serverUrl.host())
        .arg(serverUrl.port(kDefaultPort))
        .arg(eio)
        .arg(t, sid);
}

QString Client::wsUrl() const
{
    const QString scheme = serverUrl.scheme() == QLatin1String("https") ? QStringLiteral("wss") : QStringLiteral("ws");
    return QStringLiteral("%1://%2:%3/socket.io/?EIO=%4&transport=websocket&sid=%5")
        .arg(scheme, serverUrl.host())
        .arg(serverUrl.port(kDefaultPort))
        .arg(eio)
        .arg(sid);
}

void Client::open(const QUrl &url)
{
    // Requests still under way belong to an earlier attempt; their answers must not take over.
    discardPendingReplies();
    serverUrl = url;
    get(handshakeUrl());
    setState(Opening);
}

void Client::close()
{
    discardPendingReplies();
    webSocket->close(QWebSocketProtocol::CloseCodeNormal, QString());
    setState(Disconnected);
    emit disconnected();
}

void Client::restart()
{
    qDebug() << "restarting";
    close();
    open(serverUrl);
}

void Client::setState(State newState)
{
    state = newState;
    emit stateChanged(state);
}

namespace {

QNetworkRequest pollingRequest(const QString &target, int timeoutMs)
{
    QNetworkRequest request{QUrl(target)};
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("text/plain"));
    request.setRawHeader(QByteArrayLiteral("Accept"), QByteArrayLiteral("*/*"));
    request.setRawHeader(QByteArrayLiteral("Connection"), QByteArrayLiteral("close"));
    request.setTransferTimeout(timeoutMs);
    return request;
}

} // namespace

void Client::get(const QString &target)
{
    pending.append(network->get(pollingRequest(target, kRequestTimeoutMs)));
}

void Client::post(const QString &target, const QByteArray &body)
{
    pending.append(network->post(pollingRequest(target, kRequestTimeoutMs), body));
}

void Client::discardPendingReplies()
{
    const QList<QPointer<QNetworkReply>> replies = pending;
    pending.clear();
    for (const QPointer<QNetworkReply> &reply : replies)
        if (reply)
            reply->abort();
}

void Client::handshakeReplyFinished(QNetworkReply *reply)
{
    reply->deleteLater();
    const int index = pending.indexOf(reply);
    if (index < 0)
        return; // discarded by open() or close()
    pending.removeAt(index);

    const QByteArray body = reply->readAll();
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (status != kHttpOk) {
        qDebug().nospace().noquote() << "Error[" << status << "] "
                                     << (status == 0 ? reply->errorString() : QString::fromUtf8(body));
        emit handshakeFailed();
        return;
    }

    if (state != Opened) {
        HandShake handShake;
        if (!protocol.decryptHandShake(body, &handShake)) {
            emit handshakeFailed();
            return;
        }
        sid = handShake.sid;
        // The server's pingTimeout is not needed: silence is measured against the interval.
        const qint64 largest = std::numeric_limits<int>::max() - kTimeoutMarginMs;
        pulseInterval = int(std::clamp<qint64>(handShake.pingInterval, 0, largest));
        timeoutInterval = pulseInterval + kTimeoutMarginMs;
        post(pollingUrl(), QByteArrayLiteral("40"));
        setState(Opened);
        return;
    }
    webSocket->open(QUrl(wsUrl()));
}

void Client::onSocketError(QAbstractSocket::SocketError error)
{
    qDebug() << "WebSocket error! " << error;
    restart();
}

void Client::onWsConnected()
{
    setState(Connected);
    sendPulse(QStringLiteral("probe"));
}

void Client::onWsDisconnected()
{
    qDebug() << "Websocket disconnected!";
    setState(Disconnected);
    emit disconnected();
    pulseTimer->stop();
    timeoutTimer->stop();
}

void Client::onWsStateChanged(QAbstractSocket::SocketState)
{
}

void Client::onTextMessage(const QString &textMessage)
{
    Packet *packet = protocol.decrypt(textMessage);
    if (packet->frameType == Pong && packet->raw == QLatin1String("probe")) {
        sendUpgrade();
        emit connected();
    } else if (packet->frameType == Ping) {
        sendPacket(new Packet(Pong, this));
    } else if (packet->frameType == Message) {
        emit newMessage(packet->raw);
    }
    resetTimoutTimer();
    packet->deleteLater();
}

void Client::onBinaryMessage(const QByteArray &msg)
{
    qDebug() << "Websocket binary message!!!" << msg;
}

void Client::resetTimoutTimer()
{
    timeoutTimer->stop();
    timeoutTimer->setInterval(timeoutInterval);
    timeoutTimer->start();
}

// The server drives the heartbeat in this Engine.IO revision, so the client never pings on its
// own: deliberately empty, and the pulse timer is never started.
void Client::resetPulseTimer()
{
}

void Client::connectionTimedOut()
{
    qDebug() << "connection timed out";
    restart();
}

void Client::sendPulse(const QString &rawData)
{
    auto *packet = new Packet(Ping, this);
    packet->raw = rawData;
    sendPacket(packet);
}

void Client::sendPulse()
{
    sendPulse(QString());
}

void Client::sendUpgrade()
{
    sendPacket(new Packet(Upgrade, this));
}

void Client::sendConnect(const QString &nsp)
{
    if (nsp.isEmpty() || nsp == QLatin1String("/"))
        return;
    auto *packet = new Packet(Message, this);
    packet->packetType = Connect;
    packet->nsp = nsp;
    sendPacket(packet);
}

void Client::sendConnect()
{
    sendConnect(QString());
}

void Client::sendPacket(Packet *p)
{
    if (state == Connecting || state == Connected) {
        if (!p->binary.isEmpty())
            webSocket->sendBinaryMessage(protocol.encryptBinary(p));
        else
            webSocket->sendTextMessage(protocol.encryptString(p));
        webSocket->flush();
    }
    p->deleteLater();
}

void Client::eemit(const QString &event, const QVariant &data)
{
    auto *packet = new Packet(Message, this);
    packet->packetType = Event;
    packet->setEventData(event, data);
    sendPacket(packet);
}

} // namespace SocketIO
