// The Tally Arbiter listener against the plain socket.io server (what it sends, when it
// reconnects) and against a real Tally Arbiter server, driven through its incoming webhook and
// admin socket. Tally Arbiter binds fixed ports: run this in a private network namespace.

#include "siopeer.h"
#include "tally/eventrecorder.h"

#include "json.h"
#include "socketio/client.h"
#include "tally/kesttallyarbiter.h"

#include <QSignalSpy>
#include <QTest>

#include <array>
#include <memory>

using SocketIO::Client;

class TestTallyArbiterServer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { qRegisterMetaType<Client::State>(); }

    // A listener for dev1, not yet started, and the plain server at its default address.
    void init()
    {
        node = std::make_unique<KestTallyArbiter>();
        node->data[QStringLiteral("deviceId")] = QStringLiteral("dev1");
        plain = std::make_unique<SioServer>();
    }
    void cleanup() { node.reset(), plain.reset(); }

    // Registers, then follows a reassign from the server (told back, the device list asked for
    // again, nothing else by default). New settings without "ip" (merged first, then handed over,
    // as the host does) register again on the same connection; with "ip": a new session.
    void registersAndFollowsTheServer()
    {
        startPlain();
        node->start();
        node->onSetData({{QStringLiteral("deviceId"), QStringLiteral("dev1")}}); // not connected yet: sends nothing
        QTRY_COMPARE_WITH_TIMEOUT(plain->events().size(), 4, 10000);
        const QString firstSid = client()->sessionID();
        QCOMPARE(plain->log(firstSid).filter(QStringLiteral("in:message:2")).join('\n'),
                 QStringLiteral(R"(in:message:2["version"]
in:message:2["devices"]
in:message:2["bus_options"]
in:message:2["listenerclient_connect",{"canBeFlashed":true,"canBeReassigned":true,"deviceId":"dev1","listenerType":"Encoder","supportsChat":true}])"));
        plain->command({{"emit", QJsonArray{"reassign", "dev1", "dev2", "4f1c"}}});
        QTRY_COMPARE(plain->events().size(), 6);
        const QJsonArray events = plain->events();
        QCOMPARE(QJsonDocument(QJsonArray{events[4], events[5]}).toJson(QJsonDocument::Compact),
                 R"([["listener_reassign_object",{"newDeviceId":"dev2","oldDeviceId":"dev1"}],["devices"]])");
        QCOMPARE(node->data.value(QStringLiteral("deviceId")), QVariant("dev2"));

        const QVariantMap settings{{QStringLiteral("typeName"), QStringLiteral("Studio B")}};
        node->data.insert(settings);
        node->onSetData(settings);
        QTRY_COMPARE(registrations().size(), 2);
        QCOMPARE(registrations().last()[0][QStringLiteral("listenerType")].toString() + registrations().last()[0][QStringLiteral("deviceId")].toString(),
                 QStringLiteral("Studio Bdev2"));
        QCOMPARE(plain->get("requests").size(), 3);
        node->onSetData({{QStringLiteral("ip"), QStringLiteral("127.0.0.1")}});
        QTRY_COMPARE_WITH_TIMEOUT(registrations().size(), 3, 10000);
        QVERIFY(client()->sessionID() != firstSid);
        QTRY_VERIFY(plain->log(firstSid).contains(QStringLiteral("close")));
        QCOMPARE(plain->get("requests").size(), 6);
    }

    // The session's own restart after silence ends it too; the dark comes once.
    void darkOnLossWhenSilenceRestarts()
    {
        startPlain(1000, 800); // pings every second: silence shows after 6 s
        node->data[QStringLiteral("darkOnLoss")] = true;
        EventRecorder recorder(node.get());
        node->start();
        QTRY_COMPARE_WITH_TIMEOUT(registrations().size(), 1, 10000);
        plain->pause();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.colours(), QStringList{"#000000"}, 10000);
        QTRY_COMPARE(client()->getState(), QStringLiteral("opening")); // restarted, not closed
        QCOMPARE(recorder.colours(), QStringList{"#000000"});
    }

    // The two ways a handshake fails (its parsing is tst_codec's): retried when asked, else left.
    // Retried, its WebSocket upgrade is never answered: that must not leave the listener waiting
    // for ever; after the attempt time-out of 10 s and the next reconnect delay it opens again.
    void failedAttempts()
    {
        for (const bool reconnect : {true, false}) {
            init();
            startPlain();
            plain->command({{"handshake", reconnect ? QJsonObject{{"status", 503}, {"body", "maintenance"}} : QJsonObject{{"status", 200}, {"body", R"(0{"sid":"a"})"}}}});
            plain->command({{"upgrades", reconnect ? "hang" : "accept"}});
            node->data[QStringLiteral("reconnect")] = reconnect;
            QSignalSpy failed(client(), &Client::handshakeFailed);
            node->start();
            QTRY_COMPARE(failed.count(), 1);
            QVERIFY(client()->sessionID().isEmpty());
            plain->command({{"handshake", QJsonValue()}});
            QTest::qWait(reconnect ? 0 : 2500); // longer than the first reconnect delay
            QTRY_COMPARE_WITH_TIMEOUT(plain->get("requests").size(), reconnect ? 4 : 1, 10000); // left alone: no "40" POST either
            QElapsedTimer sinceUpgrade;
            sinceUpgrade.start();
            plain->command({{"upgrades", "accept"}});
            QTRY_COMPARE_WITH_TIMEOUT(registrations().size(), reconnect ? 1 : 0, 20000);
            QVERIFY2(!reconnect || (sinceUpgrade.elapsed() >= 9300 && sinceUpgrade.elapsed() < 15000), qPrintable(QString::number(sinceUpgrade.elapsed())));
            QCOMPARE(plain->get("requests").size(), reconnect ? 7 : 1);
            QCOMPARE(client()->getState(), QLatin1String(reconnect ? "connected" : "opening"));
        }
    }

    // The shipped example's listener next to one with the defaults, on the real server.
    void listenersFollowTallyArbiter()
    {
        START_PEER(ta.port ? QString() : ta.startTallyArbiter());
        KestTallyArbiter example;
        example.data.insert(Json::loadFile(QStringLiteral(KEST_SOURCE_DIR "/examples/tally-arbiter.json")).toMap()[QStringLiteral("nodes")].toList().at(0).toMap()[QStringLiteral("data")].toMap());
        node->data[QStringLiteral("typeName")] = QStringLiteral("kest-default");
        EventRecorder recorder(node.get()), exampleRecorder(&example);
        QVector<qint64> attempts; // of the example's session to open
        connect(example.findChild<Client *>(), &Client::stateChanged, this, [&](Client::State state) {
            if (state == Client::Opening)
                attempts << exampleRecorder.clock.elapsed();
        });
        node->start();
        example.start();
        const QJsonObject entry = listener(QStringLiteral("kest-default")), exampleEntry = listener(QStringLiteral("Encoder"));
        QCOMPARE(entry[QStringLiteral("deviceId")].toString() + exampleEntry[QStringLiteral("deviceId")].toString(), QStringLiteral("dev1dev1"));
        QTRY_VERIFY(!recorder.colours().isEmpty()); // the server sends the device's states on registration

        // The server's bus order puts preview first, its priorities program.
        follow({{R"({"1":["program"],"2":[]})", "#ff0000", "#ff0000"}, {R"({"1":["preview","program"],"2":[]})", "#00ff00", "#ff0000"}}, recorder, exampleRecorder);

        // Reassigned to dev2 from the server, announced to the host with a flash; the default
        // listener is flashed from the server first.
        QCOMPARE(SioServer::admin({QStringLiteral("reassign"), exampleEntry[QStringLiteral("id")].toString(), QStringLiteral("dev2")}), QJsonValue("reassign"));
        QTRY_COMPARE_WITH_TIMEOUT(exampleRecorder.colours().size(), 10, 5000);
        for (const char *action : {"flash", "reassign"}) {
            recorder.events.clear();
            QCOMPARE(SioServer::admin({QString(action), entry[QStringLiteral("id")].toString(), QStringLiteral("dev2")}), QJsonValue(action));
            QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 10, 5000);
            QVERIFY2(recorder.flashFault().isEmpty(), qPrintable(recorder.flashFault()));
        }
        QCOMPARE(recorder.values(QStringLiteral("TA_reassign")), (QVariantList{QVariantMap{{"deviceId", "dev2"}, {"deviceName", "Camera 2"}}}));
        // By default the colours still follow dev1, where the server left the registration; the
        // example's listener ("followReassign") follows dev2 only.
        follow({{R"({"1":[],"2":["program"]})", "#000000", "#ff0000"}, {R"({"1":["program"],"2":[]})", "#ff0000", "#000000"}}, recorder, exampleRecorder);

        // The server goes: the example's listener goes dark once, well within the session's
        // time-out (ping interval 25 s + 5 s), and opens again after 1 s, 2 s, 4 s (Qt's coarse
        // timers may fire 5 % early); by default the last colour stands, for good.
        recorder.events.clear();
        exampleRecorder.events.clear();
        ta.stop();
        const qint64 lost = exampleRecorder.clock.elapsed();
        attempts.clear();
        QTRY_COMPARE_WITH_TIMEOUT(exampleRecorder.colours(), QStringList{"#000000"}, 30000);
        QTRY_COMPARE_WITH_TIMEOUT(attempts.size(), 3, 10000);
        QCOMPARE(ta.startTallyArbiter(), QString());
        QCOMPARE(listener(QStringLiteral("Encoder"), 30000)[QStringLiteral("deviceId")].toString(), QStringLiteral("dev2")); // a fresh server knows no listeners
        QTRY_VERIFY(exampleRecorder.colours().size() > 1);
        const qint64 gaps[] = {attempts[0] - lost, attempts[1] - attempts[0], attempts[2] - attempts[1]};
        QVERIFY2(gaps[0] >= 950 && gaps[0] < 2500 && gaps[1] >= 1900 && gaps[1] < 3500 && gaps[2] >= 3800 && gaps[2] < 5500,
                 qPrintable(QStringLiteral("%1 %2 %3").arg(gaps[0]).arg(gaps[1]).arg(gaps[2])));
        QVERIFY(recorder.events.isEmpty() && listener(QStringLiteral("kest-default"), 0).isEmpty());
        QCOMPARE(client()->getState(), QStringLiteral("disconnected"));
    }

private:
    void startPlain(int pingIntervalMs = 25000, int pingTimeoutMs = 20000)
    {
        START_PEER(plain->start(pingIntervalMs, pingTimeoutMs));
        node->data[QStringLiteral("port")] = plain->port;
    }
    Client *client() { return node->findChild<Client *>(); }
    QJsonArray registrations() { return plain->events(QStringLiteral("listenerclient_connect")); }

    // Posts each tally in turn; each listener must show the colour expected of it and no other,
    // not even for a moment (the server sends every device's states on every change).
    void follow(std::initializer_list<std::array<const char *, 3>> steps, EventRecorder &plainRecorder, EventRecorder &exampleRecorder)
    {
        for (const auto &[tally, colour, exampleColour] : steps) {
            plainRecorder.events.clear();
            exampleRecorder.events.clear();
            QVERIFY(!SioServer::admin({QStringLiteral("tally"), tally}).isNull());
            QTRY_VERIFY_WITH_TIMEOUT(plainRecorder.colours().contains(colour) && exampleRecorder.colours().contains(exampleColour), 5000);
            QTest::qWait(200);
            QCOMPARE(tally + (": " + plainRecorder.colours().join(' ').remove(colour) + '|' + exampleRecorder.colours().join(' ').remove(exampleColour)).simplified(), tally + QStringLiteral(": |"));
        }
    }
    // The active listener entry of this type, once there is one.
    QJsonObject listener(const QString &type, int timeoutMs = 15000)
    {
        QJsonObject entry;
        (void)QTest::qWaitFor([&] {
            for (const QJsonValue &e : SioServer::admin({QStringLiteral("listeners")}).toArray())
                if (e[QStringLiteral("listenerType")] == type && !e[QStringLiteral("inactive")].toBool())
                    entry = e.toObject();
            return !entry.isEmpty();
        }, timeoutMs);
        return entry;
    }

    std::unique_ptr<KestTallyArbiter> node;
    std::unique_ptr<SioServer> plain;
    SioServer ta;
};

QTEST_GUILESS_MAIN(TestTallyArbiterServer)
#include "tst_tallyarbiterserver.moc"
