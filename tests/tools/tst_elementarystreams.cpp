// Cutting elementary streams for EsSource: Annex-B access units and ADTS frames.

#include "adts.h"
#include "annexb.h"

#include <QTest>

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

} // namespace

class TestElementaryStreams : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void annexB_data();
    void annexB();
    void adts_data();
    void adts();
    void adtsHeader_data();
    void adtsHeader();
};

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
    QTest::newRow("h264 bytes before the first start code skipped")
        << H264 << QByteArray("ffee 00000001 658811") << "2+7K" << QByteArray();
    QTest::newRow("h264 SEI belongs to the next picture")
        << H264 << QByteArray("00000001 658811 00000001 060501 00000001 419a22") << "0+7K 7+14" << QByteArray();
    QTest::newRow("h264 no picture, no unit") << H264 << QByteArray("00000001 67641f") << ""
                                              << QByteArray("0000000167641f");
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
    QTest::newRow("AAC-LC 44.1 kHz mono") << QByteArray("1208") << 1 << QByteArray("fff15040011ffc");
    QTest::newRow("HE-AAC object type 5 has no header") << QByteArray("2b10") << 3 << QByteArray();
    QTest::newRow("largest frame") << QByteArray("1190") << 8184 << QByteArray("fff14c83fffffc");
    QTest::newRow("frame too long for 13 bits") << QByteArray("1190") << 8185 << QByteArray();
    QTest::newRow("explicit rate (index 15)") << QByteArray("1790") << 3 << QByteArray();
    QTest::newRow("channels from a program config (0)") << QByteArray("1180") << 3 << QByteArray();
    QTest::newRow("one byte") << QByteArray("11") << 3 << QByteArray();
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

QTEST_GUILESS_MAIN(TestElementaryStreams)
#include "tst_elementarystreams.moc"
