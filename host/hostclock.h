#pragma once

#include "kesthi.h"

// The host clock in microseconds for nodes. The appliance's host offers its clock only through
// KestHi::getPTS, so that is the one way nodes read it.
inline qint64 hostClockUs()
{
    qint64 us = 0;
    KestHi::getPTS(&us, false);
    return us;
}
