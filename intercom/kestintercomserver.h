#pragma once

#include "kestobject.h"

#include <QHostAddress>

#include <array>
#include <memory>
#include <vector>

#include <sys/socket.h>

class QTimer;
class QUdpSocket;
struct mmsghdr;

// The intercom relay. Stations send every datagram here; the relay files the sender's address
// under the datagram's source byte and forwards the datagram unchanged to the station named by
// its destination byte, or to every other known station for destination 255. Stations that
// stay silent for 10 s are forgotten.
//
// Settings: "port" (int, 7000) - UDP port, on all local addresses.
class KestIntercomServer : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit KestIntercomServer(QObject *parent = nullptr);
    ~KestIntercomServer() override;

    // Station numbers currently known, ascending, and where each was last heard from.
    QList<int> stations() const;
    QHostAddress stationAddress(int station) const;
    quint16 stationPort(int station) const;

public Q_SLOTS:
    void onStart() override;
    void onStop() override;
    void onRead();
    void onTimerAlive();

private:
    struct Channel
    {
        qint64 lastSeen = 0;
        sockaddr_storage address{};
        socklen_t addressLength = 0;
    };
    struct Batch;

    void receive(const char *data, int size, const sockaddr *from, socklen_t fromLength, qint64 now);
    void send(const char *data, int size, quint8 from, quint8 to);
    void flush();
    void forget(quint8 station);

    QUdpSocket *socket;
    QTimer *timer;
    std::array<Channel, 256> table{};
    std::array<bool, 256> known{};
    std::vector<quint8> order; // known stations, ascending
    std::unique_ptr<Batch> batch;
};
