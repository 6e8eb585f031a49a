// A stand-in plug-in for the kest-run tests: nodes whose only job is to make the host's
// behaviour visible (calls, settings, events, links, stop on quit).

#include "kestobject.h"
#include "registration.h"

#include <QFile>

class EchoNode : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit EchoNode(QObject *parent = nullptr) : KestObject(parent) {}

public Q_SLOTS:
    QVariant echo(QVariant value) { return value; }
    QVariant add(int a, int b) { return a + b; }
    QVariant bytes(QString text) { return text.toUtf8(); }
    QVariant setting(QString key) { return data.value(key); }
    int setDataCount() { return setDataCalls; }
    void emitEvent(QString type, QVariant value) { sendEvent(type, value); }
    QVariant running() { return isStarted(); }

    void onSetData(QVariantMap) override { ++setDataCalls; }
    void onStart() override { sendEvent(QStringLiteral("started"), name()); }
    void onStop() override
    {
        // Proof for the test that the node was stopped before the process ended.
        const QString path = data.value(QStringLiteral("stop_file")).toString();
        QFile file(path);
        if (!path.isEmpty() && file.open(QIODevice::Append))
            file.write(name().toUtf8() + " stopped\n");
    }
    void onNewEvent(QString type, QVariant info) override
    {
        sendEvent(QStringLiteral("heard"), QVariantMap{{QStringLiteral("type"), type}, {QStringLiteral("value"), info}});
    }

private:
    int setDataCalls = 0;
};

namespace {
const int registered = Kest::registerClass<EchoNode>();
}

#include "testnodes.moc"
