// The NDI runtime loader. It resolves once per process, so CTest runs each case as its own
// process with its own environment (tests/ndi/CMakeLists.txt), which also says what the case
// expects: KEST_LOADER_FILE the file the loader picks ("": none), KEST_LOADER_PROBLEM the parts
// of its one log line ('|' between them; none: no line), KEST_LOADER_FRAMES the frames a
// sender node gets out (-1: there is no sender).

#include "kestencodev.h"
#include "kesttest.h"
#include "logcapture.h"
#include "ndi/kestndisend.h"
#include "ndi/ndiruntime.h"

#include <QFile>
#include <QTest>

#include <dlfcn.h>

class TestNdiLoader : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void loadsAndSays();
};

void TestNdiLoader::loadsAndSays()
{
    if (!qEnvironmentVariableIsSet("KEST_LOADER_FILE"))
        QSKIP("runs through ctest, which sets up the environment of each case");
    LogCapture log;
    const NdiRuntime &runtime = NdiRuntime::instance();
    const QString problem = runtime.problem();
    QCOMPARE(runtime.fileName(), qEnvironmentVariable("KEST_LOADER_FILE"));
    QCOMPARE(problem.isEmpty(), qEnvironmentVariableIsEmpty("KEST_LOADER_PROBLEM"));
    const QStringList parts = qEnvironmentVariable("KEST_LOADER_PROBLEM").split('|', Qt::SkipEmptyParts) + QStringList{runtime.missingFunctions().join(", ")};
    for (const QString &part : parts)
        QVERIFY2(problem.contains(part), qPrintable(problem + "\ndoes not contain\n" + part));

    // A sender node, given a key frame and AAC, and started again: the problem is logged once.
    KestNDISend node;
    KestEncodeV encoder;
    QByteArray bytes("frame");
    node.setName("ndi");
    node.setData({{"name", "a"}, {"config", "/nonexistent"}});
    node.start();
    node.onNewInfoV({KestCodec::H264, {{"width", 1920}, {"height", 1080}, {"extradata", QByteArray("SPSPPS")}}, &encoder});
    node.onNewInfoA({KestCodec::AAC, {{"samplerate", 48000}, {"channels", 2}, {"frame_size", 1024}, {"extradata", QByteArray("AS")}}, nullptr});
    node.onNewPacketV({bytes.data(), bytes.size(), 0, -1, 0, &encoder});
    node.onNewPacketA({bytes.data(), bytes.size(), 0, -1, 3, nullptr});
    // The runtime's test controls, looked up rather than linked: the case decides which runtime that is.
    void *handle = runtime.isAvailable() ? ::dlopen(QFile::encodeName(runtime.fileName()).constData(), RTLD_NOW | RTLD_NOLOAD) : nullptr;
    const auto senderAt = handle ? reinterpret_cast<decltype(&kesttest_sender_at)>(::dlsym(handle, "kesttest_sender_at")) : nullptr;
    const auto senderInfo = handle ? reinterpret_cast<decltype(&kesttest_sender_info)>(::dlsym(handle, "kesttest_sender_info")) : nullptr;
    kesttest_sender_info_t info{};
    QCOMPARE(senderAt && senderInfo(senderAt(0), &info) ? int(info.video_frames + info.audio_frames) : -1,
             qEnvironmentVariableIntValue("KEST_LOADER_FRAMES"));
    const QStringList expected{"[ndi] " + problem, "[ndi] NDI create"};
    QCOMPARE(log.lines(), expected.mid(problem.isEmpty() ? 1 : 0, runtime.isAvailable() ? 2 : 1));
    node.stop();
}

QTEST_GUILESS_MAIN(TestNdiLoader)
#include "tst_ndiloader.moc"
