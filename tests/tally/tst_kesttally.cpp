#include "logcapture.h"
#include "ptypair.h"

#include "kestgpio.h"
#include "kestrunprocess.h"
#include "tally/kesttally.h"
#include "tally/stalelocks.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QScopeGuard>
#include <QJsonDocument>
#include <QJsonObject>
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

QVariant call(QObject *node, const char *slot, const QVariant &arg)
{
    QVariant result;
    if (!QMetaObject::invokeMethod(node, slot, Qt::DirectConnection, Q_RETURN_ARG(QVariant, result), Q_ARG(QVariant, arg)))
        return QStringLiteral("not invokable");
    return result;
}

} // namespace

class TestKestTally : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void hostSurface();
    void framesReachTheDevice_data();
    void framesReachTheDevice();
    void portSettingsAndRestart();
    void initCommandInCommandMode_data();
    void initCommandInCommandMode();
    void missingPortDropsFramesButDrivesTheLine();
    void hungUpPortClosesWithWriteError();
    void repliesAreReadAndDiscarded();
    void replyChecksum_data();
    void replyChecksum();
    void staleLocks_data();
    void staleLocks();
    void startRemovesStaleLocksInTmp();
    void uartIsNeverACommand_data();
    void uartIsNeverACommand();
    void exampleDrivesTheLightUnderKestRun();

private:
    // A started node on a fresh pty pair; `settings` go on top of the test defaults.
    KestTally *startNode(const QVariantMap &settings = {});
    QSerialPort *portOf(KestTally *node) { return node->findChild<QSerialPort *>(); }

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

KestTally *TestKestTally::startNode(const QVariantMap &settings)
{
    node = std::make_unique<KestTally>();
    node->setName(QStringLiteral("tally1"));
    node->data.insert(QStringLiteral("uart"), pty->nodeEnd());
    node->data.insert(QStringLiteral("gpio"), kLine);
    node->data.insert(QStringLiteral("init"), QString());
    for (auto it = settings.begin(); it != settings.end(); ++it)
        node->data.insert(it.key(), it.value());
    node->start();
    return node.get();
}

void TestKestTally::hostSurface()
{
    KestTally tally;
    QCOMPARE(tally.typeName, QStringLiteral("share"));
    QCOMPARE(tally.typeId, 2);
    const QVariantMap defaults{{"uart", "/dev/ttyUSB0"}, {"baudRate", 9600}, {"gpio", "GPIO0_3"}, {"init", "AT+C077"}};
    QCOMPARE(tally.data, defaults);
    QStringList slotNames;
    const QMetaObject *mo = tally.metaObject();
    for (int i = mo->methodOffset(); i < mo->methodCount(); ++i)
        if (mo->method(i).methodType() == QMetaMethod::Slot)
            slotNames << QString::fromLatin1(mo->method(i).methodSignature());
    QCOMPARE(slotNames, (QStringList{"onStart()", "onStop()", "setTally(QVariant)", "setIndex(QVariant)", "sendAT(QVariant)", "onRead()"}));
}

void TestKestTally::framesReachTheDevice_data()
{
    QTest::addColumn<QByteArray>("slot");
    QTest::addColumn<QVariant>("argument");
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("setTally [2,1,0]") << QByteArray("setTally") << QVariant(QVariantList{2, 1, 0})
                                      << QByteArray::fromHex("01010204ff");
    QTest::newRow("setTally, inputs 8 and 9 ignored")
        << QByteArray("setTally") << QVariant(QVariantList{1, 0, 0, 0, 0, 0, 0, 2, 2, 1}) << QByteArray::fromHex("01800182ff");
    QTest::newRow("setIndex 1") << QByteArray("setIndex") << QVariant(1) << QByteArray::fromHex("020002ff");
}

void TestKestTally::framesReachTheDevice()
{
    QFETCH(QByteArray, slot);
    QFETCH(QVariant, argument);
    QFETCH(QByteArray, bytes);
    startNode();
    QVERIFY(portOf(node.get())->isOpen());
    // Called by name, as the host does.
    QCOMPARE(call(node.get(), slot.constData(), argument), QVariant(true));
    QCOMPARE(pty->takeBytes(bytes.size()).toHex(), bytes.toHex());
    QVERIFY(pty->silentFor(100));
    QVERIFY(log->lines().isEmpty());
}

void TestKestTally::portSettingsAndRestart()
{
    startNode({{QStringLiteral("baudRate"), 19200}});
    const auto expectTermios = [this](speed_t speed) {
        termios t{};
        QSerialPort *port = portOf(node.get());
        QVERIFY(port->isOpen());
        QCOMPARE(::tcgetattr(int(port->handle()), &t), 0);
        QCOMPARE(::cfgetospeed(&t), speed);
        QCOMPARE(::cfgetispeed(&t), speed);
        QCOMPARE(t.c_cflag & CSIZE, tcflag_t(CS8));
        QCOMPARE(t.c_cflag & (PARENB | CSTOPB | CRTSCTS), tcflag_t(0));
        QCOMPARE(t.c_iflag & (IXON | IXOFF), tcflag_t(0));
    };
    expectTermios(B19200);
    if (QTest::currentTestFailed())
        return;

    // A second start closes the port first (it would otherwise refuse to open again) and
    // applies the new rate.
    node->data.insert(QStringLiteral("baudRate"), 115200);
    node->start();
    expectTermios(B115200);
    if (QTest::currentTestFailed())
        return;
    call(node.get(), "setIndex", 2);
    QCOMPARE(pty->takeBytes(4).toHex(), QByteArray("020103ff"));

    node->stop();
    QVERIFY(!portOf(node.get())->isOpen());
    QCOMPARE(call(node.get(), "setIndex", 3), QVariant(true));
    QVERIFY(pty->silentFor(100));
}

void TestKestTally::initCommandInCommandMode_data()
{
    QTest::addColumn<QString>("init");
    QTest::addColumn<QString>("line");
    QTest::newRow("default command") << "AT+C077" << kLine;
    QTest::newRow("other line, other command") << "AT+B9600" << "kest-test-other";
    QTest::newRow("empty: nothing sent") << "" << kLine;
}

void TestKestTally::initCommandInCommandMode()
{
    QFETCH(QString, init);
    QFETCH(QString, line);
    QElapsedTimer elapsed;
    elapsed.start();
    startNode({{QStringLiteral("init"), init}, {QStringLiteral("gpio"), line}});
    const qint64 startMs = elapsed.elapsed();

    const QList<KestGPIO::Call> calls = KestGPIO::calls();
    if (init.isEmpty()) {
        QVERIFY(calls.isEmpty());
        QVERIFY(pty->silentFor(200));
        return;
    }
    QCOMPARE(calls.size(), 2);
    QCOMPARE(calls[0].line, line);
    QCOMPARE(calls[0].value, 0);
    QCOMPARE(calls[1].line, line);
    QCOMPARE(calls[1].value, 1);
    QVERIFY(startMs >= 3 * kStepUs / 1000); // the line is held 100 ms after it is released, too

    // Sent as it is, with no line ending, while the module is in command mode: at least one
    // wait after the line went to 0 and before it went back to 1.
    const QVector<PtyPair::Byte> bytes = pty->take(init.size());
    QByteArray text;
    for (const PtyPair::Byte &b : bytes)
        text.append(b.value);
    QCOMPARE(text, init.toUtf8());
    QVERIFY2(bytes.first().timeUs >= calls[0].timeUs + kStepUs,
             qPrintable(QStringLiteral("command %1 us after the line went to 0").arg(bytes.first().timeUs - calls[0].timeUs)));
    QVERIFY2(bytes.last().timeUs <= calls[1].timeUs,
             qPrintable(QStringLiteral("command %1 us after the line went back").arg(bytes.last().timeUs - calls[1].timeUs)));
    QVERIFY(calls[1].timeUs - calls[0].timeUs >= 2 * kStepUs);

    // sendAT called by the host later behaves the same and answers true.
    KestGPIO::clearCalls();
    QCOMPARE(call(node.get(), "sendAT", QStringLiteral("AT+RX")), QVariant(true));
    QCOMPARE(pty->takeBytes(5), QByteArray("AT+RX"));
    QCOMPARE(KestGPIO::calls().size(), 2);
}

void TestKestTally::missingPortDropsFramesButDrivesTheLine()
{
    startNode({{QStringLiteral("uart"), dir.filePath(unique(QStringLiteral("kest-missing-")))},
               {QStringLiteral("init"), QStringLiteral("AT+C077")}});
    QVERIFY(!portOf(node.get())->isOpen());
    const QList<KestGPIO::Call> calls = KestGPIO::calls();
    QCOMPARE(calls.size(), 2);
    QCOMPARE(calls[0].value, 0);
    QCOMPARE(calls[1].value, 1);
    QCOMPARE(call(node.get(), "setTally", QVariantList{2}), QVariant(true));
    QCOMPARE(call(node.get(), "setIndex", 1), QVariant(true));
    QVERIFY(pty->silentFor(100));
    QVERIFY2(log->lines().filter(QStringLiteral("[tally1]")).isEmpty(), qPrintable(log->lines().join('\n')));
}

void TestKestTally::hungUpPortClosesWithWriteError()
{
    startNode();
    QVERIFY(portOf(node.get())->isOpen());
    pty->kill();
    // Each 5-byte frame stays in the port's buffer; the third one takes it past 10 bytes.
    QCOMPARE(call(node.get(), "setTally", QVariantList{1}), QVariant(true));
    QCOMPARE(call(node.get(), "setTally", QVariantList{2}), QVariant(true));
    QVERIFY(portOf(node.get())->isOpen());
    QVERIFY(!log->lines().contains(QStringLiteral("[tally1] write error")));
    QCOMPARE(call(node.get(), "setTally", QVariantList{0, 1}), QVariant(true));
    QVERIFY(!portOf(node.get())->isOpen());
    QCOMPARE(log->lines().count(QStringLiteral("[tally1] write error")), 1);

    // Closed until the next start: later frames are dropped without another message.
    QCOMPARE(call(node.get(), "setIndex", 4), QVariant(true));
    QCoreApplication::processEvents();
    QCOMPARE(log->lines().count(QStringLiteral("[tally1] write error")), 1);

    // A new start opens the (re-plugged) device again.
    pty = std::make_unique<PtyPair>(dir.path());
    QVERIFY(pty->isReady());
    node->data.insert(QStringLiteral("uart"), pty->nodeEnd());
    node->start();
    QVERIFY(portOf(node.get())->isOpen());
    call(node.get(), "setIndex", 1);
    QCOMPARE(pty->takeBytes(4).toHex(), QByteArray("020002ff"));
}

void TestKestTally::repliesAreReadAndDiscarded()
{
    startNode();
    QSerialPort *port = portOf(node.get());
    QSignalSpy readyRead(port, &QSerialPort::readyRead); // connected after the node's own slot
    QVERIFY(pty->write(QByteArray::fromHex("0102030406ff")));
    QTRY_VERIFY(readyRead.count() > 0);
    QCOMPARE(port->bytesAvailable(), qint64(0));
    QVERIFY(log->lines().isEmpty());
}

void TestKestTally::replyChecksum_data()
{
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<bool>("matches");
    QTest::newRow("good") << QByteArray::fromHex("010203") << true;
    QTest::newRow("bad") << QByteArray::fromHex("010204") << false;
    QTest::newRow("empty") << QByteArray() << false;
}

void TestKestTally::replyChecksum()
{
    QFETCH(QByteArray, reply);
    QFETCH(bool, matches);
    KestTally tally;
    tally.setName(QStringLiteral("t2"));
    QCOMPARE(tally.dealCmd(reply), matches);
    QCOMPARE(log->lines(), matches ? QStringList() : QStringList{QStringLiteral("[t2] check sum error")});
}

void TestKestTally::staleLocks_data()
{
    // Entries made in a scratch folder: "name" a file, "name/" a folder, "name@" a link to a
    // file elsewhere, "name>" a link to a folder elsewhere, "name!" a dangling link. What links
    // point to must survive.
    QTest::addColumn<QString>("device");
    QTest::addColumn<QStringList>("entries");
    QTest::addColumn<QStringList>("remaining");
    QTest::newRow("lock files of the device")
        << "ttyUSB0" << QStringList{"LCK..ttyUSB0", "ttyUSB0", "ttyUSB0.lock", "LCK..ttyUSB1", "other"}
        << QStringList{"LCK..ttyUSB1", "other"};
    QTest::newRow("substring match, as the pattern has it")
        << "ttyUSB1" << QStringList{"LCK..ttyUSB1", "LCK..ttyUSB10"} << QStringList{};
    QTest::newRow("empty name removes nothing")
        << "" << QStringList{"LCK..ttyUSB0", "other", ".hidden"} << QStringList{".hidden", "LCK..ttyUSB0", "other"};
    QTest::newRow("hidden names stay") << "ttyS0" << QStringList{".LCK..ttyS0", "LCK..ttyS0"} << QStringList{".LCK..ttyS0"};
    QTest::newRow("case counts") << "ttyS0" << QStringList{"LCK..TTYS0", "LCK..ttyS0"} << QStringList{"LCK..TTYS0"};
    QTest::newRow("folders stay, links go")
        << "ttyS0" << QStringList{"ttyS0.d/", "ttyS0.link@", "ttyS0.dirlink>", "ttyS0.dangling!"} << QStringList{"ttyS0.d"};
    QTest::newRow("star is a character") << "tty*" << QStringList{"LCK..tty*", "LCK..ttyS0"} << QStringList{"LCK..ttyS0"};
    QTest::newRow("question mark is a character") << "tty?" << QStringList{"tty?", "ttyA"} << QStringList{"ttyA"};
    QTest::newRow("brackets are characters")
        << "tty[0]" << QStringList{"LCK..tty[0]", "tty0", "tty[0"} << QStringList{"tty0", "tty[0"};
    QTest::newRow("backslash is a character") << "a\\b" << QStringList{"xa\\by", "ab", "a\\\\b"} << QStringList{"a\\\\b", "ab"};
    QTest::newRow("shell text is a name")
        << "x;touch pwned" << QStringList{"LCK..x;touch pwned", "pwned"} << QStringList{"pwned"};
}

void TestKestTally::staleLocks()
{
    QFETCH(QString, device);
    QFETCH(QStringList, entries);
    QFETCH(QStringList, remaining);
    QTemporaryDir scratch;
    QTemporaryDir elsewhere;
    QVERIFY(scratch.isValid() && elsewhere.isValid());
    QDir folder(scratch.path());
    int expectedRemoved = entries.size() - remaining.size();
    for (QString entry : entries) {
        if (entry.endsWith('/')) {
            QVERIFY(folder.mkdir(entry.chopped(1)));
        } else if (entry.endsWith('@')) {
            const QString target = elsewhere.filePath(QStringLiteral("target"));
            QFile t(target);
            QVERIFY(t.open(QIODevice::WriteOnly));
            QVERIFY(QFile::link(target, folder.filePath(entry.chopped(1))));
        } else if (entry.endsWith('>')) {
            QVERIFY(QDir(elsewhere.path()).mkdir(QStringLiteral("folder")));
            QVERIFY(QFile::link(elsewhere.filePath(QStringLiteral("folder")), folder.filePath(entry.chopped(1))));
        } else if (entry.endsWith('!')) {
            QVERIFY(QFile::link(elsewhere.filePath(QStringLiteral("nothing")), folder.filePath(entry.chopped(1))));
        } else {
            QFile f(folder.filePath(entry));
            QVERIFY(f.open(QIODevice::WriteOnly));
        }
    }
    QCOMPARE(SerialTally::removeStaleLocks(scratch.path(), device), expectedRemoved);
    QCOMPARE(folder.entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name), remaining);
    QStringList targets;
    if (!entries.filter(QStringLiteral("@")).isEmpty())
        targets << QStringLiteral("target");
    if (!entries.filter(QStringLiteral(">")).isEmpty())
        targets.prepend(QStringLiteral("folder"));
    QCOMPARE(QDir(elsewhere.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name), targets);
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
    for (const QString &path : stale + QStringList{unrelated}) {
        QFile f(path);
        QVERIFY2(f.open(QIODevice::WriteOnly), qPrintable(path));
    }
    startNode({{QStringLiteral("uart"), "/dev/" + device}});
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
    QTest::newRow("semicolon") << "/dev/x;touch " + m << m;
    QTest::newRow("command substitution") << "/dev/x$(touch " + m + ")" << m;
    QTest::newRow("backquotes") << "/dev/x`touch " + m + "`" << m;
    QTest::newRow("pipe") << "/dev/x|touch " + m << m;
    QTest::newRow("newline") << "/dev/x\ntouch " + m << m;
    QTest::newRow("absolute path after the semicolon") << "/dev/x;touch /tmp/" + m << m;
    QTest::newRow("trailing slash: empty name") << QStringLiteral("/dev/ttyUSB0/") << QString();
    QTest::newRow("empty uart") << QString() << QString();
}

void TestKestTally::uartIsNeverACommand()
{
    QFETCH(QString, uart);
    QFETCH(QString, marker);
    QTemporaryDir work;
    QVERIFY(work.isValid());
    const QString previous = QDir::currentPath();
    QVERIFY(QDir::setCurrent(work.path()));
    const QString survivor = "/tmp/" + unique(QStringLiteral("kest-survivor-"));
    const auto tidy = qScopeGuard([&] {
        QDir::setCurrent(previous);
        QFile::remove(survivor);
    });
    QFile f(survivor);
    QVERIFY(f.open(QIODevice::WriteOnly));
    f.close();

    startNode({{QStringLiteral("uart"), uart}, {QStringLiteral("init"), QStringLiteral("AT+C077")}});
    QDir::setCurrent(previous);

    QVERIFY(!portOf(node.get())->isOpen());
    QCOMPARE(QDir(work.path()).entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot), QStringList());
    if (!marker.isEmpty())
        QVERIFY(!QFileInfo::exists("/tmp/" + marker));
    QVERIFY(QFileInfo::exists(survivor));
    QCOMPARE(KestGPIO::calls().size(), 2); // the init command is still sent
}

void TestKestTally::exampleDrivesTheLightUnderKestRun()
{
    // The example as shipped, pointed at the pty instead of the USB adapter.
    QFile example(QStringLiteral(KEST_SOURCE_DIR "/examples/serial-tally.json"));
    QVERIFY(example.open(QIODevice::ReadOnly));
    QJsonObject graph = QJsonDocument::fromJson(example.readAll()).object();
    QJsonArray nodes = graph.value(QStringLiteral("nodes")).toArray();
    QCOMPARE(nodes.size(), 1);
    QJsonObject tally = nodes[0].toObject();
    QCOMPARE(tally.value(QStringLiteral("class")).toString(), QStringLiteral("KestTally"));
    const QString name = tally.value(QStringLiteral("name")).toString();
    QJsonObject settings = tally.value(QStringLiteral("data")).toObject();
    const QByteArray init = settings.value(QStringLiteral("init")).toString().toUtf8();
    QVERIFY(!init.isEmpty());
    settings.insert(QStringLiteral("uart"), pty->nodeEnd());
    settings.insert(QStringLiteral("gpio"), kLine);
    tally.insert(QStringLiteral("data"), settings);
    nodes[0] = tally;
    graph.insert(QStringLiteral("nodes"), nodes);
    const QString graphPath = dir.filePath(QStringLiteral("serial-tally.json"));
    QFile out(graphPath);
    QVERIFY(out.open(QIODevice::WriteOnly));
    out.write(QJsonDocument(graph).toJson());
    out.close();

    QProcess run;
    const auto stop = qScopeGuard([&run] {
        if (run.state() != QProcess::NotRunning) {
            run.kill(); // by PID, only after a failure
            run.waitForFinished();
        }
    });
    startKestRun(run, {graphPath});
    QVERIFY(run.waitForStarted());
    QCOMPARE(pty->takeBytes(init.size()), init); // sent at start
    const auto send = [&](const QByteArray &line) {
        run.write(line + '\n');
        run.waitForBytesWritten();
    };
    send("{\"node\":\"" + name.toUtf8() + "\",\"call\":\"setIndex\",\"args\":[3]}");
    QCOMPARE(pty->takeBytes(4).toHex(), QByteArray("020204ff"));
    send("{\"node\":\"" + name.toUtf8() + "\",\"call\":\"setTally\",\"args\":[[2,1,0]]}");
    QCOMPARE(pty->takeBytes(5).toHex(), QByteArray("01010204ff"));
    send("{\"quit\":true}");
    QVERIFY(run.waitForFinished(10000));
    QCOMPARE(run.exitCode(), 0);
    const QByteArray output = run.readAllStandardOutput();
    QVERIFY2(output.contains("\"call\":\"setTally\",\"result\":true"), output.constData());
}

QTEST_GUILESS_MAIN(TestKestTally)
#include "tst_kesttally.moc"
