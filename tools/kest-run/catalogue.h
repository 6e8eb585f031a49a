#pragma once

#include <QByteArray>
#include <QList>
#include <QStringList>

class KestObject;
struct QMetaObject;

// The node classes known to the meta-type system, found the way the appliance finds them:
// by the class name each one registered while its library loaded.
struct NodeClass
{
    QByteArray name;
    const QMetaObject *metaObject = nullptr;
};

QList<NodeClass> nodeClasses(); // sorted by name
QStringList nodeClassNames();

// Creates a node by class name through the meta-object system; null when the name is not a
// registered node class.
KestObject *createNode(const QByteArray &className);

// "QVariant getState()" style signatures of the public slots the class itself declares.
QStringList slotSignatures(const QMetaObject *metaObject);
