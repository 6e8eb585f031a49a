// Several host threads deliver packets into one node's queue while the node drains it; every
// packet must arrive exactly once and each producer's packets in order. A plain program rather
// than a QtTest suite so that ThreadSanitizer sees only these threads (QtTest's own watchdog
// thread trips it through Qt's uninstrumented wait condition).

#include "kestobject.h"
#include "packetqueue.h"

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

int main()
{
    constexpr int kProducers = 4;
    constexpr int kPerProducer = 50000;
    KestObject node;
    node.setData({{QStringLiteral("bufLenV"), kProducers * kPerProducer}});

    std::atomic<int> running{kProducers};
    std::atomic<int> firstPacketSignals{0};
    std::vector<std::thread> producers;
    for (int t = 0; t < kProducers; ++t) {
        producers.emplace_back([&, t] {
            for (int i = 0; i < kPerProducer; ++i) {
                Packet p;
                p.frameType = t;
                p.pts = i;
                if (node.bufferPacketV(p))
                    ++firstPacketSignals;
            }
            --running;
        });
    }

    std::vector<qint64> next(kProducers, 0);
    int received = 0;
    bool ordered = true;
    const auto drain = [&] {
        Packet p;
        while (takePacket(node.lockV, node.packetsV, p)) {
            ordered = ordered && p.pts == next[size_t(p.frameType)];
            next[size_t(p.frameType)] = p.pts + 1;
            ++received;
        }
    };
    while (running > 0)
        drain();
    for (auto &t : producers)
        t.join();
    drain();

    const bool ok = ordered && received == kProducers * kPerProducer && firstPacketSignals > 0;
    std::printf("%s: %d of %d packets, %s, %d drain signals\n", ok ? "PASS" : "FAIL", received,
                kProducers * kPerProducer, ordered ? "in order" : "OUT OF ORDER", firstPacketSignals.load());
    return ok ? 0 : 1;
}
