#pragma once

#include "socketio/packet.h"

#include <QByteArray>
#include <QObject>
#include <QString>

namespace SocketIO {

// What the Engine.IO open packet tells the client.
struct HandShake
{
    QString sid;
    qint64 pingTimeout = 0;  // ms
    qint64 pingInterval = 0; // ms
};

// Text codec of Engine.IO / Socket.IO frames. The encrypt/decrypt names are historical: this
// is plain text encoding and parsing, no cryptography. No state, no sockets: the session,
// tests and benchmarks call it directly. Decoded packets are children of the codec and belong
// to the caller, who disposes of them with deleteLater() (or deletes them).
class Protocol : public QObject
{
    Q_OBJECT
public:
    explicit Protocol(QObject *parent = nullptr);

    QString encryptString(const Packet *packet) const;
    // Binary frames are not produced: always empty.
    QByteArray encryptBinary(const Packet *packet) const;

    Packet *decrypt(const QString &frame);
    Packet *decrypt(const QByteArray &frame);
    Packet *decryptString(const QString &frame);
    // Binary payloads are not supported: logs the bytes and returns an error packet.
    Packet *decryptBinary(const QByteArray &frame);
    Packet *errorPacket(const QString &message);

    // True when `body` is a usable open packet; only then is `out` filled.
    bool decryptHandShake(const QByteArray &body, HandShake *out) const;

Q_SIGNALS:
    void decrypted(SocketIO::Packet *packet);
};

} // namespace SocketIO
