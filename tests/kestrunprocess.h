#pragma once

// Starting the built kest-run from a test. In a cross build the program runs through the
// emulator CMake was given (CMAKE_CROSSCOMPILING_EMULATOR, one argument per line in
// KEST_EMULATOR), so tests never exec it directly.

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>

inline void startKestRun(QProcess &process, const QStringList &arguments)
{
    QStringList command = QString::fromUtf8(KEST_EMULATOR).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    command << QStringLiteral(KEST_RUN_PATH) << arguments;
    const QString program = command.takeFirst();
    process.start(program, command);
}

// kest-run as a subprocess, read line by line.
class KestRun
{
public:
    ~KestRun()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(5000);
        }
    }

    bool start(const QStringList &args)
    {
        startKestRun(process, args);
        return process.waitForStarted(5000);
    }

    void send(const QByteArray &line) { process.write(line + '\n'); }

    // The next stdout line, or an empty array after `timeoutMs`.
    QByteArray nextLine(int timeoutMs = 5000)
    {
        QElapsedTimer timer;
        timer.start();
        while (!process.canReadLine()) {
            if (timer.elapsed() > timeoutMs || !process.waitForReadyRead(int(qMax<qint64>(1, timeoutMs - timer.elapsed()))))
                if (!process.canReadLine())
                    return {};
        }
        return process.readLine().trimmed();
    }

    QJsonObject nextObject(int timeoutMs = 5000) { return QJsonDocument::fromJson(nextLine(timeoutMs)).object(); }

    QProcess process;
};
