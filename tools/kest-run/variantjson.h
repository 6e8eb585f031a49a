#pragma once

#include <QJsonValue>
#include <QVariant>

// Host values to JSON the way kest-run prints them: maps, lists, numbers, strings and booleans
// as themselves, byte arrays as lowercase hex, anything else through its string form.
QJsonValue toJson(const QVariant &value);

#include <QByteArray>
#include <initializer_list>
#include <utility>

// One compact JSON object line with its members in the given order (QJsonObject would sort
// them), for output that people read as well as programs.
QByteArray jsonLine(std::initializer_list<std::pair<const char *, QJsonValue>> members);
