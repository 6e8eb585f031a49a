// The host substitute as the plug-in sees it: packet queues and memory, delivery along links,
// settings and start/stop, meta-types, and registration of the plug-in's classes by name.

#include "catalogue.h"
#include "packetqueue.h"
#include "recorder.h"
#include "registration.h"

#include <QLibrary>
#include <QSignalSpy>
#include <QTest>

#include <cstring>
#include <memory>

namespace {

Packet packetWithPts(qint64 pts)
{
    Packet p;
    p.pts = pts;
    return p;
}

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

// Its class name is taken by an unrelated type before it registers.
class ClashNode : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit ClashNode(QObject *parent = nullptr) : KestObject(parent) {}
};

} // namespace

class TestHost : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void packetQueues_data();
    void packetQueues();
    void bufferData_data();
    void bufferData();
    void bufferDataReusesThePoolOnlyWhenFull();
    void deliveryFollowsLinks();
    void settingsStartAndStop();
    void metaTypesPassByName();
    void everyClassIsCreatedByNameBothWays();
    void takenNameDoesNotAbort();
};

void TestHost::initTestCase()
{
    // The classes register themselves while the plug-in loads, as on the appliance.
    QLibrary library(QStringLiteral(KEST_LIBRARY_PATH));
    QVERIFY2(library.load(), qPrintable(library.errorString()));
}

void TestHost::packetQueues_data()
{
    QTest::addColumn<bool>("video");
    QTest::addColumn<QVariantMap>("settings");
    QTest::addColumn<int>("bound");
    QTest::newRow("bufLenV") << true << QVariantMap{{"bufLenV", 3}, {"bufLenA", 100}} << 3;
    QTest::newRow("bufLenA") << false << QVariantMap{{"bufLenV", 100}, {"bufLenA", 2}} << 2;
    QTest::newRow("default") << true << QVariantMap{} << int(KestObject::kDefaultQueueLength);
}

void TestHost::packetQueues()
{
    QFETCH(bool, video);
    QFETCH(QVariantMap, settings);
    QFETCH(int, bound);
    KestObject node;
    node.setData(settings);
    const auto buffer = [&](bool v, qint64 pts) { return v ? node.bufferPacketV(packetWithPts(pts)) : node.bufferPacketA(packetWithPts(pts)); };
    // Only the packet into an empty queue asks the caller to schedule a drain.
    int drainSignals = 0;
    for (int i = 0; i < bound + 10; ++i)
        drainSignals += buffer(video, i) ? 1 : 0;
    QCOMPARE(drainSignals, 1);
    QVERIFY(buffer(!video, 0)); // the other queue is independent
    // Past the bound the oldest go.
    QReadWriteLock &lock = video ? node.lockV : node.lockA;
    QList<Packet> &queue = video ? node.packetsV : node.packetsA;
    QCOMPARE(queue.size(), bound);
    Packet p;
    for (int i = 10; i < bound + 10; ++i) {
        QVERIFY(takePacket(lock, queue, p));
        QCOMPARE(p.pts, i);
    }
    QVERIFY(!takePacket(lock, queue, p));
    QVERIFY(buffer(video, 0)); // empty again
}

void TestHost::bufferData_data()
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
    QTest::newRow("huge headroom") << 1 << std::numeric_limits<int>::max() << false;
    QTest::newRow("zero length") << 0 << 0 << true;
    QTest::newRow("3-byte header") << 17 << 3 << true;
    QTest::newRow("odd headroom") << 17 << 33 << true;
}

void TestHost::bufferData()
{
    QFETCH(int, len);
    QFETCH(int, headroom);
    QFETCH(bool, valid);
    KestObject node;
    node.setData({{QStringLiteral("memSize"), 4096}});
    const QByteArray first("neighbour"), payload(qMax(len, 0), 'p');
    char *before = node.bufferData(first.constData(), first.size(), 0);
    char *block = node.bufferData(valid ? payload.constData() : nullptr, len, headroom);
    QCOMPARE(block != nullptr, valid);
    if (!block)
        return;
    QCOMPARE(reinterpret_cast<quintptr>(block) % 16, quintptr(0));
    // The reserve and the headroom in front are writable (the sanitizer build proves it) and
    // disturb neither the block nor the one before it.
    std::memset(block - KestObject::kBlockReserve - headroom, 0x7e, size_t(KestObject::kBlockReserve + headroom));
    QCOMPARE(QByteArray(block, len), payload);
    if (len < 4000) // a block that fills the pool reuses the start
        QCOMPARE(QByteArray(before, first.size()), first);
}

void TestHost::bufferDataReusesThePoolOnlyWhenFull()
{
    KestObject node;
    node.setData({{QStringLiteral("memSize"), 4096}});
    // 64-byte payloads need 80 bytes each with the reserve: 51 fit before the pool wraps.
    QVector<char *> blocks;
    for (int i = 0; i < 51; ++i) {
        const QByteArray fill(64, char(i));
        blocks << node.bufferData(fill.constData(), fill.size(), 0);
        QVERIFY(blocks.last());
    }
    for (int i = 0; i < blocks.size(); ++i)
        QCOMPARE(QByteArray(blocks[i], 64), QByteArray(64, char(i)));
    QCOMPARE(node.bufferData(nullptr, 64, 0), blocks.first());
}

void TestHost::deliveryFollowsLinks()
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
    // Synchronous: everything has arrived when the calls return.
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

void TestHost::settingsStartAndStop()
{
    Lifecycle node;
    node.data[QStringLiteral("keep")] = 1;
    node.setData({{QStringLiteral("new"), 2}});
    QCOMPARE(node.data, (QVariantMap{{QStringLiteral("keep"), 1}, {QStringLiteral("new"), 2}}));
    QCOMPARE(node.setDataCalls, (QList<QVariantMap>{QVariantMap{{QStringLiteral("new"), 2}}}));
    node.start();
    QCOMPARE(node.startedFlagInOnStart, QList<bool>{true});
    node.stop();
    QVERIFY(!node.isStarted());
    QCOMPARE(node.stops, 1);
}

void TestHost::metaTypesPassByName()
{
    Recorder sink;
    QVERIFY(QMetaObject::invokeMethod(&sink, "onNewPacketV", Qt::QueuedConnection, Q_ARG(Packet, packetWithPts(77))));
    StreamInfo info;
    info.codec = KestCodec::H265;
    QVERIFY(QMetaObject::invokeMethod(&sink, "onNewInfoV", Qt::DirectConnection, Q_ARG(StreamInfo, info)));
    QCOMPARE(sink.infosV.value(0).codec, int(KestCodec::H265));
    QTRY_COMPARE(sink.video.size(), 1);
    QCOMPARE(sink.video.first().pts, 77);
}

void TestHost::everyClassIsCreatedByNameBothWays()
{
    const QStringList names = nodeClassNames();
    for (const char *expected : {"KestIntercom", "KestIntercomServer", "KestNDIRecv", "KestNDISend", "KestTally",
                                 "KestTallyArbiter", "KestVMix"})
        QVERIFY2(names.contains(QLatin1String(expected)), expected);
    for (const NodeClass &nodeClass : nodeClasses()) {
        const QByteArray &name = nodeClass.name;
        const int id = QMetaType::type(name.constData());
        QCOMPARE(id, QMetaType::type(name + '*'));
        QVERIFY(QMetaType::typeFlags(id) & QMetaType::PointerToQObject);
        const QMetaObject *mo = QMetaType::metaObjectForType(id);
        QObject parent;
        QObject *withParent = mo->newInstance(Q_ARG(QObject *, &parent));
        QVERIFY2(withParent && withParent->parent() == &parent, name.constData());
        std::unique_ptr<QObject> withoutParent(mo->newInstance());
        QVERIFY2(qobject_cast<KestObject *>(withoutParent.get()) && !withoutParent->parent(), name.constData());
        QCOMPARE(QByteArray(withoutParent->metaObject()->className()), name);
        QVERIFY(std::unique_ptr<KestObject>(createNode(name)));
    }
}

void TestHost::takenNameDoesNotAbort()
{
    QMetaType::registerNormalizedTypedef("ClashNode", QMetaType::Int);
    QCOMPARE(Kest::registerClass<ClashNode>(), -1);
    QCOMPARE(QMetaType::type("ClashNode"), int(QMetaType::Int));
    QCOMPARE(QMetaType::metaObjectForType(QMetaType::type("ClashNode*")), &ClashNode::staticMetaObject);
    QVERIFY(!createNode("ClashNode"));
    QVERIFY(!nodeClassNames().contains(QStringLiteral("ClashNode")));
}

QTEST_GUILESS_MAIN(TestHost)
#include "tst_host.moc"
