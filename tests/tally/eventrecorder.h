#pragma once

// Records the events a node sends to the host, with the time each arrived.

#include "kestobject.h"

#include <QElapsedTimer>
#include <QStringList>
#include <QVariant>
#include <QVector>

class EventRecorder
{
public:
    struct Event
    {
        QString type;
        QVariant value;
        qint64 atMs;
    };

    explicit EventRecorder(KestObject *node)
    {
        clock.start();
        QObject::connect(node, &KestObject::eventSent, node, [this](const QString &type, const QVariant &value) {
            events.append({type, value, clock.elapsed()});
        });
    }

    qint64 elapsed() const { return clock.elapsed(); }
    // Values of one event type, in order.
    QVariantList values(const QString &type) const
    {
        QVariantList result;
        for (const Event &event : events)
            if (event.type == type)
                result << event.value;
        return result;
    }
    QStringList colours() const
    {
        QStringList result;
        for (const QVariant &value : values(QStringLiteral("TA_color")))
            result << value.toString();
        return result;
    }
    QVector<qint64> colourTimes() const
    {
        QVector<qint64> result;
        for (const Event &event : events)
            if (event.type == QLatin1String("TA_color"))
                result << event.atMs;
        return result;
    }
    void clear() { events.clear(); }

    QVector<Event> events;

private:
    QElapsedTimer clock;
};

// Flash steps are 100 ms apart. A repeating timer may fire up to 5 % early and catches up after
// a late tick, so single gaps say little; the schedule as a whole holds.
inline bool flashTimingHolds(const QVector<qint64> &times, QString *why)
{
    for (int i = 1; i < times.size(); ++i) {
        if (times.at(i) - times.at(i - 1) < 30) {
            *why = QStringLiteral("step %1 came %2 ms after the one before").arg(i).arg(times.at(i) - times.at(i - 1));
            return false;
        }
    }
    const qint64 span = times.isEmpty() ? 0 : times.last() - times.first();
    if (span < (times.size() - 1) * 80 || span > (times.size() - 1) * 400) {
        *why = QStringLiteral("%1 steps took %2 ms").arg(times.size()).arg(span);
        return false;
    }
    return true;
}

// The ten colours of a flash, white first.
inline QStringList flashColours()
{
    QStringList colours;
    for (int i = 1; i <= 10; ++i)
        colours << (i % 2 ? QStringLiteral("#ffffff") : QStringLiteral("#000000"));
    return colours;
}
