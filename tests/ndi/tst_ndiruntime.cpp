// The NDI test runtime keeps the rules the other NDI tests rely on and cannot see for
// themselves: source names and list lifetimes, the scatter rules, frame lifetimes, connection
// loss, and scripted frames delivered exactly as given.

#include "testruntime.h"

#include <QSysInfo>
#include <QTest>

#include <memory>
#include <vector>

namespace {

constexpr uint32_t kH264 = NDIlib_FourCC_video_type_ex_H264_highest_bandwidth;
constexpr uint32_t kCodecH264 = NDIlib_compressed_FourCC_type_H264;

// Sends the blocks as one scatter list; what the runtime recorded of the call.
SentFrame sendBlocks(NDIlib_send_instance_t sender, const QByteArrayList &blocks, uint32_t fourcc = kH264)
{
    std::vector<const uint8_t *> pointers;
    std::vector<int> sizes;
    for (const QByteArray &b : blocks) {
        pointers.push_back(reinterpret_cast<const uint8_t *>(b.constData()));
        sizes.push_back(b.size());
    }
    pointers.push_back(nullptr);
    sizes.push_back(0);
    const NDIlib_frame_scatter_t scatter{pointers.data(), sizes.data()};
    NDIlib_video_frame_v2_t frame = ndiVideoFrameDefaults();
    frame.FourCC = NDIlib_FourCC_video_type_e(fourcc);
    NDIlib_send_send_video_scatter(sender, &frame, &scatter);
    return sentFrames(sender).value(kesttest_sent_frame_count(sender) - 1);
}

QByteArray payloadOf(const NDIlib_video_frame_v2_t &frame)
{
    return QByteArray(reinterpret_cast<const char *>(frame.p_data) + NDIlib_compressed_packet_version_0, 3);
}

} // namespace

class TestNdiRuntime : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void cleanup();
    void sourcesListedByMachineAndName();
    void scatterRules_data();
    void scatterRules();
    void capturedFramesLiveUntilFreed();
    void injectedFramesDeliveredAsGiven();
};

void TestNdiRuntime::cleanup()
{
    QCOMPARE(kesttest_sender_count(), 0);
    QCOMPARE(kesttest_receiver_count(), 0);
}

void TestNdiRuntime::sourcesListedByMachineAndName()
{
    QCOMPARE(QString::fromUtf8(ndiSourceName("cam")), QSysInfo::machineHostName().toUpper() + " (cam)");
    NDIlib_find_instance_t finder = NDIlib_find_create_v2(nullptr);
    uint32_t count = 99;
    QVERIFY(!NDIlib_find_get_current_sources(finder, &count));
    QCOMPARE(count, 0u);
    const NDIlib_source_t *sources = nullptr;
    {
        TestSource a("a"), b("b");
        sources = NDIlib_find_get_current_sources(finder, &count);
        QCOMPARE(count, 2u);
        QCOMPARE(QByteArray(sources[1].p_ndi_name), b.listed);
    }
    // The list stays readable until the next query, which no longer lists what has gone.
    QCOMPARE(QByteArray(sources[0].p_ndi_name), ndiSourceName("a"));
    NDIlib_find_get_current_sources(finder, &count);
    QCOMPARE(count, 0u);
    NDIlib_find_destroy(finder);
    QCOMPARE(kesttest_finder_count(), 0);
}

void TestNdiRuntime::scatterRules_data()
{
    QTest::addColumn<QByteArrayList>("blocks");
    QTest::addColumn<uint32_t>("fourcc");
    QTest::addColumn<QString>("dropReason"); // empty: accepted

    const QByteArray frame = compressedFrame(kCodecH264, 0, "picture", "SPSPPS");
    const QByteArray header = frame.left(NDIlib_compressed_packet_version_0);
    QByteArray old = header;
    old[0] = 40; // header version
    QTest::newRow("header, data, extra") << QByteArrayList{header, "picture", "SPSPPS"} << kH264 << QString();
    QTest::newRow("any split after the header") << QByteArrayList{header + "pic", "ture", "SPS", "PPS"} << kH264 << QString();
    QTest::newRow("header split across blocks") << QByteArrayList{header.left(20), header.mid(20) + "picture", "SPSPPS"} << kH264
                                                << "the compressed packet header is not inside the first block";
    QTest::newRow("sizes do not add up") << QByteArrayList{header, "picture", "SPS"} << kH264
                                         << "header, data and extra data do not add up to the frame";
    QTest::newRow("header names another codec")
        << QByteArrayList{header, "picture", "SPSPPS"} << uint32_t(NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth)
        << "the compressed packet codec does not match the frame's FourCC";
    QTest::newRow("header version too small") << QByteArrayList{old, "picture", "SPSPPS"} << kH264
                                              << "the compressed packet header version is too small";
}

void TestNdiRuntime::scatterRules()
{
    QFETCH(QByteArrayList, blocks);
    QFETCH(uint32_t, fourcc);
    QFETCH(QString, dropReason);
    TestSource source("scatter");
    TestReceiver receiver(source.listed);
    const SentFrame sent = sendBlocks(source.handle, blocks, fourcc);
    QCOMPARE(QString::fromUtf8(sent.raw.p_drop_reason), dropReason);
    QCOMPARE(sent.raw.no_blocks, blocks.size());
    QCOMPARE(sent.bytes, blocks.join());
    // A receiver gets one buffer: the blocks joined, with the FourCC as sent.
    const auto got = receiver.drain(NDIlib_frame_type_video);
    QCOMPARE(got.size(), dropReason.isEmpty() ? 1 : 0);
    if (dropReason.isEmpty()) {
        QCOMPARE(got[0].bytes, blocks.join());
        QCOMPARE(uint32_t(got[0].video.FourCC), fourcc);
    }
}

void TestNdiRuntime::capturedFramesLiveUntilFreed()
{
    auto source = std::make_unique<TestSource>("cam");
    TestReceiver receiver(source->listed);
    NDIlib_video_frame_v2_t first{}, second{};
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &first, nullptr, nullptr, 0), NDIlib_frame_type_none);
    for (const char *payload : {"one", "two", "six"})
        sendBlocks(source->handle, {compressedFrame(kCodecH264, 0, payload)});
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &first, nullptr, nullptr, 0), NDIlib_frame_type_video);
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &second, nullptr, nullptr, 0), NDIlib_frame_type_video);
    QCOMPARE(payloadOf(first), QByteArray("one")); // both stay valid
    QCOMPARE(payloadOf(second), QByteArray("two"));
    QCOMPARE(receiverInfo(receiver.handle).outstanding_frames, 2);
    NDIlib_recv_free_video_v2(receiver.handle, &second);
    NDIlib_recv_free_video_v2(receiver.handle, &first);
    NDIlib_recv_free_video_v2(receiver.handle, &first); // once too often
    // Asking without a video struct discards the waiting video frame.
    NDIlib_audio_frame_v3_t audio{};
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, nullptr, &audio, nullptr, 0), NDIlib_frame_type_none);
    kesttest_receiver_info_t info = receiverInfo(receiver.handle);
    QCOMPARE(info.outstanding_frames, 0);
    QCOMPARE(info.bad_frees, 1);
    QCOMPARE(info.queued_frames, 0);

    // The sender goes away: one error frame. It comes back under the same name: connected
    // again, and greeted with its connection metadata once, also when asked to connect again.
    source.reset();
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &first, &audio, nullptr, 0), NDIlib_frame_type_error);
    QVERIFY(!receiverInfo(receiver.handle).connected);
    TestSource again("cam");
    QVERIFY(receiverInfo(receiver.handle).connected);
    char text[] = "<caps/>";
    const NDIlib_metadata_frame_t metadata{0, 0, text};
    NDIlib_send_add_connection_metadata(again.handle, &metadata);
    TestReceiver late(again.listed);
    NDIlib_source_t same{};
    same.p_ndi_name = again.listed.constData();
    NDIlib_recv_connect(late.handle, &same);
    const auto greetings = late.drain(NDIlib_frame_type_metadata);
    QCOMPARE(greetings.size(), 1);
    QCOMPARE(greetings[0].bytes, QByteArray(text));
}

void TestNdiRuntime::injectedFramesDeliveredAsGiven()
{
    TestReceiver receiver("nobody");
    NDIlib_video_frame_v2_t video = ndiVideoFrameDefaults();
    video.FourCC = NDIlib_FourCC_video_type_e(ndiFourCC('H', 'x', 'y', 'z'));
    QByteArray bytes = compressedFrame(kCodecH264, 0, "data", {}, 1000); // a header claiming 1000 bytes
    video.p_data = reinterpret_cast<uint8_t *>(bytes.data());
    video.data_size_in_bytes = 7; // less than what is copied
    QVERIFY(kesttest_receiver_inject_video(receiver.handle, &video, bytes.size()));
    video.p_data = nullptr;
    video.data_size_in_bytes = 100;
    QVERIFY(kesttest_receiver_inject_video(receiver.handle, &video, 100));
    NDIlib_audio_frame_v3_t audio = ndiAudioFrameDefaults();
    audio.p_data = reinterpret_cast<uint8_t *>(bytes.data());
    audio.data_size_in_bytes = -5;
    QVERIFY(kesttest_receiver_inject_audio(receiver.handle, &audio, 0));
    QVERIFY(kesttest_receiver_inject(receiver.handle, NDIlib_frame_type_status_change));
    QVERIFY(!kesttest_receiver_inject(receiver.handle, NDIlib_frame_type_video));

    NDIlib_video_frame_v2_t got{};
    NDIlib_audio_frame_v3_t gotAudio{};
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &got, &gotAudio, nullptr, 0), NDIlib_frame_type_video);
    QCOMPARE(uint32_t(got.FourCC), ndiFourCC('H', 'x', 'y', 'z'));
    QCOMPARE(got.data_size_in_bytes, 7);
    QVERIFY(got.p_data != reinterpret_cast<uint8_t *>(bytes.data()));
    QCOMPARE(QByteArray(reinterpret_cast<char *>(got.p_data), bytes.size()), bytes);
    NDIlib_recv_free_video_v2(receiver.handle, &got);
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &got, &gotAudio, nullptr, 0), NDIlib_frame_type_video);
    QVERIFY(!got.p_data);
    QCOMPARE(got.data_size_in_bytes, 100);
    NDIlib_recv_free_video_v2(receiver.handle, &got);
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &got, &gotAudio, nullptr, 0), NDIlib_frame_type_audio);
    QVERIFY(gotAudio.p_data);
    QCOMPARE(gotAudio.data_size_in_bytes, -5);
    NDIlib_recv_free_audio_v3(receiver.handle, &gotAudio);
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &got, &gotAudio, nullptr, 0), NDIlib_frame_type_status_change);
    const kesttest_receiver_info_t info = receiverInfo(receiver.handle);
    QCOMPARE(info.outstanding_frames + info.bad_frees, 0);
    QVERIFY(!info.connected);
}

QTEST_GUILESS_MAIN(TestNdiRuntime)
#include "tst_ndiruntime.moc"
