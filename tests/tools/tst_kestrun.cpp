#include "catalogue.h"
#include "kestrunprocess.h"

#include <QJsonArray>
#include <QLibrary>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

#include <unistd.h>

namespace {

QString writeFile(const QTemporaryDir &dir, const QString &name, const QByteArray &content)
{
    const QString path = dir.filePath(name);
    QFile file(path);
    file.open(QIODevice::WriteOnly);
    file.write(content);
    return path;
}

const QString testNodes = QStringLiteral(TEST_NODES_PATH);

} // namespace

class TestKestRun : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void listShowsClassesWithSlots();
    void listNamesEveryClassOfThePlugin();
    void badGraphExitsTwo_data();
    void badGraphExitsTwo();
    void controlProtocol();
    void quitStopsEveryNode();
    void endOfInputKeepsRunningUntilSignal_data();
    void endOfInputKeepsRunningUntilSignal();

private:
    QTemporaryDir dir;
};

void TestKestRun::listShowsClassesWithSlots()
{
    QProcess run;
    startKestRun(run, {QStringLiteral("--list")});
    QVERIFY(run.waitForFinished(10000));
    QCOMPARE(run.exitCode(), 0);
    const QString out = QString::fromUtf8(run.readAllStandardOutput());
    QVERIFY2(out.contains(QStringLiteral("KestIntercomServer\n    onStart()\n    onStop()\n    onRead()\n    onTimerAlive()\n")),
             qPrintable(out));
}

void TestKestRun::listNamesEveryClassOfThePlugin()
{
    // The classes the plug-in registers when this process loads it...
    QLibrary library(QStringLiteral(KEST_LIBRARY_PATH));
    QVERIFY2(library.load(), qPrintable(library.errorString()));
    const QStringList registered = nodeClassNames();
    QVERIFY(!registered.isEmpty());

    // ...are all listed by kest-run, which finds the plug-in itself (next to it, in ../lib).
    QProcess run;
    startKestRun(run, {QStringLiteral("--list")});
    QVERIFY(run.waitForFinished(10000));
    QCOMPARE(run.exitCode(), 0);
    QStringList listed;
    for (const QString &line : QString::fromUtf8(run.readAllStandardOutput()).split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        if (!line.startsWith(QLatin1Char(' ')))
            listed << line;
    for (const QString &name : registered)
        QVERIFY2(listed.contains(name), qPrintable(name + QStringLiteral(" is missing from: ") + listed.join(QLatin1Char(' '))));
}

void TestKestRun::badGraphExitsTwo_data()
{
    QTest::addColumn<QByteArray>("graph");
    QTest::addColumn<QString>("message");
    QTest::newRow("unreadable file") << QByteArray() << QStringLiteral("cannot read graph");
    QTest::newRow("invalid JSON") << QByteArray("{\"nodes\": [") << QStringLiteral("invalid JSON");
    QTest::newRow("not an object") << QByteArray("[]") << QStringLiteral("must be a JSON object");
    QTest::newRow("nodes not a list") << QByteArray("{\"nodes\": 3}") << QStringLiteral("\"nodes\" must be a list");
    QTest::newRow("node without name") << QByteArray("{\"nodes\":[{\"class\":\"EchoNode\"}]}") << QStringLiteral("node 1 has no \"name\"");
    QTest::newRow("unknown class lists the others")
        << QByteArray("{\"nodes\":[{\"name\":\"a\",\"class\":\"Nope\"}]}")
        << QStringLiteral("unknown class \"Nope\" for node \"a\"; available classes: EchoNode, EsSink, EsSource, PcmSink, PcmSource");
    QTest::newRow("duplicate name")
        << QByteArray("{\"nodes\":[{\"name\":\"a\",\"class\":\"EchoNode\"},{\"name\":\"a\",\"class\":\"EchoNode\"}]}")
        << QStringLiteral("duplicate node name \"a\"");
    QTest::newRow("link to a missing node")
        << QByteArray("{\"nodes\":[{\"name\":\"a\",\"class\":\"EchoNode\"}],\"links\":[{\"from\":\"a\",\"to\":\"ghost\"}]}")
        << QStringLiteral("link 1 refers to a missing node \"ghost\"");
    QTest::newRow("bad media")
        << QByteArray("{\"nodes\":[{\"name\":\"a\",\"class\":\"EchoNode\"}],\"links\":[{\"from\":\"a\",\"to\":\"a\",\"media\":\"smell\"}]}")
        << QStringLiteral("link 1 has media \"smell\"");
}

void TestKestRun::badGraphExitsTwo()
{
    QFETCH(QByteArray, graph);
    QFETCH(QString, message);
    const QString path = graph.isEmpty() ? dir.filePath(QStringLiteral("missing.json"))
                                         : writeFile(dir, QStringLiteral("bad.json"), graph);
    QProcess run;
    startKestRun(run, {QStringLiteral("--lib"), testNodes, path});
    QVERIFY(run.waitForFinished(10000));
    QCOMPARE(run.exitStatus(), QProcess::NormalExit);
    QCOMPARE(run.exitCode(), 2);
    const QString err = QString::fromUtf8(run.readAllStandardError());
    QVERIFY2(err.contains(message), qPrintable(err));
    QCOMPARE(err.count(QLatin1Char('\n')), 1); // one clear message
    QVERIFY(run.readAllStandardOutput().isEmpty());
}

void TestKestRun::controlProtocol()
{
    const QString graph = writeFile(dir, QStringLiteral("echo.json"), R"json({
        "nodes": [
            {"name": "a", "class": "EchoNode", "data": {"k": 1, "source": "%MACHINE% (cam)", "nested": {"l": [2, "%MACHINE%"]}}},
            {"name": "b", "class": "EchoNode"},
            {"name": "idle", "class": "EchoNode", "start": false}
        ],
        "links": [{"from": "a", "to": "b", "media": "audio"}]
    })json");
    KestRun run;
    QVERIFY(run.start({QStringLiteral("--lib"), testNodes, graph}));

    // Nodes start in order, after linking (a's event reaches b); "idle" does not start.
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"a","event":"started","value":"a"})"));
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"b","event":"heard","value":{"type":"started","value":"a"}})"));
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"b","event":"started","value":"b"})"));

    run.send(R"({"node":"a","call":"add","args":[2,3]})");
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"a","call":"add","result":5})"));
    run.send(R"({"node":"a","call":"echo","args":[{"m":[1,"x",true,null]}]})");
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"a","call":"echo","result":{"m":[1,"x",true,null]}})"));
    run.send(R"({"node":"a","call":"bytes","args":["AZ\n"]})");
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"a","call":"bytes","result":"415a0a"})"));
    run.send(R"({"node":"a","call":"emitEvent","args":["x",1]})"); // a void slot answers null
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"a","event":"x","value":1})"));
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"b","event":"heard","value":{"type":"x","value":1}})"));
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"a","call":"emitEvent","result":null})"));
    run.send(R"({"node":"idle","call":"running"})");
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"idle","call":"running","result":false})"));

    // "%MACHINE%" in a setting is the host name in upper case, NDI's machine part of source names.
    char host[256] = {};
    QCOMPARE(::gethostname(host, sizeof(host) - 1), 0);
    const QString machine = QString::fromLatin1(host).toUpper();
    run.send(R"({"node":"a","call":"setting","args":["source"]})");
    QCOMPARE(run.nextObject().value(QLatin1String("result")).toString(), machine + QStringLiteral(" (cam)"));
    run.send(R"({"node":"a","call":"setting","args":["nested"]})");
    QCOMPARE(run.nextObject().value(QLatin1String("result")).toObject(),
             (QJsonObject{{"l", QJsonArray{2, machine}}}));

    // Errors name the problem and the run goes on.
    run.send("this is not json");
    QVERIFY(run.nextObject().value(QLatin1String("error")).toString().startsWith(QLatin1String("invalid JSON")));
    run.send(R"({"node":"ghost","call":"echo","args":[1]})");
    QCOMPARE(run.nextObject().value(QLatin1String("error")).toString(), QStringLiteral("unknown node \"ghost\""));
    run.send(R"({"node":"a","call":"fly"})");
    QCOMPARE(run.nextObject().value(QLatin1String("error")).toString(), QStringLiteral("node \"a\" has no slot \"fly\""));
    run.send(R"({"node":"a","call":"add","args":[1]})");
    QVERIFY(run.nextObject().value(QLatin1String("error")).toString().contains(QLatin1String("different number of arguments")));
    run.send(R"({"node":"a","call":"add","args":[[1],2]})");
    QVERIFY(run.nextObject().value(QLatin1String("error")).toString().contains(QLatin1String("cannot be given as int")));
    run.send(R"({"node":"a","call":"echo","args":"x"})");
    QCOMPARE(run.nextObject().value(QLatin1String("error")).toString(), QStringLiteral("\"args\" must be a list"));
    run.send(R"({"node":"a"})");
    QVERIFY(run.nextObject().contains(QLatin1String("error")));

    // "set" merges and calls onSetData; the graph's data counted as the first call.
    run.send(R"({"node":"a","set":{"k":2,"extra":"e"}})");
    run.send(R"({"node":"a","call":"setting","args":["k"]})");
    QCOMPARE(run.nextObject().value(QLatin1String("result")).toInt(), 2);
    run.send(R"({"node":"a","call":"setDataCount"})");
    QCOMPARE(run.nextObject().value(QLatin1String("result")).toInt(), 2);

    // "event" reaches onNewEvent of the named node only.
    run.send(R"({"node":"b","event":{"type":"TALLY","value":[1,0]}})");
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"b","event":"heard","value":{"type":"TALLY","value":[1,0]}})"));

    // stop and start.
    run.send(R"({"node":"a","stop":true})");
    run.send(R"({"node":"a","call":"running"})");
    QCOMPARE(run.nextObject().value(QLatin1String("result")).toBool(), false);
    run.send(R"({"node":"a","start":true})");
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"a","event":"started","value":"a"})"));
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"b","event":"heard","value":{"type":"started","value":"a"}})"));
    run.send(R"({"node":"a","call":"running"})");
    QCOMPARE(run.nextObject().value(QLatin1String("result")).toBool(), true);

    run.send(R"({"quit":true})");
    QVERIFY(run.process.waitForFinished(5000));
    QCOMPARE(run.process.exitCode(), 0);
}

void TestKestRun::quitStopsEveryNode()
{
    const QString stopFile = dir.filePath(QStringLiteral("stops-quit.txt"));
    const QString graph = writeFile(dir, QStringLiteral("quit.json"),
                                    QStringLiteral(R"({"nodes":[{"name":"first","class":"EchoNode","data":{"stop_file":"%1"}},
                                                   {"name":"second","class":"EchoNode","data":{"stop_file":"%1"},"start":false}]})")
                                        .arg(stopFile)
                                        .toUtf8());
    KestRun run;
    QVERIFY(run.start({QStringLiteral("--lib"), testNodes, graph}));
    QVERIFY(!run.nextLine().isEmpty());
    run.send(R"({"quit":true})");
    QVERIFY(run.process.waitForFinished(5000));
    QCOMPARE(run.process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(run.process.exitCode(), 0);
    QFile file(stopFile);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("second stopped\nfirst stopped\n"));
}

void TestKestRun::endOfInputKeepsRunningUntilSignal_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("SIGTERM") << int(SIGTERM);
    QTest::newRow("SIGINT") << int(SIGINT);
}

void TestKestRun::endOfInputKeepsRunningUntilSignal()
{
    QFETCH(int, signalNumber);
    const QString stopFile = dir.filePath(QStringLiteral("stops-%1.txt").arg(signalNumber));
    const QString graph = writeFile(dir, QStringLiteral("signal.json"),
                                    QStringLiteral(R"({"nodes":[{"name":"n","class":"EchoNode","data":{"stop_file":"%1"}}]})")
                                        .arg(stopFile)
                                        .toUtf8());
    KestRun run;
    QVERIFY(run.start({QStringLiteral("--lib"), testNodes, graph}));
    QVERIFY(!run.nextLine().isEmpty());
    run.send(R"({"node":"n","call":"echo","args":["last words"]})"); // no newline needed at the end
    run.process.closeWriteChannel();
    QCOMPARE(run.nextObject().value(QLatin1String("result")).toString(), QStringLiteral("last words"));
    QVERIFY(!run.process.waitForFinished(300));
    QCOMPARE(run.process.state(), QProcess::Running);

    ::kill(pid_t(run.process.processId()), signalNumber);
    QVERIFY(run.process.waitForFinished(5000));
    QCOMPARE(run.process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(run.process.exitCode(), 0);
    QFile file(stopFile);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("n stopped\n"));
}

QTEST_GUILESS_MAIN(TestKestRun)
#include "tst_kestrun.moc"
