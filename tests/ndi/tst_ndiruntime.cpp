// The NDI test runtime keeps the rules the other NDI tests rely on and cannot see for
// themselves: source names, groups and list lifetimes, the documented rules for compressed
// frames, what each colour format delivers, frame lifetimes and connection loss.

#include "testruntime.h"

#include <QSysInfo>
#include <QTest>

#include <memory>
#include <vector>

namespace {

constexpr uint32_t kH264 = NDIlib_FourCC_video_type_ex_H264_highest_bandwidth;
constexpr uint32_t kHevc = NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth;
constexpr uint32_t kAac = NDIlib_FourCC_audio_type_ex_AAC;
constexpr uint32_t kCodecH264 = NDIlib_compressed_FourCC_type_H264;

// The 44-byte packet header of `frame` with its key-frame flag set or cleared.
QByteArray header(const QByteArray &frame, bool key = true)
{
    QByteArray h = frame.left(NDIlib_compressed_packet_version_0);
    h[32] = key ? 1 : 0;
    return h;
}

} // namespace

class TestNdiRuntime : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void sourcesListedByMachineAndName();
    void findersListByGroupAndPlace_data();
    void findersListByGroupAndPlace();
    void sendRules_data();
    void sendRules();
    void receiversGetWhatTheirFormatTakes_data();
    void receiversGetWhatTheirFormatTakes();
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

void TestNdiRuntime::findersListByGroupAndPlace_data()
{
    QTest::addColumn<QByteArray>("senderGroups"); // "-": NULL
    QTest::addColumn<QByteArray>("finderGroups"); // "-": NULL
    QTest::addColumn<bool>("showLocal");
    QTest::addColumn<bool>("remote");
    QTest::addColumn<bool>("listed");
    QTest::newRow("default groups") << QByteArray("-") << QByteArray("-") << true << false << true;
    QTest::newRow("empty is public, case aside") << QByteArray("") << QByteArray(" Public") << true << false << true;
    QTest::newRow("own group, hidden from the default") << QByteArray("G1") << QByteArray("-") << true << false << false;
    QTest::newRow("lists sharing a group") << QByteArray("G1, Studio") << QByteArray("studio,G3") << true << false << true;
    QTest::newRow("lists sharing none") << QByteArray("G1") << QByteArray("G2,public") << true << false << false;
    QTest::newRow("local sources not shown") << QByteArray("-") << QByteArray("-") << false << false << false;
    QTest::newRow("remote sources still shown") << QByteArray("-") << QByteArray("-") << false << true << true;
}

void TestNdiRuntime::findersListByGroupAndPlace()
{
    QFETCH(QByteArray, senderGroups);
    QFETCH(QByteArray, finderGroups);
    QFETCH(bool, showLocal);
    QFETCH(bool, remote);
    QFETCH(bool, listed);
    const auto orNull = [](const QByteArray &text) { return text == "-" ? nullptr : text.constData(); };
    kesttest_set_sender_machine(remote ? "ELSEWHERE" : nullptr);
    TestSource source("grouped", orNull(senderGroups));
    kesttest_set_sender_machine(nullptr);
    const NDIlib_find_create_t settings{showLocal, orNull(finderGroups), "10.0.0.1"};
    NDIlib_find_instance_t finder = NDIlib_find_create_v2(&settings);
    uint32_t count = 0;
    const NDIlib_source_t *sources = NDIlib_find_get_current_sources(finder, &count);
    QCOMPARE(count, listed ? 1u : 0u);
    if (listed)
        QCOMPARE(QByteArray(sources[0].p_ndi_name), remote ? QByteArray("ELSEWHERE (grouped)") : source.listed);
    const kesttest_finder_info_t info = finderInfo(finder);
    QCOMPARE(info.show_local_sources, showLocal);
    QCOMPARE(info.p_groups ? QByteArray(info.p_groups) : QByteArray("-"), finderGroups);
    QCOMPARE(QByteArray(info.p_extra_ips), QByteArray("10.0.0.1"));
    NDIlib_find_destroy(finder);
}

void TestNdiRuntime::sendRules_data()
{
    QTest::addColumn<QByteArrayList>("blocks");
    QTest::addColumn<uint32_t>("fourcc");
    QTest::addColumn<QVariantMap>("changes"); // to the description sendBlocks() gives
    QTest::addColumn<QString>("dropReason");  // empty: accepted

    const QByteArray key = header(compressedFrame(kCodecH264, 0, "picture", "SPSPPS"));
    const QByteArray aac = header(compressedFrame(NDIlib_compressed_FourCC_type_AAC, 0, "sound", "\x11\x90"));
    QByteArray old = key;
    old[0] = 40; // header version
    const auto row = [&](const char *name, const QByteArrayList &blocks, const char *reason, const QVariantMap &changes = {},
                         uint32_t fourcc = kH264) { QTest::newRow(name) << blocks << fourcc << changes << QString(reason); };
    row("any split after the header", {key + "pic", "ture", "SPS", "PPS"}, "");
    row("header split across blocks", {key.left(20), key.mid(20) + "picture", "SPSPPS"},
        "the compressed packet header is not inside the first block");
    row("sizes do not add up", {key, "picture", "SPS"}, "header, data and extra data do not add up to the frame");
    row("header names another codec", {key, "picture", "SPSPPS"}, "the compressed packet codec does not match the frame's FourCC", {}, kHevc);
    row("header version too small", {old, "picture", "SPSPPS"}, "the compressed packet header version is too small");
    row("key frame without parameter sets", {header(compressedFrame(kCodecH264, 0, "picture")), "picture"},
        "a key frame carries no extra data (its parameter sets)");
    row("parameter sets on another frame", {header(key, false), "picture", "SPSPPS"}, "a frame that is not a key frame carries extra data");
    row("no height", {key, "picture", "SPSPPS"}, "the picture size xres by yres is not between 1 and 8192 a side", {{"yres", 0}});
    row("zero rate denominator", {key, "picture", "SPSPPS"}, "the frame rate N/D is not a positive fraction", {{"D", 0}});
    row("negative aspect ratio", {key, "picture", "SPSPPS"}, "the picture aspect ratio is negative or not a number", {{"aspect", -1}});
    row("interlaced", {key, "picture", "SPSPPS"}, "compressed video is not progressive", {{"format", NDIlib_frame_format_type_interleaved}});
    row("AAC with its configuration", {aac, "sound", "\x11\x90"}, "", {}, kAac);
    row("AAC not flagged as key frame", {header(aac, false), "sound", "\x11\x90"}, "an AAC packet is not flagged as a key frame", {}, kAac);
    row("AAC without its configuration", {header(compressedFrame(NDIlib_compressed_FourCC_type_AAC, 0, "sound")), "sound"},
        "an AAC packet carries no AudioSpecificConfig as extra data", {}, kAac);
    row("AAC of no channels", {aac, "sound", "\x11\x90"}, "the sample rate, channel count or samples per frame is not positive",
        {{"channels", 0}}, kAac);
}

void TestNdiRuntime::sendRules()
{
    QFETCH(QByteArrayList, blocks);
    QFETCH(uint32_t, fourcc);
    QFETCH(QVariantMap, changes);
    QFETCH(QString, dropReason);
    TestSource source("rules");
    TestReceiver receiver(source.listed);
    sendBlocks(source.handle, blocks, fourcc, changes);
    const SentFrame sent = sentFrames(source.handle).value(0);
    QCOMPARE(QString::fromUtf8(sent.raw.p_drop_reason), dropReason);
    QCOMPARE(sent.raw.no_blocks, blocks.size());
    QCOMPARE(sent.bytes, blocks.join());
    // Dropped frames are counted with the rule the last one broke.
    const kesttest_sender_info_t info = senderInfo(source.handle);
    QCOMPARE(QString::fromUtf8(info.p_last_drop_reason), dropReason);
    QCOMPARE(info.dropped_frames, dropReason.isEmpty() ? 0 : 1);
    QCOMPARE(info.video_frames + info.audio_frames, dropReason.isEmpty() ? 1 : 0);
    // A receiver gets one buffer: the blocks joined, with the FourCC as sent.
    QCOMPARE(receiver.drain(fourcc), dropReason.isEmpty() ? QByteArrayList{blocks.join()} : QByteArrayList{});
}

void TestNdiRuntime::receiversGetWhatTheirFormatTakes_data()
{
    QTest::addColumn<int>("format");
    QTest::addColumn<int>("bandwidth");
    QTest::addColumn<uint32_t>("sent");
    QTest::addColumn<uint32_t>("got"); // 0: nothing
    QTest::addColumn<int>("size");     // of the data (a line or a channel when decoded); -1: as sent
    const int all = NDIlib_recv_color_format_compressed_v4_with_audio, high = NDIlib_recv_bandwidth_highest;
    QTest::newRow("all passed: H.264") << all << high << kH264 << kH264 << -1;
    QTest::newRow("all passed: HEVC") << all << high << kHevc << kHevc << -1;
    QTest::newRow("all passed: AAC") << all << high << kAac << kAac << -1;
    QTest::newRow("H.264 and AAC passed: HEVC decoded") << int(NDIlib_recv_color_format_compressed_v3_with_audio) << high << kHevc
                                                        << uint32_t(NDIlib_FourCC_video_type_UYVY) << 3840;
    QTest::newRow("video passed: AAC decoded") << int(NDIlib_recv_color_format_compressed_v4) << high << kAac
                                               << uint32_t(NDIlib_FourCC_audio_type_FLTP) << 4096;
    QTest::newRow("standard format: H.264 decoded") << int(NDIlib_recv_color_format_UYVY_BGRA) << high << kH264
                                                    << uint32_t(NDIlib_FourCC_video_type_UYVY) << 3840;
    QTest::newRow("standard format: H.264 decoded to BGRX") << int(NDIlib_recv_color_format_BGRX_BGRA) << high << kH264
                                                            << uint32_t(NDIlib_FourCC_video_type_BGRX) << 7680;
    QTest::newRow("audio only: no video") << all << int(NDIlib_recv_bandwidth_audio_only) << kH264 << 0u << 0;
    QTest::newRow("metadata only: no audio") << all << int(NDIlib_recv_bandwidth_metadata_only) << kAac << 0u << 0;
}

void TestNdiRuntime::receiversGetWhatTheirFormatTakes()
{
    QFETCH(int, format);
    QFETCH(int, bandwidth);
    QFETCH(uint32_t, sent);
    QFETCH(uint32_t, got);
    QFETCH(int, size);
    TestSource source("formats");
    TestReceiver receiver(source.listed, NDIlib_recv_bandwidth_e(bandwidth), NDIlib_recv_color_format_e(format));
    QCOMPARE(int(receiverInfo(receiver.handle).color_format), format);
    source.send(sent, true, "data", sent == kAac ? "\x11\x90" : "SPSPPS");
    const QByteArray asSent = sentFrames(source.handle).value(0).bytes;
    const QByteArrayList frames = receiver.drain(got);
    QCOMPARE(frames.size(), got ? 1 : 0);
    if (got)
        QCOMPARE(frames[0].size(), size < 0 ? asSent.size() : size);
    if (got && size < 0)
        QCOMPARE(frames[0], asSent);
}

void TestNdiRuntime::capturedFramesLiveUntilFreed()
{
    auto source = std::make_unique<TestSource>("cam");
    TestReceiver receiver(source->listed);
    NDIlib_video_frame_v2_t first{}, second{};
    for (const char *payload : {"one", "two", "six"})
        source->send(kH264, false, payload);
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
