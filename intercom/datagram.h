#pragma once

#include <QByteArray>
#include <QtGlobal>

// Intercom datagram: a 3-byte header (source station, destination station, message type)
// followed by the body, which runs to the end of the UDP payload. There is no length, version
// or checksum. Pure functions: nothing here touches a socket.
namespace Intercom {

constexpr int kHeaderSize = 3;
constexpr quint8 kBroadcast = 255;
constexpr int kMaxDatagramSize = 65536; // larger than any UDP payload
constexpr int kAliveBufferSize = 256;   // the prebuilt alive datagram: header + name
constexpr int kMaxNameBytes = kAliveBufferSize - kHeaderSize;
constexpr int kSocketBufferBytes = 512 * 1024;
constexpr int kAliveIntervalMs = 3000;
constexpr qint64 kPresenceTimeoutUs = 10 * 1000 * 1000;

enum Type : quint8 { Audio = 0, Alive = 1, Command = 2 };

struct Header
{
    quint8 source = 0;
    quint8 destination = 0;
    quint8 type = 0;
};

// Reads the header; bytes beyond `size` read as 0 (a datagram of 0, 1 or 2 bytes is legal).
Header readHeader(const char *data, int size);

// The body of a datagram: empty when the datagram is shorter than the header.
struct Body
{
    const char *data = nullptr;
    int size = 0;
};
Body body(const char *data, int size);

// Writes the three header bytes to `out`, which must have room for them.
void writeHeader(char *out, Header header);

// Station numbers travel as the low 8 bits of the integer settings.
inline quint8 stationNumber(int setting) { return quint8(setting & 0xff); }

// UTF-8 bytes of `name`, cut at a character boundary so that at most `maxBytes` remain.
QByteArray truncatedUtf8(const QString &name, int maxBytes = kMaxNameBytes);

// Builds the alive datagram of `source` with its name into `out` (kAliveBufferSize bytes);
// returns its length.
int buildAlive(char *out, quint8 source, const QString &name);

// Command body: JSON text up to its first zero byte or its end, as Latin-1.
QString commandText(Body body);

// The Latin-1 bytes of a command's JSON text. Characters beyond Latin-1 can only stand inside
// JSON strings, so they travel as \uXXXX escapes, which decode to the same text.
QByteArray commandBody(const QString &jsonText);

} // namespace Intercom
