#include "kestencodev.h"
#include "kestgpio.h"
#include "kesthi.h"
#include "kestobject.h"
#include "json.h"
#include "packetqueue.h"

#include <QSignalSpy>
#include <QTemporaryFile>
#include <QTest>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

namespace {

// Records what reaches it through the base's delivery services.
class Recorder : public KestObject
{
public:
    QList<Packet> audio, video;
    QList<StreamInfo> infosA, infosV;
    QStringList events;
    void onNewPacketA(Packet p) override { audio << p; }
    void onNewPacketV(Packet p) override { video << p; }
    void onNewInfoA(StreamInfo i) override { infosA << i; }
    void onNewInfoV(StreamInfo i) override { infosV << i; }
    void onNewEvent(QString type, QVariant info) override { events << type + QLatin1Char('=') + info.toString(); }
    int setDataCalls = 0;
    QVariantMap lastArgument;
    void onSetData(QVariantMap m) override { ++setDataCalls; lastArgument = m; }
    int starts = 0, stops = 0;
    bool startedDuringOnStart = false;
    void onStart() override { ++starts; startedDuringOnStart = isStarted(); }
    void onStop() override { ++stops; }
};

Packet packetWithPts(qint64 pts)
{
    Packet p;
    p.pts = pts;
    return p;
}

} // namespace

class TestKestObject : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void bufferPacketSignalsDrainOnlyWhenEmpty();
    void bufferPacketDropsOldestPastBound();
    void bufferPacketDefaultBound();
    void concurrentProducersLoseNothing();
    void bufferDataBounds_data();
    void bufferDataBounds();
    void bufferDataHeadroomAndAlignment();
    void bufferDataBlocksDoNotOverlapUntilWrap();
    void deliveryFollowsLinks();
    void linkReplaysAnnouncedStreams();
    void setDataMergesThenCallsOnSetData();
    void startAndStopDriveTheFlag();
    void clockOffsetShiftsHostClock();
    void jsonRoundTrips_data();
    void jsonRoundTrips();
    void jsonRejectsBadInput();
    void jsonLoadFile();
    void gpioCallsAreRecorded();
    void metaTypesPassByName();
};

void TestKestObject::bufferPacketSignalsDrainOnlyWhenEmpty()
{
    KestObject node;
    QCOMPARE(node.bufferPacketA(packetWithPts(1)), 1);
    QCOMPARE(node.bufferPacketA(packetWithPts(2)), 0);
    QCOMPARE(node.bufferPacketA(packetWithPts(3)), 0);
    Packet p;
    QVERIFY(takePacket(node.lockA, node.packetsA, p));
    QCOMPARE(p.pts, 1);
    QVERIFY(takePacket(node.lockA, node.packetsA, p));
    QVERIFY(takePacket(node.lockA, node.packetsA, p));
    QCOMPARE(p.pts, 3);
    QVERIFY(!takePacket(node.lockA, node.packetsA, p));
    // Empty again: the next producer must schedule a drain again.
    QCOMPARE(node.bufferPacketA(packetWithPts(4)), 1);
    // The two queues are independent.
    QCOMPARE(node.bufferPacketV(packetWithPts(5)), 1);
}

void TestKestObject::bufferPacketDropsOldestPastBound()
{
    KestObject node;
    node.setData({{QStringLiteral("bufLenV"), 3}, {QStringLiteral("bufLenA"), 2}});
    for (int i = 1; i <= 5; ++i) {
        node.bufferPacketV(packetWithPts(i));
        node.bufferPacketA(packetWithPts(i));
    }
    QCOMPARE(node.packetsV.size(), 3);
    QCOMPARE(node.packetsV.first().pts, 3);
    QCOMPARE(node.packetsV.last().pts, 5);
    QCOMPARE(node.packetsA.size(), 2);
    QCOMPARE(node.packetsA.first().pts, 4);
}

void TestKestObject::bufferPacketDefaultBound()
{
    KestObject node;
    for (int i = 0; i < KestObject::kDefaultQueueLength + 10; ++i)
        node.bufferPacketV(packetWithPts(i));
    QCOMPARE(node.packetsV.size(), KestObject::kDefaultQueueLength);
    QCOMPARE(node.packetsV.first().pts, 10);
}

void TestKestObject::concurrentProducersLoseNothing()
{
    // Several host threads deliver while the node drains; with a bound larger than the total,
    // every packet arrives exactly once and each producer's packets stay in order.
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 50000;
    KestObject node;
    node.setData({{QStringLiteral("bufLenV"), kProducers * kPerProducer}});

    std::atomic<int> drainRequests{0};
    std::atomic<int> running{kProducers};
    std::vector<std::thread> producers;
    for (int t = 0; t < kProducers; ++t) {
        producers.emplace_back([&, t] {
            for (int i = 0; i < kPerProducer; ++i) {
                Packet p;
                p.frameType = t;
                p.pts = i;
                if (node.bufferPacketV(p))
                    ++drainRequests;
            }
            --running;
        });
    }
    std::vector<qint64> next(kProducers, 0);
    int received = 0;
    bool ordered = true;
    const auto drain = [&] {
        Packet p;
        while (takePacket(node.lockV, node.packetsV, p)) {
            ordered = ordered && p.pts == next[size_t(p.frameType)];
            next[size_t(p.frameType)] = p.pts + 1;
            ++received;
        }
    };
    while (running > 0)
        drain();
    for (auto &t : producers)
        t.join();
    drain();
    QVERIFY(ordered);
    QCOMPARE(received, kProducers * kPerProducer);
    QVERIFY(drainRequests >= 1);
}

void TestKestObject::bufferDataBounds_data()
{
    QTest::addColumn<int>("memSize");
    QTest::addColumn<int>("len");
    QTest::addColumn<int>("headroom");
    QTest::addColumn<bool>("valid");
    QTest::newRow("negative length") << 4096 << -1 << 0 << false;
    QTest::newRow("negative headroom") << 4096 << 10 << -5 << false;
    QTest::newRow("larger than the pool") << 4096 << 4097 << 0 << false;
    QTest::newRow("pool minus reserve fits") << 4096 << 4096 - KestObject::kBlockReserve << 0 << true;
    QTest::newRow("headroom pushes past the pool") << 4096 << 4000 << 200 << false;
    QTest::newRow("zero length") << 4096 << 0 << 0 << true;
    QTest::newRow("huge headroom") << 4096 << 1 << std::numeric_limits<int>::max() << false;
}

void TestKestObject::bufferDataBounds()
{
    QFETCH(int, memSize);
    QFETCH(int, len);
    QFETCH(int, headroom);
    QFETCH(bool, valid);
    KestObject node;
    node.setData({{QStringLiteral("memSize"), memSize}});
    char *block = node.bufferData(nullptr, len, headroom);
    QCOMPARE(block != nullptr, valid);
    if (block && len > 0)
        std::memset(block, 0x5a, size_t(len)); // the sanitizer build proves the bytes are ours
}

void TestKestObject::bufferDataHeadroomAndAlignment()
{
    KestObject node;
    node.setData({{QStringLiteral("memSize"), 1 << 16}});
    const QByteArray payload("audio-frame-bytes");
    for (int headroom : {0, 3, 20, 33}) {
        char *block = node.bufferData(payload.constData(), payload.size(), headroom);
        QVERIFY(block);
        QCOMPARE(QByteArray(block, payload.size()), payload);
        QCOMPARE(reinterpret_cast<quintptr>(block) % 16, quintptr(0));
        // Header bytes in front of the block must not disturb it or its neighbours.
        std::memset(block - KestObject::kBlockReserve - headroom, 0x7e, size_t(KestObject::kBlockReserve + headroom));
        QCOMPARE(QByteArray(block, payload.size()), payload);
    }
}

void TestKestObject::bufferDataBlocksDoNotOverlapUntilWrap()
{
    KestObject node;
    node.setData({{QStringLiteral("memSize"), 4096}});
    // 64-byte payloads need 80 bytes each with the reserve: 51 fit in the pool before it wraps.
    QVector<char *> blocks;
    for (int i = 0; i < 51; ++i) {
        char fill[64];
        std::memset(fill, i, sizeof fill);
        blocks << node.bufferData(fill, sizeof fill, 0);
        QVERIFY(blocks.last());
    }
    for (int i = 0; i < blocks.size(); ++i)
        for (int b = 0; b < 64; ++b)
            QCOMPARE(int(blocks[i][b]), i);
    // The next one reuses the start of the pool.
    char *wrapped = node.bufferData(nullptr, 64, 0);
    QCOMPARE(wrapped, blocks.first());
}

void TestKestObject::deliveryFollowsLinks()
{
    KestObject source;
    Recorder audioOnly, videoOnly, both, unlinked;
    source.link(&audioOnly, KestObject::Audio);
    source.link(&videoOnly, KestObject::Video);
    source.link(&both, KestObject::Both);
    QSignalSpy hostEvents(&source, &KestObject::eventSent);

    source.sendPacketA(packetWithPts(10));
    source.sendPacketV(packetWithPts(20));
    StreamInfo info;
    info.codec = KestCodec::AAC;
    source.sendInfoA(info);
    source.sendEvent(QStringLiteral("TALLY"), 1);

    // Delivery is synchronous: everything has arrived when the calls return.
    QCOMPARE(audioOnly.audio.size(), 1);
    QCOMPARE(audioOnly.video.size(), 0);
    QCOMPARE(videoOnly.video.size(), 1);
    QCOMPARE(videoOnly.audio.size(), 0);
    QCOMPARE(both.audio.size(), 1);
    QCOMPARE(both.video.size(), 1);
    QCOMPARE(both.infosA.size(), 1);
    QCOMPARE(videoOnly.infosA.size(), 0);
    QCOMPARE(unlinked.audio.size() + unlinked.events.size(), 0);
    QCOMPARE(audioOnly.events, QStringList{QStringLiteral("TALLY=1")});
    QCOMPARE(videoOnly.events, QStringList{QStringLiteral("TALLY=1")});
    QCOMPARE(hostEvents.size(), 1);
    QCOMPARE(hostEvents.first().at(0).toString(), QStringLiteral("TALLY"));

    source.unlink(&both);
    source.sendPacketA(packetWithPts(11));
    QCOMPARE(both.audio.size(), 1);
    QCOMPARE(audioOnly.audio.size(), 2);
}

void TestKestObject::linkReplaysAnnouncedStreams()
{
    KestObject source;
    StreamInfo video;
    video.codec = KestCodec::H264;
    video.params[QStringLiteral("width")] = 1920;
    source.sendInfoV(video);
    Recorder late;
    source.link(&late, KestObject::Both);
    QCOMPARE(late.infosV.size(), 1);
    QCOMPARE(late.infosV.first().params.value(QStringLiteral("width")).toInt(), 1920);
    QCOMPARE(late.infosA.size(), 0); // no audio was ever announced
}

void TestKestObject::setDataMergesThenCallsOnSetData()
{
    Recorder node;
    node.data[QStringLiteral("keep")] = 1;
    node.setData({{QStringLiteral("new"), 2}});
    QCOMPARE(node.setDataCalls, 1);
    QCOMPARE(node.data.value(QStringLiteral("keep")).toInt(), 1);
    QCOMPARE(node.data.value(QStringLiteral("new")).toInt(), 2);
    QCOMPARE(node.lastArgument, (QVariantMap{{QStringLiteral("new"), 2}}));
}

void TestKestObject::startAndStopDriveTheFlag()
{
    Recorder node;
    QVERIFY(!node.isStarted());
    node.start();
    QVERIFY(node.isStarted());
    QVERIFY(node.startedDuringOnStart);
    QCOMPARE(node.starts, 1);
    node.stop();
    QVERIFY(!node.isStarted());
    QCOMPARE(node.stops, 1);
    node.setName(QStringLiteral("relay"));
    QCOMPARE(node.name(), QStringLiteral("relay"));
}

void TestKestObject::clockOffsetShiftsHostClock()
{
    qint64 before = 0;
    KestHi::getPTS(&before, false);
    KestHi::setClockOffset(10 * 1000 * 1000);
    qint64 after = 0;
    KestHi::getPTS(&after, false);
    KestHi::setClockOffset(0);
    QVERIFY(after - before >= 10 * 1000 * 1000);
    QVERIFY(after - before < 11 * 1000 * 1000);
}

void TestKestObject::jsonRoundTrips_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QVariant>("value");
    QTest::newRow("object") << QStringLiteral("{\"data\":1,\"func\":\"TALLY\"}")
                            << QVariant(QVariantMap{{QStringLiteral("func"), QStringLiteral("TALLY")}, {QStringLiteral("data"), 1}});
    QTest::newRow("array") << QStringLiteral("[1,\"a\",true]") << QVariant(QVariantList{1, QStringLiteral("a"), true});
    QTest::newRow("top-level number") << QStringLiteral("42") << QVariant(42);
    QTest::newRow("top-level string") << QStringLiteral("\"x\"") << QVariant(QStringLiteral("x"));
}

void TestKestObject::jsonRoundTrips()
{
    QFETCH(QString, text);
    QFETCH(QVariant, value);
    QCOMPARE(Json::encode(value, false), text);
    const QVariant decoded = Json::decode(text);
    QCOMPARE(Json::encode(decoded, false), text);
}

void TestKestObject::jsonRejectsBadInput()
{
    QVERIFY(!Json::decode(QStringLiteral("{\"a\":")).isValid());
    QVERIFY(!Json::decode(QString()).isValid());
    QVERIFY(!Json::decode(QStringLiteral("1,2")).isValid());
    QVERIFY(Json::encode(QVariantMap{{QStringLiteral("a"), 1}}, true).contains(QLatin1Char('\n')));
}

void TestKestObject::jsonLoadFile()
{
    QTemporaryFile file;
    QVERIFY(file.open());
    file.write("{\"ndi\":{\"groups\":{\"recv\":\"Public\"}}}");
    file.close();
    const QVariantMap loaded = Json::loadFile(file.fileName()).toMap();
    QCOMPARE(loaded.value(QStringLiteral("ndi")).toMap().value(QStringLiteral("groups")).toMap().value(QStringLiteral("recv")).toString(),
             QStringLiteral("Public"));
    QVERIFY(!Json::loadFile(QStringLiteral("/nonexistent/ndi.json")).isValid());
}

void TestKestObject::gpioCallsAreRecorded()
{
    KestGPIO::clearCalls();
    KestGPIO gpio;
    gpio.setGPIO(QVariantList{QStringLiteral("GPIO_TEST_NOT_PRESENT"), 0});
    gpio.setGPIO(QVariantList{QStringLiteral("GPIO_TEST_NOT_PRESENT"), 1});
    const QList<KestGPIO::Call> calls = KestGPIO::calls();
    QCOMPARE(calls.size(), 2);
    QCOMPARE(calls[0].line, QStringLiteral("GPIO_TEST_NOT_PRESENT"));
    QCOMPARE(calls[0].value, 0);
    QCOMPARE(calls[1].value, 1);
    QVERIFY(!calls[0].applied);
    QVERIFY(calls[1].timeUs >= calls[0].timeUs);
}

namespace {
class PacketSink : public KestEncodeV
{
    Q_OBJECT
public:
    Packet last;
    StreamInfo lastInfo;
    int idrRequests = 0;
public Q_SLOTS:
    void onNewPacketV(Packet p) override { last = p; }
    void onNewInfoV(StreamInfo i) override { lastInfo = i; }
    QVariant idr() override { ++idrRequests; return true; }
};
} // namespace

void TestKestObject::metaTypesPassByName()
{
    // Packets and stream infos travel through invokeMethod by name, queued as well as direct.
    PacketSink sink;
    Packet p = packetWithPts(77);
    p.len = 5;
    QVERIFY(QMetaObject::invokeMethod(&sink, "onNewPacketV", Qt::QueuedConnection, Q_ARG(Packet, p)));
    StreamInfo info;
    info.codec = KestCodec::H265;
    QVERIFY(QMetaObject::invokeMethod(&sink, "onNewInfoV", Qt::DirectConnection, Q_ARG(StreamInfo, info)));
    QCOMPARE(sink.lastInfo.codec, int(KestCodec::H265));
    QTRY_COMPARE(sink.last.pts, 77);
    QCOMPARE(sink.last.len, 5);
    KestEncodeV *encoder = &sink;
    encoder->idr();
    QCOMPARE(sink.idrRequests, 1);
}

QTEST_GUILESS_MAIN(TestKestObject)
#include "tst_kestobject.moc"
