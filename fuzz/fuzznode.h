#pragma once

#include "host/registration.h"

// A node for kest-run's graphs and control lines to reach: slots of several parameter types,
// and events that come back out through the runner's printing.
class FuzzNode : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit FuzzNode(QObject *parent = nullptr) : KestObject(parent) {}

public Q_SLOTS:
    QVariant echo(QVariant value) { return value; }
    QString join(QString text, int count, double scale, bool flag)
    {
        return text + QString::number(count) + QString::number(scale) + (flag ? QStringLiteral("!") : QString());
    }
    QByteArray bytes(QByteArray value) { return value; }
    void onNewEvent(QString type, QVariant info) override { sendEvent(type, info); }
};

inline const int kFuzzNodeRegistered = Kest::registerClass<FuzzNode>();
