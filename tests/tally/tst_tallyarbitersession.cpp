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
    }

    void cleanup()
    {
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

    // The session's own restart after silence ends it too; the dark comes once.
    void darkOnLossWhenSilenceRestarts()
    {
        SioServer quick; // pings every second: silence shows after 6 s
        START_SIO_SERVER(quick, (SioServer::Options{1000, 800}));
        node->data.insert({{QStringLiteral("port"), quick.port}, {QStringLiteral("darkOnLoss"), true}});
        EventRecorder recorder(node.get());
        node->start();
        QTRY_COMPARE_WITH_TIMEOUT(registrations(quick), 1, 10000);
        quick.pause();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.colours(), QStringList{"#000000"}, 10000);
        QTRY_COMPARE(client()->getState(), QStringLiteral("opening")); // restarted, not closed
        QCOMPARE(recorder.colours(), QStringList{"#000000"});
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

    // Reassigned: the server is told, and the device list asked for again; nothing else by
    // default. (What the host sees is tested against the real server.)
    QVERIFY(server->emitEvent(QStringLiteral("reassign"), {"dev1", "dev2", "4f1c"}));
    QTRY_COMPARE(server->events().size(), 6);
    QCOMPARE(node->data.value(QStringLiteral("deviceId")), QVariant("dev2"));
    QCOMPARE(server->events().at(5).toString(), QStringLiteral("devices"));
    QCOMPARE(server->events(QStringLiteral("listener_reassign_object")),
             (QJsonArray{QJsonArray{QJsonObject{{"oldDeviceId", "dev1"}, {"newDeviceId", "dev2"}}}}));
}

QTEST_GUILESS_MAIN(TestTallyArbiterSession)
#include "tst_tallyarbitersession.moc"
