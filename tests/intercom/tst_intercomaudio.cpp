// The station's audio path: level measure, voice gate with pre-roll and hang-over, headset
// keys, jitter buffer, mixing. Gate and jitter tests run over real UDP through the real relay.
// A FIFO stands in for the headset's input device: the test writes key records into it as the
// kernel would; unplugging is the file going away.

#include "intercomrig.h"

#include "intercom/pcm.h"

#include <QTemporaryDir>

#include <csignal>

#include <fcntl.h>
#include <linux/input.h>
#include <sys/stat.h>

using namespace Intercom;

namespace {

// Exactly sized heap copies, so that the sanitizer build catches any read beyond a frame.
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

// Scan code, key and synchronisation records, as a headset key arrives. The time is set
// through the names that exist with 32- and 64-bit time alike.
QByteArray keyBlock(int value)
{
    input_event records[3]{};
    for (input_event &r : records) {
        r.input_event_sec = 1700000000;
        r.input_event_usec = 250000;
    }
    records[0].type = EV_MSC;
    records[0].code = MSC_SCAN;
    records[0].value = 0xc00e9;
    records[1].type = EV_KEY;
    records[1].code = KEY_VOLUMEUP;
    records[1].value = value;
    records[2].type = EV_SYN;
    records[2].code = SYN_REPORT;
    return QByteArray(reinterpret_cast<const char *>(records), sizeof(records));
}

bool writeAll(int fd, const QByteArray &bytes)
{
    return ::write(fd, bytes.constData(), size_t(bytes.size())) == bytes.size();
}

int bytesInPipe(int fd)
{
    int n = -1;
    ::ioctl(fd, FIONREAD, &n);
    return n;
}

StreamInfo pcmInfo(int bits, QObject *source)
{
    StreamInfo info;
    info.params = {{"samplerate", 48000}, {"channels", 1}, {"bitwidth", bits}, {"frame_size", 480}};
    info.source = source;
    return info;
}

} // namespace

class TestIntercomAudio : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void levelMeasure_data();
    void levelMeasure();
    void volumeInDb();
    void mix_data();
    void mix();
    void gateOpensWithPreRollAndClosesAfterHangOver();
    void vadZeroSendsEverythingAndKeepsNoPreRoll();
    void vadNegativeNeverOpensByItself();
    void shortFramesCountAsSilence_data();
    void shortFramesCountAsSilence();
    void jitterBufferAndQueueBound();
    void headsetKeys();
    void stationsMixedInPlace_data();
    void stationsMixedInPlace();
};

void TestIntercomAudio::levelMeasure_data()
{
    QTest::addColumn<int>("bits");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("level");
    std::vector<qint16> s(480, 0);
    s[1] = 32767; // between the samples looked at
    QTest::newRow("16: loud sample not looked at") << 16 << samples16(s) << 0;
    s[420] = -1000; // the eighth sample looked at
    QTest::newRow("16: eighth sample") << 16 << samples16(s) << 60;
    QTest::newRow("16: -32768") << 16 << frame(16, 480, -32768) << 90;
    QTest::newRow("16: 16 bytes") << 16 << frame(16, 8, 1000) << 60;
    QTest::newRow("16: 15 bytes: silence") << 16 << frame(16, 8, 1000).left(15) << 0;
    QTest::newRow("8: top") << 8 << frame(8, 480, 255) << 42 * 8;
    QTest::newRow("8: bottom, 8 bytes") << 8 << frame(8, 8, 0) << 42 * 8;
    QTest::newRow("8: 7 bytes: silence") << 8 << frame(8, 7, 0) << 0;
}

void TestIntercomAudio::levelMeasure()
{
    QFETCH(int, bits);
    QFETCH(QByteArray, bytes);
    const Exact exact(bytes);
    QTEST(bits == 8 ? level8(exact.data.get(), exact.len) : level16(exact.data.get(), exact.len), "level");
}

void TestIntercomAudio::volumeInDb()
{
    QCOMPARE(KestIntercom::vol2db(0), 0);
    QCOMPARE(KestIntercom::vol2db(9), 19);
    QCOMPARE(KestIntercom::vol2db(10), 20);
    QCOMPARE(KestIntercom::vol2db(32767), 90);
}

void TestIntercomAudio::mix_data()
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

void TestIntercomAudio::mix()
{
    QFETCH(int, bits);
    QFETCH(int, a);
    QFETCH(int, b);
    QFETCH(int, mixed);
    QFETCH(int, samplesA);
    QFETCH(int, samplesB);
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

void TestIntercomAudio::gateOpensWithPreRollAndClosesAfterHangOver()
{
    IntercomRig rig;
    UdpStation partner;
    QVERIFY(rig.announce(partner, 7));
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 7}, {"vad", 50}, {"buf", 8}, {"bufLenA", 8}});
    int sequence = 0;
    const auto feed = [&](int count, qint16 level) {
        for (int i = 0; i < count; ++i)
            st->onNewPacketA(rig.local(voiceFrame(sequence++, level)));
    };
    feed(10, 100);  // 40 dB: quiet
    feed(2, 10000); // 80 dB: two voiced packets of the last 8 are not enough
    QVERIFY(!st->isGateOpen());
    feed(1, 10000); // the third opens the gate
    QVERIFY(st->isGateOpen());
    feed(1, 10000);
    // The hang-over: the gate closes once 161 quiet decisions follow the last voiced one.
    feed(160, 100);
    QVERIFY(st->isGateOpen());
    feed(1, 100);
    QVERIFY(!st->isGateOpen());
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

void TestIntercomAudio::vadZeroSendsEverythingAndKeepsNoPreRoll()
{
    IntercomRig rig;
    UdpStation partner;
    QVERIFY(rig.announce(partner, 7));
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 7}, {"vad", 0}});
    for (int i = 0; i < 10; ++i)
        st->onNewPacketA(rig.local(voiceFrame(i, 0)));
    st->setData({{"vad", 50}});
    for (int i = 10; i < 13; ++i)
        st->onNewPacketA(rig.local(voiceFrame(i, 10000)));
    for (int expected = 0; expected < 13; ++expected)
        QCOMPARE(sequenceOf(partner.bytes()), expected);
    QVERIFY(partner.silent());
}

void TestIntercomAudio::vadNegativeNeverOpensByItself()
{
    IntercomRig rig;
    UdpStation partner;
    QVERIFY(rig.announce(partner, 7));
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 7}, {"vad", -1}});
    for (int i = 0; i < 20; ++i)
        st->onNewPacketA(rig.local(voiceFrame(i, 10000)));
    QVERIFY(!st->isGateOpen());
    st->setData({{"vad", 0}});
    st->onNewPacketA(rig.local(voiceFrame(20, 0)));
    QCOMPARE(sequenceOf(partner.bytes()), 20); // the first datagram of all
}

void TestIntercomAudio::shortFramesCountAsSilence_data()
{
    QTest::addColumn<int>("bits");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("opens");
    QTest::newRow("16: 15 loud bytes") << 16 << frame(16, 8, 30000).left(15) << false;
    QTest::newRow("8: 8 loud bytes") << 8 << frame(8, 8, 255) << true;
    QTest::newRow("16: empty") << 16 << QByteArray() << false;
}

void TestIntercomAudio::shortFramesCountAsSilence()
{
    QFETCH(int, bits);
    QFETCH(QByteArray, bytes);
    IntercomRig rig;
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 99}, {"vad", 50}});
    st->onNewInfoA(pcmInfo(bits, &rig.mic));
    for (int i = 0; i < 5; ++i)
        st->onNewPacketA(rig.local(bytes));
    QTEST(st->isGateOpen(), "opens");
}

void TestIntercomAudio::jitterBufferAndQueueBound()
{
    IntercomRig rig;
    UdpStation peer;
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 99}, {"vad", 0}, {"buf", 8}});
    QVERIFY(rig.announce(st, 1));
    Recorder out;
    st->link(&out, KestObject::Audio);
    st->onNewInfoA(pcmInfo(16, &rig.mic));
    QCOMPARE(out.infosA.size(), 1); // passed on downstream
    QCOMPARE(out.infosA[0].params, pcmInfo(16, &rig.mic).params);
    const auto step = [&] { st->onNewPacketA(rig.local(QByteArray(960, 0))); }; // the local clock
    const auto talking = [&] { return st->getState().toMap().value("list").toList().value(0).toMap().value("talking").toBool(); };

    for (int i = 0; i < 8; ++i)
        peer.sendTo(rig.port, datagram(5, 1, Audio, voiceFrame(i, 1000)));
    QTRY_COMPARE(st->queuedFrames(5), 8);
    step();
    QCOMPARE(out.frames.size(), 0); // 8 frames: still waiting
    QVERIFY(!talking());
    peer.sendTo(rig.port, datagram(5, 1, Audio, voiceFrame(8, 1000)));
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
    QCOMPARE(out.frames.size(), 9);
    QVERIFY(!talking());
    peer.sendTo(rig.port, datagram(5, 1, Audio, voiceFrame(9, 1000)));
    QTRY_COMPARE(st->queuedFrames(5), 1);
    step();
    QCOMPARE(out.frames.size(), 9);

    // A full queue (2 x "buf") drops the newest frames.
    for (int i = 10; i < 30; ++i)
        peer.sendTo(rig.port, datagram(5, 1, Audio, voiceFrame(i, 1000)));
    peer.sendTo(rig.port, datagram(6, 1, Alive)); // through the relay after them
    QTRY_COMPARE(rosterIds(st), (QList<int>{5, 6}));
    QCOMPARE(st->queuedFrames(5), 16);
    for (int i = 9; i < 25; ++i) {
        step();
        QCOMPARE(int(sampleAt(out.frames.last(), 1)), i);
    }
}

void TestIntercomAudio::headsetKeys()
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
    QTRY_COMPARE(bytesInPipe(writer), 0);
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
    // The device ends: closed, and read no more (until the next keep-alive finds it).
    ::close(writer);
    QTRY_VERIFY(!st->isHeadsetOpen());
    // An empty "hid" leaves the headset closed.
    st->setData({{"hid", QString()}});
    st->onTimerKeepAlive();
    QVERIFY(!st->isHeadsetOpen());
}

void TestIntercomAudio::stationsMixedInPlace_data()
{
    QTest::addColumn<int>("bits");
    QTest::newRow("16-bit") << 16;
    QTest::newRow("8-bit") << 8;
}

void TestIntercomAudio::stationsMixedInPlace()
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

QTEST_GUILESS_MAIN(TestIntercomAudio)
#include "tst_intercomaudio.moc"
