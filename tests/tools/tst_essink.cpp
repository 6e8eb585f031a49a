// EsSink alone, and at the end of the NDI round trip with real clips: EsSource -> KestNDISend ->
// NDI test runtime -> KestNDIRecv -> EsSink, checked by ffprobe decoding what was written.

#include "adts.h"
#include "annexb.h"
#include "essink.h"
#include "essource.h"
#include "intercom/udpstation.h"
#include "kestrunprocess.h"
#include "testmedia.h"
#include "testruntime.h"

#include "kesthi.h"
#include "ndi/kestndirecv.h"
#include "ndi/kestndisend.h"
#include "ndi/ndiruntime.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

namespace {

void advanceClock(double seconds)
{
    KestHi::setClockOffset(KestHi::clockOffset() + qint64(seconds * 1e6));
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void deliver(KestObject &to, const QByteArray &bytes, bool video)
{
    Packet pkt;
    pkt.data = const_cast<char *>(bytes.constData());
    pkt.len = bytes.size();
    pkt.frameType = video ? 0 : 3; // the receiver marks every video packet 0: the sink looks inside
    if (video)
        to.onNewPacketV(pkt);
    else
        to.onNewPacketA(pkt);
}

// What ffprobe makes of a written stream when it decodes every frame.
struct Decoded
{
    QString codec;
    int frames = -1;
    QString errors; // ffprobe's complaints; empty when the stream decoded cleanly
};

Decoded decode(const QString &path)
{
    QProcess probe;
    probe.start("ffprobe", {"-v", "error", "-count_frames", "-show_entries", "stream=codec_name,nb_read_frames", "-of",
                            "json", path});
    Decoded d;
    if (!probe.waitForFinished(120000) || probe.exitCode() != 0) {
        d.errors = "ffprobe failed: " + QString::fromLocal8Bit(probe.readAllStandardError());
        return d;
    }
    d.errors = QString::fromLocal8Bit(probe.readAllStandardError()).trimmed();
    const QJsonArray streams = QJsonDocument::fromJson(probe.readAllStandardOutput()).object().value("streams").toArray();
    const QJsonObject stream = streams.first().toObject();
    d.codec = stream.value("codec_name").toString();
    d.frames = stream.value("nb_read_frames").toString().toInt();
    return d;
}

QString clip(TestMedia::Kind kind)
{
    QString why;
    const QString path = TestMedia::get(kind, &why);
    if (path.isEmpty())
        qWarning("%s", qPrintable(why));
    return path;
}

} // namespace

class TestEsSink : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void writesAnnexB_data();
    void writesAnnexB();
    void writesAdts_data();
    void writesAdts();
    void roundTripThroughNdi();
    void demoGraphShowsReady();
};

void TestEsSink::initTestCase()
{
    useNdiTestRuntime();
    QVERIFY2(NdiRuntime::instance().isAvailable(), qPrintable(NdiRuntime::instance().problem()));
}

void TestEsSink::writesAnnexB_data()
{
    // Access units (hex) as they arrive; what the file holds afterwards ("" between units).
    QTest::addColumn<int>("codec");
    QTest::addColumn<QByteArray>("extradata");
    QTest::addColumn<QByteArrayList>("units");
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<int>("frames");

    const QByteArray sps264 = "0000000167641f0000000168ee";
    QTest::newRow("h264: waits for a key frame, adds the parameter sets it lacks")
        << int(KestCodec::H264) << sps264
        << QByteArrayList{"00000001419a01", "00000001658880", "00000001419a02", "0000000167641f0000000168ee00000001658881"}
        << sps264 + "00000001658880" "00000001419a02" "0000000167641f0000000168ee00000001658881" << 3;
    const QByteArray sps265 = "0000000140010c0000000142010100000001440101";
    QTest::newRow("h265: IRAP frames get the parameter sets")
        << int(KestCodec::H265) << sps265 << QByteArrayList{"000000012601af", "000000010201d0", "000000012601b0"}
        << sps265 + "000000012601af" "000000010201d0" + sps265 + "000000012601b0" << 3;
    QTest::newRow("no parameter sets known: key frames as they come")
        << int(KestCodec::H264) << QByteArray() << QByteArrayList{"00000001658880"} << QByteArray("00000001658880") << 1;
    QTest::newRow("another codec is not written") << int(KestCodec::MPEG4) << QByteArray()
                                                  << QByteArrayList{"000001b6aa"} << QByteArray() << 0;
}

void TestEsSink::writesAnnexB()
{
    QFETCH(int, codec);
    QFETCH(QByteArray, extradata);
    QFETCH(QByteArrayList, units);
    QFETCH(QByteArray, file);
    QFETCH(int, frames);
    QTemporaryDir dir;
    EsSink sink;
    sink.setData({{"video_file", dir.filePath("out.es")}});
    QSignalSpy events(&sink, &KestObject::eventSent);
    sink.start();
    sink.onNewInfoV({codec, {{"extradata", QByteArray::fromHex(extradata)}}, nullptr});
    for (const QByteArray &unit : units)
        deliver(sink, QByteArray::fromHex(unit), true);
    QCOMPARE(readAll(dir.filePath("out.es")).toHex(), QByteArray::fromHex(file).toHex()); // unbuffered: there already
    sink.onTimerStats();
    QCOMPARE(events.last()[0].toString(), QStringLiteral("stats"));
    QCOMPARE(events.last()[1].toMap(), (QVariantMap{{"video", qint64(frames)}, {"audio", qint64(0)}}));

    // A new description waits for a key frame again.
    sink.onNewInfoV({codec, {{"extradata", QByteArray::fromHex(extradata)}}, nullptr});
    deliver(sink, QByteArray::fromHex("00000001419a03"), true);
    QCOMPARE(readAll(dir.filePath("out.es")).size(), file.size() / 2);
    sink.stop();
}

void TestEsSink::writesAdts_data()
{
    QTest::addColumn<QVariantMap>("params");
    QTest::addColumn<int>("sampleRate"); // as the written file says; 0: nothing written
    QTest::addColumn<int>("channels");
    QTest::newRow("from the AudioSpecificConfig")
        << QVariantMap{{"extradata", QByteArray("\x12\x08", 2)}, {"samplerate", 48000}, {"channels", 2}} << 44100 << 1;
    QTest::newRow("from rate and channels without one") << QVariantMap{{"samplerate", 32000}, {"channels", 2}} << 32000 << 2;
    QTest::newRow("neither") << QVariantMap{{"samplerate", 12345}, {"channels", 2}} << 0 << 0;
}

void TestEsSink::writesAdts()
{
    QFETCH(QVariantMap, params);
    QFETCH(int, sampleRate);
    QFETCH(int, channels);
    QTemporaryDir dir;
    EsSink sink;
    sink.setName("sink");
    sink.setData({{"audio_file", dir.filePath("out.aac")}});
    QSignalSpy events(&sink, &KestObject::eventSent);
    sink.start();
    sink.onNewInfoA({KestCodec::AAC, params, nullptr});
    deliver(sink, "first", false);
    deliver(sink, "second frame", false);
    const Adts::Stream written = Adts::parse(readAll(dir.filePath("out.aac")));
    sink.onTimerStats();
    sink.stop();
    QCOMPARE(written.sampleRate, sampleRate);
    QCOMPARE(written.channels, channels);
    if (!sampleRate) {
        QCOMPARE(events.last()[1].toMap().value("audio"), QVariant(qint64(0)));
        return;
    }
    QCOMPARE(written.frames.size(), 2);
    QCOMPARE(written.frames[1].size, 12);
    QCOMPARE(events.last()[1].toMap().value("audio"), QVariant(qint64(2)));
}

void TestEsSink::roundTripThroughNdi()
{
    const QString videoClip = clip(TestMedia::H264), audioClip = clip(TestMedia::Aac);
    if (videoClip.isEmpty() || audioClip.isEmpty())
        QSKIP("no test clip: ffmpeg or its encoder is missing (see the warning above)");
    QString why;
    const int videoFrames = TestMedia::probe(videoClip, &why).size();
    const int audioFrames = TestMedia::probe(audioClip, &why).size();
    QVERIFY2(videoFrames > 0 && audioFrames > 0, qPrintable(why));
    QTemporaryDir dir;

    advanceClock(2); // no waiting for an earlier sender
    KestNDISend sender;
    sender.setName("ndi-out");
    sender.setData({{"name", "round trip"}, {"config", "/nonexistent"}});
    EsSource camera, microphone;
    camera.setData({{"file", videoClip}, {"loop", false}, {"width", TestMedia::kWidth}, {"height", TestMedia::kHeight},
                    {"framerate", TestMedia::kFrameRate}});
    microphone.setData({{"file", audioClip}, {"loop", false}});
    camera.link(&sender, KestObject::Video);
    microphone.link(&sender, KestObject::Audio);

    KestNDIRecv receiver;
    receiver.setName("ndi-in");
    receiver.setData({{"name", QString::fromUtf8(ndiSourceName("round trip"))}, {"config", "/nonexistent"}});
    EsSink sink;
    sink.setData({{"video_file", dir.filePath("received.h264")}, {"audio_file", dir.filePath("received.aac")}});
    receiver.link(&sink, KestObject::Both);
    QSignalSpy ready(&receiver, &KestObject::eventSent);
    QSignalSpy sinkEvents(&sink, &KestObject::eventSent);
    sink.start();
    receiver.start();
    receiver.onTimer(); // the 2 s tick that connects, without the wait
    QCOMPARE(kesttest_receiver_count(), 1);
    const NDIlib_recv_instance_t handle = kesttest_receiver_at(0);

    QSignalSpy cameraEnd(&camera, &KestObject::eventSent), microphoneEnd(&microphone, &KestObject::eventSent);
    camera.start();
    microphone.start();
    advanceClock(10); // every frame is due at once
    QTRY_VERIFY(cameraEnd.count() == 1 && microphoneEnd.count() == 1);
    kesttest_receiver_info_t info{};
    QTRY_VERIFY(kesttest_receiver_info(handle, &info) && info.queued_frames == 0); // the 10 ms capture timer
    sink.onTimerStats();
    sink.stop();
    receiver.setData({{"name", ""}});
    sender.stop();

    QCOMPARE(sinkEvents.last()[1].toMap(), (QVariantMap{{"video", qint64(videoFrames)}, {"audio", qint64(audioFrames)}}));
    const Decoded video = decode(dir.filePath("received.h264"));
    QVERIFY2(video.errors.isEmpty(), qPrintable(video.errors));
    QCOMPARE(video.codec, QStringLiteral("h264"));
    QCOMPARE(video.frames, videoFrames);
    const Decoded audio = decode(dir.filePath("received.aac"));
    QVERIFY2(audio.errors.isEmpty(), qPrintable(audio.errors));
    QCOMPARE(audio.codec, QStringLiteral("aac"));
    QCOMPARE(audio.frames, audioFrames);

    // One "ready" per stream; the second shows both, with the source's own parameter sets.
    QCOMPARE(ready.count(), 2);
    const QVariantMap both = ready.last()[1].toMap();
    const QVariantMap infoV = both["infoV"].toMap(), infoA = both["infoA"].toMap();
    QCOMPARE(infoV["codec"], QVariant("h264"));
    QCOMPARE(infoV["width"], QVariant(TestMedia::kWidth));
    QCOMPARE(infoV["height"], QVariant(TestMedia::kHeight));
    QCOMPARE(infoV["framerate"], QVariant(TestMedia::kFrameRate));
    const QByteArray parameterSets = AnnexB::split(readAll(videoClip), AnnexB::Codec::H264).parameterSets;
    QVERIFY(!parameterSets.isEmpty());
    QCOMPARE(infoV["extradata"].toByteArray().toHex(), parameterSets.toHex());
    QCOMPARE(infoA["codec"], QVariant("aac"));
    QCOMPARE(infoA["samplerate"], QVariant(48000));
    QCOMPARE(infoA["channels"], QVariant(2));
    QCOMPARE(infoA["extradata"].toByteArray().toHex(), QByteArray("1190"));
}

void TestEsSink::demoGraphShowsReady()
{
    const QString video = clip(TestMedia::H264), audio = clip(TestMedia::Aac);
    if (video.isEmpty() || audio.isEmpty())
        QSKIP("no test clip: ffmpeg or its encoder is missing");
    // The demo graph as scripts/demo runs it: from a folder holding build-demo/media, with the
    // intercom moved off port 7000.
    QTemporaryDir dir;
    QVERIFY(QDir(dir.path()).mkpath("build-demo/media"));
    QVERIFY(QFile::copy(video, dir.filePath("build-demo/media/main.h264")));
    QVERIFY(QFile::copy(video, dir.filePath("build-demo/media/sub.h264")));
    QVERIFY(QFile::copy(audio, dir.filePath("build-demo/media/audio.aac")));
    QByteArray graph = readAll(KEST_SOURCE_DIR "/examples/demo.json");
    QVERIFY(graph.contains("\"port\": 7000"));
    graph.replace("\"port\": 7000", "\"port\": " + QByteArray::number(freeUdpPort()));
    QFile out(dir.filePath("demo.json"));
    QVERIFY(out.open(QIODevice::WriteOnly));
    out.write(graph);
    out.close();

    KestRun run;
    run.process.setWorkingDirectory(dir.path());
    QVERIFY(run.start({"demo.json"}));
    // Without anyone's help the receiver finds the demo's own source on its first tick.
    QJsonObject infoV, infoA, stats;
    QElapsedTimer clock;
    clock.start();
    const auto done = [&] {
        return infoV.value("codec") == "h264" && infoA.value("codec") == "aac" && stats.value("video").toInt() > 0
            && stats.value("audio").toInt() > 0;
    };
    while (!done() && clock.elapsed() < 20000) {
        const QJsonObject line = run.nextObject(1000);
        const QJsonObject value = line.value("value").toObject();
        if (line.value("node") == "ndi-in" && line.value("event") == "ready") {
            infoV = value.value("infoV").toObject();
            infoA = value.value("infoA").toObject();
        } else if (line.value("node") == "decoder" && line.value("event") == "stats") {
            stats = value;
        }
    }
    QCOMPARE(infoV.value("codec"), QJsonValue("h264"));
    QCOMPARE(infoV.value("width"), QJsonValue(1280)); // the main stream
    QCOMPARE(infoA.value("codec"), QJsonValue("aac"));
    QVERIFY2(done(), qPrintable(QJsonDocument(stats).toJson()));
    run.send(R"({"quit":true})");
    QVERIFY(run.process.waitForFinished(10000));
    QCOMPARE(run.process.exitCode(), 0);
    const QString log = QString::fromUtf8(run.process.readAllStandardError());
    QVERIFY2(log.contains("[ndi-in] connect to \"" + QString::fromUtf8(ndiSourceName("Kest demo")) + '"'), qPrintable(log));
    QVERIFY(QFileInfo(dir.filePath("build-demo/received.h264")).size() > 0);
    QVERIFY(QFileInfo(dir.filePath("build-demo/received.aac")).size() > 0);
}

QTEST_GUILESS_MAIN(TestEsSink)
#include "tst_essink.moc"
