// The Socket.IO session against the real socket.io server of tests/peers, one server per suite.

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

constexpr int kPingMs = 300;

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
        return QTest::qWaitFor([&] { return connected.count() >= count; }, 10000);
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
    void initTestCase()
    {
        qRegisterMetaType<Client::State>();
        START_SIO_SERVER(server, (SioServer::Options{kPingMs, 2000, 0}));
    }

    void urls_data()
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

    void urls()
    {
        QFETCH(int, eio);
        QFETCH(QString, server);
        QFETCH(QString, handshake);
        Client client(eio);
        client.open(QUrl(server)); // nothing listens there: the request fails on loopback
        QCOMPARE(client.url(), QUrl(server));
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        const QString url = client.handshakeUrl();
        QVERIFY2(url.startsWith(handshake) && url.mid(handshake.size()).toLongLong() >= before, qPrintable(url));
        QTEST(client.wsUrl(), "webSocket");
    }

    // Also: events emitted before the session is connected are dropped, not queued.
    void handshakeRequestsAndStates()
    {
        const int seen = server.get("/requests").size();
        const int eventsBefore = server.events().size();
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        Session s;
        connect(&s.client, &Client::stateChanged, &s.client, [&s](Client::State state) {
            if (state == Client::Opened)
                s.client.eemit(QStringLiteral("while-opened"));
        });
        s.client.eemit(QStringLiteral("before-open"));
        s.client.open(server.url());
        s.client.eemit(QStringLiteral("while-opening"));
        QCOMPARE(s.client.getState(), QStringLiteral("opening"));
        QTRY_COMPARE_WITH_TIMEOUT(s.connected.count(), 1, 10000);
        QCOMPARE(s.client.getState(), QStringLiteral("connected"));
        QCOMPARE(s.stateList(), (QList<Client::State>{Client::Opening, Client::Opened, Client::Connected}));
        s.client.eemit(QStringLiteral("connected"));
        QTRY_COMPARE(server.events().size(), eventsBefore + 1);
        QCOMPARE(server.events().last().toString(), QStringLiteral("connected"));

        // Exactly three requests: handshake GET, "40" POST, WebSocket upgrade; no polling GET.
        const QJsonArray requests = server.get("/requests");
        QCOMPARE(requests.size(), seen + 3);
        const QJsonValue get = requests[seen], post = requests[seen + 1], upgrade = requests[seen + 2];
        const QString sid = s.client.sessionID();
        const QRegularExpressionMatch t = QRegularExpression(QStringLiteral("^/socket\\.io/\\?EIO=4&transport=polling&t=(\\d+)$"))
                                              .match(get[QStringLiteral("url")].toString());
        QVERIFY2(t.hasMatch() && t.captured(1).toLongLong() >= before, qPrintable(get[QStringLiteral("url")].toString()));
        QCOMPARE(get[QStringLiteral("method")].toString(), QStringLiteral("GET"));
        QCOMPARE(post[QStringLiteral("method")].toString(), QStringLiteral("POST"));
        QCOMPARE(post[QStringLiteral("url")].toString(), QStringLiteral("/socket.io/?EIO=4&transport=polling&t=%1&sid=%2").arg(t.captured(1), sid));
        for (const QJsonValue &request : {get, post})
            QCOMPARE(header(request, "content-type") + header(request, "accept") + header(request, "connection"), QStringLiteral("text/plain*/*close"));
        QCOMPARE(header(post, "content-length"), QStringLiteral("2"));
        QVERIFY(upgrade[QStringLiteral("upgrade")].toBool());
        QCOMPARE(upgrade[QStringLiteral("url")].toString(), QStringLiteral("/socket.io/?EIO=4&transport=websocket&sid=%1").arg(sid));
        QCOMPARE(header(upgrade, "sec-websocket-version"), QStringLiteral("13"));
        QVERIFY(!upgrade[QStringLiteral("headers")].toObject().contains(QStringLiteral("origin")));
        QCOMPARE(server.log(sid).filter(QStringLiteral("engine_packet_in")).value(0), QStringLiteral("engine_packet_in:message:0"));
        QTRY_VERIFY(server.log(sid).contains(QStringLiteral("engine_upgrade::")));

        // The connect acknowledgement carries the Socket.IO sid, which is not the Engine.IO one.
        QTRY_VERIFY(!s.messages.isEmpty());
        const QString socketSid = QJsonDocument::fromJson(s.texts().first().toUtf8())[QStringLiteral("sid")].toString();
        QVERIFY(server.get("/sockets").contains(socketSid));
        QVERIFY(socketSid != sid);
        QCOMPARE(s.client.sessionID(), sid);
    }

    // Bad frames are ignored, or handed on as they are, and the session carries on; a text frame
    // that is not UTF-8 must fail the WebSocket, which the session reports as a disconnect.
    void eventsBadFramesAndDisconnects()
    {
        LogCapture log;
        Session s;
        QVERIFY(s.open(server));
        QTRY_COMPARE(s.messages.count(), 1); // the connect acknowledgement
        const QString sid = s.client.sessionID();

        // The server echoes every event as "echo" with the same arguments.
        const std::pair<QVariant, QString> events[] = {
            {QVariant(), R"(["x"])"},
            {QStringLiteral("Kamera \u00e9\u4e2d"), QStringLiteral("[\"x\",\"Kamera \u00e9\u4e2d\"]")},
            {QVariantMap{{"deviceId", "dev1"}, {"canBeFlashed", true}}, R"(["x",{"canBeFlashed":true,"deviceId":"dev1"}])"},
        };
        for (const auto &[data, frame] : events) {
            s.client.eemit(QStringLiteral("x"), data);
            QTRY_VERIFY2(s.texts().contains(QStringLiteral("[\"echo\",") + frame.mid(1)), qPrintable(s.texts().join('\n')));
            QVERIFY(server.log(sid).contains(QStringLiteral("engine_packet_in:message:2") + frame));
        }

        // A connect packet goes out only for a namespace other than the default one; the server
        // has no such namespace and answers with an error on it.
        s.client.sendConnect();
        s.client.sendConnect(QStringLiteral("/"));
        s.client.sendConnect(QStringLiteral("/admin"));
        QTRY_COMPARE(s.texts().filter(QStringLiteral("Invalid namespace")).size(), 1);
        QCOMPARE(server.log(sid).filter(QRegularExpression(QStringLiteral("^engine_packet_in:message:0"))),
                 (QStringList{"engine_packet_in:message:0", "engine_packet_in:message:0/admin,"}));

        s.messages.clear();
        const QString huge = QStringLiteral("[\"big\",\"") + QString(1024 * 1024, 'x') + QStringLiteral("\"]");
        for (const QString &text : {QString(), QStringLiteral("9zz"), QStringLiteral("1"), QStringLiteral("42not json"), "42" + huge})
            QVERIFY(server.post("/raw", {{"text", text}}));
        QVERIFY(server.post("/raw", {{"binary_hex", "0102ff"}}));
        // The reply to "version" comes after the frames: when it is here, they were all handled.
        s.client.eemit(QStringLiteral("version"));
        const QString reply = QStringLiteral(R"(["version","sio-test"])");
        QTRY_VERIFY_WITH_TIMEOUT(s.texts().contains(reply), 10000);
        QCOMPARE(s.texts(), (QStringList{"not json", huge, reply}));
        QVERIFY(log.contains(QStringLiteral("Websocket binary message!!!")));

        QVERIFY(server.post("/disconnect"));
        QTRY_COMPARE_WITH_TIMEOUT(s.disconnected.count(), 1, 5000);
        QCOMPARE(s.client.getState(), QStringLiteral("disconnected"));
        QCOMPARE(s.stateList().last(), Client::Disconnected);
        QCOMPARE(s.texts().last(), QString()); // "41" reaches the owner as an empty message

        QVERIFY(s.open(server, 2));
        QVERIFY(server.post("/raw", {{"text_hex", "34325b22ff225d"}})); // 42["\xff"]
        QTRY_COMPARE_WITH_TIMEOUT(s.disconnected.count(), 2, 5000);
        QCOMPARE(s.texts().filter(QStringLiteral("\ufffd")), QStringList());
    }

    void pingsAnsweredAndSilenceRestarts()
    {
        Session s;
        QVERIFY(s.open(server));
        const QString firstSid = s.client.sessionID();
        // The server drops a client whose pong is late.
        QTRY_VERIFY_WITH_TIMEOUT(server.log(firstSid).count(QStringLiteral("engine_packet_in:pong:")) >= 5, 10000);
        QCOMPARE(s.disconnected.count(), 0);

        // Silence: no frame for the ping interval plus 5 s restarts the session.
        LogCapture log;
        QElapsedTimer silence;
        silence.start();
        s.states.clear();
        server.pause();
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(QStringLiteral("connection timed out")), 15000);
        // Timed from the last frame, which came at most one ping interval before the pause.
        QVERIFY2(silence.elapsed() >= 5000 - 300, qPrintable(QString::number(silence.elapsed())));
        QVERIFY(s.stateList().contains(Client::Opening));
        server.resume();
        QTRY_COMPARE_WITH_TIMEOUT(s.connected.count(), 2, 15000);
        QVERIFY(s.client.sessionID() != firstSid);
    }

    void closeEndsTheSession_data()
    {
        QTest::addColumn<bool>("connected");
        QTest::newRow("connected") << true;
        QTest::newRow("handshake under way") << false;
    }

    void closeEndsTheSession()
    {
        QFETCH(bool, connected);
        Session s;
        const int seen = server.get("/requests").size();
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
            QTRY_VERIFY(server.log(sid).contains(QStringLiteral("engine_close::")));
        } else {
            server.resume();
            QTRY_COMPARE(server.get("/requests").size(), seen + 1);
            QTest::qWait(500); // a POST, had the late answer been taken, would have arrived by now
            QCOMPARE(server.get("/requests").size(), seen + 1);
            QCOMPARE(s.client.getState(), QStringLiteral("disconnected"));
        }
        QVERIFY(s.open(server, connected ? 2 : 1)); // it opens again after a close
    }

private:
    SioServer server;
};

QTEST_GUILESS_MAIN(TestClient)
#include "tst_client.moc"
