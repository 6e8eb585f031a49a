#include "pcm.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace Intercom {

namespace {

inline int sample16(const char *data, int i)
{
    qint16 s;
    std::memcpy(&s, data + 2 * i, sizeof(s)); // a frame may start at any byte address
    return s;
}

// Two samples of the same sign are softened by their product (a + b - a*b >> Shift for two
// positive ones); the result keeps the low bits of the sample width. Computed in that width
// itself: the softening term of two same-sign samples always fits (at most 16384 for 16-bit,
// 64 for 8-bit), and narrow lanes let the block loop below use the widest vectors.
template <typename Sample, typename Unsigned, int Shift>
inline Unsigned combine(Sample a, Sample b)
{
    const Unsigned soften = Unsigned((int(a) * int(b)) >> Shift);
    const bool sameSign = (a > 0 && b > 0) || (a < 0 && b < 0);
    const Unsigned sum = Unsigned(Unsigned(a) + Unsigned(b));
    const Unsigned term = sameSign ? soften : Unsigned(0);
    return a > 0 ? Unsigned(sum - term) : Unsigned(sum + term);
}

// Mixing goes through small local blocks: a fixed trip count and no aliasing between the
// sources and dst (which may be the same memory) lets the loop vectorise.
constexpr int kBlockSamples = 16;

template <typename Sample, typename Unsigned, int Shift>
void mixFrames(const char *src1, int len1, const char *src2, int len2, char *dst, int dstLen)
{
    constexpr int width = int(sizeof(Sample));
    const int count = std::max(0, dstLen / width);
    const int count1 = src1 ? std::clamp(len1 / width, 0, count) : 0;
    const int count2 = src2 ? std::clamp(len2 / width, 0, count) : 0;
    const int both = std::min(count1, count2);
    int i = 0;
    for (; i + kBlockSamples <= both; i += kBlockSamples) {
        Sample a[kBlockSamples], b[kBlockSamples];
        Unsigned r[kBlockSamples];
        std::memcpy(a, src1 + i * width, sizeof(a));
        std::memcpy(b, src2 + i * width, sizeof(b));
        for (int k = 0; k < kBlockSamples; ++k)
            r[k] = combine<Sample, Unsigned, Shift>(a[k], b[k]);
        std::memcpy(dst + i * width, r, sizeof(r));
    }
    for (; i < both; ++i) {
        Sample a, b;
        std::memcpy(&a, src1 + i * width, width);
        std::memcpy(&b, src2 + i * width, width);
        const Unsigned r = combine<Sample, Unsigned, Shift>(a, b);
        std::memcpy(dst + i * width, &r, width);
    }
    // Past the shorter source the longer one passes through alone (a + 0); past both, silence.
    const char *longer = count1 > count2 ? src1 : src2;
    const int longerCount = std::max(count1, count2);
    if (longerCount > both && dst != longer)
        std::memmove(dst + both * width, longer + both * width, size_t(longerCount - both) * width);
    if (count > longerCount)
        std::memset(dst + longerCount * width, 0, size_t(count - longerCount) * width);
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
    mixFrames<qint16, quint16, 16>(src1, len1, src2, len2, dst, dstLen);
}

void mix8(const char *src1, int len1, const char *src2, int len2, char *dst, int dstLen)
{
    mixFrames<qint8, quint8, 8>(src1, len1, src2, len2, dst, dstLen);
}

} // namespace Intercom
