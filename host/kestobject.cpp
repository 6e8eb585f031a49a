#include "kestobject.h"

#include "packetqueue.h"

#include <QReadLocker>
#include <QVarLengthArray>
#include <QVector>
#include <QWriteLocker>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>

namespace {

constexpr int kBlockAlign = 16;

// The meta-types must exist before any node is created or any slot is invoked by name.
const int packetTypeId = qRegisterMetaType<Packet>("Packet");
const int streamInfoTypeId = qRegisterMetaType<StreamInfo>("StreamInfo");

int settingOr(const QVariantMap &data, const char *key, int fallback)
{
    const auto it = data.constFind(QLatin1String(key));
    if (it == data.constEnd())
        return fallback;
    bool ok = false;
    const int value = it->toInt(&ok);
    return ok && value > 0 ? value : fallback;
}

// The nodes this thread is delivering to, innermost last. Links that lead back to a node
// still handling a delivery (a cycle in the graph, or a node that answers an event with the
// same event) would recurse without end; such a delivery is dropped instead.
thread_local QVarLengthArray<const KestObject *, 16> delivering;

} // namespace

struct Link
{
    KestObject *to;
    KestObject::Media media;
};

class KestObjectPrivate
{
public:
    QString name;
    std::atomic<bool> started{false};

    // Settings the host reads from threads other than the node's own; cached so that those
    // threads never touch `data`. -1: not read yet.
    std::atomic<int> queueLengthA{-1};
    std::atomic<int> queueLengthV{-1};
    std::atomic<int> memSize{-1};

    mutable QReadWriteLock linksLock;
    QVector<Link> links;
    std::atomic<bool> loopReported{false};

    std::mutex poolMutex;
    std::unique_ptr<char[]> pool;
    char *poolBase = nullptr; // pool rounded up to kBlockAlign
    int poolSize = 0;
    int poolOffset = 0;

    template <typename F>
    void forEachLink(const KestObject *from, KestObject::Media media, F &&f) const
    {
        QReadLocker locker(&linksLock);
        for (const Link &l : links) {
            if (!(l.media & media))
                continue;
            if (std::find(delivering.cbegin(), delivering.cend(), l.to) != delivering.cend()) {
                if (!l.to->d->loopReported.exchange(true))
                    qWarning("[%s] a delivery from [%s] leads back to it while it is still handling one; dropped",
                             qUtf8Printable(l.to->name()), qUtf8Printable(from->name()));
                continue;
            }
            delivering.append(l.to);
            f(l.to);
            delivering.removeLast();
        }
    }
};

KestObject::KestObject(QObject *parent)
    : QObject(parent), d(std::make_unique<KestObjectPrivate>())
{
    Q_UNUSED(packetTypeId);
    Q_UNUSED(streamInfoTypeId);
}

KestObject::~KestObject() = default;

void KestObject::start()
{
    refreshHostSettings();
    d->started = true;
    onStart();
}

void KestObject::stop()
{
    onStop();
    d->started = false;
}

bool KestObject::isStarted() const
{
    return d->started;
}

QString KestObject::name() const
{
    return d->name;
}

void KestObject::setName(const QString &name)
{
    d->name = name;
    setObjectName(name);
}

void KestObject::setData(const QVariantMap &settings)
{
    for (auto it = settings.constBegin(); it != settings.constEnd(); ++it)
        data.insert(it.key(), it.value());
    refreshHostSettings();
    // The node reads its keys from `data`; the argument tells it which ones just arrived.
    onSetData(settings);
}

void KestObject::refreshHostSettings()
{
    d->queueLengthA = settingOr(data, "bufLenA", kDefaultQueueLength);
    d->queueLengthV = settingOr(data, "bufLenV", kDefaultQueueLength);
    d->memSize = settingOr(data, "memSize", kDefaultMemSize);
}

void KestObject::link(KestObject *to, Media media)
{
    if (!to)
        return;
    {
        QWriteLocker locker(&d->linksLock);
        auto it = std::find_if(d->links.begin(), d->links.end(), [to](const Link &l) { return l.to == to; });
        if (it != d->links.end())
            it->media = Media(it->media | media);
        else
            d->links.append({to, media});
    }
    // A node linked after the stream was announced still needs its description.
    if ((media & Audio) && outInfoA.codec != KestCodec::None)
        to->onNewInfoA(outInfoA);
    if ((media & Video) && outInfoV.codec != KestCodec::None)
        to->onNewInfoV(outInfoV);
}

void KestObject::unlink(KestObject *to)
{
    Media media{};
    {
        QWriteLocker locker(&d->linksLock);
        auto it = std::find_if(d->links.begin(), d->links.end(), [to](const Link &l) { return l.to == to; });
        if (it == d->links.end())
            return;
        media = it->media;
        d->links.erase(it);
    }
    if (media & Audio)
        to->onUnLinkA(outInfoA);
    if (media & Video)
        to->onUnLinkV(outInfoV);
}

void KestObject::sendEvent(QString type, QVariant info)
{
    Q_EMIT eventSent(type, info);
    d->forEachLink(this, Both, [&](KestObject *to) { to->onNewEvent(type, info); });
}

void KestObject::sendInfoA(StreamInfo info)
{
    outInfoA = info;
    d->forEachLink(this, Audio, [&](KestObject *to) { to->onNewInfoA(info); });
}

void KestObject::sendInfoV(StreamInfo info)
{
    outInfoV = info;
    d->forEachLink(this, Video, [&](KestObject *to) { to->onNewInfoV(info); });
}

void KestObject::sendPacketA(Packet pkt)
{
    d->forEachLink(this, Audio, [&](KestObject *to) { to->onNewPacketA(pkt); });
}

void KestObject::sendPacketV(Packet pkt)
{
    d->forEachLink(this, Video, [&](KestObject *to) { to->onNewPacketV(pkt); });
}

int KestObject::bufferPacketA(Packet pkt)
{
    return bufferPacket(lockA, packetsA, pkt, true);
}

int KestObject::bufferPacketV(Packet pkt)
{
    return bufferPacket(lockV, packetsV, pkt, false);
}

int KestObject::bufferPacket(QReadWriteLock &lock, QList<Packet> &queue, const Packet &pkt, bool audio)
{
    std::atomic<int> &cached = audio ? d->queueLengthA : d->queueLengthV;
    int bound = cached.load(std::memory_order_relaxed);
    if (bound < 0) {
        // Not configured through the host yet (a node used directly): read the setting once.
        bound = settingOr(data, audio ? "bufLenA" : "bufLenV", kDefaultQueueLength);
        cached = bound;
    }
    QueueWriteLocker locker(lock);
    const bool wasEmpty = queue.isEmpty();
    queue.append(pkt);
    while (queue.size() > bound)
        queue.removeFirst();
    return wasEmpty ? 1 : 0;
}

char *KestObject::bufferData(char *src, int len, int headroom)
{
    if (len < 0 || headroom < 0)
        return nullptr;
    std::lock_guard<std::mutex> locker(d->poolMutex);
    if (!d->pool) {
        int size = d->memSize.load();
        if (size < 0) {
            size = settingOr(data, "memSize", kDefaultMemSize);
            d->memSize = size;
        }
        // Failures never reach the node as an exception: no pool, no block.
        d->pool.reset(new (std::nothrow) char[size_t(size) + kBlockAlign]);
        if (!d->pool)
            return nullptr;
        const auto raw = reinterpret_cast<quintptr>(d->pool.get());
        d->poolBase = d->pool.get() + (kBlockAlign - raw % kBlockAlign) % kBlockAlign;
        d->poolSize = size;
        d->poolOffset = 0;
    }
    // Payloads start on a 16-byte boundary so that sample and header fields are aligned.
    const auto place = [&](qint64 offset) {
        return (offset + kBlockReserve + headroom + kBlockAlign - 1) / kBlockAlign * kBlockAlign;
    };
    qint64 start = place(d->poolOffset);
    if (start + len > d->poolSize) {
        start = place(0);
        if (start + len > d->poolSize)
            return nullptr;
    }
    char *block = d->poolBase + start;
    d->poolOffset = int(std::min<qint64>(d->poolSize, start + len));
    if (src && len > 0)
        std::memcpy(block, src, size_t(len));
    return block;
}

void KestObject::onNewPacketA(Packet) {}
void KestObject::onNewPacketV(Packet) {}
void KestObject::onUnLinkA(StreamInfo) {}
void KestObject::onUnLinkV(StreamInfo) {}
void KestObject::onNewEvent(QString, QVariant) {}
void KestObject::onNewInfoA(StreamInfo) {}
void KestObject::onNewInfoV(StreamInfo) {}
void KestObject::onSetData(QVariantMap) {}
void KestObject::onStart() {}
void KestObject::onStop() {}
