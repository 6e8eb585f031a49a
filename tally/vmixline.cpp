#include "vmixline.h"

#include <QStringList>

namespace VMix {

QString lineText(const QByteArray &line)
{
    QByteArray bytes = line;
    bytes.replace("\r\n", QByteArray());
    const int zero = bytes.indexOf('\0');
    return QString::fromLatin1(bytes.constData(), zero < 0 ? bytes.size() : zero);
}

std::optional<QVariantList> tally(const QString &line)
{
    const QStringList fields = line.split(QLatin1Char(' '), Qt::KeepEmptyParts, Qt::CaseSensitive);
    if (fields.size() != 3 || fields.at(0) != QLatin1String("TALLY"))
        return std::nullopt;
    QVariantList values;
    const QString &digits = fields.at(2);
    values.reserve(digits.size());
    for (const QChar c : digits) {
        const ushort u = c.unicode();
        values.append(u >= '0' && u <= '9' ? int(u - '0') : 0);
    }
    return values;
}

} // namespace VMix
