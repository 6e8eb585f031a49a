// The NDI runtime loader. It resolves once per process, so CTest runs each case as its own
// process with its own environment (tests/ndi/CMakeLists.txt); KEST_LOADER_CASE names it.

#include "kestencodev.h"
#include "kesttest.h"
#include "ndi/kestndisend.h"
#include "ndi/ndiruntime.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <dlfcn.h>

#include <memory>
#include <set>
#include <vector>

namespace {

QStringList logLines;

// A test-control function of the runtime the loader loaded. Looked up rather than linked: the
// case decides which runtime that is.
template <typename F>
F control(const char *name)
{
    const QString file = NdiRuntime::instance().fileName();
    void *handle = file.isEmpty() ? nullptr : ::dlopen(QFile::encodeName(file).constData(), RTLD_NOW | RTLD_NOLOAD);
    return handle ? reinterpret_cast<F>(::dlsym(handle, name)) : nullptr;
}

// Describes both streams and hands the node one video and one audio packet; the number of
// frames its sender then holds (-1: there is no sender).
int feed(KestNDISend &node, int frameType)
{
    KestEncodeV encoder;
    QByteArray bytes("frame");
    node.onNewInfoV({KestCodec::H264, {{"width", 1920}, {"height", 1080}, {"extradata", QByteArray("SPSPPS")}}, &encoder});
    node.onNewInfoA({KestCodec::AAC, {{"samplerate", 48000}, {"channels", 2}, {"frame_size", 1024}, {"extradata", QByteArray("\x11\x90")}}, nullptr});
    Packet pkt;
    pkt.data = bytes.data();
    pkt.len = bytes.size();
    pkt.frameType = frameType;
    pkt.source = &encoder;
    node.onNewPacketV(pkt);
    node.onNewPacketA(pkt);
    const auto senderAt = control<decltype(&kesttest_sender_at)>("kesttest_sender_at");
    const auto senderInfo = control<decltype(&kesttest_sender_info)>("kesttest_sender_info");
    kesttest_sender_info_t info{};
    return senderAt && senderInfo(senderAt(0), &info) ? int(info.video_frames + info.audio_frames) : -1;
}

const QStringList kAdvancedFunctions{"NDIlib_recv_create_v4", "NDIlib_send_create_v2", "NDIlib_send_is_keyframe_required",
                                     "NDIlib_send_send_video_scatter", "NDIlib_send_send_audio_scatter"};

} // namespace

class TestNdiLoader : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void runtimeAbsent();
    void runtimeWithoutAdvanced();
    void runtimeFound();

private:
    static bool isCase(const char *name) { return qgetenv("KEST_LOADER_CASE") == name; }
};

void TestNdiLoader::initTestCase()
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &message) { logLines << message; });
}

void TestNdiLoader::runtimeAbsent()
{
    if (!isCase("absent"))
        QSKIP("runs through ctest, which sets up the environment of this case");
    const NdiRuntime &runtime = NdiRuntime::instance();
    QVERIFY(!runtime.isAvailable() && runtime.fileName().isEmpty());
    // One line names what was tried and why it failed.
    const QString problem = runtime.problem();
    QVERIFY2(problem.startsWith("NDI unavailable: cannot load libndi.so.5 or libndi.so.6 ("), qPrintable(problem));
    for (const QString &tried : {qEnvironmentVariable("NDI_RUNTIME_DIR_V5") + "/libndi.so.5", QString("NDI_RUNTIME_DIR_V6 is not set"),
                                 QString("libndi_advanced.so.6: cannot open"), QString("libndi.so.6: cannot open")})
        QVERIFY2(problem.contains(tried), qPrintable(problem));

    // Nodes stay idle: nothing crashes, nothing waits, and the problem is logged once.
    QElapsedTimer elapsed;
    elapsed.start();
    KestNDISend first, second;
    first.setName("first");
    for (KestNDISend *node : {&first, &second}) {
        node->setData({{"name", "a"}});
        node->start();
    }
    QCOMPARE(feed(first, 0), -1);
    first.onTimer();
    QCOMPARE(first.getTally(), QVariant(QVariantMap{{"program", false}, {"preview", false}}));
    first.stop();
    QVERIFY(first.packetsV.isEmpty() && first.packetsA.isEmpty());
    QVERIFY2(elapsed.elapsed() < 900, "no sender was created, so nothing is spaced");
    QCOMPARE(logLines, QStringList{"[first] " + runtime.problem()});
}

void TestNdiLoader::runtimeWithoutAdvanced()
{
    if (!isCase("standard"))
        QSKIP("runs through ctest, which sets up the environment of this case");
    const NdiRuntime &runtime = NdiRuntime::instance();
    QVERIFY(runtime.isAvailable());
    QCOMPARE(runtime.missingFunctions(), kAdvancedFunctions);
    QVERIFY(runtime.problem().startsWith("NDI runtime " KEST_NDI_STANDARD_RUNTIME_DIR "/libndi.so.5 lacks the Advanced SDK functions "
                                         + kAdvancedFunctions.join(", ")));

    // What does not need the Advanced SDK still works: the source exists with its
    // capabilities, and the tally comes back. Compressed media cannot go out.
    KestNDISend node;
    node.setName("ndi");
    node.setData({{"name", "plain"}, {"config", "/nonexistent"}});
    node.start();
    QCOMPARE(logLines, (QStringList{"[ndi] " + runtime.problem(), "[ndi] NDI create"}));
    const auto senderInfo = control<decltype(&kesttest_sender_info)>("kesttest_sender_info");
    const auto senderAt = control<decltype(&kesttest_sender_at)>("kesttest_sender_at");
    kesttest_sender_info_t info{};
    QVERIFY(senderInfo && senderInfo(senderAt(0), &info));
    QCOMPARE(QByteArray(info.p_ndi_name), QByteArray("plain"));
    QVERIFY(!info.created_with_config);
    QCOMPARE(info.no_connection_metadata, 1);

    const NdiFunctions &f = runtime.functions();
    NDIlib_find_instance_t finder = f.find_create_v2(nullptr);
    uint32_t count = 0;
    const NDIlib_source_t *sources = f.find_get_current_sources(finder, &count);
    QCOMPARE(count, 1u);
    NDIlib_recv_create_v3_t settings{};
    settings.source_to_connect_to = sources[0];
    settings.bandwidth = NDIlib_recv_bandwidth_highest;
    NDIlib_recv_instance_t receiver = f.recv_create_v3(&settings);
    const NDIlib_tally_t onAir{true, false};
    QVERIFY(f.recv_set_tally(receiver, &onAir));
    QSignalSpy events(&node, &KestObject::eventSent);
    node.onTimer();
    QCOMPARE(events.count(), 1);
    QCOMPARE(node.getTally(), QVariant(QVariantMap{{"program", true}, {"preview", false}}));

    QCOMPARE(feed(node, 1), 0); // a receiver waits for a key frame, but nobody can be asked for one
    f.recv_destroy(receiver);
    f.find_destroy(finder);
    node.stop();
}

void TestNdiLoader::runtimeFound()
{
    if (!isCase("found"))
        QSKIP("runs through ctest, which sets up the environment of this case");
    // Many first callers at once still load once and share one result.
    std::vector<const NdiRuntime *> seen(8, nullptr);
    std::vector<std::unique_ptr<QThread>> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back(QThread::create([&seen, i] { seen[i] = &NdiRuntime::instance(); }));
    for (auto &t : threads)
        t->start();
    for (auto &t : threads)
        QVERIFY(t->wait(10000));
    QCOMPARE(std::set<const NdiRuntime *>(seen.begin(), seen.end()).size(), size_t(1));

    // The folder of NDI_RUNTIME_DIR_V5 wins over the loader's path, and version 5 over version 6.
    const NdiRuntime &runtime = NdiRuntime::instance();
    const QString file = qEnvironmentVariable("KEST_LOADER_FILE");
    QVERIFY2(runtime.isAvailable(), qPrintable(runtime.problem()));
    QCOMPARE(runtime.fileName(), file);
    QVERIFY(runtime.missingFunctions().isEmpty());
    // An NDI 6 runtime is named in one line, with why no version 5 one is used.
    const bool v6 = file.endsWith(".so.6");
    QCOMPARE(runtime.problem().startsWith("NDI runtime " + file + " in use through its version 5 functions"), v6);
    QCOMPARE(runtime.problem().contains("libndi.so.5: cannot open"), v6);
    QCOMPARE(runtime.problem().isEmpty(), !v6);

    // Frames go out through it.
    KestNDISend node;
    node.setName("ndi");
    node.setData({{"name", "full"}, {"config", "/nonexistent"}});
    QCOMPARE(feed(node, 0), 2);
    QCOMPARE(logLines, (v6 ? QStringList{"[ndi] " + runtime.problem(), "[ndi] NDI create"} : QStringList{"[ndi] NDI create"}));
    node.stop();
}

QTEST_GUILESS_MAIN(TestNdiLoader)
#include "tst_ndiloader.moc"
