#pragma once

#include <QString>

namespace SerialTally {

// Where serial devices leave lock files on the appliance when no lock directory of their own exists.
constexpr char kLockDirectory[] = "/tmp";

// Removes the stale lock files of a serial device: the entries of `directory` whose names
// contain `device` (taken literally, never as a pattern), as "rm directory/*device*" would
// without a shell: files, symbolic links, sockets and FIFOs, but no directory and no name that
// starts with ".". An empty `device` removes nothing. Returns the number of entries removed.
int removeStaleLocks(const QString &directory, const QString &device);

} // namespace SerialTally
