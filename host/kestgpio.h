#pragma once

#include <QList>
#include <QObject>
#include <QString>
#include <QVariant>

// General-purpose outputs, driven by line name through the kernel's GPIO character device.
class KestGPIO : public QObject
{
    Q_OBJECT
public:
    // One setGPIO call as the host saw it, kept so that tests can check sequences and timing.
    struct Call
    {
        qint64 timeUs = 0;   // KestHi clock
        QString line;
        int value = 0;
        bool applied = false; // a line of that name existed and was set
    };

    explicit KestGPIO(QObject *parent = nullptr);

    // `args` is [line name, value]. Returns true when the line was driven. A name that no
    // /dev/gpiochip* knows is logged once and otherwise only recorded.
    Q_INVOKABLE QVariant setGPIO(QVariant args);

    static QList<Call> calls();
    static void clearCalls();
};
