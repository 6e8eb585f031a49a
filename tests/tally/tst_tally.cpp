// The tally units that need no peer: the Tally Arbiter listener's message handling (fed
// directly), the serial light's frames and its stale-lock removal; the vMix client against a
// scripted TCP switcher.

#include "logcapture.h"
#include "tally/eventrecorder.h"
#include "tally/kesttallyarbiter.h"
#include "tally/kestvmix.h"
#include "tally/serialframe.h"
#include "tally/stalelocks.h"
#include "tally/vmixline.h"

#include "json.h"

#include <QDir>
#include <QPointer>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <climits>
#include <memory>
#include <tuple>

#include <sys/stat.h>

namespace {

const QString kBusOptions = QStringLiteral(
    R"(["bus_options",[{"id":"b1","label":"Program","type":"program","color":"#ff0000","priority":200},{"id":"b2","label":"Preview","type":"preview","color":"#00ff00","priority":50}]])");
const QString kDevices = QStringLiteral(R"(["devices",[{"id":"dev1","name":"Camera 1"},{"id":"dev2","name":"Camera 2"},{"id":7,"name":"Numbered"}]])");
const QString kProgram = QStringLiteral(R"(["device_states",[{"busId":"b1","deviceId":"dev1","sources":["ds1"]}]])");

QString states(const char *list) { return QStringLiteral(R"(["device_states",%1])").arg(QLatin1String(list)); }

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
    void send(const QByteArray &bytes) { connections.last().socket->write(bytes); }
    QByteArray received(int i) const { return i < connections.size() ? connections[i].received : QByteArray(); }

    QList<Connection> connections;
    QTcpServer server; // goes first, with its sockets
};

} // namespace

// Bodies outside the class: moc misreads some of the raw strings in the tables.
class TestTally : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void colours_data();
    void colours();
    void commands();
    void flashIsTenStepsWhiteFirst();
    void serialFrames();
    void staleLocks();

    void init()
    {
        peer = std::make_unique<Switcher>();
        QVERIFY(peer->server.listen(QHostAddress::LocalHost));
        node = std::make_unique<KestVMix>();
        node->setName(QStringLiteral("vmix1"));
        recorder = std::make_unique<EventRecorder>(node.get());
        log = std::make_unique<LogCapture>();
    }

    void cleanup()
    {
        node.reset();
        log.reset();
        peer.reset();
    }

    void subscribesOnceConfigured()
    {
        node->start(); // settings connect, not the start
        QVERIFY(sockets().isEmpty() && !timer()->isActive());
        connectTo(1); // refused (nothing listens on port 1): the socket goes, the timer stays
        QVERIFY(sockets().isEmpty() && retrying());
        connectTo(peer->server.serverPort()); // the attempt blocks until it stands
        QCOMPARE(sockets().first()->state(), QAbstractSocket::ConnectedState);
        QVERIFY(!timer()->isActive());
        QTRY_COMPARE(peer->received(0), kSubscription);
        peer->send("SUBSCRIBE OK TALLY\r\n"); // asks for nothing more by default

        // New settings reconnect at once, even to the same switcher: only the low 16 bits of the
        // port count. With "queryOnConnect" the subscription's answer is followed by a request for
        // the current tally.
        node->setData({{"port", peer->server.serverPort() + 65536}, {"queryOnConnect", true}});
        QTRY_VERIFY(peer->connections[0].closed);
        QTRY_COMPARE(peer->received(1), kSubscription);
        peer->send("VERSION OK 27.0.0.49\r\nSUBSCRIBE OK TALLY\r\n");
        QTRY_COMPARE(peer->received(1), kSubscription + "TALLY\r\n");
        QCOMPARE(peer->received(0), kSubscription);
        QVERIFY(recorder->events.isEmpty());
        QCOMPARE(log->lines(), (QStringList{kConnected, kConnected}));
    }

    // Chunks sent one after the other, each read before the next; the events that came.
    void linesBecomeEvents_data()
    {
        QTest::addColumn<QList<QByteArray>>("chunks");
        QTest::addColumn<QString>("expected");
        QTest::newRow("replies, malformed and empty lines, wrong field count or case")
            << QList<QByteArray>{"VERSION OK 27.0.0.49\r\nSUBSCRIBE OK TALLY\r\nTALLY OK 1\r\ngarbage\r\n\r\n\nTALLY OK 01 2\r\ntally OK 012\r\nTALLY OK\r\nTALLY OK \r\nTALLY OK 2\r\n"}
            << "[[1],[],[2]]";
        QTest::newRow("letter and latin-1 byte read as 0") << QList<QByteArray>{"TALLY OK 1a\xb2\r\n"} << "[[1,0,0]]";
        QTest::newRow("line split across reads, and between CR and LF") << QList<QByteArray>{"TALLY O", "K 0121\r", "\nTALLY", " OK 2\r\n"}
                                                                       << "[[0,1,2,1],[2]]";
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
        QTEST(tallies(), "expected");
        QCOMPARE(log->lines(), QStringList{kConnected});
    }

    // Beyond 64 KiB without a line feed the peer is dropped, before more is buffered; 5 s later
    // the timer connects the same socket again, with nothing left of the long line. A tick that
    // finds the connection standing only stops the timer.
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
        QTRY_COMPARE_WITH_TIMEOUT(peer->received(1), kSubscription, 8000);
        QCOMPARE(sockets(), QList<QTcpSocket *>{socket});
        QVERIFY(!timer()->isActive());
        timer()->start();
        QVERIFY(tick());
        QVERIFY(!timer()->isActive());
        peer->send("TALLY OK 21\r\n");
        QTRY_COMPARE(tallies(), QStringLiteral("[[1],[2,1]]"));
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
        QCOMPARE(tallies(), QStringLiteral("[[1]]")); // the second line went with the old connection
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
    QString tallies() const { return Json::encode(recorder->values(QStringLiteral("TALLY")), false); }
    QTimer *timer() { return node->findChild<QTimer *>(); }
    bool retrying() { return timer()->isActive() && timer()->interval() == 5000 && !timer()->isSingleShot(); }
    // The next reconnect tick, without waiting 5 s for it.
    bool tick() { return QMetaObject::invokeMethod(node.get(), "onTimer"); }

    std::unique_ptr<Switcher> peer;
    std::unique_ptr<KestVMix> node;
    std::unique_ptr<LogCapture> log;
    std::unique_ptr<EventRecorder> recorder;
};

// Messages in turn (a JSON object: settings instead), then the colours sent to the host.
void TestTally::colours_data()
{
    QTest::addColumn<QStringList>("messages");
    QTest::addColumn<QString>("colours");
    QTest::newRow("bus colour, once per message; no states: dark") << QStringList{kBusOptions, kProgram, kProgram, states("[]")} << "#ff0000 #ff0000 #000000";
    QTest::newRow("first active state wins, whatever the bus kind")
        << QStringList{kBusOptions, states(R"([{"busId":"b2","sources":["s"]},{"busId":"b1","sources":["s"]}])")} << "#00ff00";
    QTest::newRow("states without sources, not maps or of unknown buses are skipped")
        << QStringList{kBusOptions, states(R"([{"busId":"b2","sources":[]},{"busId":"b2"},5,{"busId":"b9","sources":["s"]},{"busId":"b1","sources":["s"]}])")} << "#ff0000";
    QTest::newRow("ignored: states not a list, not JSON, other events")
        << QStringList{kBusOptions, states("5"), R"(["device_states",[{"busId":"b1")", R"(["version","3.3.0"])", R"(["error","x"])"} << "";
    QTest::newRow("busPriority: the highest wins, ties keep the server's order, no priority ranks last")
        << QStringList{R"({"busPriority":true})", kBusOptions, R"(["bus_options",[{"id":"b3","color":"#0000ff","priority":200},{"id":"b4","color":"#ffff00"}]])",
                       states(R"([{"busId":"b4","sources":["s"]},{"busId":"b3","sources":["s"]},{"busId":"b1","sources":["s"]}])")}
        << "#0000ff";
    QTest::newRow("followReassign: only the followed device's states, and those without a device")
        << QStringList{R"({"followReassign":true,"deviceId":"dev1"})", kBusOptions, states(R"([{"busId":"b1","deviceId":"dev2","sources":["s"]}])"),
                       states(R"([{"busId":"b1","deviceId":"dev2","sources":["s"]},{"busId":"b2","deviceId":"dev1","sources":[]}])"),
                       states(R"([{"busId":"b2","sources":["s"]}])")}
        << "#000000 #00ff00";
}

void TestTally::colours()
{
    QFETCH(QStringList, messages);
    KestTallyArbiter node;
    EventRecorder recorder(&node);
    for (const QString &message : messages)
        message.startsWith('{') ? node.data.insert(Json::decode(message).toMap()) : node.onNewMessage(message);
    QTEST(recorder.colours().join(' '), "colours");
    QCOMPARE(recorder.events.size(), recorder.colours().size());
}

// A reassign takes the device name from the last device list, and starts a flash.
void TestTally::commands()
{
    const std::tuple<const char *, QVariant, const char *> rows[] = {
        {R"(["reassign","dev1","dev2","client-7"])", "dev2", "Camera 2"},
        {R"(["reassign","dev1","nope"])", "nope", "Unknow"},
        {R"(["reassign",1,7])", 7.0, "Numbered"},
        {R"(["flash"])", QVariant(), ""}, // without argument: ignored
    };
    for (const auto &[message, deviceId, deviceName] : rows) {
        KestTallyArbiter node;
        node.data[QStringLiteral("deviceId")] = QStringLiteral("dev1");
        node.onNewMessage(kDevices);
        node.onNewMessage(QStringLiteral(R"(["devices",5])")); // a list that is not one is ignored
        EventRecorder recorder(&node);
        node.onNewMessage(QString::fromUtf8(message));
        QTest::qWait(deviceId.isValid() ? 0 : 250); // a flash would have shown its first colour by now
        QCOMPARE(node.data.value(QStringLiteral("deviceId")), deviceId.isValid() ? deviceId : QVariant("dev1"));
        QCOMPARE(recorder.values(QStringLiteral("TA_reassign")), (deviceId.isValid() ? QVariantList{QVariantMap{{"deviceId", deviceId}, {"deviceName", deviceName}}} : QVariantList()));
        QTRY_COMPARE(recorder.colours(), deviceId.isValid() ? QStringList{"#ffffff"} : QStringList());
    }
}

// Ten steps, 100 ms apart from the command on; a flash during a flash starts over.
void TestTally::flashIsTenStepsWhiteFirst()
{
    KestTallyArbiter node;
    EventRecorder recorder(&node);
    node.onNewMessage(QStringLiteral(R"(["flash","dev1"])"));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 3, 5000);
    recorder.events.clear();
    const qint64 commandMs = recorder.clock.elapsed();
    node.onNewMessage(QStringLiteral(R"(["flash","dev1"])"));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 10, 5000);
    QVERIFY2(recorder.flashFault().isEmpty(), qPrintable(recorder.flashFault()));
    QVERIFY(recorder.events.first().atMs - commandMs >= 95 && recorder.events.last().atMs - commandMs >= 950);
    QTest::qWait(300); // the eleventh tick ends it: nothing more comes
    QCOMPARE(recorder.colours().size(), 10);
}

void TestTally::serialFrames()
{
    using namespace SerialTally;
    QCOMPARE(frame(kTallyCommand, tallyPayload({2, 1, 0})).toHex(), "01010204ff"); // state-2 mask, state-1 mask, sum, end
    QCOMPARE(frame(kTallyCommand, tallyPayload({1, 0, 0, 0, 0, 0, 0, 2, 2, 1})).toHex(), "01800182ff"); // input 7 the top bit, 8 on none
    QCOMPARE(frame(kTallyCommand, tallyPayload({3, -1, 1, "2"})).toHex(), "0108040dff"); // other values off, text a number
    // The unit number counted from 1, low 8 bits: 0 and INT_MIN wrap without overflow.
    QCOMPARE(frame(kIndexCommand, indexPayload(1)).toHex() + indexPayload(0).toHex() + indexPayload(INT_MIN).toHex(), "020002ffffff");
    QCOMPARE(QVector<bool>({checksumMatches(QByteArray::fromHex("01010204")), checksumMatches(QByteArray::fromHex("ff0201")),
                            checksumMatches(QByteArray::fromHex("01010205")), checksumMatches({})}),
             QVector<bool>({true, true, false, false}));
}

// In a private folder standing in for /tmp: "name/" a folder, "name@" a link to a folder
// elsewhere, "name|" a FIFO, anything else a file. Only a character device's lock files and
// links go; a value that names none removes nothing, whatever the names contain.
void TestTally::staleLocks()
{
    QTemporaryDir scratch, elsewhere;
    for (const QString &entry : QStringList{"LCK..null", "null.lock", "null-link@", "null.d/", "null.fifo|", ".LCK..null", "LCK..NULL", "passwd", "s"}) {
        const QString name = entry.endsWith('/') || entry.endsWith('@') || entry.endsWith('|') ? entry.chopped(1) : entry;
        const QString path = scratch.filePath(name);
        const bool made = entry.endsWith('/') ? QDir().mkdir(path)
                          : entry.endsWith('@') ? QFile::link(elsewhere.path(), path)
                          : entry.endsWith('|') ? ::mkfifo(QFile::encodeName(path).constData(), 0600) == 0
                                                : QFile(path).open(QIODevice::WriteOnly);
        QVERIFY2(made, qPrintable(entry));
    }
    for (const char *hostile : {"", "/dev/", "/dev/.", "/dev/s", "../../etc/passwd", "/dev/nul*", "/dev/null;", "/dev/null/"})
        QVERIFY2(SerialTally::removeStaleLocks(scratch.path(), hostile) == 0, hostile);
    QCOMPARE(SerialTally::removeStaleLocks(scratch.path(), QStringLiteral("/dev/null")), 3);
    QCOMPARE(QDir(scratch.path()).entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name),
             (QStringList{".LCK..null", "LCK..NULL", "null.d", "null.fifo", "passwd", "s"}));
    QVERIFY(QDir(elsewhere.path()).exists()); // what a link points to survives
}

QTEST_GUILESS_MAIN(TestTally)
#include "tst_tally.moc"
