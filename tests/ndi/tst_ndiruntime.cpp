// The NDI test runtime keeps the rules the other NDI tests rely on and cannot see for
// themselves: source names and list lifetimes, the scatter rules, frame lifetimes and
// connection loss.

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

} // namespace

class TestNdiRuntime : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void sourcesListedByMachineAndName();
    void scatterRules_data();
    void scatterRules();
    void capturedFramesLiveUntilFreed();
};

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

    const QByteArray header = compressedFrame(kCodecH264, 0, "picture", "SPSPPS").left(NDIlib_compressed_packet_version_0);
    QByteArray old = header;
    old[0] = 40; // header version
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
    QCOMPARE(receiver.drainVideo(fourcc), dropReason.isEmpty() ? QByteArrayList{blocks.join()} : QByteArrayList{});
}

void TestNdiRuntime::capturedFramesLiveUntilFreed()
{
    auto source = std::make_unique<TestSource>("cam");
    TestReceiver receiver(source->listed);
    NDIlib_video_frame_v2_t first{}, second{};
    for (const char *payload : {"one", "two", "six"})
        sendBlocks(source->handle, {compressedFrame(kCodecH264, 0, payload)});
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &first, nullptr, nullptr, 0), NDIlib_frame_type_video);
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &second, nullptr, nullptr, 0), NDIlib_frame_type_video);
    QCOMPARE(QByteArray(reinterpret_cast<const char *>(first.p_data) + NDIlib_compressed_packet_version_0, 3), "one");
    QCOMPARE(QByteArray(reinterpret_cast<const char *>(second.p_data) + NDIlib_compressed_packet_version_0, 3), "two");
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

    // The sender goes away: one error frame. It comes back under the same name: connected again.
    source.reset();
    QCOMPARE(NDIlib_recv_capture_v3(receiver.handle, &first, &audio, nullptr, 0), NDIlib_frame_type_error);
    QVERIFY(!receiverInfo(receiver.handle).connected);
    TestSource again("cam");
    QVERIFY(receiverInfo(receiver.handle).connected);
    QCOMPARE(kesttest_receiver_count(), 1);
}

QTEST_GUILESS_MAIN(TestNdiRuntime)
#include "tst_ndiruntime.moc"
