// The serial tally light on a real serial port: a socat pseudo-terminal pair (see ptypair.h).

#include "logcapture.h"
#include "ptypair.h"

#include "kestgpio.h"
#include "kestrunprocess.h"
#include "tally/kesttally.h"
#include "tally/serialframe.h"
#include "tally/stalelocks.h"

#include <QDir>
#include <QFileInfo>
#include <QElapsedTimer>
#include <QScopeGuard>
#include <QSerialPort>
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <climits>
#include <memory>

#include <sys/stat.h>
#include <termios.h>

namespace {

constexpr qint64 kStepUs = 100 * 1000; // one command-mode wait
const QString kLine = QStringLiteral("kest-test-line"); // a GPIO line no machine has

} // namespace

class TestKestTally : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase()
    {
        QVERIFY2(!QStandardPaths::findExecutable(QStringLiteral("socat")).isEmpty(), "socat is not installed");
    }

    void init()
    {
        KestGPIO::clearCalls();
        log = std::make_unique<LogCapture>();
        pty = std::make_unique<PtyPair>(dir.path());
        QVERIFY2(pty->isReady(), "socat did not make the pty pair");
    }

    void cleanup()
    {
        node.reset();
        pty.reset();
        log.reset();
    }

    void frames_data()
    {
        QTest::addColumn<QVariant>("argument"); // a list for setTally, a number for setIndex
        QTest::addColumn<QByteArray>("frame");
        QVariantList many;
        while (many.size() < 70) // far past the width of an int shift
            many << 2;
        QTest::newRow("input 0 in state 2, input 1 in state 1") << QVariant(QVariantList{2, 1, 0}) << QByteArray("01010204ff");
        QTest::newRow("input 7 is the top bit; 8 on set none") << QVariant(QVariantList{1, 0, 0, 0, 0, 0, 0, 2, 2, 1}) << QByteArray("01800182ff");
        QTest::newRow("seventy inputs") << QVariant(many) << QByteArray("01ff0000ff");
        QTest::newRow("other values are off, text is a number") << QVariant(QVariantList{3, -1, 1, "2"}) << QByteArray("0108040dff");
        QTest::newRow("unit 1") << QVariant(1) << QByteArray("020002ff");
        QTest::newRow("unit 257 wraps to 1") << QVariant(257) << QByteArray("020002ff");
        QTest::newRow("unit 0 wraps to 0xff") << QVariant(0) << QByteArray("02ff01ff");
        QTest::newRow("INT_MIN does not overflow") << QVariant(INT_MIN) << QByteArray("02ff01ff");
    }

    void frames()
    {
        QFETCH(QVariant, argument);
        QFETCH(QByteArray, frame);
        startNode();
        QCOMPARE(call(argument.type() == QVariant::List ? "setTally" : "setIndex", argument), QVariant(true));
        QCOMPARE(pty->takeBytes(frame.size() / 2).toHex(), frame);
    }

    void portSettingsRepliesAndRestart()
    {
        startNode({{"baudRate", 19200}});
        expectPortSettings(B19200);

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
        QVERIFY(pty->take(1, 100).isEmpty());
        QCOMPARE(log->lines(), QStringList());
    }

    void replyChecksum_data()
    {
        QTest::addColumn<QByteArray>("reply");
        QTest::addColumn<bool>("matches");
        QTest::newRow("tally frame without its end mark") << QByteArray::fromHex("01010204") << true;
        QTest::newRow("sum wraps modulo 256") << QByteArray::fromHex("ff0201") << true;
        QTest::newRow("one byte off") << QByteArray::fromHex("01010205") << false;
        QTest::newRow("empty") << QByteArray() << false;
    }

    void replyChecksum()
    {
        QFETCH(QByteArray, reply);
        QFETCH(bool, matches);
        QCOMPARE(KestTally().dealCmd(reply), matches);
        QCOMPARE(log->contains(QStringLiteral("check sum error")), !matches);
    }

    void initCommandInCommandMode_data()
    {
        QTest::addColumn<QString>("init");
        QTest::newRow("command") << "AT+C077";
        QTest::newRow("empty: nothing sent") << "";
    }

    void initCommandInCommandMode()
    {
        QFETCH(QString, init);
        QElapsedTimer elapsed;
        elapsed.start();
        startNode({{"init", init}});
        const qint64 startMs = elapsed.elapsed();
        const QList<KestGPIO::Call> calls = KestGPIO::calls();
        if (init.isEmpty()) {
            QVERIFY(calls.isEmpty());
            QVERIFY(pty->take(1, 200).isEmpty());
            return;
        }
        QCOMPARE(calls.size(), 2);
        QCOMPARE(calls[0].line + QString::number(calls[0].value) + calls[1].line + QString::number(calls[1].value), kLine + "0" + kLine + "1");
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

    void hungUpPortClosesWithWriteError()
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
        // Closed until the next start: later frames are dropped without another message.
        QCOMPARE(call("setIndex", 4), QVariant(true));
        QCOMPARE(log->count(QStringLiteral("[tally1] write error")), 1);

        // A new start opens the (re-plugged) device again.
        pty = std::make_unique<PtyPair>(dir.path());
        QVERIFY(pty->isReady());
        node->data.insert(QStringLiteral("uart"), pty->nodePath);
        node->start();
        call("setIndex", 1);
        QCOMPARE(pty->takeBytes(4).toHex(), QByteArray("020002ff"));
    }

    void staleLocks_data()
    {
        QTest::addColumn<QString>("uart");
        QTest::addColumn<QStringList>("removed");
        QTest::newRow("lock files and links of a character device") << "/dev/null" << QStringList{"LCK..null", "null-link", "null.lock"};
        // None of these names a character device, so nothing goes, whatever the names contain.
        for (const char *hostile : {"", "/dev/", "/dev/.", "/dev/s", "../../etc/passwd", "/dev/nul*", "/dev/null;", "/dev/null/"})
            QTest::newRow(hostile) << hostile << QStringList{};
    }

    // In a private folder standing in for /tmp: "name/" a folder, "name@" a link to a folder
    // elsewhere, "name|" a FIFO, anything else a file.
    void staleLocks()
    {
        QFETCH(QString, uart);
        QFETCH(QStringList, removed);
        QTemporaryDir scratch, elsewhere;
        QStringList entries;
        for (const QString &entry : QStringList{"LCK..null", "null.lock", "null-link@", "null.d/", "null.fifo|", ".LCK..null", "LCK..NULL", "passwd", "s"}) {
            const QString name = entry.endsWith('/') || entry.endsWith('@') || entry.endsWith('|') ? entry.chopped(1) : entry;
            const QString path = scratch.filePath(name);
            const bool made = entry.endsWith('/') ? QDir().mkdir(path)
                              : entry.endsWith('@') ? QFile::link(elsewhere.path(), path)
                              : entry.endsWith('|') ? ::mkfifo(QFile::encodeName(path).constData(), 0600) == 0
                                                    : QFile(path).open(QIODevice::WriteOnly);
            QVERIFY2(made, qPrintable(entry));
            if (!removed.contains(name))
                entries << name;
        }
        QCOMPARE(SerialTally::removeStaleLocks(scratch.path(), uart), removed.size());
        entries.sort();
        QCOMPARE(QDir(scratch.path()).entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name), entries);
        QVERIFY(QDir(elsewhere.path()).exists()); // what a link points to survives
    }

    // The node cleans the real /tmp, for the device its "uart" names through a link.
    void startRemovesStaleLocksFromTmp()
    {
        const QString name = QFileInfo(pty->nodePath).fileName(); // unique to this run
        const QString stale = "/tmp/LCK.." + name, folder = "/tmp/" + name + ".d";
        const auto tidy = qScopeGuard([&] {
            QFile::remove(stale);
            QDir().rmdir(folder);
        });
        QVERIFY(QFile(stale).open(QIODevice::WriteOnly) && QDir().mkdir(folder));
        // A missing device removes nothing and stays closed; "init" drives the line all the same.
        startNode({{"uart", pty->nodePath.chopped(4)}, {"init", "AT+C077"}});
        QVERIFY(!port()->isOpen() && QFile::exists(stale));
        QCOMPARE(KestGPIO::calls().size(), 2);
        startNode();
        QVERIFY(!QFile::exists(stale));
        QVERIFY(QFileInfo(folder).isDir());
    }

    void exampleDrivesTheLightUnderKestRun()
    {
        // The example as shipped, pointed at the pty instead of the USB adapter.
        QFile example(QStringLiteral(KEST_SOURCE_DIR "/examples/serial-tally.json"));
        QVERIFY(example.open(QIODevice::ReadOnly));
        QByteArray graph = example.readAll();
        QVERIFY(graph.contains("\"/dev/ttyUSB0\"") && graph.contains("\"GPIO0_3\""));
        graph.replace("/dev/ttyUSB0", QFile::encodeName(pty->nodePath)).replace("GPIO0_3", kLine.toUtf8());
        QFile out(dir.filePath(QStringLiteral("serial-tally.json")));
        QVERIFY(out.open(QIODevice::WriteOnly) && out.write(graph) == graph.size());
        out.close();

        KestRun run;
        QVERIFY(run.start({out.fileName()}));
        QCOMPARE(pty->takeBytes(7), QByteArray("AT+C077")); // sent at start
        run.send(R"({"node":"light","call":"setTally","args":[[2,1,0]]})");
        QCOMPARE(run.nextLine(), QByteArray(R"({"node":"light","call":"setTally","result":true})"));
        QCOMPARE(pty->takeBytes(5).toHex(), QByteArray("01010204ff"));
        run.send(R"({"quit":true})");
        QVERIFY(run.process.waitForFinished(10000));
        QCOMPARE(run.process.exitCode(), 0);
    }

private:
    // A started node on the pty pair; `settings` go on top of the test defaults.
    void startNode(const QVariantMap &settings = {})
    {
        node = std::make_unique<KestTally>();
        node->setName(QStringLiteral("tally1"));
        node->data.insert({{"uart", pty->nodePath}, {"gpio", kLine}, {"init", ""}});
        node->data.insert(settings);
        node->start();
    }
    QSerialPort *port() { return node->findChild<QSerialPort *>(); }
    // Called by name, as the host does.
    QVariant call(const char *slot, const QVariant &arg)
    {
        QVariant result;
        QMetaObject::invokeMethod(node.get(), slot, Q_RETURN_ARG(QVariant, result), Q_ARG(QVariant, arg));
        return result;
    }

    void expectPortSettings(speed_t speed);

    QTemporaryDir dir;
    std::unique_ptr<PtyPair> pty;
    std::unique_ptr<KestTally> node;
    std::unique_ptr<LogCapture> log;
};

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

QTEST_GUILESS_MAIN(TestKestTally)
#include "tst_kesttally.moc"
