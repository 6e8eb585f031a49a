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

// Bytes after the last line feed: what a reader that consumes whole lines keeps buffered.
qint64 partialLine(const QByteArray &sent)
{
    return sent.size() - (sent.lastIndexOf('\n') + 1);
}

} // namespace

class TestKestVMix : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();
    void idleUntilConfigured();
    void subscribesOnceConnected();
    void linesBecomeEvents_data();
    void linesBecomeEvents();
    void endlessLineDropsTheConnection_data();
    void endlessLineDropsTheConnection();
    void peerClosingStartsTheRetryCycle();
    void peerRestartGetsANewSubscription();
    void failedAttemptsLeaveNothingBehind_data();
    void failedAttemptsLeaveNothingBehind();
    void portTakesTheLow16Bits_data();
    void portTakesTheLow16Bits();
    void newSettingsWhileSubscribedReconnectAtOnce();
    void listenerMayReconfigureFromTheEvent();
    void unreachablePeerRetriesEvery5sSilently();

private:
    void configure(const QVariantMap &settings) { node->setData(settings); }
    void connectTo(const ScriptedPeer &p)
    {
        configure({{QStringLiteral("ip"), QStringLiteral("127.0.0.1")}, {QStringLiteral("port"), p.port()}});
    }
    // The node's socket, once deferred deletions have run.
    QList<QTcpSocket *> sockets()
    {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        return node->findChildren<QTcpSocket *>();
    }
    QTimer *timer() { return node->findChild<QTimer *>(); }
    bool retrying() { return timer()->isActive() && timer()->interval() == 5000 && !timer()->isSingleShot(); }
    QList<QVariantList> events() const
    {
        QList<QVariantList> out;
        for (const QList<QVariant> &e : *spy) {
            if (e.at(0).toString() == QLatin1String("TALLY"))
                out << e.at(1).toList();
        }
        return out;
    }

    std::unique_ptr<ScriptedPeer> peerHolder;
    ScriptedPeer &peer() { return *peerHolder; }
    std::unique_ptr<KestVMix> node;
    std::unique_ptr<QSignalSpy> spy;
    std::unique_ptr<LogCapture> log;
};

void TestKestVMix::init()
{
    peerHolder = std::make_unique<ScriptedPeer>();
    QVERIFY(peer().listen());
    node = std::make_unique<KestVMix>();
    node->setName(QStringLiteral("vmix1"));
    spy = std::make_unique<QSignalSpy>(node.get(), &KestObject::eventSent);
    log = std::make_unique<LogCapture>();
}

void TestKestVMix::cleanup()
{
    spy.reset();
    node.reset();
    log.reset();
    peerHolder.reset();
}

void TestKestVMix::idleUntilConfigured()
{
    QCOMPARE(node->typeId, 2);
    QCOMPARE(node->typeName, KestObject().typeName);
    QCOMPARE(node->data, (QVariantMap{{QStringLiteral("port"), 8099}}));
    QStringList slotNames;
    const QMetaObject *mo = node->metaObject();
    for (int i = mo->methodOffset(); i < mo->methodCount(); ++i)
        if (mo->method(i).methodType() == QMetaMethod::Slot)
            slotNames << QString::fromLatin1(mo->method(i).methodSignature());
    QCOMPARE(slotNames, (QStringList{"onSetData(QVariantMap)", "onConnected()", "onRead()", "onDisconnect()", "onTimer()"}));
    QVERIFY(!timer()->isActive());
    QVERIFY(sockets().isEmpty());
    node->start(); // not what connects
    QVERIFY(!timer()->isActive());
    QVERIFY(sockets().isEmpty());
}

void TestKestVMix::subscribesOnceConnected()
{
    connectTo(peer());
    // The attempt is made inside onSetData, and blocks until it stands.
    QCOMPARE(sockets().size(), 1);
    QTcpSocket *socket = sockets().first();
    QCOMPARE(socket->state(), QAbstractSocket::ConnectedState);
    QVERIFY(!timer()->isActive());
    QCOMPARE(log->lines(), QStringList{kConnected});
    int keepAlive = 0;
    socklen_t size = sizeof(keepAlive);
    QCOMPARE(::getsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_KEEPALIVE, &keepAlive, &size), 0);
    QCOMPARE(keepAlive, 1);

    QTRY_COMPARE(peer().count(), 1);
    QTRY_COMPARE(peer().last().received, kSubscription);
    QVERIFY(spy->isEmpty());
}

void TestKestVMix::linesBecomeEvents_data()
{
    QTest::addColumn<QList<QByteArray>>("chunks");
    QTest::addColumn<QList<QVariantList>>("expected");
    QTest::addColumn<int>("beforeLastChunk"); // events due before the last chunk is sent
    // Framing over a real connection; what a line means is tst_vmixline's table.
    using Chunks = QList<QByteArray>;
    using Events = QList<QVariantList>;
    QTest::newRow("tally report") << Chunks{"TALLY OK 0121\r\n"} << Events{{0, 1, 2, 1}} << 0;
    QTest::newRow("two lines in one read") << Chunks{"TALLY OK 01\r\nTALLY OK 10\r\n"} << Events{{0, 1}, {1, 0}} << 0;
    QTest::newRow("line split across reads") << Chunks{"TALLY O", "K 0121\r\n"} << Events{{0, 1, 2, 1}} << 0;
    QTest::newRow("split between CR and LF") << Chunks{"TALLY OK 12\r", "\n"} << Events{{1, 2}} << 0;
    QTest::newRow("line end and next line start together")
        << Chunks{"TALLY OK 1\r\nTALLY", " OK 2\r\n"} << Events{{1}, {2}} << 1;
    QTest::newRow("bare line feed alone") << Chunks{"\n"} << Events{} << 0;
    QTest::newRow("bare line feed ends a line") << Chunks{"TALLY OK 012\n"} << Events{{0, 1, 2, 0}} << 0;
    QTest::newRow("banner and replies between reports")
        << Chunks{"VERSION OK 27.0.0.49\r\nSUBSCRIBE OK TALLY\r\nTALLY OK 1\r\ngarbage\r\n\r\nTALLY OK 2\r\n"}
        << Events{{1}, {2}} << 0;
    QTest::newRow("zero byte cuts the line") << Chunks{QByteArray("TALLY OK 01\0 9\r\n", 16)} << Events{{0, 1}} << 0;
    // The longest line kept waiting for its end: 64 KiB without a line feed.
    const QByteArray digits(int(VMix::kMaxLineBytes) - 9, '1');
    QVariantList ones;
    for (int i = 0; i < digits.size(); ++i)
        ones << 1;
    QTest::newRow("64 KiB line still waits for its end") << Chunks{"TALLY OK " + digits, "\r\n"} << Events{ones} << 0;
}

void TestKestVMix::linesBecomeEvents()
{
    QFETCH(QList<QByteArray>, chunks);
    QFETCH(QList<QVariantList>, expected);
    QFETCH(int, beforeLastChunk);
    connectTo(peer());
    QTRY_COMPARE(peer().count(), 1);
    QTcpSocket *socket = sockets().first();
    QSignalSpy readyRead(socket, &QTcpSocket::readyRead); // runs after the node's own slot

    QByteArray sent;
    for (const QByteArray &chunk : chunks) {
        const int reads = readyRead.count();
        peer().send(chunk);
        sent += chunk;
        // Each chunk is read before the next one is sent; a partial line stays buffered.
        if (partialLine(sent) > 0)
            QTRY_COMPARE(socket->bytesAvailable(), partialLine(sent));
        else
            QTRY_VERIFY(readyRead.count() > reads);
        if (&chunk != &chunks.last())
            QCOMPARE(events().size(), beforeLastChunk);
    }
    QCOMPARE(events(), expected);
    QCOMPARE(socket->bytesAvailable(), qint64(0));
    QCOMPARE(socket->state(), QAbstractSocket::ConnectedState);
    QVERIFY(!timer()->isActive());
    QCOMPARE(log->lines(), QStringList{kConnected});
}

void TestKestVMix::endlessLineDropsTheConnection_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("one byte past 64 KiB") << int(VMix::kMaxLineBytes) + 1;
    QTest::newRow("4 MiB") << 4 * 1024 * 1024;
}

void TestKestVMix::endlessLineDropsTheConnection()
{
    QFETCH(int, size);
    connectTo(peer());
    QTRY_COMPARE(peer().count(), 1);
    QTcpSocket *socket = sockets().first();
    qint64 mostBuffered = 0;
    connect(socket, &QTcpSocket::readyRead, this, [&] {
        if (socket->state() == QAbstractSocket::ConnectedState)
            mostBuffered = std::max(mostBuffered, socket->bytesAvailable());
    });

    peer().send("TALLY OK 1\r\nTALLY OK " + QByteArray(size - 9, '2'));
    QTRY_VERIFY(peer().at(0).closed);
    QVERIFY2(mostBuffered <= VMix::kMaxLineBytes, qPrintable(QString::number(mostBuffered)));
    QCOMPARE(events(), QList<QVariantList>{{1}});
    const QStringList lines = log->lines();
    QCOMPARE(lines.size(), 2);
    QVERIFY2(lines[1].startsWith(QStringLiteral("[vmix1] no line feed in ")) && lines[1].endsWith(QStringLiteral("dropping the connection")),
             qPrintable(lines[1]));
    QVERIFY(retrying());

    // The next tick connects the same socket again, with nothing left of the long line.
    QVERIFY(QMetaObject::invokeMethod(node.get(), "onTimer"));
    QCOMPARE(sockets(), QList<QTcpSocket *>{socket});
    QCOMPARE(socket->state(), QAbstractSocket::ConnectedState);
    QTRY_COMPARE(peer().count(), 2);
    QTRY_COMPARE(peer().last().received, kSubscription);
    peer().send("TALLY OK 21\r\n");
    QTRY_COMPARE(events().size(), 2);
    QCOMPARE(events().last(), (QVariantList{2, 1}));
}

void TestKestVMix::peerClosingStartsTheRetryCycle()
{
    connectTo(peer());
    QTRY_COMPARE(peer().count(), 1);
    peer().send("TALLY OK 12\r\n");
    QTRY_COMPARE(events().size(), 1);
    QTcpSocket *socket = sockets().first();

    peer().closeConnections();
    QTRY_VERIFY(retrying());
    QCOMPARE(sockets(), QList<QTcpSocket *>{socket}); // kept for the next attempt
    QCOMPARE(socket->state(), QAbstractSocket::UnconnectedState);
    QCOMPARE(events().size(), 1); // the last tally stands
    QCOMPARE(log->lines(), QStringList{kConnected});

    QVERIFY(QMetaObject::invokeMethod(node.get(), "onTimer"));
    QCOMPARE(sockets(), QList<QTcpSocket *>{socket});
    QCOMPARE(socket->state(), QAbstractSocket::ConnectedState);
    QVERIFY(!timer()->isActive());
    QTRY_COMPARE(peer().count(), 2);
    QTRY_COMPARE(peer().last().received, kSubscription);
    QCOMPARE(log->lines(), (QStringList{kConnected, kConnected}));

    // A tick that finds the connection standing only stops the timer.
    timer()->start();
    QVERIFY(QMetaObject::invokeMethod(node.get(), "onTimer"));
    QVERIFY(!timer()->isActive());
    QVERIFY(!peer().waitForNewConnection(100));
}

void TestKestVMix::peerRestartGetsANewSubscription()
{
    connectTo(peer());
    QTRY_COMPARE(peer().count(), 1);
    const quint16 port = peer().port();

    peer().stop();
    QTRY_VERIFY(retrying());
    QVERIFY(QMetaObject::invokeMethod(node.get(), "onTimer")); // refused while the peer is down
    QVERIFY(sockets().isEmpty());
    QVERIFY(retrying());

    QVERIFY(peer().listen(port));
    QVERIFY(QMetaObject::invokeMethod(node.get(), "onTimer"));
    QCOMPARE(sockets().size(), 1);
    QCOMPARE(sockets().first()->state(), QAbstractSocket::ConnectedState);
    QTRY_COMPARE(peer().count(), 2);
    QTRY_COMPARE(peer().last().received, kSubscription);
    peer().send("TALLY OK 0120\r\n");
    QTRY_COMPARE(events(), QList<QVariantList>{(QVariantList{0, 1, 2, 0})});
    QCOMPARE(log->lines(), (QStringList{kConnected, kConnected}));
}

void TestKestVMix::failedAttemptsLeaveNothingBehind_data()
{
    ScriptedPeer closed; // a port nobody listens on any more
    QVERIFY(closed.listen());
    const quint16 refused = closed.port();
    closed.stop();

    QTest::addColumn<QVariantMap>("settings");
    QTest::addColumn<bool>("nameTheListeningPort");
    QTest::newRow("refused") << QVariantMap{{"ip", "127.0.0.1"}, {"port", int(refused)}} << false;
    QTest::newRow("no ip") << QVariantMap{} << true;
    QTest::newRow("empty ip") << QVariantMap{{"ip", ""}} << true;
    QTest::newRow("host name is not looked up") << QVariantMap{{"ip", "localhost"}} << true;
    QTest::newRow("address with trailing text") << QVariantMap{{"ip", "127.0.0.1;x"}} << true;
}

void TestKestVMix::failedAttemptsLeaveNothingBehind()
{
    QFETCH(QVariantMap, settings);
    QFETCH(bool, nameTheListeningPort);
    if (nameTheListeningPort)
        settings.insert(QStringLiteral("port"), peer().port());
    configure(settings);
    QVERIFY(sockets().isEmpty());
    QVERIFY(retrying());
    QVERIFY(QMetaObject::invokeMethod(node.get(), "onTimer"));
    QVERIFY(sockets().isEmpty());
    QVERIFY(retrying());
    QVERIFY(!peer().waitForNewConnection(100));
    QCOMPARE(peer().count(), 0);
    QVERIFY(spy->isEmpty());
    QVERIFY2(log->lines().isEmpty(), qPrintable(log->lines().join('\n')));
}

void TestKestVMix::portTakesTheLow16Bits_data()
{
    QTest::addColumn<int>("above");
    QTest::newRow("plus 65536") << 65536;
    QTest::newRow("plus 3 x 65536") << 3 * 65536;
}

void TestKestVMix::portTakesTheLow16Bits()
{
    QFETCH(int, above);
    configure({{QStringLiteral("ip"), QStringLiteral("127.0.0.1")}, {QStringLiteral("port"), int(peer().port()) + above}});
    QCOMPARE(sockets().first()->state(), QAbstractSocket::ConnectedState);
    QCOMPARE(sockets().first()->peerPort(), peer().port());
    QTRY_COMPARE(peer().count(), 1);
}

void TestKestVMix::newSettingsWhileSubscribedReconnectAtOnce()
{
    connectTo(peer());
    QTRY_COMPARE(peer().count(), 1);

    configure({}); // unchanged settings still reconnect
    QCOMPARE(sockets().first()->state(), QAbstractSocket::ConnectedState);
    QVERIFY(!timer()->isActive());
    QTRY_VERIFY(peer().at(0).closed);
    QTRY_COMPARE(peer().count(), 2);
    QTRY_COMPARE(peer().at(1).received, kSubscription);

    ScriptedPeer other;
    QVERIFY(other.listen());
    configure({{QStringLiteral("port"), other.port()}});
    QCOMPARE(sockets().first()->peerPort(), other.port());
    QTRY_VERIFY(peer().at(1).closed);
    QTRY_COMPARE(other.count(), 1);
    QTRY_COMPARE(other.last().received, kSubscription);
    QCOMPARE(peer().count(), 2);
    QCOMPARE(log->lines(), (QStringList{kConnected, kConnected, kConnected}));
}

void TestKestVMix::listenerMayReconfigureFromTheEvent()
{
    connectTo(peer());
    QTRY_COMPARE(peer().count(), 1);
    // A host that answers the first tally with an address that fails replaces the socket from
    // inside the socket's own read.
    connect(node.get(), &KestObject::eventSent, this, [this] { node->setData({{QStringLiteral("ip"), QString()}}); });
    peer().send("TALLY OK 1\r\nTALLY OK 2\r\n");
    QTRY_VERIFY(peer().at(0).closed);
    QCOMPARE(events(), QList<QVariantList>{{1}}); // the second line went with the old connection
    QVERIFY(sockets().isEmpty());
    QVERIFY(retrying());
}

void TestKestVMix::unreachablePeerRetriesEvery5sSilently()
{
    // The one test that waits for the real timer.
    const quint16 port = peer().port();
    peer().stop();
    configure({{QStringLiteral("ip"), QStringLiteral("127.0.0.1")}, {QStringLiteral("port"), port}});
    QElapsedTimer sinceAttempt;
    sinceAttempt.start();
    QVERIFY(sockets().isEmpty());
    QVERIFY(peer().listen(port));

    QTRY_VERIFY_WITH_TIMEOUT(peer().count() == 1, 8000);
    const qint64 waited = sinceAttempt.elapsed();
    QVERIFY2(waited >= 4500, qPrintable(QString::number(waited)));
    QTRY_COMPARE(peer().last().received, kSubscription);
    QVERIFY(spy->isEmpty());
    QCOMPARE(log->lines(), QStringList{kConnected});
}

QTEST_GUILESS_MAIN(TestKestVMix)
#include "tst_kestvmix.moc"
