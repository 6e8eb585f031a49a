#pragma once

#include <QString>
#include <QVariant>

// The host's JSON helpers, on QJsonDocument. Top-level scalars are accepted both ways. The
// signatures are the appliance's: decode by reference, the others by value.
class Json
{
public:
    // Parses JSON text into maps, lists and plain values; an invalid QVariant on bad input.
    static QVariant decode(const QString &text);
    // Serialises a value; `indented` selects the multi-line form, otherwise compact text.
    static QString encode(QVariant value, bool indented);
    // Reads and parses a file; an invalid QVariant when it cannot be read or parsed.
    static QVariant loadFile(QString path);
};
