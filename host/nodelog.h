#pragma once

#include "kestobject.h"

#include <QDebug>

// Log line of a node: a debug message in the "default" category that starts with "[name]".
// Further items follow after the usual single space:  nodeLog(this) << "NDI create";
inline QDebug nodeLog(const KestObject *node)
{
    // A logger made without a category leaves it empty; the appliance's filters and message
    // patterns expect "default", as qDebug() gives.
    QDebug dbg = QMessageLogger(nullptr, 0, nullptr, "default").debug();
    dbg.noquote() << QLatin1Char('[') + node->name() + QLatin1Char(']');
    return dbg;
}
