// Cost of one video frame through KestNDISend (onNewPacketV, which drains through sendV on the
// same thread) against the NDI test runtime, for 1 KB and 200 KB frames, next to:
//   - the runtime's scatter send alone with the same frame (what the node adds is the rest),
//   - the host's packet queue alone (bufferPacketV + takePacket, the host's share),
//   - one memcpy of the payload (what a copying sender would pay on top).
// "allocs/frame" counts heap allocations (malloc, calloc, realloc) per frame; the node's own
// target is 0. Nobody receives and the runtime records nothing, so the runtime call does no
// copying of its own.

#include "testruntime.h"

#include "kestencodev.h"
#include "kesthi.h"
#include "ndi/kestndisend.h"
#include "packetqueue.h"

#include "alloccount.h"
#include "quietruntime.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr int kFrameType = 1; // non-key: the common frame

class Encoder : public KestEncodeV
{
};

// Runs `body` per iteration and reports allocations per frame.
template <typename Body>
void measure(benchmark::State &state, Body body)
{
    for (int i = 0; i < 64; ++i) // warm-up: queues and buffers reach their working size
        body();
    const long before = AllocCount::count();
    for (auto _ : state)
        body();
    state.counters["allocs/frame"] = benchmark::Counter(double(AllocCount::count() - before) / double(state.iterations()));
    state.SetBytesProcessed(int64_t(state.iterations()) * state.range(0));
}

void BM_NodeOnNewPacketV(benchmark::State &state)
{
    Encoder encoder;
    KestNDISend node;
    node.setName("bench");
    KestHi::setClockOffset(KestHi::clockOffset() + 2000000); // no waiting for an earlier sender
    node.setData({{"name", "bench node"}, {"config", "/nonexistent"}});
    node.onNewInfoV({KestCodec::H264, {{"width", 1920}, {"height", 1080}, {"framerate", 30},
                                       {"extradata", QByteArray(24, 'p')}}, &encoder});
    std::vector<char> payload(size_t(state.range(0)), 'x');
    Packet pkt;
    pkt.data = payload.data();
    pkt.len = int(payload.size());
    pkt.frameType = kFrameType;
    pkt.source = &encoder;
    measure(state, [&] {
        pkt.pts += 33333;
        node.onNewPacketV(pkt);
    });
    if (senderInfo(newestSender()).video_frames < state.iterations())
        state.SkipWithError("frames did not reach the runtime");
    node.stop();
}

void BM_RuntimeScatterSendAlone(benchmark::State &state)
{
    NDIlib_send_create_t settings{};
    settings.p_ndi_name = "bench runtime";
    NDIlib_send_instance_t sender = NDIlib_send_create_v2(&settings, "{}");
    std::vector<uint8_t> payload(size_t(state.range(0)), 'x');
    NDIlib_video_frame_v2_t frame = ndiVideoFrameDefaults(); // a rate and progressive, as the runtime wants
    frame.FourCC = NDIlib_FourCC_video_type_ex_H264_highest_bandwidth;
    frame.xres = 1920;
    frame.yres = 1080;
    NDIlib_compressed_packet_t header{};
    header.version = NDIlib_compressed_packet_version_0;
    header.fourCC = NDIlib_compressed_FourCC_type_H264;
    header.data_size = uint32_t(payload.size());
    const uint8_t *blocks[] = {reinterpret_cast<const uint8_t *>(&header), payload.data(), nullptr, nullptr};
    const int sizes[] = {int(sizeof(header)), int(payload.size()), 0, 0};
    const NDIlib_frame_scatter_t scatter{blocks, sizes};
    measure(state, [&] {
        header.pts += 333330;
        frame.timecode = header.pts;
        NDIlib_send_send_video_scatter(sender, &frame, &scatter);
    });
    NDIlib_send_destroy(sender);
}

void BM_HostQueueAlone(benchmark::State &state)
{
    KestObject node;
    std::vector<char> payload(size_t(state.range(0)), 'x');
    Packet pkt;
    pkt.data = payload.data();
    pkt.len = int(payload.size());
    Packet out;
    measure(state, [&] {
        node.bufferPacketV(pkt);
        takePacket(node.lockV, node.packetsV, out);
        benchmark::DoNotOptimize(out);
    });
}

void BM_CopyPayload(benchmark::State &state)
{
    std::vector<char> from(size_t(state.range(0)), 'x'), to(from.size());
    measure(state, [&] {
        std::memcpy(to.data(), from.data(), from.size());
        benchmark::ClobberMemory();
    });
}

} // namespace

BENCHMARK(BM_NodeOnNewPacketV)->Arg(1024)->Arg(200 * 1024);
BENCHMARK(BM_RuntimeScatterSendAlone)->Arg(1024)->Arg(200 * 1024);
BENCHMARK(BM_HostQueueAlone)->Arg(1024)->Arg(200 * 1024);
BENCHMARK(BM_CopyPayload)->Arg(1024)->Arg(200 * 1024);

int main(int argc, char **argv)
{
    useQuietNdiTestRuntime();
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
