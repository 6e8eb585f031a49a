#pragma once

// Intercom test helpers: the real relay on a thread of its own (so that a test can block on
// station sockets), stations on the test thread, and PCM frames in packet memory.

#include "recorder.h"
#include "udpstation.h"

#include "intercom/datagram.h"
#include "intercom/kestintercom.h"
#include "intercom/kestintercomserver.h"

#include <QCoreApplication>
#include <QTest>
#include <QThread>

#include <cstring>
#include <memory>
#include <vector>

// The relay on a thread of its own.
class RelayThread
{
public:
    explicit RelayThread(quint16 port) : relay(new KestIntercomServer)
    {
        relay->setName(QStringLiteral("relay"));
        relay->setData({{QStringLiteral("port"), port}});
        relay->moveToThread(&thread);
        thread.start();
        run([this] { relay->start(); });
    }
    ~RelayThread()
    {
        run([this] {
            relay->stop();
            relay->moveToThread(QCoreApplication::instance()->thread());
        });
        thread.quit();
        thread.wait();
        delete relay;
    }

    template <typename F>
    void run(F &&f)
    {
        QMetaObject::invokeMethod(relay, std::forward<F>(f), Qt::BlockingQueuedConnection);
    }

    QList<int> stations()
    {
        QList<int> result;
        run([&] { result = relay->stations(); });
        return result;
    }

    KestIntercomServer *relay;
    QThread thread;
};

inline QByteArray samples16(const std::vector<qint16> &samples)
{
    return QByteArray(reinterpret_cast<const char *>(samples.data()), int(samples.size() * sizeof(qint16)));
}

inline qint16 sampleAt(const QByteArray &bytes, int i)
{
    qint16 s;
    std::memcpy(&s, bytes.constData() + 2 * i, sizeof(s));
    return s;
}

// Sample 1 of the audio in a datagram, which carries the frame's sequence number.
inline int sequenceOf(const QByteArray &datagram)
{
    return datagram.size() < Intercom::kHeaderSize + 4 ? -1 : sampleAt(datagram.mid(Intercom::kHeaderSize), 1);
}

// A local frame of 480 16-bit samples: `level` at every sample the voice gate looks at, the
// sequence number in sample 1, which it does not look at.
inline QByteArray voiceFrame(int sequence, qint16 level)
{
    std::vector<qint16> samples(480, level);
    samples[1] = qint16(sequence);
    return samples16(samples);
}

// Every intercom test runs against the real relay on 127.0.0.1.
class IntercomRig
{
public:
    IntercomRig() : port(freeUdpPort()), relay(port) {}

    // A started station; "hid" is off unless the settings name one.
    KestIntercom *station(const QVariantMap &settings)
    {
        auto node = std::make_unique<KestIntercom>();
        node->setName(QStringLiteral("st%1").arg(settings.value(QStringLiteral("did"), 1).toInt()));
        QVariantMap all{{QStringLiteral("port"), port}, {QStringLiteral("hid"), QString()}};
        all.insert(settings);
        node->setData(all);
        node->start();
        stations.push_back(std::move(node));
        return stations.back().get();
    }

    // Makes the relay record `number` at the raw endpoint (the datagram goes nowhere).
    bool announce(const UdpStation &raw, quint8 number, const QByteArray &name = {})
    {
        raw.sendTo(port, datagram(number, 254, Intercom::Alive, name));
        return QTest::qWaitFor([&] { return relay.stations().contains(number); }, 5000);
    }
    bool announce(KestIntercom *node, quint8 number)
    {
        node->onTimerKeepAlive();
        return QTest::qWaitFor([&] { return relay.stations().contains(number); }, 5000);
    }

    // A local packet in a microphone's packet memory, with headroom for the station's header.
    Packet local(const QByteArray &bytes)
    {
        Packet p;
        p.data = mic.bufferData(const_cast<char *>(bytes.constData()), bytes.size(), Intercom::kHeaderSize);
        p.len = bytes.size();
        p.frameType = 3;
        p.source = &mic;
        return p;
    }

    quint16 port;
    RelayThread relay;
    KestObject mic;
    std::vector<std::unique_ptr<KestIntercom>> stations;
};

// Roster ids as getState reports them.
inline QList<int> rosterIds(KestIntercom *node)
{
    QList<int> ids;
    for (const QVariant &entry : node->getState().toMap().value(QStringLiteral("list")).toList())
        ids << entry.toMap().value(QStringLiteral("id")).toInt();
    return ids;
}
