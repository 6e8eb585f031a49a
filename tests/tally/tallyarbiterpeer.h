#pragma once

// The real Tally Arbiter server of tests/peers, started with its test configuration (devices
// dev1 "Camera 1" and dev2 "Camera 2", buses b_pvw green and b_pgm red, an Incoming Webhook
// source, the vMix emulator on 8099) by start-ta.sh and stopped by stop-ta.sh by its process
// id. Its ports are fixed, so suites using it run one at a time, in a private network namespace.

#include "siopeer.h"

#include <QTemporaryDir>

#include <utility>

class TallyArbiterPeer
{
public:
    ~TallyArbiterPeer() { stop(); }

    // Empty when started; "skip: ..." where Node is missing or too old (exit code 77).
    QString start()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("node")).isEmpty())
            return QStringLiteral("skip: node is not installed, so Tally Arbiter cannot run");
        QProcess script;
        script.setProcessChannelMode(QProcess::MergedChannels);
        script.start(QStringLiteral("bash"), {QStringLiteral(KEST_PEERS_DIR "/start-ta.sh"), runDir.path()});
        if (!script.waitForFinished(60000))
            return QStringLiteral("start-ta.sh did not finish");
        running = script.exitStatus() == QProcess::NormalExit && script.exitCode() == 0;
        const QString output = QString::fromUtf8(script.readAll()).trimmed();
        return running ? QString() : (script.exitCode() == 77 ? QStringLiteral("skip: ") : QString()) + output;
    }

    void stop()
    {
        if (std::exchange(running, false))
            QProcess::execute(QStringLiteral("bash"), {QStringLiteral(KEST_PEERS_DIR "/stop-ta.sh"), runDir.path()});
    }

    // The active listener registered with this listener type, or an empty object.
    QJsonObject listener(const QString &listenerType) const
    {
        for (const QJsonValue &value : admin({QStringLiteral("listeners")}).array())
            if (value[QStringLiteral("listenerType")].toString() == listenerType && !value[QStringLiteral("inactive")].toBool())
                return value.toObject();
        return {};
    }

    // Runs ta-admin.js (listeners, flash, reassign, ...) and returns what it printed as JSON.
    QJsonDocument admin(const QStringList &arguments, int *exitCode = nullptr) const
    {
        QProcess process;
        process.start(QStandardPaths::findExecutable(QStringLiteral("node")), QStringList{QStringLiteral(KEST_PEERS_DIR "/ta-admin.js")} + arguments);
        process.waitForFinished(15000);
        if (exitCode)
            *exitCode = process.exitCode();
        return QJsonDocument::fromJson(process.readAllStandardOutput());
    }

    // Sets the buses of the webhook source's addresses ("1" is dev1, "2" is dev2), e.g.
    // {"1":["program"],"2":["preview"]}.
    bool tally(const QByteArray &json) const
    {
        int status = 0;
        peerHttp("POST", QUrl(QStringLiteral("http://127.0.0.1:4456/tally")), json, &status);
        return status == 200;
    }

private:
    QTemporaryDir runDir;
    bool running = false;
};
