// The tally wire formats as pure units: serial light frames and replies, vMix API lines.

#include "tally/kesttally.h"
#include "tally/serialframe.h"
#include "tally/vmixline.h"

#include <QTest>

#include <climits>

Q_DECLARE_METATYPE(std::optional<QVariantList>)

class TestTallyWire : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void serialFrame_data();
    void serialFrame();
    void serialReply_data();
    void serialReply();
    void vmixLine_data();
    void vmixLine();
    void vmixPort_data();
    void vmixPort();
};

void TestTallyWire::serialFrame_data()
{
    QTest::addColumn<bool>("tally"); // setTally, else setIndex
    QTest::addColumn<QVariant>("argument");
    QTest::addColumn<QByteArray>("frame");
    QTest::newRow("input 0 in state 2, input 1 in state 1") << true << QVariant(QVariantList{2, 1, 0}) << QByteArray::fromHex("01010204ff");
    QTest::newRow("input 7 is the top bit; 8 on set none")
        << true << QVariant(QVariantList{1, 0, 0, 0, 0, 0, 0, 2, 2, 1}) << QByteArray::fromHex("01800182ff");
    QVariantList many;
    for (int i = 0; i < 70; ++i) // far past the width of an int shift
        many << 2;
    QTest::newRow("seventy inputs") << true << QVariant(many) << QByteArray::fromHex("01ff0000ff");
    QTest::newRow("other values are off, text is a number")
        << true << QVariant(QVariantList{3, -1, 1, QStringLiteral("2")}) << QByteArray::fromHex("0108040dff");
    QTest::newRow("unit 1") << false << QVariant(1) << QByteArray::fromHex("020002ff");
    QTest::newRow("unit 257 wraps to 1") << false << QVariant(257) << QByteArray::fromHex("020002ff");
    QTest::newRow("unit 0 wraps to 0xff") << false << QVariant(0) << QByteArray::fromHex("02ff01ff");
    QTest::newRow("INT_MIN does not overflow") << false << QVariant(INT_MIN) << QByteArray::fromHex("02ff01ff");
}

void TestTallyWire::serialFrame()
{
    QFETCH(bool, tally);
    QFETCH(QVariant, argument);
    QFETCH(QByteArray, frame);
    const QByteArray bytes = tally ? SerialTally::frame(SerialTally::kTallyCommand, SerialTally::tallyPayload(argument.toList()))
                                   : SerialTally::frame(SerialTally::kIndexCommand, SerialTally::indexPayload(argument.toInt()));
    QCOMPARE(bytes.toHex(), frame.toHex());
}

void TestTallyWire::serialReply_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<bool>("matches");
    QTest::newRow("tally frame without its end mark") << QByteArray::fromHex("01010204") << true;
    QTest::newRow("sum wraps modulo 256") << QByteArray::fromHex("ff0201") << true;
    QTest::newRow("one byte off") << QByteArray::fromHex("01010205") << false;
    QTest::newRow("empty") << QByteArray() << false;
}

void TestTallyWire::serialReply()
{
    QFETCH(QByteArray, reply);
    KestTally node;
    QTEST(node.dealCmd(reply), "matches");
}

void TestTallyWire::vmixLine_data()
{
    using Tally = std::optional<QVariantList>;
    QTest::addColumn<QByteArray>("raw");
    QTest::addColumn<Tally>("tally");
    QTest::newRow("tally report") << QByteArray("TALLY OK 0121\r\n") << Tally(QVariantList{0, 1, 2, 1});
    QTest::newRow("empty tally") << QByteArray("TALLY OK \r\n") << Tally(QVariantList{});
    QTest::newRow("four fields") << QByteArray("TALLY OK 01 2\r\n") << Tally();
    QTest::newRow("lower case") << QByteArray("tally OK 012\r\n") << Tally();
    QTest::newRow("two fields") << QByteArray("TALLY OK\r\n") << Tally();
    QTest::newRow("letter and latin-1 byte read as 0") << QByteArray("TALLY OK 1a\xb2\r\n") << Tally(QVariantList{1, 0, 0});
    QTest::newRow("bare line feed stays in the last field") << QByteArray("TALLY OK 012\n") << Tally(QVariantList{0, 1, 2, 0});
    QTest::newRow("cut at the first zero byte") << QByteArray("TALLY OK 01\0 99\r\n", 17) << Tally(QVariantList{0, 1});
    QTest::newRow("bare line feed alone") << QByteArray("\n") << Tally();
    QTest::newRow("version banner") << QByteArray("VERSION OK 27.0.0.49\r\n") << Tally();
}

void TestTallyWire::vmixLine()
{
    QFETCH(QByteArray, raw);
    QTEST(VMix::tally(VMix::lineText(raw)), "tally");
}

void TestTallyWire::vmixPort_data()
{
    QTest::addColumn<int>("setting");
    QTest::addColumn<int>("port");
    QTest::newRow("70000 wraps to 4464") << 70000 << 4464;
    QTest::newRow("-1 is 65535") << -1 << 65535;
}

void TestTallyWire::vmixPort()
{
    QFETCH(int, setting);
    QTEST(int(VMix::portNumber(setting)), "port");
}

QTEST_GUILESS_MAIN(TestTallyWire)
#include "tst_tallywire.moc"
