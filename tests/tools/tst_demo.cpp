// Graphs run by kest-run as a user runs them, on clips made by ffmpeg and the NDI test runtime:
// the demo (on a free port, as scripts/demo runs it), and every media host node of kest-run,
// whose output must be its input byte for byte.

#include "kestrunprocess.h"
#include "testmedia.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QTemporaryDir>
#include <QTest>
#include <QUdpSocket>

#include <functional>

class TestDemo : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void demoPlaysToneAndReceivesItsNdiSource();
    void mediaPassesThroughUnchanged();

private:
    // kest-run on `graph` in the scratch folder, its output read into `latest` (the last value
    // of every "node.event" and result of every "node.call") until `done` or 30 s. Ends the run
    // with {"quit":true}.
    void run(const QByteArray &graph, const QList<QByteArray> &input, const std::function<bool()> &done);
    QByteArray file(const QString &name) const { return TestMedia::readFile(dir.filePath(name)); }
    bool write(const QString &name, const QByteArray &bytes)
    {
        QFile out(dir.filePath(name));
        return out.open(QIODevice::WriteOnly) && out.write(bytes) == bytes.size();
    }

    QTemporaryDir dir;
    QString clips[3]; // by TestMedia::Kind
    QHash<QString, QJsonValue> latest;
    QByteArray errors; // kest-run's stderr
};

void TestDemo::initTestCase()
{
    QString why;
    for (TestMedia::Kind kind : {TestMedia::H264, TestMedia::H265, TestMedia::Aac})
        if ((clips[kind] = TestMedia::get(kind, &why)).isEmpty())
            QSKIP(qPrintable("no test clips: " + why));
}

void TestDemo::run(const QByteArray &graph, const QList<QByteArray> &input, const std::function<bool()> &done)
{
    QVERIFY(write("graph.json", graph));
    KestRun kestRun;
    kestRun.process.setWorkingDirectory(dir.path());
    QVERIFY(kestRun.start({dir.filePath("graph.json")}));
    for (const QByteArray &line : input)
        kestRun.send(line);
    latest.clear();
    QElapsedTimer clock;
    clock.start();
    while (!done() && clock.elapsed() < 30000) {
        const QJsonObject line = kestRun.nextObject(1000);
        const QString key = line.value("node").toString() + '.' + line.value("event").toString() + line.value("call").toString();
        latest[key] = line.value(line.contains("call") ? "result" : "value");
    }
    kestRun.send(R"({"quit":true})");
    QVERIFY(kestRun.process.waitForFinished(10000));
    QCOMPARE(kestRun.process.exitCode(), 0);
    errors = kestRun.process.readAllStandardError();
    QVERIFY2(done(), qPrintable(QStringList(latest.keys()).join(' ') + '\n' + errors));
}

void TestDemo::demoPlaysToneAndReceivesItsNdiSource()
{
    QFile example(QStringLiteral(KEST_SOURCE_DIR "/examples/demo.json"));
    QVERIFY(example.open(QIODevice::ReadOnly));
    QByteArray graph = example.readAll();
    QCOMPARE(graph.count("\"port\": 7000"), 3);
    QUdpSocket probe; // for a free port
    QVERIFY(probe.bind(QHostAddress(QHostAddress::LocalHost)));
    graph.replace("\"port\": 7000", "\"port\": " + QByteArray::number(probe.localPort()));
    probe.close();
    // The clips where scripts/demo puts them, relative to the folder kest-run runs in.
    QVERIFY(QDir(dir.path()).mkpath("build-demo/media"));
    for (const char *name : {"main.h264", "sub.h264", "audio.aac"})
        QVERIFY(QFile::copy(clips[name[0] == 'a' ? TestMedia::Aac : TestMedia::H264], dir.filePath("build-demo/media/") + name));

    // The tone of station 1 reaches station 2's speaker once the relay knows station 2 (its
    // first alive, after 3 s). Meanwhile the NDI receiver finds the demo's own source by itself
    // and hands both streams to the decoder.
    run(graph, {}, [&] {
        const QJsonValue level = latest.value("speaker2.level"), stats = latest.value("decoder.stats");
        return level["peak"] == 16422 && level["packets"].toInt() >= 50 && stats["video"].toInt() > 0 && stats["audio"].toInt() > 0;
    });
}

void TestDemo::mediaPassesThroughUnchanged()
{
    // PCM from a tone and from files played round with gain; H.264, H.265 and AAC from their
    // clips through NDI (EsSource -> KestNDISend -> test runtime -> KestNDIRecv -> EsSink), the
    // receivers connected before the sources start; nodes that refuse their settings with the
    // log line in their "log"; and the plug-in's classes the demo lacks, created by name.
    QByteArray noConfig = TestMedia::readFile(clips[TestMedia::Aac]);
    noConfig[2] = char(noConfig[2] & ~1); // channel configuration 0: given by a program config element
    noConfig[3] = char(noConfig[3] & 0x3f);
    QVERIFY(write("in16.raw", QByteArray::fromHex("e803 18fc 0000 3075 0200 0400")) && write("in8.raw", QByteArray::fromHex("e41c 8080 817f"))
            && write("empty.raw", {}) && write("noconfig.aac", noConfig));
    QByteArray graph = R"g({"nodes":[
        {"name":"out16","class":"PcmSink","data":{"file":"out16.raw"}},
        {"name":"in16","class":"PcmSource","data":{"file":"in16.raw","frame_size":4}},
        {"name":"out8","class":"PcmSink","data":{"file":"out8.raw"}},
        {"name":"in8","class":"PcmSource","data":{"file":"in8.raw","bitwidth":8,"frame_size":4}},
        {"name":"h264","class":"EsSource","data":{"file":"CLIP0","loop":false},"start":false},
        {"name":"h265","class":"EsSource","data":{"file":"CLIP1","loop":false},"start":false},
        {"name":"aac","class":"EsSource","data":{"file":"CLIP2","loop":false},"start":false},
        {"name":"tx264","class":"KestNDISend","data":{"name":"h264"}},
        {"name":"tx265","class":"KestNDISend","data":{"name":"h265"}},
        {"name":"rx264","class":"KestNDIRecv","data":{"name":"%MACHINE% (h264)"}},
        {"name":"rx265","class":"KestNDIRecv","data":{"name":"%MACHINE% (h265)"}},
        {"name":"out264","class":"EsSink","data":{"video_file":"out.h264","audio_file":"out264.aac"}},
        {"name":"out265","class":"EsSink","data":{"video_file":"out.h265","audio_file":"out265.aac"}},
        {"name":"noConfig","class":"EsSource","data":{"file":"noconfig.aac"}},
        {"name":"s1","class":"EsSink","data":{"log":"the AAC description gives no usable configuration; audio is not written"}},
        {"name":"p1","class":"PcmSource","data":{"bitwidth":12,"log":"\"bitwidth\" must be 8 or 16 - no audio"}},
        {"name":"p4","class":"PcmSource","data":{"file":"empty.raw","log":"empty.raw is empty - no audio"}},
        {"name":"p5","class":"PcmSource","data":{"file":"/no/a.raw","log":"cannot read /no/a.raw: No such file or directory - no audio"}},
        {"name":"e1","class":"EsSource","data":{"file":"/no/a.h264","log":"cannot read /no/a.h264 : No such file or directory"}},
        {"name":"e2","class":"EsSource","data":{"file":"a.bin","log":"cannot tell the codec of a.bin - set \"codec\" to 4, 5 or 10"}},
        {"name":"e3","class":"EsSource","data":{"file":"in8.raw","codec":4,"log":"in8.raw holds no access units"}},
        {"name":"e4","class":"EsSource","data":{"file":"in8.raw","codec":"aac","log":"in8.raw holds no ADTS AAC frames"}},
        {"name":"t1","class":"KestTally","start":false},{"name":"t2","class":"KestTallyArbiter","start":false},{"name":"t3","class":"KestVMix","start":false}],
    "links":[{"from":"in16","to":"out16"},{"from":"in8","to":"out8"},{"from":"noConfig","to":"s1"},
        {"from":"h264","to":"tx264"},{"from":"h265","to":"tx265"},{"from":"aac","to":"tx264"},{"from":"aac","to":"tx265"},
        {"from":"rx264","to":"out264"},{"from":"rx265","to":"out265"}]})g";
    for (int kind : {0, 1, 2})
        graph.replace("CLIP" + QByteArray::number(kind), clips[kind].toUtf8());
    const auto ended = [this](const QString &video) {
        return latest.value("out" + video + ".stats") == QJsonObject{{"video", latest.value('h' + video + ".end").toInt(-1)},
                                                                     {"audio", latest.value("aac.end").toInt(-1)}};
    };
    // The receivers' first tick of the finder, without its wait; then the sources.
    run(graph, {R"({"node":"rx264","call":"onTimer"})", R"({"node":"rx265","call":"onTimer"})", R"({"node":"h264","start":true})",
                R"({"node":"h265","start":true})", R"({"node":"aac","start":true})"},
        [&] { return ended("264") && ended("265"); });
    if (QTest::currentTestFailed())
        return;
    for (const QJsonValue &node : QJsonDocument::fromJson(graph).object()["nodes"].toArray())
        if (node["data"]["log"].isString())
            QVERIFY2(errors.contains(QStringLiteral("[%1] %2\n").arg(node["name"].toString(), node["data"]["log"].toString()).toUtf8()), errors.constData());
    for (const auto &[out, in] : QList<QPair<QString, int>>{{"out.h264", 0}, {"out.h265", 1}, {"out264.aac", 2}, {"out265.aac", 2}})
        QVERIFY2(file(out) == TestMedia::readFile(clips[in]), qPrintable(out));
    // The receivers announce the parameter sets that open each clip: SPS and PPS; VPS, SPS and PPS.
    for (int kind : {0, 1}) {
        const QByteArray sets = QByteArray::fromHex(latest.value(kind ? "rx265.ready" : "rx264.ready")["infoV"]["extradata"].toString().toLatin1());
        QCOMPARE(sets.count(QByteArray("\0\0\0\1", 4)), 2 + kind);
        QVERIFY(TestMedia::readFile(clips[kind]).startsWith(sets));
    }
    // The files at -6 dB, played round: (1000, -1000, 0, 30000, 2, 4) and (e4 1c 80 80 81 7f) in frames of 4.
    QCOMPARE(file("out16.raw").left(16).toHex(), QByteArray("f5010bfe0000bc3a01000200f5010bfe"));
    QCOMPARE(file("out8.raw").left(8).toHex(), QByteArray("b24e8080817fb24e"));
}

QTEST_GUILESS_MAIN(TestDemo)
#include "tst_demo.moc"
