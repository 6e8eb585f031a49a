#include "testruntime.h"

#include "kesthi.h"
#include "ndi/kestndirecv.h"
#include "ndi/ndiruntime.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <climits>
#include <memory>
#include <utility>

namespace {

QStringList logLines;

void collectLog(QtMsgType, const QMessageLogContext &, const QString &message)
{
    logLines << message;
}

// Keeps what reaches it, in order.
class Recorder : public KestObject
{
public:
    void onNewPacketV(Packet pkt) override { record("V", pkt); }
    void onNewPacketA(Packet pkt) override { record("A", pkt); }
    void onNewInfoV(StreamInfo info) override
    {
        infos.append(info);
        order << "infoV";
    }
    void onNewInfoA(StreamInfo info) override
    {
        infos.append(info);
        order << "infoA";
    }

    void record(const char *kind, const Packet &pkt)
    {
        packets.append(pkt);
        payloads.append(QByteArray(pkt.data, pkt.len));
        order << kind + QString::number(pkt.pts);
    }
    QVector<Packet> packets;
    QVector<QByteArray> payloads;
    QVector<StreamInfo> infos;
    QStringList order; // "infoV", "V<pts>", "A<pts>", ...
};

// A source of the runtime, published with the runtime's own functions.
class TestSource
{
public:
    explicit TestSource(const QByteArray &name) : listed(ndiSourceName(name))
    {
        NDIlib_send_create_t settings{};
        settings.p_ndi_name = name.constData();
        handle = NDIlib_send_create_v2(&settings, "{}");
    }
    ~TestSource() { NDIlib_send_destroy(handle); }
    QString name() const { return QString::fromUtf8(listed); }

    NDIlib_send_instance_t handle = nullptr;
    QByteArray listed;
};

// Receivers are released the way an owner releases them: by clearing "name" first.
struct ClearNameFirst
{
    void operator()(KestNDIRecv *node) const
    {
        node->setData({{"name", QString()}});
        delete node;
    }
};
using Receiver = std::unique_ptr<KestNDIRecv, ClearNameFirst>;

Receiver startedReceiver(KestObject *sink = nullptr, const QString &name = QStringLiteral("rx"))
{
    Receiver node(new KestNDIRecv);
    node->setName(name);
    node->setData({{"config", "/nonexistent/ndi.json"}});
    if (sink)
        node->link(sink, KestObject::Both);
    node->start();
    return node;
}

NDIlib_recv_instance_t newestReceiver()
{
    return kesttest_receiver_at(kesttest_receiver_count() - 1);
}

kesttest_receiver_info_t receiverInfo(NDIlib_recv_instance_t handle)
{
    kesttest_receiver_info_t info{};
    kesttest_receiver_info(handle, &info);
    return info;
}

// Sets the name and runs the tick that connects (this receiver must own the shared timer).
NDIlib_recv_instance_t connectTo(KestNDIRecv &node, const TestSource &source)
{
    node.setData({{"name", source.name()}});
    node.onTimer();
    const NDIlib_recv_instance_t handle = newestReceiver();
    return QByteArray(receiverInfo(handle).p_source_name) == source.listed ? handle : nullptr;
}

void capturePass(KestNDIRecv &node)
{
    QTimerEvent tick(0);
    QCoreApplication::sendEvent(&node, &tick);
}

QByteArray compressed(uint32_t codec, qint64 pts, const QByteArray &payload, const QByteArray &extra = {}, int version = 44)
{
    NDIlib_compressed_packet_t header{};
    header.version = version;
    header.fourCC = NDIlib_compressed_FourCC_type_e(codec);
    header.pts = pts;
    header.dts = pts;
    header.flags = NDIlib_compressed_packet_flags_keyframe;
    header.data_size = uint32_t(payload.size());
    header.extra_data_size = uint32_t(extra.size());
    QByteArray bytes(reinterpret_cast<const char *>(&header), sizeof(header));
    if (version > 44 && version <= 64)
        bytes += QByteArray(version - 44, '\xee'); // a longer header of a later version
    return bytes + payload + extra;
}

uint8_t *writable(const QByteArray &bytes)
{
    return reinterpret_cast<uint8_t *>(const_cast<char *>(bytes.constData()));
}

// A frame as the runtime delivers it; `size` is data_size_in_bytes (default: the bytes given).
void injectVideo(NDIlib_recv_instance_t handle, const QByteArray &bytes, uint32_t fourcc, int size = INT_MIN,
                 bool nullData = false)
{
    NDIlib_video_frame_v2_t frame = ndiVideoFrameDefaults();
    frame.xres = 1920;
    frame.yres = 1080;
    frame.FourCC = NDIlib_FourCC_video_type_e(fourcc);
    frame.p_data = nullData ? nullptr : writable(bytes);
    frame.data_size_in_bytes = size == INT_MIN ? bytes.size() : size;
    QVERIFY(kesttest_receiver_inject_video(handle, &frame, bytes.size()));
}

void injectAudio(NDIlib_recv_instance_t handle, const QByteArray &bytes, int channels = 2, int rate = 48000,
                 uint32_t fourcc = NDIlib_FourCC_audio_type_ex_AAC, int size = INT_MIN, bool nullData = false)
{
    NDIlib_audio_frame_v3_t frame = ndiAudioFrameDefaults();
    frame.sample_rate = rate;
    frame.no_channels = channels;
    frame.no_samples = 1024;
    frame.FourCC = NDIlib_FourCC_audio_type_e(fourcc);
    frame.p_data = nullData ? nullptr : writable(bytes);
    frame.data_size_in_bytes = size == INT_MIN ? bytes.size() : size;
    QVERIFY(kesttest_receiver_inject_audio(handle, &frame, bytes.size()));
}

constexpr uint32_t kH264 = NDIlib_FourCC_video_type_ex_H264_highest_bandwidth;
constexpr uint32_t kCodecH264 = NDIlib_compressed_FourCC_type_H264;
constexpr uint32_t kCodecAac = NDIlib_compressed_FourCC_type_AAC;

QVariantMap readyOf(const QSignalSpy &events, int index)
{
    return events[index][0].toString() == "ready" ? events[index][1].toMap() : QVariantMap{};
}

} // namespace

class TestNdiRecv : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void defaults();
    void receiversShareFinderAndTimer();
    void timerOwnerLeavesBeforeOthers();
    void everyStartAddsConnectionAndCaptureTimer();
    void getListEmptyThenAfterReset();
    void playFindsExactName_data();
    void playFindsExactName();
    void playAgainReconnects();
    void configFile_data();
    void configFile();
    void timeLines_data();
    void timeLines();
    void compressedVideo_data();
    void compressedVideo();
    void uncompressedVideo_data();
    void uncompressedVideo();
    void aacAudio_data();
    void aacAudio();
    void hostileFrames_data();
    void hostileFrames();
    void passEndsOnErrorOrStatusChange_data();
    void passEndsOnErrorOrStatusChange();
    void captureTimerDrains();
    void frameLargerThanPoolDropped();
    void connectionEndedByReadyHandler_data();
    void connectionEndedByReadyHandler();
    void readyNamesCodecs_data();
    void readyNamesCodecs();
    void reconnectsByNameOnTick();
    void failedCreationNotRetriedForSameName();
    void tally_data();
    void tally();
};

void TestNdiRecv::initTestCase()
{
    useNdiTestRuntime();
    const NdiRuntime &runtime = NdiRuntime::instance();
    QVERIFY2(runtime.isAvailable(), qPrintable(runtime.problem()));
    qInstallMessageHandler(collectLog);
}

void TestNdiRecv::init()
{
    logLines.clear();
}

void TestNdiRecv::cleanup()
{
    QCOMPARE(kesttest_receiver_count(), 0); // every test releases its receivers
}

void TestNdiRecv::defaults()
{
    KestNDIRecv node;
    QCOMPARE(node.data.value("memSize"), QVariant(16384000));
    QCOMPARE(node.data.value("config"), QVariant("/kest/config/ndi.json"));
    QVERIFY(!node.data.contains("name"));
    QCOMPARE(node.play("anything"), QVariant(false)); // nothing listed for a node never started
    QCOMPARE(node.setTally(QVariantMap{{"program", true}}), QVariant(false));
}

void TestNdiRecv::receiversShareFinderAndTimer()
{
    TestSource source("shared");
    Receiver owner = startedReceiver(nullptr, "owner");
    const int findersCreated = kesttest_finders_created();
    Receiver other = startedReceiver(nullptr, "other");
    QCOMPARE(kesttest_finders_created(), findersCreated);
    QCOMPARE(kesttest_finder_count(), 1);
    QCOMPARE(owner->findChildren<QTimer *>().size(), 1);
    QVERIFY(other->findChildren<QTimer *>().isEmpty());

    // Only the owner's ticks ask the finder; the other reads the owner's list.
    const int queries = kesttest_source_queries();
    owner->onTimer();
    QCOMPARE(kesttest_source_queries(), queries + 1);
    other->onTimer();
    QCOMPARE(kesttest_source_queries(), queries + 1);
    QCOMPARE(other->getList(), QVariant(QVariantList{source.name()}));

    // The other receiver hears the shared timer too: it connects on its tick.
    QTimer *timer = owner->findChild<QTimer *>();
    QVERIFY(timer->isActive());
    QCOMPARE(timer->interval(), 2000);
    other->setData({{"name", source.name()}});
    QSignalSpy ticks(timer, &QTimer::timeout);
    timer->start(1);
    QTRY_VERIFY(ticks.count() >= 1);
    timer->stop();
    QCOMPARE(QByteArray(receiverInfo(newestReceiver()).p_source_name), source.listed);
}

void TestNdiRecv::timerOwnerLeavesBeforeOthers()
{
    TestSource source("handover");
    Receiver first = startedReceiver(nullptr, "first");
    Receiver second = startedReceiver(nullptr, "second");
    Receiver third = startedReceiver(nullptr, "third");
    QTimer *timer = first->findChild<QTimer *>();
    QVERIFY(timer);
    first.reset();
    // The next receiver takes the running timer over and refreshes the list from then on.
    QCOMPARE(second->findChild<QTimer *>(), timer);
    QVERIFY(timer->isActive());
    const int queries = kesttest_source_queries();
    second->onTimer();
    third->onTimer();
    QCOMPARE(kesttest_source_queries(), queries + 1);
    // With every receiver gone, the next start makes a new timer.
    second.reset();
    QCOMPARE(third->findChild<QTimer *>(), timer);
    third.reset();
    Receiver later = startedReceiver(nullptr, "later");
    QVERIFY(later->findChild<QTimer *>());
    later->onTimer();
    QCOMPARE(kesttest_source_queries(), queries + 2);
    QCOMPARE(later->getList(), QVariant(QVariantList{source.name()}));
}

void TestNdiRecv::everyStartAddsConnectionAndCaptureTimer()
{
    TestSource source("twice");
    Receiver node = startedReceiver();
    node->start(); // deliberately not guarded: a second connection to the shared timer
    QTimer *timer = node->findChild<QTimer *>();
    QSignalSpy ticks(timer, &QTimer::timeout);
    const int queries = kesttest_source_queries();
    timer->start(5);
    QTRY_VERIFY(ticks.count() >= 2);
    timer->stop();
    QCOMPARE(kesttest_source_queries() - queries, 2 * ticks.count());
}

void TestNdiRecv::getListEmptyThenAfterReset()
{
    Receiver owner = startedReceiver(nullptr, "owner");
    Receiver other = startedReceiver(nullptr, "other");
    owner->onTimer();
    const QVariant empty = owner->getList();
    QCOMPARE(empty.userType(), int(QMetaType::QVariantList));
    QVERIFY(empty.toList().isEmpty());

    TestSource source("listed");
    QVERIFY(owner->getList().toList().isEmpty()); // the list of the last tick
    owner->onTimer();
    const QVariant listed = QVariantList{source.name()};
    QCOMPARE(owner->getList(), listed);

    // Up to five ticks since the last reset: the same finder and list.
    const int created = kesttest_finders_created();
    for (int tick = 3; tick <= 5; ++tick)
        owner->onTimer();
    QCOMPARE(owner->getList(), listed);
    QCOMPARE(kesttest_finders_created(), created);
    // A sixth: a new finder, which the owner asks at once.
    owner->onTimer();
    QCOMPARE(owner->getList(), listed);
    QCOMPARE(kesttest_finders_created(), created + 1);
    QCOMPARE(kesttest_finder_count(), 1);

    // A receiver that does not own the timer resets the finder too, and sees an empty list
    // until the owner's next tick.
    for (int tick = 0; tick < 6; ++tick)
        other->onTimer();
    QVERIFY(other->getList().toList().isEmpty());
    QCOMPARE(kesttest_finders_created(), created + 2);
    owner->onTimer();
    QCOMPARE(other->getList(), listed);
}

void TestNdiRecv::playFindsExactName_data()
{
    QTest::addColumn<QString>("name"); // "%1": the machine part of source names
    QTest::addColumn<bool>("found");
    QTest::newRow("exact") << "%1 (Cam 1)" << true;
    QTest::newRow("case differs") << "%1 (cam 1)" << false;
    QTest::newRow("plain NDI name") << "Cam 1" << false;
    QTest::newRow("trailing space") << "%1 (Cam 1) " << false;
    QTest::newRow("empty") << "" << false;
}

void TestNdiRecv::playFindsExactName()
{
    QFETCH(QString, name);
    QFETCH(bool, found);
    TestSource source("Cam 1");
    Receiver node = startedReceiver();
    node->onTimer();
    const int receivers = kesttest_receiver_count();
    const QString wanted = name.contains("%1") ? name.arg(QLatin1String(kesttest_machine_name())) : name;
    QCOMPARE(node->play(wanted), QVariant(found));
    QCOMPARE(kesttest_receiver_count(), receivers + (found ? 1 : 0));
    if (!found) {
        QVERIFY(logLines.isEmpty());
        return;
    }
    const kesttest_receiver_info_t info = receiverInfo(newestReceiver());
    QVERIFY(info.connected);
    QCOMPARE(QByteArray(info.p_source_name), source.listed);
    QVERIFY(QByteArray(info.p_url_address).startsWith("127.0.0.1:"));
    QCOMPARE(info.color_format, NDIlib_recv_color_format_compressed_v4_with_audio);
    QCOMPARE(info.bandwidth, NDIlib_recv_bandwidth_highest);
    QVERIFY(info.allow_video_fields);
    QCOMPARE(QByteArray(info.p_recv_name), QByteArray("test"));
    QCOMPARE(logLines, QStringList{"[rx] connect to \"" + source.name() + '"'});
}

void TestNdiRecv::playAgainReconnects()
{
    TestSource first("first"), second("second");
    Recorder recorder;
    Receiver node = startedReceiver(&recorder);
    QSignalSpy events(node.get(), &KestObject::eventSent);
    const NDIlib_recv_instance_t firstHandle = connectTo(*node, first);
    QVERIFY(firstHandle);
    injectVideo(firstHandle, compressed(kCodecH264, 50000000, "one"), kH264);
    injectAudio(firstHandle, compressed(kCodecAac, 50100000, "a1", "\x11\x90"));
    capturePass(*node);
    QCOMPARE(recorder.order, (QStringList{"infoV", "V0", "infoA", "A0"}));

    // A name that is not listed leaves the connection as it is.
    QCOMPARE(node->play("nobody"), QVariant(false));
    QVERIFY(receiverInfo(firstHandle).connected);

    // Another source: the old instance goes, both streams are described again, time restarts.
    QCOMPARE(node->play(second.name()), QVariant(true));
    QCOMPARE(kesttest_receiver_count(), 1);
    QCOMPARE(senderInfo(first.handle).no_connections, 0);
    QCOMPARE(senderInfo(second.handle).no_connections, 1);
    const NDIlib_recv_instance_t secondHandle = newestReceiver();
    QCOMPARE(QByteArray(receiverInfo(secondHandle).p_source_name), second.listed);
    injectAudio(secondHandle, compressed(kCodecAac, 90000000, "a2", "\x11\x90"));
    injectVideo(secondHandle, compressed(kCodecH264, 90400000, "two"), kH264);
    capturePass(*node);
    QCOMPARE(recorder.order.mid(4), (QStringList{"infoA", "A0", "infoV", "V0"}));
    QCOMPARE(events.count(), 4); // one "ready" per description
    // The "name" setting wins on the next tick: it still names the first source.
    node->onTimer();
    QCOMPARE(QByteArray(receiverInfo(newestReceiver()).p_source_name), first.listed);
}

void TestNdiRecv::configFile_data()
{
    QTest::addColumn<QByteArray>("content"); // "-": no file
    QTest::addColumn<QByteArray>("passed");
    QTest::newRow("object, compacted") << QByteArray("{ \"ndi\": { \"multicast\": { \"recv\": { \"enable\": true } } } }\n")
                                       << QByteArray("{\"ndi\":{\"multicast\":{\"recv\":{\"enable\":true}}}}");
    QTest::newRow("characters beyond ASCII escaped") << QByteArray("{\"ndi\": {\"machinename\": \"R\xc3\xa9gie\"}}")
                                                     << QByteArray("{\"ndi\":{\"machinename\":\"R\\u00e9gie\"}}");
    QTest::newRow("missing file") << QByteArray("-") << QByteArray("{}");
    QTest::newRow("a list") << QByteArray("[1]") << QByteArray("{}");
    QTest::newRow("not JSON") << QByteArray("{nope") << QByteArray("{}");
}

void TestNdiRecv::configFile()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, passed);
    QTemporaryDir dir;
    const QString path = dir.filePath("ndi.json");
    if (content != "-") {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(content);
    }
    TestSource source("configured");
    Receiver node = startedReceiver();
    node->setData({{"config", path}});
    QVERIFY(connectTo(*node, source));
    const kesttest_receiver_info_t info = receiverInfo(newestReceiver());
    QVERIFY(info.created_with_config);
    QCOMPARE(QByteArray(info.p_config), passed);
}

void TestNdiRecv::timeLines_data()
{
    // Frames as "V" or "A" and their NDI time in 100 ns units; the packet times that result.
    QTest::addColumn<QStringList>("frames");
    QTest::addColumn<QStringList>("packets");
    QTest::newRow("video first, audio joins at the video's time")
        << QStringList{"V1000000", "V1400000", "A50000000", "A50213330", "V1800000"}
        << QStringList{"V0", "V40000", "A40000", "A61333", "V80000"};
    QTest::newRow("audio first, video joins at the audio's time")
        << QStringList{"A2000000", "A2213330", "V9000000", "V9400000", "A2426660"}
        << QStringList{"A0", "A21333", "V21333", "V61333", "A42666"};
    QTest::newRow("100 ns units truncated to microseconds")
        << QStringList{"V1000005", "V1400019"} << QStringList{"V0", "V40001"};
    QTest::newRow("times before the first frame go negative")
        << QStringList{"A5000000", "A4000000"} << QStringList{"A0", "A-100000"};
}

void TestNdiRecv::timeLines()
{
    QFETCH(QStringList, frames);
    QFETCH(QStringList, packets);
    TestSource source("clock");
    Recorder recorder;
    Receiver node = startedReceiver(&recorder);
    const NDIlib_recv_instance_t handle = connectTo(*node, source);
    QVERIFY(handle);
    for (const QString &f : frames) {
        const qint64 ndiTime = f.mid(1).toLongLong();
        if (f.startsWith('V'))
            injectVideo(handle, compressed(kCodecH264, ndiTime, "v"), kH264);
        else
            injectAudio(handle, compressed(kCodecAac, ndiTime, "a", "\x11\x90"));
    }
    capturePass(*node);
    QStringList got = recorder.order;
    got.removeAll("infoV");
    got.removeAll("infoA");
    QCOMPARE(got, packets);
}

void TestNdiRecv::compressedVideo_data()
{
    QTest::addColumn<uint32_t>("fourcc");
    QTest::addColumn<int>("codec");
    QTest::addColumn<QString>("codecName"); // "": no "codec" in the event
    QTest::newRow("H264") << kH264 << int(KestCodec::H264) << "h264";
    QTest::newRow("HEVC") << uint32_t(NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth) << int(KestCodec::H265) << "h265";
    QTest::newRow("H265 by its last character") << ndiFourCC('H', '2', '6', '5') << int(KestCodec::H265) << "h265";
    QTest::newRow("HEV4 by its last character") << ndiFourCC('H', 'E', 'V', '4') << int(KestCodec::H264) << "h264";
    QTest::newRow("neither: described once without a codec") << ndiFourCC('H', '2', '6', 'X') << int(KestCodec::None) << "";
}

void TestNdiRecv::compressedVideo()
{
    QFETCH(uint32_t, fourcc);
    QFETCH(int, codec);
    QFETCH(QString, codecName);
    TestSource source("video");
    Recorder recorder;
    Receiver node = startedReceiver(&recorder);
    QSignalSpy events(node.get(), &KestObject::eventSent);
    const NDIlib_recv_instance_t handle = connectTo(*node, source);
    QVERIFY(handle);
    const QByteArray parameterSets("\0\0\0\1gSPS\0\0\0\1hPPS", 16);
    const QByteArray key("\0\0\0\1\x65key", 7), next("\0\0\0\1\x41next", 8);
    injectVideo(handle, compressed(kCodecH264, 7000000, key, parameterSets), fourcc);
    injectVideo(handle, compressed(kCodecH264, 7400000, next), fourcc); // no extra data
    logLines.clear();
    capturePass(*node);

    // Described once, ahead of the first packet; every packet as a key frame without a source.
    QCOMPARE(recorder.order, (QStringList{"infoV", "V0", "V40000"}));
    const StreamInfo info = recorder.infos.first();
    QCOMPARE(info.codec, codec);
    QVERIFY(!info.source);
    const QVariantMap params{{"width", 1920}, {"height", 1080}, {"framerate", 30000}, {"extradata", parameterSets}};
    QCOMPARE(info.params, params);
    QCOMPARE(recorder.payloads, (QVector<QByteArray>{key, next}));
    for (const Packet &pkt : qAsConst(recorder.packets)) {
        QCOMPARE(pkt.dts, qint64(-1));
        QCOMPARE(pkt.frameType, 0);
        QVERIFY(!pkt.source);
        QCOMPARE(quintptr(pkt.data) % 16, quintptr(0)); // the host's buffer, not the runtime's
    }
    QCOMPARE(events.count(), 1);
    QVariantMap videoEvent = params;
    if (!codecName.isEmpty())
        videoEvent["codec"] = codecName;
    QCOMPARE(readyOf(events, 0), (QVariantMap{{"infoA", QVariantMap{}}, {"infoV", videoEvent}}));
    QCOMPARE(logLines.size(), codec == KestCodec::None ? 1 : 0);
    const kesttest_receiver_info_t after = receiverInfo(handle);
    QCOMPARE(after.outstanding_frames, 0);
    QCOMPARE(after.bad_frees, 0);
}

void TestNdiRecv::uncompressedVideo_data()
{
    QTest::addColumn<uint32_t>("fourcc");
    QTest::newRow("SpeedHQ") << uint32_t(NDIlib_FourCC_video_type_ex_SHQ2_highest_bandwidth);
    QTest::newRow("H followed by neither 2 nor E") << ndiFourCC('H', 'X', '6', '4');
    QTest::newRow("UYVY") << uint32_t(NDIlib_FourCC_video_type_UYVY);
}

void TestNdiRecv::uncompressedVideo()
{
    QFETCH(uint32_t, fourcc);
    TestSource source("raw");
    Recorder recorder;
    Receiver node = startedReceiver(&recorder);
    QSignalSpy events(node.get(), &KestObject::eventSent);
    const NDIlib_recv_instance_t handle = connectTo(*node, source);
    QVERIFY(handle);
    // No packet header is looked for: the frame goes on as it came, stamped with the host clock.
    const QByteArray bytes = compressed(kCodecH264, 123, "not parsed");
    injectVideo(handle, bytes, fourcc);
    injectVideo(handle, bytes, fourcc);
    const qint64 before = KestHi::now();
    capturePass(*node);
    const qint64 after = KestHi::now();
    QCOMPARE(recorder.order.size(), 3);
    QCOMPARE(recorder.infos.size(), 1);
    QCOMPARE(recorder.infos[0].codec, int(KestCodec::RawVideo));
    const QVariantMap params{{"width", 1920}, {"height", 1080}, {"framerate", 30.0}}; // 30000/1001, rounded
    QCOMPARE(recorder.infos[0].params, params);
    QCOMPARE(recorder.infos[0].params.value("framerate").userType(), int(QMetaType::Double));
    QCOMPARE(recorder.payloads, (QVector<QByteArray>{bytes, bytes}));
    for (const Packet &pkt : qAsConst(recorder.packets)) {
        QVERIFY(pkt.pts >= before && pkt.pts <= after);
        QCOMPARE(pkt.dts, qint64(-1));
        QCOMPARE(pkt.frameType, 0);
    }
    QCOMPARE(events.count(), 1);
    QCOMPARE(readyOf(events, 0).value("infoV"), QVariant(params)); // code 2 has no name

    // Nothing to copy: dropped with a line each.
    injectVideo(handle, bytes, fourcc, 0);
    injectVideo(handle, bytes, fourcc, -1);
    injectVideo(handle, bytes, fourcc, INT_MIN, true);
    logLines.clear();
    capturePass(*node);
    QCOMPARE(recorder.payloads.size(), 2);
    QCOMPARE(logLines.size(), 3);
    QCOMPARE(logLines.filter("[rx] video frame dropped: ").size(), 3);
    QCOMPARE(receiverInfo(handle).outstanding_frames, 0);
}

void TestNdiRecv::aacAudio_data()
{
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("rate");
    QTest::addColumn<int>("layout");
    QTest::newRow("stereo") << 2 << 48000 << 3;
    QTest::newRow("mono") << 1 << 44100 << 2;
    QTest::newRow("six channels: count plus one as well") << 6 << 48000 << 7;
}

void TestNdiRecv::aacAudio()
{
    QFETCH(int, channels);
    QFETCH(int, rate);
    QFETCH(int, layout);
    TestSource source("audio");
    Recorder recorder;
    Receiver node = startedReceiver(&recorder);
    QSignalSpy events(node.get(), &KestObject::eventSent);
    const NDIlib_recv_instance_t handle = connectTo(*node, source);
    QVERIFY(handle);
    injectAudio(handle, compressed(kCodecAac, 1000, "floats"), channels, rate, NDIlib_FourCC_audio_type_FLTP);
    injectAudio(handle, compressed(kCodecAac, 3000000, "aac-frame", "\x12\x34"), channels, rate);
    injectAudio(handle, compressed(kCodecAac, 3213330, "aac-next", "\x12\x34"), channels, rate);
    capturePass(*node);
    // Audio in another format is released unread.
    QCOMPARE(recorder.order, (QStringList{"infoA", "A0", "A21333"}));
    QCOMPARE(recorder.payloads, (QVector<QByteArray>{"aac-frame", "aac-next"}));
    QCOMPARE(recorder.packets[0].frameType, 3);
    QCOMPARE(recorder.packets[0].dts, qint64(-1));
    QVERIFY(!recorder.packets[0].source);
    const QVariantMap params{{"sample_fmt", 1},        {"samplerate", rate},   {"channels", channels},
                             {"channel_layout", layout}, {"extradata", QByteArray("\x12\x34")}, {"frame_size", 1024}};
    QCOMPARE(recorder.infos[0].codec, int(KestCodec::AAC));
    QCOMPARE(recorder.infos[0].params, params);
    QVariantMap audioEvent = params;
    audioEvent["codec"] = "aac";
    QCOMPARE(readyOf(events, 0), (QVariantMap{{"infoA", audioEvent}, {"infoV", QVariantMap{}}}));
    QCOMPARE(receiverInfo(handle).outstanding_frames, 0);
    QCOMPARE(receiverInfo(handle).bad_frees, 0);
}

void TestNdiRecv::hostileFrames_data()
{
    QTest::addColumn<bool>("audio");
    QTest::addColumn<int>("version");
    QTest::addColumn<qint64>("dataSize");  // -1: the payload's
    QTest::addColumn<qint64>("extraSize"); // -1: the extra data's
    QTest::addColumn<int>("cut");          // >= 0: the frame is this long (and says so)
    QTest::addColumn<int>("declared");     // INT_MIN: data_size_in_bytes is the frame's length
    QTest::addColumn<bool>("nullData");
    QTest::addColumn<QByteArray>("expected"); // the payload taken; "": dropped

    struct Row
    {
        const char *name;
        int version;
        qint64 dataSize, extraSize;
        int cut, declared;
        bool nullData;
        QByteArray expected;
    };
    const Row rows[] = {
        {"header version 44", 44, -1, -1, -1, INT_MIN, false, "PAYLOAD!"},
        {"version 48: payload after 48 bytes", 48, -1, -1, -1, INT_MIN, false, "PAYLOAD!"},
        {"unclaimed bytes at the end are ignored", 44, 3, 0, -1, INT_MIN, false, "PAY"},
        {"version 40, below the layout", 40, -1, -1, -1, INT_MIN, false, ""},
        {"negative version", -1, -1, -1, -1, INT_MIN, false, ""},
        {"version beyond the frame", 200, -1, -1, -1, INT_MIN, false, ""},
        {"payload beyond the frame", 44, 9, -1, -1, INT_MIN, false, ""},
        {"extra data beyond the frame", 44, -1, 3, -1, INT_MIN, false, ""},
        {"sizes that wrap around 32 bits", 44, 0xffffffff, 11, -1, INT_MIN, false, ""},
        {"absurd payload size", 44, 0x80000000, -1, -1, INT_MIN, false, ""},
        {"no payload", 44, 0, -1, -1, INT_MIN, false, ""},
        {"frame shorter than a header", 44, -1, -1, 20, INT_MIN, false, ""},
        {"negative frame size", 44, -1, -1, -1, -5, false, ""},
        {"no data", 44, -1, -1, -1, INT_MIN, true, ""},
    };
    for (bool audio : {false, true})
        for (const Row &r : rows)
            QTest::newRow(qPrintable(QString(audio ? "audio: " : "video: ") + r.name))
                << audio << r.version << r.dataSize << r.extraSize << r.cut << r.declared << r.nullData << r.expected;
}

void TestNdiRecv::hostileFrames()
{
    QFETCH(bool, audio);
    QFETCH(int, version);
    QFETCH(qint64, dataSize);
    QFETCH(qint64, extraSize);
    QFETCH(int, cut);
    QFETCH(int, declared);
    QFETCH(bool, nullData);
    QFETCH(QByteArray, expected);
    TestSource source("hostile");
    Recorder recorder;
    Receiver node = startedReceiver(&recorder);
    const NDIlib_recv_instance_t handle = connectTo(*node, source);
    QVERIFY(handle);

    QByteArray frame = compressed(audio ? kCodecAac : kCodecH264, 0, "PAYLOAD!", "XX", version);
    NDIlib_compressed_packet_t header{};
    std::memcpy(&header, frame.constData(), sizeof(header));
    if (dataSize >= 0)
        header.data_size = uint32_t(dataSize);
    if (extraSize >= 0)
        header.extra_data_size = uint32_t(extraSize);
    std::memcpy(frame.data(), &header, sizeof(header));
    if (cut >= 0)
        frame.truncate(cut);
    // The runtime copies exactly the frame's bytes: a read past them is caught by the
    // sanitizer build.
    if (audio) {
        injectAudio(handle, frame, 2, 48000, NDIlib_FourCC_audio_type_ex_AAC, declared, nullData);
        injectAudio(handle, compressed(kCodecAac, 0, "NEXT"));
    } else {
        injectVideo(handle, frame, kH264, declared, nullData);
        injectVideo(handle, compressed(kCodecH264, 0, "NEXT"), kH264);
    }
    logLines.clear();
    capturePass(*node);

    // The loop goes on after a dropped frame; every frame goes back to the runtime.
    const QVector<QByteArray> taken = expected.isEmpty() ? QVector<QByteArray>{"NEXT"} : QVector<QByteArray>{expected, "NEXT"};
    QCOMPARE(recorder.payloads, taken);
    if (expected.isEmpty()) {
        QCOMPARE(logLines.size(), 1);
        QVERIFY2(logLines[0].startsWith(audio ? "[rx] audio frame dropped: " : "[rx] video frame dropped: "),
                 qPrintable(logLines[0]));
    } else {
        QVERIFY2(logLines.isEmpty(), qPrintable(logLines.join('\n')));
    }
    QCOMPARE(receiverInfo(handle).outstanding_frames, 0);
    QCOMPARE(receiverInfo(handle).bad_frees, 0);
}

void TestNdiRecv::passEndsOnErrorOrStatusChange_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QStringList>("log");
    QTest::newRow("error") << int(NDIlib_frame_type_error) << QStringList{"[rx] error"};
    QTest::newRow("status change") << int(NDIlib_frame_type_status_change) << QStringList{};
}

void TestNdiRecv::passEndsOnErrorOrStatusChange()
{
    QFETCH(int, type);
    QFETCH(QStringList, log);
    TestSource source("status");
    Recorder recorder;
    Receiver node = startedReceiver(&recorder);
    const NDIlib_recv_instance_t handle = connectTo(*node, source);
    QVERIFY(handle);
    injectVideo(handle, compressed(kCodecH264, 0, "before"), kH264);
    QVERIFY(kesttest_receiver_inject(handle, NDIlib_frame_type_e(type)));
    injectVideo(handle, compressed(kCodecH264, 0, "after"), kH264);
    logLines.clear();
    capturePass(*node);
    QCOMPARE(recorder.payloads, QVector<QByteArray>{"before"});
    QCOMPARE(logLines, log);
    QCOMPARE(receiverInfo(handle).queued_frames, 1);
    capturePass(*node); // the next tick goes on
    QCOMPARE(recorder.payloads, (QVector<QByteArray>{"before", "after"}));
}

void TestNdiRecv::captureTimerDrains()
{
    TestSource source("ticking");
    Recorder recorder;
    Receiver node = startedReceiver(&recorder);
    const NDIlib_recv_instance_t handle = connectTo(*node, source);
    QVERIFY(handle);
    for (int i = 0; i < 5; ++i)
        injectVideo(handle, compressed(kCodecH264, i * 400000, QByteArray::number(i)), kH264);
    QTRY_COMPARE_WITH_TIMEOUT(recorder.payloads.size(), 5, 1000); // the 10 ms timer, all in one go
    QCOMPARE(receiverInfo(handle).queued_frames, 0);
}

void TestNdiRecv::frameLargerThanPoolDropped()
{
    TestSource source("large");
    Recorder recorder;
    Receiver node = startedReceiver(&recorder);
    node->setData({{"memSize", 4096}});
    const NDIlib_recv_instance_t handle = connectTo(*node, source);
    QVERIFY(handle);
    for (int i = 0; i < 2; ++i)
        injectVideo(handle, compressed(kCodecH264, 0, QByteArray(8192, 'x')), kH264);
    injectVideo(handle, compressed(kCodecH264, 0, "small"), kH264);
    logLines.clear();
    capturePass(*node);
    QCOMPARE(recorder.payloads, QVector<QByteArray>{"small"});
    QCOMPARE(logLines, QStringList{"[rx] a frame of 8192 bytes does not fit \"memSize\"; such frames are dropped"});
    QCOMPARE(receiverInfo(handle).outstanding_frames, 0);
}

void TestNdiRecv::connectionEndedByReadyHandler_data()
{
    QTest::addColumn<bool>("playAnother");
    QTest::newRow("name cleared") << false;
    QTest::newRow("another source played") << true;
}

void TestNdiRecv::connectionEndedByReadyHandler()
{
    QFETCH(bool, playAnother);
    TestSource source("fickle"), other("other");
    Recorder recorder;
    Receiver node = startedReceiver(&recorder);
    const NDIlib_recv_instance_t handle = connectTo(*node, source);
    QVERIFY(handle);
    // A host that moves on as soon as it learns what the source sends.
    bool reacted = false;
    connect(node.get(), &KestObject::eventSent, this, [&] {
        if (std::exchange(reacted, true))
            return;
        if (playAnother)
            node->play(other.name());
        else
            node->setData({{"name", ""}});
    });
    injectVideo(handle, compressed(kCodecH264, 0, "one"), kH264);
    injectVideo(handle, compressed(kCodecH264, 0, "two"), kH264);
    capturePass(*node);
    // The packet of the ended connection is dropped, and nothing is read from or given back
    // for the frames the destroyed instance took with it (the new one may reuse its address).
    QCOMPARE(recorder.payloads, QVector<QByteArray>{});
    QCOMPARE(kesttest_receiver_count(), playAnother ? 1 : 0);
    if (playAnother) {
        const kesttest_receiver_info_t info = receiverInfo(newestReceiver());
        QCOMPARE(QByteArray(info.p_source_name), other.listed);
        QCOMPARE(info.bad_frees, 0);
        QCOMPARE(info.outstanding_frames, 0);
    }
}

void TestNdiRecv::readyNamesCodecs_data()
{
    QTest::addColumn<int>("videoCodec");
    QTest::addColumn<int>("audioCodec");
    QTest::addColumn<QVariant>("videoName"); // invalid: the copied map keeps what it had
    QTest::addColumn<QVariant>("audioName");
    QTest::newRow("h264, aac") << 4 << 10 << QVariant("h264") << QVariant("aac");
    QTest::newRow("h265, pcma") << 5 << 7 << QVariant("h265") << QVariant("pcma");
    QTest::newRow("mpeg4, pcmu") << 14 << 8 << QVariant("mpeg4") << QVariant("pcmu");
    QTest::newRow("g722") << 0 << 9 << QVariant() << QVariant("g722");
    QTest::newRow("mp2") << 0 << 11 << QVariant() << QVariant("mp2");
    QTest::newRow("mp3") << 0 << 15 << QVariant() << QVariant("mp3");
    QTest::newRow("ac3") << 0 << 16 << QVariant() << QVariant("ac3");
    QTest::newRow("opus") << 0 << 17 << QVariant() << QVariant("opus");
    QTest::newRow("audio 12 and 13 have no name") << 2 << 12 << QVariant() << QVariant();
    QTest::newRow("audio codes in the video table and back") << 10 << 4 << QVariant() << QVariant();
    QTest::newRow("13") << 0 << 13 << QVariant() << QVariant();
}

void TestNdiRecv::readyNamesCodecs()
{
    QFETCH(int, videoCodec);
    QFETCH(int, audioCodec);
    QFETCH(QVariant, videoName);
    QFETCH(QVariant, audioName);
    KestNDIRecv node;
    QSignalSpy events(&node, &KestObject::eventSent);
    node.infoV.codec = videoCodec;
    node.infoV.params = {{"width", 640}, {"codec", "stale"}};
    node.infoA.codec = audioCodec;
    node.infoA.params = {{"samplerate", 8000}};
    node.sendInfoEvent();
    QCOMPARE(events.count(), 1);
    QVariantMap video{{"width", 640}, {"codec", videoName.isValid() ? videoName : QVariant("stale")}};
    QVariantMap audio{{"samplerate", 8000}};
    if (audioName.isValid())
        audio["codec"] = audioName;
    QCOMPARE(readyOf(events, 0), (QVariantMap{{"infoA", audio}, {"infoV", video}}));
    QCOMPARE(node.infoV.params.value("codec"), QVariant("stale")); // the node's own map is untouched
}

void TestNdiRecv::reconnectsByNameOnTick()
{
    Recorder recorder;
    Receiver node = startedReceiver(&recorder);
    const QString lateName = QString::fromUtf8(ndiSourceName("late"));
    node->setData({{"name", lateName}});
    node->onTimer(); // not listed yet: nothing to connect to
    QCOMPARE(kesttest_receiver_count(), 0);

    TestSource late("late");
    QCOMPARE(kesttest_receiver_count(), 0); // a new name waits for the tick
    node->onTimer();
    QCOMPARE(kesttest_receiver_count(), 1);
    const NDIlib_recv_instance_t handle = newestReceiver();
    QCOMPARE(QByteArray(receiverInfo(handle).p_source_name), late.listed);
    node->onTimer(); // connected to the name it wants: nothing happens
    QCOMPARE(newestReceiver(), handle);
    QCOMPARE(logLines.count("[rx] connect to \"" + lateName + '"'), 1);

    // Another name moves the receiver on the next tick.
    TestSource moved("moved");
    node->setData({{"name", moved.name()}});
    QCOMPARE(newestReceiver(), handle);
    node->onTimer();
    QCOMPARE(kesttest_receiver_count(), 1);
    QCOMPARE(QByteArray(receiverInfo(newestReceiver()).p_source_name), moved.listed);
    injectVideo(newestReceiver(), compressed(kCodecH264, 1, "x"), kH264);
    capturePass(*node);
    QCOMPARE(recorder.infos.size(), 1);

    // An empty name disconnects at once; connecting again describes the streams again.
    node->setData({{"name", ""}});
    QCOMPARE(kesttest_receiver_count(), 0);
    node->setData({{"name", moved.name()}});
    node->onTimer();
    injectVideo(newestReceiver(), compressed(kCodecH264, 1, "y"), kH264);
    capturePass(*node);
    QCOMPARE(recorder.infos.size(), 2);
    QCOMPARE(recorder.order.last(), QStringLiteral("V0"));
}

void TestNdiRecv::failedCreationNotRetriedForSameName()
{
    TestSource source("refused");
    Receiver node = startedReceiver();
    kesttest_fail_next_creates(KESTTEST_RECEIVER, 1);
    node->setData({{"name", source.name()}});
    node->onTimer();
    QCOMPARE(logLines, (QStringList{"[rx] create recv error", "[rx] connect to \"" + source.name() + '"'}));
    QCOMPARE(kesttest_receiver_count(), 0);
    QCOMPARE(node->setTally(QVariantMap{{"program", true}}), QVariant(false));
    capturePass(*node); // nothing to capture from
    node->onTimer();
    QCOMPARE(kesttest_receiver_count(), 0); // the name was accepted: no retry
    QCOMPARE(logLines.size(), 2);
    // Clearing the name and giving it again tries once more.
    node->setData({{"name", ""}});
    node->setData({{"name", source.name()}});
    node->onTimer();
    QCOMPARE(kesttest_receiver_count(), 1);
}

void TestNdiRecv::tally_data()
{
    QTest::addColumn<QVariant>("args");
    QTest::addColumn<bool>("program");
    QTest::addColumn<bool>("preview");
    QTest::newRow("program") << QVariant(QVariantMap{{"program", true}}) << true << false;
    QTest::newRow("preview") << QVariant(QVariantMap{{"preview", true}, {"program", false}}) << false << true;
    QTest::newRow("both") << QVariant(QVariantMap{{"preview", true}, {"program", true}}) << true << true;
    QTest::newRow("empty map clears both") << QVariant(QVariantMap{}) << false << false;
    QTest::newRow("not a map clears both") << QVariant("on") << false << false;
}

void TestNdiRecv::tally()
{
    QFETCH(QVariant, args);
    QFETCH(bool, program);
    QFETCH(bool, preview);
    TestSource source("lit");
    Receiver node = startedReceiver();
    QCOMPARE(node->setTally(args), QVariant(false)); // before play: no instance, nothing done
    const NDIlib_recv_instance_t handle = connectTo(*node, source);
    QVERIFY(handle);
    kesttest_receiver_info_t info = receiverInfo(handle);
    QVERIFY(!info.tally.on_program && !info.tally.on_preview);
    NDIlib_tally_t start{};
    start.on_program = !program; // the opposite first, so that every flag is seen to change
    start.on_preview = !preview;
    QVERIFY(NDIlib_recv_set_tally(handle, &start));
    QCOMPARE(node->setTally(args), QVariant(true));
    info = receiverInfo(handle);
    QCOMPARE(info.tally.on_program, program);
    QCOMPARE(info.tally.on_preview, preview);
    const kesttest_sender_info_t sender = senderInfo(source.handle);
    QCOMPARE(sender.tally.on_program, program);
    QCOMPARE(sender.tally.on_preview, preview);
}

QTEST_GUILESS_MAIN(TestNdiRecv)
#include "tst_ndirecv.moc"
