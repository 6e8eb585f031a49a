// KestNDIRecv against the NDI test runtime: discovery, connection, the capture loop fed with
// scripted frames, "ready" events and tally.

#include "testruntime.h"

#include "kesthi.h"
#include "logcapture.h"
#include "ndi/kestndirecv.h"
#include "ndi/ndiruntime.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <climits>
#include <iterator>
#include <memory>

namespace {

// Keeps what reaches it, in order.
class Recorder : public KestObject
{
public:
    void onNewPacketV(Packet pkt) override { record('V', pkt); }
    void onNewPacketA(Packet pkt) override { record('A', pkt); }
    void onNewInfoV(StreamInfo info) override { describe("infoV", info); }
    void onNewInfoA(StreamInfo info) override { describe("infoA", info); }

    void record(char kind, const Packet &pkt)
    {
        packets.append(pkt);
        payloads.append(QByteArray(pkt.data, pkt.len));
        order << kind + QString::number(pkt.pts);
    }
    void describe(const char *kind, const StreamInfo &info)
    {
        infos.append(info);
        order << kind;
    }
    QVector<Packet> packets;
    QByteArrayList payloads;
    QVector<StreamInfo> infos;
    QStringList order; // "infoV", "V<pts>", "infoA", "A<pts>", ...
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

Receiver startedReceiver(KestObject *sink = nullptr)
{
    Receiver node(new KestNDIRecv);
    node->setName("rx");
    node->setData({{"config", "/nonexistent/ndi.json"}});
    if (sink)
        node->link(sink, KestObject::Both);
    node->start();
    return node;
}

// Sets the name and runs the tick that connects (the node must own the shared timer).
NDIlib_recv_instance_t connectTo(KestNDIRecv &node, const TestSource &source)
{
    node.setData({{"name", source.name()}});
    node.onTimer();
    const NDIlib_recv_instance_t handle = newestReceiver();
    return QByteArray(receiverInfo(handle).p_source_name) == source.listed ? handle : nullptr;
}

// A started receiver, linked to a recorder and connected to a source of its own.
struct Rig
{
    Rig() : source("source"), node(startedReceiver(&recorder)), events(node.get(), &KestObject::eventSent)
    {
        handle = connectTo(*node, source);
    }
    TestSource source;
    Recorder recorder;
    Receiver node;
    QSignalSpy events;
    NDIlib_recv_instance_t handle = nullptr;
};

void capturePass(KestNDIRecv &node)
{
    QTimerEvent tick(0);
    QCoreApplication::sendEvent(&node, &tick);
}

constexpr uint32_t kCodecH264 = NDIlib_compressed_FourCC_type_H264;
constexpr uint32_t kCodecAac = NDIlib_compressed_FourCC_type_AAC;
const QByteArray kParameterSets("\0\0\0\1gSPS\0\0\0\1hPPS", 16);

enum Kind { Video, Audio, Raw };

// Queues a frame as the runtime delivers it: FourCC 0 is H264 or AAC; `size` is its
// data_size_in_bytes (INT_MIN: the length of `bytes`).
void inject(NDIlib_recv_instance_t handle, Kind kind, const QByteArray &bytes, uint32_t fourcc = 0, int size = INT_MIN,
            bool nullData = false, int channels = 2)
{
    uint8_t *data = nullData ? nullptr : reinterpret_cast<uint8_t *>(const_cast<char *>(bytes.constData()));
    const int declared = size == INT_MIN ? bytes.size() : size;
    if (kind == Audio) {
        NDIlib_audio_frame_v3_t frame = ndiAudioFrameDefaults();
        frame.no_channels = channels;
        frame.no_samples = 1024;
        frame.FourCC = NDIlib_FourCC_audio_type_e(fourcc ? fourcc : NDIlib_FourCC_audio_type_ex_AAC);
        frame.p_data = data;
        frame.data_size_in_bytes = declared;
        QVERIFY(kesttest_receiver_inject_audio(handle, &frame, bytes.size()));
    } else {
        NDIlib_video_frame_v2_t frame = ndiVideoFrameDefaults();
        frame.xres = 1920;
        frame.yres = 1080;
        frame.FourCC = NDIlib_FourCC_video_type_e(fourcc ? fourcc : NDIlib_FourCC_video_type_ex_H264_highest_bandwidth);
        frame.p_data = data;
        frame.data_size_in_bytes = declared;
        QVERIFY(kesttest_receiver_inject_video(handle, &frame, bytes.size()));
    }
}

// Frames a receiver must drop with one log line, and some it must take. Uncompressed video has
// no header to check, only its size and data.
struct Hostile
{
    const char *name;
    int version;
    qint64 dataSize, extraSize; // -1: the payload's, the extra data's
    int cut;                    // >= 0: the frame is this long (and says so)
    int declared;               // INT_MIN: data_size_in_bytes is the frame's length
    bool nullData;
    const char *expected; // the payload taken; "": dropped
    bool rawOnly = false;
};
const Hostile kHostile[] = {
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
    {"uncompressed: size 0", 44, -1, -1, -1, 0, false, "", true},
    {"uncompressed: negative size", 44, -1, -1, -1, -1, false, "", true},
    {"uncompressed: no data", 44, -1, -1, -1, INT_MIN, true, "", true},
};

QVariantList ready(const QVariantMap &audio, const QVariantMap &video)
{
    return {"ready", QVariantMap{{"infoA", audio}, {"infoV", video}}};
}

} // namespace

class TestNdiRecv : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void sharedFinderAndTimer();
    void getListEmptyThenAfterReset();
    void playAgainReconnects();
    void reconnectsByNameOnTick();
    void configFile_data();
    void configFile();
    void timeLines_data();
    void timeLines();
    void firstFrames_data();
    void firstFrames();
    void videoStartsAtKeyFrame_data();
    void videoStartsAtKeyFrame();
    void hostileFrames_data();
    void hostileFrames();
    void passesEndOnErrorOrStatusChange();
    void frameLargerThanPoolDropped();
    void connectionEndedByReadyHandler();
    void tally_data();
    void tally();

private:
    std::unique_ptr<LogCapture> log; // made once QtTest has installed its own handler
};

void TestNdiRecv::initTestCase()
{
    log = std::make_unique<LogCapture>();
    useNdiTestRuntime();
    QVERIFY2(NdiRuntime::instance().isAvailable(), qPrintable(NdiRuntime::instance().problem()));
}

void TestNdiRecv::cleanup()
{
    QCOMPARE(kesttest_receiver_count(), 0); // every test releases its receivers
    log->clear();
}

void TestNdiRecv::sharedFinderAndTimer()
{
    TestSource source("shared");
    Receiver owner = startedReceiver();
    const int findersCreated = kesttest_finders_created();
    Receiver other = startedReceiver(), third = startedReceiver();
    QCOMPARE(kesttest_finders_created(), findersCreated);
    QCOMPARE(kesttest_finder_count(), 1);
    const kesttest_finder_info_t finder = finderInfo(kesttest_finder_at(0)); // the defaults
    QVERIFY(finder.show_local_sources && !finder.p_groups && !finder.p_extra_ips);
    QTimer *timer = owner->findChild<QTimer *>();
    QVERIFY(timer && timer->isActive());
    QCOMPARE(timer->interval(), 2000);
    QVERIFY(!other->findChild<QTimer *>());

    // Only the owner's ticks ask the finder; the others read the owner's list.
    int queries = kesttest_source_queries();
    owner->onTimer();
    other->onTimer();
    QCOMPARE(kesttest_source_queries(), queries + 1);
    QCOMPARE(other->getList(), QVariant(QVariantList{source.name()}));

    // The others hear the shared timer too: one connects on its tick.
    other->setData({{"name", source.name()}});
    QSignalSpy ticks(timer, &QTimer::timeout);
    timer->start(1);
    QTRY_VERIFY(ticks.count() >= 1);
    timer->start(2000);
    QCOMPARE(QByteArray(receiverInfo(newestReceiver()).p_source_name), source.listed);

    // The owner goes first: the next receiver takes the running timer over and asks the finder.
    owner.reset();
    QCOMPARE(other->findChild<QTimer *>(), timer);
    QVERIFY(timer->isActive());
    queries = kesttest_source_queries();
    other->onTimer();
    third->onTimer();
    QCOMPARE(kesttest_source_queries(), queries + 1);
    // With every receiver gone, the next start makes a new timer.
    other.reset();
    third.reset();
    Receiver later = startedReceiver();
    QVERIFY(later->findChild<QTimer *>());
    later->onTimer();
    QCOMPARE(later->getList(), QVariant(QVariantList{source.name()}));
}

void TestNdiRecv::getListEmptyThenAfterReset()
{
    Receiver owner = startedReceiver(), other = startedReceiver();
    owner->onTimer();
    QCOMPARE(owner->getList(), QVariant(QVariantList{}));
    TestSource source("listed");
    QCOMPARE(owner->getList(), QVariant(QVariantList{})); // the list of the last tick
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
    QCOMPARE(other->getList(), QVariant(QVariantList{}));
    QCOMPARE(kesttest_finders_created(), created + 2);
    owner->onTimer();
    QCOMPARE(other->getList(), listed);
}

void TestNdiRecv::playAgainReconnects()
{
    TestSource second("second");
    Rig rig;
    inject(rig.handle, Video, compressedFrame(kCodecH264, 50000000, "one"));
    inject(rig.handle, Audio, compressedFrame(kCodecAac, 50100000, "a1", "\x11\x90"));
    capturePass(*rig.node);
    QCOMPARE(rig.recorder.order, (QStringList{"infoV", "V0", "infoA", "A0"}));

    // A name that is not listed exactly leaves the connection as it is.
    for (const QString &name : {QString("nobody"), QString("source"), rig.source.name().toLower()})
        QCOMPARE(rig.node->play(name), QVariant(false));
    QVERIFY(receiverInfo(rig.handle).connected);

    // Another source: the old instance goes, both streams are described again, time restarts.
    QCOMPARE(rig.node->play(second.name()), QVariant(true));
    QCOMPARE(kesttest_receiver_count(), 1);
    QCOMPARE(senderInfo(rig.source.handle).no_connections, 0);
    const NDIlib_recv_instance_t handle = newestReceiver();
    QCOMPARE(QByteArray(receiverInfo(handle).p_source_name), second.listed);
    inject(handle, Audio, compressedFrame(kCodecAac, 90000000, "a2", "\x11\x90"));
    inject(handle, Video, compressedFrame(kCodecH264, 90400000, "two"));
    capturePass(*rig.node);
    QCOMPARE(rig.recorder.order.mid(4), (QStringList{"infoA", "A0", "infoV", "V0"}));
    QCOMPARE(rig.events.count(), 4); // one "ready" per description
    // The "name" setting wins on the next tick: it still names the first source.
    rig.node->onTimer();
    QCOMPARE(QByteArray(receiverInfo(newestReceiver()).p_source_name), rig.source.listed);
}

void TestNdiRecv::reconnectsByNameOnTick()
{
    Receiver node = startedReceiver();
    const QString lateName = QString::fromUtf8(ndiSourceName("late"));
    node->setData({{"name", lateName}});
    node->onTimer(); // not listed yet: nothing to connect to
    TestSource late("late");
    QCOMPARE(kesttest_receiver_count(), 0); // and nothing happens before the next tick
    node->onTimer();
    QCOMPARE(QByteArray(receiverInfo(newestReceiver()).p_source_name), late.listed);
    node->onTimer(); // connected to the name it wants: nothing happens
    QCOMPARE(log->lines(), QStringList{"[rx] connect to \"" + lateName + '"'});

    // Another name moves the receiver on the next tick.
    TestSource moved("moved");
    node->setData({{"name", moved.name()}});
    QCOMPARE(QByteArray(receiverInfo(newestReceiver()).p_source_name), late.listed);
    node->onTimer();
    QCOMPARE(kesttest_receiver_count(), 1);
    QCOMPARE(QByteArray(receiverInfo(newestReceiver()).p_source_name), moved.listed);
    // An empty name disconnects at once.
    node->setData({{"name", ""}});
    QCOMPARE(kesttest_receiver_count(), 0);

    // An instance that could not be made is not tried again for the same name; meanwhile
    // there is nothing to capture from.
    kesttest_fail_next_creates(KESTTEST_RECEIVER, 1);
    node->setData({{"name", moved.name()}});
    node->onTimer();
    node->onTimer();
    capturePass(*node);
    QCOMPARE(log->count("[rx] create recv error"), 1);
    QCOMPARE(kesttest_receiver_count(), 0);
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
}

void TestNdiRecv::configFile()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, passed);
    QTemporaryDir dir;
    const QString config = ndiConfigFile(dir.path(), content);
    QVERIFY(!config.isEmpty());
    TestSource source("configured");
    Receiver node = startedReceiver();
    node->setData({{"config", config}});
    QVERIFY(connectTo(*node, source));
    const kesttest_receiver_info_t info = receiverInfo(newestReceiver());
    QVERIFY(info.created_with_config);
    QCOMPARE(QByteArray(info.p_config), passed);
    // Compressed video and AAC, from the full stream, fields allowed, under the receiver's name.
    QCOMPARE(info.color_format, NDIlib_recv_color_format_compressed_v4_with_audio);
    QCOMPARE(info.bandwidth, NDIlib_recv_bandwidth_highest);
    QVERIFY(info.allow_video_fields);
    QCOMPARE(QByteArray(info.p_ndi_recv_name), QByteArray("test"));
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
    QTest::newRow("earlier times go negative, 100 ns truncated")
        << QStringList{"A5000000", "A4000019"} << QStringList{"A0", "A-99999"};
}

void TestNdiRecv::timeLines()
{
    QFETCH(QStringList, frames);
    QFETCH(QStringList, packets);
    Rig rig;
    for (const QString &f : frames) {
        const qint64 ndiTime = f.mid(1).toLongLong();
        if (f.startsWith('V'))
            inject(rig.handle, Video, compressedFrame(kCodecH264, ndiTime, "v"));
        else
            inject(rig.handle, Audio, compressedFrame(kCodecAac, ndiTime, "a", "\x11\x90"));
    }
    capturePass(*rig.node);
    QStringList got = rig.recorder.order;
    got.removeAll("infoV");
    got.removeAll("infoA");
    QCOMPARE(got, packets);
}

void TestNdiRecv::firstFrames_data()
{
    QTest::addColumn<bool>("audio");
    QTest::addColumn<uint32_t>("fourcc");
    QTest::addColumn<int>("codec");
    QTest::addColumn<QString>("codecName"); // "": no "codec" in the event
    const auto video = [](const char *name, uint32_t fourcc, int codec, const char *codecName) {
        QTest::newRow(name) << false << fourcc << codec << QString(codecName);
    };
    video("H264", NDIlib_FourCC_video_type_ex_H264_highest_bandwidth, KestCodec::H264, "h264");
    video("HEVC", NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth, KestCodec::H265, "h265");
    video("H265 by its last character", ndiFourCC('H', '2', '6', '5'), KestCodec::H265, "h265");
    video("HEV4 by its last character", ndiFourCC('H', 'E', 'V', '4'), KestCodec::H264, "h264");
    video("neither: described once without a codec", ndiFourCC('H', '2', '6', 'X'), KestCodec::None, "");
    video("uncompressed: H followed by neither 2 nor E", ndiFourCC('H', 'X', '6', '4'), KestCodec::RawVideo, "");
    video("uncompressed: UYVY", NDIlib_FourCC_video_type_UYVY, KestCodec::RawVideo, ""); // code 2 has no name
    QTest::newRow("AAC") << true << uint32_t(NDIlib_FourCC_audio_type_ex_AAC) << int(KestCodec::AAC) << "aac";
}

void TestNdiRecv::firstFrames()
{
    QFETCH(bool, audio);
    QFETCH(uint32_t, fourcc);
    QFETCH(int, codec);
    QFETCH(QString, codecName);
    const bool raw = codec == KestCodec::RawVideo;
    const QByteArray extra = audio ? QByteArray("\x12\x34") : kParameterSets;
    const uint32_t packetCodec = audio ? kCodecAac : kCodecH264;
    const QByteArrayList frames{compressedFrame(packetCodec, 7000000, "key", extra), compressedFrame(packetCodec, 7213330, "next")};
    Rig rig;
    // Audio in another format is released unread.
    inject(rig.handle, Audio, compressedFrame(kCodecAac, 1000, "floats"), NDIlib_FourCC_audio_type_FLTP);
    for (const QByteArray &frame : frames)
        inject(rig.handle, audio ? Audio : Video, frame, fourcc, INT_MIN, false, 6);
    log->clear();
    const qint64 before = KestHi::now();
    capturePass(*rig.node);
    const qint64 after = KestHi::now();

    // Described once, ahead of the first packet. Uncompressed frames are not parsed and go on
    // as they came, stamped with the host clock.
    QVariantMap params{{"width", 1920}, {"height", 1080}, {"framerate", 30000}, {"extradata", kParameterSets}};
    if (raw)
        params = {{"width", 1920}, {"height", 1080}, {"framerate", 30.0}}; // 30000/1001, rounded
    if (audio) // "channel_layout" is the count plus one, for every count
        params = {{"sample_fmt", 1}, {"samplerate", 48000}, {"channels", 6}, {"channel_layout", 7}, {"extradata", extra}, {"frame_size", 1024}};
    QCOMPARE(rig.recorder.order.value(0), QString(audio ? "infoA" : "infoV"));
    QCOMPARE(rig.recorder.infos.size(), 1);
    QCOMPARE(rig.recorder.infos[0].codec, codec);
    QCOMPARE(rig.recorder.infos[0].params, params);
    if (raw)
        QCOMPARE(rig.recorder.infos[0].params.value("framerate").userType(), int(QMetaType::Double));
    QCOMPARE(rig.recorder.payloads, (raw ? frames : QByteArrayList{"key", "next"}));
    for (int i = 0; i < rig.recorder.packets.size(); ++i) {
        const Packet &pkt = rig.recorder.packets[i];
        QCOMPARE(pkt.dts, qint64(-1));
        QCOMPARE(pkt.frameType, audio ? 3 : 0);
        QVERIFY(!pkt.source);
        if (raw) {
            QVERIFY(pkt.pts >= before && pkt.pts <= after);
        } else {
            QCOMPARE(pkt.pts, qint64(i * 21333));
            QCOMPARE(quintptr(pkt.data) % 16, quintptr(0)); // the host's buffer, not the runtime's
        }
    }
    QVariantMap event = params;
    if (!codecName.isEmpty())
        event["codec"] = codecName;
    QCOMPARE(rig.events.count(), 1);
    QCOMPARE(rig.events[0], audio ? ready(event, {}) : ready({}, event));
    QCOMPARE(log->lines().size(), codec == KestCodec::None ? 1 : 0);
    const kesttest_receiver_info_t info = receiverInfo(rig.handle);
    QCOMPARE(info.outstanding_frames + info.bad_frees, 0);
}

void TestNdiRecv::videoStartsAtKeyFrame_data()
{
    QTest::addColumn<bool>("runtimeHolds");
    QTest::newRow("runtime passes on what comes") << false;
    QTest::newRow("runtime holds video until a key frame") << true;
}

void TestNdiRecv::videoStartsAtKeyFrame()
{
    QFETCH(bool, runtimeHolds);
    kesttest_set_join_at_key_frame(runtimeHolds);
    Rig rig; // connected to a running source, between two key frames
    kesttest_set_join_at_key_frame(false);
    const uint32_t h264 = NDIlib_FourCC_video_type_ex_H264_highest_bandwidth;
    rig.source.send(h264, false, "delta 1", {}, 10000000);
    rig.source.send(NDIlib_FourCC_audio_type_ex_AAC, true, "sound", "\x11\x90", 10100000);
    rig.source.send(h264, false, "delta 2", {}, 10400000);
    rig.source.send(h264, true, "key", kParameterSets, 10800000);
    rig.source.send(h264, false, "delta 3", {}, 11200000);
    QCOMPARE(receiverInfo(rig.handle).queued_frames, runtimeHolds ? 3 : 5);
    capturePass(*rig.node);
    // Either way the host's decoder starts at the key frame, described with its parameter sets.
    QCOMPARE(rig.recorder.order, (QStringList{"infoA", "A0", "infoV", "V0", "V40000"}));
    QCOMPARE(rig.recorder.payloads, (QByteArrayList{"sound", "key", "delta 3"}));
    QCOMPARE(rig.events.count(), 2);
    QCOMPARE(rig.events[1][1].toMap()["infoV"].toMap()["extradata"], QVariant(kParameterSets));
}

void TestNdiRecv::hostileFrames_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("row"); // of kHostile
    for (Kind kind : {Video, Audio, Raw})
        for (int row = 0; row < int(std::size(kHostile)); ++row)
            if ((kind == Raw) == kHostile[row].rawOnly)
                QTest::newRow(qPrintable(QString(kind == Audio ? "audio: " : "video: ") + kHostile[row].name)) << int(kind) << row;
}

void TestNdiRecv::hostileFrames()
{
    QFETCH(int, kind);
    QFETCH(int, row);
    const Hostile &r = kHostile[row];
    const QByteArray expected(r.expected);
    Rig rig;
    QByteArray frame = compressedFrame(kind == Audio ? kCodecAac : kCodecH264, 0, "PAYLOAD!", "XX", r.version);
    NDIlib_compressed_packet_t header{};
    std::memcpy(&header, frame.constData(), sizeof(header));
    if (r.dataSize >= 0)
        header.data_size = uint32_t(r.dataSize);
    if (r.extraSize >= 0)
        header.extra_data_size = uint32_t(r.extraSize);
    std::memcpy(frame.data(), &header, sizeof(header));
    if (r.cut >= 0)
        frame.truncate(r.cut);
    // The runtime copies exactly the frame's bytes: a read past them is caught by the
    // sanitizer build.
    const Kind path = kind == Audio ? Audio : Video;
    const uint32_t fourcc = kind == Raw ? uint32_t(NDIlib_FourCC_video_type_UYVY) : 0;
    inject(rig.handle, path, frame, fourcc, r.declared, r.nullData);
    inject(rig.handle, path, kind == Raw ? QByteArray("NEXT") : compressedFrame(header.fourCC, 0, "NEXT"), fourcc);
    log->clear();
    capturePass(*rig.node);

    // The loop goes on after a dropped frame; every frame goes back to the runtime.
    QCOMPARE(rig.recorder.payloads, (expected.isEmpty() ? QByteArrayList{"NEXT"} : QByteArrayList{expected, "NEXT"}));
    const QStringList lines = log->lines();
    QCOMPARE(lines.size(), expected.isEmpty() ? 1 : 0);
    if (!lines.isEmpty())
        QVERIFY2(lines[0].startsWith(kind == Audio ? "[rx] audio frame dropped: " : "[rx] video frame dropped: "), qPrintable(lines[0]));
    const kesttest_receiver_info_t info = receiverInfo(rig.handle);
    QCOMPARE(info.outstanding_frames + info.bad_frees, 0);
}

void TestNdiRecv::passesEndOnErrorOrStatusChange()
{
    Rig rig;
    inject(rig.handle, Video, compressedFrame(kCodecH264, 0, "before"));
    QVERIFY(kesttest_receiver_inject(rig.handle, NDIlib_frame_type_error));
    inject(rig.handle, Video, compressedFrame(kCodecH264, 0, "after"));
    QVERIFY(kesttest_receiver_inject(rig.handle, NDIlib_frame_type_status_change));
    inject(rig.handle, Video, compressedFrame(kCodecH264, 0, "last"));
    log->clear();
    capturePass(*rig.node);
    QCOMPARE(rig.recorder.payloads, QByteArrayList{"before"});
    QCOMPARE(log->lines(), QStringList{"[rx] error"});
    capturePass(*rig.node);
    QCOMPARE(rig.recorder.payloads, (QByteArrayList{"before", "after"}));
    QCOMPARE(log->lines().size(), 1);
    // The 10 ms timer runs the passes by itself.
    QTRY_COMPARE_WITH_TIMEOUT(rig.recorder.payloads.size(), 3, 1000);
}

void TestNdiRecv::frameLargerThanPoolDropped()
{
    Rig rig;
    rig.node->setData({{"memSize", 4096}});
    inject(rig.handle, Video, compressedFrame(kCodecH264, 0, QByteArray(8192, 'x')));
    inject(rig.handle, Video, compressedFrame(kCodecH264, 0, QByteArray(8192, 'y')));
    inject(rig.handle, Video, compressedFrame(kCodecH264, 0, "small"));
    log->clear();
    capturePass(*rig.node);
    QCOMPARE(rig.recorder.payloads, QByteArrayList{"small"});
    QCOMPARE(log->lines(), QStringList{"[rx] a frame of 8192 bytes does not fit \"memSize\"; such frames are dropped"});
    QCOMPARE(receiverInfo(rig.handle).outstanding_frames, 0);
}

void TestNdiRecv::connectionEndedByReadyHandler()
{
    TestSource other("other");
    Rig rig;
    // A host that moves on as soon as it learns what the source sends.
    connect(rig.node.get(), &KestObject::eventSent, this, [&] { rig.node->play(other.name()); });
    inject(rig.handle, Video, compressedFrame(kCodecH264, 0, "one"));
    inject(rig.handle, Video, compressedFrame(kCodecH264, 0, "two"));
    capturePass(*rig.node);
    // The packet of the ended connection is dropped, and nothing is read from or given back
    // for the frames the destroyed instance took with it (the new one may reuse its address).
    QCOMPARE(rig.recorder.payloads, QByteArrayList{});
    QCOMPARE(kesttest_receiver_count(), 1);
    const kesttest_receiver_info_t info = receiverInfo(newestReceiver());
    QCOMPARE(QByteArray(info.p_source_name), other.listed);
    QCOMPARE(info.outstanding_frames + info.bad_frees, 0);
}

void TestNdiRecv::tally_data()
{
    QTest::addColumn<QVariant>("args");
    QTest::addColumn<bool>("program");
    QTest::addColumn<bool>("preview");
    QTest::newRow("program") << QVariant(QVariantMap{{"program", true}}) << true << false;
    QTest::newRow("preview") << QVariant(QVariantMap{{"preview", true}, {"program", false}}) << false << true;
    QTest::newRow("empty map clears both") << QVariant(QVariantMap{}) << false << false;
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
    const NDIlib_tally_t opposite{!program, !preview}; // so that every flag is seen to change
    QVERIFY(NDIlib_recv_set_tally(handle, &opposite));
    QCOMPARE(node->setTally(args), QVariant(true));
    const kesttest_sender_info_t sender = senderInfo(source.handle);
    QCOMPARE(sender.tally.on_program, program);
    QCOMPARE(sender.tally.on_preview, preview);
}

QTEST_GUILESS_MAIN(TestNdiRecv)
#include "tst_ndirecv.moc"
