#pragma once

// Starting the built kest-run from a test. In a cross build the program runs through the
// emulator CMake was given (CMAKE_CROSSCOMPILING_EMULATOR, one argument per line in
// KEST_EMULATOR), so tests never exec it directly.

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
