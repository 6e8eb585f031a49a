#pragma once

// Records the events a node sends to the host, with the time each arrived, and tells whether
// the colours make a flash.

#include "kestobject.h"

#include <QElapsedTimer>
#include <QStringList>
#include <QVector>

struct EventRecorder
{
    explicit EventRecorder(KestObject *node)
    {
        clock.start();
        QObject::connect(node, &KestObject::eventSent, node, [this](const QString &type, const QVariant &value) {
            events.append({type, value, clock.elapsed()});
        });
    }

    QVariantList values(const QString &type) const
    {
        QVariantList result;
        for (const Event &event : events)
            if (event.type == type)
                result << event.value;
        return result;
    }
    QStringList colours() const { return QVariant(values(QStringLiteral("TA_color"))).toStringList(); }

    // Empty when the colours are ten steps, white first, 100 ms apart. A repeating timer may fire
    // up to 5 % early and catches up after a late tick, so single gaps say little; the schedule
    // as a whole holds.
    QString flashFault() const
    {
        QVector<qint64> times;
        for (const Event &event : events)
            if (event.type == QLatin1String("TA_color"))
                times << event.atMs;
        if (colours().join(' ') != QStringLiteral("#ffffff #000000 ").repeated(5).trimmed())
            return "colours " + colours().join(' ');
        for (int i = 1; i < times.size(); ++i)
            if (times.at(i) - times.at(i - 1) < 30)
                return QStringLiteral("step %1 came %2 ms after the one before").arg(i).arg(times.at(i) - times.at(i - 1));
        const qint64 span = times.last() - times.first();
        return span < 9 * 80 || span > 9 * 400 ? QStringLiteral("ten steps took %1 ms").arg(span) : QString();
    }

    struct Event
    {
        QString type;
        QVariant value;
        qint64 atMs;
    };
    QVector<Event> events;
    QElapsedTimer clock;
};
