// The Tally Arbiter listener and the vMix client against a real Tally Arbiter server (its
// Socket.IO side on 127.0.0.1:4455, its vMix emulator on 8099), driven through the server's
// incoming webhook and admin socket. Run it in a private network namespace (fixed ports).

#include "tally/eventrecorder.h"
#include "tally/tallyarbiterpeer.h"

#include "json.h"
#include "kestrunprocess.h"
#include "socketio/client.h"
#include "tally/kesttallyarbiter.h"

#include <QTest>

namespace {

// Server address and port are left at their defaults, 127.0.0.1:4455, and so is "reconnect".
void pointAt(KestTallyArbiter &node, const QString &listenerType)
{
    node.setName(listenerType);
    node.data[QStringLiteral("deviceId")] = QStringLiteral("dev1");
    node.data[QStringLiteral("typeName")] = listenerType;
}

} // namespace

class TestTallyArbiterServer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        const QString why = server.start();
        if (why.startsWith(QLatin1String("skip: ")))
            QSKIP(qPrintable(why));
        QVERIFY2(why.isEmpty(), qPrintable(why));
    }

    void listenerFollowsTheServer()
    {
        KestTallyArbiter node, onAir; // the defaults, and the shipped example's settings
        pointAt(node, QStringLiteral("kest-listener"));
        onAir.data.insert(Json::loadFile(QStringLiteral(KEST_SOURCE_DIR "/examples/tally-arbiter.json")).toMap()[QStringLiteral("nodes")].toList().at(0).toMap()[QStringLiteral("data")].toMap());
        EventRecorder recorder(&node), onAirRecorder(&onAir);
        node.start();
        onAir.start();
        const QJsonObject entry = waitForListener(QStringLiteral("kest-listener"));
        QCOMPARE(entry.value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev1"));
        for (const char *flag : {"canBeReassigned", "canBeFlashed", "supportsChat"})
            QVERIFY2(entry.value(QLatin1String(flag)).toBool(), flag);
        QCOMPARE(entry.value(QStringLiteral("ipAddress")).toString(), QStringLiteral("127.0.0.1"));
        const QJsonObject onAirEntry = waitForListener(QStringLiteral("Encoder"));
        QTRY_COMPARE(node.getDevices().toList().size(), 2);
        QCOMPARE(node.getDevices().toList()[1].toMap().value(QStringLiteral("name")).toString(), QStringLiteral("Camera 2"));
        QTRY_VERIFY(!recorder.colours().isEmpty()); // the server sends the device's states on registration

        // Each step changes dev1's state; the server's bus order puts preview first, its
        // priorities program.
        QString fault = follow({{R"({"1":["program"],"2":[]})", "#ff0000", "#ff0000"},
                                {R"({"1":["preview","program"],"2":[]})", "#00ff00", "#ff0000"},
                                {R"({"1":[],"2":["program"]})", "#000000", "#000000"},
                                {R"({"1":["program"],"2":["preview"]})", "#ff0000", "#ff0000"}},
                               recorder, onAirRecorder);
        QVERIFY2(fault.isEmpty(), qPrintable(fault));

        // Reassigned to dev2 from the server: only "followReassign" moves the listener. Its flash
        // is over before the other listener's flashes below are.
        int exitCode = -1;
        server.admin({QStringLiteral("reassign"), onAirEntry.value(QStringLiteral("id")).toString(), QStringLiteral("dev2")}, &exitCode);
        QCOMPARE(exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(onAirRecorder.values(QStringLiteral("TA_reassign")).size(), 1, 5000);

        // New settings without an address: registered again on the same connection (and the
        // server sends the device's states again).
        const int coloursBefore = recorder.colours().size();
        node.data[QStringLiteral("typeName")] = QStringLiteral("kest-renamed");
        node.onSetData({{QStringLiteral("typeName"), QStringLiteral("kest-renamed")}});
        const QJsonObject renamed = waitForListener(QStringLiteral("kest-renamed"));
        QCOMPARE(renamed.value(QStringLiteral("socketId")), entry.value(QStringLiteral("socketId")));
        QTRY_VERIFY(recorder.colours().size() > coloursBefore);

        // Flashed, then reassigned from the server: announced to the host, and a flash.
        recorder.events.clear();
        server.admin({QStringLiteral("flash"), renamed.value(QStringLiteral("id")).toString()}, &exitCode);
        QCOMPARE(exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 10, 5000);
        QVERIFY2(recorder.flashFault().isEmpty(), qPrintable(recorder.flashFault()));
        recorder.events.clear();
        server.admin({QStringLiteral("reassign"), renamed.value(QStringLiteral("id")).toString(), QStringLiteral("dev2")}, &exitCode);
        QCOMPARE(exitCode, 0);
        QTRY_COMPARE_WITH_TIMEOUT(recorder.values(QStringLiteral("TA_reassign")),
                                  (QVariantList{QVariantMap{{QStringLiteral("deviceId"), QStringLiteral("dev2")}, {QStringLiteral("deviceName"), QStringLiteral("Camera 2")}}}), 5000);
        QCOMPARE(node.data.value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev2"));
        QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 10, 5000);
        QVERIFY2(recorder.flashFault().isEmpty(), qPrintable(recorder.flashFault()));

        // By default the colours still follow dev1, where the server left the registration; the
        // example's listener follows dev2 only.
        fault = follow({{R"({"1":[],"2":["program"]})", "#000000", "#ff0000"},
                        {R"({"1":["program"],"2":[]})", "#ff0000", "#000000"},
                        {R"({"1":[],"2":["preview","program"]})", "#000000", "#ff0000"}},
                       recorder, onAirRecorder);
        QVERIFY2(fault.isEmpty(), qPrintable(fault));
    }

    // The shipped example under kest-run, against the server's vMix emulator on 8099. It asks for
    // the current tally, so the state set before it connects shows without a change.
    void vmixExampleFollowsTheSwitcher()
    {
        QVERIFY(server.tally(R"({"1":["preview"],"2":["program"]})"));
        KestRun run;
        QVERIFY(run.start({QStringLiteral(KEST_SOURCE_DIR "/examples/vmix-tally.json")}));
        const std::pair<QByteArray, QByteArray> steps[] = {
            {{}, "[2,1]"},
            {R"({"1":["preview","program"],"2":[]})", "[1,0]"},
            {R"({"1":[],"2":["preview"]})", "[0,2]"},
        };
        QByteArray output;
        for (const auto &[tally, value] : steps) {
            QVERIFY(tally.isEmpty() || server.tally(tally));
            const QByteArray line = R"({"node":"vmix","event":"TALLY","value":)" + value + "}\n";
            QVERIFY2(QTest::qWaitFor([&] { return (output += run.process.readAllStandardOutput()).endsWith(line); }, 5000), output.constData());
        }
        run.send(R"({"quit":true})");
        QVERIFY(run.process.waitForFinished(10000));
        QCOMPARE(run.process.exitCode(), 0);
    }

    void listenerReconnectsAfterServerRestart()
    {
        KestTallyArbiter returning;
        pointAt(returning, QStringLiteral("kest-returning"));
        returning.data.insert({{QStringLiteral("reconnect"), true}, {QStringLiteral("darkOnLoss"), true}});
        KestTallyArbiter staying; // "reconnect" and "darkOnLoss" are off by default
        pointAt(staying, QStringLiteral("kest-staying"));
        EventRecorder recorder(&returning), stayingRecorder(&staying);
        returning.start();
        staying.start();
        QVERIFY(!waitForListener(QStringLiteral("kest-returning")).isEmpty());
        QVERIFY(!waitForListener(QStringLiteral("kest-staying")).isEmpty());
        QTRY_VERIFY(!recorder.colours().isEmpty() && !stayingRecorder.colours().isEmpty());

        recorder.events.clear();
        stayingRecorder.events.clear();
        server.stop();
        // Dark once, well within the session's time-out (ping interval 25 s + 5 s); the last
        // colour stands by default.
        QTRY_COMPARE_WITH_TIMEOUT(recorder.colours(), QStringList{"#000000"}, 30000);
        QTRY_COMPARE(returning.findChild<SocketIO::Client *>()->getState(), QStringLiteral("disconnected"));
        QVERIFY(stayingRecorder.events.isEmpty());
        QCOMPARE(server.start(), QString());

        // A fresh server knows no listeners: an entry means the listener registered again.
        QCOMPARE(waitForListener(QStringLiteral("kest-returning"), 30000).value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev1"));
        QTRY_VERIFY(recorder.colours().size() > 1);
        QVERIFY(server.listener(QStringLiteral("kest-staying")).isEmpty());
        QCOMPARE(staying.findChild<SocketIO::Client *>()->getState(), QStringLiteral("disconnected"));
    }

private:
    struct Step { QByteArray tally; QString colour, onAirColour; };
    // Posts each tally in turn; empty when each listener showed the colour expected of it and no
    // other, not even for a moment (the server sends every device's states on every change).
    QString follow(std::initializer_list<Step> steps, EventRecorder &plain, EventRecorder &onAir)
    {
        const auto only = [](const EventRecorder &r, const QString &colour) { return !r.colours().isEmpty() && r.colours().count(colour) == r.colours().size(); };
        const auto shown = [&](const Step &step) { return only(plain, step.colour) && only(onAir, step.onAirColour); };
        for (const Step &step : steps) {
            plain.events.clear();
            onAir.events.clear();
            if (!server.tally(step.tally) || !QTest::qWaitFor([&] { return shown(step); }, 5000) || (QTest::qWait(200), !shown(step)))
                return QString::fromUtf8(step.tally) + ": " + plain.colours().join(' ') + ", " + onAir.colours().join(' ');
        }
        return {};
    }

    // The active listener entry of this type, once there is one.
    QJsonObject waitForListener(const QString &listenerType, int timeoutMs = 15000)
    {
        QJsonObject entry;
        (void)QTest::qWaitFor([&] { return !(entry = server.listener(listenerType)).isEmpty(); }, timeoutMs);
        return entry;
    }

    TallyArbiterPeer server;
};

QTEST_GUILESS_MAIN(TestTallyArbiterServer)
#include "tst_tallyarbiterserver.moc"
