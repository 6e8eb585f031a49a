#pragma once

// Records the debug lines written while it exists (and still prints them), so that tests can
// wait for a log line such as "connection timed out".

#include <QElapsedTimer>
#include <QMutex>
#include <QStringList>
#include <QtGlobal>

class LogCapture
{
public:
    LogCapture()
    {
        instance() = this;
        previous = qInstallMessageHandler(&LogCapture::handler);
    }
    ~LogCapture()
    {
        qInstallMessageHandler(previous);
        instance() = nullptr;
    }

    QStringList lines() const
    {
        QMutexLocker locker(&mutex);
        return recorded;
    }
    int count(const QString &text) const { return lines().filter(text).size(); }
    bool contains(const QString &text) const { return count(text) > 0; }
    void clear()
    {
        QMutexLocker locker(&mutex);
        recorded.clear();
    }

private:
    static LogCapture *&instance()
    {
        static LogCapture *current = nullptr;
        return current;
    }
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        if (LogCapture *self = instance()) {
            {
                QMutexLocker locker(&self->mutex);
                self->recorded << message;
            }
            if (self->previous)
                self->previous(type, context, message);
        }
    }

    mutable QMutex mutex;
    QStringList recorded;
    QtMessageHandler previous = nullptr;
};
