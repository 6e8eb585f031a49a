// The listener against the plain socket.io server: what it sends, when it reconnects.

#include "socketio/logcapture.h"
#include "socketio/sioserver.h"
#include "tally/eventrecorder.h"
#include "tally/kesttallyarbiter.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

using SocketIO::Client;

namespace {

constexpr int kConnectWaitMs = 10000;

const QString kRegistration = QStringLiteral(
    R"(2["listenerclient_connect",{"canBeFlashed":true,"canBeReassigned":true,"deviceId":"dev1","listenerType":"Encoder","supportsChat":true}])");

void pointAt(KestTallyArbiter &node, const SioServer &server, bool reconnect = false)
{
    node.setName(QStringLiteral("ta"));
    node.data[QStringLiteral("ip")] = QStringLiteral("127.0.0.1");
    node.data[QStringLiteral("port")] = server.port;
    node.data[QStringLiteral("deviceId")] = QStringLiteral("dev1");
    node.data[QStringLiteral("reconnect")] = reconnect;
}

Client *clientOf(KestTallyArbiter &node)
{
    return node.findChild<Client *>();
}

// Events the server received from the listener, with their arguments.
QJsonArray received(const SioServer &server, const QString &name)
{
    QJsonArray result;
    for (const QJsonValue &event : server.events())
        if (event.toObject().value(QStringLiteral("name")).toString() == name)
            result.append(event.toObject().value(QStringLiteral("args")));
    return result;
}

} // namespace

#define START_SERVER(server, options)                                                              \
    do {                                                                                           \
        const QString why = (server).start(options);                                               \
        if (why == QLatin1String("node is not installed"))                                         \
            QSKIP("node is not installed, so the socket.io peer cannot run");                      \
        QVERIFY2(why.isEmpty(), qPrintable(why));                                                  \
    } while (false)

class TestTallyArbiterSession : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void registersOnceConnected();
    void serverEventsReachTheHost();
    void reassignIsAnnouncedAndDevicesAskedAgain();
    void setDataWithoutAddressRegistersAgain();
    void setDataWithAddressReconnects();
    void staysDisconnectedUnlessAsked();
    void reconnectBacksOff();
    void failedHandshake_data();
    void failedHandshake();
    void failedUpgrade_data();
    void failedUpgrade();
};

void TestTallyArbiterSession::initTestCase()
{
    qRegisterMetaType<Client::State>();
}

void TestTallyArbiterSession::registersOnceConnected()
{
    SioServer server;
    START_SERVER(server, {});
    LogCapture log;
    KestTallyArbiter node;
    pointAt(node, server);
    node.start();
    // Before the session is up, registering sends nothing.
    node.onSetData({{QStringLiteral("deviceId"), QStringLiteral("dev1")}});
    QTRY_COMPARE_WITH_TIMEOUT(server.eventNames().size(), 4, kConnectWaitMs);
    QCOMPARE(server.eventNames(), (QStringList{"version", "devices", "bus_options", "listenerclient_connect"}));
    const QStringList frames = server.enginePackets(clientOf(node)->sessionID()).filter(QStringLiteral("in:message:2"));
    QCOMPARE(frames, (QStringList{R"(in:message:2["version"])", R"(in:message:2["devices"])",
                                  R"(in:message:2["bus_options"])", QStringLiteral("in:message:") + kRegistration}));
    QVERIFY(log.contains(QStringLiteral("[ta] Connected")));
}

void TestTallyArbiterSession::serverEventsReachTheHost()
{
    SioServer server;
    START_SERVER(server, {});
    KestTallyArbiter node;
    pointAt(node, server);
    EventRecorder recorder(&node);
    node.start();
    QTRY_COMPARE_WITH_TIMEOUT(received(server, QStringLiteral("listenerclient_connect")).size(), 1, kConnectWaitMs);

    const QJsonArray options = QJsonDocument::fromJson(R"([{"id":"b_pvw","type":"preview","color":"#00ff00"},
        {"id":"b_pgm","type":"program","color":"#ff0000"}])").array();
    QVERIFY(server.emitEvent(QStringLiteral("bus_options"), {options}));
    QJsonArray states = QJsonDocument::fromJson(R"([{"busId":"b_pvw","deviceId":"dev1","sources":[]},
        {"busId":"b_pgm","deviceId":"dev1","sources":["ds1"]}])").array();
    QVERIFY(server.emitEvent(QStringLiteral("device_states"), {states}));
    QTRY_COMPARE(recorder.colours(), QStringList{"#ff0000"});

    // A state list of about 1 MB in one frame.
    const QJsonObject idle{{"busId", "b_pgm"}, {"deviceId", "dev1"}, {"sources", QJsonArray{}}};
    const int entryBytes = QJsonDocument(QJsonArray{idle}).toJson(QJsonDocument::Compact).size();
    QJsonArray many;
    for (int bytes = 0; bytes < 1024 * 1024; bytes += entryBytes)
        many.append(idle);
    many.append(QJsonObject{{"busId", "b_pvw"}, {"deviceId", "dev1"}, {"sources", QJsonArray{"ds1"}}});
    QVERIFY(server.emitEvent(QStringLiteral("device_states"), {many}));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours(), (QStringList{"#ff0000", "#00ff00"}), 10000);

    // Wrong types and unknown events change nothing; the session carries on.
    QVERIFY(server.emitEvent(QStringLiteral("device_states"), {5}));
    QVERIFY(server.emitEvent(QStringLiteral("bus_options"), {QJsonObject{{"id", "b_pgm"}}}));
    QVERIFY(server.emitEvent(QStringLiteral("error"), {"Invalid Device Id specified."}));
    QVERIFY(server.emitEvent(QStringLiteral("flash"), {}));
    QVERIFY(server.emitEvent(QStringLiteral("device_states"), {states}));
    QTRY_COMPARE(recorder.colours(), (QStringList{"#ff0000", "#00ff00", "#ff0000"}));
    QCOMPARE(clientOf(node)->getState(), QStringLiteral("connected"));
}

void TestTallyArbiterSession::reassignIsAnnouncedAndDevicesAskedAgain()
{
    SioServer server;
    START_SERVER(server, {});
    KestTallyArbiter node;
    pointAt(node, server);
    EventRecorder recorder(&node);
    node.start();
    QTRY_COMPARE_WITH_TIMEOUT(received(server, QStringLiteral("listenerclient_connect")).size(), 1, kConnectWaitMs);
    const QJsonArray devices = QJsonDocument::fromJson(R"([{"id":"dev1","name":"Camera 1"},{"id":"dev2","name":"Camera 2"}])").array();
    QVERIFY(server.emitEvent(QStringLiteral("devices"), {devices}));
    QTRY_COMPARE(node.getDevices().toList().size(), 2);

    QVERIFY(server.emitEvent(QStringLiteral("reassign"), {"dev1", "dev2", "4f1c"}));
    QTRY_COMPARE(recorder.values(QStringLiteral("TA_reassign")).size(), 1);
    QCOMPARE(recorder.values(QStringLiteral("TA_reassign")).first().toMap(),
             (QVariantMap{{QStringLiteral("deviceId"), QStringLiteral("dev2")}, {QStringLiteral("deviceName"), QStringLiteral("Camera 2")}}));
    QCOMPARE(node.data.value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev2"));

    QTRY_COMPARE(server.eventNames().size(), 6);
    QCOMPARE(server.eventNames().mid(4), (QStringList{"listener_reassign_object", "devices"}));
    QCOMPARE(received(server, QStringLiteral("listener_reassign_object")).first().toArray(),
             (QJsonArray{QJsonObject{{"oldDeviceId", "dev1"}, {"newDeviceId", "dev2"}}}));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours(), flashColours(), 5000);
}

void TestTallyArbiterSession::setDataWithoutAddressRegistersAgain()
{
    SioServer server;
    START_SERVER(server, {});
    KestTallyArbiter node;
    pointAt(node, server);
    node.start();
    QTRY_COMPARE_WITH_TIMEOUT(received(server, QStringLiteral("listenerclient_connect")).size(), 1, kConnectWaitMs);
    const int requests = server.requests().size();

    // As the host does it: the new settings are merged first, then handed over on their own.
    node.data[QStringLiteral("typeName")] = QStringLiteral("Studio B");
    node.data[QStringLiteral("deviceId")] = QStringLiteral("dev2");
    node.onSetData({{QStringLiteral("typeName"), QStringLiteral("Studio B")}, {QStringLiteral("deviceId"), QStringLiteral("dev2")}});
    QTRY_COMPARE(received(server, QStringLiteral("listenerclient_connect")).size(), 2);
    const QJsonObject again = received(server, QStringLiteral("listenerclient_connect")).last().toArray().first().toObject();
    QCOMPARE(again.value(QStringLiteral("listenerType")).toString(), QStringLiteral("Studio B"));
    QCOMPARE(again.value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev2"));
    QCOMPARE(server.requests().size(), requests);
    QCOMPARE(server.sockets().size(), 1);
}

void TestTallyArbiterSession::setDataWithAddressReconnects()
{
    SioServer server;
    START_SERVER(server, {});
    KestTallyArbiter node;
    pointAt(node, server);
    node.start();
    QTRY_COMPARE_WITH_TIMEOUT(received(server, QStringLiteral("listenerclient_connect")).size(), 1, kConnectWaitMs);
    const QString firstSid = clientOf(node)->sessionID();

    node.onSetData({{QStringLiteral("ip"), QStringLiteral("127.0.0.1")}});
    QTRY_COMPARE_WITH_TIMEOUT(received(server, QStringLiteral("listenerclient_connect")).size(), 2, kConnectWaitMs);
    QVERIFY(clientOf(node)->sessionID() != firstSid);
    QTRY_VERIFY(!server.logLines(QStringLiteral("engine_close"), firstSid).isEmpty());
    QCOMPARE(server.requests().size(), 6);
}

void TestTallyArbiterSession::staysDisconnectedUnlessAsked()
{
    SioServer server;
    START_SERVER(server, {});
    LogCapture log;
    KestTallyArbiter node;
    pointAt(node, server, false);
    node.start();
    QTRY_COMPARE_WITH_TIMEOUT(received(server, QStringLiteral("listenerclient_connect")).size(), 1, kConnectWaitMs);

    QVERIFY(server.disconnectAll());
    QTRY_COMPARE(clientOf(node)->getState(), QStringLiteral("disconnected"));
    QVERIFY(log.contains(QStringLiteral("[ta] onDisconnected")));
    QTest::qWait(2500); // longer than the first two reconnect delays
    QCOMPARE(server.requests().size(), 3);

    node.onStart();
    QTRY_COMPARE_WITH_TIMEOUT(received(server, QStringLiteral("listenerclient_connect")).size(), 2, kConnectWaitMs);
}

void TestTallyArbiterSession::reconnectBacksOff()
{
    SioServer server;
    START_SERVER(server, {});
    KestTallyArbiter node;
    pointAt(node, server, true);
    QElapsedTimer clock;
    clock.start();
    QVector<qint64> attempts;
    connect(clientOf(node), &Client::stateChanged, this, [&](Client::State state) {
        if (state == Client::Opening)
            attempts << clock.elapsed();
    });
    node.start();
    QTRY_COMPARE_WITH_TIMEOUT(received(server, QStringLiteral("listenerclient_connect")).size(), 1, kConnectWaitMs);
    const quint16 port = server.port;

    server.stop();
    QTRY_COMPARE(clientOf(node)->getState(), QStringLiteral("disconnected"));
    const qint64 lost = clock.elapsed();
    attempts.clear();
    // Attempts after 1 s and 2 s more fail; the server is back before the one 4 s later.
    QTRY_COMPARE_WITH_TIMEOUT(attempts.size(), 2, 10000);
    SioServer again;
    START_SERVER(again, (SioServer::Options{25000, 20000, port}));
    QTRY_COMPARE_WITH_TIMEOUT(received(again, QStringLiteral("listenerclient_connect")).size(), 1, 15000);
    QCOMPARE(received(again, QStringLiteral("listenerclient_connect")).first().toArray().first().toObject()
                 .value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev1"));

    QVERIFY(attempts.size() >= 3);
    const qint64 first = attempts.at(0) - lost;
    const qint64 second = attempts.at(1) - attempts.at(0);
    const qint64 third = attempts.at(2) - attempts.at(1);
    // Qt's coarse timers may fire up to 5 % early.
    QVERIFY2(first >= 950 && first < 2500, qPrintable(QString::number(first)));
    QVERIFY2(second >= 1900 && second < 3500, qPrintable(QString::number(second)));
    QVERIFY2(third >= 3800 && third < 5500, qPrintable(QString::number(third)));
    QCOMPARE(clientOf(node)->getState(), QStringLiteral("connected"));
}

void TestTallyArbiterSession::failedHandshake_data()
{
    QTest::addColumn<bool>("reconnect");
    QTest::newRow("retried when asked") << true;
    QTest::newRow("left alone by default") << false;
}

void TestTallyArbiterSession::failedHandshake()
{
    QFETCH(bool, reconnect);
    SioServer server;
    START_SERVER(server, {});
    QVERIFY(server.overrideHandshake(503, QStringLiteral("maintenance")));
    KestTallyArbiter node;
    pointAt(node, server, reconnect);
    node.start();
    QTRY_COMPARE(server.requests().size(), 1);
    QVERIFY(server.restoreHandshake());
    if (!reconnect) {
        QTest::qWait(2500); // longer than the first reconnect delay
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(clientOf(node)->getState(), QStringLiteral("opening"));
        return;
    }
    QTRY_COMPARE_WITH_TIMEOUT(received(server, QStringLiteral("listenerclient_connect")).size(), 1, kConnectWaitMs);
    QCOMPARE(server.requests().size(), 4);
}

void TestTallyArbiterSession::failedUpgrade_data()
{
    QTest::addColumn<QString>("mode");
    QTest::addColumn<int>("retryAfterMs"); // at the earliest
    QTest::addColumn<int>("retryBeforeMs");
    QTest::newRow("connection closed: retried after the first delay") << "refuse" << 950 << 5000;
    QTest::newRow("never answered: retried after the attempt time-out") << "hang" << 9500 << 15000;
}

void TestTallyArbiterSession::failedUpgrade()
{
    QFETCH(QString, mode);
    QFETCH(int, retryAfterMs);
    QFETCH(int, retryBeforeMs);
    SioServer server;
    START_SERVER(server, {});
    QVERIFY(server.setUpgrades(mode));
    KestTallyArbiter node;
    pointAt(node, server, true);
    node.start();
    QTRY_COMPARE_WITH_TIMEOUT(server.requests().size(), 3, kConnectWaitMs);
    QElapsedTimer sinceUpgrade;
    sinceUpgrade.start();
    QVERIFY(server.setUpgrades(QStringLiteral("accept")));
    QTRY_COMPARE_WITH_TIMEOUT(received(server, QStringLiteral("listenerclient_connect")).size(), 1, 20000);
    QVERIFY2(sinceUpgrade.elapsed() >= retryAfterMs - 200 && sinceUpgrade.elapsed() < retryBeforeMs,
             qPrintable(QString::number(sinceUpgrade.elapsed())));
    QCOMPARE(server.requests().size(), 6);
}

QTEST_GUILESS_MAIN(TestTallyArbiterSession)
#include "tst_tallyarbitersession.moc"
