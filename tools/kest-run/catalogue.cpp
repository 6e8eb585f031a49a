#include "catalogue.h"

#include "kestobject.h"

#include <QMetaMethod>
#include <QMetaType>

#include <algorithm>

namespace {

const QMetaObject *nodeMetaObject(int typeId)
{
    if (!(QMetaType::typeFlags(typeId) & QMetaType::PointerToQObject))
        return nullptr;
    const QMetaObject *mo = QMetaType::metaObjectForType(typeId);
    return mo && mo->inherits(&KestObject::staticMetaObject) ? mo : nullptr;
}

} // namespace

QList<NodeClass> nodeClasses()
{
    QList<NodeClass> classes;
    for (int id = QMetaType::User; QMetaType::isRegistered(id); ++id) {
        const QByteArray name = QMetaType::typeName(id);
        if (!name.endsWith('*'))
            continue;
        const QByteArray plain = name.left(name.size() - 1);
        const QMetaObject *mo = nodeMetaObject(id);
        // A node class is registered under its plain name as an alias of its pointer type.
        if (mo && mo->constructorCount() > 0 && QMetaType::type(plain.constData()) == id)
            classes.append({plain, mo});
    }
    std::sort(classes.begin(), classes.end(),
              [](const NodeClass &a, const NodeClass &b) { return a.name < b.name; });
    return classes;
}

QStringList nodeClassNames()
{
    QStringList names;
    for (const NodeClass &c : nodeClasses())
        names << QString::fromLatin1(c.name);
    return names;
}

KestObject *createNode(const QByteArray &className)
{
    const int id = QMetaType::type(className.constData());
    const QMetaObject *mo = id == QMetaType::UnknownType ? nullptr : nodeMetaObject(id);
    if (!mo)
        return nullptr;
    QObject *object = mo->newInstance(Q_ARG(QObject *, nullptr));
    if (!object)
        object = mo->newInstance();
    return static_cast<KestObject *>(object);
}

QStringList slotSignatures(const QMetaObject *metaObject)
{
    QStringList signatures;
    for (int i = metaObject->methodOffset(); i < metaObject->methodCount(); ++i) {
        const QMetaMethod method = metaObject->method(i);
        if (method.methodType() != QMetaMethod::Slot || method.access() != QMetaMethod::Public)
            continue;
        QString signature = QString::fromLatin1(method.methodSignature());
        if (method.returnType() != QMetaType::Void)
            signature.prepend(QString::fromLatin1(method.typeName()) + QLatin1Char(' '));
        signatures << signature;
    }
    return signatures;
}
