// The sizes and layouts the nodes depend on, checked against a table for the processor the suite
// runs on: the appliance's 32-bit ARM (the armhf cross build, run under qemu-arm) and the x86_64
// development machines. A node that hard-codes one machine's value fails on the other.

#include <QLibrary>
#include <QMetaType>
#include <QTest>

#include <cstddef>

#include <linux/input.h>

namespace {

struct Expected
{
    int pointer;
    int longInteger;
    int int64Alignment;
    int inputEvent;     // one record from an input device (headset keys)
    int inputSeconds;   // its seconds field
    int inputType;      // offsets of type, code and value in the record
    int inputCode;
    int inputValue;
    int keyValueInBlock; // where the key record's value starts in a block of three records
};

#if defined(__arm__) && !defined(__aarch64__)
// ARM EABI: 32-bit pointers and long, 64-bit integers 8-aligned, 16-byte input records.
constexpr Expected kExpected{4, 4, 8, 16, 4, 8, 10, 12, 28};
#define KEST_PLATFORM_KNOWN 1
#elif defined(__x86_64__)
constexpr Expected kExpected{8, 8, 8, 24, 8, 16, 18, 20, 44};
#define KEST_PLATFORM_KNOWN 1
#endif

} // namespace

class TestPlatform : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void sizesAndLayouts_data();
    void sizesAndLayouts();
};

void TestPlatform::initTestCase()
{
    QLibrary library(QStringLiteral(KEST_LIBRARY_PATH));
    QVERIFY2(library.load(), qPrintable(library.errorString()));
    qInfo("pointer %d bytes, long %d bytes, input_event %d bytes", int(sizeof(void *)), int(sizeof(long)),
          int(sizeof(input_event)));
}

void TestPlatform::sizesAndLayouts_data()
{
    QTest::addColumn<int>("actual");
    QTest::addColumn<int>("expected");
#ifndef KEST_PLATFORM_KNOWN
    QSKIP("no table for this processor");
#else
    const input_event event{};
    // The host stores a node class under its name as a pointer meta-type: one pointer wide.
    const int nodeType = QMetaType::type("KestIntercomServer");

    QTest::newRow("pointer") << int(sizeof(void *)) << kExpected.pointer;
    QTest::newRow("long") << int(sizeof(long)) << kExpected.longInteger;
    QTest::newRow("64-bit integer alignment") << int(alignof(qint64)) << kExpected.int64Alignment;
    QTest::newRow("registered node pointer type") << QMetaType::sizeOf(nodeType) << kExpected.pointer;
    QTest::newRow("input_event") << int(sizeof(input_event)) << kExpected.inputEvent;
    QTest::newRow("input_event seconds") << int(sizeof(event.input_event_sec)) << kExpected.inputSeconds;
    QTest::newRow("input_event type offset") << int(offsetof(input_event, type)) << kExpected.inputType;
    QTest::newRow("input_event code offset") << int(offsetof(input_event, code)) << kExpected.inputCode;
    QTest::newRow("input_event value offset") << int(offsetof(input_event, value)) << kExpected.inputValue;
    // A key arrives as three records (scan code, key, sync); the headset reader takes them as
    // one 48-byte block on the target and reads the key's value at byte 28.
    input_event block[3]{};
    block[1].value = 1;
    const auto *bytes = reinterpret_cast<const unsigned char *>(block);
    int keyValueAt = -1;
    for (int i = 0; i < int(sizeof(block)); ++i)
        if (bytes[i] == 1)
            keyValueAt = i;
    QTest::newRow("key value in a block of three records") << keyValueAt << kExpected.keyValueInBlock;
#endif
}

void TestPlatform::sizesAndLayouts()
{
    QFETCH(int, actual);
    QFETCH(int, expected);
    QCOMPARE(actual, expected);
}

QTEST_GUILESS_MAIN(TestPlatform)
#include "tst_platform.moc"
