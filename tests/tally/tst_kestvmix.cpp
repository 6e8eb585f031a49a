// The vMix tally client against a scripted TCP switcher; the round trip through a real switcher
// emulator is in tst_tallyarbiterserver.

#include "logcapture.h"

#include "tally/kestvmix.h"
#include "tally/vmixline.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

#include <memory>

namespace {

const QByteArray kSubscription("SUBSCRIBE TALLY\r\n");
const QString kConnected = QStringLiteral("[vmix1] connected");

// A switcher on 127.0.0.1: keeps every accepted connection with what it received, and writes to
// the newest one.
struct Switcher
{
    struct Connection
    {
        QPointer<QTcpSocket> socket;
        QByteArray received;
        bool closed = false;
    };

    Switcher()
    {
        QObject::connect(&server, &QTcpServer::newConnection, &server, [this] {
            while (QTcpSocket *s = server.nextPendingConnection()) {
                const int i = connections.size();
                connections.append({s, {}, false});
                QObject::connect(s, &QTcpSocket::readyRead, s, [this, s, i] { connections[i].received += s->readAll(); });
                QObject::connect(s, &QTcpSocket::disconnected, s, [this, i] { connections[i].closed = true; });
            }
        });
    }
    // Drops every connection; with `quit` also stops listening.
    void close(bool quit = false)
    {
        if (quit)
            server.close();
        for (Connection &c : connections)
            if (c.socket)
                c.socket->disconnectFromHost();
    }
    void send(const QByteArray &bytes) { connections.last().socket->write(bytes); }
    QByteArray received(int i) const { return i < connections.size() ? connections[i].received : QByteArray(); }

    QList<Connection> connections;
    QTcpServer server; // goes first, with its sockets
};

} // namespace

class TestKestVMix : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        peer = std::make_unique<Switcher>();
        QVERIFY(peer->server.listen(QHostAddress::LocalHost));
        node = std::make_unique<KestVMix>();
        node->setName(QStringLiteral("vmix1"));
        connect(node.get(), &KestObject::eventSent, this, [this](const QString &type, const QVariant &value) {
            events << type + QJsonDocument(QJsonArray::fromVariantList(value.toList())).toJson(QJsonDocument::Compact);
        });
        log = std::make_unique<LogCapture>();
    }

    void cleanup()
    {
        node.reset();
        log.reset();
        peer.reset();
        events.clear();
    }

    void subscribesOnceConfigured()
    {
        node->start(); // settings connect, not the start
        QVERIFY(sockets().isEmpty() && !timer()->isActive());
        connectTo(peer->server.serverPort()); // the attempt blocks until it stands
        QCOMPARE(sockets().first()->state(), QAbstractSocket::ConnectedState);
        QVERIFY(!timer()->isActive());
        QTRY_COMPARE(peer->received(0), kSubscription);
        peer->send("SUBSCRIBE OK TALLY\r\n"); // asks for nothing more by default

        // New settings reconnect at once, even unchanged ones; only the low 16 bits of the port
        // count. With "queryOnConnect" the subscription's answer is followed by a request for
        // the current tally.
        node->setData({});
        QTRY_VERIFY(peer->connections[0].closed);
        QTRY_COMPARE(peer->connections.size(), 2);
        Switcher other;
        QVERIFY(other.server.listen(QHostAddress::LocalHost));
        node->setData({{"port", other.server.serverPort() + 65536}, {"queryOnConnect", true}});
        QTRY_VERIFY(peer->connections[1].closed);
        QTRY_COMPARE(other.received(0), kSubscription);
        other.send("VERSION OK 27.0.0.49\r\nSUBSCRIBE OK TALLY\r\n");
        QTRY_COMPARE(other.received(0), kSubscription + "TALLY\r\n");
        QCOMPARE(peer->connections[0].received + peer->connections[1].received, kSubscription + kSubscription);
        QVERIFY(events.isEmpty());
        QCOMPARE(log->lines(), (QStringList{kConnected, kConnected, kConnected}));
    }

    // Chunks sent one after the other, each read before the next; the events that came.
    void linesBecomeEvents_data()
    {
        QTest::addColumn<QList<QByteArray>>("chunks");
        QTest::addColumn<QStringList>("expected");
        QTest::newRow("replies, malformed and empty lines") << QList<QByteArray>{"VERSION OK 27.0.0.49\r\nSUBSCRIBE OK TALLY\r\nTALLY OK 1\r\ngarbage\r\n\r\n\nTALLY OK 2\r\n"}
                                                           << QStringList{"TALLY[1]", "TALLY[2]"};
        QTest::newRow("wrong field count or case") << QList<QByteArray>{"TALLY OK 01 2\r\ntally OK 012\r\nTALLY OK\r\nTALLY OK \r\n"} << QStringList{"TALLY[]"};
        QTest::newRow("letter and latin-1 byte read as 0") << QList<QByteArray>{"TALLY OK 1a\xb2\r\n"} << QStringList{"TALLY[1,0,0]"};
        QTest::newRow("line split across reads, and between CR and LF") << QList<QByteArray>{"TALLY O", "K 0121\r", "\nTALLY", " OK 2\r\n"}
                                                                       << QStringList{"TALLY[0,1,2,1]", "TALLY[2]"};
    }

    void linesBecomeEvents()
    {
        QFETCH(QList<QByteArray>, chunks);
        connectTo(peer->server.serverPort());
        QTRY_COMPARE(peer->connections.size(), 1);
        QSignalSpy readyRead(sockets().first(), &QTcpSocket::readyRead); // runs after the node's own slot
        for (const QByteArray &chunk : chunks) {
            peer->send(chunk);
            QVERIFY(readyRead.wait());
        }
        QTEST(events, "expected");
        QCOMPARE(log->lines(), QStringList{kConnected});
    }

    // Beyond 64 KiB without a line feed the peer is dropped, before more is buffered; the next
    // tick connects the same socket again, with nothing left of the long line.
    void endlessLineDropsTheConnection()
    {
        connectTo(peer->server.serverPort());
        QTRY_COMPARE(peer->connections.size(), 1);
        QTcpSocket *socket = sockets().first();
        qint64 mostBuffered = 0;
        connect(socket, &QTcpSocket::readyRead, this, [&] { mostBuffered = std::max(mostBuffered, socket->bytesAvailable()); });
        peer->send("TALLY OK 1\r\nTALLY OK " + QByteArray(int(VMix::kMaxLineBytes) - 8, '2'));
        QTRY_VERIFY(peer->connections[0].closed);
        QVERIFY2(mostBuffered <= VMix::kMaxLineBytes + 1, qPrintable(QString::number(mostBuffered)));
        QCOMPARE(log->count(QStringLiteral("[vmix1] no line feed in")), 1);
        QVERIFY(retrying());
        QVERIFY(tick());
        QCOMPARE(sockets(), QList<QTcpSocket *>{socket});
        QTRY_COMPARE(peer->received(1), kSubscription);
        peer->send("TALLY OK 21\r\n");
        QTRY_COMPARE(events, (QStringList{"TALLY[1]", "TALLY[2,1]"}));
    }

    void reconnectsAfterPeerClosesOrRestarts()
    {
        connectTo(peer->server.serverPort());
        QTRY_COMPARE(peer->connections.size(), 1);
        QTcpSocket *socket = sockets().first();
        // The peer closes: the socket is kept for the next attempt; the last tally stands.
        peer->close();
        QTRY_VERIFY(retrying());
        QVERIFY(tick());
        QCOMPARE(sockets(), QList<QTcpSocket *>{socket});
        QCOMPARE(socket->state(), QAbstractSocket::ConnectedState);
        QVERIFY(!timer()->isActive());
        QTRY_COMPARE(peer->received(1), kSubscription);
        // A tick that finds the connection standing only stops the timer.
        timer()->start();
        QVERIFY(tick());
        QVERIFY(!timer()->isActive());

        // The peer restarts: refused while it is down, subscribed again by the timer once it is back.
        const quint16 port = peer->server.serverPort();
        peer->close(true);
        QTRY_VERIFY(retrying());
        QVERIFY(tick());
        QVERIFY(sockets().isEmpty() && retrying());
        QVERIFY(peer->server.listen(QHostAddress::LocalHost, port));
        QElapsedTimer sinceAttempt;
        sinceAttempt.start();
        QTRY_COMPARE_WITH_TIMEOUT(peer->connections.size(), 3, 8000);
        QVERIFY2(sinceAttempt.elapsed() >= 4000, qPrintable(QString::number(sinceAttempt.elapsed())));
        QTRY_COMPARE(peer->received(2), kSubscription);
        peer->send("TALLY OK 0120\r\n");
        QTRY_COMPARE(events, QStringList{"TALLY[0,1,2,0]"});
        QCOMPARE(log->lines(), (QStringList{kConnected, kConnected, kConnected}));
    }

    // A host that answers the first tally with a host name replaces the socket from inside the
    // socket's own read. Names are not looked up: that fails like a refused address.
    void listenerMayReconfigureFromTheEvent()
    {
        connectTo(peer->server.serverPort());
        QTRY_COMPARE(peer->connections.size(), 1);
        connect(node.get(), &KestObject::eventSent, this, [this] { node->setData({{"ip", "localhost"}}); });
        peer->send("TALLY OK 1\r\nTALLY OK 2\r\n");
        QTRY_VERIFY(peer->connections[0].closed);
        QCOMPARE(events, QStringList{"TALLY[1]"}); // the second line went with the old connection
        QVERIFY(sockets().isEmpty() && retrying());
        QVERIFY(tick());
        QVERIFY(sockets().isEmpty());
        QCOMPARE(peer->connections.size(), 1);
        QCOMPARE(log->lines(), QStringList{kConnected});
    }

private:
    void connectTo(quint16 port) { node->setData({{"ip", "127.0.0.1"}, {"port", port}}); }
    // The node's sockets, once deferred deletions have run.
    QList<QTcpSocket *> sockets()
    {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        return node->findChildren<QTcpSocket *>();
    }
    QTimer *timer() { return node->findChild<QTimer *>(); }
    bool retrying() { return timer()->isActive() && timer()->interval() == 5000 && !timer()->isSingleShot(); }
    // The next reconnect tick, without waiting 5 s for it.
    bool tick() { return QMetaObject::invokeMethod(node.get(), "onTimer"); }

    std::unique_ptr<Switcher> peer;
    std::unique_ptr<KestVMix> node;
    std::unique_ptr<LogCapture> log;
    QStringList events; // type and value as JSON
};

QTEST_GUILESS_MAIN(TestKestVMix)
#include "tst_kestvmix.moc"
