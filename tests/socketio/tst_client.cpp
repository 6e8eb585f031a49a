// The Socket.IO session against the real socket.io server of tests/peers.

#include "logcapture.h"
#include "siopeer.h"

#include "socketio/client.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

using SocketIO::Client;

namespace {

constexpr int kConnectWaitMs = 10000;

// A client with a spy on each of its signals.
struct Session
{
    Client client{4};
    QSignalSpy states{&client, &Client::stateChanged};
    QSignalSpy connected{&client, &Client::connected};
    QSignalSpy disconnected{&client, &Client::disconnected};
    QSignalSpy messages{&client, &Client::newMessage};

    // Opens and waits for the `count`th connection.
    bool open(const SioServer &server, int count = 1)
    {
        client.open(server.url());
        return QTest::qWaitFor([&] { return connected.count() >= count; }, kConnectWaitMs);
    }
    QList<Client::State> stateList() const
    {
        QList<Client::State> list;
        for (const QList<QVariant> &arguments : states)
            list << arguments.first().value<Client::State>();
        return list;
    }
    QStringList texts() const
    {
        QStringList list;
        for (const QList<QVariant> &arguments : messages)
            list << arguments.first().toString();
        return list;
    }
};

QString header(const QJsonValue &request, const char *name)
{
    return request[QStringLiteral("headers")][QLatin1String(name)].toString();
}

} // namespace

class TestClient : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { qRegisterMetaType<Client::State>(); }
    void urls_data();
    void urls();
    void handshakeRequestsAndStates();
    void eventsNamespacesAndServerDisconnect();
    void pingsAnsweredAndSilenceRestarts();
    void eemitBeforeConnectionIsDropped();
    void closeEndsTheSession_data();
    void closeEndsTheSession();
    void badHandshakeLeavesTheSessionOpening_data();
    void badHandshakeLeavesTheSessionOpening();
    void badFrames();
};

void TestClient::urls_data()
{
    QTest::addColumn<int>("eio");
    QTest::addColumn<QString>("server");
    QTest::addColumn<QString>("handshake");
    QTest::addColumn<QString>("webSocket");
    QTest::newRow("http with port") << 4 << "http://127.0.0.1:4455" << "http://127.0.0.1:4455/socket.io/?EIO=4&transport=polling&t="
                                    << "ws://127.0.0.1:4455/socket.io/?EIO=4&transport=websocket&sid=";
    QTest::newRow("https without port: wss, still 80")
        << 4 << "https://localhost" << "https://localhost:80/socket.io/?EIO=4&transport=polling&t="
        << "wss://localhost:80/socket.io/?EIO=4&transport=websocket&sid=";
    QTest::newRow("other scheme: http") << 3 << "ftp://127.0.0.1:7" << "http://127.0.0.1:7/socket.io/?EIO=3&transport=polling&t="
                                        << "ws://127.0.0.1:7/socket.io/?EIO=3&transport=websocket&sid=";
}

void TestClient::urls()
{
    QFETCH(int, eio);
    QFETCH(QString, server);
    QFETCH(QString, handshake);
    Client client(eio);
    client.open(QUrl(server)); // nothing listens there: the request fails on loopback
    QCOMPARE(client.url(), QUrl(server));
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    const QString url = client.handshakeUrl();
    QVERIFY2(url.startsWith(handshake), qPrintable(url));
    QVERIFY(url.mid(handshake.size()).toLongLong() >= before);
    QTEST(client.wsUrl(), "webSocket");
    client.close();
}

void TestClient::handshakeRequestsAndStates()
{
    SioServer server;
    START_SIO_SERVER(server, {});
    Session s;
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    s.client.open(server.url());
    QCOMPARE(s.client.getState(), QStringLiteral("opening"));
    QTRY_COMPARE_WITH_TIMEOUT(s.connected.count(), 1, kConnectWaitMs);
    QCOMPARE(s.client.getState(), QStringLiteral("connected"));
    QCOMPARE(s.stateList(), (QList<Client::State>{Client::Opening, Client::Opened, Client::Connected}));

    // Exactly three requests: handshake GET, "40" POST, WebSocket upgrade; no polling GET.
    const QJsonArray requests = server.requests();
    QCOMPARE(requests.size(), 3);
    const QString sid = s.client.sessionID();
    const QString getUrl = requests[0][QStringLiteral("url")].toString();
    const QRegularExpressionMatch t = QRegularExpression(QStringLiteral("^/socket\\.io/\\?EIO=4&transport=polling&t=(\\d+)$")).match(getUrl);
    QVERIFY2(t.hasMatch() && t.captured(1).toLongLong() >= before, qPrintable(getUrl));
    QCOMPARE(requests[0][QStringLiteral("method")].toString(), QStringLiteral("GET"));
    QCOMPARE(requests[1][QStringLiteral("method")].toString(), QStringLiteral("POST"));
    QCOMPARE(requests[1][QStringLiteral("url")].toString(), QStringLiteral("/socket.io/?EIO=4&transport=polling&t=%1&sid=%2").arg(t.captured(1), sid));
    for (int i : {0, 1}) {
        QCOMPARE(header(requests[i], "content-type"), QStringLiteral("text/plain"));
        QCOMPARE(header(requests[i], "accept"), QStringLiteral("*/*"));
        QCOMPARE(header(requests[i], "connection"), QStringLiteral("close"));
    }
    QCOMPARE(header(requests[1], "content-length"), QStringLiteral("2"));
    QVERIFY(requests[2][QStringLiteral("upgrade")].toBool());
    QCOMPARE(requests[2][QStringLiteral("url")].toString(), QStringLiteral("/socket.io/?EIO=4&transport=websocket&sid=%1").arg(sid));
    QCOMPARE(header(requests[2], "sec-websocket-version"), QStringLiteral("13"));
    QVERIFY(!requests[2][QStringLiteral("headers")].toObject().contains(QStringLiteral("origin")));

    // The server saw "40" posted (engine message "0"), then the upgrade.
    QCOMPARE(server.enginePackets(sid).value(0), QStringLiteral("in:message:0"));
    QTRY_COMPARE(server.logLines(QStringLiteral("engine_upgrade"), sid).size(), 1);

    // The connect acknowledgement carries the Socket.IO sid, which is not the Engine.IO one.
    QTRY_COMPARE(s.messages.count(), 1);
    const QString socketSid = QJsonDocument::fromJson(s.texts().first().toUtf8())[QStringLiteral("sid")].toString();
    QCOMPARE(server.sockets(), QJsonArray{socketSid});
    QVERIFY(socketSid != sid);
    QCOMPARE(s.client.sessionID(), sid);
}

void TestClient::eventsNamespacesAndServerDisconnect()
{
    SioServer server;
    START_SIO_SERVER(server, {});
    Session s;
    QVERIFY(s.open(server));
    QTRY_COMPARE(s.messages.count(), 1); // the connect acknowledgement

    // The server echoes every event as "echo" with the same arguments.
    const QVariantMap map{{"deviceId", "dev1"}, {"canBeFlashed", true}};
    const std::pair<QVariant, QString> events[] = {
        {QVariant(), R"(["x"])"},
        {QStringLiteral("Kamera \u00e9\u4e2d"), QStringLiteral("[\"x\",\"Kamera \u00e9\u4e2d\"]")},
        {map, R"(["x",{"canBeFlashed":true,"deviceId":"dev1"}])"},
    };
    for (const auto &[data, frame] : events) {
        s.client.eemit(QStringLiteral("x"), data);
        QTRY_VERIFY2(s.texts().contains(QStringLiteral("[\"echo\",") + frame.mid(1)), qPrintable(s.texts().join('\n')));
        QVERIFY(server.enginePackets(s.client.sessionID()).contains(QStringLiteral("in:message:2") + frame));
    }

    // A connect packet goes out only for a namespace other than the default one; the server
    // has no such namespace and answers with an error on it.
    s.client.sendConnect();
    s.client.sendConnect(QStringLiteral("/"));
    s.client.sendConnect(QStringLiteral("/admin"));
    QTRY_COMPARE(s.texts().filter(QStringLiteral("Invalid namespace")).size(), 1);
    QCOMPARE(server.enginePackets(s.client.sessionID()).filter(QRegularExpression(QStringLiteral("^in:message:0"))),
             (QStringList{"in:message:0", "in:message:0/admin,"}));

    QVERIFY(server.disconnectAll());
    QTRY_COMPARE_WITH_TIMEOUT(s.disconnected.count(), 1, 5000);
    QCOMPARE(s.client.getState(), QStringLiteral("disconnected"));
    QCOMPARE(s.stateList().last(), Client::Disconnected);
    QCOMPARE(s.texts().last(), QString()); // "41" reaches the owner as an empty message
}

void TestClient::pingsAnsweredAndSilenceRestarts()
{
    SioServer server;
    START_SIO_SERVER(server, (SioServer::Options{200, 1000, 0}));
    Session s;
    QVERIFY(s.open(server));
    const QString firstSid = s.client.sessionID();
    // The server drops a client whose pong is 1 s late.
    QTRY_VERIFY_WITH_TIMEOUT(server.enginePackets(firstSid).count(QStringLiteral("in:pong:")) >= 5, 10000);
    QCOMPARE(s.disconnected.count(), 0);

    // Silence: no frame for the ping interval plus 5 s restarts the session.
    LogCapture log;
    QElapsedTimer silence;
    silence.start();
    s.states.clear();
    server.pause();
    QTRY_VERIFY_WITH_TIMEOUT(log.contains(QStringLiteral("connection timed out")), 15000);
    // Timed from the last frame, which came at most one ping interval before the pause.
    QVERIFY2(silence.elapsed() >= 5200 - 200 - 300, qPrintable(QString::number(silence.elapsed())));
    QVERIFY(s.stateList().contains(Client::Opening));
    server.resume();
    QTRY_COMPARE_WITH_TIMEOUT(s.connected.count(), 2, 15000);
    QVERIFY(s.client.sessionID() != firstSid);
}

void TestClient::eemitBeforeConnectionIsDropped()
{
    SioServer server;
    START_SIO_SERVER(server, {});
    Session s;
    connect(&s.client, &Client::stateChanged, &s.client, [&s](Client::State state) {
        if (state == Client::Opened)
            s.client.eemit(QStringLiteral("while-opened"));
    });
    s.client.eemit(QStringLiteral("before-open"));
    s.client.open(server.url());
    s.client.eemit(QStringLiteral("while-opening"));
    QTRY_COMPARE_WITH_TIMEOUT(s.connected.count(), 1, kConnectWaitMs);
    s.client.eemit(QStringLiteral("connected"));
    QTRY_COMPARE(server.eventNames(), QStringList{QStringLiteral("connected")});
}

void TestClient::closeEndsTheSession_data()
{
    QTest::addColumn<bool>("connected");
    QTest::newRow("connected") << true;
    QTest::newRow("handshake under way") << false;
}

void TestClient::closeEndsTheSession()
{
    QFETCH(bool, connected);
    SioServer server;
    START_SIO_SERVER(server, {});
    Session s;
    if (connected) {
        QVERIFY(s.open(server));
    } else {
        server.pause(); // the handshake answer comes only after the close
        s.client.open(server.url());
        QTest::qWait(300); // the GET leaves
    }
    const QString sid = s.client.sessionID();
    s.client.close();
    // A WebSocket that was up reports its own disconnect as well.
    QCOMPARE(s.disconnected.count(), connected ? 2 : 1);
    QCOMPARE(s.client.getState(), QStringLiteral("disconnected"));
    if (connected) {
        QTRY_COMPARE(server.logLines(QStringLiteral("engine_close"), sid).size(), 1);
    } else {
        server.resume();
        QTRY_COMPARE(server.requests().size(), 1);
        QTest::qWait(500); // a POST, had the late answer been taken, would have arrived by now
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(s.client.getState(), QStringLiteral("disconnected"));
    }
    QVERIFY(s.open(server, connected ? 2 : 1)); // it opens again after a close
}

void TestClient::badHandshakeLeavesTheSessionOpening_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("body");
    QTest::newRow("truncated") << 200 << R"(0{"sid":"abc","pingInterval":25)";
    QTest::newRow("not JSON") << 200 << "<html>hello</html>";
    QTest::newRow("keys missing") << 200 << R"(0{"sid":"abc","pingInterval":25000})";
    QTest::newRow("server error") << 500 << R"(0{"sid":"abc","pingInterval":1,"pingTimeout":1})";
}

void TestClient::badHandshakeLeavesTheSessionOpening()
{
    QFETCH(int, status);
    QFETCH(QString, body);
    SioServer server;
    START_SIO_SERVER(server, {});
    QVERIFY(server.overrideHandshake(status, body));
    Session s;
    QSignalSpy failed(&s.client, &Client::handshakeFailed);
    s.client.open(server.url());
    QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, 5000);
    QCOMPARE(s.client.getState(), QStringLiteral("opening"));
    QVERIFY(s.client.sessionID().isEmpty());
    QTest::qWait(300); // a POST, had one been sent, would have arrived by now
    QCOMPARE(server.requests().size(), 1);
    // Nothing is stuck: the next open with a working server connects.
    QVERIFY(server.restoreHandshake());
    QVERIFY(s.open(server));
}

// Each frame is ignored, or handed on as it is, and the session carries on; a text frame that
// is not UTF-8 must fail the WebSocket, which the session reports like any other disconnect.
void TestClient::badFrames()
{
    SioServer server;
    START_SIO_SERVER(server, {});
    LogCapture log;
    Session s;
    QVERIFY(s.open(server));
    QTRY_COMPARE(s.messages.count(), 1);
    s.messages.clear();

    const QString huge = QStringLiteral("[\"big\",\"") + QString(1024 * 1024, 'x') + QStringLiteral("\"]");
    for (const QJsonObject &frame : {QJsonObject{{"text", ""}}, QJsonObject{{"text", "9zz"}}, QJsonObject{{"text", "1"}},
                                     QJsonObject{{"text", "42not json"}}, QJsonObject{{"text", "42" + huge}},
                                     QJsonObject{{"binary_hex", "0102ff"}}})
        QVERIFY(server.raw(frame));
    // The reply to "version" comes after the frames: when it is here, they were all handled.
    s.client.eemit(QStringLiteral("version"));
    const QString reply = QStringLiteral(R"(["version","sio-test"])");
    QTRY_VERIFY_WITH_TIMEOUT(s.texts().contains(reply), 10000);
    QCOMPARE(s.texts(), (QStringList{"not json", huge, reply}));
    QVERIFY(log.contains(QStringLiteral("Websocket binary message!!!")));
    QCOMPARE(s.client.getState(), QStringLiteral("connected"));

    QVERIFY(server.raw({{"text_hex", "34325b22ff225d"}})); // 42["\xff"]
    QTRY_COMPARE_WITH_TIMEOUT(s.disconnected.count(), 1, 5000);
    QCOMPARE(s.messages.count(), 3);
    QCOMPARE(s.client.getState(), QStringLiteral("disconnected"));
    QVERIFY(s.open(server, 2));
}

QTEST_GUILESS_MAIN(TestClient)
#include "tst_client.moc"
