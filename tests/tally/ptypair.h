#pragma once

// A pseudo-terminal pair joined by socat: the node under test opens one end (nodeEnd()) with
// its real serial port code, the test holds the other end and sees every byte, stamped with the
// host clock when it arrived. socat is started here and killed by its PID.

#include "kesthi.h"

#include <QByteArray>
#include <QFile>
#include <QProcess>
#include <QString>
#include <QThread>
#include <QVector>

#include <condition_variable>
#include <mutex>
#include <thread>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <termios.h>
#include <unistd.h>

class PtyPair
{
public:
    struct Byte
    {
        char value;
        qint64 timeUs; // KestHi clock
    };

    // `dir` receives the two links; it must exist. The link names are unique: the serial node
    // removes /tmp/*NAME* for the name of its device, so it must never be a common word.
    explicit PtyPair(const QString &dir)
    {
        const QString unique = QStringLiteral("kestpty%1-%2").arg(::getpid()).arg(++serial());
        nodePath = dir + "/" + unique + "node";
        testPath = dir + "/" + unique + "test";
        socat.setProcessChannelMode(QProcess::SeparateChannels);
        socat.start(QStringLiteral("socat"),
                    {QStringLiteral("-d"), QStringLiteral("-d"), "pty,raw,echo=0,link=" + nodePath,
                     "pty,raw,echo=0,link=" + testPath});
        if (!socat.waitForStarted(5000))
            return;
        QByteArray log;
        for (int i = 0; i < 100 && !log.contains("starting data transfer loop"); ++i) {
            socat.waitForReadyRead(50);
            log += socat.readAllStandardError();
        }
        if (!log.contains("starting data transfer loop"))
            return;
        fd = ::open(QFile::encodeName(testPath).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0)
            return;
        termios raw{};
        if (::tcgetattr(fd, &raw) == 0) {
            ::cfmakeraw(&raw);
            ::tcsetattr(fd, TCSANOW, &raw);
        }
        stopFd = ::eventfd(0, EFD_CLOEXEC);
        reader = std::thread([this] { readLoop(); });
    }

    ~PtyPair()
    {
        kill();
        if (reader.joinable()) {
            const quint64 one = 1;
            (void)!::write(stopFd, &one, sizeof(one));
            reader.join();
        }
        if (fd >= 0)
            ::close(fd);
        if (stopFd >= 0)
            ::close(stopFd);
    }

    bool isReady() const { return fd >= 0 && reader.joinable(); }
    QString nodeEnd() const { return nodePath; }

    // Ends socat (by PID): the node's end hangs up.
    void kill()
    {
        if (socat.state() == QProcess::NotRunning)
            return;
        ::kill(pid_t(socat.processId()), SIGTERM);
        if (!socat.waitForFinished(5000)) {
            ::kill(pid_t(socat.processId()), SIGKILL);
            socat.waitForFinished(5000);
        }
    }

    // Waits until `count` bytes have arrived since the last take, or `timeoutMs` passed, and
    // returns what arrived (all of it, so a surplus shows).
    QVector<Byte> take(int count, int timeoutMs = 5000)
    {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return bytes.size() >= count; });
        QVector<Byte> out;
        out.swap(bytes);
        return out;
    }

    QByteArray takeBytes(int count, int timeoutMs = 5000)
    {
        QByteArray out;
        for (const Byte &b : take(count, timeoutMs))
            out.append(b.value);
        return out;
    }

    // True when nothing arrives within `ms`.
    bool silentFor(int ms) { return take(1, ms).isEmpty(); }

    // Writes to the node's end, as the module's reply would.
    bool write(const QByteArray &bytes) const
    {
        return ::write(fd, bytes.constData(), size_t(bytes.size())) == bytes.size();
    }

private:
    static int &serial()
    {
        static int n = 0;
        return n;
    }

    void readLoop()
    {
        pollfd fds[2] = {{fd, POLLIN, 0}, {stopFd, POLLIN, 0}};
        for (;;) {
            if (::poll(fds, 2, -1) < 0) {
                if (errno == EINTR)
                    continue;
                return;
            }
            if (fds[1].revents)
                return;
            char buffer[256];
            const ssize_t n = ::read(fd, buffer, sizeof(buffer));
            const qint64 now = KestHi::now();
            if (n <= 0) {
                if (n < 0 && (errno == EAGAIN || errno == EINTR))
                    continue;
                return; // the pair is gone
            }
            std::lock_guard<std::mutex> lock(mutex);
            for (ssize_t i = 0; i < n; ++i)
                bytes.append({buffer[i], now});
            arrived.notify_all();
        }
    }

    QString nodePath;
    QString testPath;
    QProcess socat;
    int fd = -1;
    int stopFd = -1;
    std::thread reader;
    std::mutex mutex;
    std::condition_variable arrived;
    QVector<Byte> bytes;
};
