// The serial tally light on a real serial port: a pseudo-terminal joined by socat.
// Its frames and stale-lock rules are tst_tally's.

#include "logcapture.h"

#include "kestgpio.h"
#include "tally/kesttally.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QSerialPort>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

#include <termios.h>
#include <unistd.h>

namespace {
const QString kLine = QStringLiteral("kest-test-line"); // a GPIO line no machine has

// A pseudo-terminal for the node (nodePath), joined by socat to a file that collects what the
// node writes. The link name is unique: the node removes /tmp/*NAME* for its device.
struct PtyPair
{
    explicit PtyPair(const QString &dir)
    {
        static int serial = 0;
        nodePath = QStringLiteral("%1/kestpty%2-%3").arg(dir).arg(::getpid()).arg(++serial);
        sink.setFileName(nodePath + ".out");
        socat.setReadChannel(QProcess::StandardError);
        socat.start(QStringLiteral("socat"), {"-d", "-d", "-u", "pty,raw,echo=0,link=" + nodePath, "CREATE:" + sink.fileName()});
        QByteArray log;
        while (!log.contains("starting data transfer loop") && socat.waitForReadyRead(5000))
            log += socat.readAllStandardError();
        sink.open(QIODevice::ReadOnly);
    }
    ~PtyPair() { kill(); }
    // Ends socat by its PID: the node's end hangs up.
    void kill()
    {
        socat.terminate();
        socat.waitForFinished(5000);
    }
    // What the node wrote since the last take, once `count` bytes are there or `timeoutMs` passed.
    QByteArray take(int count, int timeoutMs = 5000)
    {
        QByteArray bytes;
        (void)QTest::qWaitFor([&] { return (bytes += sink.readAll()).size() >= count; }, timeoutMs);
        return bytes;
    }

    QString nodePath;
    QProcess socat;
    QFile sink;
};
} // namespace

class TestKestTally : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase() { QVERIFY2(!QStandardPaths::findExecutable(QStringLiteral("socat")).isEmpty(), "socat is not installed"); }

    void init()
    {
        KestGPIO::clearCalls();
        log = std::make_unique<LogCapture>();
        pty = std::make_unique<PtyPair>(dir.path());
        QVERIFY2(pty->sink.isOpen(), "socat did not make the pty");
    }
    void cleanup()
    {
        node.reset();
        pty.reset();
        log.reset();
    }

    // The "init" command goes out at start as it is, while the line holds the module in command
    // mode (0, then 1), each step 100 ms; sendAT from the host does the same. The port runs at
    // "baudRate", 8N1, no flow control; a second start opens it again.
    void initCommandInCommandMode()
    {
        QElapsedTimer elapsed;
        elapsed.start();
        startNode({{"init", "AT+C077"}, {"baudRate", 19200}});
        QVERIFY(elapsed.elapsed() >= 300);
        QList<KestGPIO::Call> calls = KestGPIO::calls();
        QCOMPARE(calls.size(), 2);
        QCOMPARE(calls[0].line + QString::number(calls[0].value) + calls[1].line + QString::number(calls[1].value), kLine + "0" + kLine + "1");
        QVERIFY(calls[1].timeUs - calls[0].timeUs >= 200000);
        QCOMPARE(pty->take(7), QByteArray("AT+C077"));
        termios t{};
        QCOMPARE(::tcgetattr(int(port()->handle()), &t), 0);
        QCOMPARE(::cfgetospeed(&t) + 0u + (t.c_cflag & (CSIZE | PARENB | CSTOPB | CRTSCTS)) + (t.c_iflag & (IXON | IXOFF)), B19200 + 0u + CS8);
        node->start();
        QCOMPARE(call("sendAT", QStringLiteral("AT+RX")), QVariant(true));
        QCOMPARE(pty->take(12), QByteArray("AT+C077AT+RX"));
        QCOMPARE(KestGPIO::calls().size(), 6);
        node->stop();
        QCOMPARE(call("setIndex", 3), QVariant(true)); // dropped: the port is closed
        QCOMPARE(pty->take(1, 100) + log->lines().filter("[tally1]").join(' ').toUtf8(), QByteArray());
    }

    void hungUpPortClosesWithWriteError()
    {
        startNode();
        pty->kill();
        // Each 5-byte frame stays in the port's buffer; the third one takes it past 10 bytes.
        call("setTally", QVariantList{1});
        call("setTally", QVariantList{2});
        QVERIFY(port()->isOpen() && log->lines().isEmpty());
        QCOMPARE(call("setTally", QVariantList{0, 1}), QVariant(true));
        QVERIFY(!port()->isOpen());
        // Closed until the next start: later frames are dropped without another message.
        QCOMPARE(call("setIndex", 4), QVariant(true));
        QCOMPARE(log->lines(), QStringList{"[tally1] write error"});
        // A new start opens the (re-plugged) device again, and clears its stale lock in the real
        // /tmp (found through the link "uart" names; the link's name is unique to this run).
        pty = std::make_unique<PtyPair>(dir.path());
        const QString stale = "/tmp/LCK.." + QFileInfo(pty->nodePath).fileName();
        QVERIFY(QFile(stale).open(QIODevice::WriteOnly));
        node->data.insert(QStringLiteral("uart"), pty->nodePath);
        node->start();
        QVERIFY(!QFile::remove(stale)); // gone already
        call("setIndex", 1);
        QCOMPARE(pty->take(4).toHex(), QByteArray("020002ff"));
    }

private:
    // A started node on the pty; `settings` go on top of the test defaults.
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

    QTemporaryDir dir;
    std::unique_ptr<PtyPair> pty;
    std::unique_ptr<KestTally> node;
    std::unique_ptr<LogCapture> log;
};

QTEST_GUILESS_MAIN(TestKestTally)
#include "tst_kesttally.moc"
