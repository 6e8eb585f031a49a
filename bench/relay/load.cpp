// relay-load: the stations of a relay benchmark, in a process of their own.
//
//   relay-load PORT STATIONS unicast|broadcast SIZE RATE MILLISECONDS
//
// Opens STATIONS UDP sockets on 127.0.0.1, makes the relay learn them, then sends RATE datagrams
// per second (in total, spread over the stations) of SIZE bytes for MILLISECONDS: each station
// to its partner (unicast: 0<->1, 2<->3, ...) or to everybody (broadcast). Counts what arrives and
// prints one line: "sent S expected E received R".

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <sched.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;

int openStation()
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address));
    // Large buffers on the load side so that any loss measured is the forwarder's.
    const int buffer = 16 << 20;
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer, sizeof(buffer)) != 0)
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &buffer, sizeof(buffer)) != 0)
        ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof(buffer));
    return fd;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 7) {
        std::fprintf(stderr, "usage: relay-load PORT STATIONS unicast|broadcast SIZE RATE MILLISECONDS\n");
        return 2;
    }
    const int port = std::atoi(argv[1]);
    const int stations = std::atoi(argv[2]);
    const bool broadcast = std::strcmp(argv[3], "broadcast") == 0;
    const int size = std::atoi(argv[4]);
    const double rate = std::atof(argv[5]);
    const int milliseconds = std::atoi(argv[6]);
    if (stations < 2 || stations > 200 || size < 3 || size > 65507 || rate <= 0 || milliseconds <= 0)
        return 2;

    // The load keeps to the first CPU; the forwarder under test has the last one to itself.
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(0, &cpus);
    sched_setaffinity(0, sizeof(cpus), &cpus);

    sockaddr_in relay{};
    relay.sin_family = AF_INET;
    relay.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    relay.sin_port = htons(uint16_t(port));

    std::vector<int> fds;
    std::vector<std::vector<char>> payloads;
    for (int s = 0; s < stations; ++s) {
        fds.push_back(openStation());
        std::vector<char> payload(static_cast<size_t>(size), static_cast<char>(s));
        payload[0] = char(s + 1);                                       // source
        payload[1] = char(broadcast ? 255 : ((s ^ 1) + 1));            // destination
        payload[2] = 0;                                                 // audio
        payloads.push_back(std::move(payload));
    }
    // Announce every station (to an unknown destination, so nothing is forwarded) and let the
    // relay file them.
    for (int s = 0; s < stations; ++s) {
        const char alive[3] = {char(s + 1), char(254), 1};
        ::sendto(fds[size_t(s)], alive, 3, 0, reinterpret_cast<sockaddr *>(&relay), sizeof(relay));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    std::atomic<bool> sending{true};
    std::atomic<long long> received{0};
    std::thread receiver([&] {
        std::vector<pollfd> polls;
        for (int fd : fds)
            polls.push_back({fd, POLLIN, 0});
        constexpr int kBatch = 64;
        static char buffer[kBatch][2048];
        mmsghdr msgs[kBatch];
        iovec vecs[kBatch];
        auto quietSince = Clock::now();
        for (;;) {
            const int ready = ::poll(polls.data(), polls.size(), 20);
            if (ready <= 0) {
                if (!sending && Clock::now() - quietSince > std::chrono::milliseconds(300))
                    break;
                continue;
            }
            quietSince = Clock::now();
            for (const pollfd &p : polls) {
                if (!(p.revents & POLLIN))
                    continue;
                for (;;) {
                    for (int i = 0; i < kBatch; ++i) {
                        vecs[i] = {buffer[i], sizeof(buffer[i])};
                        msgs[i].msg_hdr = {};
                        msgs[i].msg_hdr.msg_iov = &vecs[i];
                        msgs[i].msg_hdr.msg_iovlen = 1;
                    }
                    const int n = ::recvmmsg(p.fd, msgs, kBatch, MSG_DONTWAIT, nullptr);
                    if (n <= 0)
                        break;
                    received += n;
                }
            }
        }
    });

    // Pace in 100 us ticks: each tick sends what is due by now, round-robin over the stations.
    const auto start = Clock::now();
    const auto end = start + std::chrono::milliseconds(milliseconds);
    long long sent = 0;
    int next = 0;
    // One sendmmsg per station and tick keeps the load's own cost small next to the forwarder's.
    constexpr int kMaxBurst = 1024;
    std::vector<mmsghdr> burst(kMaxBurst);
    std::vector<iovec> burstVec(kMaxBurst);
    std::vector<int> share(static_cast<size_t>(stations));
    while (Clock::now() < end) {
        const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        long long due = (long long)(elapsed * rate) - sent;
        std::fill(share.begin(), share.end(), 0);
        for (; due > 0; --due, next = (next + 1) % stations)
            ++share[size_t(next)];
        for (int s = 0; s < stations; ++s) {
            int left = share[size_t(s)];
            while (left > 0) {
                const int n = std::min(left, kMaxBurst);
                for (int i = 0; i < n; ++i) {
                    burstVec[size_t(i)] = {payloads[size_t(s)].data(), size_t(size)};
                    burst[size_t(i)].msg_hdr = {};
                    burst[size_t(i)].msg_hdr.msg_name = &relay;
                    burst[size_t(i)].msg_hdr.msg_namelen = sizeof(relay);
                    burst[size_t(i)].msg_hdr.msg_iov = &burstVec[size_t(i)];
                    burst[size_t(i)].msg_hdr.msg_iovlen = 1;
                }
                const int done = ::sendmmsg(fds[size_t(s)], burst.data(), unsigned(n), 0);
                if (done > 0) {
                    left -= done;
                    sent += done;
                } else {
                    std::this_thread::yield(); // our own send buffer is full: try again
                }
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    sending = false;
    receiver.join();

    const long long expected = broadcast ? sent * (stations - 1) : sent;
    std::printf("sent %lld expected %lld received %lld\n", sent, expected, received.load());
    for (int fd : fds)
        ::close(fd);
    return 0;
}
