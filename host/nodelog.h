#pragma once

#include "kestobject.h"

#include <QDebug>

// Log line of a node: a debug message in the "default" category that starts with "[name]".
// Further items follow after the usual single space:  nodeLog(this) << "NDI create";
inline QDebug nodeLog(const KestObject *node)
{
    QDebug dbg = QMessageLogger().debug();
    dbg.noquote() << QLatin1Char('[') + node->name() + QLatin1Char(']');
    return dbg;
}
