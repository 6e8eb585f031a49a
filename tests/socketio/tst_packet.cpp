#include "socketio/packet.h"

#include <QTest>

using SocketIO::Packet;

class TestPacket : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void constructorsSetTheInitialValues();
    void setEventData_data();
    void setEventData();
    void eventData_data();
    void eventData();
    void ackData_data();
    void ackData();
    void ackIdsAreSharedAndConsecutive();
};

void TestPacket::constructorsSetTheInitialValues()
{
    QObject owner;
    Packet event(&owner);
    QCOMPARE(event.parent(), &owner);
    QCOMPARE(event.frameType, SocketIO::Message);
    QCOMPARE(event.packetType, 2);

    Packet pong(SocketIO::Pong, &owner);
    QCOMPARE(pong.frameType, SocketIO::Pong);
    QCOMPARE(pong.packetType, -1);

    for (const Packet *p : {&event, &pong}) {
        QCOMPARE(p->nsp, QStringLiteral("/"));
        QCOMPARE(p->id, -1);
        QVERIFY(p->raw.isEmpty());
        QVERIFY(!p->data.isValid());
        QVERIFY(p->binary.isEmpty());
    }
}

void TestPacket::setEventData_data()
{
    QTest::addColumn<QVariant>("data");
    QTest::addColumn<QString>("raw");
    QTest::newRow("invalid data: the name alone") << QVariant() << R"(["a"])";
    QTest::newRow("map, compact") << QVariant(QVariantMap{{"deviceId", "dev1"}, {"flag", true}})
                                  << R"(["a",{"deviceId":"dev1","flag":true}])";
    QTest::newRow("list") << QVariant(QVariantList{1, "x"}) << R"(["a",[1,"x"]])";
    QTest::newRow("string") << QVariant(QStringLiteral("dev2")) << R"(["a","dev2"])";
    QTest::newRow("null is a value") << QVariant::fromValue(nullptr) << R"(["a",null])";
}

void TestPacket::setEventData()
{
    QFETCH(QVariant, data);
    QFETCH(QString, raw);
    Packet packet;
    packet.setEventData(QStringLiteral("a"), data);
    QCOMPARE(packet.raw, raw);
    QCOMPARE(packet.rawData(), raw);

    Packet viaEvent;
    viaEvent.setEventData(SocketIO::IOEvent{QStringLiteral("a"), data});
    QCOMPARE(viaEvent.raw, raw);

    if (!data.isValid()) {
        Packet nameOnly;
        nameOnly.setEventData(QStringLiteral("a"));
        QCOMPARE(nameOnly.raw, raw);
    }
}

void TestPacket::eventData_data()
{
    QTest::addColumn<QString>("raw");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QVariant>("data");
    QTest::newRow("name and list") << R"(["devices",[{"id":"dev1"}]])" << "devices"
                                   << QVariant(QVariantList{QVariantMap{{"id", "dev1"}}});
    QTest::newRow("name only") << R"(["flash"])" << "flash" << QVariant();
    QTest::newRow("later elements ignored") << R"(["reassign","old","new"])" << "reassign" << QVariant("old");
    QTest::newRow("object: empty event") << R"({"sid":"x"})" << "" << QVariant();
    QTest::newRow("not JSON: empty event") << R"(["a",)" << "" << QVariant();
    QTest::newRow("empty array") << "[]" << "" << QVariant();
}

void TestPacket::eventData()
{
    QFETCH(QString, raw);
    QFETCH(QString, name);
    QFETCH(QVariant, data);
    Packet packet;
    packet.raw = raw;
    const SocketIO::IOEvent event = packet.eventData();
    QCOMPARE(event.name, name);
    QCOMPARE(event.data, data);
}

void TestPacket::ackData_data()
{
    QTest::addColumn<QString>("raw");
    QTest::addColumn<QVariant>("expected");
    QTest::newRow("array") << R"([1,"x"])" << QVariant(QVariantList{1, "x"});
    QTest::newRow("object") << R"({"ok":true})" << QVariant(QVariantMap{{"ok", true}});
    QTest::newRow("not JSON") << "nope" << QVariant();
    QTest::newRow("empty") << "" << QVariant();
}

void TestPacket::ackData()
{
    QFETCH(QString, raw);
    QFETCH(QVariant, expected);
    Packet packet;
    packet.raw = raw;
    const QVariant data = packet.ackData();
    QCOMPARE(data, expected);
    QCOMPARE(data.isNull(), expected.isNull());
}

void TestPacket::ackIdsAreSharedAndConsecutive()
{
    Packet first;
    Packet second(SocketIO::Message);
    const int a = first.toAck();
    const int b = second.toAck();
    QCOMPARE(first.id, a);
    QCOMPARE(second.id, b);
    QCOMPARE(b, a + 1);
    QCOMPARE(first.toAck(), b + 1);
}

QTEST_GUILESS_MAIN(TestPacket)
#include "tst_packet.moc"
