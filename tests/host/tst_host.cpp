// The host substitute as the plug-in sees it: the declared layout of KestObject, packet memory,
// delivery along links, log lines, and JSON from outside the process. Its packet
// queues are tests/host/queuestress.cpp's.

#include "json.h"
#include "jsonscreen.h"
#include "nodelog.h"
#include "recorder.h"

#include <QFile>
#include <QTest>

#include <climits>
#include <cstring>
#include <random>

#include <sys/resource.h>
#include <unistd.h>

// The vtable slot a pointer to a virtual member function stands for (Itanium C++ ABI; ARM
// marks virtual in the adjustment instead of the pointer).
template <typename Member>
int vtableSlot(Member member)
{
    ptrdiff_t r[2]; // pointer, adjustment
    std::memcpy(r, &member, sizeof(r));
#if defined(__arm__) || defined(__aarch64__)
    return r[1] & 1 ? int(r[0] / ptrdiff_t(sizeof(void *))) : -1;
#else
    return r[0] & 1 ? int((r[0] - 1) / ptrdiff_t(sizeof(void *))) : -1;
#endif
}

struct FirstVirtualAfterQObject : QObject { virtual void first() {} };

class TestHost : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void layoutIsTheDeclaredOne()
    {
        // Data members in the declared order, nothing in between, right after QObject's own.
        KestObject o;
        ptrdiff_t at = sizeof(QObject);
        const auto next = [&](const auto &member, const char *name) {
            const ptrdiff_t align = alignof(std::remove_reference_t<decltype(member)>);
            at = (at + align - 1) / align * align;
            QVERIFY2(reinterpret_cast<const char *>(&member) - reinterpret_cast<const char *>(&o) == at, name);
            at += sizeof(member);
        };
#define KEST_NEXT(m) next(o.m, #m);
        KEST_NEXT(data) KEST_NEXT(status) KEST_NEXT(props) KEST_NEXT(infoA) KEST_NEXT(infoV) KEST_NEXT(outInfoA) KEST_NEXT(outInfoV)
        KEST_NEXT(shareInfo) KEST_NEXT(links) KEST_NEXT(lockA) KEST_NEXT(packetsA) KEST_NEXT(lockV) KEST_NEXT(packetsV)
        KEST_NEXT(shares) KEST_NEXT(typeName) KEST_NEXT(typeId)
#undef KEST_NEXT
        // Virtual operations in the declared order right after QObject's, and the same order at the
        // end of the meta-object's methods, where the host finds the slots it invokes by name.
        const QMetaObject &mo = KestObject::staticMetaObject;
        int slot = vtableSlot(&FirstVirtualAfterQObject::first), method = mo.methodCount() - 10;
#define KEST_SLOT(m, parameters) QCOMPARE(vtableSlot(&KestObject::m), slot++); QCOMPARE(mo.indexOfSlot(#m parameters), method++);
        KEST_SLOT(onNewPacketA, "(Packet)") KEST_SLOT(onNewPacketV, "(Packet)") KEST_SLOT(onUnLinkA, "(StreamInfo)") KEST_SLOT(onUnLinkV, "(StreamInfo)")
        KEST_SLOT(onNewEvent, "(QString,QVariant)") KEST_SLOT(onNewInfoA, "(StreamInfo)") KEST_SLOT(onNewInfoV, "(StreamInfo)")
        KEST_SLOT(onSetData, "(QVariantMap)") KEST_SLOT(onStart, "()") KEST_SLOT(onStop, "()")
#undef KEST_SLOT
    }

    void bufferData()
    {
        // Blocks of unequal sizes and headrooms, empty and 1-byte ones among them, round a 64 KiB
        // pool: each is 16-byte aligned, the reserve and headroom in front are the node's to
        // write, and it keeps its bytes as long as the rule in kestobject.h promises. Then a
        // pool that cannot be allocated.
        constexpr int kPool = 64 * 1024;
        KestObject node;
        node.setData({{QStringLiteral("memSize"), kPool}});
        QVERIFY(!node.bufferData(nullptr, -1, 0) && !node.bufferData(nullptr, 1, -1) && !node.bufferData(nullptr, 1, INT_MAX));
        QVERIFY(!node.bufferData(nullptr, kPool, 0) && node.bufferData(nullptr, kPool - KestObject::kBlockReserve, 0));
        struct Live { char *block; QByteArray bytes; qint64 takenAfter, largest; }; // counted as length + headroom + 32
        QVector<Live> live;
        std::mt19937 random(12345);
        for (int i = 0; i < 4000; ++i) {
            const int len = i % 40 < 2 ? i % 40 : int(random() % 9000), headroom = int(random() % 3) * 10 + i % 2 * 3;
            QByteArray bytes(len, char('a' + i % 26));
            char *block = node.bufferData(bytes.data(), len, headroom);
            QVERIFY(block && reinterpret_cast<quintptr>(block) % 16 == 0);
            std::memset(block - KestObject::kBlockReserve - headroom, 0x7e, size_t(KestObject::kBlockReserve + headroom));
            for (Live &l : live)
                l = {l.block, l.bytes, l.takenAfter + len + headroom + 32, qMax<qint64>(l.largest, len + headroom + 32)};
            live.erase(std::remove_if(live.begin(), live.end(), [](const Live &l) { return l.takenAfter > kPool - 2 * l.largest; }), live.end());
            live.append({block, bytes, 0, len + headroom + 32});
            for (const Live &l : qAsConst(live))
                QVERIFY2(QByteArray(l.block, l.bytes.size()) == l.bytes, qPrintable(QString::number(i)));
        }

        // The pool is taken on first use; when the address space cannot hold it, the node gets
        // null, never an exception, and a pool that fits is taken on a later call.
        QFile statm(QStringLiteral("/proc/self/statm"));
        rlimit saved{};
        QVERIFY(statm.open(QIODevice::ReadOnly) && getrlimit(RLIMIT_AS, &saved) == 0);
        const qint64 inUse = statm.readAll().split(' ')[0].toLongLong() * sysconf(_SC_PAGESIZE);
        const rlimit tight{std::min(saved.rlim_cur, rlim_t(inUse + (256 << 20))), saved.rlim_max};
        QCOMPARE(setrlimit(RLIMIT_AS, &tight), 0);
        std::unique_ptr<char[]> probe(new (std::nothrow) char[2000000000]);
        KestObject huge;
        huge.setData({{QStringLiteral("memSize"), 2000000000}});
        char *block = probe ? nullptr : huge.bufferData(nullptr, 100, 0);
        setrlimit(RLIMIT_AS, &saved);
        if (probe)
            QSKIP("the address space limit does not hold here (an emulator's own mapping)");
        QVERIFY(!block);
        huge.setData({{QStringLiteral("memSize"), 4096}});
        QVERIFY(huge.bufferData(nullptr, 100, 0));
    }

    void deliveryAndLogLines()
    {
        // Synchronous, along the links of each medium; a new link hears of the video announced
        // before it; an unlinked node hears no more. (That delivery never re-enters a node is
        // host_delivery's, through kest-run.) Log lines are debug messages in the "default"
        // category, a node's with "[name] " in front.
        static QStringList seen;
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &context, const QString &message) {
            seen << QStringLiteral("%1 %2 %3").arg(int(type)).arg(QLatin1String(context.category), message);
        });
        KestObject source;
        source.setName(QStringLiteral("station"));
        nodeLog(&source) << "relay address" << 7 << "is not an IP address";
        qInstallMessageHandler(nullptr);
        QCOMPARE(seen, QStringList{"0 default [station] relay address 7 is not an IP address"});
        source.sendInfoV({KestCodec::H264, {}, nullptr});
        Recorder audio, video, both;
        for (const auto &[r, media] : {std::pair{&audio, KestObject::Audio}, std::pair{&video, KestObject::Video}, std::pair{&both, KestObject::Both}})
            source.link(r, media);
        source.sendPacketA({});
        source.sendPacketV({});
        source.sendEvent(QStringLiteral("TALLY"), 1);
        source.unlink(&both);
        source.sendPacketA({});
        for (const auto &[r, heard] : {qMakePair(&audio, QStringLiteral("0 2 0 TALLY=1")), qMakePair(&video, QStringLiteral("1 0 1 TALLY=1")),
                                      qMakePair(&both, QStringLiteral("1 1 1 TALLY=1"))})
            QCOMPARE(QStringLiteral("%1 %2 %3 ").arg(r->infosV.size()).arg(r->audio.size()).arg(r->video.size()) + r->events.join(' '), heard);
    }

    void untrustedJson()
    {
        // Through the screen (outcome 0 unchanged, 1 rewritten, 2 refused) and Json::decode:
        // a repeated key keeps its last value; Qt's lenient text without objects goes to Qt as
        // it is; nesting deeper than Qt takes is refused.
        const auto screened = [](const QByteArray &text) {
            JsonScreen::Outcome outcome{};
            JsonScreen::screen(text, &outcome);
            return QString::number(int(outcome)) + ' ' + Json::encode(Json::decode(QString::fromUtf8(text)), false);
        };
        QCOMPARE(screened(R"({"a":[1],"a":2})"), QStringLiteral(R"(1 {"a":2})"));
        QCOMPARE(screened("[1., \"\t\\x\"]"), QStringLiteral(R"(0 [1,"\tx"])"));
        QCOMPARE(screened(QByteArray(1100, '[') + QByteArray(1100, ']')), QStringLiteral("2 null"));
    }
};

QTEST_GUILESS_MAIN(TestHost)
#include "tst_host.moc"
