// relay-bench: how many datagrams per second the intercom relay forwards without loss, next to
// a minimal recvmmsg/sendmmsg forwarder measured the same way in the same run.
//
//   relay-bench [--stations N] [--mode unicast|broadcast] [--size BYTES] [--ms TRIAL_MS] [--rounds N]
//
// The stations are a separate process (relay-load). For each forwarder the offered rate is
// doubled until datagrams get lost, then bisected; the figure is the highest rate at which every
// datagram arrived, counted as forwarded copies per second.

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

// One load run; returns forwarded copies per second, or -1 when anything was lost.
double trial(const Options &o, quint16 port, double rate)
{
    QProcess load;
    load.start(QCoreApplication::applicationDirPath() + QStringLiteral("/relay-load"),
               {QString::number(port), QString::number(o.stations), o.mode, QString::number(o.size),
                QString::number(rate, 'f', 0), QString::number(o.trialMs)});
    if (!load.waitForFinished(o.trialMs + 30000) || load.exitCode() != 0) {
        std::fprintf(stderr, "relay-load failed: %s\n", load.readAllStandardError().constData());
        return -1;
    }
    long long sent = 0, expected = 0, received = 0;
    std::sscanf(load.readAllStandardOutput().constData(), "sent %lld expected %lld received %lld", &sent, &expected, &received);
    if (expected == 0 || received < expected)
        return -1;
    return double(expected) * 1000.0 / o.trialMs;
}

double maxLossless(const Options &o, quint16 port)
{
    double good = 0, goodCopies = 0, bad = 0;
    double rate = 10000;
    while (bad == 0 && rate <= 4e6) {
        const double copies = trial(o, port, rate);
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
        const double copies = trial(o, port, mid);
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
    QMetaObject::invokeMethod(relay, [relay] {
        pinToLastCpu();
        relay->start();
    }, Qt::BlockingQueuedConnection);

    const quint16 baselinePort = freePort();
    BaselineForwarder baseline;
    if (!baseline.start(baselinePort))
        return 1;

    // Alternate the two so that a busy moment on the machine hits both alike; report medians.
    std::vector<double> relayRates, baselineRates;
    for (int round = 0; round < o.rounds; ++round) {
        relayRates.push_back(maxLossless(o, relayPort));
        baselineRates.push_back(maxLossless(o, baselinePort));
    }
    baseline.stop();
    QMetaObject::invokeMethod(relay, [relay] { relay->stop(); relay->deleteLater(); }, Qt::BlockingQueuedConnection);
    relayThread.quit();
    relayThread.wait();
    const double relayRate = median(relayRates);
    const double baselineRate = median(baselineRates);

    std::printf("%s, %d stations, %d-byte datagrams, %d ms trials, median of %d rounds\n", qPrintable(o.mode), o.stations, o.size, o.trialMs, o.rounds);
    std::printf("  relay      %10.0f datagrams/s forwarded without loss\n", relayRate);
    std::printf("  baseline   %10.0f datagrams/s (recvmmsg/sendmmsg forwarder)\n", baselineRate);
    std::printf("  ratio      %10.2f\n", baselineRate > 0 ? relayRate / baselineRate : 0.0);
    return 0;
}
