// Throughput of KestNDIRecv's capture loop against the NDI test runtime, for compressed video
// frames of 1 KB, 200 KB and 2 MB, next to:
//   - the runtime's capture and free alone (its share of the loop),
//   - a plain memcpy of the same payloads into a pool of the receiver's size (the baseline: the
//     loop copies each payload once, into the host's pool).
// Each pass takes kFramesPerPass frames that were queued beforehand, outside the timing, the
// way frames wait between two 10 ms ticks. "allocs/frame" counts heap allocations (malloc,
// calloc, realloc) during the timed passes; the node's own share is 0, the runtime's capture
// keeps one list entry per outstanding frame.
// The summary at the end prints the loop's throughput as a fraction of memcpy's.

#include "testruntime.h"

#include "ndi/kestndirecv.h"

#include "alloccount.h"
#include "quietruntime.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QTimerEvent>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFramesPerPass = 8;
constexpr int kPoolBytes = 16384000; // the receiver's default "memSize"
constexpr int kAlign = 16;
constexpr int kHeaderBytes = NDIlib_compressed_packet_version_0;
constexpr int kHeadroom = 20; // what the receiver asks for in front of a payload

// Bytes and seconds per benchmark and frame size, for the summary.
struct Total
{
    double bytes = 0;
    double seconds = 0;
};
std::map<std::pair<std::string, int64_t>, Total> totals;

// Receives and forgets, as a decoder that keeps up would.
class NullSink : public KestObject
{
public:
    void onNewPacketV(Packet pkt) override
    {
        benchmark::DoNotOptimize(pkt.data);
        ++packets;
    }
    long packets = 0;
};

QByteArray compressedFrame(int payloadSize)
{
    NDIlib_compressed_packet_t header{};
    header.version = NDIlib_compressed_packet_version_0;
    header.fourCC = NDIlib_compressed_FourCC_type_H264;
    header.flags = NDIlib_compressed_packet_flags_keyframe; // the receiver starts at a key frame
    header.data_size = uint32_t(payloadSize);
    QByteArray frame(reinterpret_cast<const char *>(&header), sizeof(header));
    frame += QByteArray(payloadSize, 'x');
    return frame;
}

class Connection
{
public:
    Connection()
    {
        NDIlib_send_create_t settings{};
        settings.p_ndi_name = "bench source";
        sender = NDIlib_send_create_v2(&settings, "{}");
        node.setName("bench");
        node.setData({{"config", "/nonexistent"}, {"name", QString::fromUtf8(ndiSourceName("bench source"))}});
        node.link(&sink, KestObject::Video);
        node.start();
        node.onTimer();
        handle = kesttest_receiver_at(kesttest_receiver_count() - 1);
    }
    ~Connection()
    {
        node.setData({{"name", QString()}});
        NDIlib_send_destroy(sender);
    }

    void queue(const QByteArray &frame, int count)
    {
        NDIlib_video_frame_v2_t video = ndiVideoFrameDefaults();
        video.FourCC = NDIlib_FourCC_video_type_ex_H264_highest_bandwidth;
        video.xres = 1920;
        video.yres = 1080;
        video.p_data = reinterpret_cast<uint8_t *>(const_cast<char *>(frame.constData()));
        video.data_size_in_bytes = frame.size();
        for (int i = 0; i < count; ++i)
            kesttest_receiver_inject_video(handle, &video, frame.size());
    }

    void pass()
    {
        QTimerEvent tick(0);
        QCoreApplication::sendEvent(&node, &tick);
    }

    NDIlib_send_instance_t sender = nullptr;
    KestNDIRecv node;
    NullSink sink;
    NDIlib_recv_instance_t handle = nullptr;
};

// Runs `prepare` untimed and `timed` timed per iteration; reports throughput and allocations.
template <typename Prepare, typename Timed>
void measure(benchmark::State &state, const char *name, Prepare prepare, Timed timed)
{
    const int64_t size = state.range(0);
    // Warm-up: every page of the pools and of the runtime's buffers has been touched once.
    const int64_t warmPasses = std::max<int64_t>(4, 2 * kPoolBytes / (size * kFramesPerPass));
    for (int64_t i = 0; i < warmPasses; ++i) {
        prepare();
        timed();
    }
    long allocs = 0;
    Total &total = totals[{name, size}];
    for (auto _ : state) {
        prepare();
        const long before = AllocCount::count();
        const auto start = Clock::now();
        timed();
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        allocs += AllocCount::count() - before;
        state.SetIterationTime(seconds);
        total.bytes += double(size) * kFramesPerPass;
        total.seconds += seconds;
    }
    const double frames = double(state.iterations()) * kFramesPerPass;
    state.counters["allocs/frame"] = benchmark::Counter(double(allocs) / frames);
    state.SetItemsProcessed(int64_t(frames));
    state.SetBytesProcessed(int64_t(frames) * size);
}

void BM_CaptureLoop(benchmark::State &state)
{
    Connection connection;
    const QByteArray frame = compressedFrame(int(state.range(0)));
    const long before = connection.sink.packets;
    measure(state, "capture loop", [&] { connection.queue(frame, kFramesPerPass); }, [&] { connection.pass(); });
    kesttest_receiver_info_t info{};
    kesttest_receiver_info(connection.handle, &info);
    if (info.outstanding_frames != 0 || info.queued_frames != 0 || connection.sink.packets == before)
        state.SkipWithError("frames were not taken and released");
}

void BM_RuntimeCaptureAlone(benchmark::State &state)
{
    Connection connection;
    const QByteArray frame = compressedFrame(int(state.range(0)));
    measure(state, "runtime alone", [&] { connection.queue(frame, kFramesPerPass); }, [&] {
        NDIlib_video_frame_v2_t video = ndiVideoFrameDefaults();
        NDIlib_audio_frame_v3_t audio = ndiAudioFrameDefaults();
        while (NDIlib_recv_capture_v3(connection.handle, &video, &audio, nullptr, 0) == NDIlib_frame_type_video) {
            benchmark::DoNotOptimize(video.p_data);
            NDIlib_recv_free_video_v2(connection.handle, &video);
        }
    });
}

void BM_Memcpy(benchmark::State &state)
{
    const size_t size = size_t(state.range(0));
    // The loop's copy without the loop: payloads that sit behind a packet header in frames just
    // copied from one frame (as the runtime does when it queues them), copied one after the
    // other into a pool that wraps around, each block placed as the host's pool places it. The
    // same placement on both sides matters: source and destination a multiple of 4 KiB apart
    // would make the baseline slow for reasons that have nothing to do with the loop.
    const std::vector<char> frame(kHeaderBytes + size, 'x');
    std::vector<std::vector<char>> frames(kFramesPerPass, std::vector<char>(frame.size()));
    std::vector<char> pool(size_t(kPoolBytes) + kAlign);
    char *base = pool.data() + (kAlign - reinterpret_cast<quintptr>(pool.data()) % kAlign) % kAlign;
    size_t offset = 0;
    const auto place = [](size_t at) {
        return (at + KestObject::kBlockReserve + kHeadroom + kAlign - 1) / kAlign * kAlign;
    };
    measure(
        state, "memcpy",
        [&] {
            for (auto &f : frames)
                std::memcpy(f.data(), frame.data(), frame.size());
            benchmark::ClobberMemory();
        },
        [&] {
            for (const auto &f : frames) {
                size_t start = place(offset);
                if (start + size > size_t(kPoolBytes))
                    start = place(0);
                std::memcpy(base + start, f.data() + kHeaderBytes, size);
                offset = start + size;
            }
            benchmark::ClobberMemory();
        });
}

// A fixed number of passes per size: queueing the frames (untimed) costs far more than taking
// them, so a time-driven count would spend minutes preparing the cheap cases.
struct Size
{
    int64_t bytes;
    int64_t passes;
};
const Size kSizes[] = {{1024, 20000}, {200 * 1024, 1000}, {2 * 1024 * 1024, 150}};

void registerBenchmarks()
{
    for (const Size &size : kSizes) {
        benchmark::RegisterBenchmark("BM_CaptureLoop", BM_CaptureLoop)->Arg(size.bytes)->Iterations(size.passes)->UseManualTime();
        benchmark::RegisterBenchmark("BM_RuntimeCaptureAlone", BM_RuntimeCaptureAlone)
            ->Arg(size.bytes)->Iterations(size.passes)->UseManualTime();
        benchmark::RegisterBenchmark("BM_Memcpy", BM_Memcpy)->Arg(size.bytes)->Iterations(size.passes)->UseManualTime();
    }
}

} // namespace

int main(int argc, char **argv)
{
    useQuietNdiTestRuntime();
    QCoreApplication app(argc, argv);
    registerBenchmarks();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    std::printf("\ncapture loop throughput as a fraction of memcpy (same run):\n");
    for (const Size &s : kSizes) {
        const int64_t size = s.bytes;
        const Total loop = totals[{"capture loop", size}];
        const Total copy = totals[{"memcpy", size}];
        if (loop.seconds <= 0 || copy.seconds <= 0)
            continue;
        const double loopRate = loop.bytes / loop.seconds, copyRate = copy.bytes / copy.seconds;
        std::printf("  %8lld bytes: loop %8.2f GB/s, memcpy %8.2f GB/s, ratio %.2f\n", static_cast<long long>(size),
                    loopRate / 1e9, copyRate / 1e9, loopRate / copyRate);
    }
    return 0;
}
