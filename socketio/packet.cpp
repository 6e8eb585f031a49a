#include "socketio/packet.h"

#include "jsonscreen.h"

#include <QDebug>
#include <QJsonArray>
#include <QJsonDocument>

namespace SocketIO {

int Packet::_lastAck = 0;

Packet::Packet(QObject *parent) : QObject(parent), frameType(Message), packetType(Event) {}

Packet::Packet(FrameType frameType, QObject *parent) : QObject(parent), frameType(frameType) {}

QString Packet::rawData() const
{
    return raw;
}

int Packet::toAck()
{
    id = _lastAck++;
    return id;
}

QVariant Packet::ackData() const
{
    const QJsonDocument doc = JsonScreen::parse(raw.toUtf8());
    return doc.isNull() ? QVariant() : doc.toVariant();
}

IOEvent Packet::eventData() const
{
    IOEvent event;
    const QJsonDocument doc = JsonScreen::parse(raw.toUtf8());
    if (!doc.isArray())
        return event;
    const QJsonArray list = doc.array();
    if (!list.isEmpty())
        event.name = list.at(0).toVariant().toString();
    if (list.size() > 1)
        event.data = list.at(1).toVariant();
    return event;
}

void Packet::setEventData(const QString &name)
{
    raw = QString::fromUtf8(QJsonDocument(QJsonArray{name}).toJson(QJsonDocument::Compact));
}

void Packet::setEventData(const QString &name, const QVariant &data)
{
    if (!data.isValid()) {
        setEventData(name);
        return;
    }
    const QJsonArray list{name, QJsonValue::fromVariant(data)};
    raw = QString::fromUtf8(QJsonDocument(list).toJson(QJsonDocument::Compact));
}

void Packet::setEventData(const IOEvent &event)
{
    setEventData(event.name, event.data);
}

void Packet::dbg() const
{
    qDebug().noquote() << "P: ft:" << int(frameType) << " dt:" << packetType << " raw: " << raw;
}

} // namespace SocketIO
