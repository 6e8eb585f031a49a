// kest-run's elementary-stream nodes: their pure parsers (Annex-B access units, ADTS frames)
// as tables; EsSource and EsSink with real clips made by ffmpeg, whose own cut of each clip
// (ffprobe) is the reference; and the NDI round trip between them: EsSource -> KestNDISend ->
// NDI test runtime -> KestNDIRecv -> EsSink, checked by ffprobe decoding what was written.

#include "adts.h"
#include "annexb.h"
#include "essink.h"
#include "essource.h"
#include "logcapture.h"
#include "recorder.h"
#include "testmedia.h"
#include "testruntime.h"

#include "kesthi.h"
#include "ndi/kestndirecv.h"
#include "ndi/kestndisend.h"
#include "ndi/ndiruntime.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <memory>

Q_DECLARE_METATYPE(AnnexB::Codec)

namespace {

QString describe(const AnnexB::Stream &stream)
{
    QStringList units;
    for (const AnnexB::AccessUnit &u : stream.units)
        units << QStringLiteral("%1+%2%3").arg(u.offset).arg(u.size).arg(u.key ? "K" : "");
    return units.join(' ');
}

// An ADTS frame built field by field: sync word, MPEG-4, layer 0, then the fields.
QByteArray adtsFrame(const QByteArray &payload, int rateIndex = 3, int channels = 2, bool crc = false)
{
    const int headerSize = crc ? 9 : 7;
    const int length = headerSize + payload.size();
    QByteArray h(headerSize, '\0');
    h[0] = char(0xff);
    h[1] = char(0xf0 | (crc ? 0 : 1));
    h[2] = char((1 << 6) | (rateIndex << 2) | (channels >> 2)); // object type 2: AAC-LC
    h[3] = char(((channels & 3) << 6) | (length >> 11));
    h[4] = char((length >> 3) & 0xff);
    h[5] = char(((length & 7) << 5) | 0x1f);
    h[6] = char(0xfc);
    return h + payload;
}

// Keeps copies of the video bytes as well: the source's memory moves on.
struct Copier : Recorder
{
    QByteArrayList bytes;
    void onNewPacketV(Packet p) override
    {
        Recorder::onNewPacketV(p);
        bytes << QByteArray(p.data, p.len);
    }
};

void advanceClock(double seconds)
{
    KestHi::setClockOffset(KestHi::clockOffset() + qint64(seconds * 1e6));
}

// What a packet of the clip must hold: the ffprobe packet, less the ADTS header for audio.
QByteArray expectedPayload(const QByteArray &file, const TestMedia::ProbePacket &p, bool audio)
{
    const QByteArray bytes = file.mid(int(p.pos), p.size);
    return audio ? bytes.mid((bytes[1] & 0x01) ? 7 : 9) : bytes; // without or with CRC
}

// Which access unit owns the zero byte between two of them is a matter of taste: the byte
// stream syntax (and EsSource) give it to the later one, ffmpeg's HEVC parser to the earlier.
QByteArray withoutOuterZeros(QByteArray bytes)
{
    while (bytes.startsWith('\0'))
        bytes.remove(0, 1);
    while (bytes.endsWith('\0'))
        bytes.chop(1);
    return bytes;
}

void deliver(KestObject &to, const QByteArray &bytes, bool video)
{
    Packet pkt;
    pkt.data = const_cast<char *>(bytes.constData());
    pkt.len = bytes.size();
    pkt.frameType = video ? 0 : 3; // the receiver marks every video packet 0: the sink looks inside
    if (video)
        to.onNewPacketV(pkt);
    else
        to.onNewPacketA(pkt);
}

} // namespace

class TestElementaryStreams : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void annexB_data();
    void annexB();
    void adts_data();
    void adts();
    void adtsHeader_data();
    void adtsHeader();
    void sourceLoops();
    void sourceIdrSkipsAheadToNextKeyFrame();
    void sourceRefusesUnusableFiles_data();
    void sourceRefusesUnusableFiles();
    void sinkWritesAnnexB_data();
    void sinkWritesAnnexB();
    void sinkWritesAdts_data();
    void sinkWritesAdts();
    void roundTripThroughNdi_data();
    void roundTripThroughNdi();

private:
    // The clip's path; the test is skipped when ffmpeg cannot make it.
    QString clip(TestMedia::Kind kind);

    std::unique_ptr<LogCapture> log;
    QMap<int, QString> clips; // by kind; "" when it could not be made
};

void TestElementaryStreams::initTestCase()
{
    log = std::make_unique<LogCapture>();
    useNdiTestRuntime();
    QVERIFY2(NdiRuntime::instance().isAvailable(), qPrintable(NdiRuntime::instance().problem()));
    for (TestMedia::Kind kind : {TestMedia::H264, TestMedia::H265, TestMedia::Aac}) {
        QString why;
        clips[kind] = TestMedia::get(kind, &why);
        if (clips[kind].isEmpty())
            qWarning("%s", qPrintable(why));
    }
}

void TestElementaryStreams::init()
{
    log->clear();
    advanceClock(2); // no sender creation waits for an earlier one
}

QString TestElementaryStreams::clip(TestMedia::Kind kind)
{
    if (clips.value(kind).isEmpty())
        QTest::qSkip("no test clip: ffmpeg or its encoder is missing (see the warning at the start)", __FILE__, __LINE__);
    return clips.value(kind);
}

void TestElementaryStreams::annexB_data()
{
    QTest::addColumn<AnnexB::Codec>("codec");
    QTest::addColumn<QByteArray>("stream"); // hex
    QTest::addColumn<QString>("units");     // offset+size, K for key
    QTest::addColumn<QByteArray>("parameterSets");

    const auto H264 = AnnexB::Codec::H264;
    const auto H265 = AnnexB::Codec::H265;
    QTest::newRow("h264 sps pps idr, then p")
        << H264 << QByteArray("00000001 67641f 00000001 68ee 00000001 658880 00000001 419a11") << "0+20K 20+7"
        << QByteArray("0000000167641f 0000000168ee");
    QTest::newRow("h264 slices of one picture stay together")
        << H264 << QByteArray("00000001 658811 00000001 650822 00000001 419a33 00000001 411a44 00000001 419a55")
        << "0+14K 14+14 28+7" << QByteArray();
    QTest::newRow("h264 3-byte start codes and trailing zeros")
        << H264 << QByteArray("000001 658811 0000 000001 419a22") << "0+7K 7+7" << QByteArray();
    QTest::newRow("h264 access unit delimiter opens a unit")
        << H264 << QByteArray("00000001 09f0 00000001 658811 00000001 09f0 00000001 419a22") << "0+13K 13+13" << QByteArray();
    QTest::newRow("h264 SEI belongs to the next picture")
        << H264 << QByteArray("00000001 658811 00000001 060501 00000001 419a22") << "0+7K 7+14" << QByteArray();
    QTest::newRow("h264 only the parameter sets before the first picture")
        << H264 << QByteArray("00000001 6711 00000001 658811 00000001 6722 00000001 658833") << "0+13K 13+13K"
        << QByteArray("000000016711");
    QTest::newRow("h265 vps sps pps idr, then trail")
        << H265 << QByteArray("00000001 40010c 00000001 420101 00000001 4401c1 00000001 2601af 00000001 0201d0")
        << "0+28K 28+7" << QByteArray("0000000140010c 00000001420101 000000014401c1");
    QTest::newRow("h265 slice segments of one picture stay together")
        << H265 << QByteArray("00000001 2601af 00000001 26012f 00000001 0201d0") << "0+14K 14+7" << QByteArray();
    QTest::newRow("h265 CRA is a key frame, suffix SEI stays behind its picture")
        << H265 << QByteArray("00000001 0201d0 00000001 500111 00000001 2a01af") << "0+14 14+7K" << QByteArray();
}

void TestElementaryStreams::annexB()
{
    QFETCH(AnnexB::Codec, codec);
    QFETCH(QByteArray, stream);
    QFETCH(QString, units);
    QFETCH(QByteArray, parameterSets);
    const AnnexB::Stream result = AnnexB::split(QByteArray::fromHex(stream), codec);
    QCOMPARE(describe(result), units);
    QCOMPARE(result.parameterSets.toHex(), QByteArray::fromHex(parameterSets).toHex());
}

void TestElementaryStreams::adts_data()
{
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<QString>("frames"); // offset+size
    QTest::addColumn<int>("sampleRate");
    QTest::addColumn<int>("channels");
    QTest::addColumn<QByteArray>("config"); // hex

    const QByteArray a = adtsFrame("abc"), b = adtsFrame("defg");
    QTest::newRow("two frames") << a + b << "7+3 17+4" << 48000 << 2 << QByteArray("1190");
    QTest::newRow("headers with CRC") << adtsFrame("abc", 3, 2, true) + adtsFrame("de", 3, 2, true) << "9+3 21+2" << 48000 << 2
                                      << QByteArray("1190");
    QTest::newRow("garbage between frames skipped") << a + "xyz" + b << "7+3 20+4" << 48000 << 2 << QByteArray("1190");
    QTest::newRow("cut-off last frame left out") << a + b.left(8) << "7+3" << 48000 << 2 << QByteArray("1190");
    QTest::newRow("44.1 kHz mono") << adtsFrame("m", 4, 1) << "7+1" << 44100 << 1 << QByteArray("1208");
    QTest::newRow("not ADTS") << QByteArray("hello, world") << "" << 0 << 0 << QByteArray();
}

void TestElementaryStreams::adts()
{
    QFETCH(QByteArray, stream);
    QFETCH(QString, frames);
    QFETCH(int, sampleRate);
    QFETCH(int, channels);
    QFETCH(QByteArray, config);
    const Adts::Stream result = Adts::parse(stream);
    QStringList got;
    for (const Adts::Frame &f : result.frames)
        got << QStringLiteral("%1+%2").arg(f.offset).arg(f.size);
    QCOMPARE(got.join(' '), frames);
    QCOMPARE(result.sampleRate, sampleRate);
    QCOMPARE(result.channels, channels);
    QCOMPARE(result.audioSpecificConfig.toHex(), config);
}

void TestElementaryStreams::adtsHeader_data()
{
    QTest::addColumn<QByteArray>("config"); // AudioSpecificConfig, hex
    QTest::addColumn<int>("payloadSize");
    QTest::addColumn<QByteArray>("header"); // hex; "": no header
    QTest::newRow("AAC-LC 48 kHz stereo") << QByteArray("1190") << 3 << QByteArray("fff14c80015ffc");
    QTest::newRow("HE-AAC object type 5 has no header") << QByteArray("2b10") << 3 << QByteArray();
    QTest::newRow("largest frame") << QByteArray("1190") << 8184 << QByteArray("fff14c83fffffc");
    QTest::newRow("frame too long for 13 bits") << QByteArray("1190") << 8185 << QByteArray();
    QTest::newRow("explicit rate (index 15)") << QByteArray("1790") << 3 << QByteArray();
    QTest::newRow("channels from a program config (0)") << QByteArray("1180") << 3 << QByteArray();
}

void TestElementaryStreams::adtsHeader()
{
    QFETCH(QByteArray, config);
    QFETCH(int, payloadSize);
    QFETCH(QByteArray, header);
    const QByteArray made = Adts::header(Adts::readAudioSpecificConfig(QByteArray::fromHex(config)), payloadSize);
    QCOMPARE(made.toHex(), header);
    if (header.isEmpty())
        return;
    // The stream parser reads back the frame and the configuration it came from.
    const Adts::Stream back = Adts::parse(made + QByteArray(payloadSize, 'p'));
    QCOMPARE(back.frames.size(), 1);
    QCOMPARE(back.frames[0].size, payloadSize);
    QCOMPARE(back.audioSpecificConfig.toHex(), config);
}

void TestElementaryStreams::sourceLoops()
{
    const QString path = clip(TestMedia::H264);
    if (path.isEmpty())
        return;
    QString why;
    const int units = TestMedia::probe(path, &why).size();
    QVERIFY2(units > 0, qPrintable(why));
    EsSource source; // "loop" is on unless set off
    Copier recorder;
    source.setData({{"file", path}, {"framerate", 100}});
    source.link(&recorder, KestObject::Video);
    QSignalSpy events(&source, &KestObject::eventSent);
    source.start();
    advanceClock((units + 5) / 100.0);
    QTRY_VERIFY(recorder.video.size() >= units + 5);
    QCOMPARE(events.count(), 0);
    QCOMPARE(recorder.bytes[units], recorder.bytes[0]); // from the start again, on time
    QCOMPARE(recorder.video[units].pts - recorder.video[units - 1].pts, qint64(10000));
    source.stop();
}

void TestElementaryStreams::sourceIdrSkipsAheadToNextKeyFrame()
{
    const QString path = clip(TestMedia::H264);
    if (path.isEmpty())
        return;
    QString why;
    const QVector<TestMedia::ProbePacket> reference = TestMedia::probe(path, &why);
    QVERIFY2(reference.size() > TestMedia::kKeyInterval, qPrintable(why));
    const QByteArray file = TestMedia::readFile(path);
    EsSource source;
    Copier recorder;
    source.setData({{"file", path}, {"framerate", 1}}); // one frame a second: the test moves the clock
    source.link(&recorder, KestObject::Video);
    source.start();
    advanceClock(2.5);
    QTRY_COMPARE(recorder.video.size(), 3);
    QCOMPARE(source.idr(), QVariant(1));
    QCOMPARE(source.idrCount(), QVariant(1));
    advanceClock(2);
    QTRY_COMPARE(recorder.video.size(), 5);
    // The next packet is the next key frame, on time; the one after it follows it in the file.
    QCOMPARE(recorder.bytes[3], expectedPayload(file, reference[TestMedia::kKeyInterval], false));
    QCOMPARE(recorder.bytes[4], expectedPayload(file, reference[TestMedia::kKeyInterval + 1], false));
    QCOMPARE(recorder.video[3].frameType, 0);
    QCOMPARE(recorder.video[4].frameType, 1);
    QCOMPARE(recorder.video[3].pts - recorder.video[2].pts, qint64(1000000));
    source.stop();
}

void TestElementaryStreams::sourceRefusesUnusableFiles_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QVariant>("codec");
    QTest::addColumn<QString>("message");
    QTest::newRow("missing file") << "/nonexistent/clip.h264" << QVariant() << "[es] cannot read /nonexistent/clip.h264 :";
    QTest::newRow("unknown codec") << "/nonexistent/clip.bin" << QVariant() << "[es] cannot tell the codec of";
    QTest::newRow("not a stream of that codec") << QString(KEST_SOURCE_DIR "/README.md") << QVariant(4)
                                                << "[es] " KEST_SOURCE_DIR "/README.md holds no access units";
    QTest::newRow("not ADTS") << QString(KEST_SOURCE_DIR "/README.md") << QVariant("aac")
                              << "[es] " KEST_SOURCE_DIR "/README.md holds no ADTS AAC frames";
}

void TestElementaryStreams::sourceRefusesUnusableFiles()
{
    QFETCH(QString, file);
    QFETCH(QVariant, codec);
    QFETCH(QString, message);
    EsSource source;
    source.setName("es");
    Copier recorder;
    source.setData({{"file", file}, {"codec", codec}});
    source.link(&recorder, KestObject::Both);
    source.start();
    advanceClock(5);
    QTest::qWait(30);
    QCOMPARE(log->lines().size(), 1);
    QVERIFY2(log->lines()[0].startsWith(message), qPrintable(log->lines()[0]));
    QVERIFY(recorder.video.isEmpty() && recorder.audio.isEmpty() && recorder.infosV.isEmpty() && recorder.infosA.isEmpty());
    source.stop();
}

void TestElementaryStreams::sinkWritesAnnexB_data()
{
    // Access units (hex) as they arrive; what the file holds afterwards.
    QTest::addColumn<int>("codec");
    QTest::addColumn<QByteArray>("extradata");
    QTest::addColumn<QByteArrayList>("units");
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<int>("frames");

    const QByteArray sps264 = "0000000167641f0000000168ee";
    QTest::newRow("h264: waits for a key frame, adds the parameter sets it lacks")
        << int(KestCodec::H264) << sps264
        << QByteArrayList{"00000001419a01", "00000001658880", "00000001419a02", "0000000167641f0000000168ee00000001658881"}
        << sps264 + "00000001658880" "00000001419a02" "0000000167641f0000000168ee00000001658881" << 3;
    const QByteArray sps265 = "0000000140010c0000000142010100000001440101";
    QTest::newRow("h265: IRAP frames get the parameter sets")
        << int(KestCodec::H265) << sps265 << QByteArrayList{"000000012601af", "000000010201d0", "000000012601b0"}
        << sps265 + "000000012601af" "000000010201d0" + sps265 + "000000012601b0" << 3;
    QTest::newRow("no parameter sets known: key frames as they come")
        << int(KestCodec::H264) << QByteArray() << QByteArrayList{"00000001658880"} << QByteArray("00000001658880") << 1;
    QTest::newRow("another codec is not written") << int(KestCodec::MPEG4) << QByteArray()
                                                  << QByteArrayList{"000001b6aa"} << QByteArray() << 0;
}

void TestElementaryStreams::sinkWritesAnnexB()
{
    QFETCH(int, codec);
    QFETCH(QByteArray, extradata);
    QFETCH(QByteArrayList, units);
    QFETCH(QByteArray, file);
    QFETCH(int, frames);
    QTemporaryDir dir;
    EsSink sink;
    sink.setData({{"video_file", dir.filePath("out.es")}});
    QSignalSpy events(&sink, &KestObject::eventSent);
    sink.start();
    sink.onNewInfoV({codec, {{"extradata", QByteArray::fromHex(extradata)}}, nullptr});
    for (const QByteArray &unit : units)
        deliver(sink, QByteArray::fromHex(unit), true);
    QCOMPARE(TestMedia::readFile(dir.filePath("out.es")).toHex(), file); // unbuffered: there already
    sink.onTimerStats();
    QCOMPARE(events.last(), (QVariantList{"stats", QVariantMap{{"video", qint64(frames)}, {"audio", qint64(0)}}}));

    // A new description waits for a key frame again.
    sink.onNewInfoV({codec, {{"extradata", QByteArray::fromHex(extradata)}}, nullptr});
    deliver(sink, QByteArray::fromHex("00000001419a03"), true);
    QCOMPARE(TestMedia::readFile(dir.filePath("out.es")).size(), file.size() / 2);
    sink.stop();
}

void TestElementaryStreams::sinkWritesAdts_data()
{
    QTest::addColumn<QVariantMap>("params");
    QTest::addColumn<int>("sampleRate"); // as the written file says; 0: nothing written
    QTest::addColumn<int>("channels");
    QTest::newRow("from the AudioSpecificConfig")
        << QVariantMap{{"extradata", QByteArray("\x12\x08", 2)}, {"samplerate", 48000}, {"channels", 2}} << 44100 << 1;
    QTest::newRow("from rate and channels without one") << QVariantMap{{"samplerate", 32000}, {"channels", 2}} << 32000 << 2;
    QTest::newRow("neither") << QVariantMap{{"samplerate", 12345}, {"channels", 2}} << 0 << 0;
}

void TestElementaryStreams::sinkWritesAdts()
{
    QFETCH(QVariantMap, params);
    QFETCH(int, sampleRate);
    QFETCH(int, channels);
    QTemporaryDir dir;
    EsSink sink;
    sink.setData({{"audio_file", dir.filePath("out.aac")}});
    QSignalSpy events(&sink, &KestObject::eventSent);
    sink.start();
    sink.onNewInfoA({KestCodec::AAC, params, nullptr});
    deliver(sink, "first", false);
    deliver(sink, "second frame", false);
    const Adts::Stream written = Adts::parse(TestMedia::readFile(dir.filePath("out.aac")));
    sink.onTimerStats();
    sink.stop();
    QCOMPARE(written.sampleRate, sampleRate);
    QCOMPARE(written.channels, channels);
    QCOMPARE(written.frames.size(), sampleRate ? 2 : 0);
    QCOMPARE(written.frames.value(1).size, sampleRate ? 12 : 0);
    QCOMPARE(events.last()[1].toMap().value("audio"), QVariant(qint64(written.frames.size())));
}

void TestElementaryStreams::roundTripThroughNdi_data()
{
    QTest::addColumn<int>("kind");
    QTest::newRow("h264 and aac") << int(TestMedia::H264);
    QTest::newRow("h265 and aac") << int(TestMedia::H265);
}

void TestElementaryStreams::roundTripThroughNdi()
{
    QFETCH(int, kind);
    const bool h264 = kind == TestMedia::H264;
    const QString videoClip = clip(TestMedia::Kind(kind)), audioClip = clip(TestMedia::Aac);
    if (videoClip.isEmpty() || audioClip.isEmpty())
        return;
    QString why;
    const QVector<TestMedia::ProbePacket> videoReference = TestMedia::probe(videoClip, &why);
    const QVector<TestMedia::ProbePacket> audioReference = TestMedia::probe(audioClip, &why);
    QVERIFY2(!videoReference.isEmpty() && !audioReference.isEmpty(), qPrintable(why));
    QTemporaryDir dir;
    const QString videoOut = dir.filePath("received.es"), audioOut = dir.filePath("received.aac");

    KestNDISend sender;
    sender.setData({{"name", "round trip"}, {"config", "/nonexistent"}});
    EsSource camera, microphone;
    camera.setData({{"file", videoClip}, {"loop", false}, {"width", TestMedia::kWidth}, {"height", TestMedia::kHeight},
                    {"framerate", TestMedia::kFrameRate}});
    microphone.setData({{"file", audioClip}, {"loop", false}});
    camera.link(&sender, KestObject::Video);
    microphone.link(&sender, KestObject::Audio);
    KestNDIRecv receiver;
    receiver.setData({{"name", QString::fromUtf8(ndiSourceName("round trip"))}, {"config", "/nonexistent"}});
    EsSink sink;
    sink.setData({{"video_file", videoOut}, {"audio_file", audioOut}});
    receiver.link(&sink, KestObject::Both);
    QSignalSpy ready(&receiver, &KestObject::eventSent), stats(&sink, &KestObject::eventSent);
    QSignalSpy cameraEnd(&camera, &KestObject::eventSent), microphoneEnd(&microphone, &KestObject::eventSent);
    sink.start();
    receiver.start();
    receiver.onTimer(); // the 2 s tick that connects, without the wait
    QCOMPARE(kesttest_receiver_count(), 1);
    camera.start();
    microphone.start();
    advanceClock(10); // every frame is due at once
    QTRY_VERIFY(cameraEnd.count() == 1 && microphoneEnd.count() == 1);
    QTRY_COMPARE(receiverInfo(newestReceiver()).queued_frames, 0); // the 10 ms capture timer
    sink.onTimerStats();
    sink.stop();
    receiver.setData({{"name", ""}});
    const QVector<SentFrame> sent = sentFrames(newestSender());
    sender.stop();

    // The sender got the exact bytes of every access unit and AAC frame, in order, one period
    // apart on the host clock, on the main stream; key frames and every AAC frame are marked
    // and carry their parameter sets, the same each time.
    const QByteArray videoFile = TestMedia::readFile(videoClip), audioFile = TestMedia::readFile(audioClip);
    const uint32_t videoFourCC = h264 ? NDIlib_FourCC_video_type_ex_H264_highest_bandwidth : NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth;
    QByteArray parameterSets;
    qint64 firstPts[2] = {0, 0};
    int counts[2] = {0, 0};
    for (const SentFrame &f : sent) {
        const bool audio = f.raw.type == NDIlib_frame_type_audio;
        const TestMedia::ProbePacket &reference = (audio ? audioReference : videoReference).value(counts[audio]);
        const int i = counts[audio]++;
        QVERIFY2(!f.raw.p_drop_reason, f.raw.p_drop_reason);
        QCOMPARE(audio ? uint32_t(f.raw.audio.FourCC) : uint32_t(f.raw.video.FourCC), audio ? uint32_t(NDIlib_FourCC_audio_type_ex_AAC) : videoFourCC);
        QCOMPARE(withoutOuterZeros(f.payload), withoutOuterZeros(expectedPayload(audio ? audioFile : videoFile, reference, audio)));
        const double periodUs = audio ? 1e6 * Adts::kSamplesPerFrame / 48000 : 1e6 / TestMedia::kFrameRate;
        if (i == 0)
            firstPts[audio] = f.header.pts;
        QCOMPARE(qint64(f.header.pts - firstPts[audio]), std::llround(i * periodUs) * 10);
        QCOMPARE(bool(f.header.flags & 1), audio || reference.key);
        if (audio)
            QCOMPARE(f.extra.toHex(), QByteArray("1190")); // AAC-LC, 48 kHz, stereo
        else if (reference.key)
            QCOMPARE(f.extra, parameterSets.isEmpty() ? (parameterSets = f.extra) : parameterSets);
        else
            QVERIFY(f.extra.isEmpty());
    }
    QCOMPARE(counts[0], videoReference.size());
    QCOMPARE(counts[1], audioReference.size());
    // They are the source's parameter sets, and they start the clip's first access unit.
    QCOMPARE(parameterSets.toHex(), AnnexB::split(videoFile, h264 ? AnnexB::Codec::H264 : AnnexB::Codec::H265).parameterSets.toHex());
    QVERIFY(!parameterSets.isEmpty() && videoFile.startsWith(parameterSets));

    // ffprobe decodes both written files cleanly, every frame of the clips in them.
    QCOMPARE(stats.last()[1].toMap(), (QVariantMap{{"video", qint64(counts[0])}, {"audio", qint64(counts[1])}}));
    QCOMPARE(TestMedia::decode(videoOut), QStringLiteral("%1 %2").arg(h264 ? "h264" : "hevc").arg(counts[0]));
    QCOMPARE(TestMedia::decode(audioOut), QStringLiteral("aac %1").arg(counts[1]));

    // One "ready" per stream; the second shows both, with the clip's own parameter sets.
    QCOMPARE(ready.count(), 2);
    const QVariantMap both = ready.last()[1].toMap();
    QCOMPARE(both["infoV"].toMap(), (QVariantMap{{"codec", h264 ? "h264" : "h265"}, {"width", TestMedia::kWidth},
                                                 {"height", TestMedia::kHeight}, {"framerate", TestMedia::kFrameRate},
                                                 {"extradata", parameterSets}}));
    const QVariantMap infoA = both["infoA"].toMap();
    QCOMPARE(infoA["codec"], QVariant("aac"));
    QCOMPARE(infoA["samplerate"], QVariant(48000));
    QCOMPARE(infoA["channels"], QVariant(2));
    QCOMPARE(infoA["extradata"].toByteArray().toHex(), QByteArray("1190"));
}

QTEST_GUILESS_MAIN(TestElementaryStreams)
#include "tst_elementarystreams.moc"
