// The host substitute's services to nodes: packet queues, packet memory, delivery along links,
// settings, start and stop, the meta-types.

#include "recorder.h"

#include "kestobject.h"
#include "packetqueue.h"

#include <QSignalSpy>
#include <QTest>

#include <cstring>
#include <vector>

namespace {

Packet packetWithPts(qint64 pts)
{
    Packet p;
    p.pts = pts;
    return p;
}

// Counts what the host's calls reach.
class Lifecycle : public KestObject
{
public:
    QList<QVariantMap> setDataCalls;
    QList<bool> startedFlagInOnStart;
    int stops = 0;
    void onSetData(QVariantMap m) override { setDataCalls << m; }
    void onStart() override { startedFlagInOnStart << isStarted(); }
    void onStop() override { ++stops; }
};

} // namespace

class TestKestObject : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void bufferPacketSignalsDrainOnlyWhenEmpty();
    void bufferPacketDropsOldestPastBound_data();
    void bufferPacketDropsOldestPastBound();
    void bufferDataBounds_data();
    void bufferDataBounds();
    void bufferDataHeadroomAndAlignment();
    void bufferDataBlocksDoNotOverlapUntilWrap();
    void deliveryFollowsLinks();
    void settingsStartAndStop();
    void metaTypesPassByName();
};

void TestKestObject::bufferPacketSignalsDrainOnlyWhenEmpty()
{
    KestObject node;
    QCOMPARE(node.bufferPacketA(packetWithPts(1)), 1);
    QCOMPARE(node.bufferPacketA(packetWithPts(2)), 0);
    Packet p;
    QVERIFY(takePacket(node.lockA, node.packetsA, p));
    QCOMPARE(p.pts, 1);
    QVERIFY(takePacket(node.lockA, node.packetsA, p));
    QCOMPARE(p.pts, 2);
    QVERIFY(!takePacket(node.lockA, node.packetsA, p));
    // Empty again: the next producer must schedule a drain again.
    QCOMPARE(node.bufferPacketA(packetWithPts(3)), 1);
    QCOMPARE(node.bufferPacketV(packetWithPts(4)), 1); // the two queues are independent
}

void TestKestObject::bufferPacketDropsOldestPastBound_data()
{
    QTest::addColumn<bool>("video");
    QTest::addColumn<QVariantMap>("settings");
    QTest::addColumn<int>("bound");
    QTest::newRow("bufLenV") << true << QVariantMap{{"bufLenV", 3}, {"bufLenA", 100}} << 3;
    QTest::newRow("bufLenA") << false << QVariantMap{{"bufLenV", 100}, {"bufLenA", 2}} << 2;
    QTest::newRow("default") << true << QVariantMap{} << int(KestObject::kDefaultQueueLength);
}

void TestKestObject::bufferPacketDropsOldestPastBound()
{
    QFETCH(bool, video);
    QFETCH(QVariantMap, settings);
    QFETCH(int, bound);
    KestObject node;
    node.setData(settings);
    for (int i = 0; i < bound + 10; ++i)
        video ? node.bufferPacketV(packetWithPts(i)) : node.bufferPacketA(packetWithPts(i));
    const QList<Packet> &queue = video ? node.packetsV : node.packetsA;
    QCOMPARE(queue.size(), bound);
    QCOMPARE(queue.first().pts, 10);
    QCOMPARE(queue.last().pts, bound + 9);
}

void TestKestObject::bufferDataBounds_data()
{
    QTest::addColumn<int>("len");
    QTest::addColumn<int>("headroom");
    QTest::addColumn<bool>("valid");
    // In a pool of 4096 bytes.
    QTest::newRow("negative length") << -1 << 0 << false;
    QTest::newRow("negative headroom") << 10 << -5 << false;
    QTest::newRow("larger than the pool") << 4097 << 0 << false;
    QTest::newRow("pool minus reserve fits") << 4096 - KestObject::kBlockReserve << 0 << true;
    QTest::newRow("headroom pushes past the pool") << 4000 << 200 << false;
    QTest::newRow("zero length") << 0 << 0 << true;
    QTest::newRow("huge headroom") << 1 << std::numeric_limits<int>::max() << false;
}

void TestKestObject::bufferDataBounds()
{
    QFETCH(int, len);
    QFETCH(int, headroom);
    QFETCH(bool, valid);
    KestObject node;
    node.setData({{QStringLiteral("memSize"), 4096}});
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
        const QByteArray fill(64, char(i));
        blocks << node.bufferData(fill.constData(), fill.size(), 0);
        QVERIFY(blocks.last());
    }
    for (int i = 0; i < blocks.size(); ++i)
        QCOMPARE(QByteArray(blocks[i], 64), QByteArray(64, char(i)));
    QCOMPARE(node.bufferData(nullptr, 64, 0), blocks.first()); // the next one reuses the start
}

void TestKestObject::deliveryFollowsLinks()
{
    KestObject source;
    StreamInfo video;
    video.codec = KestCodec::H264;
    source.sendInfoV(video);
    Recorder audioOnly, videoOnly, both;
    source.link(&audioOnly, KestObject::Audio);
    source.link(&videoOnly, KestObject::Video);
    source.link(&both, KestObject::Both);
    // A new link hears of the streams announced before it.
    QCOMPARE(videoOnly.infosV.size(), 1);
    QCOMPARE(both.infosV.first().codec, int(KestCodec::H264));
    QCOMPARE(audioOnly.infosV.size() + both.infosA.size(), 0);

    QSignalSpy hostEvents(&source, &KestObject::eventSent);
    source.sendPacketA(packetWithPts(10));
    source.sendPacketV(packetWithPts(20));
    source.sendInfoA(StreamInfo());
    source.sendEvent(QStringLiteral("TALLY"), 1);
    // Delivery is synchronous: everything has arrived when the calls return.
    QCOMPARE(audioOnly.audio.size() + audioOnly.video.size() + audioOnly.infosA.size(), 2);
    QCOMPARE(videoOnly.audio.size() + videoOnly.video.size() + videoOnly.infosA.size(), 1);
    QCOMPARE(both.audio.size() + both.video.size() + both.infosA.size(), 3);
    for (const Recorder *r : {&audioOnly, &videoOnly, &both})
        QCOMPARE(r->events, QStringList{QStringLiteral("TALLY=1")});
    QCOMPARE(hostEvents.size(), 1);
    QCOMPARE(hostEvents.first().at(0).toString(), QStringLiteral("TALLY"));

    source.unlink(&both);
    source.sendPacketA(packetWithPts(11));
    QCOMPARE(both.audio.size(), 1);
    QCOMPARE(audioOnly.audio.size(), 2);
}

void TestKestObject::settingsStartAndStop()
{
    Lifecycle node;
    node.data[QStringLiteral("keep")] = 1;
    node.setData({{QStringLiteral("new"), 2}});
    QCOMPARE(node.data, (QVariantMap{{QStringLiteral("keep"), 1}, {QStringLiteral("new"), 2}}));
    QCOMPARE(node.setDataCalls, (QList<QVariantMap>{QVariantMap{{QStringLiteral("new"), 2}}}));
    node.start();
    QVERIFY(node.isStarted());
    QCOMPARE(node.startedFlagInOnStart, QList<bool>{true});
    node.stop();
    QVERIFY(!node.isStarted());
    QCOMPARE(node.stops, 1);
}

void TestKestObject::metaTypesPassByName()
{
    // Packets and stream infos travel through invokeMethod by name, queued as well as direct.
    Recorder sink;
    QVERIFY(QMetaObject::invokeMethod(&sink, "onNewPacketV", Qt::QueuedConnection, Q_ARG(Packet, packetWithPts(77))));
    StreamInfo info;
    info.codec = KestCodec::H265;
    QVERIFY(QMetaObject::invokeMethod(&sink, "onNewInfoV", Qt::DirectConnection, Q_ARG(StreamInfo, info)));
    QCOMPARE(sink.infosV.value(0).codec, int(KestCodec::H265));
    QVERIFY(sink.video.isEmpty());
    QTRY_COMPARE(sink.video.size(), 1);
    QCOMPARE(sink.video.first().pts, 77);
}

QTEST_GUILESS_MAIN(TestKestObject)
#include "tst_kestobject.moc"
