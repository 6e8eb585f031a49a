// Memory of a station under a flood of command datagrams whose JSON repeats keys, sent through
// the relay on 127.0.0.1 (anyone on the intercom network can send these). Qt 5.15's JSON parser
// leaks the replaced value of a repeated key; the station screens command bodies first, so its
// memory should grow no more than under the same number of plain commands. Prints the resident
// size before and after each flood, and, for reference, after parsing the same text with Qt alone.
//
//   intercom-flood [--count N]      (default 200000)

#include "intercom/datagram.h"
#include "intercom/kestintercom.h"
#include "intercom/kestintercomserver.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QUdpSocket>

#include <cstdio>
#include <cstring>

#include <unistd.h>

namespace {

constexpr quint16 kRelayPort = 47123;
constexpr quint8 kStation = 2;
constexpr quint8 kSender = 9;
constexpr int kBurst = 200; // datagrams sent before waiting for the station to catch up

double residentMiB()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return -1;
    return statm.readAll().split(' ').value(1).toDouble() * double(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

// Sends `count` command datagrams with `body` to the station through the relay; returns how many
// the station turned into events.
int flood(QUdpSocket &sender, const QByteArray &body, int count, const int &heard)
{
    QByteArray datagram(Intercom::kHeaderSize, '\0');
    Intercom::writeHeader(datagram.data(), {kSender, kStation, Intercom::Command});
    datagram += body;
    const int start = heard;
    for (int sent = 0; sent < count;) {
        for (int i = 0; i < kBurst && sent < count; ++i, ++sent)
            sender.writeDatagram(datagram, QHostAddress::LocalHost, kRelayPort);
        QElapsedTimer waited;
        waited.start();
        while (heard - start < sent - kBurst / 10 && waited.elapsed() < 200)
            QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    QElapsedTimer settle;
    settle.start();
    while (settle.elapsed() < 300)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    return heard - start;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const int countIndex = args.indexOf(QStringLiteral("--count"));
    const int count = countIndex > 0 ? args.value(countIndex + 1).toInt() : 200000;
    // The station logs every command it receives; that is not what is measured.
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &message) {
        if (type != QtDebugMsg)
            std::fprintf(stderr, "%s\n", qPrintable(message));
    });

    KestIntercomServer relay;
    relay.setData({{QStringLiteral("port"), kRelayPort}});
    relay.start();
    KestIntercom station;
    station.setData({{QStringLiteral("did"), kStation}, {QStringLiteral("port"), kRelayPort},
                     {QStringLiteral("hid"), QString()}});
    station.start();
    int heard = 0;
    QObject::connect(&station, &KestObject::eventSent, [&heard] { ++heard; });
    station.onTimerKeepAlive(); // the relay learns where station 2 is from its first alive

    QUdpSocket sender;
    sender.bind(QHostAddress(QHostAddress::LocalHost), 0);
    const QByteArray plain = R"({"func":"TALLY","data":2})";
    const QByteArray repeated = R"({"func":[1,2,3],"func":{"x":[1]},"func":"TALLY","data":[1],"data":2})";

    // A first round so that sockets, buffers and the station's packet pool (4 MB, about 50,000
    // such datagrams) are in place before measuring.
    flood(sender, plain, 60000, heard);
    const double before = residentMiB();
    const int plainHeard = flood(sender, plain, count, heard);
    const double afterPlain = residentMiB();
    const int repeatedHeard = flood(sender, repeated, count, heard);
    const double afterRepeated = residentMiB();
    for (int i = 0; i < count; ++i)
        QJsonDocument::fromJson(repeated);
    const double afterQt = residentMiB();

    std::printf("%d command datagrams each, resident size of the process in MiB:\n", count);
    std::printf("  plain commands         %7.1f -> %7.1f  (+%.1f, %d handled)\n", before, afterPlain,
                afterPlain - before, plainHeard);
    std::printf("  repeated keys          %7.1f -> %7.1f  (+%.1f, %d handled)\n", afterPlain, afterRepeated,
                afterRepeated - afterPlain, repeatedHeard);
    std::printf("  Qt's parser alone      %7.1f -> %7.1f  (+%.1f, same text, for reference)\n", afterRepeated,
                afterQt, afterQt - afterRepeated);
    return 0;
}
