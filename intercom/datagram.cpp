#include "datagram.h"

#include <QString>

#include <cstdio>
#include <cstring>

namespace Intercom {

Header readHeader(const char *data, int size)
{
    Header h;
    if (!data)
        return h;
    if (size > 0)
        h.source = quint8(data[0]);
    if (size > 1)
        h.destination = quint8(data[1]);
    if (size > 2)
        h.type = quint8(data[2]);
    return h;
}

Body body(const char *data, int size)
{
    if (!data || size <= kHeaderSize)
        return {};
    return {data + kHeaderSize, size - kHeaderSize};
}

void writeHeader(char *out, Header header)
{
    out[0] = char(header.source);
    out[1] = char(header.destination);
    out[2] = char(header.type);
}

QByteArray truncatedUtf8(const QString &name, int maxBytes)
{
    QByteArray bytes = name.toUtf8();
    if (bytes.size() <= maxBytes)
        return bytes;
    int cut = qMax(0, maxBytes);
    // Step back over continuation bytes (10xxxxxx) so that no character is split.
    while (cut > 0 && (quint8(bytes[cut]) & 0xC0) == 0x80)
        --cut;
    bytes.truncate(cut);
    return bytes;
}

int buildAlive(char *out, quint8 source, const QString &name)
{
    const QByteArray bytes = truncatedUtf8(name);
    writeHeader(out, {source, kBroadcast, Alive});
    std::memcpy(out + kHeaderSize, bytes.constData(), size_t(bytes.size()));
    return kHeaderSize + bytes.size();
}

QString commandText(Body body)
{
    if (!body.data)
        return {};
    const void *zero = std::memchr(body.data, 0, size_t(body.size));
    const int size = zero ? int(static_cast<const char *>(zero) - body.data) : body.size;
    return QString::fromLatin1(body.data, size);
}

QByteArray commandBody(const QString &jsonText)
{
    QByteArray bytes;
    bytes.reserve(jsonText.size());
    for (const QChar c : jsonText) {
        if (c.unicode() <= 0xff) {
            bytes.append(char(c.unicode()));
        } else {
            char escape[7];
            std::snprintf(escape, sizeof(escape), "\\u%04x", unsigned(c.unicode()));
            bytes.append(escape, 6);
        }
    }
    return bytes;
}

} // namespace Intercom
