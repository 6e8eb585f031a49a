// The station's audio path: level measure, voice gate with pre-roll and hang-over, jitter
// buffer, mixing. Gate and jitter tests run over real UDP through the real relay.

#include "stationharness.h"

#include "intercom/pcm.h"

#include <memory>

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
    if (bits == 8)
        return QByteArray(samples, char(value));
    return samples16(std::vector<qint16>(size_t(samples), qint16(value)));
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
    void mixArithmetic_data();
    void mixArithmetic();
    void mixShorterSources_data();
    void mixShorterSources();
    void gateOpensWithPreRollAndClosesAfterHangOver();
    void vadZeroSendsEverythingAndKeepsNoPreRoll();
    void vadNegativeNeverOpensByItself();
    void shortFramesCountAsSilence_data();
    void shortFramesCountAsSilence();
    void jitterBufferStartsAfterBufPlusOne();
    void queueKeepsOldestTwiceBuf();
    void stationsMixedInPlace_data();
    void stationsMixedInPlace();
};

void TestIntercomAudio::levelMeasure_data()
{
    QTest::addColumn<int>("bits");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("level");
    std::vector<qint16> s(480, 0);
    QTest::newRow("16: silence") << 16 << samples16(s) << 0;
    s[1] = 32767; // between the samples looked at
    QTest::newRow("16: loud sample not looked at") << 16 << samples16(s) << 0;
    s[420] = -1000; // the eighth sample looked at
    QTest::newRow("16: eighth sample") << 16 << samples16(s) << 60;
    QTest::newRow("16: full scale") << 16 << frame(16, 480, 32767) << 90;
    QTest::newRow("16: -32768") << 16 << frame(16, 480, -32768) << 90;
    QTest::newRow("16: 16 bytes") << 16 << frame(16, 8, 1000) << 60;
    QTest::newRow("16: 15 bytes: silence") << 16 << frame(16, 8, 1000).left(15) << 0;
    QTest::newRow("8: centre") << 8 << frame(8, 480, 128) << 0;
    QTest::newRow("8: top") << 8 << frame(8, 480, 255) << 42 * 8;
    QTest::newRow("8: bottom") << 8 << frame(8, 8, 0) << 42 * 8;
    QTest::newRow("8: 7 bytes: silence") << 8 << frame(8, 7, 0) << 0;
}

void TestIntercomAudio::levelMeasure()
{
    QFETCH(int, bits);
    QFETCH(QByteArray, bytes);
    QFETCH(int, level);
    const Exact exact(bytes);
    QCOMPARE(bits == 8 ? level8(exact.data.get(), exact.len) : level16(exact.data.get(), exact.len), level);
    QCOMPARE(KestIntercom::vol2db(0), 0);
    QCOMPARE(KestIntercom::vol2db(9), 19);
    QCOMPARE(KestIntercom::vol2db(10), 20);
    QCOMPARE(KestIntercom::vol2db(32767), 90);
}

void TestIntercomAudio::mixArithmetic_data()
{
    QTest::addColumn<int>("bits");
    QTest::addColumn<int>("a");
    QTest::addColumn<int>("b");
    QTest::addColumn<int>("mixed");
    QTest::newRow("16: two positive") << 16 << 1000 << 1000 << 1985;
    QTest::newRow("16: opposite") << 16 << -1000 << 1000 << 0;
    QTest::newRow("16: two negative") << 16 << -1000 << -1000 << -1985;
    QTest::newRow("16: one silent") << 16 << 0 << -5 << -5;
    QTest::newRow("16: mixed signs, no softening") << 16 << 20000 << -30000 << -10000;
    QTest::newRow("16: loud pair wraps") << 16 << 32767 << 32767 << -16385;
    QTest::newRow("16: negative pair wraps") << 16 << -32768 << -32768 << 16384;
    QTest::newRow("8: two positive") << 8 << 50 << 50 << 91;
    QTest::newRow("8: opposite") << 8 << -50 << 50 << 0;
    QTest::newRow("8: two negative") << 8 << -50 << -50 << -91;
    QTest::newRow("8: loud pair wraps") << 8 << 127 << 127 << -65;
}

void TestIntercomAudio::mixArithmetic()
{
    QFETCH(int, bits);
    QFETCH(int, a);
    QFETCH(int, b);
    QFETCH(int, mixed);
    KestIntercom st;
    // 40 samples: whole blocks of the vector loop and a tail.
    const Exact src1(frame(bits, 40, a)), src2(frame(bits, 40, b)), dst(frame(bits, 40, 77));
    bits == 8 ? st.mix8(src1.packet(), src2.packet(), dst.packet()) : st.mix(src1.packet(), src2.packet(), dst.packet());
    QCOMPARE(dst.bytes(), frame(bits, 40, mixed));
    // In place, as the mixing step does it.
    bits == 8 ? st.mix8(src1.packet(), src2.packet(), src1.packet()) : st.mix(src1.packet(), src2.packet(), src1.packet());
    QCOMPARE(src1.bytes(), frame(bits, 40, mixed));
}

void TestIntercomAudio::mixShorterSources_data()
{
    QTest::addColumn<int>("bits");
    QTest::addColumn<int>("samples1");
    QTest::addColumn<int>("samples2");
    for (int bits : {16, 8}) {
        const QByteArray width = QByteArray::number(bits) + ": ";
        QTest::newRow(width + "second source short") << bits << 40 << 21;
        QTest::newRow(width + "first source short") << bits << 21 << 40;
        QTest::newRow(width + "both short") << bits << 30 << 21;
    }
}

void TestIntercomAudio::mixShorterSources()
{
    QFETCH(int, bits);
    QFETCH(int, samples1);
    QFETCH(int, samples2);
    KestIntercom st;
    const int v = bits == 8 ? 50 : 1000, both = bits == 8 ? 91 : 1985;
    const Exact src1(frame(bits, samples1, v)), src2(frame(bits, samples2, v)), dst(frame(bits, 40, 77));
    bits == 8 ? st.mix8(src1.packet(), src2.packet(), dst.packet()) : st.mix(src1.packet(), src2.packet(), dst.packet());
    // Mixed where both reach, the longer alone after that, silence past both.
    const int shorter = qMin(samples1, samples2), longer = qMax(samples1, samples2);
    QCOMPARE(dst.bytes(), frame(bits, shorter, both) + frame(bits, longer - shorter, v) + frame(bits, 40 - longer, 0));
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
    feed(10, 100);   // 40 dB: quiet
    feed(2, 10000);  // 80 dB: two voiced packets of the last 8 are not enough
    QVERIFY(!st->isGateOpen());
    feed(1, 10000);  // the third opens the gate
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
        const auto got = partner.receive(2000);
        QVERIFY2(got, qPrintable(QString::number(expected)));
        QCOMPARE(got->bytes.left(3), QByteArray("\x01\x07\x00", 3));
        QCOMPARE(int(sampleAt(got->bytes.mid(3), 1)), expected);
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
    for (int expected = 0; expected < 13; ++expected) {
        const auto got = partner.receive(2000);
        QVERIFY(got);
        QCOMPARE(int(sampleAt(got->bytes.mid(3), 1)), expected);
    }
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
    const auto got = partner.receive(2000);
    QVERIFY(got);
    QCOMPARE(int(sampleAt(got->bytes.mid(3), 1)), 20); // the first datagram of all
}

void TestIntercomAudio::shortFramesCountAsSilence_data()
{
    QTest::addColumn<int>("bits");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("opens");
    QTest::newRow("16: 14 loud bytes") << 16 << frame(16, 7, 30000) << false;
    QTest::newRow("16: 15 loud bytes") << 16 << frame(16, 8, 30000).left(15) << false;
    QTest::newRow("16: 16 loud bytes") << 16 << frame(16, 8, 30000) << true;
    QTest::newRow("8: 7 loud bytes") << 8 << frame(8, 7, 255) << false;
    QTest::newRow("8: 8 loud bytes") << 8 << frame(8, 8, 255) << true;
    QTest::newRow("16: empty") << 16 << QByteArray() << false;
}

void TestIntercomAudio::shortFramesCountAsSilence()
{
    QFETCH(int, bits);
    QFETCH(QByteArray, bytes);
    QFETCH(bool, opens);
    IntercomRig rig;
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 99}, {"vad", 50}});
    st->onNewInfoA(pcmInfo(bits, &rig.mic));
    for (int i = 0; i < 5; ++i)
        st->onNewPacketA(rig.local(bytes));
    QCOMPARE(st->isGateOpen(), opens);
}

void TestIntercomAudio::jitterBufferStartsAfterBufPlusOne()
{
    IntercomRig rig;
    UdpStation peer;
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 99}, {"vad", 0}, {"buf", 8}});
    QVERIFY(rig.announce(st, 1));
    Recorder out;
    st->link(&out, KestObject::Audio);
    st->onNewInfoA(pcmInfo(16, &rig.mic));
    QCOMPARE(out.infos.size(), 1);
    QCOMPARE(out.infos[0].params, pcmInfo(16, &rig.mic).params);
    const auto step = [&] { st->onNewPacketA(rig.local(QByteArray(960, 0))); }; // the local clock
    const auto talking = [&] {
        return st->getState().toMap().value("list").toList().value(0).toMap().value("talking").toBool();
    };

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
    QCOMPARE(out.packets.last().frameType, 3);
    QCOMPARE(out.packets.last().source, static_cast<QObject *>(&rig.mic));
    step(); // dry: the station stops talking and buffers again
    QCOMPARE(out.frames.size(), 9);
    QVERIFY(!talking());
    peer.sendTo(rig.port, datagram(5, 1, Audio, voiceFrame(9, 1000)));
    QTRY_COMPARE(st->queuedFrames(5), 1);
    step();
    QCOMPARE(out.frames.size(), 9);
}

void TestIntercomAudio::queueKeepsOldestTwiceBuf()
{
    IntercomRig rig;
    UdpStation peer;
    KestIntercom *st = rig.station({{"did", 1}, {"tid", 99}, {"vad", 0}, {"buf", 4}});
    QVERIFY(rig.announce(st, 1));
    Recorder out;
    st->link(&out, KestObject::Audio);
    for (int i = 0; i < 20; ++i)
        peer.sendTo(rig.port, datagram(5, 1, Audio, voiceFrame(i, 1000)));
    peer.sendTo(rig.port, datagram(6, 1, Alive));
    QTRY_COMPARE(rosterIds(st), (QList<int>{5, 6}));
    QCOMPARE(st->queuedFrames(5), 8);
    for (int i = 0; i < 9; ++i)
        st->onNewPacketA(rig.local(QByteArray(960, 0)));
    QCOMPARE(out.frames.size(), 8);
    for (int i = 0; i < 8; ++i)
        QCOMPARE(int(sampleAt(out.frames[i], 1)), i); // the newest were dropped
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
    QCOMPARE(out.frames.size(), 1);
    QCOMPARE(out.frames[0], frame(bits, 50, both) + frame(bits, 430, v));
}

QTEST_GUILESS_MAIN(TestIntercomAudio)
#include "tst_intercomaudio.moc"
