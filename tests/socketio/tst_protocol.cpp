#include "socketio/protocol.h"

#include <QRandomGenerator>
#include <QTest>

#include <memory>

using SocketIO::FrameType;
using SocketIO::Packet;
using SocketIO::Protocol;


class TestProtocol : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void decode_data();
    void decode();
    void decodeNeverReadsPastTheEnd();
    void decodeBytes_data();
    void decodeBytes();
    void encode_data();
    void encode();
    void handShake_data();
    void handShake();
};

void TestProtocol::decode_data()
{
    QTest::addColumn<QString>("frame");
    QTest::addColumn<int>("frameType");
    QTest::addColumn<int>("packetType");
    QTest::addColumn<QString>("nsp");
    QTest::addColumn<int>("id");
    QTest::addColumn<QString>("raw");

    QTest::newRow("event") << R"(42["devices",[{"id":"dev1"}]])" << 4 << 2 << "/" << -1 << R"(["devices",[{"id":"dev1"}]])";
    QTest::newRow("event with ack id") << R"(421["x"])" << 4 << 2 << "/" << 1 << R"(["x"])";
    QTest::newRow("connect") << "40" << 4 << 0 << "/" << -1 << "";
    QTest::newRow("connect ack with the Socket.IO sid") << R"(40{"sid":"m3HL"})" << 4 << 0 << "/" << -1 << R"({"sid":"m3HL"})";
    QTest::newRow("server disconnect") << "41" << 4 << 1 << "/" << -1 << "";
    QTest::newRow("pong probe") << "3probe" << 3 << -1 << "/" << -1 << "probe";
    QTest::newRow("ping") << "2" << 2 << -1 << "/" << -1 << "";
    QTest::newRow("upgrade") << "5" << 5 << -1 << "/" << -1 << "";
    QTest::newRow("close") << "1" << 1 << -1 << "/" << -1 << "";
    QTest::newRow("noop") << "6" << 6 << -1 << "/" << -1 << "";
    // The id after a namespace reads 0, whether one was sent or not.
    QTest::newRow("namespace and id: id 0") << R"(42/admin,5["x"])" << 4 << 2 << "/admin" << 0 << R"(["x"])";
    QTest::newRow("namespace without id: id 0") << R"(42/admin,["x"])" << 4 << 2 << "/admin" << 0 << R"(["x"])";
    QTest::newRow("namespaced connect keeps the comma") << "40/admin," << 4 << 0 << "/admin" << -1 << ",";
    QTest::newRow("namespace without comma") << "40/admin" << 4 << 0 << "/" << -1 << "/admin";
    QTest::newRow("error object from position 2") << R"(44{"message":"bad"})" << 4 << 4 << "/" << -1 << R"({"message":"bad"})";
    QTest::newRow("error object with a bracket") << R"(44{"m":"[x]"})" << 4 << 4 << "/" << 0 << "[x]\"}";
    QTest::newRow("empty frame") << "" << 0 << -1 << "/" << -1 << "";
    QTest::newRow("non-digit frame type reads 0") << "x42" << 0 << -1 << "/" << -1 << "42";
    QTest::newRow("non-digit packet type reads 0") << R"(4x["a"])" << 4 << 0 << "/" << -1 << R"(["a"])";
    QTest::newRow("message without packet type") << "4" << 4 << 0 << "/" << -1 << "";
    QTest::newRow("frame type beyond the table") << "9zz" << 9 << -1 << "/" << -1 << "zz";
    QTest::newRow("non-ASCII digit is not a digit") << QString::fromUtf8("\xd9\xa4" "2") << 0 << -1 << "/" << -1 << "2";
    QTest::newRow("text that is not JSON") << "42not json" << 4 << 2 << "/" << -1 << "not json";
}

void TestProtocol::decode()
{
    QFETCH(QString, frame);
    QFETCH(int, frameType);
    QFETCH(int, packetType);
    QFETCH(QString, nsp);
    QFETCH(int, id);
    QFETCH(QString, raw);

    Protocol protocol;
    std::unique_ptr<Packet> packet(protocol.decrypt(frame));
    QCOMPARE(packet->parent(), &protocol);
    QCOMPARE(int(packet->frameType), frameType);
    QCOMPARE(packet->packetType, packetType);
    QCOMPARE(packet->nsp, nsp);
    QCOMPARE(packet->id, id);
    QCOMPARE(packet->raw, raw);
}

// Every prefix of every frame, and random bytes: the decoder stays inside the text (the
// sanitizer builds turn an overrun into a failure).
void TestProtocol::decodeNeverReadsPastTheEnd()
{
    Protocol protocol;
    const QStringList frames{R"(42/admin,5["x",{"a":[1,2]}])", R"(421["x"])", "40/admin,", R"(44{"m":"[x]"})", "3probe"};
    for (const QString &frame : frames) {
        for (int n = 0; n <= frame.size(); ++n) {
            std::unique_ptr<Packet> packet(protocol.decrypt(frame.left(n)));
            QVERIFY(frame.left(n).endsWith(packet->raw));
        }
    }
    QRandomGenerator random(7);
    const char alphabet[] = "0123456789/,[]{}\"ab";
    for (int i = 0; i < 2000; ++i) {
        QByteArray bytes(int(random.bounded(12)), '\0');
        for (char &c : bytes)
            c = random.bounded(4) == 0 ? char(random.bounded(256)) : alphabet[random.bounded(int(sizeof(alphabet) - 1))];
        if (bytes.startsWith('b'))
            bytes[0] = '4'; // binary frames have their own rows
        std::unique_ptr<Packet> packet(protocol.decrypt(bytes));
        QVERIFY(QString::fromUtf8(bytes).endsWith(packet->raw));
    }
    QVERIFY(protocol.children().isEmpty());
}

void TestProtocol::decodeBytes_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("frameType");
    QTest::addColumn<int>("packetType");
    QTest::addColumn<QString>("raw");
    QTest::newRow("binary frame: error packet") << QByteArray("b4AQID") << 4 << 4 << "binary decrypt not implemented";
    QTest::newRow("binary marker alone") << QByteArray("b") << 4 << 4 << "binary decrypt not implemented";
    QTest::newRow("UTF-8 text") << QByteArray("42[\"caf\xc3\xa9\"]") << 4 << 2 << QString::fromUtf8("[\"caf\xc3\xa9\"]");
    QTest::newRow("not UTF-8") << QByteArray("42[\"\xff\xfe\"]") << 4 << 2 << QString::fromUtf8("[\"\xef\xbf\xbd\xef\xbf\xbd\"]");
    QTest::newRow("empty") << QByteArray() << 0 << -1 << "";
    QTest::newRow("a zero byte ends the text") << QByteArray("42\0" "[]", 5) << 4 << 2 << "";
}

void TestProtocol::decodeBytes()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, frameType);
    QFETCH(int, packetType);
    QFETCH(QString, raw);
    Protocol protocol;
    std::unique_ptr<Packet> packet(protocol.decrypt(bytes));
    QCOMPARE(packet->parent(), &protocol);
    QCOMPARE(int(packet->frameType), frameType);
    QCOMPARE(packet->packetType, packetType);
    QCOMPARE(packet->raw, raw);
}

void TestProtocol::encode_data()
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
    QTest::newRow("upgrade") << 5 << -1 << "/" << -1 << "" << QVariant() << "5";
    QTest::newRow("event") << 4 << 2 << "/" << -1 << R"(["a"])" << QVariant() << R"(42["a"])";
    QTest::newRow("event, empty namespace") << 4 << 2 << "" << -1 << R"(["a"])" << QVariant() << R"(42["a"])";
    QTest::newRow("namespaced connect") << 4 << 0 << "/admin" << -1 << "" << QVariant() << "40/admin,";
    QTest::newRow("namespace and ack id") << 4 << 2 << "/admin" << 7 << R"(["x"])" << QVariant() << R"(42/admin,7["x"])";
    QTest::newRow("packet type never set") << 4 << -1 << "/" << -1 << "" << QVariant() << "4-1";
    QTest::newRow("raw wins over data") << 4 << 2 << "/" << -1 << R"(["r"])" << QVariant(QVariantList{"d"}) << R"(42["r"])";
    QTest::newRow("data when raw is empty") << 4 << 2 << "/" << -1 << "" << QVariant(QVariantList{"d", 1}) << R"(42["d",1])";
    QTest::newRow("null data: nothing") << 4 << 2 << "/" << -1 << "" << QVariant::fromValue(nullptr) << "42";
    QTest::newRow("frame type other than message") << 2 << 2 << "/" << -1 << "" << QVariant() << "2";
}

void TestProtocol::encode()
{
    QFETCH(int, frameType);
    QFETCH(int, packetType);
    QFETCH(QString, nsp);
    QFETCH(int, id);
    QFETCH(QString, raw);
    QFETCH(QVariant, data);
    QFETCH(QString, frame);

    Protocol protocol;
    Packet packet{FrameType(frameType)};
    packet.packetType = packetType;
    packet.nsp = nsp;
    packet.id = id;
    packet.raw = raw;
    packet.data = data;
    QCOMPARE(protocol.encryptString(&packet), frame);
    QVERIFY(protocol.encryptBinary(&packet).isEmpty());
}

void TestProtocol::handShake_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<bool>("usable");
    QTest::addColumn<QString>("sid");
    QTest::addColumn<qint64>("pingInterval");
    QTest::addColumn<qint64>("pingTimeout");

    QTest::newRow("open packet") << QByteArray(R"(0{"sid":"abc","pingInterval":25000,"pingTimeout":20000})") << true
                                 << "abc" << qint64(25000) << qint64(20000);
    QTest::newRow("real server body")
        << QByteArray(R"(0{"sid":"hOTVLYoE_zhr_fccAAAA","upgrades":["websocket"],"pingInterval":1000,"pingTimeout":800,"maxPayload":1000000})")
        << true << "hOTVLYoE_zhr_fccAAAA" << qint64(1000) << qint64(800);
    QTest::newRow("sid not a string: empty") << QByteArray(R"(0{"sid":5,"pingInterval":1,"pingTimeout":2})") << true << ""
                                              << qint64(1) << qint64(2);
    QTest::newRow("truncated") << QByteArray(R"(0{"sid":"abc","pingInterval":250)") << false << "" << qint64(0) << qint64(0);
    QTest::newRow("not JSON") << QByteArray("<html>Bad Gateway</html>") << false << "" << qint64(0) << qint64(0);
    QTest::newRow("no frame type") << QByteArray(R"({"sid":"abc","pingInterval":1,"pingTimeout":2})") << false << ""
                                   << qint64(0) << qint64(0);
    QTest::newRow("no sid") << QByteArray(R"(0{"pingInterval":1,"pingTimeout":2})") << false << "" << qint64(0) << qint64(0);
    QTest::newRow("no pingInterval") << QByteArray(R"(0{"sid":"a","pingTimeout":2})") << false << "" << qint64(0) << qint64(0);
    QTest::newRow("no pingTimeout") << QByteArray(R"(0{"sid":"a","pingInterval":1})") << false << "" << qint64(0) << qint64(0);
    QTest::newRow("empty object") << QByteArray("0{}") << false << "" << qint64(0) << qint64(0);
    QTest::newRow("list") << QByteArray(R"(0["sid","pingInterval","pingTimeout"])") << false << "" << qint64(0) << qint64(0);
    QTest::newRow("frame type only") << QByteArray("0") << false << "" << qint64(0) << qint64(0);
    QTest::newRow("empty") << QByteArray() << false << "" << qint64(0) << qint64(0);
    QTest::newRow("not UTF-8") << QByteArray("0{\"sid\":\"\xff\"}") << false << "" << qint64(0) << qint64(0);
}

void TestProtocol::handShake()
{
    QFETCH(QByteArray, body);
    QFETCH(bool, usable);
    QFETCH(QString, sid);
    QFETCH(qint64, pingInterval);
    QFETCH(qint64, pingTimeout);

    Protocol protocol;
    SocketIO::HandShake out;
    out.sid = QStringLiteral("untouched");
    out.pingInterval = -7;
    out.pingTimeout = -8;
    QCOMPARE(protocol.decryptHandShake(body, &out), usable);
    if (usable) {
        QCOMPARE(out.sid, sid);
        QCOMPARE(out.pingInterval, pingInterval);
        QCOMPARE(out.pingTimeout, pingTimeout);
    } else {
        QCOMPARE(out.sid, QStringLiteral("untouched"));
        QCOMPARE(out.pingInterval, qint64(-7));
        QCOMPARE(out.pingTimeout, qint64(-8));
    }
}

QTEST_GUILESS_MAIN(TestProtocol)
#include "tst_protocol.moc"
