#include "tally/serialframe.h"

#include <QTest>

#include <climits>

class TestSerialFrame : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void tallyFrame_data();
    void tallyFrame();
    void indexFrame_data();
    void indexFrame();
    void checksum_data();
    void checksum();
    void deviceName_data();
    void deviceName();
};

void TestSerialFrame::tallyFrame_data()
{
    QTest::addColumn<QVariantList>("states");
    QTest::addColumn<QByteArray>("frame");
    QTest::newRow("input 0 in state 2, input 1 in state 1") << QVariantList{2, 1, 0} << QByteArray::fromHex("01010204ff");
    QTest::newRow("no inputs") << QVariantList{} << QByteArray::fromHex("01000001ff");
    QTest::newRow("all eight in state 2: checksum wraps to 0")
        << QVariantList{2, 2, 2, 2, 2, 2, 2, 2} << QByteArray::fromHex("01ff0000ff");
    QTest::newRow("input 7 is the top bit") << QVariantList{0, 0, 0, 0, 0, 0, 0, 1} << QByteArray::fromHex("01008081ff");
    QTest::newRow("inputs from 8 on set no bits")
        << QVariantList{0, 0, 0, 0, 0, 0, 0, 0, 2, 1, 2} << QByteArray::fromHex("01000001ff");
    QVariantList many;
    for (int i = 0; i < 70; ++i) // far past the width of an int shift
        many << 2;
    QTest::newRow("seventy inputs") << many << QByteArray::fromHex("01ff0000ff");
    QTest::newRow("other values are off") << QVariantList{3, -1, 1} << QByteArray::fromHex("01000405ff");
    QTest::newRow("numbers as text") << QVariantList{QStringLiteral("1"), QStringLiteral("2")} << QByteArray::fromHex("01020104ff");
}

void TestSerialFrame::tallyFrame()
{
    QFETCH(QVariantList, states);
    QFETCH(QByteArray, frame);
    QCOMPARE(SerialTally::frame(SerialTally::kTallyCommand, SerialTally::tallyPayload(states)).toHex(), frame.toHex());
}

void TestSerialFrame::indexFrame_data()
{
    QTest::addColumn<int>("unit");
    QTest::addColumn<QByteArray>("frame");
    QTest::newRow("unit 1") << 1 << QByteArray::fromHex("020002ff");
    QTest::newRow("unit 8") << 8 << QByteArray::fromHex("020709ff");
    QTest::newRow("unit 256 is the last") << 256 << QByteArray::fromHex("02ff01ff");
    QTest::newRow("unit 257 wraps to 1") << 257 << QByteArray::fromHex("020002ff");
    QTest::newRow("unit 0 wraps to 0xff") << 0 << QByteArray::fromHex("02ff01ff");
    QTest::newRow("INT_MIN does not overflow") << INT_MIN << QByteArray::fromHex("02ff01ff");
}

void TestSerialFrame::indexFrame()
{
    QFETCH(int, unit);
    QFETCH(QByteArray, frame);
    QCOMPARE(SerialTally::frame(SerialTally::kIndexCommand, SerialTally::indexPayload(unit)).toHex(), frame.toHex());
}

void TestSerialFrame::checksum_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<bool>("matches");
    QTest::newRow("tally frame without its end mark") << QByteArray::fromHex("01010204") << true;
    QTest::newRow("sum wraps modulo 256") << QByteArray::fromHex("ff0201") << true;
    QTest::newRow("one byte off") << QByteArray::fromHex("01010205") << false;
    QTest::newRow("single zero byte") << QByteArray::fromHex("00") << true;
    QTest::newRow("single non-zero byte") << QByteArray::fromHex("07") << false;
    QTest::newRow("empty") << QByteArray() << false;
}

void TestSerialFrame::checksum()
{
    QFETCH(QByteArray, reply);
    QFETCH(bool, matches);
    QCOMPARE(SerialTally::checksumMatches(reply), matches);
}

void TestSerialFrame::deviceName_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("name");
    QTest::newRow("usb adapter") << "/dev/ttyUSB0" << "ttyUSB0";
    QTest::newRow("no folder") << "ttyS1" << "ttyS1";
    QTest::newRow("trailing slash") << "/dev/ttyUSB0/" << "";
    QTest::newRow("empty") << "" << "";
    QTest::newRow("shell text stays text") << "/dev/x;touch pwned" << "x;touch pwned";
}

void TestSerialFrame::deviceName()
{
    QFETCH(QString, path);
    QFETCH(QString, name);
    QCOMPARE(SerialTally::deviceName(path), name);
}

QTEST_APPLESS_MAIN(TestSerialFrame)
#include "tst_serialframe.moc"
