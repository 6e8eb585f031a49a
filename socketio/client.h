#pragma once

#include "socketio/protocol.h"

#include <QAbstractSocket>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QUrl>

class QNetworkAccessManager;
class QNetworkReply;
class QTimer;
class QWebSocket;

namespace SocketIO {

// A minimal Socket.IO client: the Engine.IO handshake over HTTP polling, the default namespace
// joined by a "40" POST, then an upgrade to a WebSocket ("2probe", "3probe", "5"). The server
// drives the heartbeat; the client answers pings and restarts the session when the WebSocket
// stays silent for longer than the server's ping interval plus five seconds.
// Every received Socket.IO message reaches the owner as text through newMessage().
class Client : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QUrl url READ url)
public:
    enum State { Disconnected = 0, Opening = 1, Opened = 2, Connecting = 3, Connected = 4, Disconnecting = 5 };
    Q_ENUM(State)

    explicit Client(int eio, QObject *parent = nullptr);
    ~Client() override;

    // Sends the event on the default namespace (42["event",data]); dropped unless connected.
    void eemit(const QString &event, const QVariant &data = QVariant());
    QString getState() const;
    QString sessionID() const;
    QUrl url() const;
    QString handshakeUrl();
    QString wsUrl() const;
    int timeoutIntervalMs() const;
    void resetTimoutTimer();
    void resetPulseTimer();
    void connectionTimedOut();

    Q_INVOKABLE void handshakeReplyFinished(QNetworkReply *reply);
    Q_INVOKABLE void onSocketError(QAbstractSocket::SocketError error);
    Q_INVOKABLE void onWsConnected();
    Q_INVOKABLE void onWsDisconnected();
    Q_INVOKABLE void onWsStateChanged(QAbstractSocket::SocketState st);
    Q_INVOKABLE void onTextMessage(const QString &textMessage);
    Q_INVOKABLE void onBinaryMessage(const QByteArray &msg);
    Q_INVOKABLE void sendPulse(const QString &rawData);
    Q_INVOKABLE void sendPulse();
    Q_INVOKABLE void sendUpgrade();
    Q_INVOKABLE void sendConnect(const QString &nsp);
    Q_INVOKABLE void sendConnect();
    Q_INVOKABLE void sendPacket(SocketIO::Packet *p);

public Q_SLOTS:
    void open(const QUrl &url);
    void close();
    void restart();

Q_SIGNALS:
    void stateChanged(SocketIO::Client::State state);
    void connected();
    void disconnected();
    void newMessage(const QString &message);
    // A handshake or namespace-connect reply that cannot be used. The session itself does not
    // retry; an owner that wants to try again listens here.
    void handshakeFailed();

private:
    void setState(State newState);
    QString pollingUrl() const;
    void post(const QString &target, const QByteArray &body);
    void get(const QString &target);
    void discardPendingReplies();

    QString t;
    State state = Disconnected;
    QUrl serverUrl;
    QString sid;
    int eio;
    QWebSocket *webSocket;
    QNetworkAccessManager *network;
    Protocol protocol;
    int timeoutInterval;
    int pulseInterval;
    QTimer *pulseTimer;
    QTimer *timeoutTimer;
    QList<QPointer<QNetworkReply>> pending; // requests of the current session
};

} // namespace SocketIO
