#include "tally/stalelocks.h"

#include "tally/serialframe.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

namespace SerialTally {

int removeStaleLocks(const QString &directory, const QString &uart)
{
    // A setting such as "/dev/s" or "/dev/." would otherwise match far more than lock files.
    struct stat device{};
    const QString name = deviceName(uart);
    if (name.isEmpty() || ::stat(QFile::encodeName(uart).constData(), &device) != 0 || !S_ISCHR(device.st_mode))
        return 0;
    QDir dir(directory);
    // No QDir::Hidden: like a shell's "*", no match on a leading ".".
    const QFileInfoList entries = dir.entryInfoList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    int removed = 0;
    for (const QFileInfo &entry : entries) {
        // isFile() holds for regular files only (and links to them); a link itself goes, never
        // what it points to.
        if (entry.fileName().contains(name) && (entry.isSymLink() || entry.isFile()) && dir.remove(entry.fileName()))
            ++removed;
    }
    return removed;
}

} // namespace SerialTally
