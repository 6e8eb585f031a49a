// The NDI nodes and the NDI test runtime they run against, which drops any frame that breaks a
// documented rule: the runtime's rules, colour formats and groups; KestNDISend's settings,
// frames, key-frame requests and tally, end to end into KestNDIRecv; the receiver's discovery,
// connection by name and capture loop.

#include "testruntime.h"

#include "json.h"
#include "kestencodev.h"
#include "kesthi.h"
#include "logcapture.h"
#include "ndi/kestndirecv.h"
#include "ndi/kestndisend.h"
#include "ndi/ndiruntime.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <memory>

namespace {

constexpr uint32_t kH264 = NDIlib_FourCC_video_type_ex_H264_highest_bandwidth;
constexpr uint32_t kHevc = NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth;
constexpr uint32_t kAac = NDIlib_FourCC_audio_type_ex_AAC;
constexpr uint32_t kUyvy = NDIlib_FourCC_video_type_UYVY;

// An encoder that only counts key-frame requests.
class Encoder : public KestEncodeV
{
public:
    QVariant idr() override { return ++requests; }
    int requests = 0;
};

// Keeps what reaches it, in order: "infoV <codec> <params as JSON>", "V<pts> <bytes>", the same for
// audio, and "ready <audio codec> <video codec>".
class Sink : public KestObject
{
public:
    void onNewInfoV(StreamInfo info) override { order << "infoV " + QString::number(info.codec) + ' ' + Json::encode(info.params, false); }
    void onNewInfoA(StreamInfo info) override { order << "infoA " + QString::number(info.codec) + ' ' + Json::encode(info.params, false); }
    void onNewPacketV(Packet pkt) override { take('V', pkt); }
    void onNewPacketA(Packet pkt) override { take('A', pkt); }
    void onNewEvent(QString type, QVariant info) override { order << type + ' ' + codec(info, "infoA") + ' ' + codec(info, "infoV"); }
    void take(char kind, const Packet &pkt)
    {
        // In the host's buffer, not the runtime's.
        QVERIFY(pkt.dts == -1 && pkt.frameType == (kind == 'A' ? 3 : 0) && !pkt.source && quintptr(pkt.data) % 16 == 0);
        packets << pkt;
        order << kind + QString::number(pkt.pts) + ' ' + QString::fromLatin1(pkt.data, pkt.len);
    }
    static QString codec(const QVariant &info, const char *stream) { return info.toMap()[stream].toMap().value("codec", "-").toString(); }
    QVector<Packet> packets;
    QStringList order;
};

// Released the way an owner releases a receiver: by clearing "name" first. A capture pass is
// timerEvent(nullptr).
class Receiver : public KestNDIRecv
{
public:
    ~Receiver() override { setData({{"name", QString()}}); }
    using KestNDIRecv::timerEvent;
};

// A started receiver, linked to `sink`, that asks for `source` on the tick of the shared timer
// (the first one, by this receiver, when it owns that timer).
std::unique_ptr<Receiver> startedReceiver(Sink *sink = nullptr, const QString &source = {})
{
    auto node = std::make_unique<Receiver>();
    node->setName("rx");
    node->setData({{"config", "/nonexistent/ndi.json"}, {"name", source}});
    if (sink)
        node->link(sink, KestObject::Both);
    node->start();
    node->onTimer();
    return node;
}

// Queues a frame on the newest receiver as the runtime would deliver it (null `bytes`: no data).
void inject(bool audio, uint32_t fourcc, const QByteArray &bytes)
{
    uint8_t *data = bytes.isNull() ? nullptr : reinterpret_cast<uint8_t *>(const_cast<char *>(bytes.constData()));
    const NDIlib_video_frame_v2_t v{1920, 1080, NDIlib_FourCC_video_type_e(fourcc), 30000, 1001, 0, NDIlib_frame_format_type_progressive, 0, data, {bytes.size()}, nullptr, 0};
    const NDIlib_audio_frame_v3_t a{48000, 2, 1024, 0, NDIlib_FourCC_audio_type_e(fourcc), data, {bytes.size()}, nullptr, 0};
    QVERIFY(audio ? kesttest_receiver_inject_audio(newestReceiver(), &a, bytes.size()) : kesttest_receiver_inject_video(newestReceiver(), &v, bytes.size()));
}

QByteArray h264(const QByteArray &payload, int64_t pts = 0, const QByteArray &extra = {}) { return compressedFrame(NDIlib_compressed_FourCC_type_H264, pts, payload, extra); }

// The path of a configuration file holding `content`.
QString configFile(const QByteArray &content)
{
    static QTemporaryDir dir;
    QFile file(dir.filePath(QString::number(qHash(content)) + ".json"));
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() ? file.fileName() : QString();
}

StreamInfo videoInfo(QObject *encoder, int width, const QVariantMap &changes = {})
{
    QVariantMap params{{"width", width}, {"height", width * 9 / 16}, {"framerate", 30}, {"extradata", "SPSPPS"}};
    params.insert(changes);
    return {KestCodec::H264, params, encoder};
}

// A packet of bytes that outlive the call it is passed to.
Packet packet(QObject *source, int frameType, qint64 pts, const QByteArray &bytes) { return {const_cast<char *>(bytes.constData()), bytes.size(), pts, -1, frameType, source}; }

// Sender creations follow each other at least a second apart; the tests move the clock on.
void skipSpacing() { KestHi::setClockOffset(KestHi::clockOffset() + 2000000); }

std::unique_ptr<KestNDISend> makeSender(const QVariantMap &settings = {{"name", "cam"}})
{
    auto node = std::make_unique<KestNDISend>();
    node->setName("ndi");
    node->data["config"] = "/nonexistent/ndi.json";
    skipSpacing();
    node->setData(settings);
    return node;
}

} // namespace

class TestNdi : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void runtimeRules_data();
    void runtimeRules();
    void findersListByGroupAndPlace();
    void senderCreation();
    void sentAndReceived_data();
    void sentAndReceived();
    void discoveryAndConnection();
    void capturePasses();

private:
    std::unique_ptr<LogCapture> log; // made once QtTest has installed its own handler
};

void TestNdi::initTestCase()
{
    log = std::make_unique<LogCapture>();
    useNdiTestRuntime();
    QVERIFY2(NdiRuntime::instance().problem().isEmpty(), qPrintable(NdiRuntime::instance().problem()));
}

void TestNdi::cleanup()
{
    QCOMPARE(kesttest_sender_count() + kesttest_receiver_count(), 0); // every test stops its nodes
    log->clear();
}

void TestNdi::runtimeRules_data()
{
    // One frame sent with the runtime's own functions as KestNDISend sends it, in the blocks
    // header, payload and extra data: a key frame with its parameter sets (AAC: its
    // AudioSpecificConfig), 1920x1080 at 30000/1001, 16:9, progressive (AAC: 48 kHz stereo, 1024
    // samples), except for the `changes`: "key" (a non-key frame carries no extra data),
    // "extra" and "codec" of the header, "split" (the first block ends after that many header
    // bytes), "cut" (extra data left out of the blocks), "format"; and the receiver's
    // "colour" format and "bandwidth".
    QTest::addColumn<uint32_t>("fourcc");
    QTest::addColumn<QVariantMap>("changes");
    QTest::addColumn<QString>("dropReason"); // empty: accepted
    QTest::addColumn<QString>("got");        // "FourCC data_size_in_bytes"; "sent": as sent
    const auto row = [](const char *name, uint32_t fourcc, const QVariantMap &changes, const char *reason, const char *got = "") {
        QTest::newRow(name) << fourcc << changes << QString(reason) << QString(got);
    };
    row("H.264 passed", kH264, {}, "", "sent");
    row("header split across blocks", kH264, {{"split", 20}}, "the compressed packet header is not inside the first block");
    row("sizes do not add up", kH264, {{"cut", 3}}, "header, data and extra data do not add up to the frame");
    row("header names another codec", kHevc, {{"codec", NDIlib_compressed_FourCC_type_H264}}, "the compressed packet codec does not match the frame's FourCC");
    row("key frame without parameter sets", kH264, {{"extra", ""}}, "a key frame carries no extra data (its parameter sets)");
    row("parameter sets on another frame", kH264, {{"key", false}, {"extra", "SPSPPS"}}, "a frame that is not a key frame carries extra data");
    row("interlaced", kH264, {{"format", NDIlib_frame_format_type_interleaved}}, "compressed video is not progressive");
    row("AAC passed", kAac, {}, "", "sent");
    row("AAC not flagged as key frame", kAac, {{"key", false}}, "an AAC packet is not flagged as a key frame");
    row("AAC without its configuration", kAac, {{"extra", ""}}, "an AAC packet carries no AudioSpecificConfig as extra data");
    row("H.264 and AAC passed: HEVC decoded", kHevc, {{"colour", NDIlib_recv_color_format_compressed_v3_with_audio}}, "", "UYVY 3840");
    row("video passed: AAC decoded", kAac, {{"colour", NDIlib_recv_color_format_compressed_v4}}, "", "FLTp 4096");
    row("standard format: H.264 decoded to BGRX", kH264, {{"colour", NDIlib_recv_color_format_BGRX_BGRA}}, "", "BGRX 7680");
    row("audio only: no video", kH264, {{"bandwidth", NDIlib_recv_bandwidth_audio_only}}, "");
    row("metadata only: no audio", kAac, {{"bandwidth", NDIlib_recv_bandwidth_metadata_only}}, "");
}

void TestNdi::runtimeRules()
{
    QFETCH(uint32_t, fourcc);
    QFETCH(QVariantMap, changes);
    QFETCH(QString, dropReason);
    QFETCH(QString, got);
    const bool audio = fourcc == kAac, key = changes.value("key", true).toBool();
    const uint32_t codec = audio ? NDIlib_compressed_FourCC_type_AAC : fourcc == kH264 ? NDIlib_compressed_FourCC_type_H264 : NDIlib_compressed_FourCC_type_HEVC;
    const QByteArray extra = changes.value("extra", QByteArray(audio ? "AS" : key ? "SPSPPS" : "")).toByteArray();
    const QByteArray header = compressedFrame(changes.value("codec", codec).toUInt(), 0, "payload", extra, key).left(NDIlib_compressed_packet_version_0);
    const int split = changes.value("split", header.size()).toInt();
    const QByteArray blocks[] = {header.left(split), header.mid(split) + "payload", extra.left(extra.size() - changes.value("cut").toInt())};
    const auto block = [&](int i) { return reinterpret_cast<const uint8_t *>(blocks[i].constData()); };
    const uint8_t *pointers[4] = {block(0), block(1), block(2)};
    int sizes[4] = {blocks[0].size(), blocks[1].size(), blocks[2].size()};
    const NDIlib_frame_scatter_t scatter{pointers, sizes};
    const NDIlib_video_frame_v2_t video{1920, 1080, NDIlib_FourCC_video_type_e(fourcc), 30000, 1001, 16.0 / 9,
                                       NDIlib_frame_format_type_e(changes.value("format", NDIlib_frame_format_type_progressive).toInt()), 0, nullptr, {0}, nullptr, 0};
    const NDIlib_audio_frame_v3_t sound{48000, 2, 1024, 0, NDIlib_FourCC_audio_type_ex_AAC, nullptr, {0}, nullptr, 0};
    TestSource source("rules");
    const NDIlib_recv_create_v3_t settings{{source.listed.constData(), {nullptr}}, NDIlib_recv_color_format_e(changes.value("colour", NDIlib_recv_color_format_compressed_v4_with_audio).toInt()),
                                           NDIlib_recv_bandwidth_e(changes.value("bandwidth", NDIlib_recv_bandwidth_highest).toInt()), true, nullptr};
    const std::unique_ptr<NDIlib_recv_instance_type, decltype(&NDIlib_recv_destroy)> receiver(NDIlib_recv_create_v3(&settings), &NDIlib_recv_destroy);
    audio ? NDIlib_send_send_audio_scatter(source.handle, &sound, &scatter) : NDIlib_send_send_video_scatter(source.handle, &video, &scatter);

    // Dropped frames are counted, with the rule the last one broke.
    const SentFrame sent = sentFrames(source.handle).value(0);
    const kesttest_sender_info_t info = senderInfo(source.handle);
    QCOMPARE(QStringList({sent.raw.p_drop_reason, info.p_last_drop_reason}), QStringList({dropReason, dropReason}));
    QCOMPARE(QVector<int64_t>({info.dropped_frames, info.video_frames + info.audio_frames}), QVector<int64_t>({!dropReason.isEmpty(), dropReason.isEmpty()}));
    // A receiver gets the blocks joined, or what its colour format makes of them; it may free
    // a frame once.
    NDIlib_video_frame_v2_t v{};
    NDIlib_audio_frame_v3_t a{};
    const NDIlib_frame_type_e type = NDIlib_recv_capture_v3(receiver.get(), &v, &a, nullptr, 0);
    const bool isVideo = type == NDIlib_frame_type_video;
    const QByteArray data(reinterpret_cast<const char *>(isVideo ? v.p_data : a.p_data), isVideo ? v.data_size_in_bytes : a.data_size_in_bytes);
    const uint32_t gotFourCC = isVideo ? uint32_t(v.FourCC) : uint32_t(a.FourCC);
    QCOMPARE(type == NDIlib_frame_type_none ? "" : data == sent.bytes && gotFourCC == fourcc ? "sent" : QString::fromLatin1(reinterpret_cast<const char *>(&gotFourCC), 4) + ' ' + QString::number(data.size()), got);
    for (int i = 0; i < 2 && type != NDIlib_frame_type_none; ++i)
        isVideo ? NDIlib_recv_free_video_v2(receiver.get(), &v) : NDIlib_recv_free_audio_v3(receiver.get(), &a);
    QCOMPARE(receiverInfo(receiver.get()).bad_frees, type == NDIlib_frame_type_none ? 0 : 1);
}

void TestNdi::findersListByGroupAndPlace()
{
    TestSource plain("plain"), grouped("grouped", "G1, Studio");
    kesttest_set_sender_machine("ELSEWHERE");
    TestSource remote("remote");
    kesttest_set_sender_machine(nullptr);
    // A finder lists the senders that share one of its groups (case aside; none: "public"),
    // those of this machine only when it shows local sources.
    const auto listed = [](bool showLocal, const char *groups) {
        const NDIlib_find_create_t settings{showLocal, groups, nullptr};
        NDIlib_find_instance_t finder = NDIlib_find_create_v2(&settings);
        uint32_t count = 0;
        const NDIlib_source_t *sources = NDIlib_find_get_current_sources(finder, &count);
        QStringList names;
        for (uint32_t i = 0; i < count; ++i)
            names << sources[i].p_ndi_name;
        NDIlib_find_destroy(finder);
        return names;
    };
    QCOMPARE(listed(true, nullptr), (QStringList{plain.name(), "ELSEWHERE (remote)"}));
    QCOMPARE(listed(true, "studio,G3"), QStringList{grouped.name()});
    QCOMPARE(listed(false, " Public"), QStringList{"ELSEWHERE (remote)"});
}

void TestNdi::senderCreation()
{
    auto first = makeSender({});
    KestNDISend second;
    second.setName("ndi");
    second.data["config"] = configFile("{ \"ndi\": { \"groups\": { \"send\": \"A\" } } }\n");
    QElapsedTimer elapsed;
    elapsed.start();
    second.setData({{"name", QString::fromUtf8("Caméra")}, {"group", QString::fromUtf8("Régie,Public")}});
    QVERIFY2(elapsed.elapsed() >= 990, "a second sender right after the first waits a second");
    // Name in Latin-1, group in UTF-8 (none: null), the configuration file's object compacted
    // (none: "{}"), the capabilities for every receiver that connects.
    QStringList got;
    for (const NDIlib_send_instance_t sender : {kesttest_sender_at(0), kesttest_sender_at(1)}) {
        const kesttest_sender_info_t i = senderInfo(sender);
        got << QString::fromLatin1(i.p_ndi_name) + '|' + QString::fromUtf8(i.p_groups ? i.p_groups : "null") + '|' + i.p_config + '|'
                   + kesttest_sender_connection_metadata(sender, 0) + '|' + QString::number(i.created_with_config + i.clock_video + i.clock_audio);
    }
    QCOMPARE(got, (QStringList{"NDI Test|null|{}|<ndi_capabilities web_control=\"http://%IP%\"/>|1",
                               QString::fromUtf8("Caméra|Régie,Public|{\"ndi\":{\"groups\":{\"send\":\"A\"}}}|<ndi_capabilities web_control=\"http://%IP%\"/>|1")}));
    // A creation that fails is tried again by start, once; new settings replace a sender.
    kesttest_fail_next_creates(KESTTEST_SENDER, 1);
    skipSpacing();
    first->setData({});
    skipSpacing();
    first->start();
    first->start();
    QCOMPARE(log->lines(), (QStringList{"[ndi] NDI create", "[ndi] NDI create", "[ndi] create send failed", "[ndi] NDI create"}));
    QCOMPARE(kesttest_sender_count(), 2);
    first->stop();
    second.stop();
}

void TestNdi::sentAndReceived_data()
{
    QTest::addColumn<bool>("runtimeHolds");
    QTest::newRow("runtime passes on what comes") << false;
    QTest::newRow("runtime holds video until a key frame") << true;
}

void TestNdi::sentAndReceived()
{
    QFETCH(bool, runtimeHolds);
    Encoder encoder, subEncoder;
    auto sender = makeSender();
    sender->onNewInfoV(videoInfo(&subEncoder, 640)); // this narrow, a sub stream: it waits for a main one
    sender->onNewPacketV(packet(&subEncoder, 0, 1, "sub"));
    sender->onNewInfoV(videoInfo(&encoder, 1920));
    // Deliberately, "ntsc" rescales the main stream's rate, also when it describes the sub stream.
    sender->onNewInfoV(videoInfo(&subEncoder, 640, {{"framerate", 25}, {"ntsc", true}}));
    for (const int codec : {int(KestCodec::AAC), int(KestCodec::MP2)}) // only AAC goes out
        sender->onNewInfoA({codec, {{"samplerate", 48000}, {"channels", 2}, {"frame_size", 1024}, {"extradata", QByteArray::number(codec)}}, nullptr});
    const QByteArray bytes[] = {"key 0", "delta 1", "sound 1", "delta 2", "key", "sound 2", "delta 3", "sub delta"};
    sender->onNewPacketV(packet(&encoder, 0, 960000, bytes[0])); // before anybody watches
    kesttest_set_join_at_key_frame(runtimeHolds);
    Sink sink;
    auto receiver = startedReceiver(&sink, ndiSourceName("cam")); // between two key frames
    kesttest_set_join_at_key_frame(false);
    const int frameTypes[] = {1, 3, 1, 0, 3, 1};
    const qint64 times[] = {1000000, 1000000, 1040000, 1080000, 1021333, 1120000};
    for (int i = 0; i < 6; ++i)
        frameTypes[i] == 3 ? sender->onNewPacketA(packet(nullptr, 3, times[i], bytes[i + 1])) : sender->onNewPacketV(packet(&encoder, frameTypes[i], times[i], bytes[i + 1]));
    // The watched stream's encoder is asked for a key frame with every other frame until one comes.
    sender->onNewPacketV(packet(&subEncoder, 1, 1120000, bytes[7]));
    QCOMPARE(QVector<int>({encoder.requests, subEncoder.requests}), QVector<int>({2, 0}));
    QCOMPARE(log->count("[ndi] need IDR main"), 2);

    // Sent: video 10 ms early, in 100 ns units, with the parameter sets on key frames only;
    // every AAC frame a key frame with its configuration; the packet's own bytes, not a copy.
    QStringList sent;
    for (const SentFrame &f : sentFrames(newestSender())) {
        const bool audio = f.raw.type == NDIlib_frame_type_audio;
        const NDIlib_video_frame_v2_t &v = f.raw.video;
        QVERIFY2(!f.raw.p_drop_reason, f.raw.p_drop_reason);
        QCOMPARE(QVector<int64_t>({audio ? f.raw.audio.timestamp : v.timestamp, audio ? f.raw.audio.timecode : v.timecode}), QVector<int64_t>({f.header.pts, f.header.dts}));
        QVERIFY(std::any_of(std::begin(bytes), std::end(bytes), [&](const QByteArray &b) { return b.constData() == reinterpret_cast<const char *>(f.raw.p_blocks[1]); }));
        sent << QStringLiteral("%1 %2 %3 %4").arg(f.header.pts).arg(f.header.flags).arg(QString(f.payload), QString(f.extra))
                    + (audio ? QString() : QStringLiteral(" %1 %2x%3 %4/%5").arg(QString::fromLatin1(reinterpret_cast<const char *>(&v.FourCC), 4)).arg(v.xres).arg(v.yres).arg(v.frame_rate_N).arg(v.frame_rate_D));
    }
    QCOMPARE(sent, (QStringList{"9500000 1 key 0 SPSPPS H264 1920x1080 30000/1001", "9900000 0 delta 1  H264 1920x1080 30000/1001",
                                "10000000 1 sound 1 10", "10300000 0 delta 2  H264 1920x1080 30000/1001", "10700000 1 key SPSPPS H264 1920x1080 30000/1001",
                                "10213330 1 sound 2 10", "11100000 0 delta 3  H264 1920x1080 30000/1001", "11100000 0 sub delta  h264 640x360 25/1"}));

    // Received either way from the key frame on, described ahead of the first packet, each
    // stream joining the other at its current time, in microseconds.
    receiver->timerEvent(nullptr);
    QCOMPARE(sink.order, (QStringList{R"(infoA 10 {"channel_layout":3,"channels":2,"extradata":"10","frame_size":1024,"sample_fmt":1,"samplerate":48000})",
                                      "ready aac -", "A0 sound 1", R"(infoV 4 {"extradata":"SPSPPS","framerate":30000,"height":1080,"width":1920})",
                                      "ready aac h264", "V0 key", "A21333 sound 2", "V40000 delta 3"}));

    // Tally both ways: what the receiver sets reaches the sender's next poll, reported on change.
    QSignalSpy events(sender.get(), &KestObject::eventSent);
    QCOMPARE(receiver->setTally(QVariantMap{{"program", true}}), QVariant(true));
    sender->onTimer();
    sender->onTimer();
    QCOMPARE(receiver->setTally(QVariantMap{{"program", true}, {"preview", true}}), QVariant(true)); // either field alone is a change
    const QVariantMap both{{"program", true}, {"preview", true}}, program{{"program", true}, {"preview", false}};
    QCOMPARE(sender->getTally(), QVariant(both)); // a query reports nothing
    sender->onTimer();
    QCOMPARE(QList<QVariantList>(events), (QList<QVariantList>{{"tally", program}, {"tally", both}}));
    sender->stop();
}

void TestNdi::discoveryAndConnection()
{
    auto owner = startedReceiver(nullptr, QString::fromUtf8(ndiSourceName("late"))); // not listed yet
    auto other = startedReceiver();
    owner->setData({{"config", configFile("{ \"ndi\": {\"machinename\": \"R\xc3\xa9gie\"} }\n")}});
    // One finder, with the defaults, and one timer for all receivers.
    kesttest_finder_info_t finder{};
    QVERIFY(kesttest_finder_count() == 1 && kesttest_finder_info(kesttest_finder_at(0), &finder));
    QVERIFY(finder.show_local_sources && !finder.p_groups && !finder.p_extra_ips);
    QTimer *timer = owner->findChild<QTimer *>();
    QVERIFY(timer && timer->interval() == 2000 && !other->findChild<QTimer *>());
    TestSource late("late"), moved("moved");
    QCOMPARE(kesttest_receiver_count(), 0); // nothing happens before the next tick
    // Only the owner's ticks ask the finder, and connect; the others read the owner's list.
    const int queries = kesttest_source_queries(), findersCreated = kesttest_finders_created();
    other->onTimer();
    owner->onTimer();
    owner->onTimer(); // connected to the name it wants: nothing happens
    QCOMPARE(kesttest_source_queries(), queries + 2);
    QCOMPARE(other->getList(), QVariant(QVariantList{late.name(), moved.name()}));
    QCOMPARE(log->lines(), QStringList{"[rx] connect to \"" + late.name() + '"'});
    // Compressed video and AAC of the full stream, fields allowed, under the receiver's name;
    // the configuration with characters beyond ASCII escaped.
    const kesttest_receiver_info_t info = receiverInfo(newestReceiver());
    QCOMPARE(QByteArray(info.p_source_name) + ' ' + info.p_config, late.listed + " {\"ndi\":{\"machinename\":\"R\\u00e9gie\"}}");
    QVERIFY(info.created_with_config && info.allow_video_fields && QByteArray(info.p_ndi_recv_name) == "test");
    QCOMPARE(QVector<int>({info.color_format, info.bandwidth}), QVector<int>({NDIlib_recv_color_format_compressed_v4_with_audio, NDIlib_recv_bandwidth_highest}));
    // More than five ticks since the last reset: getList() starts a new finder and asks it.
    owner->onTimer();
    owner->onTimer();
    QCOMPARE(owner->getList(), other->getList());
    QCOMPARE(kesttest_finders_created(), findersCreated);
    owner->onTimer();
    QCOMPARE(owner->getList(), other->getList());
    QCOMPARE(kesttest_finders_created(), findersCreated + 1);

    // Only a name listed exactly is played; the "name" setting wins on the next tick, another
    // one moves the receiver then, and an empty one disconnects at once.
    QCOMPARE(QVariantList({owner->play("late"), owner->play(late.name().toLower()), owner->play(moved.name())}), QVariantList({false, false, true}));
    QCOMPARE(senderInfo(late.handle).no_connections, 0);
    owner->onTimer();
    QCOMPARE(QByteArray(receiverInfo(newestReceiver()).p_source_name), late.listed);
    owner->setData({{"name", moved.name()}});
    owner->onTimer();
    QCOMPARE(QByteArray(receiverInfo(newestReceiver()).p_source_name), moved.listed);
    owner->setData({{"name", ""}});
    QCOMPARE(kesttest_receiver_count(), 0);
    // An instance that could not be made leaves nothing to set the tally on.
    kesttest_fail_next_creates(KESTTEST_RECEIVER, 1);
    owner->setData({{"name", moved.name()}});
    owner->onTimer();
    QCOMPARE(log->count("[rx] create recv error"), 1);
    QCOMPARE(owner->setTally(QVariantMap{{"program", true}}), QVariant(false));
    // When the owner goes, the next receiver takes the timer over; with none left, the next
    // start makes a new one.
    owner.reset();
    QCOMPARE(other->findChild<QTimer *>(), timer);
    other.reset();
    QVERIFY(startedReceiver()->findChild<QTimer *>());
}

void TestNdi::capturePasses()
{
    TestSource source("source"), other("other");
    Sink sink;
    auto node = startedReceiver(&sink, source.name());
    node->setData({{"memSize", 4096}});
    QByteArray newer = h264("beyond");
    newer[0] = char(200); // a header version beyond the frame
    inject(false, kH264, newer);
    inject(true, kAac, compressedFrame(NDIlib_compressed_FourCC_type_AAC, 0, "sound", "AS").chopped(1));
    inject(false, kH264, QByteArray());
    for (const char fill : {'x', 'y'})
        inject(false, kH264, h264(QByteArray(8192, fill))); // larger than "memSize"
    inject(true, NDIlib_FourCC_audio_type_FLTP, "floats"); // audio in another format is released unread
    inject(false, ndiFourCC('H', '2', '6', 'X'), h264("key", 7000000, "SPSPPS"));
    inject(false, ndiFourCC('H', '2', '6', 'X'), h264("next", 7213330));
    QVERIFY(kesttest_receiver_inject(newestReceiver(), NDIlib_frame_type_error));
    inject(false, kH264, h264("after"));
    log->clear();
    // Dropped frames leave a line each (one for all that are too large), and the pass goes on;
    // an error ends it; the 10 ms timer runs the passes by itself.
    node->timerEvent(nullptr);
    QCOMPARE(log->lines() + sink.order, (QStringList{
        "[rx] video frame dropped: the packet header version 200 is larger than the frame of 50 bytes",
        "[rx] audio frame dropped: payload 5 and extra data 2 bytes do not fit a frame of 50 bytes with a 44-byte header",
        "[rx] video frame dropped: the frame has no data", "[rx] a frame of 8192 bytes does not fit \"memSize\"; such frames are dropped",
        "[rx] compressed video H26X is neither H.264 nor H.265", "[rx] error", R"(infoV 0 {"extradata":"SPSPPS","framerate":30000,"height":1080,"width":1920})",
        "ready - -", "V0 key", "V21333 next"}));
    QTRY_COMPARE_WITH_TIMEOUT(sink.order.size(), 5, 1000);

    // Uncompressed video goes on as it came, at the host's time, described once per connection.
    QCOMPARE(node->play(source.name()), QVariant(true));
    inject(false, kUyvy, QByteArray());
    const qint64 before = KestHi::now();
    inject(false, kUyvy, "UYVY");
    node->timerEvent(nullptr);
    QCOMPARE(sink.order.mid(5, 2), (QStringList{R"(infoV 2 {"framerate":30,"height":1080,"width":1920})", "ready - -"}));
    QVERIFY(sink.packets.last().pts >= before && QByteArray(sink.packets.last().data, 4) == "UYVY");
    QCOMPARE(log->count("[rx] video frame dropped: the frame has no data"), 2);

    // A host that moves on as soon as it learns what a source sends: the packet of the ended
    // connection is dropped, and nothing is read from or given back for the frames the
    // destroyed instance took with it (the new one may reuse its address).
    connect(node.get(), &KestObject::eventSent, this, [&] { node->play(other.name()); });
    QCOMPARE(node->play(source.name()), QVariant(true));
    inject(false, kH264, h264("one"));
    inject(false, kH264, h264("two"));
    node->timerEvent(nullptr);
    QCOMPARE(sink.order.mid(8), (QStringList{R"(infoV 4 {"extradata":null,"framerate":30000,"height":1080,"width":1920})", "ready - h264"}));
    const kesttest_receiver_info_t info = receiverInfo(newestReceiver());
    QCOMPARE(QByteArray(info.p_source_name), other.listed);
    QCOMPARE(info.outstanding_frames + info.bad_frees, 0);
}

QTEST_GUILESS_MAIN(TestNdi)
#include "tst_ndi.moc"
