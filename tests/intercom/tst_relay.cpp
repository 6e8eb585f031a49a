#include "udpstation.h"

#include "intercom/datagram.h"
#include "kesthi.h"

#include <QTest>

#include <memory>

class TestRelay : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init();
    void cleanup();
    void broadcastGoesToOthersInAscendingOrder();
    void unknownDestinationDroppedSenderRecorded();
    void stationThatChangesPortIsFollowed();
    void datagramToItsOwnSender();
    void shortDatagrams();
    void largestDatagramRelayedUnchanged();
    void burstArrivesCompleteAndInOrder();
    void silentStationsAgeOut();
    void stopAndStartKeepTheTable();

private:
    // Makes the relay record `station` at `from`'s address; the datagram goes nowhere.
    void announce(const UdpStation &from, quint8 station)
    {
        from.sendTo(port, datagram(station, 254, Intercom::Alive));
        QTRY_VERIFY(relay->stations().contains(station));
    }

    quint16 port = 0;
    std::unique_ptr<RelayThread> relay;
};

void TestRelay::init()
{
    port = freeUdpPort();
    relay = std::make_unique<RelayThread>(port);
}

void TestRelay::cleanup()
{
    relay.reset();
    KestHi::setClockOffset(0);
}

void TestRelay::broadcastGoesToOthersInAscendingOrder()
{
    UdpStation s1, s3, s5, s7;
    // Recorded out of numeric order: the fan-out must still go by station number.
    announce(s7, 7);
    announce(s3, 3);
    announce(s5, 5);
    announce(s1, 1);

    const QByteArray audio = datagram(3, Intercom::kBroadcast, Intercom::Audio, "pcm-bytes");
    s3.sendTo(port, audio);
    const auto at1 = s1.receive(2000), at5 = s5.receive(2000), at7 = s7.receive(2000);
    QVERIFY(at1 && at5 && at7);
    QCOMPARE(at1->bytes, audio);
    QCOMPARE(at5->bytes, audio);
    QCOMPARE(at7->bytes, audio);
    QVERIFY(at1->stampNs < at5->stampNs);
    QVERIFY(at5->stampNs < at7->stampNs);
    QVERIFY(s3.silent());
}

void TestRelay::unknownDestinationDroppedSenderRecorded()
{
    UdpStation s4, s9;
    s4.sendTo(port, datagram(4, 6, Intercom::Audio, "lost"));
    QTRY_COMPARE(relay->stations(), QList<int>{4});
    QVERIFY(s4.silent());
    // Station 4 is reachable now, although its first datagram went nowhere.
    s9.sendTo(port, datagram(9, 4, Intercom::Command, "{}"));
    const auto got = s4.receive(2000);
    QVERIFY(got);
    QCOMPARE(got->bytes, datagram(9, 4, Intercom::Command, "{}"));
}

void TestRelay::stationThatChangesPortIsFollowed()
{
    UdpStation before, after, partner;
    announce(before, 2);
    announce(partner, 8);
    after.sendTo(port, datagram(2, 254, Intercom::Alive, "restarted"));
    const auto stationPort = [this] {
        quint16 p = 0;
        relay->run([&] { p = relay->relay->stationPort(2); });
        return p;
    };
    QTRY_COMPARE(stationPort(), after.port());
    partner.sendTo(port, datagram(8, 2, Intercom::Audio, "x"));
    QVERIFY(after.receive(2000));
    QVERIFY(before.silent());
}

void TestRelay::datagramToItsOwnSender()
{
    UdpStation s5;
    const QByteArray toSelf = datagram(5, 5, Intercom::Audio, "echo");
    s5.sendTo(port, toSelf);
    const auto got = s5.receive(2000);
    QVERIFY(got);
    QCOMPARE(got->bytes, toSelf);
}

void TestRelay::shortDatagrams()
{
    UdpStation zero, other;
    // An empty datagram is filed under station 0 and addressed to station 0: itself.
    zero.sendTo(port, QByteArray());
    const auto echoed = zero.receive(2000);
    QVERIFY(echoed);
    QCOMPARE(echoed->bytes, QByteArray());
    QCOMPARE(relay->stations(), QList<int>{0});

    // One byte: source 6, destination reads as 0.
    other.sendTo(port, QByteArray("\x06", 1));
    const auto toZero = zero.receive(2000);
    QVERIFY(toZero);
    QCOMPARE(toZero->bytes, QByteArray("\x06", 1));

    // Two bytes: a broadcast from 6 reaches station 0 only.
    other.sendTo(port, QByteArray("\x06\xff", 2));
    const auto broadcast = zero.receive(2000);
    QVERIFY(broadcast);
    QCOMPARE(broadcast->bytes, QByteArray("\x06\xff", 2));
    QVERIFY(other.silent());
    QCOMPARE(relay->stations(), (QList<int>{0, 6}));
}

void TestRelay::largestDatagramRelayedUnchanged()
{
    UdpStation a, b;
    announce(b, 2);
    QByteArray body(65507 - Intercom::kHeaderSize, Qt::Uninitialized);
    for (int i = 0; i < body.size(); ++i)
        body[i] = char(i * 7 + 3);
    const QByteArray big = datagram(1, 2, Intercom::Audio, body);
    QCOMPARE(big.size(), 65507);
    a.sendTo(port, big);
    const auto got = b.receive(2000);
    QVERIFY(got);
    QCOMPARE(got->bytes.size(), 65507);
    QVERIFY(got->bytes == big);
}

void TestRelay::burstArrivesCompleteAndInOrder()
{
    // More datagrams than one read takes at once, from two senders interleaved.
    UdpStation a, b, sink;
    announce(sink, 3);
    constexpr int kCount = 2000;
    for (int i = 0; i < kCount; ++i) {
        const QByteArray n = QByteArray::number(i);
        a.sendTo(port, datagram(1, 3, Intercom::Audio, "a" + n));
        b.sendTo(port, datagram(2, 3, Intercom::Audio, "b" + n));
    }
    int nextA = 0, nextB = 0;
    while (nextA + nextB < 2 * kCount) {
        const auto got = sink.receive(2000);
        QVERIFY2(got, qPrintable(QStringLiteral("stopped after %1 + %2").arg(nextA).arg(nextB)));
        const QByteArray body = got->bytes.mid(Intercom::kHeaderSize);
        if (body.startsWith('a'))
            QCOMPARE(body.mid(1).toInt(), nextA++);
        else
            QCOMPARE(body.mid(1).toInt(), nextB++);
    }
}

void TestRelay::silentStationsAgeOut()
{
    UdpStation old, fresh, listener;
    announce(old, 1);
    announce(listener, 9);
    // 9.9 s later station 1 is still there; station 2 is heard now.
    KestHi::setClockOffset(9900 * 1000);
    announce(fresh, 2);
    relay->run([this] { relay->relay->onTimerAlive(); });
    QCOMPARE(relay->stations(), (QList<int>{1, 2, 9}));

    // 10.5 s after it was heard, station 1 goes at the next tick; 2 (0.6 s) stays.
    KestHi::setClockOffset(10500 * 1000);
    relay->run([this] { relay->relay->onTimerAlive(); });
    QCOMPARE(relay->stations(), (QList<int>{2}));

    // Its partner now reaches nothing, until station 1 is heard again.
    fresh.sendTo(port, datagram(2, 1, Intercom::Audio, "x"));
    QVERIFY(old.silent());
    announce(old, 1);
    fresh.sendTo(port, datagram(2, 1, Intercom::Audio, "y"));
    QVERIFY(old.receive(2000));
}

void TestRelay::stopAndStartKeepTheTable()
{
    UdpStation s1, s2;
    announce(s1, 1);
    announce(s2, 2);
    relay->run([this] { relay->relay->stop(); });
    s1.sendTo(port, datagram(1, 2, Intercom::Audio, "while stopped"));
    QVERIFY(s2.silent());
    relay->run([this] { relay->relay->start(); });
    QCOMPARE(relay->stations(), (QList<int>{1, 2}));
    s1.sendTo(port, datagram(1, 2, Intercom::Audio, "after restart"));
    const auto got = s2.receive(2000);
    QVERIFY(got);
    QCOMPARE(got->bytes, datagram(1, 2, Intercom::Audio, "after restart"));
}

QTEST_GUILESS_MAIN(TestRelay)
#include "tst_relay.moc"
