#include "variantjson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

QJsonValue toJson(const QVariant &value)
{
    switch (int(value.userType())) {
    case QMetaType::UnknownType:
    case QMetaType::Nullptr:
        return QJsonValue::Null;
    case QMetaType::Bool:
        return value.toBool();
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::Char:
    case QMetaType::SChar:
    case QMetaType::UChar:
    case QMetaType::Long:
    case QMetaType::LongLong:
        return value.toLongLong();
    case QMetaType::ULong:
    case QMetaType::ULongLong:
        return double(value.toULongLong());
    case QMetaType::Float:
    case QMetaType::Double: {
        const double d = value.toDouble();
        return std::isfinite(d) ? QJsonValue(d) : QJsonValue(QJsonValue::Null);
    }
    case QMetaType::QByteArray:
        return QString::fromLatin1(value.toByteArray().toHex());
    case QMetaType::QString:
        return value.toString();
    case QMetaType::QVariantMap: {
        QJsonObject object;
        const QVariantMap map = value.toMap();
        for (auto it = map.constBegin(); it != map.constEnd(); ++it)
            object.insert(it.key(), toJson(it.value()));
        return object;
    }
    case QMetaType::QVariantHash: {
        QJsonObject object;
        const QVariantHash hash = value.toHash();
        for (auto it = hash.constBegin(); it != hash.constEnd(); ++it)
            object.insert(it.key(), toJson(it.value()));
        return object;
    }
    case QMetaType::QVariantList:
    case QMetaType::QStringList: {
        QJsonArray array;
        for (const QVariant &item : value.toList())
            array.append(toJson(item));
        return array;
    }
    default:
        break;
    }
    if (value.canConvert<QVariantList>() && value.userType() != QMetaType::QString) {
        QJsonArray array;
        for (const QVariant &item : value.value<QSequentialIterable>())
            array.append(toJson(item));
        return array;
    }
    const QJsonValue json = QJsonValue::fromVariant(value);
    if (!json.isNull() && !json.isUndefined())
        return json;
    return value.toString();
}

QByteArray jsonLine(std::initializer_list<std::pair<const char *, QJsonValue>> members)
{
    QByteArray line = "{";
    for (const auto &member : members) {
        if (line.size() > 1)
            line += ',';
        // Each part is written as a one-element array, whose brackets are then cut away.
        const QByteArray part = QJsonDocument(QJsonArray{QString::fromUtf8(member.first), member.second})
                                    .toJson(QJsonDocument::Compact);
        const int comma = part.indexOf(',');
        line += part.mid(1, comma - 1) + ':' + part.mid(comma + 1, part.size() - comma - 2);
    }
    return line + "}\n";
}
