#pragma once

// The Socket.IO peers of tests/peers as child processes on 127.0.0.1, stopped by their process
// id: the plain socket.io 4 server (sio-server.js: a free port, commands on its stdin as its
// header describes) or Tally Arbiter (start-ta.sh: fixed ports, so suites that start it take
// RESOURCE_LOCK tally-arbiter and run in a private network namespace).

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QUrl>

#include <algorithm>
#include <csignal>

class SioServer
{
public:
    ~SioServer() { stop(); }

    // Empty when running; otherwise why not, starting with "skip: " where Node is missing or too old.
    QString start(int pingIntervalMs = 25000, int pingTimeoutMs = 20000)
    {
        const QString why = launch(node(), {KEST_PEERS_DIR "/sio-server.js", "0", QString::number(pingIntervalMs), QString::number(pingTimeoutMs)}, {"{\"port\":"});
        port = quint16(QJsonDocument::fromJson(output).object().value(QStringLiteral("port")).toInt());
        return why;
    }
    QString startTallyArbiter()
    {
        process.setProcessChannelMode(QProcess::MergedChannels);
        const QString why = launch(QStringLiteral("bash"), {KEST_PEERS_DIR "/start-ta.sh", runDir.path()},
                                   {"Tally Arbiter running on port 4455", "listening on port 4456", "Listening for VMix Tally Connections"});
        port = why.isEmpty() ? 4455 : 0;
        return why;
    }

    void stop()
    {
        resume();
        process.terminate();
        if (process.state() != QProcess::NotRunning && !process.waitForFinished(5000))
            process.kill();
        process.waitForFinished(5000);
    }

    // Freezes the server (no pings, no answers) until resume().
    void pause() { signal(SIGSTOP); }
    void resume() { signal(SIGCONT); }

    QUrl url() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port)); }

    // sio-server.js: one command and its answer.
    QJsonValue command(const QJsonObject &command)
    {
        process.write(QJsonDocument(command).toJson(QJsonDocument::Compact) + '\n');
        while (!process.canReadLine() && process.waitForReadyRead(5000)) {
        }
        return QJsonDocument::fromJson('[' + process.readLine() + ']').array().at(0);
    }
    QJsonArray get(const char *what, const QString &key = {}, const QString &value = {}) { return command({{"get", what}, {key, value}}).toArray(); }
    QJsonArray events(const QString &name = {}) { return get("events", QStringLiteral("name"), name); } // with a name: the argument lists
    QStringList log(const QString &engineSid) { return QVariant(get("log", QStringLiteral("sid"), engineSid).toVariantList()).toStringList(); }

    // Tally Arbiter: one action of ta-admin.js (listeners, flash, reassign, tally); null when it failed.
    static QJsonValue admin(const QStringList &arguments)
    {
        QProcess process;
        process.start(node(), QStringList{KEST_PEERS_DIR "/ta-admin.js"} + arguments);
        process.waitForFinished(15000);
        const QJsonValue outcome = QJsonDocument::fromJson('[' + process.readAllStandardOutput() + ']').array().at(0);
        return process.exitCode() == 0 ? outcome : QJsonValue();
    }

    quint16 port = 0;

private:
    static QString node() { return QStandardPaths::findExecutable(QStringLiteral("node")); }
    void signal(int number)
    {
        if (process.processId() > 0)
            ::kill(pid_t(process.processId()), number);
    }

    // Starts the program and waits for every mark in its output; the event loop runs meanwhile,
    // so the code under test carries on.
    QString launch(const QString &program, const QStringList &arguments, const QList<QByteArray> &marks)
    {
        if (node().isEmpty())
            return QStringLiteral("skip: node is not installed, so the peer cannot run");
        output.clear();
        process.start(program, arguments);
        const auto ready = [&] { return std::all_of(marks.begin(), marks.end(), [&](const QByteArray &m) { return output.contains(m); }); };
        QElapsedTimer clock;
        for (clock.start(); !ready() && process.state() != QProcess::NotRunning && clock.elapsed() < 60000; output += process.readAll()) {
            process.waitForReadyRead(20);
            QCoreApplication::processEvents();
        }
        if (ready())
            return {};
        process.waitForFinished(1000);
        const QString why = QString::fromUtf8(output + process.readAll() + process.readAllStandardError()).trimmed();
        return (process.exitCode() == 77 ? QStringLiteral("skip: ") : QString()) + why;
    }

    QProcess process;
    QTemporaryDir runDir;
    QByteArray output;
};

// Starts a peer, or skips the test where it cannot run here.
#define START_PEER(start)                                                                          \
    do {                                                                                           \
        const QString why = (start);                                                               \
        if (why.startsWith(QLatin1String("skip: ")))                                               \
            QSKIP(qPrintable(why));                                                                \
        QVERIFY2(why.isEmpty(), qPrintable(why));                                                  \
    } while (false)
