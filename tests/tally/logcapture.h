#pragma once

// Collects every log message while it exists (and still passes them on to the previous handler).

#include <QMutex>
#include <QMutexLocker>
#include <QStringList>
#include <QtGlobal>

class LogCapture
{
public:
    LogCapture()
    {
        current() = this;
        previous = qInstallMessageHandler(&LogCapture::handle);
    }
    ~LogCapture()
    {
        qInstallMessageHandler(previous);
        current() = nullptr;
    }

    QStringList lines() const
    {
        QMutexLocker locker(&mutex);
        return messages;
    }
    void clear()
    {
        QMutexLocker locker(&mutex);
        messages.clear();
    }

private:
    static LogCapture *&current()
    {
        static LogCapture *c = nullptr;
        return c;
    }
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        LogCapture *self = current();
        if (!self)
            return;
        {
            QMutexLocker locker(&self->mutex);
            self->messages << text;
        }
        if (self->previous)
            self->previous(type, context, text);
    }

    mutable QMutex mutex;
    QStringList messages;
    QtMessageHandler previous = nullptr;
};
