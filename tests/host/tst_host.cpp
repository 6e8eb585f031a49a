// The host substitute as the plug-in sees it: the declared layout of KestObject, packet queues
// and memory, delivery along links, settings and start/stop, meta-types, log lines, and
// registration of the plug-in's classes by name.

#include "catalogue.h"
#include "json.h"
#include "jsonscreen.h"
#include "packetqueue.h"
#include "recorder.h"
#include "registration.h"

#include <QFile>
#include <QLibrary>
#include <QMetaMethod>
#include <QSignalSpy>
#include <QTest>

#include <cstring>
#include <memory>
#include <new>
#include <random>

#include <sys/resource.h>
#include <unistd.h>

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

// The vtable slot a pointer to a virtual member function stands for (Itanium C++ ABI; ARM
// marks virtual in the adjustment instead of the pointer), -1 for a non-virtual one.
template <typename Member>
int vtableSlot(Member member)
{
    struct Representation
    {
        ptrdiff_t ptr;
        ptrdiff_t adj;
    } r;
    static_assert(sizeof(member) == sizeof(r), "Itanium member function pointers");
    std::memcpy(&r, &member, sizeof(r));
#if defined(__arm__) || defined(__aarch64__)
    return r.adj & 1 ? int(r.ptr / ptrdiff_t(sizeof(void *))) : -1;
#else
    return r.ptr & 1 ? int((r.ptr - 1) / ptrdiff_t(sizeof(void *))) : -1;
#endif
}

struct FirstVirtualAfterQObject : QObject
{
    virtual void first() {}
};

#if defined(__SANITIZE_ADDRESS__)
// A failed allocation must reach the code under test as it does without the sanitizer.
extern "C" const char *__asan_default_options()
{
    return "allocator_may_return_null=1";
}
#endif

// Virtual memory in use now, in bytes.
qint64 virtualMemory()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return -1;
    return statm.readAll().split(' ').value(0).toLongLong() * sysconf(_SC_PAGESIZE);
}

} // namespace

class TestHost : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void layoutIsTheDeclaredOne();
    void packetQueues_data();
    void packetQueues();
    void bufferData_data();
    void bufferData();
    void poolKeepsBlocksByItsRule();
    void poolThatCannotBeAllocated();
    void deliveryFollowsLinks();
    void deliveryNeverReentersANode();
    void settingsStartAndStop();
    void metaTypesPassByName();
    void nodeLogLines();
    void untrustedJson_data();
    void untrustedJson();
    void everyClassIsCreatedByNameBothWays();
    void takenNameDoesNotAbort();
};

void TestHost::initTestCase()
{
    // The classes register themselves while the plug-in loads, as on the appliance.
    QLibrary library(QStringLiteral(KEST_LIBRARY_PATH));
    QVERIFY2(library.load(), qPrintable(library.errorString()));
}

void TestHost::layoutIsTheDeclaredOne()
{
    // Data members in the declared order, nothing in between, right after QObject's own.
    KestObject o;
    const auto at = [&o](const auto &member) {
        return ptrdiff_t(reinterpret_cast<const char *>(&member) - reinterpret_cast<const char *>(&o));
    };
    struct Member
    {
        const char *name;
        ptrdiff_t offset, size, align;
    };
#define KEST_MEMBER(m) Member{#m, at(o.m), ptrdiff_t(sizeof(o.m)), ptrdiff_t(alignof(decltype(o.m)))}
    const Member members[] = {KEST_MEMBER(data),     KEST_MEMBER(status),   KEST_MEMBER(props),
                              KEST_MEMBER(infoA),    KEST_MEMBER(infoV),    KEST_MEMBER(outInfoA),
                              KEST_MEMBER(outInfoV), KEST_MEMBER(shareInfo), KEST_MEMBER(links),
                              KEST_MEMBER(lockA),    KEST_MEMBER(packetsA), KEST_MEMBER(lockV),
                              KEST_MEMBER(packetsV), KEST_MEMBER(shares),   KEST_MEMBER(typeName),
                              KEST_MEMBER(typeId)};
#undef KEST_MEMBER
    ptrdiff_t expected = sizeof(QObject);
    for (const Member &m : members) {
        expected = (expected + m.align - 1) / m.align * m.align;
        QVERIFY2(m.offset == expected, m.name);
        expected += m.size;
    }

    // Virtual operations in the declared order, right after QObject's.
    const int first = vtableSlot(&FirstVirtualAfterQObject::first);
    QVERIFY(first > 0);
    const int order[] = {vtableSlot(&KestObject::onNewPacketA), vtableSlot(&KestObject::onNewPacketV),
                         vtableSlot(&KestObject::onUnLinkA),    vtableSlot(&KestObject::onUnLinkV),
                         vtableSlot(&KestObject::onNewEvent),   vtableSlot(&KestObject::onNewInfoA),
                         vtableSlot(&KestObject::onNewInfoV),   vtableSlot(&KestObject::onSetData),
                         vtableSlot(&KestObject::onStart),      vtableSlot(&KestObject::onStop)};
    for (int i = 0; i < 10; ++i)
        QCOMPARE(order[i], first + i);

    // The same order among the meta-object's slots, which the host invokes by name.
    QStringList slotNames;
    const QMetaObject &mo = KestObject::staticMetaObject;
    for (int i = mo.methodOffset(); i < mo.methodCount(); ++i)
        if (mo.method(i).methodType() == QMetaMethod::Slot)
            slotNames << QString::fromLatin1(mo.method(i).methodSignature());
    QCOMPARE(slotNames.join(' '), QStringLiteral("onNewPacketA(Packet) onNewPacketV(Packet) onUnLinkA(StreamInfo) "
                                                 "onUnLinkV(StreamInfo) onNewEvent(QString,QVariant) "
                                                 "onNewInfoA(StreamInfo) onNewInfoV(StreamInfo) "
                                                 "onSetData(QVariantMap) onStart() onStop()"));
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
    QByteArray first("neighbour"), payload(qMax(len, 0), 'p');
    char *before = node.bufferData(first.data(), first.size(), 0);
    char *block = node.bufferData(valid ? payload.data() : nullptr, len, headroom);
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

void TestHost::poolKeepsBlocksByItsRule()
{
    // Blocks of unequal sizes and headrooms; each block must keep its bytes for as long as the
    // rule in kestobject.h promises: while the blocks taken after it, each counted as length +
    // headroom + 32, add up to no more than memSize - 2 x the largest count among them and it.
    constexpr int kPool = 64 * 1024;
    KestObject node;
    node.setData({{QStringLiteral("memSize"), kPool}});
    struct Live
    {
        char *block;
        QByteArray bytes;
        qint64 takenAfter, largest;
    };
    QVector<Live> live;
    std::mt19937 random(12345);
    int wraps = 0;
    char *previous = nullptr;
    for (int i = 0; i < 4000; ++i) {
        const int len = int(random() % 9000) + (i % 7 == 0 ? 0 : 1);
        const int headroom = int(random() % 3) * 10;
        QByteArray bytes(len, char('a' + i % 26));
        char *block = node.bufferData(bytes.data(), len, headroom);
        QVERIFY(block);
        wraps += previous && block < previous ? 1 : 0;
        previous = block;
        const qint64 count = len + headroom + 32;
        for (Live &l : live) {
            l.takenAfter += count;
            l.largest = qMax(l.largest, count);
        }
        live.erase(std::remove_if(live.begin(), live.end(),
                                  [](const Live &l) { return l.takenAfter > kPool - 2 * l.largest; }),
                   live.end());
        for (const Live &l : qAsConst(live))
            QVERIFY2(QByteArray(l.block, l.bytes.size()) == l.bytes, qPrintable(QString::number(i)));
        live.append({block, bytes, 0, count});
    }
    QVERIFY(wraps > 100);
}

void TestHost::poolThatCannotBeAllocated()
{
    // The pool is taken on first use; when the address space cannot hold it, the node gets
    // null, never an exception.
    const qint64 inUse = virtualMemory();
    QVERIFY(inUse > 0);
    rlimit saved{};
    QCOMPARE(getrlimit(RLIMIT_AS, &saved), 0);
    rlimit tight = saved;
    tight.rlim_cur = rlim_t(inUse + 256 * 1024 * 1024);
    if (saved.rlim_cur != RLIM_INFINITY && saved.rlim_cur < tight.rlim_cur)
        tight.rlim_cur = saved.rlim_cur;
    QCOMPARE(setrlimit(RLIMIT_AS, &tight), 0);
    std::unique_ptr<char[]> probe(new (std::nothrow) char[2000000000]);
    KestObject node;
    node.setData({{QStringLiteral("memSize"), 2000000000}});
    char *block = probe ? nullptr : node.bufferData(nullptr, 100, 0);
    setrlimit(RLIMIT_AS, &saved);
    if (probe)
        QSKIP("the address space limit does not hold here (an emulator's own mapping)");
    QVERIFY(!block);
    node.setData({{QStringLiteral("memSize"), 4096}}); // a pool that fits is taken on the next call
    QVERIFY(node.bufferData(nullptr, 100, 0));
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

void TestHost::deliveryNeverReentersANode()
{
    // A node that answers every event with the same event, in a ring of links and linked to
    // itself: each node hears one event once per delivery, and nothing recurses.
    class Echo : public KestObject
    {
    public:
        int heard = 0;
        void onNewEvent(QString type, QVariant info) override
        {
            ++heard;
            sendEvent(type, info);
        }
    };
    Echo a, b;
    a.link(&b, KestObject::Audio);
    b.link(&a, KestObject::Video);
    b.link(&b, KestObject::Both);
    a.sendEvent(QStringLiteral("TALLY"), 1);
    QCOMPARE(b.heard, 1);
    QCOMPARE(a.heard, 1);
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

void TestHost::nodeLogLines()
{
    // Node log lines are debug messages in the "default" category, prefixed "[name] ".
    static QStringList seen;
    seen.clear();
    const QtMessageHandler previous = qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &context,
                                                                const QString &message) {
        seen << QStringLiteral("%1 %2 %3").arg(int(type)).arg(QLatin1String(context.category), message);
    });
    std::unique_ptr<KestObject> node(createNode("KestIntercom"));
    node->setName(QStringLiteral("station"));
    node->setData({{QStringLiteral("ip"), QStringLiteral("no address")}, {QStringLiteral("hid"), QString()}});
    qInstallMessageHandler(previous);
    QVERIFY2(seen.contains(QStringLiteral("0 default [station] relay address no address is not an IP address; nothing is sent")),
             qPrintable(seen.join('\n')));
}

void TestHost::untrustedJson_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("outcome");
    QTest::addColumn<QByteArray>("decoded"); // Json::decode, compact; "" for invalid
    const int unchanged = int(JsonScreen::Outcome::Unchanged), rewritten = int(JsonScreen::Outcome::Rewritten),
              refused = int(JsonScreen::Outcome::Refused);
    QTest::newRow("repeated key, array first") << QByteArray(R"({"a":[1],"a":2})") << rewritten << QByteArray(R"({"a":2})");
    QTest::newRow("repeated key, objects") << QByteArray(R"({"a":{"x":1},"a":{"y":[2.5,"é"]}})") << rewritten
                                           << QByteArray(R"({"a":{"y":[2.5,"é"]}})");
    QTest::newRow("repeated key in a kept value") << QByteArray(R"([{"k":{"b":[1],"b":1.0}},7])") << rewritten
                                                  << QByteArray(R"([{"k":{"b":1}},7])");
    QTest::newRow("escaped spelling repeats") << QByteArray(R"({"a":[1],"a":null})") << rewritten << QByteArray(R"({"a":null})");
    QTest::newRow("same key in sibling objects") << QByteArray(R"([{"a":[1]},{"a":[2]}])") << unchanged << QByteArray(R"([{"a":[1]},{"a":[2]}])");
    QTest::newRow("scalar") << QByteArray("\"ok\"") << unchanged << QByteArray("\"ok\"");
    QTest::newRow("lenient Qt text without objects") << QByteArray("[1., \"\t\\x\"]") << unchanged << QByteArray(R"([1,"\tx"])");
    QTest::newRow("lenient Qt text with an object") << QByteArray("{\"a\":\"\t\"}") << refused << QByteArray();
    QTest::newRow("nested deeper than Qt takes") << QByteArray(1100, '[') + QByteArray(1100, ']') << refused << QByteArray();
    QTest::newRow("not JSON") << QByteArray(R"({"a":)") << refused << QByteArray();
}

void TestHost::untrustedJson()
{
    QFETCH(QByteArray, text);
    QFETCH(int, outcome);
    QFETCH(QByteArray, decoded);
    JsonScreen::Outcome got{};
    const QByteArray screened = JsonScreen::screen(text, &got);
    QCOMPARE(int(got), outcome);
    if (got == JsonScreen::Outcome::Unchanged)
        QCOMPARE(screened, text);
    const QVariant value = Json::decode(QString::fromUtf8(text));
    QCOMPARE(value.isValid() ? Json::encode(value, false).toUtf8() : QByteArray(), decoded);
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
