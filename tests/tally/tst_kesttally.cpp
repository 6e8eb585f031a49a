// The serial tally light on a real serial port: a socat pseudo-terminal pair (see ptypair.h).

#include "logcapture.h"
#include "ptypair.h"

#include "kestgpio.h"
#include "kestrunprocess.h"
#include "tally/kesttally.h"
#include "tally/serialframe.h"
#include "tally/stalelocks.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QScopeGuard>
#include <QSerialPort>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>
#include <QUuid>

#include <memory>

#include <termios.h>

namespace {

constexpr qint64 kStepUs = 100 * 1000; // one command-mode wait
const QString kLine = QStringLiteral("kest-test-line"); // a GPIO line no machine has

QString unique(const QString &prefix)
{
    return prefix + QUuid::createUuid().toString(QUuid::Id128);
}

} // namespace

class TestKestTally : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void portFramesAndReplies();
    void initCommandInCommandMode_data();
    void initCommandInCommandMode();
    void hungUpPortClosesWithWriteError();
    void staleLocks_data();
    void staleLocks();
    void startRemovesStaleLocksInTmp();
    void uartIsNeverACommand_data();
    void uartIsNeverACommand();
    void exampleDrivesTheLightUnderKestRun();

private:
    // A started node on the pty pair; `settings` go on top of the test defaults.
    void startNode(const QVariantMap &settings = {})
    {
        node = std::make_unique<KestTally>();
        node->setName(QStringLiteral("tally1"));
        node->data.insert({{"uart", pty->nodeEnd()}, {"gpio", kLine}, {"init", ""}});
        node->data.insert(settings);
        node->start();
    }
    QSerialPort *port() { return node->findChild<QSerialPort *>(); }
    // Called by name, as the host does.
    QVariant call(const char *slot, const QVariant &arg)
    {
        QVariant result;
        if (!QMetaObject::invokeMethod(node.get(), slot, Q_RETURN_ARG(QVariant, result), Q_ARG(QVariant, arg)))
            return QStringLiteral("not invokable");
        return result;
    }
    void expectPortSettings(speed_t speed);

    QTemporaryDir dir;
    std::unique_ptr<PtyPair> pty;
    std::unique_ptr<KestTally> node;
    std::unique_ptr<LogCapture> log;
};

void TestKestTally::initTestCase()
{
    QVERIFY(dir.isValid());
    QVERIFY2(!QStandardPaths::findExecutable(QStringLiteral("socat")).isEmpty(), "socat is not installed");
}

void TestKestTally::init()
{
    KestGPIO::clearCalls();
    log = std::make_unique<LogCapture>();
    pty = std::make_unique<PtyPair>(dir.path());
    QVERIFY2(pty->isReady(), "socat did not make the pty pair");
}

void TestKestTally::cleanup()
{
    node.reset();
    pty.reset();
    log.reset();
}

void TestKestTally::expectPortSettings(speed_t speed)
{
    termios t{};
    QVERIFY(port()->isOpen());
    QCOMPARE(::tcgetattr(int(port()->handle()), &t), 0);
    QCOMPARE(::cfgetospeed(&t), speed);
    QCOMPARE(::cfgetispeed(&t), speed);
    QCOMPARE(t.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS), tcflag_t(CS8));
    QCOMPARE(t.c_iflag & (IXON | IXOFF), tcflag_t(0));
}

void TestKestTally::portFramesAndReplies()
{
    startNode({{"baudRate", 19200}});
    expectPortSettings(B19200);
    QCOMPARE(call("setTally", QVariantList{2, 1, 0}), QVariant(true));
    QCOMPARE(pty->takeBytes(5).toHex(), QByteArray("01010204ff"));
    QCOMPARE(call("setIndex", 1), QVariant(true));
    QCOMPARE(pty->takeBytes(4).toHex(), QByteArray("020002ff"));

    // Replies of the module are read and dropped.
    QSignalSpy readyRead(port(), &QSerialPort::readyRead); // connected after the node's own slot
    QVERIFY(pty->write(QByteArray::fromHex("0102030406ff")));
    QTRY_VERIFY(readyRead.count() > 0);
    QCOMPARE(port()->bytesAvailable(), qint64(0));

    // A second start closes the port first (it would otherwise refuse to open again) and
    // applies the new rate.
    node->data.insert(QStringLiteral("baudRate"), 115200);
    node->start();
    expectPortSettings(B115200);
    call("setIndex", 2);
    QCOMPARE(pty->takeBytes(4).toHex(), QByteArray("020103ff"));

    node->stop();
    QVERIFY(!port()->isOpen());
    QCOMPARE(call("setIndex", 3), QVariant(true));
    QVERIFY(pty->silentFor(100));
    QCOMPARE(log->lines(), QStringList());
}

void TestKestTally::initCommandInCommandMode_data()
{
    QTest::addColumn<QString>("init");
    QTest::newRow("command") << "AT+C077";
    QTest::newRow("empty: nothing sent") << "";
}

void TestKestTally::initCommandInCommandMode()
{
    QFETCH(QString, init);
    QElapsedTimer elapsed;
    elapsed.start();
    startNode({{"init", init}});
    const qint64 startMs = elapsed.elapsed();
    const QList<KestGPIO::Call> calls = KestGPIO::calls();
    if (init.isEmpty()) {
        QVERIFY(calls.isEmpty());
        QVERIFY(pty->silentFor(200));
        return;
    }
    QCOMPARE(calls.size(), 2);
    QCOMPARE(calls[0].line, kLine);
    QCOMPARE(calls[0].value, 0);
    QCOMPARE(calls[1].line, kLine);
    QCOMPARE(calls[1].value, 1);
    QVERIFY(startMs >= 3 * kStepUs / 1000); // the line is held 100 ms after it is released, too

    // Sent as it is, with no line ending, while the module is in command mode: at least one
    // wait after the line went to 0 and before it went back to 1.
    const QVector<PtyPair::Byte> bytes = pty->take(init.size());
    QByteArray text;
    for (const PtyPair::Byte &b : bytes)
        text.append(b.value);
    QCOMPARE(text, init.toUtf8());
    QVERIFY2(bytes.first().timeUs >= calls[0].timeUs + kStepUs, qPrintable(QString::number(bytes.first().timeUs - calls[0].timeUs)));
    QVERIFY2(bytes.last().timeUs <= calls[1].timeUs, qPrintable(QString::number(bytes.last().timeUs - calls[1].timeUs)));
    QVERIFY(calls[1].timeUs - calls[0].timeUs >= 2 * kStepUs);

    // sendAT called by the host later behaves the same.
    KestGPIO::clearCalls();
    QCOMPARE(call("sendAT", QStringLiteral("AT+RX")), QVariant(true));
    QCOMPARE(pty->takeBytes(5), QByteArray("AT+RX"));
    QCOMPARE(KestGPIO::calls().size(), 2);
}

void TestKestTally::hungUpPortClosesWithWriteError()
{
    startNode();
    pty->kill();
    // Each 5-byte frame stays in the port's buffer; the third one takes it past 10 bytes.
    call("setTally", QVariantList{1});
    call("setTally", QVariantList{2});
    QVERIFY(port()->isOpen());
    QCOMPARE(log->count(QStringLiteral("[tally1] write error")), 0);
    QCOMPARE(call("setTally", QVariantList{0, 1}), QVariant(true));
    QVERIFY(!port()->isOpen());
    QCOMPARE(log->count(QStringLiteral("[tally1] write error")), 1);
    // Closed until the next start: later frames are dropped without another message.
    QCOMPARE(call("setIndex", 4), QVariant(true));
    QCOMPARE(log->count(QStringLiteral("[tally1] write error")), 1);

    // A new start opens the (re-plugged) device again.
    pty = std::make_unique<PtyPair>(dir.path());
    QVERIFY(pty->isReady());
    node->data.insert(QStringLiteral("uart"), pty->nodeEnd());
    node->start();
    call("setIndex", 1);
    QCOMPARE(pty->takeBytes(4).toHex(), QByteArray("020002ff"));
}

void TestKestTally::staleLocks_data()
{
    // Entries made in a scratch folder: "name" a file, "name/" a folder, "name@" a link to a
    // file elsewhere, "name>" a link to a folder elsewhere, "name!" a dangling link.
    QTest::addColumn<QString>("device");
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QStringList>("remaining");
    QTest::newRow("lock files of the device") << "ttyUSB0" << QStringList{"LCK..ttyUSB0", "ttyUSB0", "ttyUSB0.lock", "LCK..ttyUSB1", "other"}
                                              << QStringList{"LCK..ttyUSB1", "other"};
    QTest::newRow("empty name removes nothing") << "" << QStringList{"LCK..ttyUSB0", "other"} << QStringList{"LCK..ttyUSB0", "other"};
    QTest::newRow("hidden names stay") << "ttyS0" << QStringList{".LCK..ttyS0", "LCK..ttyS0"} << QStringList{".LCK..ttyS0"};
    QTest::newRow("case counts") << "ttyS0" << QStringList{"LCK..TTYS0", "LCK..ttyS0"} << QStringList{"LCK..TTYS0"};
    QTest::newRow("folders stay, links go")
        << "ttyS0" << QStringList{"ttyS0.d/", "ttyS0.link@", "ttyS0.dirlink>", "ttyS0.dangling!"} << QStringList{"ttyS0.d"};
    QTest::newRow("star is a character") << "tty*" << QStringList{"LCK..tty*", "LCK..ttyS0"} << QStringList{"LCK..ttyS0"};
    QTest::newRow("question mark is a character") << "tty?" << QStringList{"tty?", "ttyA"} << QStringList{"ttyA"};
    QTest::newRow("brackets are characters") << "tty[0]" << QStringList{"LCK..tty[0]", "tty0", "tty[0"} << QStringList{"tty0", "tty[0"};
    QTest::newRow("shell text is a name") << "x;touch pwned" << QStringList{"LCK..x;touch pwned", "pwned"} << QStringList{"pwned"};
}

void TestKestTally::staleLocks()
{
    QFETCH(QString, device);
    QFETCH(QStringList, entries);
    QFETCH(QStringList, remaining);
    QTemporaryDir scratch, elsewhere;
    QVERIFY(QDir(elsewhere.path()).mkdir(QStringLiteral("folder")));
    QVERIFY(QFile(elsewhere.filePath(QStringLiteral("target"))).open(QIODevice::WriteOnly));
    for (const QString &entry : entries) {
        const QString path = scratch.filePath(entry.chopped(1));
        const QChar kind = entry.back();
        const bool made = kind == '/' ? QDir().mkdir(path)
                          : kind == '@' ? QFile::link(elsewhere.filePath(QStringLiteral("target")), path)
                          : kind == '>' ? QFile::link(elsewhere.filePath(QStringLiteral("folder")), path)
                          : kind == '!' ? QFile::link(elsewhere.filePath(QStringLiteral("nothing")), path)
                                        : QFile(scratch.filePath(entry)).open(QIODevice::WriteOnly);
        QVERIFY2(made, qPrintable(entry));
    }
    QCOMPARE(SerialTally::removeStaleLocks(scratch.path(), device), entries.size() - remaining.size());
    QCOMPARE(QDir(scratch.path()).entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name), remaining);
    // What links point to survives.
    QCOMPARE(QDir(elsewhere.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name), (QStringList{"folder", "target"}));
}

void TestKestTally::startRemovesStaleLocksInTmp()
{
    // The real /tmp, with a device name no other program uses, so that nothing else is touched.
    const QString device = unique(QStringLiteral("kesttty"));
    const QStringList stale{"/tmp/LCK.." + device, "/tmp/" + device + ".lock"};
    const QString unrelated = "/tmp/" + unique(QStringLiteral("kestother"));
    const auto tidy = qScopeGuard([&] {
        for (const QString &path : stale + QStringList{unrelated})
            QFile::remove(path);
    });
    for (const QString &path : stale + QStringList{unrelated})
        QVERIFY2(QFile(path).open(QIODevice::WriteOnly), qPrintable(path));
    startNode({{"uart", "/dev/" + device}});
    for (const QString &path : stale)
        QVERIFY2(!QFileInfo::exists(path), qPrintable(path));
    QVERIFY(QFileInfo::exists(unrelated));
}

void TestKestTally::uartIsNeverACommand_data()
{
    // Each "uart" would make a shell create `marker` (in the working folder or /tmp); an empty
    // device name would make "rm /tmp/**" of it. Nothing of the kind may happen.
    QTest::addColumn<QString>("uart");
    QTest::addColumn<QString>("marker");
    const QString m = unique(QStringLiteral("kest-pwned-"));
    QTest::newRow("semicolon") << "/dev/x;touch /tmp/" + m << m;
    QTest::newRow("command substitution") << "/dev/x$(touch " + m + ")" << m;
    QTest::newRow("trailing slash: empty name") << QStringLiteral("/dev/ttyUSB0/") << QString();
    QTest::newRow("empty uart") << QString() << QString();
}

void TestKestTally::uartIsNeverACommand()
{
    QFETCH(QString, uart);
    QFETCH(QString, marker);
    // The clean-up for this "uart" is tried on a scratch folder first: should it go wrong, the
    // node must not be started on the real /tmp.
    QTemporaryDir scratch;
    QVERIFY(QFile(scratch.filePath(QStringLiteral("unrelated"))).open(QIODevice::WriteOnly));
    QCOMPARE(SerialTally::removeStaleLocks(scratch.path(), SerialTally::deviceName(uart)), 0);
    QTemporaryDir work;
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(work.path()));
    const QString survivor = "/tmp/" + unique(QStringLiteral("kest-survivor-"));
    const auto tidy = qScopeGuard([&] {
        QDir::setCurrent(previous);
        QFile::remove(survivor);
    });
    QVERIFY(QFile(survivor).open(QIODevice::WriteOnly));

    startNode({{"uart", uart}, {"init", "AT+C077"}});
    QDir::setCurrent(previous);
    QVERIFY(!port()->isOpen());
    QCOMPARE(QDir(work.path()).entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
    QVERIFY(marker.isEmpty() || !QFileInfo::exists("/tmp/" + marker));
    QVERIFY(QFileInfo::exists(survivor));
    // The command-mode line is driven all the same; frames are dropped.
    QCOMPARE(KestGPIO::calls().size(), 2);
    QCOMPARE(call("setTally", QVariantList{2}), QVariant(true));
}

void TestKestTally::exampleDrivesTheLightUnderKestRun()
{
    // The example as shipped, pointed at the pty instead of the USB adapter.
    QFile example(QStringLiteral(KEST_SOURCE_DIR "/examples/serial-tally.json"));
    QVERIFY(example.open(QIODevice::ReadOnly));
    QByteArray graph = example.readAll();
    QVERIFY(graph.contains("\"/dev/ttyUSB0\"") && graph.contains("\"GPIO0_3\"") && graph.contains("\"AT+C077\""));
    graph.replace("/dev/ttyUSB0", QFile::encodeName(pty->nodeEnd())).replace("GPIO0_3", kLine.toUtf8());
    const QString path = dir.filePath(QStringLiteral("serial-tally.json"));
    QFile out(path);
    QVERIFY(out.open(QIODevice::WriteOnly) && out.write(graph) == graph.size());
    out.close();

    KestRun run;
    QVERIFY(run.start({path}));
    QCOMPARE(pty->takeBytes(7), QByteArray("AT+C077")); // sent at start
    run.send(R"({"node":"light","call":"setTally","args":[[2,1,0]]})");
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"light","call":"setTally","result":true})"));
    QCOMPARE(pty->takeBytes(5).toHex(), QByteArray("01010204ff"));
    run.send(R"({"quit":true})");
    QVERIFY(run.process.waitForFinished(10000));
    QCOMPARE(run.process.exitCode(), 0);
}

QTEST_GUILESS_MAIN(TestKestTally)
#include "tst_kesttally.moc"
