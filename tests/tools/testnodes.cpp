// A stand-in plug-in for the kest-run tests: a node whose only job is to make the host's
// behaviour visible on kest-run's output (calls, settings, events, links, start and stop).

#include "kestobject.h"
#include "registration.h"

class EchoNode : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit EchoNode(QObject *parent = nullptr) : KestObject(parent) {}

public Q_SLOTS:
    QVariant echo(QVariant value) { return value; }
    int add(int a, int b) { return a + b; }
    QByteArray bytes(QString text) { return text.toUtf8(); }
    QVariant setting(QString key) { return data.value(key); }
    void emitEvent(QString type, QVariant value) { sendEvent(type, value); }

    void onStart() override { sendEvent(QStringLiteral("started"), name()); }
    void onStop() override { sendEvent(QStringLiteral("stopped"), name()); }
    void onNewEvent(QString type, QVariant info) override
    {
        sendEvent(QStringLiteral("heard"), QVariantMap{{QStringLiteral("type"), type}, {QStringLiteral("value"), info}});
    }
};

namespace {
const int registered = Kest::registerClass<EchoNode>();
}

#include "testnodes.moc"
