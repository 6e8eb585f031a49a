// The headset reader. A FIFO stands in for the input device: the test writes key records into
// it as the kernel would; unplugging is the file going away (or its writer closing).

#include "stationharness.h"

#include <QTemporaryDir>

#include <csignal>

#include <fcntl.h>
#include <linux/input.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

QStringList logLines;

void captureLog(QtMsgType, const QMessageLogContext &, const QString &message)
{
    logLines << message;
}

// Scan code, key and synchronisation records, as a headset key arrives. The time is set
// through the names that exist with 32- and 64-bit time alike.
QByteArray keyBlock(int value)
{
    input_event records[3]{};
    for (input_event &r : records) {
        r.input_event_sec = 1700000000;
        r.input_event_usec = 250000;
    }
    records[0].type = EV_MSC;
    records[0].code = MSC_SCAN;
    records[0].value = 0xc00e9;
    records[1].type = EV_KEY;
    records[1].code = KEY_VOLUMEUP;
    records[1].value = value;
    records[2].type = EV_SYN;
    records[2].code = SYN_REPORT;
    return QByteArray(reinterpret_cast<const char *>(records), sizeof(records));
}

bool writeAll(int fd, const QByteArray &bytes)
{
    return ::write(fd, bytes.constData(), size_t(bytes.size())) == bytes.size();
}

int bytesInPipe(int fd)
{
    int n = -1;
    ::ioctl(fd, FIONREAD, &n);
    return n;
}

const QString kOpened = QStringLiteral("[st1] +++++++++++++++++");

} // namespace

class TestHeadset : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void init();
    void keyReleaseOpensTheGate();
    void unplugAndReplug_data();
    void unplugAndReplug();
    void settingsOpenAndClose();

private:
    KestIntercom *headsetStation(IntercomRig &rig);

    QTemporaryDir dir;
    QString path;
    QByteArray pathBytes;
};

void TestHeadset::initTestCase()
{
    qInstallMessageHandler(captureLog);
    std::signal(SIGPIPE, SIG_IGN); // a write to a pipe nobody reads fails with EPIPE instead
}

void TestHeadset::init()
{
    logLines.clear();
    path = dir.filePath(QStringLiteral("event%1").arg(QTest::currentTestFunction()));
    pathBytes = QFile::encodeName(path);
    ::unlink(pathBytes.constData());
    QCOMPARE(::mkfifo(pathBytes.constData(), 0600), 0);
}

KestIntercom *TestHeadset::headsetStation(IntercomRig &rig)
{
    return rig.station({{"did", 1}, {"tid", 7}, {"vad", -1}, {"buf", 8}, {"hid", path}});
}

void TestHeadset::keyReleaseOpensTheGate()
{
    IntercomRig rig;
    UdpStation partner;
    QVERIFY(rig.announce(partner, 7));
    KestIntercom *st = headsetStation(rig);
    QVERIFY(st->isHeadsetOpen());
    QVERIFY(logLines.contains(QStringLiteral("[st1] open HID ") + path));
    const int writer = ::open(pathBytes.constData(), O_WRONLY | O_NONBLOCK);
    QVERIFY(writer >= 0);

    // Press and repeat do nothing; the station has read them when the pipe is empty.
    QVERIFY(writeAll(writer, keyBlock(1) + keyBlock(2)));
    QTRY_COMPARE(bytesInPipe(writer), 0);
    QVERIFY(!st->isGateOpen());
    st->onNewPacketA(rig.local(voiceFrame(0, 10000))); // loud, but "vad" -1 never opens the gate

    QVERIFY(writeAll(writer, keyBlock(0)));
    QTRY_VERIFY(st->isGateOpen());
    QCOMPARE(logLines.count(kOpened), 1);

    // Open by the key, closed by the hang-over of "buf" x 10 quiet packets.
    for (int i = 1; i <= 80; ++i)
        st->onNewPacketA(rig.local(voiceFrame(i, 0)));
    QVERIFY(st->isGateOpen());
    st->onNewPacketA(rig.local(voiceFrame(81, 0)));
    QVERIFY(!st->isGateOpen());
    for (int expected = 1; expected <= 81; ++expected) { // frame 0 came before the key
        const auto got = partner.receive(2000);
        QVERIFY(got);
        QCOMPARE(int(sampleAt(got->bytes.mid(3), 1)), expected);
    }
    QVERIFY(partner.silent());
    ::close(writer);
}

void TestHeadset::unplugAndReplug_data()
{
    QTest::addColumn<bool>("fileRemoved");
    QTest::newRow("device file removed") << true;
    QTest::newRow("device ends") << false;
}

void TestHeadset::unplugAndReplug()
{
    QFETCH(bool, fileRemoved);
    IntercomRig rig;
    KestIntercom *st = headsetStation(rig);
    int writer = ::open(pathBytes.constData(), O_WRONLY | O_NONBLOCK);
    QVERIFY(writer >= 0);

    if (fileRemoved) {
        ::unlink(pathBytes.constData());
        st->onTimerKeepAlive();
        QVERIFY(!st->isHeadsetOpen());
        QVERIFY(!writeAll(writer, keyBlock(0))); // nobody reads the old device any more
        QCOMPARE(errno, EPIPE);
        ::close(writer);
        QCOMPARE(::mkfifo(pathBytes.constData(), 0600), 0);
    } else {
        ::close(writer);
        QTRY_VERIFY(!st->isHeadsetOpen());
    }

    // Back within one keep-alive tick.
    logLines.clear();
    st->onTimerKeepAlive();
    QVERIFY(st->isHeadsetOpen());
    QCOMPARE(logLines, QStringList{QStringLiteral("[st1] open HID ") + path});
    writer = ::open(pathBytes.constData(), O_WRONLY | O_NONBLOCK);
    QVERIFY(writer >= 0);
    QVERIFY(writeAll(writer, keyBlock(0)));
    QTRY_COMPARE(logLines.count(kOpened), 1);
    ::close(writer);
}

void TestHeadset::settingsOpenAndClose()
{
    IntercomRig rig;
    KestIntercom *st = headsetStation(rig);
    const int writer = ::open(pathBytes.constData(), O_WRONLY | O_NONBLOCK);
    QVERIFY(writer >= 0);

    // Settings while open: the device is opened afresh and read by one reader only.
    logLines.clear();
    st->setData({});
    QCOMPARE(logLines, QStringList{QStringLiteral("[st1] open HID ") + path});
    QVERIFY(writeAll(writer, keyBlock(0)));
    QTRY_COMPARE(bytesInPipe(writer), 0);
    QTRY_COMPARE(logLines.count(kOpened), 1);

    // An empty path closes the headset at once, and the keep-alive leaves it closed.
    st->setData({{"hid", QString()}});
    QVERIFY(!st->isHeadsetOpen());
    st->onTimerKeepAlive();
    QVERIFY(!writeAll(writer, keyBlock(0)));
    ::close(writer);

    // A missing device is quietly retried; one that exists but cannot be opened is logged
    // at every retry. A socket file exists and refuses open().
    logLines.clear();
    st->setData({{"hid", dir.filePath(QStringLiteral("no-such-device"))}});
    st->onTimerKeepAlive();
    QCOMPARE(logLines, QStringList());
    const QString socketPath = dir.filePath(QStringLiteral("socket"));
    const int unixSocket = ::socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, QFile::encodeName(socketPath).constData(), sizeof(address.sun_path) - 1);
    QCOMPARE(::bind(unixSocket, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    st->setData({{"hid", socketPath}});
    st->onTimerKeepAlive();
    const QStringList attempt{QStringLiteral("[st1] open HID ") + socketPath, QStringLiteral("[st1] Cant open! ") + socketPath};
    QCOMPARE(logLines, attempt + attempt);
    QVERIFY(!st->isHeadsetOpen());
    ::close(unixSocket);
}

QTEST_GUILESS_MAIN(TestHeadset)
#include "tst_headset.moc"
