// The listener against the plain socket.io server: what it sends, when it reconnects. Each
// case gets a fresh server and a listener pointed at it, not yet started.

#include "siopeer.h"

#include "socketio/client.h"
#include "tally/eventrecorder.h"
#include "tally/kesttallyarbiter.h"

#include <QSignalSpy>
#include <QTest>

#include <memory>

using SocketIO::Client;

class TestTallyArbiterSession : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { qRegisterMetaType<Client::State>(); }
    void init()
    {
        server = std::make_unique<SioServer>();
        START_SIO_SERVER(*server, {});
        // The server address is left at its default, 127.0.0.1, and so is "reconnect".
        node = std::make_unique<KestTallyArbiter>();
        node->setName(QStringLiteral("ta"));
        node->data[QStringLiteral("port")] = server->port;
        node->data[QStringLiteral("deviceId")] = QStringLiteral("dev1");
        recorder = std::make_unique<EventRecorder>(node.get());
    }

    void cleanup()
    {
        recorder.reset();
        node.reset();
        server.reset();
    }

    void registersAndFollowsTheServer();

    void setDataRegistersAgainOrReconnects()
    {
        node->start();
        QTRY_COMPARE_WITH_TIMEOUT(registrations(*server), 1, 10000);
        const QString firstSid = client()->sessionID();

        // Without "ip": registered again on the same connection. As the host does it, the new
        // settings are merged first, then handed over on their own.
        const QVariantMap settings{{QStringLiteral("typeName"), QStringLiteral("Studio B")}, {QStringLiteral("deviceId"), QStringLiteral("dev2")}};
        node->data.insert(settings);
        node->onSetData(settings);
        QTRY_COMPARE(registrations(*server), 2);
        const QJsonObject again = server->events(QStringLiteral("listenerclient_connect")).last()[0].toObject();
        QCOMPARE(again.value(QStringLiteral("listenerType")).toString() + again.value(QStringLiteral("deviceId")).toString(), QStringLiteral("Studio Bdev2"));
        QCOMPARE(requests(), 3);
        QCOMPARE(server->get("/sockets").size(), 1);

        // With "ip": a new session.
        node->onSetData({{QStringLiteral("ip"), QStringLiteral("127.0.0.1")}});
        QTRY_COMPARE_WITH_TIMEOUT(registrations(*server), 3, 10000);
        QVERIFY(client()->sessionID() != firstSid);
        QTRY_VERIFY(server->log(firstSid).contains(QStringLiteral("engine_close::")));
        QCOMPARE(requests(), 6);
    }

    void reconnectBacksOff()
    {
        node->data[QStringLiteral("reconnect")] = true;
        QElapsedTimer clock;
        clock.start();
        QVector<qint64> attempts;
        connect(client(), &Client::stateChanged, this, [&](Client::State state) {
            if (state == Client::Opening)
                attempts << clock.elapsed();
        });
        node->start();
        QTRY_COMPARE_WITH_TIMEOUT(registrations(*server), 1, 10000);

        server->stop();
        QTRY_COMPARE(client()->getState(), QStringLiteral("disconnected"));
        const qint64 lost = clock.elapsed();
        attempts.clear();
        // Attempts after 1 s and 2 s more fail; the server is back before the one 4 s later.
        QTRY_COMPARE_WITH_TIMEOUT(attempts.size(), 2, 10000);
        SioServer again;
        START_SIO_SERVER(again, (SioServer::Options{25000, 20000, server->port}));
        QTRY_COMPARE_WITH_TIMEOUT(registrations(again), 1, 15000);
        QCOMPARE(again.events(QStringLiteral("listenerclient_connect")).at(0)[0][QStringLiteral("deviceId")].toString(), QStringLiteral("dev1"));
        QVERIFY(attempts.size() >= 3);
        // Qt's coarse timers may fire up to 5 % early.
        const qint64 gaps[] = {attempts[0] - lost, attempts[1] - attempts[0], attempts[2] - attempts[1]};
        QVERIFY2(gaps[0] >= 950 && gaps[0] < 2500, qPrintable(QString::number(gaps[0])));
        QVERIFY2(gaps[1] >= 1900 && gaps[1] < 3500, qPrintable(QString::number(gaps[1])));
        QVERIFY2(gaps[2] >= 3800 && gaps[2] < 5500, qPrintable(QString::number(gaps[2])));
    }

    void failedHandshake_data()
    {
        // The session's handshake parsing is tst_codec's table; here the two ways it fails.
        QTest::addColumn<bool>("reconnect");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("body");
        QTest::newRow("server error, retried when asked") << true << 503 << "maintenance";
        QTest::newRow("keys missing, retried when asked") << true << 200 << R"(0{"sid":"abc","pingInterval":25000})";
        QTest::newRow("left alone by default") << false << 200 << "<html>hello</html>";
    }

    void failedHandshake()
    {
        QFETCH(bool, reconnect);
        QFETCH(int, status);
        QFETCH(QString, body);
        QVERIFY(server->post("/handshake", {{"status", status}, {"body", body}}));
        node->data[QStringLiteral("reconnect")] = reconnect;
        QSignalSpy failed(client(), &Client::handshakeFailed);
        node->start();
        QTRY_COMPARE(failed.count(), 1);
        QVERIFY(client()->sessionID().isEmpty());
        QVERIFY(server->post("/handshake"));
        if (reconnect) {
            QTRY_COMPARE_WITH_TIMEOUT(registrations(*server), 1, 10000);
            QCOMPARE(requests(), 4);
        } else {
            QTest::qWait(2500); // longer than the first reconnect delay
            QCOMPARE(requests(), 1); // no "40" POST either
            QCOMPARE(client()->getState(), QStringLiteral("opening"));
        }
    }

    // A WebSocket upgrade that is never answered must not leave the listener waiting for ever.
    void hungUpgradeIsRetried()
    {
        QVERIFY(server->post("/upgrades", {{"mode", "hang"}}));
        node->data[QStringLiteral("reconnect")] = true;
        node->start();
        QTRY_COMPARE_WITH_TIMEOUT(requests(), 3, 10000);
        QElapsedTimer sinceUpgrade;
        sinceUpgrade.start();
        QVERIFY(server->post("/upgrades", {{"mode", "accept"}}));
        QTRY_COMPARE_WITH_TIMEOUT(registrations(*server), 1, 20000);
        // After the attempt time-out of 10 s and the first reconnect delay.
        QVERIFY2(sinceUpgrade.elapsed() >= 9300 && sinceUpgrade.elapsed() < 15000, qPrintable(QString::number(sinceUpgrade.elapsed())));
        QCOMPARE(requests(), 6);
    }

private:
    Client *client() { return node->findChild<Client *>(); }
    int registrations(const SioServer &s) const { return s.events(QStringLiteral("listenerclient_connect")).size(); }
    int requests() const { return server->get("/requests").size(); }

    std::unique_ptr<SioServer> server;
    std::unique_ptr<KestTallyArbiter> node;
    std::unique_ptr<EventRecorder> recorder;
};

void TestTallyArbiterSession::registersAndFollowsTheServer()
{
    node->start();
    node->onSetData({{QStringLiteral("deviceId"), QStringLiteral("dev1")}}); // not connected yet: sends nothing
    QTRY_COMPARE_WITH_TIMEOUT(server->events().size(), 4, 10000);
    QCOMPARE(server->log(client()->sessionID()).filter(QStringLiteral("engine_packet_in:message:2")),
             (QStringList{R"(engine_packet_in:message:2["version"])", R"(engine_packet_in:message:2["devices"])",
                          R"(engine_packet_in:message:2["bus_options"])",
                          R"(engine_packet_in:message:2["listenerclient_connect",{"canBeFlashed":true,"canBeReassigned":true,"deviceId":"dev1","listenerType":"Encoder","supportsChat":true}])"}));

    const QJsonArray options = QJsonDocument::fromJson(R"([{"id":"b_pvw","type":"preview","color":"#00ff00"},{"id":"b_pgm","type":"program","color":"#ff0000"}])").array();
    QVERIFY(server->emitEvent(QStringLiteral("bus_options"), {options}));
    const QJsonArray states = QJsonDocument::fromJson(R"([{"busId":"b_pvw","deviceId":"dev1","sources":[]},{"busId":"b_pgm","deviceId":"dev1","sources":["ds1"]}])").array();
    QVERIFY(server->emitEvent(QStringLiteral("device_states"), {states}));
    QTRY_COMPARE(recorder->colours(), QStringList{"#ff0000"});

    // Reassigned: announced to the host and the server, the device list asked for again, a flash.
    const QJsonArray devices = QJsonDocument::fromJson(R"([{"id":"dev1","name":"Camera 1"},{"id":"dev2","name":"Camera 2"}])").array();
    QVERIFY(server->emitEvent(QStringLiteral("devices"), {devices}));
    QTRY_COMPARE(node->getDevices().toList().size(), 2);
    recorder->events.clear();
    QVERIFY(server->emitEvent(QStringLiteral("reassign"), {"dev1", "dev2", "4f1c"}));
    QTRY_COMPARE(recorder->values(QStringLiteral("TA_reassign")),
                 (QVariantList{QVariantMap{{QStringLiteral("deviceId"), QStringLiteral("dev2")}, {QStringLiteral("deviceName"), QStringLiteral("Camera 2")}}}));
    QCOMPARE(node->data.value(QStringLiteral("deviceId")), QVariant("dev2"));
    QTRY_COMPARE(server->events().size(), 6);
    QCOMPARE(server->events().at(5).toString(), QStringLiteral("devices"));
    QCOMPARE(server->events(QStringLiteral("listener_reassign_object")),
             (QJsonArray{QJsonArray{QJsonObject{{"oldDeviceId", "dev1"}, {"newDeviceId", "dev2"}}}}));
    QTRY_COMPARE_WITH_TIMEOUT(recorder->colours().size(), 10, 5000);
    QVERIFY2(recorder->flashFault().isEmpty(), qPrintable(recorder->flashFault()));
}

QTEST_GUILESS_MAIN(TestTallyArbiterSession)
#include "tst_tallyarbitersession.moc"
