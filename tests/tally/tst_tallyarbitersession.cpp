// The listener against the plain socket.io server: what it sends, when it reconnects.

#include "siopeer.h"

#include "socketio/client.h"
#include "tally/eventrecorder.h"
#include "tally/kesttallyarbiter.h"

#include <QElapsedTimer>
#include <QTest>

using SocketIO::Client;

namespace {

constexpr int kConnectWaitMs = 10000;

const QString kRegistration = QStringLiteral(
    R"(2["listenerclient_connect",{"canBeFlashed":true,"canBeReassigned":true,"deviceId":"dev1","listenerType":"Encoder","supportsChat":true}])");

// The server address is left at its default, 127.0.0.1, and so is "reconnect" unless asked.
void pointAt(KestTallyArbiter &node, const SioServer &server, bool reconnect = false)
{
    node.setName(QStringLiteral("ta"));
    node.data[QStringLiteral("port")] = server.port;
    node.data[QStringLiteral("deviceId")] = QStringLiteral("dev1");
    if (reconnect)
        node.data[QStringLiteral("reconnect")] = true;
}

Client *clientOf(KestTallyArbiter &node)
{
    return node.findChild<Client *>();
}

int registrations(const SioServer &server)
{
    return server.eventArgs(QStringLiteral("listenerclient_connect")).size();
}

} // namespace

class TestTallyArbiterSession : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { qRegisterMetaType<Client::State>(); }
    void registersAndFollowsTheServer();
    void setDataRegistersAgainOrReconnects();
    void reconnectBacksOff();
    void failedHandshake_data();
    void failedHandshake();
    void hungUpgradeIsRetried();
};

void TestTallyArbiterSession::registersAndFollowsTheServer()
{
    SioServer server;
    START_SIO_SERVER(server, {});
    KestTallyArbiter node;
    pointAt(node, server);
    EventRecorder recorder(&node);
    node.start();
    node.onSetData({{QStringLiteral("deviceId"), QStringLiteral("dev1")}}); // not connected yet: sends nothing
    QTRY_COMPARE_WITH_TIMEOUT(server.eventNames().size(), 4, kConnectWaitMs);
    QCOMPARE(server.eventNames(), (QStringList{"version", "devices", "bus_options", "listenerclient_connect"}));
    QCOMPARE(server.enginePackets(clientOf(node)->sessionID()).filter(QStringLiteral("in:message:2")),
             (QStringList{R"(in:message:2["version"])", R"(in:message:2["devices"])", R"(in:message:2["bus_options"])",
                          "in:message:" + kRegistration}));

    const QJsonArray options = QJsonDocument::fromJson(R"([{"id":"b_pvw","type":"preview","color":"#00ff00"},
        {"id":"b_pgm","type":"program","color":"#ff0000"}])").array();
    QVERIFY(server.emitEvent(QStringLiteral("bus_options"), {options}));
    const QJsonArray states = QJsonDocument::fromJson(R"([{"busId":"b_pvw","deviceId":"dev1","sources":[]},
        {"busId":"b_pgm","deviceId":"dev1","sources":["ds1"]}])").array();
    QVERIFY(server.emitEvent(QStringLiteral("device_states"), {states}));
    QTRY_COMPARE(recorder.colours(), QStringList{"#ff0000"});

    // Reassigned: announced to the host and the server, the device list asked for again, a flash.
    const QJsonArray devices = QJsonDocument::fromJson(R"([{"id":"dev1","name":"Camera 1"},{"id":"dev2","name":"Camera 2"}])").array();
    QVERIFY(server.emitEvent(QStringLiteral("devices"), {devices}));
    QTRY_COMPARE(node.getDevices().toList().size(), 2);
    recorder.clear();
    QVERIFY(server.emitEvent(QStringLiteral("reassign"), {"dev1", "dev2", "4f1c"}));
    QTRY_COMPARE(recorder.values(QStringLiteral("TA_reassign")),
                 (QVariantList{QVariantMap{{QStringLiteral("deviceId"), QStringLiteral("dev2")}, {QStringLiteral("deviceName"), QStringLiteral("Camera 2")}}}));
    QCOMPARE(node.data.value(QStringLiteral("deviceId")), QVariant("dev2"));
    QTRY_COMPARE(server.eventNames().mid(4), (QStringList{"listener_reassign_object", "devices"}));
    QCOMPARE(server.eventArgs(QStringLiteral("listener_reassign_object")).at(0).toArray(),
             (QJsonArray{QJsonObject{{"oldDeviceId", "dev1"}, {"newDeviceId", "dev2"}}}));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours(), flashColours(), 5000);
    QCOMPARE(clientOf(node)->getState(), QStringLiteral("connected"));
}

void TestTallyArbiterSession::setDataRegistersAgainOrReconnects()
{
    SioServer server;
    START_SIO_SERVER(server, {});
    KestTallyArbiter node;
    pointAt(node, server);
    node.start();
    QTRY_COMPARE_WITH_TIMEOUT(registrations(server), 1, kConnectWaitMs);
    const QString firstSid = clientOf(node)->sessionID();

    // Without "ip": registered again on the same connection. As the host does it, the new
    // settings are merged first, then handed over on their own.
    const QVariantMap settings{{QStringLiteral("typeName"), QStringLiteral("Studio B")}, {QStringLiteral("deviceId"), QStringLiteral("dev2")}};
    node.data.insert(settings);
    node.onSetData(settings);
    QTRY_COMPARE(registrations(server), 2);
    const QJsonObject again = server.eventArgs(QStringLiteral("listenerclient_connect")).last().toArray().at(0).toObject();
    QCOMPARE(again.value(QStringLiteral("listenerType")).toString(), QStringLiteral("Studio B"));
    QCOMPARE(again.value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev2"));
    QCOMPARE(server.requests().size(), 3);
    QCOMPARE(server.sockets().size(), 1);

    // With "ip": a new session.
    node.onSetData({{QStringLiteral("ip"), QStringLiteral("127.0.0.1")}});
    QTRY_COMPARE_WITH_TIMEOUT(registrations(server), 3, kConnectWaitMs);
    QVERIFY(clientOf(node)->sessionID() != firstSid);
    QTRY_COMPARE(server.logLines(QStringLiteral("engine_close"), firstSid).size(), 1);
    QCOMPARE(server.requests().size(), 6);
}

void TestTallyArbiterSession::reconnectBacksOff()
{
    SioServer server;
    START_SIO_SERVER(server, {});
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
    QTRY_COMPARE_WITH_TIMEOUT(registrations(server), 1, kConnectWaitMs);
    const quint16 port = server.port;

    server.stop();
    QTRY_COMPARE(clientOf(node)->getState(), QStringLiteral("disconnected"));
    const qint64 lost = clock.elapsed();
    attempts.clear();
    // Attempts after 1 s and 2 s more fail; the server is back before the one 4 s later.
    QTRY_COMPARE_WITH_TIMEOUT(attempts.size(), 2, 10000);
    SioServer again;
    START_SIO_SERVER(again, (SioServer::Options{25000, 20000, port}));
    QTRY_COMPARE_WITH_TIMEOUT(registrations(again), 1, 15000);
    QCOMPARE(again.eventArgs(QStringLiteral("listenerclient_connect")).at(0)[0][QStringLiteral("deviceId")].toString(), QStringLiteral("dev1"));
    QVERIFY(attempts.size() >= 3);
    // Qt's coarse timers may fire up to 5 % early.
    const qint64 gaps[] = {attempts[0] - lost, attempts[1] - attempts[0], attempts[2] - attempts[1]};
    QVERIFY2(gaps[0] >= 950 && gaps[0] < 2500, qPrintable(QString::number(gaps[0])));
    QVERIFY2(gaps[1] >= 1900 && gaps[1] < 3500, qPrintable(QString::number(gaps[1])));
    QVERIFY2(gaps[2] >= 3800 && gaps[2] < 5500, qPrintable(QString::number(gaps[2])));
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
    START_SIO_SERVER(server, {});
    QVERIFY(server.overrideHandshake(503, QStringLiteral("maintenance")));
    KestTallyArbiter node;
    pointAt(node, server, reconnect);
    node.start();
    QTRY_COMPARE(server.requests().size(), 1);
    QVERIFY(server.restoreHandshake());
    if (reconnect) {
        QTRY_COMPARE_WITH_TIMEOUT(registrations(server), 1, kConnectWaitMs);
        QCOMPARE(server.requests().size(), 4);
    } else {
        QTest::qWait(2500); // longer than the first reconnect delay
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(clientOf(node)->getState(), QStringLiteral("opening"));
    }
}

// A WebSocket upgrade that is never answered must not leave the listener waiting for ever.
void TestTallyArbiterSession::hungUpgradeIsRetried()
{
    SioServer server;
    START_SIO_SERVER(server, {});
    QVERIFY(server.setUpgrades(QStringLiteral("hang")));
    KestTallyArbiter node;
    pointAt(node, server, true);
    node.start();
    QTRY_COMPARE_WITH_TIMEOUT(server.requests().size(), 3, kConnectWaitMs);
    QElapsedTimer sinceUpgrade;
    sinceUpgrade.start();
    QVERIFY(server.setUpgrades(QStringLiteral("accept")));
    QTRY_COMPARE_WITH_TIMEOUT(registrations(server), 1, 20000);
    // After the attempt time-out of 10 s and the first reconnect delay.
    QVERIFY2(sinceUpgrade.elapsed() >= 9300 && sinceUpgrade.elapsed() < 15000, qPrintable(QString::number(sinceUpgrade.elapsed())));
    QCOMPARE(server.requests().size(), 6);
}

QTEST_GUILESS_MAIN(TestTallyArbiterSession)
#include "tst_tallyarbitersession.moc"
