#pragma once

// A pseudo-terminal pair joined by socat: the node under test opens one end (nodePath) with its
// real serial port code; a thread here reads the other end and stamps each byte with the host
// clock when it arrived (the node blocks the test's thread while it sends AT commands).

#include "kesthi.h"

#include <QFile>
#include <QProcess>
#include <QVector>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <poll.h>
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

    // The link names are unique: the node removes /tmp/*NAME* for its device's name.
    explicit PtyPair(const QString &dir)
    {
        static int serial = 0;
        const QString unique = QStringLiteral("%1/kestpty%2-%3").arg(dir).arg(::getpid()).arg(++serial);
        nodePath = unique + "node";
        const QString testPath = unique + "test";
        socat.setReadChannel(QProcess::StandardError);
        socat.start(QStringLiteral("socat"), {"-d", "-d", "pty,raw,echo=0,link=" + nodePath, "pty,raw,echo=0,link=" + testPath});
        QByteArray log;
        for (int i = 0; i < 100 && !log.contains("starting data transfer loop") && socat.state() != QProcess::NotRunning; ++i)
            if (socat.waitForReadyRead(50))
                log += socat.readAllStandardError();
        if (!log.contains("starting data transfer loop"))
            return;
        fd = ::open(QFile::encodeName(testPath).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        termios raw{};
        if (fd < 0 || ::tcgetattr(fd, &raw) != 0)
            return;
        ::cfmakeraw(&raw);
        ::tcsetattr(fd, TCSANOW, &raw);
        reader = std::thread([this] { readLoop(); });
    }

    ~PtyPair()
    {
        kill();
        stopping = true;
        if (reader.joinable())
            reader.join();
        if (fd >= 0)
            ::close(fd);
    }

    bool isReady() const { return reader.joinable(); }

    // Ends socat by its PID: the node's end hangs up.
    void kill()
    {
        socat.terminate();
        if (!socat.waitForFinished(5000))
            socat.kill();
        socat.waitForFinished(5000);
    }

    // Waits until `count` bytes have arrived since the last take, or `timeoutMs` passed, and
    // returns all that arrived, so a surplus shows.
    QVector<Byte> take(int count, int timeoutMs = 5000)
    {
        std::unique_lock<std::mutex> lock(mutex);
        arrived.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return bytes.size() >= count; });
        return std::exchange(bytes, {});
    }
    QByteArray takeBytes(int count, int timeoutMs = 5000)
    {
        QByteArray out;
        for (const Byte &b : take(count, timeoutMs))
            out.append(b.value);
        return out;
    }

    // Writes to the node's end, as the module's reply would.
    bool write(const QByteArray &data) const { return ::write(fd, data.constData(), size_t(data.size())) == data.size(); }

    QString nodePath;

private:
    void readLoop()
    {
        pollfd pfd{fd, POLLIN, 0};
        while (!stopping) {
            char buffer[256];
            const int ready = ::poll(&pfd, 1, 20);
            const ssize_t n = ready > 0 ? ::read(fd, buffer, sizeof(buffer)) : 0;
            const qint64 now = KestHi::now();
            if (ready > 0 && n <= 0)
                return; // the pair is gone
            std::lock_guard<std::mutex> lock(mutex);
            for (ssize_t i = 0; i < n; ++i)
                bytes.append({buffer[i], now});
            arrived.notify_all();
        }
    }

    QProcess socat;
    int fd = -1;
    std::atomic<bool> stopping{false};
    std::thread reader;
    std::mutex mutex;
    std::condition_variable arrived;
    QVector<Byte> bytes;
};
