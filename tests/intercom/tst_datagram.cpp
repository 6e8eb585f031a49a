// The datagram header and station names as a pure unit.

#include "intercom/datagram.h"

#include <QTest>

#include <memory>

using namespace Intercom;

class TestDatagram : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void shortDatagramsReadAsZero_data();
    void shortDatagramsReadAsZero();
    void namesAreCutAtCharacterBoundaries_data();
    void namesAreCutAtCharacterBoundaries();
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
    QTest::newRow("with body") << QByteArray("\xfe\x01\x02zz", 5) << 254 << 1 << 2 << 2;
}

void TestDatagram::shortDatagramsReadAsZero()
{
    QFETCH(QByteArray, bytes);
    // An exactly sized heap block, so that the sanitizer build catches any read beyond it.
    std::unique_ptr<char[]> exact(new char[size_t(bytes.size())]);
    std::copy(bytes.begin(), bytes.end(), exact.get());
    const Header h = readHeader(exact.get(), bytes.size());
    QTEST(int(h.source), "source");
    QTEST(int(h.destination), "destination");
    QTEST(int(h.type), "type");
    const Body b = body(exact.get(), bytes.size());
    QTEST(b.size, "bodySize");
    if (b.size > 0)
        QCOMPARE(static_cast<const void *>(b.data), static_cast<const void *>(exact.get() + kHeaderSize));
}

void TestDatagram::namesAreCutAtCharacterBoundaries_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<int>("expectedBytes");
    QTest::newRow("ASCII over") << QString(300, 'a') << 253;
    // 252 ASCII bytes and a 2-byte character: the character would end at byte 254.
    // 251 ASCII bytes and a 3-byte character (254 bytes): cut before it.
    QTest::newRow("three-byte char across the limit") << QString(251, 'a') + QStringLiteral("€") << 251;
    // 4-byte characters only: 63 of them are 252 bytes, the 64th would pass 253.
    QTest::newRow("four-byte chars") << QString::fromUtf8("\xF0\x9F\x8E\xA4").repeated(80) << 252;
}

void TestDatagram::namesAreCutAtCharacterBoundaries()
{
    QFETCH(QString, name);
    const QByteArray cut = truncatedUtf8(name);
    QTEST(cut.size(), "expectedBytes");
    // What remains is valid UTF-8 and a prefix of the name.
    QVERIFY(name.startsWith(QString::fromUtf8(cut)));
    QCOMPARE(QString::fromUtf8(cut).toUtf8(), cut);
}

QTEST_APPLESS_MAIN(TestDatagram)
#include "tst_datagram.moc"
