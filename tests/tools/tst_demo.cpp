// The example graphs, run by kest-run as a user would run them (on a free port instead of 7000,
// the demo with the NDI test runtime and clips made by ffmpeg, as scripts/demo runs it).

#include "intercom/udpstation.h"
#include "kestrunprocess.h"
#include "testmedia.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QTemporaryDir>
#include <QTest>

class TestDemo : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void demoPlaysToneAndReceivesItsNdiSource();
    void stationExampleTalksToItsRelay();

private:
    // The example with every "port": 7000 moved to `port`.
    QString exampleOnPort(const QString &name, quint16 port, int expectedPorts);

    QTemporaryDir dir;
};

QString TestDemo::exampleOnPort(const QString &name, quint16 port, int expectedPorts)
{
    QFile file(QStringLiteral(KEST_SOURCE_DIR "/examples/") + name);
    QByteArray graph = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    QFile out(dir.filePath(name));
    if (graph.count("\"port\": 7000") != expectedPorts || !out.open(QIODevice::WriteOnly))
        return {};
    out.write(graph.replace("\"port\": 7000", "\"port\": " + QByteArray::number(port)));
    return out.fileName();
}

void TestDemo::demoPlaysToneAndReceivesItsNdiSource()
{
    const QString graph = exampleOnPort(QStringLiteral("demo.json"), freeUdpPort(), 3);
    QVERIFY(!graph.isEmpty());
    // The clips where scripts/demo puts them, relative to the folder kest-run runs in.
    QString why;
    const QString video = TestMedia::get(TestMedia::H264, &why), audio = TestMedia::get(TestMedia::Aac, &why);
    const bool withMedia = !video.isEmpty() && !audio.isEmpty();
    QVERIFY(QDir(dir.path()).mkpath("build-demo/media"));
    if (withMedia) {
        QVERIFY(QFile::copy(video, dir.filePath("build-demo/media/main.h264")));
        QVERIFY(QFile::copy(video, dir.filePath("build-demo/media/sub.h264")));
        QVERIFY(QFile::copy(audio, dir.filePath("build-demo/media/audio.aac")));
    }
    KestRun run;
    run.process.setWorkingDirectory(dir.path());
    QVERIFY(run.start({graph}));

    // The tone of station 1 reaches station 2's speaker once the relay knows station 2 (its
    // first alive, after 3 s), and the roster shows station 1 by name after its next alive.
    // Meanwhile the NDI receiver finds the demo's own source by itself, announces both streams
    // and hands them to the decoder.
    bool toneHeard = false, rosterSeen = false;
    QJsonObject lastState, infoV, infoA, stats;
    const auto ndiDone = [&] {
        return !withMedia || (infoA.value("codec") == "aac" && stats.value("video").toInt() > 0 && stats.value("audio").toInt() > 0);
    };
    QElapsedTimer clock;
    clock.start();
    while (!(toneHeard && rosterSeen && ndiDone()) && clock.elapsed() < 20000) {
        const QJsonObject line = run.nextObject(1000);
        const QJsonObject value = line.value("value").toObject();
        if (line.value("node") == "speaker2" && line.value("event") == "level") {
            toneHeard = toneHeard || (value.value("peak").toInt() == 16422 && value.value("packets").toInt() >= 50);
        } else if (line.value("call") == "getState") {
            lastState = line.value("result").toObject();
            const QJsonArray list = lastState.value("list").toArray();
            rosterSeen = list.size() == 1 && list[0].toObject() == QJsonObject{{"id", 1}, {"name", "Studio"}, {"talking", true}};
        } else if (line.value("node") == "ndi-in" && line.value("event") == "ready") {
            infoV = value.value("infoV").toObject();
            infoA = value.value("infoA").toObject();
        } else if (line.value("node") == "decoder" && line.value("event") == "stats") {
            stats = value;
        }
        if (line.isEmpty() || line.value("event") == "level")
            run.send(R"({"node":"station2","call":"getState"})");
    }
    QVERIFY(toneHeard);
    QVERIFY2(rosterSeen, QJsonDocument(lastState).toJson().constData());
    run.send(R"({"quit":true})");
    QVERIFY(run.process.waitForFinished(5000));
    QCOMPARE(run.process.exitCode(), 0);
    if (!withMedia)
        QSKIP(qPrintable("the NDI part needs test clips: " + why));
    QCOMPARE(infoV.value("codec"), QJsonValue("h264"));
    QCOMPARE(infoV.value("width"), QJsonValue(1280)); // the main stream
    QCOMPARE(infoA.value("codec"), QJsonValue("aac"));
    QVERIFY2(ndiDone(), QJsonDocument(stats).toJson().constData());
    QVERIFY(QFileInfo(dir.filePath("build-demo/received.h264")).size() > 0);
    QVERIFY(QFileInfo(dir.filePath("build-demo/received.aac")).size() > 0);
}

void TestDemo::stationExampleTalksToItsRelay()
{
    UdpStation relay; // stands in for the relay on the other machine
    const QString graph = exampleOnPort(QStringLiteral("station.json"), relay.port(), 1);
    QVERIFY(!graph.isEmpty());
    KestRun run;
    QVERIFY(run.start({graph}));
    bool audio = false, alive = false;
    QElapsedTimer clock;
    clock.start();
    while (!(audio && alive) && clock.elapsed() < 10000) {
        const auto got = relay.receive(1000);
        if (!got)
            continue;
        if (got->bytes.startsWith(QByteArray("\x03\x01\x00", 3)))
            audio = audio || got->bytes.size() == 3 + 960;
        else
            alive = alive || got->bytes == QByteArray("\x03\xff\x01Remote");
    }
    QVERIFY(audio);
    QVERIFY(alive);
    run.send(R"({"quit":true})");
    QVERIFY(run.process.waitForFinished(5000));
    QCOMPARE(run.process.exitCode(), 0);
}

QTEST_GUILESS_MAIN(TestDemo)
#include "tst_demo.moc"
