#include "kesthi.h"

#include <atomic>
#include <ctime>

namespace {
std::atomic<qint64> offsetUs{0};
}

QString KestHi::sn;

qint64 KestHi::now()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return qint64(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000 + offsetUs.load(std::memory_order_relaxed);
}

void KestHi::getPTS(void *out, bool flag)
{
    Q_UNUSED(flag);
    if (out)
        *static_cast<qint64 *>(out) = now();
}

void KestHi::setClockOffset(qint64 us)
{
    offsetUs = us;
}

qint64 KestHi::clockOffset()
{
    return offsetUs;
}
