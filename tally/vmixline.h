#pragma once

#include <QByteArray>
#include <QString>
#include <QVariantList>
#include <QtGlobal>

#include <optional>

// The tally part of vMix's TCP API: the subscription request and the "TALLY OK <digits>" reply
// lines. Pure functions: nothing here touches a socket.
namespace VMix {

constexpr int kDefaultPort = 8099;
constexpr int kReconnectIntervalMs = 5000;
constexpr int kConnectWaitMs = 200;
// A peer that sends more than this without a line feed is dropped: its line would otherwise
// grow without bound in the socket's buffer.
constexpr qint64 kMaxLineBytes = 64 * 1024;
constexpr char kSubscribeRequest[] = "SUBSCRIBE TALLY\r\n";
// Asks for the current tally; answered with one "TALLY OK" line.
constexpr char kTallyRequest[] = "TALLY\r\n";
// The switcher's answer to the subscription, once it has taken it.
constexpr char kSubscribedReply[] = "SUBSCRIBE OK TALLY";

// Text of one line as read from the socket: every "\r\n" pair removed, cut at the first zero
// byte. Only the pair is removed, so a line ended by a bare "\n" keeps it.
QString lineText(const QByteArray &line);

// The tally of a line "TALLY <status> <digits>" (exactly three fields split on single spaces,
// the first exactly "TALLY"; the status is not examined): one int per character of the third
// field, a character that is not a decimal digit giving 0. Nothing for any other line.
std::optional<QVariantList> tally(const QString &line);

// The TCP port of a "port" setting: its low 16 bits (70000 -> 4464).
inline quint16 portNumber(int setting) { return quint16(quint32(setting) & 0xffffu); }

} // namespace VMix
