#pragma once

// Records every log message written while it exists, from any thread, and still passes each on
// to the previous handler.

#include <QMutex>
#include <QStringList>
#include <QtGlobal>

class LogCapture
{
public:
    LogCapture()
    {
        current = this;
        previous = qInstallMessageHandler(&LogCapture::handler);
    }
    ~LogCapture() { qInstallMessageHandler(previous); current = nullptr; }

    QStringList lines() const { QMutexLocker locker(&mutex); return recorded; }
    // Lines that contain `text`.
    int count(const QString &text) const { return lines().filter(text).size(); }
    bool contains(const QString &text) const { return count(text) > 0; }
    void clear() { QMutexLocker locker(&mutex); recorded.clear(); }

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        if (LogCapture *self = current) {
            self->record(message);
            if (self->previous)
                self->previous(type, context, message);
        }
    }
    void record(const QString &message) { QMutexLocker locker(&mutex); recorded << message; }

    static inline LogCapture *current = nullptr;
    mutable QMutex mutex;
    QStringList recorded;
    QtMessageHandler previous = nullptr;
};
