// The station over real UDP through the real relay: alive and roster, partner numbers, commands
// and TALLY; the audio path: level measure, voice gate with pre-roll, headset keys (a FIFO stands
// in for the input device), jitter buffer, mixing. Hostile datagrams are the fuzz target's.

#include "intercomrig.h"
#include "recorder.h"

#include "intercom/pcm.h"

#include <QTemporaryDir>
#include <QtEndian>

#include <fcntl.h>
#include <linux/input.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Intercom;

static QByteArray frame(int bits, int samples, int value)
{
    const std::vector<qint16> wide(static_cast<size_t>(samples), qint16(value));
    return bits == 8 ? QByteArray(samples, char(value)) : QByteArray(reinterpret_cast<const char *>(wide.data()), 2 * samples);
}

// 480 16-bit samples of `level`, but for sample 1, which the voice gate does not look at: it
// carries a sequence number.
static QByteArray voiceFrame(int sequence, int level)
{
    QByteArray bytes = frame(16, 480, level);
    qToUnaligned(qint16(sequence), bytes.data() + 2);
    return bytes;
}

static int sequenceOf(const QByteArray &bytes, int offset = kHeaderSize)
{
    return bytes.size() < offset + 4 ? -1 : qFromUnaligned<qint16>(bytes.constData() + offset + 2);
}

static QList<int> rosterIds(KestIntercom *node)
{
    QList<int> ids;
    for (const QVariant &entry : node->getState().toMap().value("list").toList())
        ids << entry.toMap().value("id").toInt();
    return ids;
}

class TestIntercom : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void aliveRosterAndAgeing();
    void partnerCommandsAndTally();
    void voiceGateAndHeadsetKeys();
    void jitterBufferAndMixing();
};

void TestIntercom::aliveRosterAndAgeing()
{
    IntercomRig rig;
    UdpStation seven, eight;
    QVERIFY(rig.announce(seven, 7));
    // The name is cut before a character that would end beyond byte 253.
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 1}, {"vad", 0}, {"name", QString(251, 'a') + QStringLiteral("€")}});
    QVERIFY(rig.announce(st, 1));
    QCOMPARE(seven.bytes(), datagram(1, kBroadcast, Alive, QByteArray(251, 'a')));
    // Addressed to itself, the relay sends this straight back: a station ignores its own echo.
    st->onNewPacketA(rig.local("echo"));
    seven.sendTo(rig.port, datagram(7, 1, Alive, QStringLiteral("Régie").toUtf8()));
    eight.sendTo(rig.port, datagram(8, 1, Audio, "pcm!")); // heard before any alive from 8
    eight.sendTo(rig.port, datagram(9, 1, 0x7f, "unknown type"));
    QTRY_COMPARE(rosterIds(st), (QList<int>{7, 8, 9}));
    const QVariantMap entry{{"id", 7}, {"talking", false}, {"name", QStringLiteral("Régie")}};
    QCOMPARE(st->getState().toMap().value("list").toList().first(), QVariant(entry));
    KestHi::setClockOffset(10500 * 1000);
    st->onTimerKeepAlive();
    QCOMPARE(rosterIds(st), (QList<int>{8, 9})); // never aged without an alive time
}

void TestIntercom::partnerCommandsAndTally()
{
    IntercomRig rig;
    UdpStation peer;
    // Station numbers are the low 8 bits: partner 256 is station 0.
    KestIntercom *a = rig.station({{"did", 1}, {"tid", 256}, {"vad", 0}});
    KestIntercom *b = rig.station({{"did", 2}});
    QVERIFY(rig.announce(a, 1) && rig.announce(b, 2) && rig.announce(peer, 0) && rig.announce(peer, 4));
    a->onNewPacketA(rig.local("abc"));
    QCOMPARE(peer.bytes(), datagram(1, 0, Audio, "abc"));
    // "tid" only addresses; Latin-1 travels as it is, beyond it as \u escapes.
    QCOMPARE(a->sendCmd(QVariantMap{{"tid", 4}, {"func", "note"}, {"data", QStringLiteral("Süd 日本")}}), QVariant(true));
    QCOMPARE(peer.bytes(), datagram(1, 4, Command, "{\"data\":\"S\xfc" "d \\u65e5\\u672c\",\"func\":\"note\"}"));
    QCOMPARE(a->sendCmd(QStringLiteral("TALLY")), QVariant(false)); // not a map
    Recorder aHost, bHost;
    a->link(&aHost, KestObject::Audio);
    b->link(&bHost, KestObject::Audio);
    a->onNewEvent(QStringLiteral("tally"), 4); // names are case-sensitive
    a->stop();
    a->onNewEvent(QStringLiteral("TALLY"), 5); // a stopped station ignores events
    a->start();
    a->onNewEvent(QStringLiteral("TALLY"), 3); // to the host and every other station
    // The text ends at a zero byte. Untrusted JSON: a repeated key decodes with its last value.
    const char zero[] = "{\"func\":\"TALLY\",\"data\":7}\0{junk";
    peer.sendTo(rig.port, datagram(6, 2, Command, QByteArray(zero, sizeof(zero) - 1)));
    peer.sendTo(rig.port, datagram(6, 2, Command, R"({"func":[1,2],"func":{"x":[1]},"func":"TALLY","data":[1],"data":2})"));
    QTRY_COMPARE(bHost.events, (QStringList{"TALLY=3", "TALLY=7", "TALLY=2"}));
    QCOMPARE(aHost.events, QStringList{"TALLY=3"});
}

void TestIntercom::voiceGateAndHeadsetKeys()
{
    // The level: dB of the loudest sample looked at; 8-bit samples centre on 128 and count 8 times.
    QCOMPARE(level16(voiceFrame(32767, 0).constData(), 960), 0); // sample 1 is not looked at
    QCOMPARE(level16(frame(16, 8, 1000).constData(), 15), 0);    // too short
    QCOMPARE(level8(frame(8, 480, 255).constData(), 480), 42 * 8);
    QCOMPARE(level8(frame(8, 8, 0).constData(), 7), 0);
    QTemporaryDir dir;
    const QByteArray path = QFile::encodeName(dir.filePath(QStringLiteral("event0")));
    QCOMPARE(::mkfifo(path.constData(), 0600), 0);
    IntercomRig rig;
    UdpStation partner;
    QVERIFY(rig.announce(partner, 7));
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 7}, {"vad", 50}, {"buf", 8}, {"bufLenA", 8}});
    int sequence = 0;
    const auto feed = [&](int count, int level) {
        for (int i = 0; i < count; ++i)
            st->onNewPacketA(rig.local(voiceFrame(sequence++, level)));
        return st->isGateOpen();
    };
    const auto heard = [&](int first, int last) {
        for (int i = first; i <= last; ++i)
            if (sequenceOf(partner.bytes()) != i)
                return false;
        return partner.silent();
    };
    QVERIFY(!feed(10, 100));  // 40 dB: quiet
    QVERIFY(!feed(2, 10000)); // 80 dB: two voiced packets of the last 8 are not enough
    QVERIFY(feed(1, 10000));  // the third opens the gate
    // The hang-over: the gate closes once 161 quiet decisions follow the last voiced one.
    QVERIFY(feed(160, 100));
    QVERIFY(!feed(4, 100));
    // Pre-roll: the 8 packets up to the opening one, oldest first; then all up to the closing one.
    QVERIFY(heard(5, 173));

    // "vad" -1: only the headset opens the gate. A key arrives as scan code, key, synchronisation.
    st->setData({{"vad", -1}, {"hid", QString::fromUtf8(path)}});
    QVERIFY(st->isHeadsetOpen());
    const int writer = ::open(path.constData(), O_WRONLY | O_NONBLOCK);
    const auto key = [writer](int value) {
        input_event block[3]{};
        block[1].value = value;
        return ::write(writer, block, sizeof(block)) == ssize_t(sizeof(block));
    };
    // Press and repeat do nothing; the station has read them when the pipe is empty.
    QVERIFY(key(1) && key(2));
    QTRY_VERIFY([writer] { int n = -1; ::ioctl(writer, FIONREAD, &n); return n == 0; }());
    QVERIFY(!feed(1, 10000));
    // The release opens the gate, without what came before; "buf" x 10 quiet packets close it.
    QVERIFY(key(0));
    QTRY_VERIFY(st->isGateOpen());
    QVERIFY(feed(80, 0));
    QVERIFY(!feed(1, 0));
    QVERIFY(heard(178, 258));
    // The device ends: closed (a keep-alive looks for it again).
    ::close(writer);
    QTRY_VERIFY(!st->isHeadsetOpen());
}

void TestIntercom::jitterBufferAndMixing()
{
    IntercomRig rig;
    UdpStation peer;
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 99}, {"vad", 0}, {"buf", 8}});
    QVERIFY(rig.announce(st, 1));
    Recorder out;
    st->link(&out, KestObject::Audio);
    st->onNewInfoA({0, {}, &rig.mic});
    int held = 0;
    const auto arrive = [&](int from, int to, int level) { // station 6's short frame comes after them
        for (int i = from; i < to; ++i)
            peer.sendTo(rig.port, datagram(5, 1, Audio, voiceFrame(i, level)));
        peer.sendTo(rig.port, datagram(6, 1, Audio, frame(16, 50, -1000)));
        return QTest::qWaitFor([&, n = ++held] { return st->queuedFrames(6) == n; }, 5000);
    };
    const auto step = [&](int times) { // local packets clock the mix
        for (int i = 0; i < times; ++i)
            st->onNewPacketA(rig.local(QByteArray(960, 0)));
        return out.frames.size();
    };
    QVERIFY(arrive(0, 8, 1000));
    QCOMPARE(step(1), 0); // waiting for more than "buf"
    QVERIFY(arrive(8, 9, 1000));
    QCOMPARE(step(9), 9);
    // A full queue (2 x "buf") drops the newest frames.
    QVERIFY(arrive(9, 30, 1000));
    QCOMPARE(st->queuedFrames(5), 16);
    QCOMPARE(step(17), 25);
    for (int i = 0; i < 25; ++i)
        QCOMPARE(sequenceOf(out.frames.at(i), 0), i);
    QCOMPARE(out.audio.last().source, static_cast<QObject *>(&rig.mic));
    // Both play now: mixed in station 5's frame, as far as station 6's shorter frame reaches.
    st->setData({{"buf", 2}});
    QVERIFY(arrive(25, 28, -1000));
    QCOMPARE(step(1), 26);
    QCOMPARE(out.frames.last().mid(4), frame(16, 48, -1985) + frame(16, 430, -1000));
    // Called directly: mixed where both reach, the longer alone after that, silence past both.
    // Two loud samples of the same sign wrap.
    const Packet a = rig.local(frame(8, 40, -128)), b = rig.local(frame(8, 21, -128)), dst = rig.local(frame(8, 48, 7));
    st->mix8(a, b, dst);
    QCOMPARE(QByteArray(dst.data, dst.len), frame(8, 21, 64) + frame(8, 19, -128) + frame(8, 8, 0));
}

QTEST_GUILESS_MAIN(TestIntercom)
#include "tst_intercom.moc"
