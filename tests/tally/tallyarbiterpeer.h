#pragma once

// The real Tally Arbiter server of tests/peers as a test fixture: started with its test
// configuration (devices dev1 "Camera 1" and dev2 "Camera 2", buses b_pvw green and b_pgm red,
// an Incoming Webhook source) through start-ta.sh, stopped through stop-ta.sh by its process
// id. Its ports are fixed (4455, 4456, 8099, 5958), so suites using it run one at a time, in a
// private network namespace.

#include "socketio/peerhttp.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

class TallyArbiterPeer
{
public:
    static constexpr quint16 kPort = 4455;
    static constexpr quint16 kWebhookPort = 4456;
    static constexpr int kNodeTooOld = 77; // start-ta.sh's exit code for "cannot run here"

    ~TallyArbiterPeer() { stop(); }

    enum Result { Started, Skip, Failed };

    // On Skip or Failed, `why` says what happened.
    Result start(QString *why)
    {
        if (QStandardPaths::findExecutable(QStringLiteral("node")).isEmpty()) {
            *why = QStringLiteral("node is not installed, so Tally Arbiter cannot run");
            return Skip;
        }
        QProcess script;
        script.setProcessChannelMode(QProcess::MergedChannels);
        script.start(QStringLiteral("bash"), {QStringLiteral(KEST_PEERS_DIR "/start-ta.sh"), runDir.path()});
        if (!script.waitForFinished(60000)) {
            *why = QStringLiteral("start-ta.sh did not finish");
            return Failed;
        }
        const QString output = QString::fromUtf8(script.readAll()).trimmed();
        if (script.exitStatus() == QProcess::NormalExit && script.exitCode() == 0) {
            running = true;
            return Started;
        }
        *why = output;
        return script.exitCode() == kNodeTooOld ? Skip : Failed;
    }

    void stop()
    {
        if (!running)
            return;
        QProcess::execute(QStringLiteral("bash"), {QStringLiteral(KEST_PEERS_DIR "/stop-ta.sh"), runDir.path()});
        running = false;
    }

    // The server's listener_clients list (no login needed).
    QJsonArray listeners() const { return admin({QStringLiteral("listeners")}).array(); }

    // The active listener registered with this listener type, or an empty object.
    QJsonObject listener(const QString &listenerType) const
    {
        for (const QJsonValue &value : listeners()) {
            const QJsonObject entry = value.toObject();
            if (entry.value(QStringLiteral("listenerType")).toString() == listenerType
                && !entry.value(QStringLiteral("inactive")).toBool())
                return entry;
        }
        return {};
    }

    // Runs ta-admin.js (flash, reassign, ...) and returns what it printed as JSON.
    QJsonDocument admin(const QStringList &arguments, int *exitCode = nullptr) const
    {
        QProcess process;
        process.start(QStandardPaths::findExecutable(QStringLiteral("node")),
                      QStringList{QStringLiteral(KEST_PEERS_DIR "/ta-admin.js")} + arguments);
        process.waitForFinished(15000);
        if (exitCode)
            *exitCode = process.exitCode();
        return QJsonDocument::fromJson(process.readAllStandardOutput());
    }

    // Sets the tally of the webhook source's addresses ("1" is dev1, "2" is dev2).
    bool tally(const QByteArray &json) const
    {
        const QUrl url(QStringLiteral("http://127.0.0.1:%1/tally").arg(kWebhookPort));
        return peerHttp("POST", url, json).status == 200;
    }

    QByteArray log() const
    {
        QFile file(runDir.filePath(QStringLiteral("ta.log")));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private:
    QTemporaryDir runDir;
    bool running = false;
};
