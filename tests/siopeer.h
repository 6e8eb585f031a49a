#pragma once

// The plain socket.io@4 server of tests/peers (sio-server.js) as a test fixture: started on free
// 127.0.0.1 ports, stopped (and killed if need be) by its process id. Also the blocking HTTP
// call that tests use to drive local peers through their control ports.

#include <QEventLoop>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStandardPaths>
#include <QUrl>

#include <csignal>

struct PeerReply
{
    int status = 0; // 0: no answer
    QByteArray body;
    QJsonDocument json() const { return QJsonDocument::fromJson(body); }
};

// The event loop keeps running while it waits, so the code under test goes on working.
inline PeerReply peerHttp(const QByteArray &method, const QUrl &url, const QByteArray &body = {})
{
    QNetworkAccessManager network;
    QNetworkRequest request(url);
    if (!body.isEmpty())
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setTransferTimeout(8000);
    QNetworkReply *reply = network.sendCustomRequest(request, method, body);
    QEventLoop loop;
    QObject::connect(reply, &QNetworkReply::finished, &loop, &QEventLoop::quit);
    loop.exec();
    PeerReply result{reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), reply->readAll()};
    delete reply;
    return result;
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
        if (!process.waitForStarted(5000))
            return QStringLiteral("cannot start node: ") + process.errorString();
        while (!process.canReadLine()) { // the first line names the ports
            if (!process.waitForReadyRead(10000))
                return QStringLiteral("sio-server.js did not start: ") + QString::fromUtf8(process.readAllStandardError());
        }
        const QJsonObject listening = QJsonDocument::fromJson(process.readLine()).object();
        port = quint16(listening.value(QStringLiteral("port")).toInt());
        controlPort = quint16(listening.value(QStringLiteral("control_port")).toInt());
        if (!port || !controlPort)
            return QStringLiteral("unexpected first line from sio-server.js");
        return {};
    }

    void stop()
    {
        if (process.state() == QProcess::NotRunning)
            return;
        resume();
        process.terminate();
        if (!process.waitForFinished(3000)) {
            process.kill();
            process.waitForFinished(3000);
        }
    }

    // Freezes the server (no pings, no answers) until resume().
    void pause() { ::kill(pid_t(process.processId()), SIGSTOP); }
    void resume() { ::kill(pid_t(process.processId()), SIGCONT); }

    QUrl url() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port)); }

    QJsonArray requests() const { return get("/requests"); }
    QJsonArray sockets() const { return get("/sockets"); }

    // Names of the events received so far, in order.
    QStringList eventNames() const
    {
        QStringList names;
        for (const QJsonValue &event : get("/events"))
            names << event[QStringLiteral("name")].toString();
        return names;
    }
    // The argument lists of the events of one name, in order.
    QJsonArray eventArgs(const QString &name) const
    {
        QJsonArray result;
        for (const QJsonValue &event : get("/events"))
            if (event[QStringLiteral("name")].toString() == name)
                result.append(event[QStringLiteral("args")]);
        return result;
    }

    // Engine packets logged for one Engine.IO session: "in:message:2[\"version\"]", "out:ping:".
    QStringList enginePackets(const QString &engineSid) const
    {
        QStringList packets;
        for (const QJsonValue &line : get("/log")) {
            const QString ev = line[QStringLiteral("ev")].toString();
            if (line[QStringLiteral("sid")].toString() == engineSid && ev.startsWith(QLatin1String("engine_packet_")))
                packets << ev.mid(14) + ':' + line[QStringLiteral("type")].toString() + ':' + line[QStringLiteral("data")].toString();
        }
        return packets;
    }
    // Logged lines of one kind ("engine_close", "engine_upgrade", ...) for one Engine.IO session.
    QJsonArray logLines(const QString &ev, const QString &engineSid) const
    {
        QJsonArray lines;
        for (const QJsonValue &line : get("/log"))
            if (line[QStringLiteral("ev")].toString() == ev && line[QStringLiteral("sid")].toString() == engineSid)
                lines.append(line);
        return lines;
    }

    bool emitEvent(const QString &event, const QJsonArray &args) const
    {
        return post("/emit", {{QStringLiteral("event"), event}, {QStringLiteral("args"), args}});
    }
    // {"text": ...}, {"text_hex": ...} (a text frame of exactly these bytes) or {"binary_hex": ...}.
    bool raw(const QJsonObject &frame) const { return post("/raw", frame); }
    bool disconnectAll() const { return post("/disconnect", {}); }
    bool overrideHandshake(int status, const QString &body) const
    {
        return post("/handshake", {{QStringLiteral("status"), status}, {QStringLiteral("body"), body}});
    }
    bool restoreHandshake() const { return post("/handshake", {}); }
    // "refuse": WebSocket upgrades are closed at once; "hang": never answered; "accept".
    bool setUpgrades(const QString &mode) const { return post("/upgrades", {{QStringLiteral("mode"), mode}}); }

    quint16 port = 0;
    quint16 controlPort = 0;

private:
    QUrl control(const char *path) const { return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(controlPort).arg(QLatin1String(path))); }
    QJsonArray get(const char *path) const { return peerHttp("GET", control(path)).json().array(); }
    bool post(const char *path, const QJsonObject &body) const
    {
        return peerHttp("POST", control(path), QJsonDocument(body).toJson(QJsonDocument::Compact)).status == 200;
    }

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
