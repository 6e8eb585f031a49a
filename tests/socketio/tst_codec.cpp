// The Socket.IO packet and its text codec: pure units, no sockets.

#include "json.h"
#include "socketio/protocol.h"

#include <QJsonDocument>
#include <QRandomGenerator>
#include <QTest>

#include <memory>
#include <tuple>

using SocketIO::Packet;
using SocketIO::Protocol;

class TestCodec : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void decode_data()
    {
        QTest::addColumn<QByteArray>("frame");
        QTest::addColumn<int>("frameType");
        QTest::addColumn<int>("packetType");
        QTest::addColumn<QString>("nsp");
        QTest::addColumn<int>("id");
        QTest::addColumn<QString>("raw");
        QTest::newRow("event") << QByteArray(R"(42["devices",[{"id":"dev1"}]])") << 4 << 2 << "/" << -1 << R"(["devices",[{"id":"dev1"}]])";
        QTest::newRow("event with ack id") << QByteArray(R"(421["x"])") << 4 << 2 << "/" << 1 << R"(["x"])";
        QTest::newRow("connect") << QByteArray("40") << 4 << 0 << "/" << -1 << "";
        QTest::newRow("pong probe") << QByteArray("3probe") << 3 << -1 << "/" << -1 << "probe";
        QTest::newRow("ping") << QByteArray("2") << 2 << -1 << "/" << -1 << "";
        // Quirks kept on purpose: the id after a namespace reads 0, whether one was sent or not.
        QTest::newRow("namespace and id: id 0") << QByteArray(R"(42/admin,5["x"])") << 4 << 2 << "/admin" << 0 << R"(["x"])";
        QTest::newRow("namespace without id: id 0") << QByteArray(R"(42/admin,["x"])") << 4 << 2 << "/admin" << 0 << R"(["x"])";
        QTest::newRow("namespaced connect keeps the comma") << QByteArray("40/admin,") << 4 << 0 << "/admin" << -1 << ",";
        QTest::newRow("namespace without comma") << QByteArray("40/admin") << 4 << 0 << "/" << -1 << "/admin";
        QTest::newRow("object from position 2") << QByteArray(R"(44{"message":"bad"})") << 4 << 4 << "/" << -1 << R"({"message":"bad"})";
        // Hostile frames.
        QTest::newRow("empty") << QByteArray() << 0 << -1 << "/" << -1 << "";
        QTest::newRow("non-digit frame type reads 0") << QByteArray("x42") << 0 << -1 << "/" << -1 << "42";
        QTest::newRow("message without packet type") << QByteArray("4") << 4 << 0 << "/" << -1 << "";
        QTest::newRow("non-ASCII digit") << QByteArray("\xd9\xa4" "2") << 0 << -1 << "/" << -1 << "2";
        QTest::newRow("frame type beyond the table") << QByteArray("9zz") << 9 << -1 << "/" << -1 << "zz";
        QTest::newRow("not JSON") << QByteArray("42not json") << 4 << 2 << "/" << -1 << "not json";
        QTest::newRow("not UTF-8") << QByteArray("42[\"\xff\"]") << 4 << 2 << "/" << -1 << QString::fromUtf8("[\"\xef\xbf\xbd\"]");
        QTest::newRow("a zero byte ends the text") << QByteArray("42\0[]", 5) << 4 << 2 << "/" << -1 << "";
        QTest::newRow("binary: error packet") << QByteArray("b4AQID") << 4 << 4 << "/" << -1 << "binary decrypt not implemented";
    }

    void decode()
    {
        QFETCH(QByteArray, frame);
        Protocol protocol;
        std::unique_ptr<Packet> packet(protocol.decrypt(frame));
        QCOMPARE(packet->parent(), &protocol);
        QTEST(int(packet->frameType), "frameType");
        QTEST(packet->packetType, "packetType");
        QTEST(packet->nsp, "nsp");
        QTEST(packet->id, "id");
        QTEST(packet->raw, "raw");
    }

    // Every prefix of some frames, and random bytes: the decoder stays inside the text (the
    // sanitizer build turns an overrun into a failure).
    void decodeNeverReadsPastTheEnd()
    {
        Protocol protocol;
        QStringList frames;
        for (const QString frame : {R"(42/admin,5["x",{"a":[1,2]}])", R"(421["x"])", R"(44{"m":"[x]"})"})
            for (int n = 0; n <= frame.size(); ++n)
                frames << frame.left(n);
        QRandomGenerator random(7);
        const char alphabet[] = "0123456789/,[]{}\"a";
        while (frames.size() < 2000) {
            QByteArray bytes(int(random.bounded(12)), '\0');
            for (char &c : bytes)
                c = random.bounded(4) == 0 ? char(random.bounded(256)) : alphabet[random.bounded(int(sizeof(alphabet) - 1))];
            frames << QString::fromUtf8(bytes);
        }
        for (const QString &frame : frames)
            QVERIFY2(frame.endsWith(std::unique_ptr<Packet>(protocol.decrypt(frame))->raw), qPrintable(frame));
    }

    void encode_data()
    {
        QTest::addColumn<int>("frameType");
        QTest::addColumn<int>("packetType");
        QTest::addColumn<QString>("nsp");
        QTest::addColumn<int>("id");
        QTest::addColumn<QString>("raw");
        QTest::addColumn<QVariant>("data");
        QTest::addColumn<QString>("frame");
        QTest::newRow("ping probe") << 2 << -1 << "/" << -1 << "probe" << QVariant() << "2probe";
        QTest::newRow("pong") << 3 << -1 << "/" << -1 << "" << QVariant() << "3";
        QTest::newRow("event") << 4 << 2 << "/" << -1 << R"(["a"])" << QVariant() << R"(42["a"])";
        QTest::newRow("event, empty namespace") << 4 << 2 << "" << -1 << R"(["a"])" << QVariant() << R"(42["a"])";
        QTest::newRow("namespaced connect") << 4 << 0 << "/admin" << -1 << "" << QVariant() << "40/admin,";
        QTest::newRow("namespace and ack id") << 4 << 2 << "/admin" << 7 << R"(["x"])" << QVariant() << R"(42/admin,7["x"])";
        QTest::newRow("packet type never set") << 4 << -1 << "/" << -1 << "" << QVariant() << "4-1";
        QTest::newRow("raw wins over data") << 4 << 2 << "/" << -1 << R"(["r"])" << QVariant(QVariantList{"d"}) << R"(42["r"])";
        QTest::newRow("data when raw is empty") << 4 << 2 << "/" << -1 << "" << QVariant(QVariantList{"d", 1}) << R"(42["d",1])";
        QTest::newRow("null data: nothing") << 4 << 2 << "/" << -1 << "" << QVariant::fromValue(nullptr) << "42";
    }

    void encode()
    {
        QFETCH(int, frameType);
        QFETCH(int, packetType);
        QFETCH(QString, nsp);
        QFETCH(int, id);
        QFETCH(QString, raw);
        QFETCH(QVariant, data);
        Packet packet{SocketIO::FrameType(frameType)};
        std::tie(packet.packetType, packet.nsp, packet.id, packet.raw, packet.data) = std::tie(packetType, nsp, id, raw, data);
        Protocol protocol;
        QTEST(protocol.encryptString(&packet), "frame");
        QVERIFY(protocol.encryptBinary(&packet).isEmpty());
    }

    void handShake_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("sid"); // "-": not usable, nothing filled in
        QTest::addColumn<qint64>("pingInterval");
        QTest::addColumn<qint64>("pingTimeout");
        QTest::newRow("real server body")
            << QByteArray(R"(0{"sid":"hOTVLYoE_zhr_fccAAAA","upgrades":["websocket"],"pingInterval":1000,"pingTimeout":800,"maxPayload":1000000})")
            << "hOTVLYoE_zhr_fccAAAA" << qint64(1000) << qint64(800);
        QTest::newRow("sid not a string: empty") << QByteArray(R"(0{"sid":5,"pingInterval":1,"pingTimeout":2})") << "" << qint64(1) << qint64(2);
        QTest::newRow("truncated") << QByteArray(R"(0{"sid":"abc","pingInterval":250)") << "-" << qint64(-7) << qint64(-8);
        QTest::newRow("not JSON") << QByteArray("<html>Bad Gateway</html>") << "-" << qint64(-7) << qint64(-8);
        QTest::newRow("no sid") << QByteArray(R"(0{"pingInterval":1,"pingTimeout":2})") << "-" << qint64(-7) << qint64(-8);
        QTest::newRow("no pingInterval") << QByteArray(R"(0{"sid":"a","pingTimeout":2})") << "-" << qint64(-7) << qint64(-8);
        QTest::newRow("no pingTimeout") << QByteArray(R"(0{"sid":"a","pingInterval":1})") << "-" << qint64(-7) << qint64(-8);
        QTest::newRow("empty") << QByteArray() << "-" << qint64(-7) << qint64(-8);
        QTest::newRow("not UTF-8") << QByteArray("0{\"sid\":\"\xff\"}") << "-" << qint64(-7) << qint64(-8);
        QTest::newRow("repeated key: the last") << QByteArray(R"(0{"sid":{"a":[1]},"sid":"b","pingInterval":1,"pingTimeout":2})")
                                                << "b" << qint64(1) << qint64(2);
    }

    void handShake()
    {
        QFETCH(QByteArray, body);
        QFETCH(QString, sid);
        SocketIO::HandShake out{QStringLiteral("-"), -8, -7};
        QCOMPARE(Protocol().decryptHandShake(body, &out), sid != QLatin1String("-"));
        QCOMPARE(out.sid, sid);
        QTEST(out.pingInterval, "pingInterval");
        QTEST(out.pingTimeout, "pingTimeout");
    }

    void eventData_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QVariant>("data");
        QTest::addColumn<QString>("raw");
        QTest::addColumn<bool>("written"); // else only read back
        QTest::newRow("name only") << "flash" << QVariant() << R"(["flash"])" << true;
        QTest::newRow("map, compact") << "a" << QVariant(QVariantMap{{"deviceId", "dev1"}, {"flag", true}})
                                      << R"(["a",{"deviceId":"dev1","flag":true}])" << true;
        QTest::newRow("list") << "devices" << QVariant(QVariantList{QVariantMap{{"id", "dev1"}}}) << R"(["devices",[{"id":"dev1"}]])" << true;
        QTest::newRow("string") << "a" << QVariant(QStringLiteral("dev2")) << R"(["a","dev2"])" << true;
        QTest::newRow("elements after the second are ignored") << "reassign" << QVariant("old") << R"(["reassign","old","new"])" << false;
        QTest::newRow("not a list: no event") << "" << QVariant() << R"({"sid":"x"})" << false;
        QTest::newRow("not JSON: no event, no ack data") << "" << QVariant() << R"(["a",)" << false;
        QTest::newRow("repeated key: the last value") << "a" << QVariant(QVariantMap{{"k", 2}}) << R"(["a",{"k":[1],"k":2}])" << false;
    }

    // Acknowledgement data is the whole JSON value, or null.
    void eventData()
    {
        QFETCH(QString, name);
        QFETCH(QVariant, data);
        QFETCH(QString, raw);
        QFETCH(bool, written);
        Packet packet;
        packet.raw = raw;
        if (written) {
            packet.setEventData(SocketIO::IOEvent{name, data});
            QCOMPARE(packet.rawData(), raw);
        }
        const SocketIO::IOEvent event = packet.eventData();
        QCOMPARE(event.name, name);
        QCOMPARE(event.data, data);
        QCOMPARE(packet.ackData(), Json::decode(raw));
    }

    void ackIdsAreSharedAndConsecutive()
    {
        Packet first;
        Packet second(SocketIO::Message);
        const int a = first.toAck();
        QCOMPARE(first.id, a);
        QCOMPARE(second.toAck(), a + 1);
        QCOMPARE(second.id, a + 1);
        QCOMPARE(first.toAck(), a + 2);
    }
};

QTEST_GUILESS_MAIN(TestCodec)
#include "tst_codec.moc"
