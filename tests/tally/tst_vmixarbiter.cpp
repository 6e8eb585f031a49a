// KestVMix against a real peer: the vMix TCP emulator of a Tally Arbiter server on
// 127.0.0.1:8099, driven through the server's incoming webhook. Run it in a private network
// namespace (the server's ports are fixed).

#include "kestrunprocess.h"
#include "logcapture.h"

#include "tally/kestvmix.h"

#include <QNetworkAccessManager>
#include <QNetworkProxy>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QProcess>
#include <QScopeGuard>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <memory>

namespace {

constexpr int kEmulatorPort = 8099;
const QUrl kWebhook(QStringLiteral("http://127.0.0.1:4456/tally"));

} // namespace

class TestVMixArbiter : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void init();
    void cleanup();
    void tallyFollowsTheSwitcher();
    void serverRestartGetsANewSubscription();
    void exampleUnderKestRun();

private:
    bool startServer(QString *error);
    void stopServer();
    // Sets the buses of the two cameras, e.g. {"1":["program"],"2":["preview"]}.
    bool post(const QByteArray &json);
    QList<QVariantList> events() const;
    // Posts `json` until the node reports `expected`: the server only reports changes to
    // subscribers, and the subscription is answered asynchronously.
    bool postUntil(const QByteArray &json, const QVariantList &expected);

    QTemporaryDir runDir;
    QNetworkAccessManager http;
    std::unique_ptr<KestVMix> node;
    std::unique_ptr<QSignalSpy> spy;
};

bool TestVMixArbiter::startServer(QString *error)
{
    QProcess start;
    start.start(QStringLiteral(KEST_PEERS_DIR "/start-ta.sh"), {runDir.path()});
    if (!start.waitForFinished(60000)) {
        start.kill();
        *error = QStringLiteral("start-ta.sh did not finish");
        return false;
    }
    if (start.exitCode() == 77) {
        *error = QStringLiteral("skip");
        return false;
    }
    if (start.exitStatus() != QProcess::NormalExit || start.exitCode() != 0) {
        *error = QString::fromLocal8Bit(start.readAllStandardError());
        return false;
    }
    return true;
}

void TestVMixArbiter::stopServer()
{
    QProcess::execute(QStringLiteral(KEST_PEERS_DIR "/stop-ta.sh"), {runDir.path()});
}

void TestVMixArbiter::initTestCase()
{
    QVERIFY(runDir.isValid());
    http.setProxy(QNetworkProxy::NoProxy);
    QString error;
    if (!startServer(&error)) {
        if (error == QLatin1String("skip"))
            QSKIP("Node.js is too old for Tally Arbiter (it needs 20.19 or later)");
        QFAIL(qPrintable(QStringLiteral("Tally Arbiter did not start (run this test in a private network namespace): ") + error));
    }
}

void TestVMixArbiter::cleanupTestCase()
{
    stopServer();
}

void TestVMixArbiter::init()
{
    node = std::make_unique<KestVMix>();
    node->setName(QStringLiteral("vmix1"));
    spy = std::make_unique<QSignalSpy>(node.get(), &KestObject::eventSent);
}

void TestVMixArbiter::cleanup()
{
    spy.reset();
    node.reset();
}

bool TestVMixArbiter::post(const QByteArray &json)
{
    QNetworkRequest request(kWebhook);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    QNetworkReply *reply = http.post(request, json);
    QSignalSpy finished(reply, &QNetworkReply::finished);
    const bool done = finished.wait(5000);
    const bool ok = done && reply->error() == QNetworkReply::NoError;
    reply->deleteLater();
    return ok;
}

QList<QVariantList> TestVMixArbiter::events() const
{
    QList<QVariantList> out;
    for (const QList<QVariant> &e : *spy)
        if (e.at(0).toString() == QLatin1String("TALLY"))
            out << e.at(1).toList();
    return out;
}

bool TestVMixArbiter::postUntil(const QByteArray &json, const QVariantList &expected)
{
    for (int attempt = 0; attempt < 25; ++attempt) {
        if (!post(json))
            return false;
        if (QTest::qWaitFor([&] { return events().contains(expected); }, 200))
            return true;
    }
    return false;
}

void TestVMixArbiter::tallyFollowsTheSwitcher()
{
    node->setData({{QStringLiteral("ip"), QStringLiteral("127.0.0.1")}, {QStringLiteral("port"), kEmulatorPort}});
    QVERIFY(!node->findChild<QTimer *>()->isActive()); // connected on the first attempt
    QVERIFY(postUntil(R"({"1":["program"],"2":["preview"]})", {1, 2}));

    // The server reports once per camera it re-evaluates, so the settled state is the last.
    const struct
    {
        QByteArray json;
        QVariantList tally;
    } steps[] = {
        {R"({"1":["preview","program"],"2":[]})", {1, 0}},
        {R"({"1":[],"2":["program"]})", {0, 1}},
        {R"({"1":["preview"],"2":["preview"]})", {2, 2}},
        {R"({"1":[],"2":[]})", {0, 0}},
    };
    for (const auto &step : steps) {
        spy->clear();
        QVERIFY(post(step.json));
        QTRY_COMPARE(events().isEmpty() ? QVariantList() : events().last(), step.tally);
    }
    for (const QVariantList &tally : events()) {
        QCOMPARE(tally.size(), 2);
        for (const QVariant &v : tally)
            QVERIFY(v.toInt() >= 0 && v.toInt() <= 2);
    }
}

void TestVMixArbiter::serverRestartGetsANewSubscription()
{
    LogCapture log;
    node->setData({{QStringLiteral("ip"), QStringLiteral("127.0.0.1")}, {QStringLiteral("port"), kEmulatorPort}});
    QVERIFY(postUntil(R"({"1":["program"],"2":[]})", {1, 0}));
    QTimer *timer = node->findChild<QTimer *>();

    stopServer();
    QTRY_VERIFY(timer->isActive());
    QCOMPARE(timer->interval(), 5000);
    QString error;
    QVERIFY2(startServer(&error), qPrintable(error));

    // The next tick, without waiting 5 s for it.
    spy->clear();
    QVERIFY(QMetaObject::invokeMethod(node.get(), "onTimer"));
    QVERIFY(!timer->isActive());
    // Fresh server state: only a new subscription brings the change back.
    QVERIFY(postUntil(R"({"1":[],"2":["program"]})", {0, 1}));
    QCOMPARE(log.lines().count(QStringLiteral("[vmix1] connected")), 2);
}

void TestVMixArbiter::exampleUnderKestRun()
{
    QProcess run;
    const auto stop = qScopeGuard([&run] {
        if (run.state() != QProcess::NotRunning) {
            run.kill(); // by PID, only after a failure
            run.waitForFinished();
        }
    });
    startKestRun(run, {QStringLiteral(KEST_SOURCE_DIR "/examples/vmix-tally.json")});
    QVERIFY(run.waitForStarted());
    QByteArray log;
    QVERIFY(QTest::qWaitFor([&] {
        log += run.readAllStandardError();
        return log.contains("[vmix] connected");
    }, 10000));

    QByteArray output;
    bool seen = false;
    for (int attempt = 0; attempt < 25 && !seen; ++attempt) {
        QVERIFY(post(R"({"1":["preview"],"2":["program"]})"));
        seen = QTest::qWaitFor([&] {
            output += run.readAllStandardOutput();
            return output.contains(R"({"node":"vmix","event":"TALLY","value":[2,1]})");
        }, 200);
    }
    QVERIFY2(seen, output.constData());
    run.write("{\"quit\":true}\n");
    QVERIFY(run.waitForFinished(10000));
    QCOMPARE(run.exitCode(), 0);
}

QTEST_GUILESS_MAIN(TestVMixArbiter)
#include "tst_vmixarbiter.moc"
