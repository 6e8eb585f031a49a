#include "framequeue.h"

#include <algorithm>

namespace {
constexpr size_t kInitialFrames = 8;
}

void FrameQueue::append(const Packet &frame)
{
    if (size_t(count) == ring.size())
        grow();
    ring[(size_t(head) + size_t(count)) % ring.size()] = frame;
    ++count;
}

Packet FrameQueue::takeFirst()
{
    const Packet frame = ring[size_t(head)];
    head = int((size_t(head) + 1) % ring.size());
    --count;
    return frame;
}

void FrameQueue::clear()
{
    head = 0;
    count = 0;
}

void FrameQueue::grow()
{
    std::vector<Packet> bigger(std::max(kInitialFrames, ring.size() * 2));
    for (int i = 0; i < count; ++i)
        bigger[size_t(i)] = ring[(size_t(head) + size_t(i)) % ring.size()];
    ring.swap(bigger);
    head = 0;
}
