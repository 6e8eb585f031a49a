#pragma once

#include <QtGlobal>

#include <atomic>
#include <ctime>
#include <thread>

// The physical baseline for the relay: the least a forwarder with the same rules can do on
// Linux. recvmmsg a batch, file each sender under its source byte, sendmmsg every copy.
// No event loop, no clock, no ageing.
// Both forwarders run on the last CPU, away from the load process (which takes the first).
void pinToLastCpu();

class BaselineForwarder
{
public:
    ~BaselineForwarder() { stop(); }
    bool start(quint16 port);
    void stop();
    clockid_t cpuClock() const { return clock; } // the forwarding thread's CPU time

private:
    void run();

    int fd = -1;
    clockid_t clock = CLOCK_THREAD_CPUTIME_ID;
    std::atomic<bool> running{false};
    std::thread thread;
};
