// The vMix tally client against a scripted TCP peer (see scriptedpeer.h) for the protocol edge
// cases; the round trip through a real switcher emulator is in tst_tallyarbiterserver.

#include "logcapture.h"
#include "scriptedpeer.h"

#include "tally/kestvmix.h"
#include "tally/vmixline.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <memory>

#include <sys/socket.h>

Q_DECLARE_METATYPE(QList<QVariantList>)

namespace {
const QByteArray kSubscription("SUBSCRIBE TALLY\r\n");
const QString kConnected = QStringLiteral("[vmix1] connected");
} // namespace

class TestKestVMix : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        peer = std::make_unique<ScriptedPeer>();
        QVERIFY(peer->listen());
        node = std::make_unique<KestVMix>();
        node->setName(QStringLiteral("vmix1"));
        spy = std::make_unique<QSignalSpy>(node.get(), &KestObject::eventSent);
        log = std::make_unique<LogCapture>();
    }

    void cleanup()
    {
        spy.reset();
        node.reset();
        log.reset();
        peer.reset();
    }

    void subscribesOnceConfigured()
    {
        node->start(); // settings connect, not the start
        QVERIFY(sockets().isEmpty());
        QVERIFY(!timer()->isActive());
        // The attempt is made inside onSetData, and blocks until it stands.
        connectTo(peer->port());
        QCOMPARE(sockets().size(), 1);
        QCOMPARE(sockets().first()->state(), QAbstractSocket::ConnectedState);
        QVERIFY(!timer()->isActive());
        int keepAlive = 0;
        socklen_t size = sizeof(keepAlive);
        QCOMPARE(::getsockopt(int(sockets().first()->socketDescriptor()), SOL_SOCKET, SO_KEEPALIVE, &keepAlive, &size), 0);
        QCOMPARE(keepAlive, 1);
        QTRY_COMPARE(connections(), 1);
        QTRY_COMPARE(lastReceived(), kSubscription);
        peer->send("SUBSCRIBE OK TALLY\r\n"); // asks for nothing more by default

        // New settings while subscribed reconnect at once, even unchanged ones.
        node->setData({});
        QTRY_VERIFY(peer->connections[0].closed);
        QTRY_COMPARE(connections(), 2);
        QTRY_COMPARE(lastReceived(), kSubscription);
        // Only the low 16 bits of the port count. With "queryOnConnect" the subscription's
        // answer is followed by a request for the current tally.
        ScriptedPeer other;
        QVERIFY(other.listen());
        node->setData({{"port", other.port() + 65536}, {"queryOnConnect", true}});
        QCOMPARE(sockets().first()->peerPort(), other.port());
        QTRY_VERIFY(peer->connections[1].closed);
        QTRY_COMPARE(other.connections.size(), 1);
        QTRY_COMPARE(other.connections.last().received, kSubscription);
        other.send("VERSION OK 27.0.0.49\r\nSUBSCRIBE OK TALLY\r\n");
        QTRY_COMPARE(other.connections.last().received, kSubscription + "TALLY\r\n");
        QCOMPARE(peer->connections[0].received, kSubscription);
        QCOMPARE(connections(), 2);
        QVERIFY(spy->isEmpty());
        QCOMPARE(log->lines(), (QStringList{kConnected, kConnected, kConnected}));
    }

    void linesBecomeEvents_data()
    {
        QTest::addColumn<QList<QByteArray>>("chunks");
        QTest::addColumn<QList<QVariantList>>("expected");
        using Chunks = QList<QByteArray>;
        using Events = QList<QVariantList>;
        QTest::newRow("banner, replies and malformed lines in one read")
            << Chunks{"VERSION OK 27.0.0.49\r\nSUBSCRIBE OK TALLY\r\nTALLY OK 1\r\ngarbage\r\n\r\nTALLY OK 2\r\n"} << Events{{1}, {2}};
        QTest::newRow("wrong field count or case")
            << Chunks{"TALLY OK 01 2\r\ntally OK 012\r\nTALLY OK\r\nTALLY OK 0\r\n"} << Events{{0}};
        QTest::newRow("empty tally") << Chunks{"TALLY OK \r\n"} << Events{{}};
        QTest::newRow("letter and latin-1 byte read as 0") << Chunks{"TALLY OK 1a\xb2\r\n"} << Events{{1, 0, 0}};
        QTest::newRow("line split across reads") << Chunks{"TALLY O", "K 0121\r\n"} << Events{{0, 1, 2, 1}};
        QTest::newRow("split between CR and LF") << Chunks{"TALLY OK 12\r", "\n"} << Events{{1, 2}};
        QTest::newRow("line end and next line start together") << Chunks{"TALLY OK 1\r\nTALLY", " OK 2\r\n"} << Events{{1}, {2}};
        QTest::newRow("bare line feed alone") << Chunks{"\n"} << Events{};
        QTest::newRow("bare line feed ends a line, stays in the last field") << Chunks{"TALLY OK 012\n"} << Events{{0, 1, 2, 0}};
        QTest::newRow("zero byte cuts the line") << Chunks{QByteArray("TALLY OK 01\0 9\r\n", 16)} << Events{{0, 1}};
        // The longest line kept waiting for its end: 64 KiB without a line feed.
        const QByteArray digits(int(VMix::kMaxLineBytes) - 9, '1');
        QVariantList ones;
        while (ones.size() < digits.size())
            ones << 1;
        QTest::newRow("64 KiB line still waits for its end") << Chunks{"TALLY OK " + digits, "\r\n"} << Events{ones};
    }

    void linesBecomeEvents()
    {
        QFETCH(QList<QByteArray>, chunks);
        connectTo(peer->port());
        QTRY_COMPARE(connections(), 1);
        QTcpSocket *socket = sockets().first();
        QSignalSpy readyRead(socket, &QTcpSocket::readyRead); // runs after the node's own slot
        QByteArray sent;
        for (const QByteArray &chunk : chunks) {
            const int reads = readyRead.count();
            const int before = events().size();
            peer->send(chunk);
            sent += chunk;
            // Each chunk is read before the next one is sent: a partial line stays buffered, and
            // lines become events only once complete.
            const int complete = sent.lastIndexOf('\n') + 1;
            QTRY_VERIFY(readyRead.count() > reads && socket->bytesAvailable() == sent.size() - complete);
            QVERIFY(complete > sent.size() - chunk.size() || events().size() == before);
        }
        QTEST(events(), "expected");
        QCOMPARE(socket->state(), QAbstractSocket::ConnectedState);
        QCOMPARE(log->lines(), QStringList{kConnected});
    }

    void endlessLineDropsTheConnection_data()
    {
        QTest::addColumn<int>("size");
        QTest::newRow("one byte past 64 KiB") << int(VMix::kMaxLineBytes) + 1;
        QTest::newRow("4 MiB") << 4 * 1024 * 1024;
    }

    void endlessLineDropsTheConnection()
    {
        QFETCH(int, size);
        connectTo(peer->port());
        QTRY_COMPARE(connections(), 1);
        QTcpSocket *socket = sockets().first();
        qint64 mostBuffered = 0;
        connect(socket, &QTcpSocket::readyRead, this, [&] {
            if (socket->state() == QAbstractSocket::ConnectedState)
                mostBuffered = std::max(mostBuffered, socket->bytesAvailable());
        });
        peer->send("TALLY OK 1\r\nTALLY OK " + QByteArray(size - 9, '2'));
        QTRY_VERIFY(peer->connections[0].closed);
        QVERIFY2(mostBuffered <= VMix::kMaxLineBytes, qPrintable(QString::number(mostBuffered)));
        QCOMPARE(events(), QList<QVariantList>{{1}});
        QCOMPARE(log->count(QStringLiteral("[vmix1] no line feed in")), 1);
        QVERIFY(retrying());

        // The next tick connects the same socket again, with nothing left of the long line.
        QVERIFY(tick());
        QCOMPARE(sockets(), QList<QTcpSocket *>{socket});
        QTRY_COMPARE(connections(), 2);
        QTRY_COMPARE(lastReceived(), kSubscription);
        peer->send("TALLY OK 21\r\n");
        QTRY_COMPARE(events(), (QList<QVariantList>{{1}, {2, 1}}));
    }

    void reconnectsAfterPeerClosesOrRestarts()
    {
        connectTo(peer->port());
        QTRY_COMPARE(connections(), 1);
        peer->send("TALLY OK 12\r\n");
        QTRY_COMPARE(events().size(), 1);
        QTcpSocket *socket = sockets().first();

        // The peer closes: the socket is kept for the next attempt; the last tally stands.
        peer->closeConnections();
        QTRY_VERIFY(retrying());
        QCOMPARE(sockets(), QList<QTcpSocket *>{socket});
        QVERIFY(tick());
        QCOMPARE(socket->state(), QAbstractSocket::ConnectedState);
        QVERIFY(!timer()->isActive());
        QTRY_COMPARE(connections(), 2);
        QTRY_COMPARE(lastReceived(), kSubscription);
        // A tick that finds the connection standing only stops the timer.
        timer()->start();
        QVERIFY(tick());
        QVERIFY(!timer()->isActive());
        QTest::qWait(100);
        QCOMPARE(connections(), 2);

        // The peer restarts: refused while it is down, subscribed again once it is back.
        const quint16 port = peer->port();
        peer->closeConnections(true);
        QTRY_VERIFY(retrying());
        QVERIFY(tick());
        QVERIFY(sockets().isEmpty());
        QVERIFY(retrying());
        QVERIFY(peer->listen(port));
        QVERIFY(tick());
        QTRY_COMPARE(connections(), 3);
        QTRY_COMPARE(lastReceived(), kSubscription);
        peer->send("TALLY OK 0120\r\n");
        QTRY_COMPARE(events(), (QList<QVariantList>{{1, 2}, {0, 1, 2, 0}}));
        QCOMPARE(log->lines(), (QStringList{kConnected, kConnected, kConnected}));
    }

    void listenerMayReconfigureFromTheEvent()
    {
        connectTo(peer->port());
        QTRY_COMPARE(connections(), 1);
        // A host that answers the first tally with a host name replaces the socket from inside the
        // socket's own read. Names are not looked up: that fails like a refused address.
        connect(node.get(), &KestObject::eventSent, this, [this] { node->setData({{"ip", "localhost"}}); });
        peer->send("TALLY OK 1\r\nTALLY OK 2\r\n");
        QTRY_VERIFY(peer->connections[0].closed);
        QCOMPARE(events(), QList<QVariantList>{{1}}); // the second line went with the old connection
        QVERIFY(sockets().isEmpty());
        QVERIFY(retrying());
        QVERIFY(tick());
        QVERIFY(sockets().isEmpty());
        QTest::qWait(100);
        QCOMPARE(connections(), 1);
        QCOMPARE(log->lines(), QStringList{kConnected});
    }

    void unreachablePeerRetriesEvery5sSilently()
    {
        // The one test that waits for the real timer.
        const quint16 port = peer->port();
        peer->closeConnections(true);
        connectTo(port);
        QElapsedTimer sinceAttempt;
        sinceAttempt.start();
        QVERIFY(sockets().isEmpty());
        QVERIFY(peer->listen(port));
        QTRY_VERIFY_WITH_TIMEOUT(connections() == 1, 8000);
        QVERIFY2(sinceAttempt.elapsed() >= 4500, qPrintable(QString::number(sinceAttempt.elapsed())));
        QTRY_COMPARE(lastReceived(), kSubscription);
        QVERIFY(spy->isEmpty());
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
    int connections() const { return peer->connections.size(); }
    QByteArray lastReceived() const { return peer->connections.last().received; }
    QList<QVariantList> events() const
    {
        QList<QVariantList> out;
        for (const QList<QVariant> &e : *spy)
            if (e.at(0).toString() == QLatin1String("TALLY"))
                out << e.at(1).toList();
        return out;
    }

    std::unique_ptr<ScriptedPeer> peer;
    std::unique_ptr<KestVMix> node;
    std::unique_ptr<QSignalSpy> spy;
    std::unique_ptr<LogCapture> log;
};

QTEST_GUILESS_MAIN(TestKestVMix)
#include "tst_kestvmix.moc"
