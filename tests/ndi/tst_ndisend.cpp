// KestNDISend against the NDI test runtime: how the runtime's sender is made, and every frame
// it is given.

#include "testruntime.h"

#include "kestencodev.h"
#include "kesthi.h"
#include "logcapture.h"
#include "ndi/kestndisend.h"
#include "ndi/ndiruntime.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <memory>

namespace {

// An encoder that only counts key-frame requests.
class FakeEncoder : public KestEncodeV
{
public:
    QVariant idr() override { return ++requests; }
    int requests = 0;
};

const QByteArray kParameterSets("\0\0\0\1gSPS\0\0\0\1hPPS", 16);
const QVariantMap kStereo{{"samplerate", 48000}, {"channels", 2}, {"frame_size", 1024}, {"extradata", QByteArray("\x11\x90", 2)}};
const QVariantMap kMono{{"samplerate", 44100}, {"channels", 1}, {"frame_size", 1024}, {"extradata", QByteArray("\x12\x08", 2)}};

StreamInfo videoInfo(QObject *encoder, int width, int codec = KestCodec::H264)
{
    return {codec, {{"width", width}, {"height", width * 9 / 16}, {"framerate", 25}, {"extradata", kParameterSets}}, encoder};
}

// A packet whose bytes the test owns.
struct TestPacket
{
    TestPacket(QObject *source, int frameType, qint64 pts, QByteArray content) : bytes(std::move(content))
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

// Sender creations follow each other at least a second apart; the tests move the clock on.
void skipSpacing()
{
    KestHi::setClockOffset(KestHi::clockOffset() + 2000000);
}

} // namespace

class TestNdiSend : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void createSettings_data();
    void createSettings();
    void secondSenderWaitsOneSecond();
    void lifecycle();
    void videoDescriptions_data();
    void videoDescriptions();
    void frames_data();
    void frames();
    void keyFrameRequestsPerStream();
    void packetsFromAnotherThread();
    void tallyEventsOnChangeOnly();

private:
    std::unique_ptr<KestNDISend> makeSender(const QVariantMap &settings = {});
    std::unique_ptr<LogCapture> log; // made once QtTest has installed its own handler
};

void TestNdiSend::initTestCase()
{
    log = std::make_unique<LogCapture>();
    useNdiTestRuntime();
    QVERIFY2(NdiRuntime::instance().problem().isEmpty(), qPrintable(NdiRuntime::instance().problem()));
    QVERIFY(NdiRuntime::instance().isAvailable());
}

void TestNdiSend::init()
{
    log->clear();
    skipSpacing();
}

void TestNdiSend::cleanup()
{
    QCOMPARE(kesttest_sender_count(), 0); // every test stops its nodes
}

std::unique_ptr<KestNDISend> TestNdiSend::makeSender(const QVariantMap &settings)
{
    auto node = std::make_unique<KestNDISend>();
    node->setName("ndi");
    QVariantMap all{{"config", "/nonexistent/ndi.json"}};
    all.insert(settings);
    skipSpacing();
    node->setData(all);
    return node;
}

void TestNdiSend::createSettings_data()
{
    QTest::addColumn<QVariantMap>("settings");
    QTest::addColumn<QByteArray>("configFile"); // "-": no file
    QTest::addColumn<QByteArray>("expectedName");
    QTest::addColumn<QByteArray>("expectedGroups"); // "-": a null pointer
    QTest::addColumn<QByteArray>("expectedConfig");

    QTest::newRow("defaults, missing config file") << QVariantMap{} << QByteArray("-") << QByteArray("NDI Test")
                                                   << QByteArray("-") << QByteArray("{}");
    QTest::newRow("empty group is null, object config compacted")
        << QVariantMap{{"name", "Studio A"}, {"group", ""}} << QByteArray("{ \"ndi\": { \"groups\": { \"send\": \"A\" } } }\n")
        << QByteArray("Studio A") << QByteArray("-") << QByteArray("{\"ndi\":{\"groups\":{\"send\":\"A\"}}}");
    QTest::newRow("name is Latin-1, group UTF-8")
        << QVariantMap{{"name", QString::fromUtf8("Caméra")}, {"group", QString::fromUtf8("Régie,Public")}} << QByteArray("{}")
        << QByteArray("Cam\xe9ra") << QByteArray("R\xc3\xa9gie,Public") << QByteArray("{}");
    QTest::newRow("config holds a list") << QVariantMap{{"name", "a"}} << QByteArray("[1, 2]") << QByteArray("a")
                                         << QByteArray("-") << QByteArray("{}");
}

void TestNdiSend::createSettings()
{
    QFETCH(QVariantMap, settings);
    QFETCH(QByteArray, configFile);
    QFETCH(QByteArray, expectedName);
    QFETCH(QByteArray, expectedGroups);
    QFETCH(QByteArray, expectedConfig);
    QTemporaryDir dir;
    const QString config = ndiConfigFile(dir.path(), configFile);
    QVERIFY(!config.isEmpty());
    KestNDISend node;
    node.setName("ndi");
    node.data["config"] = config;
    node.setData(settings);
    const kesttest_sender_info_t info = senderInfo(newestSender());
    QCOMPARE(QByteArray(info.p_ndi_name), expectedName);
    QCOMPARE(info.p_groups ? QByteArray(info.p_groups) : QByteArray("-"), expectedGroups);
    QCOMPARE(QByteArray(info.p_config), expectedConfig);
    QVERIFY(info.created_with_config && !info.clock_video && !info.clock_audio);
    QCOMPARE(log->lines(), QStringList{"[ndi] NDI create"});
    // The capabilities, for every receiver that connects.
    QCOMPARE(info.no_connection_metadata, 1);
    QCOMPARE(QByteArray(kesttest_sender_connection_metadata(newestSender(), 0)), "<ndi_capabilities web_control=\"http://%IP%\"/>");
    node.stop();
}

void TestNdiSend::secondSenderWaitsOneSecond()
{
    auto first = makeSender();
    KestNDISend second, third;
    QElapsedTimer elapsed;
    elapsed.start();
    second.setData({{"name", "second"}}); // right after the first one
    QVERIFY2(elapsed.elapsed() >= 990, qPrintable(QString::number(elapsed.elapsed())));
    KestHi::setClockOffset(KestHi::clockOffset() + 1100000); // more than a second later
    elapsed.restart();
    third.setData({{"name", "third"}});
    QVERIFY2(elapsed.elapsed() < 900, qPrintable(QString::number(elapsed.elapsed())));
    QCOMPARE(kesttest_sender_count(), 3);
    first->stop();
    second.stop();
    third.stop();
}

void TestNdiSend::lifecycle()
{
    FakeEncoder encoder, stranger;
    TestPacket video(&encoder, 0, 1, "v"), audio(nullptr, 3, 1, "a"), foreign(&stranger, 0, 1, "x");
    kesttest_fail_next_creates(KESTTEST_SENDER, 1);
    auto node = makeSender();
    QCOMPARE(log->lines(), QStringList{"[ndi] create send failed"});
    QCOMPARE(kesttest_sender_count(), 0);
    // Without a sender nothing is even queued, and the tally reads as off.
    node->onNewInfoV(videoInfo(&encoder, 1920));
    node->onNewPacketV(video.pkt);
    QVERIFY(node->packetsV.isEmpty());
    QCOMPARE(node->getTally(), QVariant(tally(false, false)));

    // Start tries again; starting once more keeps that sender.
    skipSpacing();
    node->start();
    const int created = kesttest_senders_created();
    node->start();
    QCOMPARE(kesttest_senders_created(), created);
    const NDIlib_send_instance_t sender = newestSender();
    node->onNewPacketA(audio.pkt); // audio not described yet
    node->onNewInfoA({KestCodec::MP2, kStereo, nullptr});
    node->onNewPacketA(audio.pkt); // nor by a codec other than AAC
    node->onNewPacketV(foreign.pkt); // neither the main nor the sub stream's encoder
    QCOMPARE(kesttest_sent_frame_count(sender), 0);
    node->onNewPacketV(video.pkt); // described before the sender existed
    QCOMPARE(kesttest_sent_frame_count(sender), 1);

    // Stop destroys the sender; the next start makes a new one, which sends at once.
    node->stop();
    QCOMPARE(kesttest_sender_count(), 0);
    skipSpacing();
    node->start();
    QCOMPARE(kesttest_senders_created(), created + 1);
    node->onNewPacketV(video.pkt);
    QCOMPARE(kesttest_sent_frame_count(newestSender()), 1);
    // New settings replace the sender rather than adding one.
    skipSpacing();
    node->setData({{"name", "renamed"}});
    QCOMPARE(kesttest_sender_count(), 1);
    QCOMPARE(QByteArray(senderInfo(newestSender()).p_ndi_name), QByteArray("renamed"));
    node->stop();
}

void TestNdiSend::videoDescriptions_data()
{
    // Descriptions "encoder width codec framerate [ntsc]" ("-": no framerate); then what a key
    // packet of encoder A, B and C goes out as: "FourCC size rate", "-" when it is not sent.
    QTest::addColumn<QStringList>("descriptions");
    QTest::addColumn<QStringList>("expected");

    QTest::newRow("wide first is main, 640 is sub")
        << QStringList{"A 1920 4 25", "B 640 4 25"} << QStringList{"H264 1920x1080 25/1", "h264 640x360 25/1", "-"};
    QTest::newRow("640 alone is sub and waits for a main stream") << QStringList{"B 640 4 25"} << QStringList{"-", "-", "-"};
    QTest::newRow("later wide stream of another encoder replaces the sub")
        << QStringList{"A 1920 4 25", "B 640 4 25", "C 1280 4 25"} << QStringList{"H264 1920x1080 25/1", "-", "h264 1280x720 25/1"};
    QTest::newRow("main encoder re-described keeps main")
        << QStringList{"A 1920 4 25", "A 1280 5 25"} << QStringList{"HEVC 1280x720 25/1", "-", "-"};
    QTest::newRow("unknown codec leaves the stream undescribed") << QStringList{"A 1920 14 25"} << QStringList{"-", "-", "-"};
    QTest::newRow("no rate means 30") << QStringList{"A 1920 4 -", "B 640 4 -"}
                                      << QStringList{"H264 1920x1080 30/1", "h264 640x360 30/1", "-"};
    QTest::newRow("ntsc main") << QStringList{"A 1920 4 30 ntsc", "B 640 4 30"}
                               << QStringList{"H264 1920x1080 30000/1001", "h264 640x360 30/1", "-"};
    QTest::newRow("ntsc sub rescales main, not sub")
        << QStringList{"A 1920 4 25", "B 640 4 30 ntsc"} << QStringList{"H264 1920x1080 25000/1001", "h264 640x360 30/1", "-"};
}

void TestNdiSend::videoDescriptions()
{
    QFETCH(QStringList, descriptions);
    QFETCH(QStringList, expected);
    FakeEncoder encoders[3];
    auto node = makeSender();
    for (const QString &d : descriptions) {
        const QStringList f = d.split(' ');
        StreamInfo info = videoInfo(&encoders[f[0][0].unicode() - 'A'], f[1].toInt(), f[2].toInt());
        info.params["ntsc"] = f.size() > 4;
        if (f[3] == "-")
            info.params.remove("framerate");
        else
            info.params["framerate"] = f[3].toInt();
        node->onNewInfoV(info);
    }
    const NDIlib_send_instance_t sender = newestSender();
    QStringList got;
    for (FakeEncoder &encoder : encoders) {
        const int before = kesttest_sent_frame_count(sender);
        TestPacket pkt(&encoder, 0, 1000, "key");
        node->onNewPacketV(pkt.pkt);
        kesttest_sent_frame_t sent{};
        if (!kesttest_sent_frame(sender, before, &sent)) {
            got << "-";
            continue;
        }
        // Accepted: the packet header names the codec as the runtime expects for that FourCC.
        QVERIFY2(!sent.p_drop_reason, sent.p_drop_reason);
        const NDIlib_video_frame_v2_t &v = sent.video;
        got << QStringLiteral("%1 %2x%3 %4/%5")
                   .arg(QString::fromLatin1(reinterpret_cast<const char *>(&v.FourCC), 4))
                   .arg(v.xres)
                   .arg(v.yres)
                   .arg(v.frame_rate_N)
                   .arg(v.frame_rate_D);
    }
    QCOMPARE(got, expected);
    node->stop();
}

void TestNdiSend::frames_data()
{
    QTest::addColumn<bool>("audio");
    QTest::addColumn<int>("frameType");
    QTest::addColumn<qint64>("pts");
    QTest::addColumn<qint64>("ndiTime");            // 100 ns units
    QTest::addColumn<QVariantList>("audioInfos");   // codec, params, ...
    QTest::addColumn<QByteArray>("extra");
    QTest::addColumn<QString>("format");            // audio: "rate channels samples"
    const QVariantList stereo{KestCodec::AAC, kStereo};
    QTest::newRow("video key frame carries the parameter sets, 10 ms early")
        << false << 0 << qint64(1000000) << qint64(9900000) << stereo << kParameterSets << "";
    QTest::newRow("video non-key frame carries none") << false << 1 << qint64(2000000) << qint64(19900000) << stereo << QByteArray() << "";
    QTest::newRow("video time zero goes negative") << false << 2 << qint64(0) << qint64(-100000) << stereo << QByteArray() << "";
    QTest::newRow("audio keeps its time") << true << 3 << qint64(1000000) << qint64(10000000) << stereo << QByteArray("\x11\x90", 2)
                                          << "48000 2 1024";
    QTest::newRow("audio: second description replaces the first") << true << 3 << qint64(1000000) << qint64(10000000)
                                                                   << (stereo + QVariantList{KestCodec::AAC, kMono})
                                                                   << QByteArray("\x12\x08", 2) << "44100 1 1024";
    QTest::newRow("audio: non-aac description is ignored") << true << 3 << qint64(1000000) << qint64(10000000)
                                                           << (stereo + QVariantList{KestCodec::Opus, kMono})
                                                           << QByteArray("\x11\x90", 2) << "48000 2 1024";
}

void TestNdiSend::frames()
{
    QFETCH(bool, audio);
    QFETCH(int, frameType);
    QFETCH(qint64, pts);
    QFETCH(qint64, ndiTime);
    QFETCH(QVariantList, audioInfos);
    QFETCH(QByteArray, extra);
    QFETCH(QString, format);
    FakeEncoder encoder;
    auto node = makeSender();
    node->onNewInfoV(videoInfo(&encoder, 1920));
    for (int i = 0; i + 1 < audioInfos.size(); i += 2)
        node->onNewInfoA({audioInfos[i].toInt(), audioInfos[i + 1].toMap(), nullptr});
    TestPacket pkt(audio ? nullptr : &encoder, frameType, pts, QByteArray("\0\0\0\1\x65picture", 12));
    audio ? node->onNewPacketA(pkt.pkt) : node->onNewPacketV(pkt.pkt);

    const QVector<SentFrame> frames = sentFrames(newestSender());
    QCOMPARE(frames.size(), 1);
    const SentFrame &f = frames[0];
    QVERIFY2(!f.raw.p_drop_reason, f.raw.p_drop_reason);
    QCOMPARE(f.header.flags, audio || frameType == 0 ? 1u : 0u);
    const qint64 timecode = audio ? f.raw.audio.timecode : f.raw.video.timecode;
    const qint64 timestamp = audio ? f.raw.audio.timestamp : f.raw.video.timestamp;
    QCOMPARE((QVector<qint64>{f.header.pts, f.header.dts, timecode, timestamp}), QVector<qint64>(4, ndiTime));
    QCOMPARE(f.payload, pkt.bytes);
    QCOMPARE(f.extra, extra);
    // No copy: block 0 is the header, block 1 the packet's own memory, block 2 the extra data.
    QCOMPARE(f.raw.no_blocks, extra.isEmpty() ? 2 : 3);
    QCOMPARE(static_cast<const void *>(f.raw.p_blocks[1]), static_cast<const void *>(pkt.pkt.data));
    if (audio)
        QCOMPARE(QStringLiteral("%1 %2 %3").arg(f.raw.audio.sample_rate).arg(f.raw.audio.no_channels).arg(f.raw.audio.no_samples), format);
    node->stop();
}

void TestNdiSend::keyFrameRequestsPerStream()
{
    FakeEncoder mainEncoder, subEncoder;
    auto node = makeSender({{"name", "cam"}});
    node->onNewInfoV(videoInfo(&mainEncoder, 1920, KestCodec::H265));
    node->onNewInfoV(videoInfo(&subEncoder, 640, KestCodec::H265));
    TestPacket mainKey(&mainEncoder, 0, 1, "main key"), mainDelta(&mainEncoder, 1, 2, "main delta");
    TestPacket subKey(&subEncoder, 0, 1, "sub key"), subDelta(&subEncoder, 1, 2, "sub delta");
    const auto send = [&](std::initializer_list<const TestPacket *> packets) {
        for (const TestPacket *p : packets)
            node->onNewPacketV(p->pkt);
    };

    send({&mainDelta}); // nobody watching: no key frame is needed
    QCOMPARE(mainEncoder.requests, 0);
    TestReceiver full(ndiSourceName("cam"));
    send({&mainDelta, &mainDelta, &subDelta}); // asked for every non-key frame of the watched stream
    QCOMPARE(mainEncoder.requests, 2);
    QCOMPARE(subEncoder.requests, 0);
    send({&subKey, &mainDelta}); // a key frame of the other stream does not help
    QCOMPARE(mainEncoder.requests, 3);
    send({&mainKey, &mainDelta}); // a key frame is never a reason to ask, and ends the need
    QCOMPARE(mainEncoder.requests, 3);
    TestReceiver preview(ndiSourceName("cam"), NDIlib_recv_bandwidth_lowest);
    send({&mainDelta, &subDelta, &subKey, &subDelta});
    QCOMPARE(mainEncoder.requests, 3);
    QCOMPARE(subEncoder.requests, 1);
    QCOMPARE(log->count("[ndi] need IDR main"), 3);
    QCOMPARE(log->count("[ndi] need IDR sub"), 1);

    // Each receiver got its stream's frames since it connected, unchanged, in its own case.
    QByteArrayList sentMain, sentSub;
    for (const SentFrame &f : sentFrames(newestSender()))
        (f.raw.video.FourCC == NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth ? sentMain : sentSub) << f.bytes;
    QCOMPARE(full.drain(NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth), sentMain.mid(1));
    QCOMPARE(preview.drain(NDIlib_FourCC_video_type_ex_HEVC_lowest_bandwidth), sentSub.mid(2));
    node->stop();
}

void TestNdiSend::packetsFromAnotherThread()
{
    FakeEncoder encoder;
    auto node = makeSender();
    node->onNewInfoV(videoInfo(&encoder, 1920));
    node->onNewInfoA({KestCodec::AAC, kStereo, nullptr});
    constexpr int kFrames = 20;
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
    QTRY_COMPARE(kesttest_sent_frame_count(newestSender()), 2 * kFrames);
    QByteArrayList video, audio, expected;
    for (const SentFrame &f : sentFrames(newestSender()))
        (f.raw.type == NDIlib_frame_type_video ? video : audio) << f.payload;
    for (int i = 0; i < kFrames; ++i)
        expected << QByteArray::number(i);
    QCOMPARE(video, expected);
    QCOMPARE(audio, expected);
    node->stop();
}

void TestNdiSend::tallyEventsOnChangeOnly()
{
    auto node = makeSender({{"name", "cam"}});
    QSignalSpy events(node.get(), &KestObject::eventSent);
    TestReceiver receiver(ndiSourceName("cam"));
    node->onTimer();
    QCOMPARE(events.count(), 0);
    node->start(); // the 500 ms poll
    QVERIFY(receiver.setTally(true, false));
    QTRY_COMPARE_WITH_TIMEOUT(events.count(), 1, 2000);
    QCOMPARE(events[0], (QVariantList{"tally", tally(true, false)}));
    QVERIFY(receiver.setTally(false, false));
    QTRY_COMPARE_WITH_TIMEOUT(events.count(), 2, 2000);
    QCOMPARE(events[1][1], QVariant(tally(false, false)));

    // Polled by hand from here, on a new sender the receiver reconnects to: a change undone
    // between two polls goes unreported; a query reports nothing, the next poll does.
    node->onStop();
    skipSpacing();
    node->onSetData(node->data);
    QVERIFY(receiver.setTally(false, true));
    QVERIFY(receiver.setTally(false, false));
    node->onTimer();
    QCOMPARE(events.count(), 2);
    QVERIFY(receiver.setTally(true, true));
    QCOMPARE(node->getTally(), QVariant(tally(true, true)));
    QCOMPARE(events.count(), 2);
    node->onTimer();
    QCOMPARE(events.count(), 3);
    QCOMPARE(events[2][1], QVariant(tally(true, true)));
    node->stop();
}

QTEST_GUILESS_MAIN(TestNdiSend)
#include "tst_ndisend.moc"
