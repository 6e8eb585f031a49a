// EsSource playing real clips made by ffmpeg, alone and into KestNDISend and the NDI test
// runtime. ffprobe's own cut of each clip is the reference.

#include "essource.h"
#include "intercom/udpstation.h"
#include "kestrunprocess.h"
#include "testmedia.h"
#include "testruntime.h"

#include "kesthi.h"
#include "ndi/kestndisend.h"
#include "ndi/ndiruntime.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <memory>

namespace {

QStringList logLines;

void collectLog(QtMsgType, const QMessageLogContext &, const QString &message)
{
    logLines << message;
}

// Keeps what reaches it.
class Recorder : public KestObject
{
public:
    struct Item
    {
        QByteArray bytes;
        Packet packet;
    };
    void onNewPacketV(Packet pkt) override { items.append({QByteArray(pkt.data, pkt.len), pkt}); }
    void onNewPacketA(Packet pkt) override { items.append({QByteArray(pkt.data, pkt.len), pkt}); }
    void onNewInfoV(StreamInfo info) override { infos.append(info); }
    void onNewInfoA(StreamInfo info) override { infos.append(info); }
    QVector<Item> items;
    QVector<StreamInfo> infos;
};

void advanceClock(double seconds)
{
    KestHi::setClockOffset(KestHi::clockOffset() + qint64(seconds * 1e6));
}

// What a packet of the clip must hold: the ffprobe packet, less the ADTS header for audio.
QByteArray expectedPayload(const QByteArray &file, const TestMedia::ProbePacket &p, bool audio)
{
    QByteArray bytes = file.mid(int(p.pos), p.size);
    if (audio)
        bytes = bytes.mid((bytes[1] & 0x01) ? 7 : 9); // without or with CRC
    return bytes;
}

// Which access unit owns the zero byte between two of them is a matter of taste: the byte
// stream syntax (and EsSource) give it to the later one, ffmpeg's HEVC parser to the earlier.
QByteArray withoutOuterZeros(QByteArray bytes)
{
    while (bytes.startsWith('\0'))
        bytes.remove(0, 1);
    while (bytes.endsWith('\0'))
        bytes.chop(1);
    return bytes;
}

} // namespace

class TestEsSource : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void playsClipThroughSender_data();
    void playsClipThroughSender();
    void loopsOrEnds_data();
    void loopsOrEnds();
    void idrSkipsAheadToNextKeyFrame();
    void senderAsksForKeyFrameWhenReceiverJoins();
    void unusableFiles_data();
    void unusableFiles();
    void demoGraphPublishesNdiSource();

private:
    QString clip(TestMedia::Kind kind);
};

void TestEsSource::initTestCase()
{
    useNdiTestRuntime();
    QVERIFY2(NdiRuntime::instance().isAvailable(), qPrintable(NdiRuntime::instance().problem()));
    qInstallMessageHandler(collectLog);
}

void TestEsSource::init()
{
    logLines.clear();
    kesttest_set_sent_frame_limit(-1);
    advanceClock(2); // no sender creation waits for an earlier one
}

QString TestEsSource::clip(TestMedia::Kind kind)
{
    QString why;
    const QString path = TestMedia::get(kind, &why);
    if (path.isEmpty())
        qWarning("%s", qPrintable(why));
    return path;
}

void TestEsSource::playsClipThroughSender_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("codec");
    QTest::addColumn<uint32_t>("fourcc");
    QTest::newRow("h264 main stream") << int(TestMedia::H264) << int(KestCodec::H264)
                                      << uint32_t(NDIlib_FourCC_video_type_ex_H264_highest_bandwidth);
    QTest::newRow("h265 main stream") << int(TestMedia::H265) << int(KestCodec::H265)
                                      << uint32_t(NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth);
    QTest::newRow("aac") << int(TestMedia::Aac) << int(KestCodec::AAC) << uint32_t(NDIlib_FourCC_audio_type_ex_AAC);
}

void TestEsSource::playsClipThroughSender()
{
    QFETCH(int, kind);
    QFETCH(int, codec);
    QFETCH(uint32_t, fourcc);
    const QString path = clip(TestMedia::Kind(kind));
    if (path.isEmpty())
        QSKIP("no test clip: ffmpeg or its encoder is missing (see the warning above)");
    QString why;
    const QVector<TestMedia::ProbePacket> reference = TestMedia::probe(path, &why);
    QVERIFY2(!reference.isEmpty(), qPrintable(why));
    QFile in(path);
    QVERIFY(in.open(QIODevice::ReadOnly));
    const QByteArray file = in.readAll();
    const bool audio = codec == KestCodec::AAC;

    KestNDISend sender;
    sender.setName("ndi");
    sender.setData({{"name", "clip"}, {"config", "/nonexistent"}});
    EsSource source;
    source.setName("source");
    source.setData({{"file", path}, {"loop", false}, {"width", TestMedia::kWidth}, {"height", TestMedia::kHeight},
                    {"framerate", TestMedia::kFrameRate}});
    source.link(&sender, audio ? KestObject::Audio : KestObject::Video);
    TestReceiver receiver(ndiSourceName("clip"));
    QSignalSpy events(&source, &KestObject::eventSent);
    source.start();
    advanceClock(10); // everything is due at once
    QTRY_COMPARE(events.count(), 1);
    QCOMPARE(events[0][0].toString(), QStringLiteral("end"));
    QCOMPARE(events[0][1].toInt(), reference.size());

    const QVector<SentFrame> frames = sentFrames(newestSender());
    QCOMPARE(frames.size(), reference.size());
    const double periodUs = audio ? 1e6 * 1024 / 48000 : 1e6 / TestMedia::kFrameRate;
    QByteArray parameterSets;
    qint64 payloadBytes = 0;
    for (int i = 0; i < frames.size(); ++i) {
        const SentFrame &f = frames[i];
        QVERIFY2(f.raw.accepted, f.raw.p_drop_reason);
        QCOMPARE(audio ? uint32_t(f.raw.audio.FourCC) : uint32_t(f.raw.video.FourCC), fourcc);
        // The exact bytes of every access unit or AAC frame, in order, and nothing lost.
        if (audio)
            QCOMPARE(f.payload, expectedPayload(file, reference[i], audio));
        else
            QCOMPARE(withoutOuterZeros(f.payload), withoutOuterZeros(expectedPayload(file, reference[i], audio)));
        payloadBytes += f.payload.size();
        // Times one period apart on the host clock; video goes out 10 ms ahead, audio does not.
        QCOMPARE(qint64(f.header.pts - frames[0].header.pts), std::llround(i * periodUs) * 10);
        if (audio) {
            QCOMPARE(f.header.flags, 1u);
            QCOMPARE(f.extra.toHex(), QByteArray("1190")); // AAC-LC, 48 kHz, stereo
            continue;
        }
        QCOMPARE(bool(f.header.flags & 1), reference[i].key);
        QCOMPARE(f.raw.video.xres, TestMedia::kWidth);
        if (!reference[i].key) {
            QVERIFY(f.extra.isEmpty());
            continue;
        }
        // Key frames carry the clip's parameter sets: the same on every key frame, each one
        // found verbatim in the first access unit the encoder wrote.
        if (parameterSets.isEmpty())
            parameterSets = f.extra;
        QCOMPARE(f.extra, parameterSets);
    }
    sender.stop();
    if (!audio)
        QCOMPARE(payloadBytes, qint64(file.size())); // the units cover the whole file

    // A receiver got those frames unchanged.
    const auto received = receiver.drain(audio ? NDIlib_frame_type_audio : NDIlib_frame_type_video);
    QCOMPARE(received.size(), frames.size());
    for (int i = 0; i < frames.size(); ++i)
        QCOMPARE(received[i].bytes, frames[i].bytes);
    if (audio)
        return;

    const QByteArray startCode("\0\0\0\1", 4);
    QVERIFY(parameterSets.startsWith(startCode));
    QStringList types;
    for (int at = 0; at >= 0;) {
        const int next = parameterSets.indexOf(startCode, at + 4);
        const QByteArray nal = parameterSets.mid(at + 4, next < 0 ? -1 : next - at - 4);
        QVERIFY(expectedPayload(file, reference[0], false).contains(nal));
        const int type = codec == KestCodec::H264 ? (nal[0] & 0x1f) : ((nal[0] >> 1) & 0x3f);
        types << QString::number(type);
        at = next;
    }
    const QStringList expectedTypes = codec == KestCodec::H264 ? QStringList{"7", "8"} : QStringList{"32", "33", "34"};
    QCOMPARE(types, expectedTypes);
}


void TestEsSource::loopsOrEnds_data()
{
    QTest::addColumn<bool>("loop");
    QTest::newRow("loop") << true;
    QTest::newRow("play once") << false;
}

void TestEsSource::loopsOrEnds()
{
    QFETCH(bool, loop);
    const QString path = clip(TestMedia::H264);
    if (path.isEmpty())
        QSKIP("no test clip: ffmpeg or libx264 is missing");
    QString why;
    const int units = TestMedia::probe(path, &why).size();
    QVERIFY2(units > 0, qPrintable(why));
    EsSource source;
    Recorder recorder;
    source.setData({{"file", path}, {"loop", loop}, {"framerate", 100}});
    source.link(&recorder, KestObject::Video);
    QSignalSpy events(&source, &KestObject::eventSent);
    source.start();
    QCOMPARE(recorder.infos.size(), 1);
    QCOMPARE(recorder.infos[0].codec, int(KestCodec::H264));
    QCOMPARE(recorder.infos[0].params.value("framerate").toInt(), 100);
    QCOMPARE(recorder.infos[0].source, static_cast<QObject *>(&source));
    advanceClock((units + 5) / 100.0);
    QTRY_VERIFY(recorder.items.size() >= units + 5 || events.count() == 1);
    if (loop) {
        QCOMPARE(events.count(), 0);
        QCOMPARE(recorder.items[units].bytes, recorder.items[0].bytes); // from the start again
        QCOMPARE(recorder.items[units].packet.pts - recorder.items[units - 1].packet.pts, qint64(10000));
    } else {
        QTRY_COMPARE(events.count(), 1);
        QCOMPARE(recorder.items.size(), units);
    }
    for (const Recorder::Item &item : recorder.items)
        QCOMPARE(item.packet.source, static_cast<QObject *>(&source));
    source.stop();
}

void TestEsSource::idrSkipsAheadToNextKeyFrame()
{
    const QString path = clip(TestMedia::H264);
    if (path.isEmpty())
        QSKIP("no test clip: ffmpeg or libx264 is missing");
    QString why;
    const QVector<TestMedia::ProbePacket> reference = TestMedia::probe(path, &why);
    QVERIFY2(reference.size() > TestMedia::kKeyInterval, qPrintable(why));
    QFile in(path);
    QVERIFY(in.open(QIODevice::ReadOnly));
    const QByteArray file = in.readAll();

    EsSource source;
    Recorder recorder;
    source.setData({{"file", path}, {"framerate", 1}}); // one frame a second: the test moves the clock
    source.link(&recorder, KestObject::Video);
    source.start();
    advanceClock(2.5);
    QTRY_COMPARE(recorder.items.size(), 3);
    QCOMPARE(source.idr(), QVariant(1));
    QCOMPARE(source.idrCount(), QVariant(1));
    advanceClock(1);
    QTRY_COMPARE(recorder.items.size(), 4);
    QCOMPARE(recorder.items[3].bytes, expectedPayload(file, reference[TestMedia::kKeyInterval], false));
    QCOMPARE(recorder.items[3].packet.frameType, 0);
    QCOMPARE(recorder.items[3].packet.pts - recorder.items[2].packet.pts, qint64(1000000)); // time goes on evenly
    advanceClock(1);
    QTRY_COMPARE(recorder.items.size(), 5);
    QCOMPARE(recorder.items[4].bytes, expectedPayload(file, reference[TestMedia::kKeyInterval + 1], false));
    QCOMPARE(recorder.items[4].packet.frameType, 1);
    source.stop();
}

void TestEsSource::senderAsksForKeyFrameWhenReceiverJoins()
{
    const QString path = clip(TestMedia::H264);
    if (path.isEmpty())
        QSKIP("no test clip: ffmpeg or libx264 is missing");
    QString why;
    const QVector<TestMedia::ProbePacket> reference = TestMedia::probe(path, &why);
    QVERIFY2(reference.size() > TestMedia::kKeyInterval, qPrintable(why));
    QFile in(path);
    QVERIFY(in.open(QIODevice::ReadOnly));
    const QByteArray file = in.readAll();

    KestNDISend sender;
    sender.setName("ndi");
    sender.setData({{"name", "joined"}, {"config", "/nonexistent"}});
    EsSource source;
    source.setData({{"file", path}, {"framerate", 1}, {"width", 1280}});
    source.link(&sender, KestObject::Video);
    source.start();
    advanceClock(2.5);
    const NDIlib_send_instance_t handle = newestSender();
    QTRY_COMPARE(kesttest_sent_frame_count(handle), 3);
    TestReceiver receiver(ndiSourceName("joined"));
    advanceClock(1);
    QTRY_COMPARE(kesttest_sent_frame_count(handle), 4);
    QCOMPARE(source.idrCount(), QVariant(1));
    QCOMPARE(logLines.count("[ndi] need IDR main"), 1);
    advanceClock(1);
    QTRY_COMPARE(kesttest_sent_frame_count(handle), 5);
    const QVector<SentFrame> frames = sentFrames(handle);
    QStringList flags;
    for (const SentFrame &f : frames)
        flags << QString::number(f.header.flags);
    QCOMPARE(flags, (QStringList{"1", "0", "0", "0", "1"}));
    QCOMPARE(frames[4].payload, expectedPayload(file, reference[TestMedia::kKeyInterval], false));
    QVERIFY(!senderInfo(handle).keyframe_required_high);
    QCOMPARE(receiver.drain(NDIlib_frame_type_video).size(), 2);
    source.stop();
    sender.stop();
}

void TestEsSource::unusableFiles_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QVariant>("codec");
    QTest::addColumn<QString>("message");
    QTest::newRow("missing file") << "/nonexistent/clip.h264" << QVariant() << "[es] cannot read /nonexistent/clip.h264 :";
    QTest::newRow("unknown codec") << "/nonexistent/clip.bin" << QVariant() << "[es] cannot tell the codec of";
    QTest::newRow("not a stream of that codec") << QString(KEST_SOURCE_DIR "/README.md") << QVariant(4)
                                                << "[es] " KEST_SOURCE_DIR "/README.md holds no access units";
    QTest::newRow("not ADTS") << QString(KEST_SOURCE_DIR "/README.md") << QVariant("aac")
                              << "[es] " KEST_SOURCE_DIR "/README.md holds no ADTS AAC frames";
}

void TestEsSource::unusableFiles()
{
    QFETCH(QString, file);
    QFETCH(QVariant, codec);
    QFETCH(QString, message);
    EsSource source;
    source.setName("es");
    Recorder recorder;
    QVariantMap settings{{"file", file}};
    if (codec.isValid())
        settings["codec"] = codec;
    source.setData(settings);
    source.link(&recorder, KestObject::Both);
    source.start();
    advanceClock(5);
    QTest::qWait(30);
    QCOMPARE(logLines.size(), 1);
    QVERIFY2(logLines[0].startsWith(message), qPrintable(logLines[0]));
    QVERIFY(recorder.items.isEmpty() && recorder.infos.isEmpty());
    source.stop();
}

void TestEsSource::demoGraphPublishesNdiSource()
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
    QFile demo(KEST_SOURCE_DIR "/examples/demo.json");
    QVERIFY(demo.open(QIODevice::ReadOnly));
    QByteArray graph = demo.readAll();
    graph.replace("\"port\": 7000", "\"port\": " + QByteArray::number(freeUdpPort()));
    QFile out(dir.filePath("demo.json"));
    QVERIFY(out.open(QIODevice::WriteOnly));
    out.write(graph);
    out.close();

    KestRun run;
    run.process.setWorkingDirectory(dir.path());
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("NDI_RUNTIME_DIR_V5", qEnvironmentVariable("NDI_RUNTIME_DIR_V5"));
    run.process.setProcessEnvironment(env);
    QVERIFY(run.start({"demo.json"}));
    run.send(R"({"node":"camera-main","call":"idrCount"})");
    run.send(R"({"node":"ndi-out","call":"getTally"})");
    QVariantMap results;
    QElapsedTimer clock;
    clock.start();
    while (results.size() < 2 && clock.elapsed() < 10000) {
        const QJsonObject line = run.nextObject(1000);
        if (line.contains("call"))
            results[line.value("call").toString()] = line.value("result").toVariant();
    }
    QCOMPARE(results.value("idrCount"), QVariant(0));
    QCOMPARE(results.value("getTally").toMap(), (QVariantMap{{"program", false}, {"preview", false}}));
    run.send(R"({"quit":true})");
    QVERIFY(run.process.waitForFinished(10000));
    QCOMPARE(run.process.exitCode(), 0);
    // The sender came up, and none of the encoders had anything to complain about.
    const QStringList log = QString::fromUtf8(run.process.readAllStandardError()).split('\n');
    QVERIFY2(log.contains("[ndi-out] NDI create"), qPrintable(log.join('\n')));
    for (const QString &line : log)
        QVERIFY2(!line.startsWith("[camera-") && !line.startsWith("[microphone]"), qPrintable(line));
}

QTEST_GUILESS_MAIN(TestEsSource)
#include "tst_essource.moc"
