#include <intercom/kestintercomserver.h>

#include <QCoreApplication>
#include <QMetaType>

#include <cstdio>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    KestIntercomServer direct; // links against the installed library
    const int id = QMetaType::type("KestIntercomServer");
    const QMetaObject *mo = QMetaType::metaObjectForType(id);
    QObject *node = mo ? mo->newInstance() : nullptr;
    if (!node || id != QMetaType::type("KestIntercomServer*"))
        return 1;
    std::printf("created %s by name\n", node->metaObject()->className());
    delete node;
    return 0;
}
