#pragma once

#include <QByteArray>
#include <QString>
#include <QVariantList>
#include <QtGlobal>

// Frames for the radio tally transmitter: the command byte, its payload, a checksum (the sum of
// the command byte and the payload, modulo 256) and the end mark 0xFF. Pure functions: nothing
// here touches a port.
namespace SerialTally {

constexpr quint8 kTallyCommand = 1; // payload: state-2 mask, state-1 mask
constexpr quint8 kIndexCommand = 2; // payload: unit number - 1
constexpr quint8 kEndMark = 0xFF;
constexpr int kMaskInputs = 8;      // inputs 0..7 have a bit in the masks; later inputs have none

// The complete frame for `command` and `payload`.
QByteArray frame(quint8 command, const QByteArray &payload);

// Tally payload from the state of every input (element i = input i as an integer: 0 off, 1 and
// 2 the two lit states): the mask of inputs in state 2, then the mask of inputs in state 1.
QByteArray tallyPayload(const QVariantList &states);

// Index payload: the unit number (counted from 1) minus 1, low 8 bits.
QByteArray indexPayload(int unitNumber);

// Reply check: true when the sum of every byte but the last, modulo 256, equals the last byte.
// An empty reply has no checksum and fails.
bool checksumMatches(const QByteArray &reply);

// The part of a device path after its last "/" ("/dev/ttyUSB0" -> "ttyUSB0"); stale lock files
// of the device carry it in their names. Empty for a path ending in "/".
QString deviceName(const QString &path);

} // namespace SerialTally
