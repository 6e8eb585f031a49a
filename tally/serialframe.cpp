#include "serialframe.h"

#include <algorithm>

namespace SerialTally {

namespace {
quint8 sum(const char *data, int size)
{
    quint8 total = 0;
    for (int i = 0; i < size; ++i)
        total = quint8(total + quint8(data[i]));
    return total;
}
} // namespace

QByteArray frame(quint8 command, const QByteArray &payload)
{
    QByteArray out;
    out.reserve(payload.size() + 3);
    out.append(char(command));
    out.append(payload);
    out.append(char(sum(out.constData(), out.size())));
    out.append(char(kEndMark));
    return out;
}

QByteArray tallyPayload(const QVariantList &states)
{
    quint8 second = 0; // inputs in state 2
    quint8 first = 0;  // inputs in state 1
    const int count = std::min(int(states.size()), kMaskInputs);
    for (int i = 0; i < count; ++i) {
        const quint8 bit = quint8(1u << i);
        switch (states.at(i).toInt()) {
        case 2: second |= bit; break;
        case 1: first |= bit; break;
        default: break;
        }
    }
    QByteArray out;
    out.append(char(second));
    out.append(char(first));
    return out;
}

QByteArray indexPayload(int unitNumber)
{
    // Unsigned arithmetic: unit number 0 (or INT_MIN) wraps to 0xFF instead of overflowing.
    return QByteArray(1, char(quint8(quint32(unitNumber) - 1u)));
}

bool checksumMatches(const QByteArray &reply)
{
    if (reply.isEmpty())
        return false;
    return sum(reply.constData(), reply.size() - 1) == quint8(reply.back());
}

QString deviceName(const QString &path)
{
    return path.mid(path.lastIndexOf(QLatin1Char('/')) + 1);
}

} // namespace SerialTally
