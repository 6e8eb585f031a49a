#pragma once

#include <QString>

namespace SerialTally {

// Where serial devices leave lock files on the appliance when no lock directory of their own exists.
constexpr char kLockDirectory[] = "/tmp";

// Removes the stale lock files of the serial device `uart`, and nothing at all unless `uart`
// names an existing character device (directly or through a link): the regular files and
// symbolic links directly in `directory` whose names contain the device's name (deviceName(),
// taken literally) and do not start with ".". Directories, sockets and FIFOs stay. Returns the
// number of entries removed.
int removeStaleLocks(const QString &directory, const QString &uart);

} // namespace SerialTally
