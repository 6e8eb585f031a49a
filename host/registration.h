#pragma once

#include "kestobject.h"

#include <QByteArray>
#include <QDebug>
#include <QMetaType>

#include <type_traits>

namespace Kest {

// Makes a node class known to the host by its class name. Call it once per class from a
// static initialiser in the class's source file:
//
//     namespace { const int registered = Kest::registerClass<KestIntercomServer>(); }
//
// Afterwards QMetaType::type("Class") and QMetaType::type("Class*") give the same id, and
// QMetaType::metaObjectForType(id)->newInstance() creates the node. Header-only on purpose:
// it relies on nothing but Qt, so it works against the appliance's own host library as well.
template <typename T>
int registerClass()
{
    static_assert(std::is_base_of<KestObject, T>::value, "nodes derive from KestObject");
    const QByteArray name = QMetaObject::normalizedType(T::staticMetaObject.className());
    const int pointerId = qRegisterNormalizedMetaType<T *>(name + '*');

    const int existing = QMetaType::type(name.constData());
    if (existing == QMetaType::UnknownType)
        return QMetaType::registerNormalizedTypedef(name, pointerId);
    if (existing == pointerId)
        return pointerId;
    // The plain name already belongs to an unrelated type. Qt keeps one type per name (and
    // aborts on a second one of another size), so the class stays reachable only as "Class*".
    qWarning("%s is already the name of another type; the host cannot create it by that name",
             name.constData());
    return -1;
}

} // namespace Kest
