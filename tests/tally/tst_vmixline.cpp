#include "tally/vmixline.h"

#include <QTest>

Q_DECLARE_METATYPE(std::optional<QVariantList>)

class TestVMixLine : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void line_data();
    void line();
    void portNumber_data();
    void portNumber();
};

void TestVMixLine::line_data()
{
    using Tally = std::optional<QVariantList>;
    QTest::addColumn<QByteArray>("raw");
    QTest::addColumn<Tally>("tally");
    QTest::newRow("tally report") << QByteArray("TALLY OK 0121\r\n") << Tally(QVariantList{0, 1, 2, 1});
    QTest::newRow("empty tally") << QByteArray("TALLY OK \r\n") << Tally(QVariantList{});
    QTest::newRow("four fields") << QByteArray("TALLY OK 01 2\r\n") << Tally();
    QTest::newRow("lower case") << QByteArray("tally OK 012\r\n") << Tally();
    QTest::newRow("two fields") << QByteArray("TALLY OK\r\n") << Tally();
    QTest::newRow("double space makes an empty field") << QByteArray("TALLY  0121\r\n") << Tally(QVariantList{0, 1, 2, 1});
    QTest::newRow("status is not examined") << QByteArray("TALLY XX 0121\r\n") << Tally(QVariantList{0, 1, 2, 1});
    QTest::newRow("letter reads as 0") << QByteArray("TALLY OK 1a2\r\n") << Tally(QVariantList{1, 0, 2});
    QTest::newRow("digits beyond 2 pass through") << QByteArray("TALLY OK 93\r\n") << Tally(QVariantList{9, 3});
    QTest::newRow("bare line feed stays in the last field") << QByteArray("TALLY OK 012\n") << Tally(QVariantList{0, 1, 2, 0});
    QTest::newRow("lone carriage return stays") << QByteArray("TALLY OK 01\r\r\n") << Tally(QVariantList{0, 1, 0});
    QTest::newRow("cut at the first zero byte") << QByteArray("TALLY OK 01\0 99\r\n", 17) << Tally(QVariantList{0, 1});
    QTest::newRow("zero byte before the third field") << QByteArray("TALLY OK\0 01\r\n", 14) << Tally();
    QTest::newRow("latin-1 byte reads as 0") << QByteArray("TALLY OK 1\xb2\r\n") << Tally(QVariantList{1, 0});
    QTest::newRow("bare line feed alone") << QByteArray("\n") << Tally();
    QTest::newRow("version banner") << QByteArray("VERSION OK 27.0.0.49\r\n") << Tally();
    QTest::newRow("subscription reply") << QByteArray("SUBSCRIBE OK TALLY\r\n") << Tally();
}

void TestVMixLine::line()
{
    using Tally = std::optional<QVariantList>;
    QFETCH(QByteArray, raw);
    QFETCH(Tally, tally);
    QCOMPARE(VMix::tally(VMix::lineText(raw)), tally);
}

void TestVMixLine::portNumber_data()
{
    QTest::addColumn<int>("setting");
    QTest::addColumn<int>("port");
    QTest::newRow("default") << 8099 << 8099;
    QTest::newRow("70000 wraps to 4464") << 70000 << 4464;
    QTest::newRow("65536 wraps to 0") << 65536 << 0;
    QTest::newRow("-1 is 65535") << -1 << 65535;
}

void TestVMixLine::portNumber()
{
    QFETCH(int, setting);
    QFETCH(int, port);
    QCOMPARE(int(VMix::portNumber(setting)), port);
}

QTEST_APPLESS_MAIN(TestVMixLine)
#include "tst_vmixline.moc"
