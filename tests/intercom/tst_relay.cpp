// The datagram header as a pure unit, and the relay on real UDP sockets on 127.0.0.1.

#include "intercomrig.h"

#include "kesthi.h"

using namespace Intercom;

class TestRelay : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init() { rig = std::make_unique<IntercomRig>(); }
    void cleanup()
    {
        rig.reset();
        KestHi::setClockOffset(0);
    }
    void headerOfShortDatagrams_data();
    void headerOfShortDatagrams();
    void broadcastGoesToOthersInAscendingOrder();
    void unknownDestinationDroppedSenderRecorded();
    void stationThatChangesPortIsFollowed();
    void shortDatagrams();
    void largestDatagramAndBurstsRelayedUnchanged();
    void silentStationsAgeOut();
    void stopAndStartKeepTheTable();

private:
    std::unique_ptr<IntercomRig> rig;
};

void TestRelay::headerOfShortDatagrams_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QByteArray>("header"); // source, destination, type
    QTest::addColumn<int>("bodySize");
    QTest::newRow("empty") << QByteArray() << QByteArray(3, '\0') << 0;
    QTest::newRow("one byte") << QByteArray("\x07", 1) << QByteArray("\x07\0\0", 3) << 0;
    QTest::newRow("two bytes") << QByteArray("\x07\xff", 2) << QByteArray("\x07\xff\0", 3) << 0;
    QTest::newRow("with body") << QByteArray("\xfe\x01\x02zz", 5) << QByteArray("\xfe\x01\x02", 3) << 2;
}

void TestRelay::headerOfShortDatagrams()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QByteArray, header);
    // An exactly sized heap block: the sanitizer build catches any read beyond it.
    std::unique_ptr<char[]> exact(new char[size_t(bytes.size())]);
    std::copy(bytes.begin(), bytes.end(), exact.get());
    const Header h = readHeader(exact.get(), bytes.size());
    QCOMPARE(QByteArray() + char(h.source) + char(h.destination) + char(h.type), header);
    const Body b = body(exact.get(), bytes.size());
    QTEST(b.size, "bodySize");
    if (b.size > 0)
        QCOMPARE(static_cast<const void *>(b.data), static_cast<const void *>(exact.get() + kHeaderSize));
}

void TestRelay::broadcastGoesToOthersInAscendingOrder()
{
    UdpStation s1, s3, s5, s7;
    // Recorded out of numeric order: the fan-out must still go by station number.
    QVERIFY(rig->announce(s7, 7) && rig->announce(s3, 3) && rig->announce(s5, 5) && rig->announce(s1, 1));
    const QByteArray audio = datagram(3, kBroadcast, Audio, "pcm-bytes");
    s3.sendTo(rig->port, audio);
    const auto at1 = s1.receive(), at5 = s5.receive(), at7 = s7.receive();
    QVERIFY(at1 && at5 && at7);
    QCOMPARE(QByteArrayList({at1->bytes, at5->bytes, at7->bytes}), QByteArrayList({audio, audio, audio}));
    QVERIFY(at1->stampNs < at5->stampNs && at5->stampNs < at7->stampNs);
    QVERIFY(s3.silent());
}

void TestRelay::unknownDestinationDroppedSenderRecorded()
{
    UdpStation s4, s9;
    s4.sendTo(rig->port, datagram(4, 6, Audio, "lost"));
    QTRY_COMPARE(rig->relay.stations(), QList<int>{4});
    QVERIFY(s4.silent());
    // Station 4 is reachable now, although its first datagram went nowhere; so is 9 from itself.
    s9.sendTo(rig->port, datagram(9, 4, Command, "{}"));
    QCOMPARE(s4.bytes(), datagram(9, 4, Command, "{}"));
    s9.sendTo(rig->port, datagram(9, 9, Audio, "echo"));
    QCOMPARE(s9.bytes(), datagram(9, 9, Audio, "echo"));
}

void TestRelay::stationThatChangesPortIsFollowed()
{
    UdpStation before, after, partner;
    QVERIFY(rig->announce(before, 2) && rig->announce(partner, 8));
    after.sendTo(rig->port, datagram(2, 254, Alive, "restarted"));
    const auto stationPort = [this] {
        quint16 p = 0;
        rig->relay.run([&] { p = rig->relay.relay->stationPort(2); });
        return p;
    };
    QTRY_COMPARE(stationPort(), after.port());
    partner.sendTo(rig->port, datagram(8, 2, Audio, "x"));
    QCOMPARE(after.bytes(), datagram(8, 2, Audio, "x"));
    QVERIFY(before.silent());
}

void TestRelay::shortDatagrams()
{
    UdpStation zero, other;
    // An empty datagram is filed under station 0 and addressed to station 0: itself.
    zero.sendTo(rig->port, QByteArray());
    QCOMPARE(zero.bytes(), QByteArray());
    // One byte: source 6, destination 0. Two bytes: a broadcast from 6 reaches station 0 only.
    other.sendTo(rig->port, QByteArray("\x06", 1));
    QCOMPARE(zero.bytes(), QByteArray("\x06", 1));
    other.sendTo(rig->port, QByteArray("\x06\xff", 2));
    QCOMPARE(zero.bytes(), QByteArray("\x06\xff", 2));
    QVERIFY(other.silent());
    QCOMPARE(rig->relay.stations(), (QList<int>{0, 6}));
}

void TestRelay::largestDatagramAndBurstsRelayedUnchanged()
{
    UdpStation a, b, sink;
    QVERIFY(rig->announce(sink, 3));
    QByteArray body(65507 - kHeaderSize, Qt::Uninitialized);
    for (int i = 0; i < body.size(); ++i)
        body[i] = char(i * 7 + 3);
    a.sendTo(rig->port, datagram(1, 3, Audio, body));
    QVERIFY(sink.bytes() == datagram(1, 3, Audio, body));
    // Bursts of more datagrams than one read takes, from two senders interleaved, small enough
    // for the socket buffers of a busy machine.
    int next[2] = {0, 0};
    for (int burst = 1; burst <= 5; ++burst) {
        for (int i = (burst - 1) * 100; i < burst * 100; ++i) {
            a.sendTo(rig->port, datagram(1, 3, Audio, "a" + QByteArray::number(i)));
            b.sendTo(rig->port, datagram(2, 3, Audio, "b" + QByteArray::number(i)));
        }
        while (next[0] + next[1] < burst * 200) {
            const auto got = sink.receive();
            QVERIFY2(got, qPrintable(QStringLiteral("stopped after %1 + %2").arg(next[0]).arg(next[1])));
            const int from = got->bytes.at(kHeaderSize) == 'a' ? 0 : 1;
            QCOMPARE(got->bytes.mid(kHeaderSize + 1).toInt(), next[from]++);
        }
    }
}

void TestRelay::silentStationsAgeOut()
{
    UdpStation old, fresh, listener;
    QVERIFY(rig->announce(old, 1) && rig->announce(listener, 9));
    const auto tickAt = [this](qint64 ms) {
        KestHi::setClockOffset(ms * 1000);
        rig->relay.run([this] { rig->relay.relay->onTimerAlive(); });
    };
    // 9.9 s later station 1 is still there; station 2 is heard now.
    KestHi::setClockOffset(9900 * 1000);
    QVERIFY(rig->announce(fresh, 2));
    tickAt(9900);
    QCOMPARE(rig->relay.stations(), (QList<int>{1, 2, 9}));
    // 10.5 s after it was heard, station 1 goes; 2 (0.6 s) stays.
    tickAt(10500);
    QCOMPARE(rig->relay.stations(), QList<int>{2});
    fresh.sendTo(rig->port, datagram(2, 1, Audio, "x"));
    QVERIFY(old.silent());
    QVERIFY(rig->announce(old, 1));
    fresh.sendTo(rig->port, datagram(2, 1, Audio, "y"));
    QCOMPARE(old.bytes(), datagram(2, 1, Audio, "y"));
}

void TestRelay::stopAndStartKeepTheTable()
{
    UdpStation s1, s2;
    QVERIFY(rig->announce(s1, 1) && rig->announce(s2, 2));
    rig->relay.run([this] { rig->relay.relay->stop(); });
    s1.sendTo(rig->port, datagram(1, 2, Audio, "while stopped"));
    QVERIFY(s2.silent());
    rig->relay.run([this] { rig->relay.relay->start(); });
    QCOMPARE(rig->relay.stations(), (QList<int>{1, 2}));
    s1.sendTo(rig->port, datagram(1, 2, Audio, "after restart"));
    QCOMPARE(s2.bytes(), datagram(1, 2, Audio, "after restart"));
}

QTEST_GUILESS_MAIN(TestRelay)
#include "tst_relay.moc"
