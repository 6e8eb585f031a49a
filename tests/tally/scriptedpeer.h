#pragma once

// A vMix stand-in driven by the test: listens on 127.0.0.1, keeps every accepted connection
// with what it received, and writes whatever the test hands it to the newest one.

#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>

class ScriptedPeer : public QObject
{
    Q_OBJECT
public:
    struct Connection
    {
        QPointer<QTcpSocket> socket;
        QByteArray received;
        bool closed = false;
    };

    ScriptedPeer()
    {
        connect(&server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *s = server.nextPendingConnection()) {
                const int index = connections.size();
                connections.append({s, {}, false});
                connect(s, &QTcpSocket::readyRead, this, [this, s, index] { connections[index].received += s->readAll(); });
                connect(s, &QTcpSocket::disconnected, this, [this, index] { connections[index].closed = true; });
            }
        });
    }

    bool listen(quint16 port = 0) { return server.listen(QHostAddress::LocalHost, port); }
    quint16 port() const { return server.serverPort(); }

    // Drops every connection; with `shutDown` also stops listening, as a switcher that quits.
    void closeConnections(bool shutDown = false)
    {
        if (shutDown)
            server.close();
        for (Connection &c : connections)
            if (c.socket)
                c.socket->disconnectFromHost();
    }

    void send(const QByteArray &bytes)
    {
        connections.last().socket->write(bytes);
        connections.last().socket->flush();
    }

    QList<Connection> connections;

private:
    QTcpServer server;
};
