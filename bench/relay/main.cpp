// relay-bench: how many datagrams per second the intercom relay forwards without loss, next to
// a minimal recvmmsg/sendmmsg forwarder measured the same way in the same run.
//
//   relay-bench [--stations N] [--mode unicast|broadcast] [--size BYTES] [--ms TRIAL_MS] [--rounds N]
//
// The stations are a separate process (relay-load). For each forwarder the offered rate is
// doubled until datagrams get lost, then bisected; the figure is the highest rate at which every
// datagram arrived, counted as forwarded copies per second. On a small machine that figure
// swings with scheduling, so the run also reports the forwarding thread's CPU time per datagram
// at a fixed 20000/s, which does not. Forwarders run on the last CPU, the load on the first.

#include "baseline.h"
#include "intercom/kestintercomserver.h"

#include <QCoreApplication>
#include <QProcess>
#include <QThread>

#include <algorithm>
#include <cstdio>
#include <vector>
#include <functional>

#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct Options
{
    int stations = 8;
    QString mode = QStringLiteral("unicast");
    int size = 963; // 10 ms of 48 kHz 16-bit mono and the 3-byte header
    int trialMs = 1000;
    int rounds = 3;
};

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.empty() ? 0 : v[v.size() / 2];
}

quint16 freePort()
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address));
    socklen_t length = sizeof(address);
    ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

struct Trial
{
    double copiesPerSecond = -1; // -1: something was lost
    long long sent = 0;
};

qint64 cpuNs(clockid_t clock)
{
    timespec ts{};
    clock_gettime(clock, &ts);
    return qint64(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// One load run of `ms` milliseconds at `rate` datagrams per second.
Trial trial(const Options &o, quint16 port, double rate, int ms)
{
    QProcess load;
    load.start(QCoreApplication::applicationDirPath() + QStringLiteral("/relay-load"),
               {QString::number(port), QString::number(o.stations), o.mode, QString::number(o.size),
                QString::number(rate, 'f', 0), QString::number(ms)});
    Trial result;
    if (!load.waitForFinished(ms + 30000) || load.exitCode() != 0) {
        std::fprintf(stderr, "relay-load failed: %s\n", load.readAllStandardError().constData());
        return result;
    }
    long long expected = 0, received = 0;
    std::sscanf(load.readAllStandardOutput().constData(), "sent %lld expected %lld received %lld", &result.sent, &expected, &received);
    if (expected > 0 && received >= expected)
        result.copiesPerSecond = double(expected) * 1000.0 / ms;
    return result;
}

// CPU time the forwarding thread spends per received datagram at a rate both forwarders
// manage: the part of the figure that does not depend on scheduling luck.
double cpuPerDatagramNs(const Options &o, quint16 port, clockid_t clock)
{
    const qint64 before = cpuNs(clock);
    const Trial t = trial(o, port, 20000, 2000);
    const qint64 spent = cpuNs(clock) - before;
    return t.sent > 0 ? double(spent) / double(t.sent) : 0;
}

double maxLossless(const Options &o, quint16 port)
{
    double good = 0, goodCopies = 0, bad = 0;
    double rate = 10000;
    while (bad == 0 && rate <= 4e6) {
        const double copies = trial(o, port, rate, o.trialMs).copiesPerSecond;
        if (copies > 0) {
            good = rate;
            goodCopies = copies;
            rate *= 2;
        } else {
            bad = rate;
        }
    }
    for (int i = 0; i < 6 && bad > 0; ++i) {
        const double mid = (good + bad) / 2;
        const double copies = trial(o, port, mid, o.trialMs).copiesPerSecond;
        if (copies > 0) {
            good = mid;
            goodCopies = copies;
        } else {
            bad = mid;
        }
    }
    return goodCopies;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    Options o;
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); i += 2) {
        if (args[i] == QLatin1String("--stations"))
            o.stations = args[i + 1].toInt();
        else if (args[i] == QLatin1String("--mode"))
            o.mode = args[i + 1];
        else if (args[i] == QLatin1String("--size"))
            o.size = args[i + 1].toInt();
        else if (args[i] == QLatin1String("--ms"))
            o.trialMs = args[i + 1].toInt();
        else if (args[i] == QLatin1String("--rounds"))
            o.rounds = qMax(1, args[i + 1].toInt());
    }

    // The relay as the appliance runs it: a node on an event-loop thread of its own.
    const quint16 relayPort = freePort();
    QThread relayThread;
    auto *relay = new KestIntercomServer;
    relay->setName(QStringLiteral("relay"));
    relay->setData({{QStringLiteral("port"), relayPort}});
    relay->moveToThread(&relayThread);
    relayThread.start();
    clockid_t relayClock = CLOCK_THREAD_CPUTIME_ID;
    QMetaObject::invokeMethod(relay, [relay, &relayClock] {
        pinToLastCpu();
        pthread_getcpuclockid(pthread_self(), &relayClock);
        relay->start();
    }, Qt::BlockingQueuedConnection);

    const quint16 baselinePort = freePort();
    BaselineForwarder baseline;
    if (!baseline.start(baselinePort))
        return 1;

    // Alternate the two so that a busy moment on the machine hits both alike; report medians.
    std::vector<double> relayRates, baselineRates, relayCpu, baselineCpu;
    for (int round = 0; round < o.rounds; ++round) {
        relayRates.push_back(maxLossless(o, relayPort));
        baselineRates.push_back(maxLossless(o, baselinePort));
        relayCpu.push_back(cpuPerDatagramNs(o, relayPort, relayClock));
        baselineCpu.push_back(cpuPerDatagramNs(o, baselinePort, baseline.cpuClock()));
    }
    baseline.stop();
    QMetaObject::invokeMethod(relay, [relay] { relay->stop(); relay->deleteLater(); }, Qt::BlockingQueuedConnection);
    relayThread.quit();
    relayThread.wait();
    const double relayRate = median(relayRates);
    const double baselineRate = median(baselineRates);
    const double relayCost = median(relayCpu);
    const double baselineCost = median(baselineCpu);

    std::printf("%s, %d stations, %d-byte datagrams, %d ms trials, median of %d rounds\n", qPrintable(o.mode), o.stations, o.size, o.trialMs, o.rounds);
    std::printf("              lossless rate       CPU per datagram at 20000/s\n");
    std::printf("  relay      %10.0f /s       %8.0f ns\n", relayRate, relayCost);
    std::printf("  baseline   %10.0f /s       %8.0f ns   (recvmmsg/sendmmsg forwarder)\n", baselineRate, baselineCost);
    std::printf("  ratio      %10.2f          %8.2f      (relay / baseline; CPU: baseline / relay)\n",
                baselineRate > 0 ? relayRate / baselineRate : 0.0, relayCost > 0 ? baselineCost / relayCost : 0.0);
    return 0;
}
