#pragma once

// The plain socket.io@4 server of tests/peers (sio-server.js) on free 127.0.0.1 ports, stopped
// by its process id, and the blocking HTTP call that drives local peers through their control
// ports. The control API is described at the top of sio-server.js.

#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QStandardPaths>
#include <QUrl>

#include <csignal>

// Keeps the event loop running while it waits, so the code under test goes on working.
inline QJsonDocument peerHttp(const QByteArray &method, const QUrl &url, const QByteArray &body = {}, int *status = nullptr)
{
    QNetworkAccessManager network;
    QNetworkRequest request(url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setTransferTimeout(8000);
    QNetworkReply *reply = network.sendCustomRequest(request, method, body);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    if (status)
        *status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    reply->deleteLater();
    return QJsonDocument::fromJson(reply->readAll());
}

class SioServer
{
public:
    struct Options
    {
        int pingIntervalMs = 25000;
        int pingTimeoutMs = 20000;
        quint16 port = 0; // 0: any free port
    };

    ~SioServer() { stop(); }

    // Empty on success, otherwise why the server is not running.
    QString start(const Options &options)
    {
        const QString node = QStandardPaths::findExecutable(QStringLiteral("node"));
        if (node.isEmpty())
            return QStringLiteral("node is not installed");
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("SIO_PING_INTERVAL"), QString::number(options.pingIntervalMs));
        env.insert(QStringLiteral("SIO_PING_TIMEOUT"), QString::number(options.pingTimeoutMs));
        env.insert(QStringLiteral("SIO_LIFETIME_S"), QStringLiteral("600"));
        env.remove(QStringLiteral("SIO_CONTROL_PORT"));
        process.setProcessEnvironment(env);
        process.start(node, {QStringLiteral(KEST_PEERS_DIR "/sio-server.js"), QString::number(options.port)});
        while (!process.canReadLine()) // the first line names the ports
            if (!process.waitForReadyRead(10000))
                return QStringLiteral("sio-server.js did not start: ") + QString::fromUtf8(process.readAllStandardError());
        const QJsonObject listening = QJsonDocument::fromJson(process.readLine()).object();
        port = quint16(listening.value(QStringLiteral("port")).toInt());
        controlPort = quint16(listening.value(QStringLiteral("control_port")).toInt());
        return port && controlPort ? QString() : QStringLiteral("unexpected first line from sio-server.js");
    }

    void stop()
    {
        if (process.state() == QProcess::NotRunning)
            return;
        resume();
        process.terminate();
        if (!process.waitForFinished(3000))
            process.kill();
        process.waitForFinished(3000);
    }

    // Freezes the server (no pings, no answers) until resume().
    void pause() { ::kill(pid_t(process.processId()), SIGSTOP); }
    void resume() { ::kill(pid_t(process.processId()), SIGCONT); }

    QUrl url() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port)); }

    QJsonArray get(const QString &path) const { return peerHttp("GET", control(path)).array(); }
    bool post(const QString &path, const QJsonObject &body = {}) const
    {
        int status = 0;
        peerHttp("POST", control(path), QJsonDocument(body).toJson(QJsonDocument::Compact), &status);
        return status == 200;
    }
    bool emitEvent(const QString &event, const QJsonArray &args) const { return post("/emit", {{"event", event}, {"args", args}}); }

    // The argument lists of the events of one name, in order; all names with an empty `name`.
    QJsonArray events(const QString &name = {}) const
    {
        QJsonArray result;
        for (const QJsonValue &event : get("/events"))
            if (name.isEmpty() || event[QStringLiteral("name")].toString() == name)
                result.append(name.isEmpty() ? event[QStringLiteral("name")] : event[QStringLiteral("args")]);
        return result;
    }

    // Logged lines of one Engine.IO session, as "ev:type:data", e.g. "engine_packet_in:message:0".
    QStringList log(const QString &engineSid) const
    {
        QStringList lines;
        for (const QJsonValue &line : get("/log"))
            if (line[QStringLiteral("sid")].toString() == engineSid)
                lines << line[QStringLiteral("ev")].toString() + ':' + line[QStringLiteral("type")].toString() + ':'
                             + line[QStringLiteral("data")].toString();
        return lines;
    }

    quint16 port = 0;
    quint16 controlPort = 0;

private:
    QUrl control(const QString &path) const { return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(controlPort).arg(path)); }

    mutable QProcess process;
};

// Starts the server, or skips the test where Node is missing.
#define START_SIO_SERVER(server, options)                                                          \
    do {                                                                                           \
        const QString why = (server).start(options);                                               \
        if (why == QLatin1String("node is not installed"))                                         \
            QSKIP("node is not installed, so the socket.io peer cannot run");                      \
        QVERIFY2(why.isEmpty(), qPrintable(why));                                                  \
    } while (false)
