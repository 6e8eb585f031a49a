#pragma once

#include "packet.h"

#include <QList>
#include <QReadWriteLock>

// Qt's locks live in an uninstrumented library, so a ThreadSanitizer build is told about them
// by hand: without this every queue access would be reported as a race.
#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void *addr);
extern "C" void __tsan_release(void *addr);
#define KEST_TSAN_ACQUIRE(addr) __tsan_acquire(addr)
#define KEST_TSAN_RELEASE(addr) __tsan_release(addr)
#else
#define KEST_TSAN_ACQUIRE(addr) ((void)(addr))
#define KEST_TSAN_RELEASE(addr) ((void)(addr))
#endif

// Holds a queue's write lock for one append or one removal, never longer.
class QueueWriteLocker
{
public:
    explicit QueueWriteLocker(QReadWriteLock &lock) : m_lock(lock)
    {
        m_lock.lockForWrite();
        KEST_TSAN_ACQUIRE(&m_lock);
    }
    ~QueueWriteLocker()
    {
        KEST_TSAN_RELEASE(&m_lock);
        m_lock.unlock();
    }
    QueueWriteLocker(const QueueWriteLocker &) = delete;
    QueueWriteLocker &operator=(const QueueWriteLocker &) = delete;

private:
    QReadWriteLock &m_lock;
};

// Drains one packet from a node's queue (KestObject::lockA/packetsA or lockV/packetsV):
// copy the first packet out and remove it under the lock; the caller uses the copy unlocked.
inline bool takePacket(QReadWriteLock &lock, QList<Packet> &queue, Packet &out)
{
    QueueWriteLocker locker(lock);
    if (queue.isEmpty())
        return false;
    out = queue.takeFirst();
    return true;
}
