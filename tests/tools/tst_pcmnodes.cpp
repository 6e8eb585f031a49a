// kest-run's PCM host nodes: the tone/file source and the level-reporting sink.

#include "logcapture.h"
#include "pcmsink.h"
#include "pcmsource.h"
#include "recorder.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <cstring>

namespace {

// Downstream of the source, writing a 3-byte header in front of the samples as a station does.
struct Station : Recorder
{
    void onNewPacketA(Packet p) override
    {
        Recorder::onNewPacketA(p);
        std::memset(p.data - 3, 0xee, 3);
    }
};

// Sample i of a frame: signed 16-bit, or unsigned 8-bit around 128.
int sampleOf(const QByteArray &frame, int bits, int i)
{
    if (bits == 8)
        return int(quint8(frame[i])) - 128;
    qint16 s;
    std::memcpy(&s, frame.constData() + 2 * i, sizeof(s));
    return s;
}

QByteArray samples16(std::initializer_list<qint16> samples)
{
    return QByteArray(reinterpret_cast<const char *>(samples.begin()), int(samples.size() * sizeof(qint16)));
}

struct Source
{
    explicit Source(const QVariantMap &settings)
    {
        node.setName(QStringLiteral("src"));
        node.setData(settings);
        node.link(&out, KestObject::Audio);
        node.start();
    }
    ~Source() { node.stop(); }
    PcmSource node;
    Station out;
};

} // namespace

class TestPcmNodes : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void toneFrames_data();
    void toneFrames();
    void fileLoops_data();
    void fileLoops();
    void badSettingsLogAndStayIdle_data();
    void badSettingsLogAndStayIdle();
    void sinkReportsAndWrites_data();
    void sinkReportsAndWrites();

private:
    QTemporaryDir dir;
};

void TestPcmNodes::toneFrames_data()
{
    QTest::addColumn<int>("bits");
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("frameSize");
    QTest::addColumn<int>("levelDb");
    QTest::addColumn<int>("peak");
    QTest::newRow("16-bit mono, -6 dB") << 16 << 1 << 480 << -6 << 16422;
    QTest::newRow("8-bit stereo, 441 samples, 0 dB") << 8 << 2 << 441 << 0 << 127;
}

void TestPcmNodes::toneFrames()
{
    QFETCH(int, bits);
    QFETCH(int, channels);
    QFETCH(int, frameSize);
    QFETCH(int, levelDb);
    Source src({{"bitwidth", bits}, {"channels", channels}, {"frame_size", frameSize}, {"level_db", levelDb}});
    QTRY_VERIFY(src.out.frames.size() >= 6);
    QCOMPARE(src.out.infosA.size(), 1);
    QCOMPARE(src.out.infosA[0].params,
             (QVariantMap{{"samplerate", 48000}, {"channels", channels}, {"bitwidth", bits}, {"frame_size", frameSize},
                          {"sample_fmt", bits == 8 ? "u8" : "s16"}}));
    QCOMPARE(src.out.infosA[0].source, static_cast<QObject *>(&src.node));

    int highest = 0, crossings = 0, previous = 0, total = 0;
    for (int f = 0; f < src.out.frames.size(); ++f) {
        const Packet &p = src.out.audio[f];
        QCOMPARE(p.len, frameSize * channels * bits / 8);
        QCOMPARE(p.frameType, 3);
        QCOMPARE(p.source, static_cast<QObject *>(&src.node));
        if (f > 0) // pts follow the sample clock, to the microsecond
            QVERIFY(qAbs(p.pts - src.out.audio[f - 1].pts - frameSize * 1000000.0 / 48000) < 1);
        for (int i = 0; i < frameSize; ++i, ++total) {
            const int s = sampleOf(src.out.frames[f], bits, i * channels);
            for (int c = 1; c < channels; ++c)
                QCOMPARE(sampleOf(src.out.frames[f], bits, i * channels + c), s);
            highest = qMax(highest, qAbs(s));
            crossings += (s > 0) != (previous > 0) ? 1 : 0;
            previous = s;
        }
    }
    QTEST(highest, "peak");
    const double expectedCrossings = 2.0 * 1000 * total / 48000; // 1000 Hz
    QVERIFY2(qAbs(crossings - expectedCrossings) <= 2, qPrintable(QString::number(crossings)));

    // -120 dB while running is silence, and not a new stream.
    src.node.setData({{"level_db", -120}});
    src.out.frames.clear();
    QTRY_VERIFY(src.out.frames.size() >= 2);
    for (const QByteArray &f : qAsConst(src.out.frames))
        QCOMPARE(f, QByteArray(f.size(), bits == 8 ? '\x80' : '\0'));
    QCOMPARE(src.out.infosA.size(), 1);
}

void TestPcmNodes::fileLoops_data()
{
    QTest::addColumn<int>("bits");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QList<QByteArray>>("frames");
    // Four samples per frame at -6 dB; the file holds one and a half frames and is played round.
    QTest::newRow("16-bit") << 16 << samples16({1000, -1000, 0, 30000, 2, 4})
                            << QList<QByteArray>{samples16({501, -501, 0, 15036}), samples16({1, 2, 501, -501})};
    QTest::newRow("8-bit") << 8 << QByteArray("\xe4\x1c\x80\x80\x81\x7f", 6)
                           << QList<QByteArray>{QByteArray("\xb2\x4e\x80\x80", 4), QByteArray("\x81\x7f\xb2\x4e", 4)};
}

void TestPcmNodes::fileLoops()
{
    QFETCH(int, bits);
    QFETCH(QByteArray, content);
    QFETCH(QList<QByteArray>, frames);
    const QString path = dir.filePath(QStringLiteral("loop.raw"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
    file.close();
    Source src({{"file", path}, {"bitwidth", bits}, {"frame_size", 4}, {"level_db", -6}});
    QTRY_VERIFY(src.out.frames.size() >= frames.size());
    QCOMPARE(src.out.frames.mid(0, frames.size()), frames);
}

void TestPcmNodes::badSettingsLogAndStayIdle_data()
{
    QTest::addColumn<QVariantMap>("settings");
    QTest::addColumn<QString>("message");
    QTest::newRow("bitwidth") << QVariantMap{{"bitwidth", 12}} << "[src] \"bitwidth\" must be 8 or 16 - no audio";
    QTest::newRow("samplerate") << QVariantMap{{"samplerate", 0}} << "[src] \"samplerate\" must be 1 to 768000 - no audio";
    QTest::newRow("empty file") << QVariantMap{{"file", "EMPTY"}} << "[src] EMPTY is empty - no audio";
    QTest::newRow("frame too large") << QVariantMap{{"frame_size", 40000}}
                                     << "[src] \"frame_size\" must be at least 1 and a packet at most 65504 bytes - no audio";
    QTest::newRow("missing file") << QVariantMap{{"file", "/nonexistent/mic.raw"}}
                                  << "[src] cannot read /nonexistent/mic.raw: No such file or directory - no audio";
}

void TestPcmNodes::badSettingsLogAndStayIdle()
{
    QFETCH(QVariantMap, settings);
    QFETCH(QString, message);
    if (settings.value("file") == "EMPTY") {
        const QString path = dir.filePath(QStringLiteral("empty.raw"));
        QVERIFY(QFile(path).open(QIODevice::WriteOnly));
        settings["file"] = path;
        message.replace("EMPTY", path);
    }
    LogCapture log;
    Source src(settings);
    QCOMPARE(log.lines(), QStringList{message});
    src.node.onTimer();
    QVERIFY(src.out.frames.isEmpty());
    QVERIFY(src.out.infosA.isEmpty());
}

void TestPcmNodes::sinkReportsAndWrites_data()
{
    QTest::addColumn<int>("bits");
    QTest::addColumn<QList<QByteArray>>("packets");
    QTest::addColumn<int>("peak");
    QTest::newRow("16-bit") << 16 << QList<QByteArray>{samples16({100, -32768}), samples16({5}), samples16({-7, 300})} << 32768;
    QTest::newRow("8-bit") << 8 << QList<QByteArray>{QByteArray("\x80\x90", 2), QByteArray("\x01", 1)} << 127;
}

void TestPcmNodes::sinkReportsAndWrites()
{
    QFETCH(int, bits);
    QFETCH(QList<QByteArray>, packets);
    QFETCH(int, peak);
    const QString path = dir.filePath(QStringLiteral("out%1.raw").arg(bits));
    PcmSink sink;
    sink.setData({{"file", path}, {"report_ms", 20}});
    QSignalSpy events(&sink, &KestObject::eventSent);
    StreamInfo info;
    info.params = {{"bitwidth", bits}};
    sink.onNewInfoA(info);
    sink.start();
    QByteArray written;
    for (QByteArray bytes : packets) {
        Packet p;
        p.data = bytes.data();
        p.len = bytes.size();
        sink.onNewPacketA(p);
        written += bytes;
    }
    QTRY_VERIFY(events.size() >= 2);
    QCOMPARE(events[0], (QVariantList{"level", QVariantMap{{"peak", peak}, {"packets", packets.size()}}}));
    QCOMPARE(events[1], (QVariantList{"level", QVariantMap{{"peak", 0}, {"packets", 0}}}));
    sink.stop();
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), written);
}

QTEST_GUILESS_MAIN(TestPcmNodes)
#include "tst_pcmnodes.moc"
