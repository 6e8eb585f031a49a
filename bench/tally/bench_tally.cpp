// How long a tally change takes from the switcher's socket to the host: a peer thread writes
// "TALLY OK ..." on loopback and the clock stops when KestVMix sends its "TALLY" event.
// Baseline, measured in the same run: the same line read by a bare QTcpSocket (kernel, wake-up
// and Qt's socket read, without the node's parsing and event).
//
// One line is in flight at a time, so this is latency, not throughput.

#include "kesthi.h"
#include "tally/kestvmix.h"
#include "tally/vmixline.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QHostAddress>
#include <QTcpSocket>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr int kLines = 5000;
constexpr int kLineTimeoutMs = 2000;

// The switcher: accepts one connection, then writes one line whenever it is told to and notes
// the time just before the write.
class Peer
{
public:
    explicit Peer(bool readsSubscription)
    {
        listenFd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (::bind(listenFd, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 || ::listen(listenFd, 1) != 0
            || ::getsockname(listenFd, reinterpret_cast<sockaddr *>(&address), &length) != 0)
            return;
        port = ntohs(address.sin_port);
        thread = std::thread([this, readsSubscription] { run(readsSubscription); });
    }

    ~Peer()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            quit = true;
        }
        wake.notify_all();
        ::shutdown(listenFd, SHUT_RDWR);
        if (thread.joinable())
            thread.join();
        ::close(listenFd);
        if (connectionFd >= 0)
            ::close(connectionFd);
    }

    quint16 port = 0;

    void send(int sequence)
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            pending = sequence;
        }
        wake.notify_all();
    }
    qint64 sentAtUs() const { return sentAt.load(); }

private:
    void run(bool readsSubscription)
    {
        connectionFd = ::accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (connectionFd < 0)
            return;
        const int one = 1;
        ::setsockopt(connectionFd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one)); // no Nagle delay
        if (readsSubscription) {
            char request[sizeof(VMix::kSubscribeRequest) - 1];
            size_t got = 0;
            while (got < sizeof(request)) {
                const ssize_t n = ::read(connectionFd, request + got, sizeof(request) - got);
                if (n <= 0)
                    return;
                got += size_t(n);
            }
        }
        for (;;) {
            int sequence = 0;
            {
                std::unique_lock<std::mutex> lock(mutex);
                wake.wait(lock, [this] { return quit || pending >= 0; });
                if (quit)
                    return;
                sequence = pending;
                pending = -1;
            }
            // Digits only, so that every line is a valid report (the sequence number in base 3).
            char line[64] = "TALLY OK ";
            int at = 9;
            for (int i = 0; i < 8; ++i, sequence /= 3)
                line[at++] = char('0' + sequence % 3);
            line[at++] = '\r';
            line[at++] = '\n';
            sentAt = KestHi::now();
            if (::write(connectionFd, line, size_t(at)) != at)
                return;
        }
    }

    int listenFd = -1;
    int connectionFd = -1;
    std::thread thread;
    std::mutex mutex;
    std::condition_variable wake;
    int pending = -1;
    bool quit = false;
    std::atomic<qint64> sentAt{0};
};

struct Percentiles
{
    double medianUs = 0;
    double p99Us = 0;
};

Percentiles percentiles(std::vector<qint64> samples)
{
    if (samples.empty())
        return {};
    std::sort(samples.begin(), samples.end());
    const auto at = [&](double q) { return double(samples[size_t(q * double(samples.size() - 1))]); };
    return {at(0.5), at(0.99)};
}

// One line per iteration: the peer writes it, `loop` runs until whoever reads it sets
// `arrivedAt` and quits. Reports the latencies as manual time and as median and p99.
void measure(benchmark::State &state, Peer &peer, QEventLoop &loop, qint64 &arrivedAt, const char *label)
{
    std::vector<qint64> samples;
    samples.reserve(kLines);
    QTimer guard;
    guard.setSingleShot(true);
    QObject::connect(&guard, &QTimer::timeout, &loop, &QEventLoop::quit);
    int sequence = 0;
    for (auto _ : state) {
        arrivedAt = 0;
        guard.start(kLineTimeoutMs);
        peer.send(sequence++);
        loop.exec();
        guard.stop();
        if (arrivedAt == 0) {
            state.SkipWithError("a line did not arrive");
            break;
        }
        const qint64 latency = arrivedAt - peer.sentAtUs();
        samples.push_back(latency);
        state.SetIterationTime(double(latency) / 1e6);
    }
    const Percentiles p = percentiles(samples);
    state.counters["median_us"] = p.medianUs;
    state.counters["p99_us"] = p.p99Us;
    std::printf("%-34s median %7.1f us   p99 %7.1f us   (%zu lines)\n", label, p.medianUs, p.p99Us, samples.size());
}

void lineToTallyEvent(benchmark::State &state)
{
    Peer peer(true);
    KestVMix node;
    node.setName(QStringLiteral("bench"));
    QEventLoop loop;
    qint64 arrivedAt = 0;
    QObject::connect(&node, &KestObject::eventSent, &loop, [&](const QString &type) {
        if (type == QLatin1String("TALLY")) {
            arrivedAt = KestHi::now();
            loop.quit();
        }
    });
    node.setData({{QStringLiteral("ip"), QStringLiteral("127.0.0.1")}, {QStringLiteral("port"), peer.port}});
    measure(state, peer, loop, arrivedAt, "KestVMix line -> TALLY event:");
}

void lineToPlainRead(benchmark::State &state)
{
    Peer peer(false);
    QTcpSocket socket;
    QEventLoop loop;
    qint64 arrivedAt = 0;
    QObject::connect(&socket, &QTcpSocket::readyRead, &loop, [&] {
        while (socket.canReadLine()) {
            socket.readLine();
            arrivedAt = KestHi::now();
            loop.quit();
        }
    });
    socket.connectToHost(QHostAddress::LocalHost, peer.port);
    if (!socket.waitForConnected(2000)) {
        state.SkipWithError("no connection");
        return;
    }
    measure(state, peer, loop, arrivedAt, "baseline: QTcpSocket line read:");
}

// The pure parsing step on its own, next to the string split it is built on.
void parseLine(benchmark::State &state)
{
    const QByteArray line("TALLY OK 0121012101210121\r\n");
    for (auto _ : state)
        benchmark::DoNotOptimize(VMix::tally(VMix::lineText(line)));
}

void splitLineBaseline(benchmark::State &state)
{
    const QByteArray line("TALLY OK 0121012101210121\r\n");
    for (auto _ : state)
        benchmark::DoNotOptimize(QString::fromLatin1(line).split(QLatin1Char(' ')));
}

} // namespace

BENCHMARK(lineToPlainRead)->UseManualTime()->Iterations(kLines)->Unit(benchmark::kMicrosecond);
BENCHMARK(lineToTallyEvent)->UseManualTime()->Iterations(kLines)->Unit(benchmark::kMicrosecond);
BENCHMARK(splitLineBaseline);
BENCHMARK(parseLine);

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
