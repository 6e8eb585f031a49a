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
// Packet memory (bufferData): each node owns one pool of "memSize" bytes (default
// kDefaultMemSize), allocated on first use and kept for the node's life. Blocks are handed out
// round the pool in order, so a block stays valid until the node has handed out another
// "memSize" bytes after it. That covers a packet travelling downstream (delivery is synchronous)
// and a packet held in a queue, as long as a node keeps queued less than its pool size.
// Every block has at least kBlockReserve writable bytes in front of it besides the requested
// headroom (audio nodes write a 3-byte header there).
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

    // Services used by the nodes.
    void start();
    void stop();
    bool isStarted() const;
    QString name() const;
    void sendEvent(const QString &type, const QVariant &info);
    void sendInfoA(const StreamInfo &info);
    void sendInfoV(const StreamInfo &info);
    void sendPacketA(const Packet &pkt);
    void sendPacketV(const Packet &pkt);
    int bufferPacketA(const Packet &pkt);
    int bufferPacketV(const Packet &pkt);
    char *bufferData(const char *src, int len, int headroom);

    // Host side: naming, settings and the links of the graph.
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
    int bufferPacket(QReadWriteLock &lock, QList<Packet> &queue, const Packet &pkt, bool audio);
    void refreshHostSettings();

    std::unique_ptr<KestObjectPrivate> d;
};
