// The station's session with the relay: alive, roster, ageing, partner numbers, commands,
// hostile datagrams. Real UDP on 127.0.0.1 through the real relay.

#include "intercomrig.h"

#include "kesthi.h"

#include <QSignalSpy>

using namespace Intercom;

namespace {

QVariantList tallies(const QSignalSpy &spy)
{
    QVariantList values;
    for (const QList<QVariant> &event : spy)
        if (event.at(0).toString() == QLatin1String("TALLY"))
            values << event.at(1);
    return values;
}

} // namespace

class TestIntercom : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void cleanup() { KestHi::setClockOffset(0); }
    void aliveAndRosterNames_data();
    void aliveAndRosterNames();
    void rosterAgeing();
    void ownEchoesIgnored();
    void partnerNumber_data();
    void partnerNumber();
    void commandsOnTheWire_data();
    void commandsOnTheWire();
    void tallyBetweenStationsAndHost();
    void incomingCommands_data();
    void incomingCommands();
    void hostileDatagrams();
};

void TestIntercom::aliveAndRosterNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("no name: 3 bytes") << QString() << QByteArray();
    QTest::newRow("UTF-8") << QStringLiteral("Kamera Süd") << QStringLiteral("Kamera Süd").toUtf8();
    // 2-byte characters: 126 of them fit in 253 bytes, half of the 127th would not.
    QTest::newRow("cut at a character") << QString(300, QChar(0xe9)) << QString(126, QChar(0xe9)).toUtf8();
}

void TestIntercom::aliveAndRosterNames()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, body);
    IntercomRig rig;
    UdpStation peer;
    QVERIFY(rig.announce(peer, 7));
    KestIntercom *st = rig.station({{"did", 5}, {"name", name}});
    QCOMPARE(st->getState(), QVariant(QVariantMap{{"list", QVariantList()}}));
    st->onTimerKeepAlive();
    QCOMPARE(peer.bytes(), datagram(5, 255, Alive, body));

    peer.sendTo(rig.port, datagram(7, 255, Alive, QStringLiteral("Régie").toUtf8()));
    const QVariantMap entry{{"id", 7}, {"talking", false}, {"name", QStringLiteral("Régie")}};
    QTRY_COMPARE(st->getState(), QVariant(QVariantMap{{"list", QVariantList{entry}}}));
}

void TestIntercom::rosterAgeing()
{
    IntercomRig rig;
    UdpStation a, b;
    KestIntercom *st = rig.station({{"did", 1}});
    QVERIFY(rig.announce(st, 1));
    a.sendTo(rig.port, datagram(7, 1, Alive, "seven"));
    b.sendTo(rig.port, datagram(8, 1, Audio, "pcm!")); // heard before any alive from 8
    QTRY_COMPARE(rosterIds(st), (QList<int>{7, 8}));

    KestHi::setClockOffset(9900 * 1000);
    st->onTimerKeepAlive();
    QCOMPARE(rosterIds(st), (QList<int>{7, 8}));
    KestHi::setClockOffset(10500 * 1000);
    st->onTimerKeepAlive();
    QCOMPARE(rosterIds(st), QList<int>{8}); // 8 has no alive time: never aged
    KestHi::setClockOffset(60 * 1000 * 1000);
    st->onTimerKeepAlive();
    QCOMPARE(rosterIds(st), QList<int>{8});

    // Once an alive arrives, it ages like any other.
    b.sendTo(rig.port, datagram(8, 1, Alive, "eight"));
    QTRY_COMPARE(st->getState().toMap().value("list").toList().value(0).toMap().value("name").toString(), QStringLiteral("eight"));
    KestHi::setClockOffset(70500 * 1000);
    st->onTimerKeepAlive();
    QCOMPARE(rosterIds(st), QList<int>());
}

void TestIntercom::ownEchoesIgnored()
{
    IntercomRig rig;
    KestIntercom *st = rig.station({{"did", 3}, {"tid", 3}, {"vad", 0}});
    QVERIFY(rig.announce(st, 3));
    QSignalSpy events(st, &KestObject::eventSent);
    // The relay sends both straight back: the destination is the sender itself.
    st->onNewPacketA(rig.local("echo"));
    QVERIFY(st->sendCmd(QVariantMap{{"tid", 3}, {"func", "TALLY"}, {"data", 1}}).toBool());
    UdpStation peer;
    peer.sendTo(rig.port, datagram(9, 3, Alive, "after the echoes"));
    QTRY_COMPARE(rosterIds(st), QList<int>{9});
    QCOMPARE(events.count(), 0);
}

void TestIntercom::partnerNumber_data()
{
    QTest::addColumn<int>("tid");
    QTest::addColumn<QList<int>>("reached");
    QTest::newRow("partner 2") << 2 << QList<int>{2};
    QTest::newRow("255: everybody else") << 255 << QList<int>{0, 2, 7};
    QTest::newRow("256 is 0") << 256 << QList<int>{0};
}

void TestIntercom::partnerNumber()
{
    QFETCH(int, tid);
    QFETCH(QList<int>, reached);
    IntercomRig rig;
    UdpStation s0, s2, s7;
    QVERIFY(rig.announce(s0, 0) && rig.announce(s2, 2) && rig.announce(s7, 7));
    KestIntercom *st = rig.station({{"did", 1}, {"tid", tid}, {"vad", 0}});
    st->onNewPacketA(rig.local("abc"));
    const std::pair<int, UdpStation *> peers[] = {{0, &s0}, {2, &s2}, {7, &s7}};
    for (const auto &[number, peer] : peers) {
        if (reached.contains(number))
            QCOMPARE(peer->bytes(), datagram(1, quint8(tid), Audio, "abc"));
        else
            QVERIFY2(peer->silent(), qPrintable(QString::number(number)));
    }
}

void TestIntercom::commandsOnTheWire_data()
{
    QTest::addColumn<QVariantMap>("command");
    QTest::addColumn<int>("destination");
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("to station 4") << QVariantMap{{"tid", 4}, {"func", "TALLY"}, {"data", 1}} << 4
                                  << QByteArray(R"({"data":1,"func":"TALLY"})");
    QTest::newRow("no tid: station 0") << QVariantMap{{"func", "TALLY"}, {"data", 2}} << 0 << QByteArray(R"({"data":2,"func":"TALLY"})");
    QTest::newRow("beyond Latin-1 escaped") << QVariantMap{{"tid", 4}, {"func", "note"}, {"data", QStringLiteral("Süd 日本")}} << 4
                                            << QByteArray("{\"data\":\"S\xfc" "d \\u65e5\\u672c\",\"func\":\"note\"}");
}

void TestIntercom::commandsOnTheWire()
{
    QFETCH(QVariantMap, command);
    QFETCH(int, destination);
    QFETCH(QByteArray, body);
    IntercomRig rig;
    UdpStation s0, s4;
    QVERIFY(rig.announce(s0, 0) && rig.announce(s4, 4));
    KestIntercom *st = rig.station({{"did", 6}});
    QCOMPARE(st->sendCmd(command), QVariant(true));
    QCOMPARE((destination == 4 ? s4 : s0).bytes(), datagram(6, quint8(destination), Command, body));
    QCOMPARE(st->sendCmd(QStringLiteral("TALLY")), QVariant(false)); // not a map
}

void TestIntercom::tallyBetweenStationsAndHost()
{
    IntercomRig rig;
    KestIntercom *a = rig.station({{"did", 1}});
    KestIntercom *b = rig.station({{"did", 2}});
    QVERIFY(rig.announce(a, 1) && rig.announce(b, 2));
    QSignalSpy aEvents(a, &KestObject::eventSent), bEvents(b, &KestObject::eventSent);
    a->onNewEvent(QStringLiteral("tally"), 4); // names are case-sensitive
    a->stop();
    a->onNewEvent(QStringLiteral("TALLY"), 5); // a stopped station ignores events
    a->start();
    const QVariantList tally{1, 0};
    a->onNewEvent(QStringLiteral("TALLY"), tally);
    QTRY_COMPARE(tallies(bEvents), QVariantList{QVariant(tally)});
    QCOMPARE(tallies(aEvents), QVariantList{QVariant(tally)});
}

void TestIntercom::incomingCommands_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QVariantList>("values");
    QTest::newRow("TALLY") << QByteArray(R"({"func":"TALLY","data":3})") << QVariantList{3, 99};
    QTest::newRow("up to the zero byte") << QByteArray("{\"func\":\"TALLY\",\"data\":4}\0{junk", 31) << QVariantList{4, 99};
    QTest::newRow("Latin-1 text") << QByteArray("{\"func\":\"TALLY\",\"data\":\"S\xfc" "d\"}") << QVariantList{QStringLiteral("Süd"), 99};
    QTest::newRow("not JSON") << QByteArray("TALLY 5") << QVariantList{99};
    QTest::newRow("other function") << QByteArray(R"({"func":"tally","data":6})") << QVariantList{99};
}

void TestIntercom::incomingCommands()
{
    QFETCH(QByteArray, body);
    IntercomRig rig;
    UdpStation peer;
    KestIntercom *st = rig.station({{"did", 1}});
    QVERIFY(rig.announce(st, 1));
    QSignalSpy events(st, &KestObject::eventSent);
    peer.sendTo(rig.port, datagram(6, 1, Command, body));
    peer.sendTo(rig.port, datagram(6, 1, Command, R"({"func":"TALLY","data":99})"));
    QFETCH(QVariantList, values);
    QTRY_COMPARE(tallies(events), values);
}

void TestIntercom::hostileDatagrams()
{
    IntercomRig rig;
    UdpStation peer, listener;
    KestIntercom *st = rig.station({{"did", 9}, {"buf", 8}});
    QVERIFY(rig.announce(st, 9) && rig.announce(listener, 200));

    // Shorter than a header: the missing type reads as audio with an empty body.
    peer.sendTo(rig.port, QByteArray("\x05\x09", 2));
    peer.sendTo(rig.port, QByteArray("\x06\x09\x00", 3));
    peer.sendTo(rig.port, datagram(7, 9, 0x7f, "unknown type"));
    for (int i = 0; i < 30; ++i)
        peer.sendTo(rig.port, datagram(8, 9, Audio, voiceFrame(i, 0)));
    peer.sendTo(rig.port, datagram(10, 9, Alive, "last"));
    QTRY_COMPARE(rosterIds(st), (QList<int>{5, 6, 7, 8, 10}));
    QCOMPARE(st->queuedFrames(5) + st->queuedFrames(6) + st->queuedFrames(7), 0);
    QCOMPARE(st->queuedFrames(8), 16); // 2 x "buf"

    // A stopped station drops what arrives. Broadcasts reach 9 before 200.
    st->stop();
    peer.sendTo(rig.port, datagram(11, 255, Alive, "while stopped"));
    QVERIFY(listener.receive());
    st->onRead();
    st->start();
    QVERIFY(!rosterIds(st).contains(11));

    // Every other station number at once (9 would make the relay file the peer as 9).
    for (int n = 0; n < 256; ++n)
        if (n != 9)
            peer.sendTo(rig.port, datagram(quint8(n), 9, Alive, QByteArray::number(n)));
    QTRY_COMPARE(rosterIds(st).size(), 255);
    QCOMPARE(st->getState().toMap().value("list").toList().last().toMap().value("name").toString(), QStringLiteral("255"));
}

QTEST_GUILESS_MAIN(TestIntercom)
#include "tst_intercom.moc"
