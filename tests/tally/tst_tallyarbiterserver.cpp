// The Tally Arbiter listener and the vMix client against a real Tally Arbiter server (its
// Socket.IO side on 127.0.0.1:4455, its vMix emulator on 8099), driven through the server's
// incoming webhook and admin socket. Run it in a private network namespace (fixed ports).

#include "tally/eventrecorder.h"
#include "tally/tallyarbiterpeer.h"

#include "kestrunprocess.h"
#include "socketio/client.h"
#include "tally/kesttallyarbiter.h"
#include "tally/kestvmix.h"

#include <QSignalSpy>
#include <QTest>
#include <QTimer>

namespace {

constexpr int kRegisterWaitMs = 15000;

// Server address and port are left at their defaults, 127.0.0.1:4455, and so is "reconnect".
void pointAt(KestTallyArbiter &node, const QString &listenerType)
{
    node.setName(listenerType);
    node.data[QStringLiteral("deviceId")] = QStringLiteral("dev1");
    node.data[QStringLiteral("typeName")] = listenerType;
}

void checkFlash(const EventRecorder &recorder)
{
    QCOMPARE(recorder.colours(), flashColours());
    QString why;
    QVERIFY2(flashTimingHolds(recorder.colourTimes(), &why), qPrintable(why));
}

} // namespace

class TestTallyArbiterServer : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase() { server.stop(); }
    void listenerFollowsTheServer();
    void vmixFollowsTheSwitcher();
    void vmixExampleUnderKestRun();
    void listenerReconnectsAfterServerRestart(); // restarts the server: keep it last

private:
    // Posts `json` until the `seen` condition holds: the server reports changes only, and only
    // to clients whose subscription it has handled.
    template <typename Seen>
    bool tallyUntil(const QByteArray &json, Seen seen)
    {
        for (int attempt = 0; attempt < 25; ++attempt) {
            if (!server.tally(json))
                return false;
            if (QTest::qWaitFor(seen, 200))
                return true;
        }
        return false;
    }

    TallyArbiterPeer server;
};

void TestTallyArbiterServer::initTestCase()
{
    QString why;
    const TallyArbiterPeer::Result result = server.start(&why);
    if (result == TallyArbiterPeer::Skip)
        QSKIP(qPrintable(why));
    QVERIFY2(result == TallyArbiterPeer::Started, qPrintable(why));
}

void TestTallyArbiterServer::listenerFollowsTheServer()
{
    KestTallyArbiter node;
    pointAt(node, QStringLiteral("kest-listener"));
    EventRecorder recorder(&node);
    node.start();
    QJsonObject entry;
    QTRY_VERIFY_WITH_TIMEOUT(!(entry = server.listener(QStringLiteral("kest-listener"))).isEmpty(), kRegisterWaitMs);
    QCOMPARE(entry.value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev1"));
    QCOMPARE(entry.value(QStringLiteral("canBeReassigned")), QJsonValue(true));
    QCOMPARE(entry.value(QStringLiteral("canBeFlashed")), QJsonValue(true));
    QCOMPARE(entry.value(QStringLiteral("supportsChat")), QJsonValue(true));
    QCOMPARE(entry.value(QStringLiteral("ipAddress")).toString(), QStringLiteral("127.0.0.1"));
    QTRY_COMPARE(node.getDevices().toList().size(), 2);
    QCOMPARE(node.getDevices().toList()[1].toMap().value(QStringLiteral("name")).toString(), QStringLiteral("Camera 2"));
    QTRY_VERIFY(!recorder.colours().isEmpty()); // the server sends the device's states on registration

    // Each step changes dev1's state; the server's bus order puts preview first.
    const std::pair<QByteArray, QString> steps[] = {
        {R"({"1":["program"],"2":[]})", "#ff0000"},
        {R"({"1":["preview"],"2":[]})", "#00ff00"},
        {R"({"1":["preview","program"],"2":[]})", "#00ff00"},
        {R"({"1":[],"2":["program"]})", "#000000"},
        {R"({"1":["program"],"2":["preview"]})", "#ff0000"},
    };
    for (const auto &[tally, colour] : steps) {
        recorder.clear();
        QVERIFY(server.tally(tally));
        QTRY_VERIFY(!recorder.colours().isEmpty());
        QTRY_COMPARE(recorder.colours().last(), colour);
    }

    // New settings without an address: registered again on the same connection (and the
    // server sends the device's states again).
    const int coloursBefore = recorder.colours().size();
    node.data[QStringLiteral("typeName")] = QStringLiteral("kest-renamed");
    node.onSetData({{QStringLiteral("typeName"), QStringLiteral("kest-renamed")}});
    QJsonObject renamed;
    QTRY_VERIFY_WITH_TIMEOUT(!(renamed = server.listener(QStringLiteral("kest-renamed"))).isEmpty(), kRegisterWaitMs);
    QCOMPARE(renamed.value(QStringLiteral("socketId")), entry.value(QStringLiteral("socketId")));
    QTRY_VERIFY(recorder.colours().size() > coloursBefore);

    // Flashed from the server.
    recorder.clear();
    int exitCode = -1;
    server.admin({QStringLiteral("flash"), renamed.value(QStringLiteral("id")).toString()}, &exitCode);
    QCOMPARE(exitCode, 0);
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 10, 5000);
    checkFlash(recorder);
    if (QTest::currentTestFailed())
        return;

    // Reassigned from the server: announced to the host, and a flash.
    recorder.clear();
    server.admin({QStringLiteral("reassign"), renamed.value(QStringLiteral("id")).toString(), QStringLiteral("dev2")}, &exitCode);
    QCOMPARE(exitCode, 0);
    QTRY_COMPARE_WITH_TIMEOUT(recorder.values(QStringLiteral("TA_reassign")).size(), 1, 5000);
    QCOMPARE(recorder.values(QStringLiteral("TA_reassign")).first().toMap(),
             (QVariantMap{{QStringLiteral("deviceId"), QStringLiteral("dev2")}, {QStringLiteral("deviceName"), QStringLiteral("Camera 2")}}));
    QCOMPARE(node.data.value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev2"));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 10, 5000);
    checkFlash(recorder);
}

void TestTallyArbiterServer::vmixFollowsTheSwitcher()
{
    KestVMix node;
    QSignalSpy spy(&node, &KestObject::eventSent);
    const auto last = [&spy] { return spy.isEmpty() ? QVariantList() : spy.last().at(1).toList(); };
    node.setData({{"ip", "127.0.0.1"}, {"port", 8099}});
    QVERIFY(!node.findChild<QTimer *>()->isActive()); // connected on the first attempt
    QVERIFY(tallyUntil(R"({"1":["program"],"2":["preview"]})", [&] { return last() == QVariantList{1, 2}; }));

    // The server reports once per camera it re-evaluates, so the settled state is the last.
    const std::pair<QByteArray, QVariantList> steps[] = {
        {R"({"1":["preview","program"],"2":[]})", {1, 0}},
        {R"({"1":[],"2":["program"]})", {0, 1}},
        {R"({"1":["preview"],"2":["preview"]})", {2, 2}},
    };
    for (const auto &[tally, expected] : steps) {
        QVERIFY(server.tally(tally));
        QTRY_COMPARE(last(), expected);
    }
    for (const QList<QVariant> &event : spy)
        QCOMPARE(event.at(0).toString(), QStringLiteral("TALLY"));
}

void TestTallyArbiterServer::vmixExampleUnderKestRun()
{
    KestRun run;
    QVERIFY(run.start({QStringLiteral(KEST_SOURCE_DIR "/examples/vmix-tally.json")}));
    QByteArray output;
    QVERIFY2(tallyUntil(R"({"1":["preview"],"2":["program"]})", [&] {
                 output += run.process.readAllStandardOutput();
                 return output.contains(R"({"node":"vmix","event":"TALLY","value":[2,1]})");
             }), output.constData());
    run.send(R"({"quit":true})");
    QVERIFY(run.process.waitForFinished(10000));
    QCOMPARE(run.process.exitCode(), 0);
}

void TestTallyArbiterServer::listenerReconnectsAfterServerRestart()
{
    KestTallyArbiter returning;
    pointAt(returning, QStringLiteral("kest-returning"));
    returning.data[QStringLiteral("reconnect")] = true;
    KestTallyArbiter staying; // "reconnect" is off by default
    pointAt(staying, QStringLiteral("kest-staying"));
    EventRecorder recorder(&returning);
    returning.start();
    staying.start();
    QTRY_VERIFY_WITH_TIMEOUT(!server.listener(QStringLiteral("kest-returning")).isEmpty(), kRegisterWaitMs);
    QTRY_VERIFY_WITH_TIMEOUT(!server.listener(QStringLiteral("kest-staying")).isEmpty(), kRegisterWaitMs);

    server.stop();
    QTRY_COMPARE(returning.findChild<SocketIO::Client *>()->getState(), QStringLiteral("disconnected"));
    recorder.clear();
    QString why;
    QCOMPARE(server.start(&why), TallyArbiterPeer::Started);

    // A fresh server knows no listeners: an entry means the listener registered again.
    QJsonObject entry;
    QTRY_VERIFY_WITH_TIMEOUT(!(entry = server.listener(QStringLiteral("kest-returning"))).isEmpty(), 30000);
    QCOMPARE(entry.value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev1"));
    QTRY_VERIFY(!recorder.colours().isEmpty());
    QVERIFY(server.listener(QStringLiteral("kest-staying")).isEmpty());
    QCOMPARE(staying.findChild<SocketIO::Client *>()->getState(), QStringLiteral("disconnected"));
}

QTEST_GUILESS_MAIN(TestTallyArbiterServer)
#include "tst_tallyarbiterserver.moc"
