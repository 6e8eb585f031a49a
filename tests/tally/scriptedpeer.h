#pragma once

// A vMix stand-in driven line by line by the test: listens on 127.0.0.1, keeps every accepted
// connection with what it received, and writes whatever the test hands it.

#include <QByteArray>
#include <QList>
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

    ~ScriptedPeer() override
    {
        server.close();
        for (Connection &c : connections) {
            if (c.socket) {
                c.socket->disconnect(this);
                delete c.socket;
            }
        }
    }

    bool listen(quint16 port = 0) { return server.listen(QHostAddress::LocalHost, port); }
    quint16 port() const { return server.serverPort(); }

    // Stops listening and drops every connection, as a switcher that shuts down.
    void stop()
    {
        server.close();
        closeConnections();
    }

    void closeConnections()
    {
        for (Connection &c : connections)
            if (c.socket && c.socket->state() == QAbstractSocket::ConnectedState)
                c.socket->disconnectFromHost();
    }

    // True when a connection arrived within `ms` (it is then in the list).
    bool waitForNewConnection(int ms) { return server.isListening() && server.waitForNewConnection(ms); }

    int count() const { return connections.size(); }
    const Connection &at(int i) const { return connections.at(i); }
    const Connection &last() const { return connections.last(); }

    // Writes to the newest connection.
    void send(const QByteArray &bytes)
    {
        connections.last().socket->write(bytes);
        connections.last().socket->flush();
    }

private:
    QTcpServer server;
    QList<Connection> connections;
};
