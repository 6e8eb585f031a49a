// Socket.IO benchmarks: the codec on typical frames next to Qt's JSON parser and writer on
// the same payload, and the time from open() to connected() against the local socket.io
// server next to Node's socket.io-client doing the same in the same run.

#include "socketio/client.h"
#include "socketio/protocol.h"
#include "siopeer.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTimer>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

constexpr int kConnects = 30;

SioServer *server = nullptr;

// A device_states event of about 2 KB, as Tally Arbiter sends it: one state per bus.
QVariantList deviceStates()
{
    QVariantList states;
    for (int bus = 0; states.size() < 24; ++bus)
        states << QVariantMap{{"busId", QStringLiteral("bus-%1-a1b2c3d4").arg(bus)},
                              {"deviceId", QStringLiteral("d9e8f7a6-dev1")},
                              {"sources", bus % 3 == 0 ? QVariantList{QStringLiteral("ds-%1").arg(bus)} : QVariantList{}}};
    return states;
}

QString deviceStatesFrame()
{
    SocketIO::Packet packet;
    packet.setEventData(QStringLiteral("device_states"), deviceStates());
    return SocketIO::Protocol().encryptString(&packet);
}

void BM_Decode_DeviceStates(benchmark::State &state)
{
    SocketIO::Protocol protocol;
    const QString frame = deviceStatesFrame();
    for (auto _ : state) {
        std::unique_ptr<SocketIO::Packet> packet(protocol.decrypt(frame));
        benchmark::DoNotOptimize(packet->raw.size());
    }
    state.SetBytesProcessed(state.iterations() * frame.size());
    state.SetLabel(std::to_string(frame.size()) + " chars");
}

void BM_Baseline_JsonParse_DeviceStates(benchmark::State &state)
{
    const QByteArray payload = deviceStatesFrame().mid(2).toUtf8();
    for (auto _ : state) {
        const QJsonDocument doc = QJsonDocument::fromJson(payload);
        benchmark::DoNotOptimize(doc.isArray());
    }
    state.SetBytesProcessed(state.iterations() * payload.size());
}

void BM_Encode_DeviceStates(benchmark::State &state)
{
    SocketIO::Protocol protocol;
    const QVariantList states = deviceStates();
    for (auto _ : state) {
        SocketIO::Packet packet;
        packet.setEventData(QStringLiteral("device_states"), states);
        const QString frame = protocol.encryptString(&packet);
        benchmark::DoNotOptimize(frame.size());
    }
}

void BM_Baseline_JsonWrite_DeviceStates(benchmark::State &state)
{
    const QVariantList states = deviceStates();
    for (auto _ : state) {
        const QByteArray text = QJsonDocument(QJsonArray{QStringLiteral("device_states"), QJsonValue::fromVariant(states)})
                                    .toJson(QJsonDocument::Compact);
        benchmark::DoNotOptimize(text.size());
    }
}

void BM_Decode_Ping(benchmark::State &state)
{
    SocketIO::Protocol protocol;
    const QString frame = QStringLiteral("2");
    for (auto _ : state) {
        std::unique_ptr<SocketIO::Packet> packet(protocol.decrypt(frame));
        benchmark::DoNotOptimize(packet->frameType);
    }
}

void BM_Encode_Pong(benchmark::State &state)
{
    SocketIO::Protocol protocol;
    for (auto _ : state) {
        SocketIO::Packet packet(SocketIO::Pong);
        const QString frame = protocol.encryptString(&packet);
        benchmark::DoNotOptimize(frame.size());
    }
}

// Baseline for the ping: creating and destroying the packet object alone.
void BM_Baseline_PacketObject(benchmark::State &state)
{
    for (auto _ : state) {
        SocketIO::Packet packet(SocketIO::Pong);
        benchmark::DoNotOptimize(packet.frameType);
    }
}

// One session set up from scratch: handshake GET, "40" POST, WebSocket upgrade.
double connectOnceMs()
{
    SocketIO::Client client(4);
    QEventLoop loop;
    QObject::connect(&client, &SocketIO::Client::connected, &loop, &QEventLoop::quit);
    QTimer::singleShot(10000, &loop, &QEventLoop::quit);
    QElapsedTimer timer;
    timer.start();
    client.open(server->url());
    loop.exec();
    const double ms = timer.nsecsElapsed() / 1e6;
    const bool ok = client.getState() == QLatin1String("connected");
    client.close();
    QEventLoop settle; // let the server see the close before the next session
    QTimer::singleShot(20, &settle, &QEventLoop::quit);
    settle.exec();
    return ok ? ms : -1;
}

void BM_Connect_QtClient(benchmark::State &state)
{
    connectOnceMs(); // warm-up, not counted
    for (auto _ : state) {
        const double ms = connectOnceMs();
        if (ms < 0) {
            state.SkipWithError("the session did not connect");
            break;
        }
        state.SetIterationTime(ms / 1e3);
    }
}

void BM_Baseline_Connect_NodeClient(benchmark::State &state)
{
    QProcess node;
    node.start(QStandardPaths::findExecutable(QStringLiteral("node")),
               {QStringLiteral(KEST_BENCH_DIR "/node-connect.js"), QStringLiteral(KEST_PEERS_DIR),
                server->url().toString(), QString::number(state.max_iterations)});
    if (!node.waitForFinished(120000) || node.exitCode() != 0) {
        state.SkipWithError(("node-connect.js failed: " + node.readAllStandardError().toStdString()).c_str());
        return;
    }
    const QJsonObject result = QJsonDocument::fromJson(node.readAllStandardOutput()).object();
    const QJsonArray upgraded = result.value(QStringLiteral("upgraded_ms")).toArray();
    const QJsonArray connected = result.value(QStringLiteral("connect_ms")).toArray();
    std::vector<double> connectMs;
    for (const QJsonValue &v : connected)
        connectMs.push_back(v.toDouble());
    std::sort(connectMs.begin(), connectMs.end());
    int i = 0;
    for (auto _ : state)
        state.SetIterationTime(upgraded.at(i++).toDouble() / 1e3);
    if (!connectMs.empty())
        state.counters["connect_event_median_ms"] = connectMs[connectMs.size() / 2];
}

// Collects each benchmark's time per iteration for the comparison printed at the end.
class Reporter : public benchmark::ConsoleReporter
{
public:
    Reporter() : ConsoleReporter(isatty(fileno(stdout)) ? OO_Defaults : OO_Tabular) {}

    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs)
            if (!run.error_occurred)
                nsPerIteration[run.benchmark_name()] = run.GetAdjustedRealTime() * 1e9
                                                       / benchmark::GetTimeUnitMultiplier(run.time_unit);
        ConsoleReporter::ReportRuns(runs);
    }
    std::map<std::string, double> nsPerIteration;
};

void compare(const Reporter &reporter, const char *what, const std::string &ours, const std::string &baseline)
{
    const auto a = reporter.nsPerIteration.find(ours);
    const auto b = reporter.nsPerIteration.find(baseline);
    if (a == reporter.nsPerIteration.end() || b == reporter.nsPerIteration.end()) {
        std::printf("%-36s not measured\n", what);
        return;
    }
    std::printf("%-36s %12.3f us   baseline %12.3f us   ratio %.2f\n", what, a->second / 1e3, b->second / 1e3,
                a->second / b->second);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);

    benchmark::RegisterBenchmark("Decode/device_states_2KB", BM_Decode_DeviceStates);
    benchmark::RegisterBenchmark("Baseline/QJsonDocument::fromJson_2KB", BM_Baseline_JsonParse_DeviceStates);
    benchmark::RegisterBenchmark("Encode/device_states_2KB", BM_Encode_DeviceStates);
    benchmark::RegisterBenchmark("Baseline/QJsonDocument::toJson_2KB", BM_Baseline_JsonWrite_DeviceStates);
    benchmark::RegisterBenchmark("Decode/ping", BM_Decode_Ping);
    benchmark::RegisterBenchmark("Encode/pong", BM_Encode_Pong);
    benchmark::RegisterBenchmark("Baseline/Packet_object", BM_Baseline_PacketObject);

    SioServer sio;
    const QString why = sio.start({});
    if (why.isEmpty()) {
        server = &sio;
        benchmark::RegisterBenchmark("Connect/SocketIO::Client", BM_Connect_QtClient)
            ->UseManualTime()->Iterations(kConnects)->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark("Baseline/Connect/node_socket.io-client", BM_Baseline_Connect_NodeClient)
            ->UseManualTime()->Iterations(kConnects)->Unit(benchmark::kMillisecond);
    } else {
        std::printf("connect benchmark skipped: %s\n", qPrintable(why));
    }

    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::printf("\nper operation, next to its baseline from this run (ratio = ours / baseline):\n");
    compare(reporter, "decode device_states (2 KB)", "Decode/device_states_2KB", "Baseline/QJsonDocument::fromJson_2KB");
    compare(reporter, "encode device_states (2 KB)", "Encode/device_states_2KB", "Baseline/QJsonDocument::toJson_2KB");
    compare(reporter, "decode ping", "Decode/ping", "Baseline/Packet_object");
    compare(reporter, "encode pong", "Encode/pong", "Baseline/Packet_object");
    compare(reporter, "open() to connected()", "Connect/SocketIO::Client/iterations:30/manual_time",
            "Baseline/Connect/node_socket.io-client/iterations:30/manual_time");
    return 0;
}
