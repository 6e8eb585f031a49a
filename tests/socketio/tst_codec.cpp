// The Socket.IO packet and its text codec; the addresses a session uses are tst_client's.
// Hostile frames are the fuzz target's (fuzz/socketio); here the rules, one row each.

#include "json.h"
#include "socketio/client.h"

#include <QTest>

#include <memory>

using SocketIO::Packet;
using SocketIO::Protocol;

class TestCodec : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    // A frame and its packet: frame type, packet type, namespace, id, raw; " =": it also encodes
    // back to the same frame.
    void decode()
    {
        const std::pair<QByteArray, QString> rows[] = {
            {R"(42["devices",[{"id":"dev1"}]])", R"(4 2 / -1 ["devices",[{"id":"dev1"}]] =)"},
            {R"(421["x"])", R"(4 2 / 1 ["x"] =)"},
            {"40", "4 0 / -1  ="},
            {"3probe", "3 -1 / -1 probe ="},
            // Quirks kept on purpose: the id after a namespace reads 0, whether one was sent or not.
            {R"(42/admin,5["x"])", R"(4 2 /admin 0 ["x"])"},
            {"40/admin,", "4 0 /admin -1 ,"},
            {"40/admin", "4 0 / -1 /admin"}, // no comma: no namespace
            {"\xd9\xa4" "2", "0 -1 / -1 2"}, // a digit, but not an ASCII one
            {"b4AQID", "4 4 / -1 binary decrypt not implemented"},
        };
        for (const auto &[frame, expected] : rows) {
            Protocol protocol;
            const std::unique_ptr<Packet> p(protocol.decrypt(frame));
            QCOMPARE(p->parent(), &protocol);
            const bool back = expected.endsWith(" =");
            QCOMPARE(QStringLiteral("%1 %2 %3 %4 %5").arg(int(p->frameType)).arg(p->packetType).arg(p->nsp).arg(p->id).arg(p->raw), back ? expected.chopped(2) : expected);
            QCOMPARE(back ? protocol.encryptString(p.get()) : QString(), back ? QString::fromUtf8(frame) : QString());
        }
    }

    void encode()
    {
        Packet ping{SocketIO::Ping}, unset{SocketIO::Message}, both, data, null;
        ping.raw = QStringLiteral("probe");
        both.raw = QStringLiteral(R"(["r"])"); // raw wins over data
        both.data = data.data = QVariantList{"d", 1};
        std::tie(data.nsp, null.nsp, null.data) = std::make_tuple(QStringLiteral("/admin"), QString(), QVariant::fromValue(nullptr));
        QStringList frames;
        for (const Packet *packet : {&ping, &unset, &both, &data, &null})
            frames << Protocol().encryptString(packet) + Protocol().encryptBinary(packet);
        QCOMPARE(frames, (QStringList{"2probe", "4-1", R"(42["r"])", R"(42/admin,["d",1])", "42"}));
    }

    // The open packet: "ok sid pingInterval pingTimeout", or "no" with nothing filled in.
    void handShake()
    {
        const std::pair<QByteArray, QString> rows[] = {
            {R"(0{"sid":"hOTVLYoE_zhr_fccAAAA","upgrades":["websocket"],"pingInterval":1000,"pingTimeout":800,"maxPayload":1000000})",
             "ok hOTVLYoE_zhr_fccAAAA 1000 800"},
            {R"(0{"pingInterval":1,"pingTimeout":2})", "no - -1 -1"},
            {R"(0{"sid":"a","pingTimeout":2})", "no - -1 -1"},
        };
        for (const auto &[body, expected] : rows) {
            SocketIO::HandShake out{QStringLiteral("-"), -1, -1};
            const bool ok = Protocol().decryptHandShake(body, &out);
            QCOMPARE(QStringLiteral("%1 %2 %3 %4").arg(ok ? "ok" : "no", out.sid).arg(out.pingInterval).arg(out.pingTimeout), expected);
        }
    }

    // Raw text, its event (name and data) and, written back from that event, the text again;
    // acknowledgement data is the whole JSON value, or null.
    void eventData()
    {
        const std::tuple<QString, QString, QVariant, bool> rows[] = {
            {R"(["flash"])", "flash", QVariant(), true},
            {R"(["a",{"deviceId":"dev1","flag":true}])", "a", QVariantMap{{"deviceId", "dev1"}, {"flag", true}}, true},
            {R"(["reassign","old","new"])", "reassign", "old", false}, // elements after the second are ignored
        };
        for (const auto &[raw, name, data, written] : rows) {
            Packet packet, other;
            packet.raw = raw;
            QCOMPARE(packet.eventData().name + ' ' + Json::encode(packet.eventData().data, false), name + ' ' + Json::encode(data, false));
            QCOMPARE(packet.ackData(), Json::decode(raw));
            packet.setEventData(packet.eventData());
            QVERIFY(!written || packet.rawData() == raw);
            const int id = packet.toAck(); // every packet takes the next id of one counter
            QCOMPARE(QVector<int>({packet.id, other.toAck(), other.id}), QVector<int>({id, id + 1, id + 1}));
        }
    }
};

QTEST_GUILESS_MAIN(TestCodec)
#include "tst_codec.moc"
