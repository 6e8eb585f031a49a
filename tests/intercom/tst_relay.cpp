// The relay on real UDP sockets: forwarding by station number and broadcast, following a station
// to a new address, ageing, restart.

#include "intercomrig.h"

using namespace Intercom;

class TestRelay : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void forwarding();
    void ageingAndRestart();
};

void TestRelay::forwarding()
{
    IntercomRig rig;
    UdpStation s1, s3, s5, moved;
    QVERIFY(rig.announce(s5, 5) && rig.announce(s3, 3) && rig.announce(s1, 1));
    const QByteArray all = datagram(3, kBroadcast, Audio, "to all");
    s3.sendTo(rig.port, all);
    QCOMPARE(s1.bytes() + s5.bytes(), all + all);
    QVERIFY(s3.silent()); // not back to the sender
    // Station 3 restarts on another port: the relay follows it there.
    moved.sendTo(rig.port, datagram(3, 1, Alive, "restarted"));
    QCOMPARE(s1.bytes(), datagram(3, 1, Alive, "restarted"));
    s5.sendTo(rig.port, datagram(5, 3, Command, "{}"));
    QCOMPARE(moved.bytes(), datagram(5, 3, Command, "{}"));
    QVERIFY(s3.silent());
    QCOMPARE(rig.relay.stationPort(3), moved.localPort());
}

void TestRelay::ageingAndRestart()
{
    IntercomRig rig;
    UdpStation old, fresh;
    QVERIFY(rig.announce(old, 1));
    KestHi::setClockOffset(9900 * 1000);
    QVERIFY(rig.announce(fresh, 2));
    // 10.5 s after it was last heard, station 1 is forgotten; 2, heard 0.6 s ago, stays.
    KestHi::setClockOffset(10500 * 1000);
    rig.relay.onTimerAlive();
    QCOMPARE(rig.relay.stations(), QList<int>{2});
    // A restart keeps the table.
    rig.relay.stop();
    rig.relay.start();
    fresh.sendTo(rig.port, datagram(2, 2, Audio, "to itself"));
    QCOMPARE(fresh.bytes(), datagram(2, 2, Audio, "to itself"));
}

QTEST_GUILESS_MAIN(TestRelay)
#include "tst_relay.moc"
