#include "testruntime.h"

#include "kestencodev.h"
#include "kesthi.h"
#include "ndi/kestndisend.h"
#include "ndi/ndiruntime.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <memory>

namespace {

QStringList logLines;

void collectLog(QtMsgType, const QMessageLogContext &, const QString &message)
{
    logLines << message;
}

// An encoder that only counts key-frame requests.
class FakeEncoder : public KestEncodeV
{
public:
    QVariant idr() override { return ++requests; }
    int requests = 0;
};

StreamInfo videoInfo(QObject *encoder, int width, int codec = KestCodec::H264, QVariantMap extra = {})
{
    StreamInfo info;
    info.codec = codec;
    info.source = encoder;
    info.params = {{"width", width}, {"height", width * 9 / 16}, {"framerate", 25},
                   {"extradata", QByteArray("\0\0\0\1gSPS\0\0\0\1hPPS", 16)}};
    for (auto it = extra.constBegin(); it != extra.constEnd(); ++it)
        info.params[it.key()] = it.value();
    return info;
}

StreamInfo audioInfo(int codec = KestCodec::AAC, QVariantMap params = {})
{
    StreamInfo info;
    info.codec = codec;
    info.params = params.isEmpty() ? QVariantMap{{"samplerate", 48000}, {"channels", 2}, {"frame_size", 1024},
                                                 {"extradata", QByteArray("\x11\x90", 2)}}
                                   : params;
    return info;
}

// A packet whose bytes the test owns.
struct TestPacket
{
    TestPacket(QObject *source, int frameType, qint64 pts, QByteArray content)
        : bytes(std::move(content))
    {
        pkt.data = bytes.data();
        pkt.len = bytes.size();
        pkt.pts = pts;
        pkt.frameType = frameType;
        pkt.source = source;
    }
    QByteArray bytes;
    Packet pkt;
};

QVariantMap tally(bool program, bool preview)
{
    return {{"program", program}, {"preview", preview}};
}

} // namespace

class TestNdiSend : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void startWithDefaults();
    void createSettings_data();
    void createSettings();
    void secondSenderWaitsOneSecond();
    void restartKeepsOrRecreatesSender();
    void createFailureLeavesNodeIdle();
    void streamSelection_data();
    void streamSelection();
    void frameRate_data();
    void frameRate();
    void videoFrames_data();
    void videoFrames();
    void videoReachesReceiverUnchanged();
    void audioFrames_data();
    void audioFrames();
    void packetsDroppedWithoutDescriptionOrSender();
    void keyFrameRequests();
    void packetsFromAnotherThread();
    void tallyEventsOnChangeOnly();
    void tallySurvivesRestart();

private:
    // A sender node with its NDI sender created; spacing of creations skipped on the clock.
    std::unique_ptr<KestNDISend> makeSender(const QVariantMap &settings = {}, const QString &name = QStringLiteral("ndi"));
    static void skipSpacing() { KestHi::setClockOffset(KestHi::clockOffset() + 2000000); }
};

void TestNdiSend::initTestCase()
{
    useNdiTestRuntime();
    const NdiRuntime &runtime = NdiRuntime::instance();
    QVERIFY2(runtime.isAvailable(), qPrintable(runtime.problem()));
    QVERIFY2(runtime.problem().isEmpty(), qPrintable(runtime.problem()));
    qInstallMessageHandler(collectLog);
}

void TestNdiSend::init()
{
    logLines.clear();
    kesttest_set_sent_frame_limit(-1);
    skipSpacing();
}

void TestNdiSend::cleanup()
{
    QCOMPARE(kesttest_sender_count(), 0); // every test stops its nodes
}

std::unique_ptr<KestNDISend> TestNdiSend::makeSender(const QVariantMap &settings, const QString &name)
{
    auto node = std::make_unique<KestNDISend>();
    node->setName(name);
    QVariantMap all{{"config", "/nonexistent/ndi.json"}};
    for (auto it = settings.constBegin(); it != settings.constEnd(); ++it)
        all[it.key()] = it.value();
    skipSpacing();
    node->setData(all);
    return node;
}

void TestNdiSend::startWithDefaults()
{
    const int initialized = kesttest_initialize_calls();
    KestNDISend node;
    node.setName("cam");
    QCOMPARE(node.typeName, QStringLiteral("NDI"));
    QCOMPARE(node.typeId, 5);
    QCOMPARE(kesttest_initialize_calls(), initialized + 1);
    node.start(); // no settings given: the defaults
    QCOMPARE(kesttest_sender_count(), 1);
    const kesttest_sender_info_t info = senderInfo(newestSender());
    QCOMPARE(QByteArray(info.p_ndi_name), QByteArray("NDI Test"));
    QCOMPARE(QByteArray(info.p_source_name), ndiSourceName("NDI Test"));
    QVERIFY(!info.p_groups);
    QVERIFY(!info.clock_video && !info.clock_audio);
    QVERIFY(info.created_with_config);
    if (!QFile::exists("/kest/config/ndi.json"))
        QCOMPARE(QByteArray(info.p_config), QByteArray("{}"));
    QCOMPARE(logLines, QStringList{"[cam] NDI create"});

    // The capabilities travel as connection metadata, also to receivers connecting later.
    QCOMPARE(info.no_connection_metadata, 1);
    NDIlib_metadata_frame_t metadata{};
    QVERIFY(kesttest_sender_connection_metadata(newestSender(), 0, &metadata));
    QCOMPARE(QByteArray(metadata.p_data), QByteArray("<ndi_capabilities web_control=\"http://%IP%\"/>"));
    QCOMPARE(metadata.length, 0);
    QCOMPARE(metadata.timecode, NDIlib_send_timecode_synthesize);
    TestReceiver receiver(ndiSourceName("NDI Test"));
    const auto frames = receiver.drain(NDIlib_frame_type_metadata);
    QCOMPARE(frames.size(), 1);
    QCOMPARE(frames.first().bytes, QByteArray(metadata.p_data));
    node.stop();
}

void TestNdiSend::createSettings_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("group");
    QTest::addColumn<QByteArray>("configFile"); // "-": no file
    QTest::addColumn<QByteArray>("expectedName");
    QTest::addColumn<QByteArray>("expectedGroups"); // "-": a null pointer
    QTest::addColumn<QByteArray>("expectedConfig");

    QTest::newRow("empty group is null, object config compacted")
        << "Studio A" << "" << QByteArray("{ \"ndi\": { \"groups\": { \"send\": \"A\" } } }\n")
        << QByteArray("Studio A") << QByteArray("-") << QByteArray("{\"ndi\":{\"groups\":{\"send\":\"A\"}}}");
    QTest::newRow("name is Latin-1, group UTF-8")
        << QString::fromUtf8("Caméra") << QString::fromUtf8("Régie,Public") << QByteArray("{}")
        << QByteArray("Cam\xe9ra") << QByteArray("R\xc3\xa9gie,Public") << QByteArray("{}");
    QTest::newRow("missing config file") << "a" << "g" << QByteArray("-") << QByteArray("a") << QByteArray("g") << QByteArray("{}");
    QTest::newRow("config holds a list") << "a" << "" << QByteArray("[1, 2]") << QByteArray("a") << QByteArray("-") << QByteArray("{}");
    QTest::newRow("config is not JSON") << "a" << "" << QByteArray("{nope") << QByteArray("a") << QByteArray("-") << QByteArray("{}");
}

void TestNdiSend::createSettings()
{
    QFETCH(QString, name);
    QFETCH(QString, group);
    QFETCH(QByteArray, configFile);
    QFETCH(QByteArray, expectedName);
    QFETCH(QByteArray, expectedGroups);
    QFETCH(QByteArray, expectedConfig);

    QTemporaryDir dir;
    const QString configPath = dir.filePath("ndi.json");
    if (configFile != "-") {
        QFile file(configPath);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(configFile);
    }
    auto node = makeSender({{"name", name}, {"group", group}, {"config", configPath}});
    const kesttest_sender_info_t info = senderInfo(newestSender());
    QCOMPARE(QByteArray(info.p_ndi_name), expectedName);
    QCOMPARE(info.p_groups ? QByteArray(info.p_groups) : QByteArray("-"), expectedGroups);
    QCOMPARE(QByteArray(info.p_config), expectedConfig);
    node->stop();
}

void TestNdiSend::secondSenderWaitsOneSecond()
{
    auto first = makeSender({}, "first");
    KestNDISend second;
    second.setName("second");
    QElapsedTimer elapsed;
    elapsed.start();
    second.setData({{"name", "second"}}); // right after the first one
    QVERIFY2(elapsed.elapsed() >= 990, qPrintable(QString::number(elapsed.elapsed())));
    QCOMPARE(kesttest_sender_count(), 2);

    KestNDISend third;
    KestHi::setClockOffset(KestHi::clockOffset() + 1100000); // more than a second later
    elapsed.restart();
    third.setData({{"name", "third"}});
    QVERIFY2(elapsed.elapsed() < 900, qPrintable(QString::number(elapsed.elapsed()))); // no second wait
    QCOMPARE(kesttest_sender_count(), 3);
    first->stop();
    second.stop();
    third.stop();
}

void TestNdiSend::restartKeepsOrRecreatesSender()
{
    auto node = makeSender();
    const NDIlib_send_instance_t created = newestSender();
    const int count = kesttest_senders_created();
    node->start();
    QCOMPARE(kesttest_senders_created(), count);
    QCOMPARE(newestSender(), created);
    node->stop();
    QCOMPARE(kesttest_sender_count(), 0);
    skipSpacing();
    node->start();
    QCOMPARE(kesttest_senders_created(), count + 1);
    QCOMPARE(kesttest_sender_count(), 1);
    // A new onSetData replaces the sender rather than adding one.
    skipSpacing();
    node->setData({{"name", "renamed"}});
    QCOMPARE(kesttest_sender_count(), 1);
    QCOMPARE(QByteArray(senderInfo(newestSender()).p_ndi_name), QByteArray("renamed"));
    node->stop();
}

void TestNdiSend::createFailureLeavesNodeIdle()
{
    FakeEncoder encoder;
    kesttest_fail_next_creates(KESTTEST_SENDER, 1);
    auto node = makeSender();
    QCOMPARE(logLines, QStringList{"[ndi] create send failed"});
    QCOMPARE(kesttest_sender_count(), 0);
    node->onNewInfoV(videoInfo(&encoder, 1920));
    TestPacket pkt(&encoder, 0, 1000, "frame");
    node->onNewPacketV(pkt.pkt);
    QCOMPARE(node->getTally(), QVariant(tally(false, false)));
    QVERIFY(node->packetsV.isEmpty());
    // The next start tries again and the stream description is still there.
    skipSpacing();
    node->start();
    QCOMPARE(kesttest_sender_count(), 1);
    node->onNewPacketV(pkt.pkt);
    QCOMPARE(kesttest_sent_frame_count(newestSender()), 1);
    node->stop();
}

void TestNdiSend::streamSelection_data()
{
    // Each description: "encoder:width:codec". Each expectation: what a key packet of that
    // encoder becomes: "FourCC width", or "-" when it is not sent.
    QTest::addColumn<QStringList>("descriptions");
    QTest::addColumn<QStringList>("expected"); // for encoders A, B, C in that order

    QTest::newRow("wide first is main, 640 is sub")
        << QStringList{"A:1920:4", "B:640:4"} << QStringList{"H264 1920", "h264 640", "-"};
    QTest::newRow("640 alone is sub and waits for a main stream")
        << QStringList{"B:640:4"} << QStringList{"-", "-", "-"};
    QTest::newRow("later wide stream of another encoder replaces the sub")
        << QStringList{"A:1920:4", "B:640:4", "C:1280:4"} << QStringList{"H264 1920", "-", "h264 1280"};
    QTest::newRow("main encoder re-described keeps main")
        << QStringList{"A:1920:4", "A:1280:5"} << QStringList{"HEVC 1280", "-", "-"};
    QTest::newRow("h265 main and sub")
        << QStringList{"A:1920:5", "B:640:5"} << QStringList{"HEVC 1920", "hevc 640", "-"};
    QTest::newRow("unknown codec leaves the stream undescribed")
        << QStringList{"A:1920:14"} << QStringList{"-", "-", "-"};
}

void TestNdiSend::streamSelection()
{
    QFETCH(QStringList, descriptions);
    QFETCH(QStringList, expected);
    FakeEncoder a, b, c;
    QHash<QString, QObject *> encoders{{"A", &a}, {"B", &b}, {"C", &c}};
    auto node = makeSender();
    for (const QString &d : descriptions) {
        const QStringList parts = d.split(':');
        node->onNewInfoV(videoInfo(encoders[parts[0]], parts[1].toInt(), parts[2].toInt()));
    }
    const NDIlib_send_instance_t sender = newestSender();
    const QStringList names{"A", "B", "C"};
    for (int i = 0; i < names.size(); ++i) {
        kesttest_clear_sent_frames(sender);
        TestPacket pkt(encoders[names[i]], 0, 1000, "key");
        node->onNewPacketV(pkt.pkt);
        const QVector<SentFrame> frames = sentFrames(sender);
        QString got = "-";
        if (!frames.isEmpty()) {
            QVERIFY(frames.first().raw.accepted);
            const uint32_t fourcc = frames.first().raw.video.FourCC;
            got = QString::fromLatin1(reinterpret_cast<const char *>(&fourcc), 4) + ' '
                + QString::number(frames.first().raw.video.xres);
            // The packet names only the codec, in upper case, whatever the stream.
            QCOMPARE(frames.first().header.fourCC,
                     got.startsWith("H264", Qt::CaseInsensitive) ? NDIlib_compressed_FourCC_type_H264
                                                                 : NDIlib_compressed_FourCC_type_HEVC);
        }
        QCOMPARE(got, expected[i]);
    }
    node->stop();
}

void TestNdiSend::frameRate_data()
{
    // Descriptions "main|sub:framerate:ntsc" (framerate "-": absent), then the rates sent.
    QTest::addColumn<QStringList>("descriptions");
    QTest::addColumn<QString>("mainRate");
    QTest::addColumn<QString>("subRate");

    QTest::newRow("whole rate") << QStringList{"main:25:0", "sub:25:0"} << "25/1" << "25/1";
    QTest::newRow("no rate means 30") << QStringList{"main:-:0", "sub:-:0"} << "30/1" << "30/1";
    QTest::newRow("ntsc main") << QStringList{"main:30:1", "sub:30:0"} << "30000/1001" << "30/1";
    QTest::newRow("ntsc sub rescales main, not sub") << QStringList{"main:25:0", "sub:30:1"} << "25000/1001" << "30/1";
    QTest::newRow("ntsc on both rescales main twice")
        << QStringList{"main:30:1", "sub:30:1"} << "30000000/1001" << "30/1";
}

void TestNdiSend::frameRate()
{
    QFETCH(QStringList, descriptions);
    QFETCH(QString, mainRate);
    QFETCH(QString, subRate);
    FakeEncoder mainEncoder, subEncoder;
    auto node = makeSender();
    for (const QString &d : descriptions) {
        const QStringList parts = d.split(':');
        const bool isMain = parts[0] == "main";
        StreamInfo info = videoInfo(isMain ? &mainEncoder : &subEncoder, isMain ? 1920 : 640, KestCodec::H264,
                                    {{"ntsc", parts[2] == "1"}});
        if (parts[1] == "-")
            info.params.remove("framerate");
        else
            info.params["framerate"] = parts[1].toInt();
        node->onNewInfoV(info);
    }
    TestPacket mainPkt(&mainEncoder, 0, 1000, "m"), subPkt(&subEncoder, 0, 1000, "s");
    node->onNewPacketV(mainPkt.pkt);
    node->onNewPacketV(subPkt.pkt);
    const QVector<SentFrame> frames = sentFrames(newestSender());
    QCOMPARE(frames.size(), 2);
    const auto rate = [](const SentFrame &f) {
        return QStringLiteral("%1/%2").arg(f.raw.video.frame_rate_N).arg(f.raw.video.frame_rate_D);
    };
    QCOMPARE(rate(frames[0]), mainRate);
    QCOMPARE(rate(frames[1]), subRate);
    node->stop();
}

void TestNdiSend::videoFrames_data()
{
    QTest::addColumn<int>("frameType");
    QTest::addColumn<QByteArray>("extradata");
    QTest::addColumn<qint64>("pts");
    QTest::addColumn<qint64>("ndiTime");

    const QByteArray sps("\0\0\0\1gSPS\0\0\0\1hPPS", 16);
    QTest::newRow("key frame carries the parameter sets") << 0 << sps << qint64(1000000) << qint64(9900000);
    QTest::newRow("non-key frame carries none") << 1 << sps << qint64(1000000) << qint64(9900000);
    QTest::newRow("key frame without parameter sets") << 0 << QByteArray() << qint64(2000000) << qint64(19900000);
    QTest::newRow("time zero goes 10 ms early") << 2 << sps << qint64(0) << qint64(-100000);
}

void TestNdiSend::videoFrames()
{
    QFETCH(int, frameType);
    QFETCH(QByteArray, extradata);
    QFETCH(qint64, pts);
    QFETCH(qint64, ndiTime);
    FakeEncoder encoder;
    auto node = makeSender();
    node->onNewInfoV(videoInfo(&encoder, 1920, KestCodec::H264, {{"extradata", extradata}}));
    TestPacket pkt(&encoder, frameType, pts, QByteArray("\0\0\0\1\x65picture-bytes", 18));
    node->onNewPacketV(pkt.pkt);

    const QVector<SentFrame> frames = sentFrames(newestSender());
    QCOMPARE(frames.size(), 1);
    const SentFrame &f = frames.first();
    QCOMPARE(f.raw.call, int(KESTTEST_CALL_SEND_VIDEO_SCATTER));
    QVERIFY2(f.raw.accepted, f.raw.p_drop_reason);
    const bool key = frameType == 0;
    QCOMPARE(f.header.version, 44);
    QCOMPARE(f.header.flags, key ? 1u : 0u);
    QCOMPARE(f.header.pts, ndiTime);
    QCOMPARE(f.header.dts, ndiTime);
    QCOMPARE(f.raw.video.timecode, ndiTime);
    QCOMPARE(f.raw.video.timestamp, ndiTime);
    QCOMPARE(f.payload, pkt.bytes);
    QCOMPARE(f.extra, key ? extradata : QByteArray());
    QCOMPARE(f.bytes.size(), 44 + pkt.bytes.size() + (key ? extradata.size() : 0));
    QCOMPARE(f.raw.video.xres, 1920);
    QCOMPARE(f.raw.video.yres, 1080);
    QCOMPARE(f.raw.video.picture_aspect_ratio, 16.0f / 9.0f);
    QCOMPARE(f.raw.video.frame_format_type, NDIlib_frame_format_type_progressive);

    // Zero copy: block 0 is the 44-byte header, block 1 the packet's own memory, block 2
    // (key frames only) the parameter sets.
    QCOMPARE(f.raw.no_blocks, key ? 3 : 2);
    QCOMPARE(f.raw.p_block_sizes[0], 44);
    QCOMPARE(static_cast<const void *>(f.raw.p_blocks[1]), static_cast<const void *>(pkt.pkt.data));
    QCOMPARE(f.raw.p_block_sizes[1], pkt.pkt.len);
    if (key)
        QCOMPARE(f.raw.p_block_sizes[2], extradata.size());
    node->stop();
}

void TestNdiSend::videoReachesReceiverUnchanged()
{
    FakeEncoder mainEncoder, subEncoder;
    auto node = makeSender({{"name", "cam"}});
    node->onNewInfoV(videoInfo(&mainEncoder, 1920, KestCodec::H265));
    node->onNewInfoV(videoInfo(&subEncoder, 640, KestCodec::H265));
    TestReceiver full(ndiSourceName("cam"));
    TestReceiver preview(ndiSourceName("cam"), NDIlib_recv_bandwidth_lowest);
    QVERIFY(full.connected() && preview.connected());
    TestPacket mainPkt(&mainEncoder, 0, 5000000, "main picture"), subPkt(&subEncoder, 0, 5000000, "sub picture");
    node->onNewPacketV(mainPkt.pkt);
    node->onNewPacketV(subPkt.pkt);
    const QVector<SentFrame> sent = sentFrames(newestSender());
    QCOMPARE(sent.size(), 2);

    const auto fullFrames = full.drain(NDIlib_frame_type_video);
    const auto previewFrames = preview.drain(NDIlib_frame_type_video);
    QCOMPARE(fullFrames.size(), 1);
    QCOMPARE(previewFrames.size(), 1);
    QCOMPARE(fullFrames[0].video.FourCC, NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth);
    QCOMPARE(fullFrames[0].bytes, sent[0].bytes);
    QCOMPARE(fullFrames[0].video.data_size_in_bytes, sent[0].bytes.size());
    QCOMPARE(previewFrames[0].video.FourCC, NDIlib_FourCC_video_type_ex_HEVC_lowest_bandwidth);
    QCOMPARE(previewFrames[0].bytes, sent[1].bytes);
    node->stop();
}

void TestNdiSend::audioFrames_data()
{
    QTest::addColumn<QVariantList>("descriptions"); // codec, params map pairs
    QTest::addColumn<qint64>("pts");
    QTest::addColumn<qint64>("ndiTime");
    QTest::addColumn<QByteArray>("extra");
    QTest::addColumn<QString>("format"); // "rate channels samples"

    const QVariantMap lc48{{"samplerate", 48000}, {"channels", 2}, {"frame_size", 1024}, {"extradata", QByteArray("\x11\x90", 2)}};
    const QVariantMap mono{{"samplerate", 44100}, {"channels", 1}, {"frame_size", 1024}, {"extradata", QByteArray("\x12\x08", 2)}};
    const QVariantMap noConfig{{"samplerate", 48000}, {"channels", 2}, {"frame_size", 1024}};
    QTest::newRow("aac, time not shifted") << QVariantList{KestCodec::AAC, lc48} << qint64(1000000) << qint64(10000000)
                                           << QByteArray("\x11\x90", 2) << "48000 2 1024";
    QTest::newRow("no extradata: empty third block") << QVariantList{KestCodec::AAC, noConfig} << qint64(5) << qint64(50)
                                                     << QByteArray() << "48000 2 1024";
    QTest::newRow("second description replaces the first")
        << QVariantList{KestCodec::AAC, lc48, KestCodec::AAC, mono} << qint64(7) << qint64(70) << QByteArray("\x12\x08", 2)
        << "44100 1 1024";
    QTest::newRow("non-aac description is ignored")
        << QVariantList{KestCodec::AAC, lc48, KestCodec::Opus, mono} << qint64(7) << qint64(70) << QByteArray("\x11\x90", 2)
        << "48000 2 1024";
}

void TestNdiSend::audioFrames()
{
    QFETCH(QVariantList, descriptions);
    QFETCH(qint64, pts);
    QFETCH(qint64, ndiTime);
    QFETCH(QByteArray, extra);
    QFETCH(QString, format);
    auto node = makeSender();
    for (int i = 0; i + 1 < descriptions.size(); i += 2)
        node->onNewInfoA(audioInfo(descriptions[i].toInt(), descriptions[i + 1].toMap()));
    TestPacket pkt(nullptr, 3, pts, "aac-frame-bytes");
    node->onNewPacketA(pkt.pkt);

    const QVector<SentFrame> frames = sentFrames(newestSender());
    QCOMPARE(frames.size(), 1);
    const SentFrame &f = frames.first();
    QCOMPARE(f.raw.call, int(KESTTEST_CALL_SEND_AUDIO_SCATTER));
    QVERIFY2(f.raw.accepted, f.raw.p_drop_reason);
    QCOMPARE(f.raw.audio.FourCC, NDIlib_FourCC_audio_type_ex_AAC);
    QCOMPARE(QStringLiteral("%1 %2 %3").arg(f.raw.audio.sample_rate).arg(f.raw.audio.no_channels).arg(f.raw.audio.no_samples), format);
    QCOMPARE(f.header.fourCC, NDIlib_compressed_FourCC_type_AAC);
    QCOMPARE(f.header.version, 44);
    QCOMPARE(f.header.flags, 1u);
    QCOMPARE(f.header.pts, ndiTime);
    QCOMPARE(f.header.dts, ndiTime);
    QCOMPARE(f.raw.audio.timecode, ndiTime);
    QCOMPARE(f.raw.audio.timestamp, ndiTime);
    QCOMPARE(f.payload, pkt.bytes);
    QCOMPARE(f.extra, extra);
    QCOMPARE(f.raw.no_blocks, 3); // header, packet, configuration (possibly empty)
    QCOMPARE(static_cast<const void *>(f.raw.p_blocks[1]), static_cast<const void *>(pkt.pkt.data));
    QCOMPARE(f.raw.p_block_sizes[2], extra.size());
    node->stop();
}

void TestNdiSend::packetsDroppedWithoutDescriptionOrSender()
{
    FakeEncoder encoder;
    auto node = makeSender();
    const NDIlib_send_instance_t sender = newestSender();
    TestPacket video(&encoder, 0, 1, "v"), audio(nullptr, 3, 1, "a");
    node->onNewPacketV(video.pkt);
    node->onNewPacketA(audio.pkt);
    node->onNewInfoA(audioInfo(KestCodec::MP2));
    node->onNewPacketA(audio.pkt);
    QCOMPARE(kesttest_sent_frame_count(sender), 0);

    node->onNewInfoV(videoInfo(&encoder, 1920));
    node->onNewInfoA(audioInfo());
    FakeEncoder stranger;
    TestPacket foreign(&stranger, 0, 1, "x");
    node->onNewPacketV(foreign.pkt); // neither main nor sub: dropped when sent
    QCOMPARE(kesttest_sent_frame_count(sender), 0);
    node->onNewPacketV(video.pkt);
    node->onNewPacketA(audio.pkt);
    QCOMPARE(kesttest_sent_frame_count(sender), 2);

    node->stop();
    node->onNewPacketV(video.pkt);
    node->onNewPacketA(audio.pkt);
    QVERIFY(node->packetsV.isEmpty() && node->packetsA.isEmpty());
    // Descriptions survive the stop: after a restart the stream flows again.
    skipSpacing();
    node->start();
    node->onNewPacketV(video.pkt);
    QCOMPARE(kesttest_sent_frame_count(newestSender()), 1);
    node->stop();
}

void TestNdiSend::keyFrameRequests()
{
    FakeEncoder mainEncoder, subEncoder;
    auto node = makeSender({{"name", "cam"}});
    node->onNewInfoV(videoInfo(&mainEncoder, 1920));
    node->onNewInfoV(videoInfo(&subEncoder, 640));
    TestPacket mainKey(&mainEncoder, 0, 1, "K"), mainDelta(&mainEncoder, 1, 2, "d");
    TestPacket subKey(&subEncoder, 0, 1, "k"), subDelta(&subEncoder, 1, 2, "d");

    // Nobody watching: no key frame is needed.
    node->onNewPacketV(mainDelta.pkt);
    QCOMPARE(mainEncoder.requests, 0);

    TestReceiver full(ndiSourceName("cam"));
    QVERIFY(senderInfo(newestSender()).keyframe_required_high);
    node->onNewPacketV(mainDelta.pkt);
    node->onNewPacketV(mainDelta.pkt); // asked again for every non-key frame
    QCOMPARE(mainEncoder.requests, 2);
    QCOMPARE(subEncoder.requests, 0);
    QCOMPARE(logLines.count("[ndi] need IDR main"), 2);
    node->onNewPacketV(mainKey.pkt); // a key frame is never a reason to ask
    QCOMPARE(mainEncoder.requests, 2);
    QVERIFY(!senderInfo(newestSender()).keyframe_required_high);
    node->onNewPacketV(mainDelta.pkt);
    QCOMPARE(mainEncoder.requests, 2);

    TestReceiver preview(ndiSourceName("cam"), NDIlib_recv_bandwidth_lowest);
    node->onNewPacketV(mainDelta.pkt);
    node->onNewPacketV(subDelta.pkt);
    QCOMPARE(mainEncoder.requests, 2);
    QCOMPARE(subEncoder.requests, 1);
    QCOMPARE(logLines.count("[ndi] need IDR sub"), 1);
    node->onNewPacketV(subKey.pkt);
    node->onNewPacketV(subDelta.pkt);
    QCOMPARE(subEncoder.requests, 1);
    node->stop();
}

void TestNdiSend::packetsFromAnotherThread()
{
    FakeEncoder encoder;
    auto node = makeSender();
    node->onNewInfoV(videoInfo(&encoder, 1920));
    node->onNewInfoA(audioInfo());
    constexpr int kFrames = 50;
    std::vector<std::unique_ptr<TestPacket>> packets;
    for (int i = 0; i < kFrames; ++i)
        packets.push_back(std::make_unique<TestPacket>(&encoder, i % 10 ? 1 : 0, i * 40000, QByteArray::number(i)));
    // The host delivers from its own thread; sending happens on the node's thread.
    std::unique_ptr<QThread> host(QThread::create([&] {
        for (const auto &p : packets) {
            node->onNewPacketV(p->pkt);
            node->onNewPacketA(p->pkt);
        }
    }));
    host->start();
    QVERIFY(host->wait(10000));
    const NDIlib_send_instance_t sender = newestSender();
    QTRY_COMPARE(kesttest_sent_frame_count(sender), 2 * kFrames);
    const QVector<SentFrame> frames = sentFrames(sender);
    QVector<QByteArray> video, audio;
    for (const SentFrame &f : frames)
        (f.raw.type == NDIlib_frame_type_video ? video : audio) << f.payload;
    QCOMPARE(video.size(), kFrames);
    for (int i = 0; i < kFrames; ++i) {
        QCOMPARE(video[i], QByteArray::number(i));
        QCOMPARE(audio[i], QByteArray::number(i));
    }
    node->stop();
}

void TestNdiSend::tallyEventsOnChangeOnly()
{
    auto node = makeSender({{"name", "cam"}});
    QSignalSpy events(node.get(), &KestObject::eventSent);
    QCOMPARE(node->getTally(), QVariant(tally(false, false)));
    node->onTimer();
    QCOMPARE(events.count(), 0);

    TestReceiver receiver(ndiSourceName("cam"));
    node->start(); // the 500 ms poll
    QVERIFY(receiver.setTally(true, false));
    QTRY_COMPARE_WITH_TIMEOUT(events.count(), 1, 2000);
    QCOMPARE(events[0][0].toString(), QStringLiteral("tally"));
    QCOMPARE(events[0][1], QVariant(tally(true, false)));
    QCOMPARE(node->getTally(), QVariant(tally(true, false)));
    QVERIFY(receiver.setTally(false, false));
    QTRY_COMPARE_WITH_TIMEOUT(events.count(), 2, 2000);
    QCOMPARE(events[1][1], QVariant(tally(false, false)));

    // A change and its undoing between two polls: nothing to report.
    node->onStop();
    skipSpacing();
    node->onSetData(node->data);
    TestReceiver again(ndiSourceName("cam"));
    QVERIFY(again.setTally(false, true));
    QVERIFY(again.setTally(false, false));
    node->onTimer();
    QCOMPARE(events.count(), 2);
    QVERIFY(again.setTally(true, true));
    QCOMPARE(node->getTally(), QVariant(tally(true, true))); // a query reports nothing
    QCOMPARE(events.count(), 2);
    node->onTimer();
    QCOMPARE(events.count(), 3);
    QCOMPARE(events[2][1], QVariant(tally(true, true)));
    node->stop();
}

void TestNdiSend::tallySurvivesRestart()
{
    auto node = makeSender({{"name", "cam"}});
    QSignalSpy events(node.get(), &KestObject::eventSent);
    {
        TestReceiver receiver(ndiSourceName("cam"));
        receiver.setTally(true, false);
        node->onTimer();
        QCOMPARE(events.count(), 1);
    }
    node->stop();
    skipSpacing();
    node->start();
    TestReceiver receiver(ndiSourceName("cam"));
    receiver.setTally(true, false);
    node->onTimer(); // same state as last reported before the restart
    QCOMPARE(events.count(), 1);
    node->stop();
}

QTEST_GUILESS_MAIN(TestNdiSend)
#include "tst_ndisend.moc"
