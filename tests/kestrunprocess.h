#pragma once

// Starting the built kest-run from a test. In a cross build the program runs through the
// emulator CMake was given (CMAKE_CROSSCOMPILING_EMULATOR, one argument per line in
// KEST_EMULATOR), so tests never exec it directly.

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

inline void startKestRun(QProcess &process, const QStringList &arguments)
{
    QStringList command = QString::fromUtf8(KEST_EMULATOR).split(QLatin1Char('\n'), Qt::SkipEmptyParts) << QStringLiteral(KEST_RUN_PATH) << arguments;
    process.start(command.takeFirst(), command);
}

// kest-run as a subprocess, read line by line; killed when still running at the end.
class KestRun
{
public:
    ~KestRun() { process.kill(); process.waitForFinished(5000); }
    bool start(const QStringList &args) { startKestRun(process, args); return process.waitForStarted(5000); }
    void send(const QByteArray &line) { process.write(line + '\n'); }
    // The next stdout line, or an empty array after `timeoutMs`.
    QByteArray nextLine(int timeoutMs = 5000)
    {
        QElapsedTimer timer;
        timer.start();
        while (!process.canReadLine() && timer.elapsed() < timeoutMs && process.waitForReadyRead(int(timeoutMs - timer.elapsed()))) {
        }
        return process.canReadLine() ? process.readLine().trimmed() : QByteArray();
    }
    QJsonObject nextObject(int timeoutMs = 5000) { return QJsonDocument::fromJson(nextLine(timeoutMs)).object(); }

    QProcess process;
};
