#include "stalelocks.h"

#include <QDir>
#include <QFileInfo>

namespace SerialTally {

namespace {
// QDir's name filters are wildcard patterns; a device name is matched as plain text, so its
// pattern characters go into one-character sets.
QString literalPattern(const QString &text)
{
    QString out;
    for (const QChar c : text) {
        if (c == QLatin1Char('*') || c == QLatin1Char('?') || c == QLatin1Char('['))
            out += QLatin1Char('[') + c + QLatin1Char(']');
        else
            out += c;
    }
    return out;
}
} // namespace

int removeStaleLocks(const QString &directory, const QString &device)
{
    if (device.isEmpty())
        return 0;
    QDir dir(directory);
    dir.setNameFilters({QLatin1Char('*') + literalPattern(device) + QLatin1Char('*')});
    // Like a shell's "*": case-sensitive, and no QDir::Hidden, so no match on a leading ".".
    dir.setFilter(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot | QDir::CaseSensitive);
    int removed = 0;
    const QFileInfoList entries = dir.entryInfoList();
    for (const QFileInfo &entry : entries) {
        if (entry.isDir() && !entry.isSymLink())
            continue;
        if (dir.remove(entry.fileName()))
            ++removed;
    }
    return removed;
}

} // namespace SerialTally
