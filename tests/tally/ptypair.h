#pragma once

// A pseudo-terminal for the node under test (nodePath), joined by socat to a file that collects
// what the node writes. The link name is unique: the node removes /tmp/*NAME* for its device.

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QThread>

#include <unistd.h>

class PtyPair
{
public:
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

    bool isReady() const { return sink.isOpen(); }
    // Ends socat by its PID: the node's end hangs up.
    void kill()
    {
        socat.terminate();
        socat.waitForFinished(5000);
    }
    // What the node wrote since the last take, once `count` bytes are there or `timeoutMs` passed.
    QByteArray take(int count, int timeoutMs = 5000)
    {
        QElapsedTimer clock;
        clock.start();
        QByteArray bytes = sink.readAll();
        while (bytes.size() < count && clock.elapsed() < timeoutMs) {
            QThread::msleep(10);
            bytes += sink.readAll();
        }
        return bytes;
    }

    QString nodePath;

private:
    QProcess socat;
    QFile sink;
};
