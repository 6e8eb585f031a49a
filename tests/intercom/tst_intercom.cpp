// The station, over real UDP on 127.0.0.1 through the real relay: session and roster, partner
// numbers, commands, hostile datagrams; the audio path: level measure, voice gate, headset keys
// (a FIFO stands in for the input device; unplugging is the file going away), jitter buffer,
// mixing.

#include "intercomrig.h"

#include "intercom/pcm.h"
#include "kesthi.h"

#include <QSignalSpy>
#include <QTemporaryDir>

#include <csignal>

#include <fcntl.h>
#include <linux/input.h>
#include <sys/stat.h>

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

// An exactly sized heap copy, so that the sanitizer build catches any read beyond a frame.
struct Exact
{
    explicit Exact(const QByteArray &bytes) : data(new char[size_t(bytes.size())]), len(bytes.size())
    {
        std::memcpy(data.get(), bytes.constData(), size_t(len));
    }
    Packet packet() const
    {
        Packet p;
        p.data = data.get();
        p.len = len;
        return p;
    }
    QByteArray bytes() const { return QByteArray(data.get(), len); }
    std::unique_ptr<char[]> data;
    int len;
};

QByteArray frame(int bits, int samples, int value)
{
    return bits == 8 ? QByteArray(samples, char(value)) : samples16(std::vector<qint16>(size_t(samples), qint16(value)));
}

// Scan code, key and synchronisation records, as a headset key arrives.
QByteArray keyBlock(int value)
{
    input_event records[3]{};
    records[0].input_event_sec = 1700000000; // the names that exist with 32- and 64-bit time
    records[0].input_event_usec = 250000;
    records[0].type = EV_MSC;
    records[0].code = MSC_SCAN;
    records[0].value = 0xc00e9;
    records[1].type = EV_KEY;
    records[1].code = KEY_VOLUMEUP;
    records[1].value = value;
    records[2].type = EV_SYN;
    return QByteArray(reinterpret_cast<const char *>(records), sizeof(records));
}

bool writeAll(int fd, const QByteArray &bytes)
{
    return ::write(fd, bytes.constData(), size_t(bytes.size())) == bytes.size();
}

StreamInfo pcmInfo(int bits, QObject *source)
{
    StreamInfo info;
    info.params = {{"samplerate", 48000}, {"channels", 1}, {"bitwidth", bits}, {"frame_size", 480}};
    info.source = source;
    return info;
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
    void levelMeasure_data();
    void levelMeasure();
    void mix_data();
    void mix();
    void gateOpensWithPreRollAndClosesAfterHangOver();
    void vadZeroAndNegative();
    void headsetKeys();
    void jitterBufferAndQueueBound();
    void stationsMixedInPlace_data();
    void stationsMixedInPlace();
};

void TestIntercom::aliveAndRosterNames_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("body");
    QTest::newRow("no name: 3 bytes") << QString() << QByteArray();
    QTest::newRow("UTF-8") << QStringLiteral("Kamera Süd") << QStringLiteral("Kamera Süd").toUtf8();
    QTest::newRow("ASCII over") << QString(300, 'a') << QByteArray(253, 'a');
    // Cut before a character that would end beyond byte 253.
    QTest::newRow("2-byte characters") << QString(300, QChar(0xe9)) << QString(126, QChar(0xe9)).toUtf8();
    QTest::newRow("3-byte character across the limit") << QString(251, 'a') + QStringLiteral("€") << QByteArray(251, 'a');
    const QString mic = QString::fromUtf8("\xF0\x9F\x8E\xA4");
    QTest::newRow("4-byte characters") << mic.repeated(80) << mic.repeated(63).toUtf8();
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
    const auto tickAt = [st](qint64 ms) {
        KestHi::setClockOffset(ms * 1000);
        st->onTimerKeepAlive();
        return rosterIds(st);
    };
    QCOMPARE(tickAt(9900), (QList<int>{7, 8}));
    QCOMPARE(tickAt(10500), QList<int>{8}); // 8 has no alive time: never aged
    QCOMPARE(tickAt(60000), QList<int>{8});
    // Once an alive arrives, it ages like any other.
    b.sendTo(rig.port, datagram(8, 1, Alive, "eight"));
    QTRY_COMPARE(st->getState().toMap().value("list").toList().value(0).toMap().value("name").toString(), QStringLiteral("eight"));
    QCOMPARE(tickAt(70500), QList<int>());
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
    QTest::newRow("up to the zero byte") << QByteArray("{\"func\":\"TALLY\",\"data\":4}\0{junk", 31) << QVariantList{4, 99};
    QTest::newRow("Latin-1 text") << QByteArray("{\"func\":\"TALLY\",\"data\":\"S\xfc" "d\"}") << QVariantList{QStringLiteral("Süd"), 99};
    QTest::newRow("not JSON") << QByteArray("TALLY 5") << QVariantList{99};
    QTest::newRow("repeated keys: the last wins")
        << QByteArray(R"({"func":[1,2,3],"func":{"x":[1]},"func":"TALLY","data":[1],"data":2})") << QVariantList{2, 99};
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

void TestIntercom::levelMeasure_data()
{
    QTest::addColumn<int>("bits");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("level"); // dB of the loudest sample looked at, truncated
    std::vector<qint16> s(480, 0);
    s[1] = 32767; // between the samples looked at
    QTest::newRow("16: loud sample not looked at") << 16 << samples16(s) << 0;
    s[420] = -1000; // the eighth sample looked at
    QTest::newRow("16: eighth sample") << 16 << samples16(s) << 60;
    QTest::newRow("16: 15 is 23.5 dB") << 16 << frame(16, 480, 15) << 23;
    QTest::newRow("16: -32768") << 16 << frame(16, 480, -32768) << 90;
    QTest::newRow("16: 16 bytes") << 16 << frame(16, 8, 1000) << 60;
    QTest::newRow("16: 15 bytes: silence") << 16 << frame(16, 8, 1000).left(15) << 0;
    QTest::newRow("8: top") << 8 << frame(8, 480, 255) << 42 * 8;
    QTest::newRow("8: bottom, 8 bytes") << 8 << frame(8, 8, 0) << 42 * 8;
    QTest::newRow("8: 7 bytes: silence") << 8 << frame(8, 7, 0) << 0;
}

void TestIntercom::levelMeasure()
{
    QFETCH(int, bits);
    QFETCH(QByteArray, bytes);
    const Exact exact(bytes);
    QTEST(bits == 8 ? level8(exact.data.get(), exact.len) : level16(exact.data.get(), exact.len), "level");
}

void TestIntercom::mix_data()
{
    QTest::addColumn<int>("bits");
    QTest::addColumn<int>("a");
    QTest::addColumn<int>("b");
    QTest::addColumn<int>("mixed");
    QTest::addColumn<int>("samplesA"); // 40 samples: whole blocks of the vector loop and a tail
    QTest::addColumn<int>("samplesB");
    QTest::newRow("16: two positive") << 16 << 1000 << 1000 << 1985 << 40 << 40;
    QTest::newRow("16: two negative") << 16 << -1000 << -1000 << -1985 << 40 << 40;
    QTest::newRow("16: one silent") << 16 << 0 << -5 << -5 << 40 << 40;
    QTest::newRow("16: loud pair wraps") << 16 << 32767 << 32767 << -16385 << 40 << 40;
    QTest::newRow("16: negative pair wraps") << 16 << -32768 << -32768 << 16384 << 40 << 40;
    QTest::newRow("8: two positive") << 8 << 50 << 50 << 91 << 40 << 40;
    QTest::newRow("8: two negative") << 8 << -50 << -50 << -91 << 40 << 40;
    QTest::newRow("8: loud pair wraps") << 8 << 127 << 127 << -65 << 40 << 40;
    // Mixed where both reach, the longer alone after that, silence past both.
    QTest::newRow("16: second source short") << 16 << 1000 << 1000 << 1985 << 40 << 21;
    QTest::newRow("8: first source short") << 8 << 50 << 50 << 91 << 21 << 40;
    QTest::newRow("16: both short") << 16 << 1000 << 1000 << 1985 << 30 << 21;
}

void TestIntercom::mix()
{
    QFETCH(int, bits);
    QFETCH(int, a);
    QFETCH(int, mixed);
    QFETCH(int, samplesA);
    QFETCH(int, samplesB);
    QFETCH(int, b);
    const Exact src1(frame(bits, samplesA, a)), src2(frame(bits, samplesB, b)), dst(frame(bits, 40, 77));
    KestIntercom st;
    const auto mixInto = [&](const Exact &out) {
        bits == 8 ? st.mix8(src1.packet(), src2.packet(), out.packet()) : st.mix(src1.packet(), src2.packet(), out.packet());
    };
    mixInto(dst);
    const int shorter = qMin(samplesA, samplesB), longer = qMax(samplesA, samplesB);
    QCOMPARE(dst.bytes(), frame(bits, shorter, mixed) + frame(bits, longer - shorter, a) + frame(bits, 40 - longer, 0));
    if (samplesA == samplesB) {
        mixInto(src1); // in place, as the mixing step does it
        QCOMPARE(src1.bytes(), frame(bits, 40, mixed));
    }
}

void TestIntercom::gateOpensWithPreRollAndClosesAfterHangOver()
{
    IntercomRig rig;
    UdpStation partner;
    QVERIFY(rig.announce(partner, 7));
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 7}, {"vad", 50}, {"buf", 8}, {"bufLenA", 8}});
    int sequence = 0;
    const auto feed = [&](int count, qint16 level) {
        for (int i = 0; i < count; ++i)
            st->onNewPacketA(rig.local(voiceFrame(sequence++, level)));
        return st->isGateOpen();
    };
    QVERIFY(!feed(10, 100));  // 40 dB: quiet
    QVERIFY(!feed(2, 10000)); // 80 dB: two voiced packets of the last 8 are not enough
    QVERIFY(feed(1, 10000));  // the third opens the gate
    QVERIFY(feed(1, 10000));
    // The hang-over: the gate closes once 161 quiet decisions follow the last voiced one.
    QVERIFY(feed(160, 100));
    QVERIFY(!feed(1, 100));
    feed(3, 100);
    // Pre-roll: the 8 packets up to the opening one, oldest first; then everything up to the
    // closing packet.
    for (int expected = 5; expected <= 174; ++expected) {
        const QByteArray got = partner.bytes();
        QCOMPARE(got.left(3), QByteArray("\x01\x07\x00", 3));
        QCOMPARE(sequenceOf(got), expected);
    }
    QVERIFY(partner.silent());
}

void TestIntercom::vadZeroAndNegative()
{
    IntercomRig rig;
    UdpStation partner;
    QVERIFY(rig.announce(partner, 7));
    // 0: everything goes, and nothing is kept for a pre-roll when the gate takes over.
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 7}, {"vad", 0}});
    for (int i = 0; i < 10; ++i)
        st->onNewPacketA(rig.local(voiceFrame(i, 0)));
    st->setData({{"vad", 50}});
    for (int i = 10; i < 13; ++i)
        st->onNewPacketA(rig.local(voiceFrame(i, 10000)));
    // -1: never opens by itself, however loud.
    KestIntercom *off = rig.station({{"did", 2}, {"tid", 7}, {"vad", -1}});
    for (int i = 0; i < 20; ++i)
        off->onNewPacketA(rig.local(voiceFrame(i, 10000)));
    QVERIFY(!off->isGateOpen());
    for (int expected = 0; expected < 13; ++expected)
        QCOMPARE(sequenceOf(partner.bytes()), expected);
    QVERIFY(partner.silent());
}

void TestIntercom::headsetKeys()
{
    std::signal(SIGPIPE, SIG_IGN); // a write that nobody reads fails with EPIPE instead
    QTemporaryDir dir;
    const QByteArray path = QFile::encodeName(dir.filePath(QStringLiteral("event0")));
    QCOMPARE(::mkfifo(path.constData(), 0600), 0);
    IntercomRig rig;
    UdpStation partner;
    QVERIFY(rig.announce(partner, 7));
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 7}, {"vad", -1}, {"buf", 8}, {"hid", QString::fromUtf8(path)}});
    QVERIFY(st->isHeadsetOpen());
    int writer = ::open(path.constData(), O_WRONLY | O_NONBLOCK);
    QVERIFY(writer >= 0);

    // Press and repeat do nothing; the station has read them when the pipe is empty.
    QVERIFY(writeAll(writer, keyBlock(1) + keyBlock(2)));
    QTRY_VERIFY([writer] { int n = -1; ::ioctl(writer, FIONREAD, &n); return n == 0; }());
    QVERIFY(!st->isGateOpen());
    st->onNewPacketA(rig.local(voiceFrame(0, 10000))); // loud, but "vad" -1 never opens the gate
    // The release opens the gate; the hang-over of "buf" x 10 quiet packets closes it.
    QVERIFY(writeAll(writer, keyBlock(0)));
    QTRY_VERIFY(st->isGateOpen());
    for (int i = 1; i <= 80; ++i)
        st->onNewPacketA(rig.local(voiceFrame(i, 0)));
    QVERIFY(st->isGateOpen());
    st->onNewPacketA(rig.local(voiceFrame(81, 0)));
    QVERIFY(!st->isGateOpen());
    for (int expected = 1; expected <= 81; ++expected) // frame 0 came before the key
        QCOMPARE(sequenceOf(partner.bytes()), expected);
    QVERIFY(partner.silent());

    // Unplugged: the device file goes; nobody reads the old device any more.
    QFile::remove(QString::fromUtf8(path));
    st->onTimerKeepAlive();
    QVERIFY(!st->isHeadsetOpen());
    QVERIFY(!writeAll(writer, keyBlock(0)));
    QCOMPARE(errno, EPIPE);
    ::close(writer);
    // Plugged in again: back within one keep-alive tick.
    QCOMPARE(::mkfifo(path.constData(), 0600), 0);
    st->onTimerKeepAlive();
    QVERIFY(st->isHeadsetOpen());
    writer = ::open(path.constData(), O_WRONLY | O_NONBLOCK);
    QVERIFY(writeAll(writer, keyBlock(0)));
    QTRY_VERIFY(st->isGateOpen());
    // The device ends: closed until the next keep-alive finds it; an empty "hid" keeps it closed.
    ::close(writer);
    QTRY_VERIFY(!st->isHeadsetOpen());
    st->setData({{"hid", QString()}});
    st->onTimerKeepAlive();
    QVERIFY(!st->isHeadsetOpen());
}

void TestIntercom::jitterBufferAndQueueBound()
{
    IntercomRig rig;
    UdpStation peer;
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 99}, {"vad", 0}, {"buf", 8}});
    QVERIFY(rig.announce(st, 1));
    Recorder out;
    st->link(&out, KestObject::Audio);
    st->onNewInfoA(pcmInfo(16, &rig.mic));
    QCOMPARE(out.infosA.value(0).params, pcmInfo(16, &rig.mic).params); // passed on downstream
    const auto step = [&] { st->onNewPacketA(rig.local(QByteArray(960, 0))); }; // the local clock
    const auto talking = [&] { return st->getState().toMap().value("list").toList().value(0).toMap().value("talking").toBool(); };
    const auto arrive = [&](int from, int to) {
        for (int i = from; i < to; ++i)
            peer.sendTo(rig.port, datagram(5, 1, Audio, voiceFrame(i, 1000)));
    };

    arrive(0, 8);
    QTRY_COMPARE(st->queuedFrames(5), 8);
    step();
    QCOMPARE(out.frames.size(), 0); // 8 frames: still waiting for "buf" + 1
    QVERIFY(!talking());
    arrive(8, 9);
    QTRY_COMPARE(st->queuedFrames(5), 9);
    for (int i = 0; i < 9; ++i) {
        step();
        QCOMPARE(out.frames.size(), i + 1);
        QCOMPARE(int(sampleAt(out.frames.last(), 1)), i);
        QVERIFY(talking());
    }
    QCOMPARE(out.audio.last().frameType, 3);
    QCOMPARE(out.audio.last().source, static_cast<QObject *>(&rig.mic));
    step(); // dry: the station stops talking and buffers again
    QVERIFY(!talking());
    arrive(9, 10);
    QTRY_COMPARE(st->queuedFrames(5), 1);
    step();
    QCOMPARE(out.frames.size(), 9);

    // A full queue (2 x "buf") drops the newest frames.
    arrive(10, 30);
    peer.sendTo(rig.port, datagram(6, 1, Alive)); // through the relay after them
    QTRY_COMPARE(rosterIds(st), (QList<int>{5, 6}));
    QCOMPARE(st->queuedFrames(5), 16);
    for (int i = 9; i < 25; ++i) {
        step();
        QCOMPARE(int(sampleAt(out.frames.last(), 1)), i);
    }
}

void TestIntercom::stationsMixedInPlace_data()
{
    QTest::addColumn<int>("bits");
    QTest::newRow("16-bit") << 16;
    QTest::newRow("8-bit") << 8;
}

void TestIntercom::stationsMixedInPlace()
{
    QFETCH(int, bits);
    IntercomRig rig;
    UdpStation peer;
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 99}, {"vad", 0}, {"buf", 1}});
    QVERIFY(rig.announce(st, 1));
    st->onNewInfoA(pcmInfo(bits, &rig.mic));
    Recorder out;
    st->link(&out, KestObject::Audio);
    const int v = bits == 8 ? 50 : 1000, both = bits == 8 ? 91 : 1985;
    // Station 6's frames are shorter: mixed only as far as they reach.
    for (int i = 0; i < 2; ++i) {
        peer.sendTo(rig.port, datagram(6, 1, Audio, frame(bits, 50, v)));
        peer.sendTo(rig.port, datagram(5, 1, Audio, frame(bits, 480, v)));
    }
    QTRY_VERIFY(st->queuedFrames(5) == 2 && st->queuedFrames(6) == 2);
    st->onNewPacketA(rig.local(frame(bits, 480, 0)));
    QCOMPARE(out.frames, QList<QByteArray>{frame(bits, 50, both) + frame(bits, 430, v)});
}

QTEST_GUILESS_MAIN(TestIntercom)
#include "tst_intercom.moc"
