#include "json.h"

#include "jsonscreen.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

QVariant Json::decode(const QString &text)
{
    const QByteArray utf8 = text.toUtf8();
    const QByteArray trimmed = utf8.trimmed();
    QJsonParseError error{};
    // An object or array is parsed as it is, so it may nest as deeply as Qt allows (what
    // encode writes decodes again). QJsonDocument takes nothing else, so a top-level scalar is
    // parsed as the single element of an array.
    if (trimmed.startsWith('{') || trimmed.startsWith('[')) {
        const QJsonDocument doc = JsonScreen::parse(utf8, &error);
        return error.error == QJsonParseError::NoError ? doc.toVariant() : QVariant();
    }
    const QJsonDocument doc = JsonScreen::parse('[' + utf8 + ']', &error);
    if (error.error != QJsonParseError::NoError || !doc.isArray() || doc.array().size() != 1)
        return {};
    return doc.array().first().toVariant();
}

QString Json::encode(QVariant value, bool indented)
{
    const QJsonDocument::JsonFormat format = indented ? QJsonDocument::Indented : QJsonDocument::Compact;
    const QJsonValue json = QJsonValue::fromVariant(value);
    if (json.isObject())
        return QString::fromUtf8(QJsonDocument(json.toObject()).toJson(format));
    if (json.isArray())
        return QString::fromUtf8(QJsonDocument(json.toArray()).toJson(format));
    // A scalar: serialise it as the single element of an array and cut the brackets away.
    const QByteArray text = QJsonDocument(QJsonArray{json}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(text.mid(1, text.size() - 2));
}

QVariant Json::loadFile(QString path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return decode(QString::fromUtf8(file.readAll()));
}
