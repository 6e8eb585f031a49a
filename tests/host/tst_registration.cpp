#include "catalogue.h"
#include "kestobject.h"
#include "registration.h"

#include <QLibrary>
#include <QTest>

#include <memory>

namespace {
// A node whose class name is taken by an unrelated type before it registers.
class ClashNode : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit ClashNode(QObject *parent = nullptr) : KestObject(parent) {}
};
} // namespace

class TestRegistration : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void expectedClassesAreRegistered_data();
    void expectedClassesAreRegistered();
    void everyClassIsCreatedByNameBothWays();
    void takenNameDoesNotAbort();
};

void TestRegistration::initTestCase()
{
    // Load the plug-in the way the host does: the classes register themselves while it loads.
    QLibrary library(QStringLiteral(KEST_LIBRARY_PATH));
    QVERIFY2(library.load(), qPrintable(library.errorString()));
}

void TestRegistration::expectedClassesAreRegistered_data()
{
    QTest::addColumn<QString>("className");
    for (const char *name : {"KestIntercom", "KestIntercomServer", "KestNDIRecv", "KestNDISend", "KestTally",
                             "KestTallyArbiter", "KestVMix"})
        QTest::newRow(name) << QString::fromLatin1(name);
}

void TestRegistration::expectedClassesAreRegistered()
{
    QFETCH(QString, className);
    const QByteArray name = className.toLatin1();
    const int id = QMetaType::type(name.constData());
    QVERIFY2(id != QMetaType::UnknownType, name.constData());
    QCOMPARE(id, QMetaType::type(name + '*'));
    QVERIFY(QMetaType::typeFlags(id) & QMetaType::PointerToQObject);
    QCOMPARE(QByteArray(QMetaType::metaObjectForType(id)->className()), name);
    QVERIFY(nodeClassNames().contains(className));
}

void TestRegistration::everyClassIsCreatedByNameBothWays()
{
    const QList<NodeClass> classes = nodeClasses();
    QVERIFY(!classes.isEmpty());
    for (const NodeClass &nodeClass : classes) {
        const QMetaObject *mo = QMetaType::metaObjectForType(QMetaType::type(nodeClass.name.constData()));
        QObject parent;
        QObject *withParent = mo->newInstance(Q_ARG(QObject *, &parent));
        QVERIFY2(withParent && withParent->parent() == &parent, nodeClass.name.constData());
        std::unique_ptr<QObject> withoutParent(mo->newInstance());
        QVERIFY2(qobject_cast<KestObject *>(withoutParent.get()) && !withoutParent->parent(), nodeClass.name.constData());
        QCOMPARE(QByteArray(withoutParent->metaObject()->className()), nodeClass.name);
        QVERIFY(std::unique_ptr<KestObject>(createNode(nodeClass.name)));
    }
}

void TestRegistration::takenNameDoesNotAbort()
{
    QMetaType::registerNormalizedTypedef("ClashNode", QMetaType::Int);
    QCOMPARE(Kest::registerClass<ClashNode>(), -1);
    QCOMPARE(QMetaType::type("ClashNode"), int(QMetaType::Int));
    // Still reachable through its pointer type.
    const int pointerId = QMetaType::type("ClashNode*");
    QVERIFY(pointerId != QMetaType::UnknownType);
    QCOMPARE(QMetaType::metaObjectForType(pointerId), &ClashNode::staticMetaObject);
    QVERIFY(!createNode("ClashNode"));
    QVERIFY(!nodeClassNames().contains(QStringLiteral("ClashNode")));
}

QTEST_GUILESS_MAIN(TestRegistration)
#include "tst_registration.moc"
