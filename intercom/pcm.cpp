#include "pcm.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace Intercom {

namespace {

// Samples are read and written through memcpy: a frame may start at any byte address.
inline int sample16(const char *data, int i)
{
    qint16 s;
    std::memcpy(&s, data + 2 * i, sizeof(s));
    return s;
}

inline void store16(char *data, int i, int value)
{
    const quint16 s = quint16(value); // keeps the low 16 bits
    std::memcpy(data + 2 * i, &s, sizeof(s));
}

template <int Shift>
inline int combine(int a, int b)
{
    if (a > 0 && b > 0)
        return a + b - ((a * b) >> Shift);
    if (a < 0 && b < 0)
        return a + b + ((a * b) >> Shift);
    return a + b;
}

} // namespace

int vol2db(int v)
{
    if (v <= 0)
        return 0;
    return int(20.0 * std::log10(double(v)));
}

int level16(const char *data, int len)
{
    if (!data || len < kMinLevelBytes16)
        return 0;
    const int count = len / 2;
    const int stride = len / 16;
    int peak = 0;
    for (int i = 0; i < count; i += stride)
        peak = std::max(peak, std::abs(sample16(data, i)));
    return vol2db(peak);
}

int level8(const char *data, int len)
{
    if (!data || len < kMinLevelBytes8)
        return 0;
    const int stride = len / 8;
    int peak = 0;
    for (int i = 0; i < len; i += stride)
        peak = std::max(peak, std::abs(int(quint8(data[i])) - 128));
    return vol2db(peak) * 8;
}

void mix16(const char *src1, int len1, const char *src2, int len2, char *dst, int dstLen)
{
    const int count = std::max(0, dstLen / 2);
    const int count1 = src1 ? std::clamp(len1 / 2, 0, count) : 0;
    const int count2 = src2 ? std::clamp(len2 / 2, 0, count) : 0;
    const int both = std::min(count1, count2);
    for (int i = 0; i < both; ++i)
        store16(dst, i, combine<16>(sample16(src1, i), sample16(src2, i)));
    // Past the shorter source the other one passes through alone (a + 0).
    for (int i = both; i < count; ++i)
        store16(dst, i, (i < count1 ? sample16(src1, i) : 0) + (i < count2 ? sample16(src2, i) : 0));
}

void mix8(const char *src1, int len1, const char *src2, int len2, char *dst, int dstLen)
{
    const int count = std::max(0, dstLen);
    const int count1 = src1 ? std::clamp(len1, 0, count) : 0;
    const int count2 = src2 ? std::clamp(len2, 0, count) : 0;
    const int both = std::min(count1, count2);
    for (int i = 0; i < both; ++i)
        dst[i] = char(quint8(combine<8>(qint8(src1[i]), qint8(src2[i]))));
    for (int i = both; i < count; ++i)
        dst[i] = char(quint8((i < count1 ? qint8(src1[i]) : 0) + (i < count2 ? qint8(src2[i]) : 0)));
}

} // namespace Intercom
