#pragma once

#include <QString>
#include <QtGlobal>

// Host clock and identity.
class KestHi
{
public:
    // Writes the current time, in microseconds, into the qint64 at `out`. The clock is monotonic
    // and is the one that stamps Packet::pts. `flag` is accepted for the appliance's signature
    // and ignored.
    static void getPTS(void *out, bool flag);

    // Unit serial number.
    static QString sn;

    // Host side only (kest-run and tests; nodes read the clock through getPTS): the same clock
    // as a value, and a shift of it by `us` microseconds so that time-outs can be exercised
    // without waiting for them.
    static qint64 now();
    static void setClockOffset(qint64 us);
    static qint64 clockOffset();
};
