#pragma once

#include "packet.h"

#include <vector>

// A station's jitter queue: received audio frames, oldest first. A ring that only grows (when
// a frame arrives and the ring is full), so taking frames out and putting them back in steady
// state never touches the heap.
class FrameQueue
{
public:
    int size() const { return count; }
    bool isEmpty() const { return count == 0; }

    void append(const Packet &frame);
    Packet takeFirst(); // the queue must not be empty
    void clear();

private:
    void grow();

    std::vector<Packet> ring;
    int head = 0;
    int count = 0;
};
