// Intercom station benchmarks:
//  - one mixing step (onTimerMix) with 1, 4 and 16 talking stations: time and heap allocations
//    per step, next to the memory-bound limit (a plain loop reading the same bytes);
//  - the voice gate (doVad) per local frame, gate shut and gate open, next to one sendto();
//  - one-way latency of an audio datagram from station A's send through the relay into
//    station B's queue on 127.0.0.1, next to one plain loopback hop.

#include "intercom/datagram.h"
#include "intercom/kestintercom.h"
#include "intercom/kestintercomserver.h"
#include "kestobject.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QThread>

#include "alloccount.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include <arpa/inet.h>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kFrameSamples = 480; // 10 ms at 48 kHz
constexpr int kFrameBytes = kFrameSamples * 2;
constexpr int kFramesPerStation = 64; // distinct buffers per station, so not all stay in cache
constexpr int kJitterFrames = 256;    // "buf": refills are rare and cost nothing per step
constexpr quint8 kOwnNumber = 200;

StreamInfo pcm16()
{
    StreamInfo info;
    info.params = {{QStringLiteral("samplerate"), 48000}, {QStringLiteral("channels"), 1},
                   {QStringLiteral("bitwidth"), 16}, {QStringLiteral("frame_size"), kFrameSamples}};
    return info;
}

void fillSpeech(char *out, int samples, double hz, double phase)
{
    for (int i = 0; i < samples; ++i) {
        const qint16 s = qint16(12000 * std::sin(phase + 6.283185307179586 * hz * i / 48000));
        std::memcpy(out + 2 * i, &s, 2);
    }
}

// A started station with `talkers` other stations whose frames wait in its packet memory.
struct MixRig
{
    explicit MixRig(int talkers) : stations(talkers)
    {
        node.setName(QStringLiteral("bench"));
        node.setData({{QStringLiteral("did"), kOwnNumber}, {QStringLiteral("tid"), 201},
                      {QStringLiteral("hid"), QString()}, {QStringLiteral("vad"), 0},
                      {QStringLiteral("buf"), kJitterFrames}, {QStringLiteral("memSize"), 16 << 20}});
        node.start();
        node.onNewInfoA(pcm16());
        datagrams.resize(size_t(talkers));
        for (int s = 0; s < talkers; ++s) {
            for (int f = 0; f < kFramesPerStation; ++f) {
                char *body = node.bufferData(nullptr, kFrameBytes, Intercom::kHeaderSize);
                Intercom::writeHeader(body - Intercom::kHeaderSize, {quint8(s + 1), kOwnNumber, Intercom::Audio});
                fillSpeech(body, kFrameSamples, 200 + 50 * s, f);
                datagrams[size_t(s)].push_back(body - Intercom::kHeaderSize);
            }
        }
    }

    // Fills every station's queue up to 2 x "buf" frames.
    void refill()
    {
        for (int s = 0; s < stations; ++s)
            for (int q = node.queuedFrames(s + 1); q < 2 * kJitterFrames; ++q)
                node.handleDatagram(datagrams[size_t(s)][size_t(next++ % kFramesPerStation)],
                                    Intercom::kHeaderSize + kFrameBytes);
    }

    KestIntercom node;
    int stations;
    size_t next = 0;
    std::vector<std::vector<char *>> datagrams;
};

void BM_MixStep(benchmark::State &state)
{
    MixRig rig(int(state.range(0)));
    rig.refill();
    int remaining = kJitterFrames;
    const long before = AllocCount::count();
    for (auto _ : state) {
        if (remaining == 0) {
            AllocCount::setCounting(false);
            state.PauseTiming();
            rig.refill();
            state.ResumeTiming();
            AllocCount::setCounting(true);
            remaining = kJitterFrames;
        }
        rig.node.onTimerMix();
        --remaining;
    }
    state.counters["allocs/step"] = benchmark::Counter(double(AllocCount::count() - before), benchmark::Counter::kAvgIterations);
    state.SetBytesProcessed(int64_t(state.iterations()) * rig.stations * kFrameBytes);
}

// The memory-bound limit: the same frames, read once each with a plain loop.
void BM_ReadSameBytes(benchmark::State &state)
{
    MixRig rig(int(state.range(0)));
    size_t frame = 0;
    for (auto _ : state) {
        int64_t sum = 0;
        for (int s = 0; s < rig.stations; ++s) {
            const char *body = rig.datagrams[size_t(s)][frame % kFramesPerStation] + Intercom::kHeaderSize;
            for (int i = 0; i < kFrameSamples; ++i) {
                qint16 v;
                std::memcpy(&v, body + 2 * i, 2);
                sum += v;
            }
        }
        ++frame;
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * rig.stations * kFrameBytes);
}

// A UDP socket on 127.0.0.1 that nobody reads: somewhere for datagrams to go.
struct Sink
{
    Sink()
    {
        fd = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a));
        socklen_t len = sizeof(a);
        ::getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
        port = ntohs(a.sin_port);
        address = a;
    }
    ~Sink() { ::close(fd); }
    int fd;
    quint16 port;
    sockaddr_in address;
};

void BM_DoVad(benchmark::State &state)
{
    const bool speech = state.range(0) != 0;
    Sink relay;
    KestIntercom node;
    node.setName(QStringLiteral("bench"));
    node.setData({{QStringLiteral("port"), relay.port}, {QStringLiteral("hid"), QString()}});
    node.start();
    node.onNewInfoA(pcm16());
    KestObject mic;
    std::vector<Packet> frames;
    for (int f = 0; f < kFramesPerStation; ++f) {
        Packet p;
        p.data = mic.bufferData(nullptr, kFrameBytes, Intercom::kHeaderSize);
        p.len = kFrameBytes;
        if (speech)
            fillSpeech(p.data, kFrameSamples, 300, f);
        else
            std::memset(p.data, 0, kFrameBytes);
        frames.push_back(p);
    }
    size_t f = 0;
    for (; f < 3; ++f) // speech opens the gate with its third frame
        node.doVad(frames[f]);
    for (auto _ : state)
        node.doVad(frames[f++ % frames.size()]);
    if (node.isGateOpen() != speech)
        state.SkipWithError("the gate is not where this case expects it");
}

// Baseline of the open gate: one datagram of the same size handed to the kernel.
void BM_SendTo(benchmark::State &state)
{
    Sink relay;
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    std::vector<char> datagram(Intercom::kHeaderSize + kFrameBytes);
    for (auto _ : state)
        ::sendto(fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&relay.address),
                 sizeof(relay.address));
    ::close(fd);
}

BENCHMARK(BM_MixStep)->Arg(1)->Arg(4)->Arg(16)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_ReadSameBytes)->Arg(1)->Arg(4)->Arg(16)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_DoVad)->ArgName("speech")->Arg(0)->Arg(1)->Unit(benchmark::kNanosecond);
BENCHMARK(BM_SendTo)->Unit(benchmark::kNanosecond);

// Keeps every run's CPU time per iteration, in ns, for the summary: other work on a shared
// machine inflates the wall-clock figures but not these.
class Collector : public benchmark::ConsoleReporter
{
public:
    std::map<std::string, double> ns;
    std::map<std::string, double> allocs;
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration)
                continue;
            ns[run.benchmark_name()] = run.GetAdjustedCPUTime();
            const auto it = run.counters.find("allocs/step");
            if (it != run.counters.end())
                allocs[run.benchmark_name()] = it->second.value;
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

// --- latency ------------------------------------------------------------------------------------

struct Percentiles
{
    double median = 0, p99 = 0;
    int lost = 0;
};

Percentiles percentiles(std::vector<double> us, int lost)
{
    Percentiles p;
    p.lost = lost;
    if (us.empty())
        return p;
    std::sort(us.begin(), us.end());
    p.median = us[us.size() / 2];
    p.p99 = us[std::min(us.size() - 1, us.size() * 99 / 100)];
    return p;
}

using Clock = std::chrono::steady_clock;

double microsecondsSince(Clock::time_point t0)
{
    return std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
}

constexpr int kLatencySamples = 5000;
constexpr int kWarmUp = 200;

// A.send -> relay (its own thread) -> B's socket -> B.onRead -> B's queue.
Percentiles relayLatency()
{
    const quint16 port = Sink().port; // free a moment ago

    auto *relay = new KestIntercomServer;
    relay->setData({{QStringLiteral("port"), port}});
    QThread thread;
    relay->moveToThread(&thread);
    thread.start();
    QMetaObject::invokeMethod(relay, [relay] { relay->start(); }, Qt::BlockingQueuedConnection);

    const auto station = [port](int own, int partner) {
        auto node = std::make_unique<KestIntercom>();
        node->setName(QStringLiteral("station%1").arg(own));
        node->setData({{QStringLiteral("did"), own}, {QStringLiteral("tid"), partner}, {QStringLiteral("port"), port},
                       {QStringLiteral("hid"), QString()}, {QStringLiteral("vad"), 0}});
        node->start();
        return node;
    };
    auto a = station(1, 2), b = station(2, 1);
    KestObject mic;
    Packet pkt;
    pkt.data = mic.bufferData(nullptr, kFrameBytes, Intercom::kHeaderSize);
    pkt.len = kFrameBytes;
    fillSpeech(pkt.data, kFrameSamples, 440, 0);

    std::vector<double> samples;
    int lost = 0;
    for (int i = 0; i < kWarmUp + kLatencySamples; ++i) {
        if (i % 500 == 0) // the relay learns (and keeps) B's address from its alive
            b->onTimerKeepAlive();
        const int before = b->queuedFrames(1);
        const Clock::time_point t0 = Clock::now();
        a->send(pkt);
        bool arrived = false;
        while (!(arrived = b->queuedFrames(1) > before) && microsecondsSince(t0) < 100000)
            QCoreApplication::processEvents();
        const double us = microsecondsSince(t0);
        b->onTimerMix(); // keeps B's queue from filling up
        if (i < kWarmUp)
            continue;
        if (arrived)
            samples.push_back(us);
        else
            ++lost;
    }
    a.reset();
    b.reset();
    QMetaObject::invokeMethod(relay, [relay] {
        relay->stop();
        delete relay;
    }, Qt::BlockingQueuedConnection);
    thread.quit();
    thread.wait();
    return percentiles(samples, lost);
}

// Baseline: one loopback hop between two plain sockets (sendto, then a blocking recv).
Percentiles loopbackLatency()
{
    Sink to;
    const int from = ::socket(AF_INET, SOCK_DGRAM, 0);
    std::vector<char> datagram(Intercom::kHeaderSize + kFrameBytes), buffer(65536);
    std::vector<double> samples;
    for (int i = 0; i < kWarmUp + kLatencySamples; ++i) {
        const Clock::time_point t0 = Clock::now();
        ::sendto(from, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to.address), sizeof(to.address));
        ::recv(to.fd, buffer.data(), buffer.size(), 0);
        if (i >= kWarmUp)
            samples.push_back(microsecondsSince(t0));
    }
    ::close(from);
    return percentiles(samples, 0);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("default.debug=false")); // the gate's log lines
    benchmark::Initialize(&argc, argv);
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);

    std::printf("\n== intercom summary (CPU time per iteration)\n");
    const bool countsWork = AllocCount::works();
    for (int talkers : {1, 4, 16}) {
        const std::string mixName = "BM_MixStep/" + std::to_string(talkers);
        const std::string readName = "BM_ReadSameBytes/" + std::to_string(talkers);
        if (!collector.ns.count(mixName) || !collector.ns.count(readName))
            continue;
        const double mix = collector.ns[mixName], read = collector.ns[readName];
        char allocs[64] = "not counted in this build";
        if (countsWork)
            std::snprintf(allocs, sizeof(allocs), "%.3f", collector.allocs[mixName]);
        std::printf("mix step, %2d talking: %8.1f ns/step   memory-bound read of the same bytes: %7.1f ns   "
                    "ratio %.2f   heap allocations/step: %s\n",
                    talkers, mix, read, mix / read, allocs);
    }
    if (collector.ns.count("BM_DoVad/speech:0") && collector.ns.count("BM_SendTo"))
        std::printf("doVad per frame: gate shut %.1f ns, gate open %.1f ns (sends); one sendto() of the frame: %.1f ns\n",
                    collector.ns["BM_DoVad/speech:0"], collector.ns["BM_DoVad/speech:1"], collector.ns["BM_SendTo"]);

    const Percentiles relay = relayLatency();
    const Percentiles hop = loopbackLatency();
    std::printf("one-way latency A.send -> relay -> B's queue: median %.1f us, p99 %.1f us (%zu samples, %d lost)\n",
                relay.median, relay.p99, size_t(kLatencySamples - relay.lost), relay.lost);
    std::printf("baseline, one plain loopback hop:              median %.1f us, p99 %.1f us\n", hop.median, hop.p99);
    benchmark::Shutdown();
    return 0;
}
