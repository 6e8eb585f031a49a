#include "socketio/client.h"
#include "socketio/logcapture.h"
#include "socketio/sioserver.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

using SocketIO::Client;

namespace {

constexpr int kEio = 4;
constexpr int kConnectWaitMs = 10000;

QList<Client::State> statesOf(const QSignalSpy &spy)
{
    QList<Client::State> states;
    for (const QList<QVariant> &arguments : spy)
        states << arguments.first().value<Client::State>();
    return states;
}

QStringList textsOf(const QSignalSpy &spy)
{
    QStringList texts;
    for (const QList<QVariant> &arguments : spy)
        texts << arguments.first().toString();
    return texts;
}

QString header(const QJsonObject &request, const char *name)
{
    return request.value(QStringLiteral("headers")).toObject().value(QLatin1String(name)).toString();
}

} // namespace

// Starts the socket.io peer or skips the test when Node is missing.
#define START_SERVER(server, options)                                                              \
    do {                                                                                           \
        const QString why = (server).start(options);                                               \
        if (why == QLatin1String("node is not installed"))                                         \
            QSKIP("node is not installed, so the socket.io peer cannot run");                      \
        QVERIFY2(why.isEmpty(), qPrintable(why));                                                  \
    } while (false)

class TestClient : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void urlsFollowTheServerAddress_data();
    void urlsFollowTheServerAddress();
    void handshakeRequestsAndStates();
    void eventsTravelBothWays_data();
    void eventsTravelBothWays();
    void namespaceConnectOnlyForOtherNamespaces();
    void pingsAreAnswered();
    void silenceRestartsTheSession();
    void serverDisconnectIsReported();
    void eemitBeforeConnectionIsDropped();
    void closeEndsTheSession_data();
    void closeEndsTheSession();
    void badHandshakeLeavesTheSessionOpening_data();
    void badHandshakeLeavesTheSessionOpening();
    void badFramesAreIgnored_data();
    void badFramesAreIgnored();
    void textThatIsNotUtf8EndsTheSessionCleanly();
};

void TestClient::initTestCase()
{
    qRegisterMetaType<Client::State>();
}

void TestClient::urlsFollowTheServerAddress_data()
{
    QTest::addColumn<int>("eio");
    QTest::addColumn<QString>("server");
    QTest::addColumn<QString>("handshake");
    QTest::addColumn<QString>("webSocket");
    QTest::newRow("http with port") << 4 << "http://127.0.0.1:4455" << "http://127.0.0.1:4455/socket.io/?EIO=4&transport=polling&t="
                                    << "ws://127.0.0.1:4455/socket.io/?EIO=4&transport=websocket&sid=";
    QTest::newRow("no port: 80") << 4 << "http://127.0.0.1" << "http://127.0.0.1:80/socket.io/?EIO=4&transport=polling&t="
                                 << "ws://127.0.0.1:80/socket.io/?EIO=4&transport=websocket&sid=";
    QTest::newRow("https: wss") << 4 << "https://127.0.0.1:9" << "https://127.0.0.1:9/socket.io/?EIO=4&transport=polling&t="
                                << "wss://127.0.0.1:9/socket.io/?EIO=4&transport=websocket&sid=";
    QTest::newRow("https without port: still 80") << 4 << "https://localhost" << "https://localhost:80/socket.io/?EIO=4&transport=polling&t="
                                                  << "wss://localhost:80/socket.io/?EIO=4&transport=websocket&sid=";
    QTest::newRow("other scheme: http") << 3 << "ftp://127.0.0.1:7" << "http://127.0.0.1:7/socket.io/?EIO=3&transport=polling&t="
                                        << "ws://127.0.0.1:7/socket.io/?EIO=3&transport=websocket&sid=";
}

void TestClient::urlsFollowTheServerAddress()
{
    QFETCH(int, eio);
    QFETCH(QString, server);
    QFETCH(QString, handshake);
    QFETCH(QString, webSocket);
    Client client(eio);
    client.open(QUrl(server)); // nothing listens there: the request fails on loopback
    QCOMPARE(client.url(), QUrl(server));
    QCOMPARE(client.property("url").toUrl(), QUrl(server));
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    const QString url = client.handshakeUrl();
    QVERIFY2(url.startsWith(handshake), qPrintable(url));
    QVERIFY(url.mid(handshake.size()).toLongLong() >= before);
    QCOMPARE(client.wsUrl(), webSocket);
    client.close();
}

void TestClient::handshakeRequestsAndStates()
{
    SioServer server;
    START_SERVER(server, {});
    Client client(kEio);
    QSignalSpy states(&client, &Client::stateChanged);
    QSignalSpy connected(&client, &Client::connected);
    QSignalSpy messages(&client, &Client::newMessage);

    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    client.open(server.url());
    QCOMPARE(client.getState(), QStringLiteral("opening"));
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 1, kConnectWaitMs);
    const qint64 after = QDateTime::currentMSecsSinceEpoch();
    QCOMPARE(client.getState(), QStringLiteral("connected"));
    QCOMPARE(statesOf(states), (QList<Client::State>{Client::Opening, Client::Opened, Client::Connected}));
    QCOMPARE(client.timeoutIntervalMs(), 25000 + 5000);

    // Exactly three requests: handshake GET, "40" POST, WebSocket upgrade; no polling GET.
    const QJsonArray requests = server.requests();
    QCOMPARE(requests.size(), 3);
    const QJsonObject get = requests.at(0).toObject();
    const QJsonObject post = requests.at(1).toObject();
    const QJsonObject upgrade = requests.at(2).toObject();

    QCOMPARE(get.value(QStringLiteral("method")).toString(), QStringLiteral("GET"));
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("^/socket\\.io/\\?EIO=4&transport=polling&t=(\\d+)$")).match(get.value(QStringLiteral("url")).toString());
    QVERIFY2(match.hasMatch(), qPrintable(get.value(QStringLiteral("url")).toString()));
    const QString t = match.captured(1);
    QVERIFY(t.toLongLong() >= before && t.toLongLong() <= after);

    const QString sid = client.sessionID();
    QVERIFY(!sid.isEmpty());
    QCOMPARE(post.value(QStringLiteral("method")).toString(), QStringLiteral("POST"));
    QCOMPARE(post.value(QStringLiteral("url")).toString(),
             QStringLiteral("/socket.io/?EIO=4&transport=polling&t=%1&sid=%2").arg(t, sid));
    for (const QJsonObject &request : {get, post}) {
        QCOMPARE(header(request, "content-type"), QStringLiteral("text/plain"));
        QCOMPARE(header(request, "accept"), QStringLiteral("*/*"));
        QCOMPARE(header(request, "connection"), QStringLiteral("close"));
    }
    QCOMPARE(header(post, "content-length"), QStringLiteral("2"));

    QVERIFY(upgrade.value(QStringLiteral("upgrade")).toBool());
    QCOMPARE(upgrade.value(QStringLiteral("url")).toString(), QStringLiteral("/socket.io/?EIO=4&transport=websocket&sid=%1").arg(sid));
    QCOMPARE(header(upgrade, "sec-websocket-version"), QStringLiteral("13"));
    QVERIFY(!upgrade.value(QStringLiteral("headers")).toObject().contains(QStringLiteral("origin")));

    // What the server saw of the session: "40" posted (engine message "0"), then the upgrade.
    const QStringList packets = server.enginePackets(sid);
    QVERIFY2(packets.size() >= 2, qPrintable(packets.join(QLatin1Char(' '))));
    QCOMPARE(packets.first(), QStringLiteral("in:message:0"));
    QTRY_VERIFY(!server.logLines(QStringLiteral("engine_upgrade"), sid).isEmpty());
    QCOMPARE(server.logLines(QStringLiteral("engine_upgrade"), sid).first().toObject().value(QStringLiteral("transport")).toString(),
             QStringLiteral("websocket"));

    // The connect acknowledgement carries the Socket.IO sid, which is not the Engine.IO one.
    QTRY_VERIFY(!messages.isEmpty());
    const QJsonObject ack = QJsonDocument::fromJson(messages.first().first().toString().toUtf8()).object();
    const QJsonArray sockets = server.sockets();
    QCOMPARE(sockets.size(), 1);
    QCOMPARE(ack.value(QStringLiteral("sid")).toString(), sockets.first().toString());
    QVERIFY(ack.value(QStringLiteral("sid")).toString() != sid);
    QCOMPARE(client.sessionID(), sid);
}

void TestClient::eventsTravelBothWays_data()
{
    QTest::addColumn<QVariant>("data");
    QTest::addColumn<QString>("frame");
    QTest::newRow("no data") << QVariant() << R"(42["x"])";
    QTest::newRow("string") << QVariant(QStringLiteral("dev2")) << R"(42["x","dev2"])";
    QTest::newRow("map") << QVariant(QVariantMap{{"deviceId", "dev1"}, {"canBeFlashed", true}})
                         << R"(42["x",{"canBeFlashed":true,"deviceId":"dev1"}])";
    QTest::newRow("list") << QVariant(QVariantList{1, "a"}) << R"(42["x",[1,"a"]])";
    QTest::newRow("non-ASCII") << QVariant(QStringLiteral("Kamera \u00e9\u4e2d")) << QStringLiteral("42[\"x\",\"Kamera \u00e9\u4e2d\"]");
}

void TestClient::eventsTravelBothWays()
{
    QFETCH(QVariant, data);
    QFETCH(QString, frame);
    SioServer server;
    START_SERVER(server, {});
    Client client(kEio);
    QSignalSpy connected(&client, &Client::connected);
    QSignalSpy messages(&client, &Client::newMessage);
    client.open(server.url());
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 1, kConnectWaitMs);

    client.eemit(QStringLiteral("x"), data);
    // The server echoes every event as "echo" with the same arguments.
    const QString echo = QStringLiteral("[\"echo\",") + frame.mid(3);
    QTRY_VERIFY2(textsOf(messages).contains(echo), qPrintable(textsOf(messages).join(QLatin1Char('\n'))));
    QVERIFY(server.enginePackets(client.sessionID()).contains(QStringLiteral("in:message:") + frame.mid(1)));
    QCOMPARE(server.eventNames(), QStringList{QStringLiteral("x")});
}

void TestClient::namespaceConnectOnlyForOtherNamespaces()
{
    SioServer server;
    START_SERVER(server, {});
    Client client(kEio);
    QSignalSpy connected(&client, &Client::connected);
    QSignalSpy messages(&client, &Client::newMessage);
    client.open(server.url());
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 1, kConnectWaitMs);

    client.sendConnect();
    client.sendConnect(QStringLiteral("/"));
    client.sendConnect(QStringLiteral("/admin"));
    // The server has no such namespace and answers with an error packet on it.
    QTRY_VERIFY2(textsOf(messages).filter(QStringLiteral("Invalid namespace")).size() == 1,
                 qPrintable(textsOf(messages).join(QLatin1Char('\n'))));
    const QStringList in = server.enginePackets(client.sessionID()).filter(QRegularExpression(QStringLiteral("^in:message:0")));
    QCOMPARE(in, (QStringList{QStringLiteral("in:message:0"), QStringLiteral("in:message:0/admin,")}));
}

void TestClient::pingsAreAnswered()
{
    SioServer server;
    START_SERVER(server, (SioServer::Options{200, 1000, 0}));
    Client client(kEio);
    QSignalSpy connected(&client, &Client::connected);
    QSignalSpy disconnected(&client, &Client::disconnected);
    client.open(server.url());
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 1, kConnectWaitMs);
    QCOMPARE(client.timeoutIntervalMs(), 200 + 5000);

    const QString sid = client.sessionID();
    QTRY_VERIFY_WITH_TIMEOUT(server.enginePackets(sid).count(QStringLiteral("in:pong:")) >= 5, 10000);
    const QStringList packets = server.enginePackets(sid);
    // Every ping but possibly the last one in flight has had its pong.
    QVERIFY(packets.count(QStringLiteral("in:pong:")) >= packets.count(QStringLiteral("out:ping:")) - 1);
    QCOMPARE(disconnected.count(), 0);
    QCOMPARE(client.getState(), QStringLiteral("connected"));
}

void TestClient::silenceRestartsTheSession()
{
    SioServer server;
    START_SERVER(server, (SioServer::Options{200, 60000, 0}));
    Client client(kEio);
    QSignalSpy connected(&client, &Client::connected);
    QSignalSpy states(&client, &Client::stateChanged);
    client.open(server.url());
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 1, kConnectWaitMs);
    const QString firstSid = client.sessionID();

    LogCapture log;
    states.clear();
    QElapsedTimer silence;
    silence.start();
    server.pause();
    QTRY_VERIFY_WITH_TIMEOUT(log.contains(QStringLiteral("connection timed out")), 15000);
    // Timed from the last frame, which came at most one ping interval before the pause.
    QVERIFY2(silence.elapsed() >= 5200 - 200 - 300, qPrintable(QString::number(silence.elapsed())));
    QVERIFY(log.contains(QStringLiteral("restarting")));
    QVERIFY(statesOf(states).contains(Client::Opening));

    server.resume();
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 2, 15000);
    QVERIFY(client.sessionID() != firstSid);
    QCOMPARE(client.getState(), QStringLiteral("connected"));
}

void TestClient::serverDisconnectIsReported()
{
    SioServer server;
    START_SERVER(server, {});
    Client client(kEio);
    QSignalSpy connected(&client, &Client::connected);
    QSignalSpy disconnected(&client, &Client::disconnected);
    QSignalSpy states(&client, &Client::stateChanged);
    QSignalSpy messages(&client, &Client::newMessage);
    client.open(server.url());
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 1, kConnectWaitMs);
    QTRY_COMPARE(messages.count(), 1); // the connect acknowledgement

    QVERIFY(server.disconnectAll());
    QTRY_COMPARE_WITH_TIMEOUT(disconnected.count(), 1, 5000);
    QCOMPARE(client.getState(), QStringLiteral("disconnected"));
    QCOMPARE(statesOf(states).last(), Client::Disconnected);
    QCOMPARE(textsOf(messages).last(), QString()); // "41" reaches the owner as an empty message
}

void TestClient::eemitBeforeConnectionIsDropped()
{
    SioServer server;
    START_SERVER(server, {});
    Client client(kEio);
    QSignalSpy connected(&client, &Client::connected);
    connect(&client, &Client::stateChanged, &client, [&client](Client::State state) {
        if (state == Client::Opened)
            client.eemit(QStringLiteral("while-opened"));
    });
    client.eemit(QStringLiteral("before-open"));
    client.open(server.url());
    client.eemit(QStringLiteral("while-opening"));
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 1, kConnectWaitMs);
    client.eemit(QStringLiteral("connected"));
    QTRY_VERIFY(!server.eventNames().isEmpty());
    QCOMPARE(server.eventNames(), QStringList{QStringLiteral("connected")});
}

void TestClient::closeEndsTheSession_data()
{
    QTest::addColumn<bool>("waitForConnection");
    QTest::newRow("connected") << true;
    QTest::newRow("handshake under way") << false;
}

void TestClient::closeEndsTheSession()
{
    QFETCH(bool, waitForConnection);
    SioServer server;
    START_SERVER(server, {});
    Client client(kEio);
    QSignalSpy connected(&client, &Client::connected);
    QSignalSpy disconnected(&client, &Client::disconnected);
    if (!waitForConnection)
        server.pause(); // the handshake answer comes only after the close
    client.open(server.url());
    if (waitForConnection)
        QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 1, kConnectWaitMs);
    else
        QTest::qWait(300); // the GET leaves
    const QString sid = client.sessionID();

    client.close();
    // A WebSocket that was up reports its own disconnect as well.
    QCOMPARE(disconnected.count(), waitForConnection ? 2 : 1);
    QCOMPARE(client.getState(), QStringLiteral("disconnected"));
    if (waitForConnection) {
        QTRY_COMPARE(server.logLines(QStringLiteral("engine_close"), sid).size(), 1);
    } else {
        server.resume();
        QTRY_COMPARE(server.requests().size(), 1);
        QTest::qWait(500); // a POST, had the late answer been taken, would have arrived by now
        QCOMPARE(server.requests().size(), 1);
        QCOMPARE(connected.count(), 0);
        QCOMPARE(client.getState(), QStringLiteral("disconnected"));
    }
    // The client opens again after a close.
    client.open(server.url());
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), waitForConnection ? 2 : 1, kConnectWaitMs);
}

void TestClient::badHandshakeLeavesTheSessionOpening_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QString>("body");
    QTest::addColumn<QString>("logLine");
    QTest::newRow("truncated") << 200 << R"(0{"sid":"abc","pingInterval":25)" << "";
    QTest::newRow("not JSON") << 200 << "<html>hello</html>" << "";
    QTest::newRow("keys missing") << 200 << R"(0{"sid":"abc","pingInterval":25000})" << "";
    QTest::newRow("empty body") << 200 << "" << "";
    QTest::newRow("server error") << 500 << R"(0{"sid":"abc","pingInterval":1,"pingTimeout":1})" << "Error[500] 0{\"sid\"";
    QTest::newRow("not found") << 404 << "no such path" << "Error[404] no such path";
}

void TestClient::badHandshakeLeavesTheSessionOpening()
{
    QFETCH(int, status);
    QFETCH(QString, body);
    QFETCH(QString, logLine);
    SioServer server;
    START_SERVER(server, {});
    QVERIFY(server.overrideHandshake(status, body));
    LogCapture log;
    Client client(kEio);
    QSignalSpy failed(&client, &Client::handshakeFailed);
    QSignalSpy connected(&client, &Client::connected);
    client.open(server.url());
    QTRY_COMPARE_WITH_TIMEOUT(failed.count(), 1, 5000);
    QCOMPARE(client.getState(), QStringLiteral("opening"));
    QVERIFY(client.sessionID().isEmpty());
    if (!logLine.isEmpty())
        QVERIFY2(log.contains(logLine), qPrintable(log.lines().join(QLatin1Char('\n'))));
    QTest::qWait(300); // a POST, had one been sent, would have arrived by now
    QCOMPARE(server.requests().size(), 1);

    // Nothing is stuck: the next open with a working server connects.
    QVERIFY(server.restoreHandshake());
    client.open(server.url());
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 1, kConnectWaitMs);
}

void TestClient::badFramesAreIgnored_data()
{
    QTest::addColumn<QJsonObject>("frame");
    QTest::addColumn<QString>("message"); // what the owner receives; "-" for nothing
    QTest::addColumn<QString>("logLine");
    QTest::newRow("empty text") << QJsonObject{{"text", ""}} << "-" << "";
    QTest::newRow("frame type beyond the table") << QJsonObject{{"text", "9zz"}} << "-" << "";
    QTest::newRow("close frame type") << QJsonObject{{"text", "1"}} << "-" << "";
    QTest::newRow("noop") << QJsonObject{{"text", "6"}} << "-" << "";
    QTest::newRow("message that is not JSON") << QJsonObject{{"text", "42not json"}} << "not json" << "";
    const QString huge = QStringLiteral("[\"big\",\"") + QString(1024 * 1024, QLatin1Char('x')) + QStringLiteral("\"]");
    QTest::newRow("1 MB event") << QJsonObject{{"text", QStringLiteral("42") + huge}} << huge << "";
    QTest::newRow("binary") << QJsonObject{{"binary_hex", "0102ff"}} << "-" << "Websocket binary message!!!";
}

void TestClient::badFramesAreIgnored()
{
    QFETCH(QJsonObject, frame);
    QFETCH(QString, message);
    QFETCH(QString, logLine);
    SioServer server;
    START_SERVER(server, {});
    LogCapture log;
    Client client(kEio);
    QSignalSpy connected(&client, &Client::connected);
    QSignalSpy disconnected(&client, &Client::disconnected);
    QSignalSpy messages(&client, &Client::newMessage);
    client.open(server.url());
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 1, kConnectWaitMs);
    QTRY_COMPARE(messages.count(), 1); // the connect acknowledgement
    messages.clear();

    QVERIFY(server.raw(frame));
    // The reply to "version" comes after the frame: when it is here, the frame was handled.
    client.eemit(QStringLiteral("version"));
    const QString reply = QStringLiteral(R"(["version","sio-test"])");
    QTRY_VERIFY_WITH_TIMEOUT(textsOf(messages).contains(reply), 10000);
    QStringList expected{reply};
    if (message != QLatin1String("-"))
        expected.prepend(message);
    QCOMPARE(textsOf(messages), expected);
    QCOMPARE(disconnected.count(), 0);
    QCOMPARE(client.getState(), QStringLiteral("connected"));
    if (!logLine.isEmpty())
        QVERIFY(log.contains(logLine));
}

// The WebSocket protocol requires the connection to fail on such a frame; the session reports
// the disconnect like any other and can be opened again.
void TestClient::textThatIsNotUtf8EndsTheSessionCleanly()
{
    SioServer server;
    START_SERVER(server, {});
    Client client(kEio);
    QSignalSpy connected(&client, &Client::connected);
    QSignalSpy disconnected(&client, &Client::disconnected);
    QSignalSpy messages(&client, &Client::newMessage);
    client.open(server.url());
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 1, kConnectWaitMs);
    QTRY_COMPARE(messages.count(), 1);

    QVERIFY(server.raw(QJsonObject{{"text_hex", "34325b22ff225d"}})); // 42["\xff"]
    QTRY_COMPARE_WITH_TIMEOUT(disconnected.count(), 1, 5000);
    QCOMPARE(messages.count(), 1);
    QCOMPARE(client.getState(), QStringLiteral("disconnected"));
    client.open(server.url());
    QTRY_COMPARE_WITH_TIMEOUT(connected.count(), 2, kConnectWaitMs);
}

QTEST_GUILESS_MAIN(TestClient)
#include "tst_client.moc"
