#pragma once

#include "packet.h"

#include <QList>
#include <QObject>
#include <QReadWriteLock>
#include <QStringList>
#include <QVariantMap>

#include <memory>

class KestObjectPrivate;

// Base of every node of the media graph.
//
// The appliance loads the plug-in against its own host library, which exports exactly the
// services declared under "Host contract" below, in exactly these signatures: a parameter
// taken by const reference instead of by value is another symbol, and the appliance would
// refuse the plug-in. Nodes call nothing else of this class; the members under "Host side"
// exist only in this substitute, for kest-run and the tests (tests/host checks both rules).
//
// Packet memory (bufferData): each node owns one pool of "memSize" bytes (default
// kDefaultMemSize), allocated on first use and kept for the node's life; when it cannot be
// allocated, bufferData returns null. Blocks are taken round the pool in order, each with its
// headroom and kBlockReserve bytes in front, rounded up to 16 bytes; a block that does not fit
// before the end of the pool starts again at its beginning. Count every block as its length
// plus its headroom plus 32 bytes: a block stays valid as long as the blocks taken after it
// add up to no more than memSize - 2 x the largest count among them and itself. With blocks of
// one size that is all but two blocks of a pool's worth; with blocks of up to a quarter of the
// pool, at least half of it. Delivery downstream is synchronous, so a packet is safe on its
// way; a node that keeps packets queued sizes its pool by this rule.
//
// Packet queues (bufferPacketA/V): "bufLenA" / "bufLenV" bound each queue (default
// kDefaultQueueLength packets); past the bound the oldest packet is dropped. The queue's lock
// is held only to append or to take one packet; see takePacket() in host/packetqueue.h.
class KestObject : public QObject
{
    Q_OBJECT
public:
    enum Media { Audio = 1, Video = 2, Both = Audio | Video };

    static constexpr int kDefaultMemSize = 4 * 1024 * 1024;
    static constexpr int kDefaultQueueLength = 64;
    static constexpr int kBlockReserve = 16;

    Q_INVOKABLE explicit KestObject(QObject *parent = nullptr);
    ~KestObject() override;

    // Host contract: the services nodes may call.
    void start();
    QString name() const;
    void sendEvent(QString type, QVariant info);
    void sendInfoA(StreamInfo info);
    void sendInfoV(StreamInfo info);
    void sendPacketA(Packet pkt);
    void sendPacketV(Packet pkt);
    int bufferPacketA(Packet pkt);
    int bufferPacketV(Packet pkt);
    char *bufferData(char *src, int len, int headroom);

    // Host side: naming, settings, the started flag and the links of the graph.
    void stop();
    bool isStarted() const;
    void setName(const QString &name);
    void setData(const QVariantMap &settings); // merge into data, then onSetData(settings)
    void link(KestObject *to, Media media);
    void unlink(KestObject *to);

Q_SIGNALS:
    // Every event a node sends reaches the host through this signal.
    void eventSent(const QString &type, const QVariant &info);

public Q_SLOTS:
    virtual void onNewPacketA(Packet pkt);
    virtual void onNewPacketV(Packet pkt);
    virtual void onUnLinkA(StreamInfo info);
    virtual void onUnLinkV(StreamInfo info);
    virtual void onNewEvent(QString type, QVariant info);
    virtual void onNewInfoA(StreamInfo info);
    virtual void onNewInfoV(StreamInfo info);
    virtual void onSetData(QVariantMap data);
    virtual void onStart();
    virtual void onStop();

public:
    QVariantMap data;
    QVariantMap status;
    QVariantMap props;
    StreamInfo infoA;    // this node's audio stream description
    StreamInfo infoV;    // this node's video stream description
    StreamInfo outInfoA; // last audio description sent downstream (replayed to new links)
    StreamInfo outInfoV;
    StreamInfo shareInfo;
    QVariantMap links;
    QReadWriteLock lockA;
    QList<Packet> packetsA;
    QReadWriteLock lockV;
    QList<Packet> packetsV;
    QStringList shares;
    QString typeName;
    int typeId = 0;

private:
    friend class KestObjectPrivate;
    int bufferPacket(QReadWriteLock &lock, QList<Packet> &queue, const Packet &pkt, bool audio);
    void refreshHostSettings();

    std::unique_ptr<KestObjectPrivate> d;
};
