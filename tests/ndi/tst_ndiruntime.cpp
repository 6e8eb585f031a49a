// The NDI test runtime keeps the rules the other NDI tests rely on.

#include "testruntime.h"

#include <QTest>
#include <QThread>

#include <memory>

namespace {

// A sender made directly on the runtime, destroyed with the object.
struct Sender
{
    explicit Sender(const char *name, const char *groups = nullptr)
    {
        NDIlib_send_create_t settings{};
        settings.p_ndi_name = name;
        settings.p_groups = groups;
        handle = NDIlib_send_create_v2(&settings, "{}");
    }
    ~Sender() { NDIlib_send_destroy(handle); }
    NDIlib_send_instance_t handle = nullptr;
};

struct Packet
{
    NDIlib_compressed_packet_t header{};
    QByteArray data;
    QByteArray extra;
};

Packet packet(NDIlib_compressed_FourCC_type_e codec, const QByteArray &data, const QByteArray &extra = {}, bool key = true)
{
    Packet p;
    p.header.version = NDIlib_compressed_packet_version_0;
    p.header.fourCC = codec;
    p.header.flags = key ? NDIlib_compressed_packet_flags_keyframe : NDIlib_compressed_packet_flags_none;
    p.header.data_size = uint32_t(data.size());
    p.header.extra_data_size = uint32_t(extra.size());
    p.data = data;
    p.extra = extra;
    return p;
}

NDIlib_video_frame_v2_t videoFrame(NDIlib_FourCC_video_type_e fourcc)
{
    NDIlib_video_frame_v2_t frame = ndiVideoFrameDefaults();
    frame.FourCC = fourcc;
    frame.xres = 1920;
    frame.yres = 1080;
    return frame;
}

void sendScattered(NDIlib_send_instance_t sender, NDIlib_FourCC_video_type_e fourcc, const Packet &p)
{
    const uint8_t *blocks[] = {reinterpret_cast<const uint8_t *>(&p.header), reinterpret_cast<const uint8_t *>(p.data.constData()),
                               reinterpret_cast<const uint8_t *>(p.extra.constData()), nullptr};
    const int sizes[] = {int(sizeof(p.header)), p.data.size(), p.extra.size(), 0};
    const NDIlib_frame_scatter_t scatter{blocks, sizes};
    const NDIlib_video_frame_v2_t frame = videoFrame(fourcc);
    NDIlib_send_send_video_scatter(sender, &frame, &scatter);
}

QByteArray headerBytes(const NDIlib_compressed_packet_t &header)
{
    return QByteArray(reinterpret_cast<const char *>(&header), sizeof(header));
}

QStringList names(const NDIlib_source_t *sources, uint32_t count)
{
    QStringList list;
    for (uint32_t i = 0; i < count; ++i)
        list << QString::fromUtf8(sources[i].p_ndi_name);
    return list;
}

} // namespace

class TestNdiRuntime : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();
    void sourcesListedByFinders_data();
    void sourcesListedByFinders();
    void sourceListReplacedOnEachQuery();
    void scatterRules_data();
    void scatterRules();
    void deliveryByBandwidthAndFormat_data();
    void deliveryByBandwidthAndFormat();
    void keyFrameRequiredPerStream();
    void tallyReachesSender();
    void captureFreeAndConnectionLoss();
    void captureWaitsForAFrame();
    void injectedFramesDeliveredAsGiven();
    void connectionMetadata();
    void createFailures();
};

void TestNdiRuntime::init()
{
    kesttest_set_sent_frame_limit(-1);
}

void TestNdiRuntime::cleanup()
{
    QCOMPARE(kesttest_sender_count(), 0);
    QCOMPARE(kesttest_receiver_count(), 0);
}

void TestNdiRuntime::sourcesListedByFinders_data()
{
    QTest::addColumn<QByteArray>("senderGroups"); // "-": NULL
    QTest::addColumn<QByteArray>("finderGroups");
    QTest::addColumn<bool>("showLocal");
    QTest::addColumn<bool>("visible");

    QTest::newRow("default groups") << QByteArray("-") << QByteArray("-") << true << true;
    QTest::newRow("default group is public") << QByteArray("-") << QByteArray("Public") << true << true;
    QTest::newRow("shared group, any case, spaces") << QByteArray("Studio, Cams") << QByteArray("cams") << true << true;
    QTest::newRow("no shared group") << QByteArray("Studio") << QByteArray("-") << true << false;
    QTest::newRow("local sources hidden") << QByteArray("-") << QByteArray("-") << false << false;
}

void TestNdiRuntime::sourcesListedByFinders()
{
    QFETCH(QByteArray, senderGroups);
    QFETCH(QByteArray, finderGroups);
    QFETCH(bool, showLocal);
    QFETCH(bool, visible);
    NDIlib_find_create_t settings{};
    settings.show_local_sources = showLocal;
    settings.p_groups = finderGroups == "-" ? nullptr : finderGroups.constData();
    NDIlib_find_instance_t finder = NDIlib_find_create_v2(&settings);
    QVERIFY(finder);
    uint32_t count = 99;
    NDIlib_find_get_current_sources(finder, &count);
    QCOMPARE(count, 0u);
    QVERIFY(!NDIlib_find_wait_for_sources(finder, 0));
    {
        Sender s("cam 1", senderGroups == "-" ? nullptr : senderGroups.constData());
        QVERIFY(NDIlib_find_wait_for_sources(finder, 0)); // the network changed
        const NDIlib_source_t *sources = NDIlib_find_get_current_sources(finder, &count);
        QCOMPARE(names(sources, count), visible ? QStringList{QString::fromUtf8(ndiSourceName("cam 1"))} : QStringList{});
        QVERIFY(!NDIlib_find_wait_for_sources(finder, 0));
        if (visible)
            QCOMPARE(QByteArray(sources[0].p_url_address), QByteArray(NDIlib_send_get_source_name(s.handle)->p_url_address));
    }
    NDIlib_find_get_current_sources(finder, &count);
    QCOMPARE(count, 0u);
    NDIlib_find_destroy(finder);
}

void TestNdiRuntime::sourceListReplacedOnEachQuery()
{
    NDIlib_find_instance_t finder = NDIlib_find_create_v2(nullptr);
    Sender a("a"), b("b");
    uint32_t count = 0;
    const NDIlib_source_t *first = NDIlib_find_get_current_sources(finder, &count);
    QCOMPARE(names(first, count), (QStringList{QString::fromUtf8(ndiSourceName("a")), QString::fromUtf8(ndiSourceName("b"))}));
    const int queries = kesttest_source_queries();
    const NDIlib_source_t *second = NDIlib_find_get_current_sources(finder, &count);
    QCOMPARE(kesttest_source_queries(), queries + 1);
    QCOMPARE(count, 2u);
    QCOMPARE(QByteArray(second[1].p_ndi_name), ndiSourceName("b"));
    QCOMPARE(kesttest_finder_count(), 1);
    NDIlib_find_destroy(finder);
    QCOMPARE(kesttest_finder_count(), 0);
}

void TestNdiRuntime::scatterRules_data()
{
    QTest::addColumn<QByteArrayList>("blocks");
    QTest::addColumn<uint32_t>("fourcc");
    QTest::addColumn<QString>("dropReason"); // empty: accepted

    const Packet h264 = packet(NDIlib_compressed_FourCC_type_H264, "picture", "SPSPPS");
    const QByteArray header = headerBytes(h264.header);
    const uint32_t high = NDIlib_FourCC_video_type_ex_H264_highest_bandwidth;
    QTest::newRow("header, data, extra") << QByteArrayList{header, "picture", "SPSPPS"} << high << QString();
    QTest::newRow("any split after the header")
        << QByteArrayList{header + "pic", "ture", "SPS", "PPS"} << high << QString();
    QTest::newRow("header split across blocks")
        << QByteArrayList{header.left(20), header.mid(20) + "picture", "SPSPPS"} << high
        << "the compressed packet header is not inside the first block";
    QTest::newRow("sizes do not add up") << QByteArrayList{header, "picture", "SPS"} << high
                                         << "header, data and extra data do not add up to the frame";
    QTest::newRow("header names another codec")
        << QByteArrayList{header, "picture", "SPSPPS"} << uint32_t(NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth)
        << "the compressed packet codec does not match the frame's FourCC";
    NDIlib_compressed_packet_t old = h264.header;
    old.version = 40;
    QTest::newRow("header version too small")
        << QByteArrayList{headerBytes(old), "picture", "SPSPPS"} << high << "the compressed packet header version is too small";
}

void TestNdiRuntime::scatterRules()
{
    QFETCH(QByteArrayList, blocks);
    QFETCH(uint32_t, fourcc);
    QFETCH(QString, dropReason);
    Sender s("scatter");
    TestReceiver receiver(ndiSourceName("scatter"));
    std::vector<const uint8_t *> pointers;
    std::vector<int> sizes;
    for (const QByteArray &b : blocks) {
        pointers.push_back(reinterpret_cast<const uint8_t *>(b.constData()));
        sizes.push_back(b.size());
    }
    pointers.push_back(nullptr);
    sizes.push_back(0);
    const NDIlib_frame_scatter_t scatter{pointers.data(), sizes.data()};
    const NDIlib_video_frame_v2_t frame = videoFrame(NDIlib_FourCC_video_type_e(fourcc));
    NDIlib_send_send_video_scatter(s.handle, &frame, &scatter);

    const QVector<SentFrame> sent = sentFrames(s.handle);
    QCOMPARE(sent.size(), 1);
    QCOMPARE(QString::fromUtf8(sent[0].raw.p_drop_reason), dropReason);
    QCOMPARE(sent[0].raw.no_blocks, blocks.size());
    QCOMPARE(sent[0].bytes, blocks.join());
    const auto got = receiver.drain(NDIlib_frame_type_video);
    QCOMPARE(got.size(), dropReason.isEmpty() ? 1 : 0);
    if (dropReason.isEmpty()) {
        QCOMPARE(got[0].bytes, blocks.join());
        QCOMPARE(got[0].video.data_size_in_bytes, blocks.join().size());
        QCOMPARE(uint32_t(got[0].video.FourCC), fourcc);
    }
    QCOMPARE(senderInfo(s.handle).dropped_frames, dropReason.isEmpty() ? 0 : 1);
}

void TestNdiRuntime::deliveryByBandwidthAndFormat_data()
{
    QTest::addColumn<int>("bandwidth");
    QTest::addColumn<int>("format");
    QTest::addColumn<QString>("expected"); // what arrives of: H264 h264 HEVC AAC UYVY

    const int v4audio = NDIlib_recv_color_format_compressed_v4_with_audio;
    QTest::newRow("full bandwidth, compressed with audio") << int(NDIlib_recv_bandwidth_highest) << v4audio << "H264 HEVC AAC UYVY";
    QTest::newRow("preview bandwidth") << int(NDIlib_recv_bandwidth_lowest) << v4audio << "h264 AAC UYVY";
    QTest::newRow("audio only") << int(NDIlib_recv_bandwidth_audio_only) << v4audio << "AAC";
    QTest::newRow("metadata only") << int(NDIlib_recv_bandwidth_metadata_only) << v4audio << "";
    QTest::newRow("h264 without hevc or audio") << int(NDIlib_recv_bandwidth_highest)
                                               << int(NDIlib_recv_color_format_compressed_v3) << "H264 UYVY";
    QTest::newRow("uncompressed format gets nothing compressed")
        << int(NDIlib_recv_bandwidth_highest) << int(NDIlib_recv_color_format_UYVY_BGRA) << "UYVY";
}

void TestNdiRuntime::deliveryByBandwidthAndFormat()
{
    QFETCH(int, bandwidth);
    QFETCH(int, format);
    QFETCH(QString, expected);
    kesttest_set_sent_frame_limit(0);
    Sender s("mix");
    TestReceiver receiver(ndiSourceName("mix"), NDIlib_recv_bandwidth_e(bandwidth), NDIlib_recv_color_format_e(format));
    sendScattered(s.handle, NDIlib_FourCC_video_type_ex_H264_highest_bandwidth, packet(NDIlib_compressed_FourCC_type_H264, "H264"));
    sendScattered(s.handle, NDIlib_FourCC_video_type_ex_H264_lowest_bandwidth, packet(NDIlib_compressed_FourCC_type_H264, "h264"));
    sendScattered(s.handle, NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth, packet(NDIlib_compressed_FourCC_type_HEVC, "HEVC"));
    const Packet aac = packet(NDIlib_compressed_FourCC_type_AAC, "AAC", "\x11\x90");
    const QByteArray aacBytes = headerBytes(aac.header) + aac.data + aac.extra;
    NDIlib_audio_frame_v3_t audio = ndiAudioFrameDefaults();
    audio.FourCC = NDIlib_FourCC_audio_type_ex_AAC;
    audio.p_data = reinterpret_cast<uint8_t *>(const_cast<char *>(aacBytes.constData()));
    audio.data_size_in_bytes = aacBytes.size();
    NDIlib_send_send_audio_v3(s.handle, &audio);
    QByteArray picture(2 * 4 * 2, 'U'); // 4x2 UYVY
    NDIlib_video_frame_v2_t raw = videoFrame(NDIlib_FourCC_video_type_UYVY);
    raw.xres = 4;
    raw.yres = 2;
    raw.line_stride_in_bytes = 8;
    raw.p_data = reinterpret_cast<uint8_t *>(picture.data());
    NDIlib_send_send_video_v2(s.handle, &raw);

    QStringList got;
    for (TestReceiver::Frame f = receiver.capture(); f.type != NDIlib_frame_type_none; f = receiver.capture()) {
        if (f.type == NDIlib_frame_type_video && f.video.FourCC == NDIlib_FourCC_video_type_UYVY) {
            QCOMPARE(f.video.line_stride_in_bytes, 8);
            got << "UYVY";
        } else if (f.type == NDIlib_frame_type_video) {
            got << QString::fromLatin1(f.bytes.mid(44));
        } else if (f.type == NDIlib_frame_type_audio) {
            QCOMPARE(f.bytes, aacBytes);
            got << "AAC";
        }
    }
    QCOMPARE(got.join(' '), expected);
}

void TestNdiRuntime::keyFrameRequiredPerStream()
{
    Sender s("keys");
    const NDIlib_video_frame_v2_t high = videoFrame(NDIlib_FourCC_video_type_ex_H264_highest_bandwidth);
    const NDIlib_video_frame_v2_t low = videoFrame(NDIlib_FourCC_video_type_ex_H264_lowest_bandwidth);
    QVERIFY(!NDIlib_send_is_keyframe_required(s.handle, nullptr));
    TestReceiver full(ndiSourceName("keys"));
    QVERIFY(NDIlib_send_is_keyframe_required(s.handle, &high));
    QVERIFY(!NDIlib_send_is_keyframe_required(s.handle, &low));
    QVERIFY(NDIlib_send_is_keyframe_required(s.handle, nullptr));
    sendScattered(s.handle, high.FourCC, packet(NDIlib_compressed_FourCC_type_H264, "delta", {}, false));
    QVERIFY(NDIlib_send_is_keyframe_required(s.handle, &high));
    sendScattered(s.handle, low.FourCC, packet(NDIlib_compressed_FourCC_type_H264, "key"));
    QVERIFY(NDIlib_send_is_keyframe_required(s.handle, &high)); // a key frame of the other stream
    sendScattered(s.handle, high.FourCC, packet(NDIlib_compressed_FourCC_type_H264, "key"));
    QVERIFY(!NDIlib_send_is_keyframe_required(s.handle, &high));
    QVERIFY(!NDIlib_send_is_keyframe_required(s.handle, nullptr));

    TestReceiver preview(ndiSourceName("keys"), NDIlib_recv_bandwidth_lowest);
    QVERIFY(NDIlib_send_is_keyframe_required(s.handle, &low));
    QVERIFY(!NDIlib_send_is_keyframe_required(s.handle, &high));
}

void TestNdiRuntime::tallyReachesSender()
{
    Sender s("tally");
    NDIlib_tally_t tally{};
    QVERIFY(!NDIlib_send_get_tally(s.handle, &tally, 0));
    TestReceiver early(ndiSourceName("other"));
    QVERIFY(!early.setTally(true, false)); // not connected: kept for later
    TestReceiver a(ndiSourceName("tally")), b(ndiSourceName("tally"));
    QVERIFY(a.setTally(true, false));
    QVERIFY(b.setTally(false, true));
    QVERIFY(NDIlib_send_get_tally(s.handle, &tally, 0));
    QVERIFY(tally.on_program && tally.on_preview);
    QVERIFY(!NDIlib_send_get_tally(s.handle, &tally, 0)); // reported already
    QVERIFY(tally.on_program && tally.on_preview);
    NDIlib_recv_connect(b.handle, nullptr); // b leaves: its preview goes with it
    QVERIFY(NDIlib_send_get_tally(s.handle, &tally, 0));
    QVERIFY(tally.on_program && !tally.on_preview);

    // A receiver that set its tally before connecting brings it along.
    NDIlib_source_t source{};
    const QByteArray name = ndiSourceName("tally");
    source.p_ndi_name = name.constData();
    a.setTally(false, false);
    QVERIFY(NDIlib_send_get_tally(s.handle, &tally, 0));
    QVERIFY(!tally.on_program && !tally.on_preview);
    NDIlib_recv_connect(early.handle, &source);
    QVERIFY(NDIlib_send_get_tally(s.handle, &tally, 0));
    QVERIFY(tally.on_program && !tally.on_preview);

    // A waiting call returns as soon as the tally changes.
    std::unique_ptr<QThread> other(QThread::create([&] {
        QThread::msleep(50);
        a.setTally(false, true);
    }));
    other->start();
    QVERIFY(NDIlib_send_get_tally(s.handle, &tally, 5000));
    QVERIFY(tally.on_preview);
    QVERIFY(other->wait(5000));
}

void TestNdiRuntime::captureFreeAndConnectionLoss()
{
    auto s = std::make_unique<Sender>("cam");
    TestReceiver receiver(ndiSourceName("cam"));
    NDIlib_video_frame_v2_t video{};
    NDIlib_audio_frame_v3_t audio{};
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &video, &audio, nullptr, 0), NDIlib_frame_type_none);
    sendScattered(s->handle, NDIlib_FourCC_video_type_ex_H264_highest_bandwidth, packet(NDIlib_compressed_FourCC_type_H264, "one"));
    sendScattered(s->handle, NDIlib_FourCC_video_type_ex_H264_highest_bandwidth, packet(NDIlib_compressed_FourCC_type_H264, "two"));
    sendScattered(s->handle, NDIlib_FourCC_video_type_ex_H264_highest_bandwidth, packet(NDIlib_compressed_FourCC_type_H264, "three"));
    NDIlib_video_frame_v2_t first{}, second{};
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &first, nullptr, nullptr, 0), NDIlib_frame_type_video);
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &second, nullptr, nullptr, 0), NDIlib_frame_type_video);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(first.p_data) + 44, 3), QByteArray("one")); // both stay valid
    QCOMPARE(QByteArray(reinterpret_cast<char *>(second.p_data) + 44, 3), QByteArray("two"));
    kesttest_receiver_info_t info{};
    QVERIFY(kesttest_receiver_info(receiver.handle, &info));
    QCOMPARE(info.outstanding_frames, 2);
    QCOMPARE(info.queued_frames, 1);
    NDIlib_recv_free_video_v2(receiver.handle, &second);
    NDIlib_recv_free_video_v2(receiver.handle, &first);
    NDIlib_recv_free_video_v2(receiver.handle, &first); // once too often
    // Asking without a video struct discards the waiting video frame.
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, nullptr, &audio, nullptr, 0), NDIlib_frame_type_none);
    QVERIFY(kesttest_receiver_info(receiver.handle, &info));
    QCOMPARE(info.outstanding_frames, 0);
    QCOMPARE(info.bad_frees, 1);
    QCOMPARE(info.queued_frames, 0);

    // The sender goes away: one error frame; it comes back under the same name: reconnected.
    s.reset();
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &video, &audio, nullptr, 0), NDIlib_frame_type_error);
    QVERIFY(!receiver.connected());
    Sender again("cam");
    QVERIFY(receiver.connected());
    QCOMPARE(receiver.drain(NDIlib_frame_type_metadata).size(), 0);
}

void TestNdiRuntime::captureWaitsForAFrame()
{
    Sender s("late");
    TestReceiver receiver(ndiSourceName("late"));
    std::unique_ptr<QThread> other(QThread::create([&] {
        QThread::msleep(50);
        sendScattered(s.handle, NDIlib_FourCC_video_type_ex_H264_highest_bandwidth, packet(NDIlib_compressed_FourCC_type_H264, "x"));
    }));
    other->start();
    NDIlib_video_frame_v2_t video{};
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &video, nullptr, nullptr, 5000), NDIlib_frame_type_video);
    NDIlib_recv_free_video_v2(receiver.handle, &video);
    QVERIFY(other->wait(5000));
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &video, nullptr, nullptr, 20), NDIlib_frame_type_none);
}

void TestNdiRuntime::injectedFramesDeliveredAsGiven()
{
    TestReceiver receiver("nobody");
    NDIlib_video_frame_v2_t video = videoFrame(NDIlib_FourCC_video_type_e(ndiFourCC('H', 'x', 'y', 'z')));
    NDIlib_compressed_packet_t header{};
    header.version = 1000; // beyond the frame: delivered as it is
    QByteArray bytes = headerBytes(header) + "data";
    video.p_data = reinterpret_cast<uint8_t *>(bytes.data());
    video.data_size_in_bytes = 7; // says less than what was copied
    QVERIFY(kesttest_receiver_inject_video(receiver.handle, &video, bytes.size()));
    NDIlib_video_frame_v2_t nullData = videoFrame(NDIlib_FourCC_video_type_ex_H264_highest_bandwidth);
    nullData.data_size_in_bytes = 100;
    QVERIFY(kesttest_receiver_inject_video(receiver.handle, &nullData, 100));
    NDIlib_audio_frame_v3_t audio = ndiAudioFrameDefaults();
    audio.FourCC = NDIlib_FourCC_audio_type_ex_AAC;
    audio.p_data = reinterpret_cast<uint8_t *>(bytes.data());
    audio.data_size_in_bytes = -5;
    QVERIFY(kesttest_receiver_inject_audio(receiver.handle, &audio, 0));
    QVERIFY(kesttest_receiver_inject(receiver.handle, NDIlib_frame_type_status_change));
    QVERIFY(kesttest_receiver_inject_metadata(receiver.handle, "<hello/>"));
    QVERIFY(!kesttest_receiver_inject(receiver.handle, NDIlib_frame_type_video));

    NDIlib_video_frame_v2_t got{};
    NDIlib_audio_frame_v3_t gotAudio{};
    NDIlib_metadata_frame_t gotMetadata{};
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &got, &gotAudio, &gotMetadata, 0), NDIlib_frame_type_video);
    QCOMPARE(uint32_t(got.FourCC), ndiFourCC('H', 'x', 'y', 'z'));
    QCOMPARE(got.data_size_in_bytes, 7);
    QVERIFY(got.p_data != video.p_data);
    QCOMPARE(QByteArray(reinterpret_cast<char *>(got.p_data), bytes.size()), bytes);
    NDIlib_recv_free_video_v2(receiver.handle, &got);
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &got, &gotAudio, &gotMetadata, 0), NDIlib_frame_type_video);
    QVERIFY(!got.p_data);
    QCOMPARE(got.data_size_in_bytes, 100);
    NDIlib_recv_free_video_v2(receiver.handle, &got);
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &got, &gotAudio, &gotMetadata, 0), NDIlib_frame_type_audio);
    QVERIFY(gotAudio.p_data);
    QCOMPARE(gotAudio.data_size_in_bytes, -5);
    NDIlib_recv_free_audio_v3(receiver.handle, &gotAudio);
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &got, &gotAudio, &gotMetadata, 0), NDIlib_frame_type_status_change);
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &got, &gotAudio, &gotMetadata, 0), NDIlib_frame_type_metadata);
    QCOMPARE(QByteArray(gotMetadata.p_data), QByteArray("<hello/>"));
    NDIlib_recv_free_metadata(receiver.handle, &gotMetadata);
    kesttest_receiver_info_t info{};
    QVERIFY(kesttest_receiver_info(receiver.handle, &info));
    QCOMPARE(info.outstanding_frames, 0);
    QCOMPARE(info.bad_frees, 0);
    QCOMPARE(QByteArray(info.p_source_name), QByteArray("nobody"));
    QVERIFY(!info.connected);
}

void TestNdiRuntime::connectionMetadata()
{
    Sender s("meta");
    TestReceiver before(ndiSourceName("meta"));
    NDIlib_metadata_frame_t frame{};
    QByteArray text("<caps a=\"1\"/>");
    frame.p_data = text.data();
    NDIlib_send_add_connection_metadata(s.handle, &frame);
    QCOMPARE(before.drain(NDIlib_frame_type_metadata).size(), 1); // sent at once to those connected
    TestReceiver after(ndiSourceName("meta"));
    const auto got = after.drain(NDIlib_frame_type_metadata); // and to every new connection
    QCOMPARE(got.size(), 1);
    QCOMPARE(got[0].bytes, text);
    // Connecting again to the same source changes nothing: no second greeting.
    const QByteArray name = ndiSourceName("meta");
    NDIlib_source_t source{};
    source.p_ndi_name = name.constData();
    NDIlib_recv_connect(after.handle, &source);
    QCOMPARE(after.drain(NDIlib_frame_type_metadata).size(), 0);
    QCOMPARE(NDIlib_send_get_no_connections(s.handle, 0), 2);
    NDIlib_send_clear_connection_metadata(s.handle);
    TestReceiver last(ndiSourceName("meta"));
    QCOMPARE(last.drain(NDIlib_frame_type_metadata).size(), 0);
}

void TestNdiRuntime::createFailures()
{
    NDIlib_send_create_t noName{};
    QVERIFY(!NDIlib_send_create(&noName));
    QVERIFY(!NDIlib_send_create(nullptr));
    kesttest_fail_next_creates(KESTTEST_SENDER, 2);
    kesttest_fail_next_creates(KESTTEST_RECEIVER, 1);
    kesttest_fail_next_creates(KESTTEST_FINDER, 1);
    NDIlib_send_create_t settings{};
    settings.p_ndi_name = "x";
    QVERIFY(!NDIlib_send_create_v2(&settings, nullptr));
    QVERIFY(!NDIlib_send_create(&settings));
    QVERIFY(!NDIlib_recv_create_v4(nullptr, "{}"));
    QVERIFY(!NDIlib_find_create_v2(nullptr));
    NDIlib_send_instance_t sender = NDIlib_send_create(&settings);
    NDIlib_recv_instance_t receiver = NDIlib_recv_create_v4(nullptr, "{\"a\":1}");
    NDIlib_find_instance_t finder = NDIlib_find_create_v2(nullptr);
    QVERIFY(sender && receiver && finder);
    kesttest_receiver_info_t info{};
    QVERIFY(kesttest_receiver_info(receiver, &info));
    QVERIFY(info.created_with_config);
    QCOMPARE(QByteArray(info.p_config), QByteArray("{\"a\":1}"));
    QCOMPARE(info.bandwidth, NDIlib_recv_bandwidth_highest); // the defaults of a NULL settings pointer
    QCOMPARE(info.color_format, NDIlib_recv_color_format_UYVY_BGRA);
    QVERIFY(!senderInfo(sender).created_with_config);
    NDIlib_send_destroy(sender);
    NDIlib_recv_destroy(receiver);
    NDIlib_find_destroy(finder);
}

QTEST_GUILESS_MAIN(TestNdiRuntime)
#include "tst_ndiruntime.moc"
