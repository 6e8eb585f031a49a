#include "intercom/datagram.h"

#include <QTest>

using namespace Intercom;

class TestDatagram : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void shortDatagramsReadAsZero_data();
    void shortDatagramsReadAsZero();
    void headerRoundTrip();
    void aliveLayout();
    void namesAreCutAtCharacterBoundaries_data();
    void namesAreCutAtCharacterBoundaries();
    void commandTextStopsAtZeroByte();
    void stationNumbersKeepLowBits();
};

void TestDatagram::shortDatagramsReadAsZero_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("source");
    QTest::addColumn<int>("destination");
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("bodySize");
    QTest::newRow("empty") << QByteArray() << 0 << 0 << 0 << 0;
    QTest::newRow("one byte") << QByteArray("\x07", 1) << 7 << 0 << 0 << 0;
    QTest::newRow("two bytes") << QByteArray("\x07\xff", 2) << 7 << 255 << 0 << 0;
    QTest::newRow("header only") << QByteArray("\x07\x02\x01", 3) << 7 << 2 << 1 << 0;
    QTest::newRow("with body") << QByteArray("\xfe\x01\x00zz", 5) << 254 << 1 << 0 << 2;
}

void TestDatagram::shortDatagramsReadAsZero()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, source);
    QFETCH(int, destination);
    QFETCH(int, type);
    QFETCH(int, bodySize);
    // Copy into an exactly sized heap block so that the sanitizer build catches any overread.
    std::unique_ptr<char[]> exact(new char[size_t(bytes.size()) + 0]);
    std::copy(bytes.begin(), bytes.end(), exact.get());
    const Header h = readHeader(exact.get(), bytes.size());
    QCOMPARE(int(h.source), source);
    QCOMPARE(int(h.destination), destination);
    QCOMPARE(int(h.type), type);
    const Body b = body(exact.get(), bytes.size());
    QCOMPARE(b.size, bodySize);
    if (bodySize > 0)
        QCOMPARE(static_cast<const void *>(b.data), static_cast<const void *>(exact.get() + kHeaderSize));
}

void TestDatagram::headerRoundTrip()
{
    char buffer[kHeaderSize];
    writeHeader(buffer, {200, kBroadcast, Command});
    const Header h = readHeader(buffer, kHeaderSize);
    QCOMPARE(int(h.source), 200);
    QCOMPARE(int(h.destination), 255);
    QCOMPARE(int(h.type), 2);
}

void TestDatagram::aliveLayout()
{
    char buffer[kAliveBufferSize];
    QCOMPARE(buildAlive(buffer, 3, QString()), 3);
    QCOMPARE(QByteArray(buffer, 3), QByteArray("\x03\xff\x01", 3));
    const int length = buildAlive(buffer, 9, QStringLiteral("Kamera Süd"));
    QCOMPARE(length, 3 + QStringLiteral("Kamera Süd").toUtf8().size());
    QCOMPARE(QByteArray(buffer + 3, length - 3), QStringLiteral("Kamera Süd").toUtf8());
    // The longest name still fits the prebuilt buffer.
    QCOMPARE(buildAlive(buffer, 1, QString(400, QLatin1Char('x'))), kAliveBufferSize);
}

void TestDatagram::namesAreCutAtCharacterBoundaries_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("expectedBytes");
    QTest::newRow("short") << QStringLiteral("Regie") << 5;
    QTest::newRow("exactly 253 ascii") << QString(253, QLatin1Char('a')) << 253;
    QTest::newRow("ascii over") << QString(300, QLatin1Char('a')) << 253;
    // 252 ASCII bytes and a 2-byte character: the character would end at byte 254.
    QTest::newRow("two-byte char across the limit") << QString(252, QLatin1Char('a')) + QStringLiteral("é") << 252;
    // 251 ASCII bytes and a 3-byte character (254 bytes): cut before it.
    QTest::newRow("three-byte char across the limit") << QString(251, QLatin1Char('a')) + QStringLiteral("€") << 251;
    // 4-byte characters only: 63 of them are 252 bytes, the 64th would pass 253.
    QTest::newRow("four-byte chars") << QString::fromUtf8("\xF0\x9F\x8E\xA4").repeated(80) << 252;
}

void TestDatagram::namesAreCutAtCharacterBoundaries()
{
    QFETCH(QString, name);
    QFETCH(int, expectedBytes);
    const QByteArray cut = truncatedUtf8(name);
    QCOMPARE(cut.size(), expectedBytes);
    // What remains is valid UTF-8 and a prefix of the name.
    QVERIFY(name.startsWith(QString::fromUtf8(cut)));
    QCOMPARE(QString::fromUtf8(cut).toUtf8(), cut);
}

void TestDatagram::commandTextStopsAtZeroByte()
{
    const QByteArray datagram("\x01\x02\x02{\"func\":\"TALLY\"}\0junk", 23);
    QCOMPARE(commandText(body(datagram.constData(), datagram.size())), QStringLiteral("{\"func\":\"TALLY\"}"));
    const QByteArray latin1("\x01\x02\x02\xe9", 4);
    QCOMPARE(commandText(body(latin1.constData(), latin1.size())), QString(QChar(0xe9)));
    QCOMPARE(commandText(body(latin1.constData(), 2)), QString());
}

void TestDatagram::stationNumbersKeepLowBits()
{
    QCOMPARE(int(stationNumber(255)), 255);
    QCOMPARE(int(stationNumber(256)), 0);
    QCOMPARE(int(stationNumber(-1)), 255);
    QCOMPARE(int(stationNumber(258)), 2);
}

QTEST_GUILESS_MAIN(TestDatagram)
#include "tst_datagram.moc"
