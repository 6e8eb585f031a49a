#pragma once

#include <QObject>
#include <QString>
#include <QVariant>

namespace SocketIO {

// Engine.IO packet type: the first character of every frame. Any digit decodes, so the type
// holds values beyond the table as well.
enum FrameType : int { Open = 0, Close = 1, Ping = 2, Pong = 3, Message = 4, Upgrade = 5, Noop = 6 };

// Socket.IO packet types, the second character of a Message frame.
enum PacketType { Connect = 0, Disconnect = 1, Event = 2, Ack = 3, Error = 4, BinaryEvent = 5, BinaryAck = 6 };

constexpr int kNone = -1; // no packet type, no acknowledgement id

// One event: its name and its single argument.
struct IOEvent
{
    QString name;
    QVariant data;
};

// One Engine.IO frame and, for Message frames, the Socket.IO packet it carries. A QObject so
// that whoever sends or decodes one can hand it on and dispose of it with deleteLater().
class Packet : public QObject
{
    Q_OBJECT
public:
    // An event message: frame type Message, packet type Event.
    explicit Packet(QObject *parent = nullptr);
    explicit Packet(FrameType frameType, QObject *parent = nullptr);

    QString rawData() const;

    // Takes the next id of the counter that all packets share (never reset, never wrapped).
    int toAck();
    // raw parsed as JSON; a null variant when raw is not JSON.
    QVariant ackData() const;
    // raw parsed as an event array: name from element 0, data from element 1 (later elements
    // are not looked at); an empty event when raw is not a JSON array.
    IOEvent eventData() const;

    void setEventData(const QString &name);
    void setEventData(const QString &name, const QVariant &data); // invalid data: name only
    void setEventData(const IOEvent &event);

    void dbg() const;

    FrameType frameType;
    int packetType = kNone;
    QString nsp = QStringLiteral("/");
    QVariant data;  // structured payload, encoded only when raw is empty
    QString raw;    // payload text exactly as on the wire after the header
    QByteArray binary;
    int id = kNone;

private:
    static int _lastAck;
};

} // namespace SocketIO
