// The Socket.IO session against the real socket.io 4 server of tests/peers.

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

struct Session
{
    Client client{4};
    QSignalSpy states{&client, &Client::stateChanged}, connected{&client, &Client::connected};
    QSignalSpy disconnected{&client, &Client::disconnected}, messages{&client, &Client::newMessage};

    // Opens and waits for the `count`th connection.
    bool open(SioServer &server, int count = 1)
    {
        client.open(server.url());
        return QTest::qWaitFor([&] { return connected.count() >= count; }, 10000);
    }
    QStringList texts() const
    {
        QStringList list;
        for (const QList<QVariant> &arguments : messages)
            list << arguments.first().toString();
        return list;
    }
    Client::State state() const { return states.last().first().value<Client::State>(); }
};

} // namespace

class TestClient : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        qRegisterMetaType<Client::State>();
        START_PEER(server.start(300, 2000));
    }

    // The requests of a session, events both ways (those before the connection are dropped), and
    // the server's disconnect.
    void requestsAndEvents()
    {
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        Session s;
        connect(&s.client, &Client::stateChanged, &s.client, [&s](Client::State state) {
            if (state == Client::Opened)
                s.client.eemit(QStringLiteral("while-opened"));
        });
        s.client.eemit(QStringLiteral("before-open"));
        s.client.open(server.url());
        s.client.eemit(QStringLiteral("while-opening"));
        QTRY_COMPARE_WITH_TIMEOUT(s.connected.count(), 1, 10000);
        QCOMPARE(s.states.count(), 3);
        QCOMPARE(s.client.getState() + s.state(), QStringLiteral("connected") + Client::Connected);
        // Handshake GET, "40" POST, WebSocket upgrade, and no polling GET.
        const QStringList requests = QVariant(server.get("requests").toVariantList()).toStringList();
        const QString t = QRegularExpression(QStringLiteral("&t=(\\d+) ")).match(requests.value(0)).captured(1);
        const QString sid = s.client.sessionID(), polling = "/socket.io/?EIO=4&transport=polling&t=" + t, plain = " content-type=text/plain accept=*/* connection=close";
        QVERIFY2(t.toLongLong() >= before, qPrintable(requests.join('\n')));
        QCOMPARE(requests, (QStringList{"GET " + polling + plain, "POST " + polling + "&sid=" + sid + plain + " content-length=2",
                                        "UPGRADE /socket.io/?EIO=4&transport=websocket&sid=" + sid + " connection=Upgrade sec-websocket-version=13"}));
        QTRY_COMPARE(server.log(sid).mid(0, 2), (QStringList{"in:message:0", "upgrade"}));
        // The connect acknowledgement carries the Socket.IO sid, which is not the Engine.IO one.
        QTRY_COMPARE(s.messages.count(), 1);
        const QString socketSid = QJsonDocument::fromJson(s.texts().first().toUtf8())[QStringLiteral("sid")].toString();
        QVERIFY(server.get("sockets").contains(socketSid) && socketSid != sid);

        // The server echoes every event as "echo" with the same arguments.
        s.client.eemit(QStringLiteral("x"));
        s.client.eemit(QStringLiteral("x"), QStringLiteral("Kamera \u00e9\u4e2d"));
        s.client.eemit(QStringLiteral("x"), QVariantMap{{"deviceId", "dev1"}, {"canBeFlashed", true}});
        const QStringList sent{R"(["x"])", QStringLiteral("[\"x\",\"Kamera \u00e9\u4e2d\"]"), R"(["x",{"canBeFlashed":true,"deviceId":"dev1"}])"};
        QTRY_COMPARE(s.texts().mid(1), QStringList({"[\"echo\"," + sent[0].mid(1), "[\"echo\"," + sent[1].mid(1), "[\"echo\"," + sent[2].mid(1)}));
        QCOMPARE(server.log(sid).filter(QStringLiteral("in:message:2")), QStringList({"in:message:2" + sent[0], "in:message:2" + sent[1], "in:message:2" + sent[2]}));

        // The server ends the socket: reported as a disconnect ("41": an empty message); it opens again.
        server.command({{"disconnect", 1}});
        QTRY_COMPARE_WITH_TIMEOUT(s.disconnected.count(), 1, 5000);
        QCOMPARE(s.client.getState() + s.state() + s.texts().last(), QStringLiteral("disconnected") + Client::Disconnected);
        QVERIFY(s.open(server, 2));
    }

    // Pings are answered (the server drops a client whose pong is late); silence for the ping
    // interval plus 5 s restarts the session.
    void pingsAnsweredAndSilenceRestarts()
    {
        Session s;
        QVERIFY(s.open(server));
        const QString firstSid = s.client.sessionID();
        QTRY_VERIFY2_WITH_TIMEOUT(server.log(firstSid).count(QStringLiteral("in:pong:")) >= 5, qPrintable(server.log(firstSid).join(" ")), 10000);
        QCOMPARE(s.disconnected.count(), 0);
        LogCapture log;
        QElapsedTimer silence;
        silence.start();
        server.pause();
        QTRY_VERIFY_WITH_TIMEOUT(log.contains(QStringLiteral("connection timed out")), 15000);
        // Timed from the last frame, which came at most one ping interval before the pause.
        QVERIFY2(silence.elapsed() >= 5000 - 300, qPrintable(QString::number(silence.elapsed())));
        QCOMPARE(s.state(), Client::Opening);
        server.resume();
        QTRY_COMPARE_WITH_TIMEOUT(s.connected.count(), 2, 15000);
        QVERIFY(s.client.sessionID() != firstSid);
    }

    // Connected, or while the handshake is under way: a late answer is not taken.
    void closeEndsTheSession()
    {
        for (const bool connected : {true, false}) {
            Session s;
            const int seen = server.get("requests").size();
            if (!connected) {
                server.pause(); // the handshake answer comes only after the close
                s.client.open(server.url());
                QTest::qWait(300); // the GET leaves
            }
            QVERIFY(!connected || s.open(server));
            const QString sid = s.client.sessionID();
            s.client.close();
            QCOMPARE(s.disconnected.count(), connected ? 2 : 1); // a WebSocket that was up reports it too
            QCOMPARE(s.client.getState(), QStringLiteral("disconnected"));
            server.resume();
            QTest::qWait(500); // a POST, had the late answer been taken, would have arrived by now
            QVERIFY(connected ? server.log(sid).contains(QStringLiteral("close")) : server.get("requests").size() == seen + 1);
            QVERIFY(s.open(server, connected ? 2 : 1)); // it opens again after a close
        }
    }

private:
    SioServer server;
};

QTEST_GUILESS_MAIN(TestClient)
#include "tst_client.moc"
