// A node's packet queues. Past their bound ("bufLenA" here) the oldest packets go, and only the
// packet into an empty queue asks the caller to schedule a drain. Then several host threads deliver packets
// into one queue while the node drains it: every packet must arrive exactly once and each
// producer's packets in order. A plain program rather than a QtTest suite so that
// ThreadSanitizer sees only these threads (QtTest's own watchdog thread trips it through Qt's
// uninstrumented wait condition).

#include "kestobject.h"
#include "packetqueue.h"

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

int main()
{
    constexpr int kProducers = 4, kPerProducer = 50000;
    KestObject node;
    node.setData({{QStringLiteral("bufLenA"), 3}, {QStringLiteral("bufLenV"), kProducers * kPerProducer}});
    int drains = 0;
    for (Packet p; p.pts < 13; ++p.pts)
        drains += node.bufferPacketA(p);
    const bool boundHolds = drains == 1 && node.packetsA.size() == 3 && node.packetsA.first().pts == 10;

    std::atomic<int> running{kProducers};
    std::vector<std::thread> producers;
    for (int t = 0; t < kProducers; ++t)
        producers.emplace_back([&, t] {
            for (Packet p{nullptr, 0, 0, -1, t, nullptr}; p.pts < kPerProducer; ++p.pts)
                node.bufferPacketV(p);
            --running;
        });
    std::vector<qint64> next(kProducers, 0);
    int received = 0, disordered = 0;
    for (bool last = false; !last;) {
        last = running == 0; // one more pass once every producer is done
        for (Packet p; takePacket(node.lockV, node.packetsV, p); ++received, ++next[size_t(p.frameType)])
            disordered += p.pts != next[size_t(p.frameType)];
    }
    for (auto &t : producers)
        t.join();
    std::printf("bound %s; %d of %d packets, %s\n", boundHolds ? "holds" : "BROKEN", received, kProducers * kPerProducer, disordered ? "OUT OF ORDER" : "in order");
    return boundHolds && !disordered && received == kProducers * kPerProducer ? 0 : 1;
}
