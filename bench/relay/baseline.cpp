#include "baseline.h"

#include <array>
#include <cstring>
#include <memory>
#include <vector>

#include <netinet/in.h>
#include <pthread.h>
#include <sched.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
constexpr int kSlots = 16;
constexpr int kSlotSize = 65536;
constexpr int kSocketBuffer = 512 * 1024;
}

bool BaselineForwarder::start(quint16 port)
{
    fd = ::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int off = 0;
    ::setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off));
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof(kSocketBuffer));
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof(kSocketBuffer));
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    address.sin6_addr = in6addr_any;
    if (::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
        ::close(fd);
        fd = -1;
        return false;
    }
    running = true;
    std::atomic<bool> ready{false};
    thread = std::thread([this, &ready] {
        pinToLastCpu();
        pthread_getcpuclockid(pthread_self(), &clock);
        ready = true;
        run();
    });
    while (!ready)
        std::this_thread::yield();
    return true;
}

void BaselineForwarder::stop()
{
    if (!running.exchange(false))
        return;
    thread.join();
    ::close(fd);
    fd = -1;
}

void BaselineForwarder::run()
{
    std::unique_ptr<char[]> buffers(new char[size_t(kSlots) * kSlotSize]);
    std::array<mmsghdr, kSlots> rx{};
    std::array<iovec, kSlots> rxVec{};
    std::array<sockaddr_in6, kSlots> rxFrom{};
    std::array<sockaddr_in6, 256> table{};
    std::array<bool, 256> known{};
    std::vector<mmsghdr> tx(size_t(kSlots) * 255);
    std::vector<iovec> txVec(tx.size());

    while (running) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, 50) <= 0)
            continue;
        for (int i = 0; i < kSlots; ++i) {
            rxVec[size_t(i)] = {buffers.get() + size_t(i) * kSlotSize, size_t(kSlotSize)};
            rx[size_t(i)].msg_hdr = {};
            rx[size_t(i)].msg_hdr.msg_iov = &rxVec[size_t(i)];
            rx[size_t(i)].msg_hdr.msg_iovlen = 1;
            rx[size_t(i)].msg_hdr.msg_name = &rxFrom[size_t(i)];
            rx[size_t(i)].msg_hdr.msg_namelen = sizeof(sockaddr_in6);
        }
        const int n = ::recvmmsg(fd, rx.data(), kSlots, MSG_DONTWAIT, nullptr);
        if (n <= 0)
            continue;
        size_t count = 0;
        for (int i = 0; i < n; ++i) {
            const auto *bytes = reinterpret_cast<const unsigned char *>(rxVec[size_t(i)].iov_base);
            const unsigned len = rx[size_t(i)].msg_len;
            const unsigned from = len > 0 ? bytes[0] : 0;
            const unsigned to = len > 1 ? bytes[1] : 0;
            table[from] = rxFrom[size_t(i)];
            known[from] = true;
            const auto queue = [&](unsigned station) {
                txVec[count] = {rxVec[size_t(i)].iov_base, len};
                tx[count].msg_hdr = {};
                tx[count].msg_hdr.msg_name = &table[station];
                tx[count].msg_hdr.msg_namelen = sizeof(sockaddr_in6);
                tx[count].msg_hdr.msg_iov = &txVec[count];
                tx[count].msg_hdr.msg_iovlen = 1;
                ++count;
            };
            if (to == 255) {
                for (unsigned s = 0; s < 256; ++s)
                    if (known[s] && s != from)
                        queue(s);
            } else if (known[to]) {
                queue(to);
            }
        }
        size_t done = 0;
        while (done < count) {
            const int sent = ::sendmmsg(fd, tx.data() + done, unsigned(count - done), 0);
            done += sent > 0 ? size_t(sent) : 1;
        }
    }
}

void pinToLastCpu()
{
    const long cpus = sysconf(_SC_NPROCESSORS_ONLN);
    if (cpus < 2)
        return;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(int(cpus - 1), &set);
    sched_setaffinity(0, sizeof(set), &set); // 0: the calling thread
}
