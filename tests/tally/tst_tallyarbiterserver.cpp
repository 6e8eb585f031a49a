// The Tally Arbiter listener and the vMix client against a real Tally Arbiter server (its
// Socket.IO side on 127.0.0.1:4455, its vMix emulator on 8099), driven through the server's
// incoming webhook and admin socket. Run it in a private network namespace (fixed ports).

#include "tally/eventrecorder.h"
#include "tally/tallyarbiterpeer.h"

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
        KestTallyArbiter node;
        pointAt(node, QStringLiteral("kest-listener"));
        EventRecorder recorder(&node);
        node.start();
        const QJsonObject entry = waitForListener(QStringLiteral("kest-listener"));
        QCOMPARE(entry.value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev1"));
        for (const char *flag : {"canBeReassigned", "canBeFlashed", "supportsChat"})
            QVERIFY2(entry.value(QLatin1String(flag)).toBool(), flag);
        QCOMPARE(entry.value(QStringLiteral("ipAddress")).toString(), QStringLiteral("127.0.0.1"));
        QTRY_COMPARE(node.getDevices().toList().size(), 2);
        QCOMPARE(node.getDevices().toList()[1].toMap().value(QStringLiteral("name")).toString(), QStringLiteral("Camera 2"));
        QTRY_VERIFY(!recorder.colours().isEmpty()); // the server sends the device's states on registration

        // Each step changes dev1's state; the server's bus order puts preview first.
        const std::pair<QByteArray, QString> steps[] = {
            {R"({"1":["program"],"2":[]})", "#ff0000"},
            {R"({"1":["preview","program"],"2":[]})", "#00ff00"},
            {R"({"1":[],"2":["program"]})", "#000000"},
            {R"({"1":["program"],"2":["preview"]})", "#ff0000"},
        };
        for (const auto &[tally, colour] : steps) {
            recorder.events.clear();
            QVERIFY(server.tally(tally));
            QTRY_VERIFY(!recorder.colours().isEmpty());
            QTRY_COMPARE(recorder.colours().last(), colour);
        }

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
        int exitCode = -1;
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
        returning.data[QStringLiteral("reconnect")] = true;
        KestTallyArbiter staying; // "reconnect" is off by default
        pointAt(staying, QStringLiteral("kest-staying"));
        EventRecorder recorder(&returning);
        returning.start();
        staying.start();
        QVERIFY(!waitForListener(QStringLiteral("kest-returning")).isEmpty());
        QVERIFY(!waitForListener(QStringLiteral("kest-staying")).isEmpty());

        server.stop();
        QTRY_COMPARE(returning.findChild<SocketIO::Client *>()->getState(), QStringLiteral("disconnected"));
        recorder.events.clear();
        QCOMPARE(server.start(), QString());

        // A fresh server knows no listeners: an entry means the listener registered again.
        QCOMPARE(waitForListener(QStringLiteral("kest-returning"), 30000).value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev1"));
        QTRY_VERIFY(!recorder.colours().isEmpty());
        QVERIFY(server.listener(QStringLiteral("kest-staying")).isEmpty());
        QCOMPARE(staying.findChild<SocketIO::Client *>()->getState(), QStringLiteral("disconnected"));
    }

private:
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
