// kest-run as a subprocess: the class list, graph errors, the control protocol and how it ends.

#include "catalogue.h"
#include "kestrunprocess.h"

#include <QJsonArray>
#include <QLibrary>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>

#include <unistd.h>

namespace {

const QString testNodes = QStringLiteral(TEST_NODES_PATH);

QString writeFile(const QTemporaryDir &dir, const QString &name, const QByteArray &content)
{
    QFile file(dir.filePath(name));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        return {};
    return file.fileName();
}

QString error(KestRun &run, int timeoutMs = 5000)
{
    return run.nextObject(timeoutMs).value(QLatin1String("error")).toString();
}

} // namespace

class TestKestRun : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void listShowsEveryClassWithItsSlots();
    void badGraphExitsTwo_data();
    void badGraphExitsTwo();
    void controlProtocol();
    void hostileLinesAreAnswered();
    void quitOrSignalStopsEveryNode_data();
    void quitOrSignalStopsEveryNode();

private:
    QTemporaryDir dir;
};

void TestKestRun::listShowsEveryClassWithItsSlots()
{
    // The classes the plug-in registers when this process loads it...
    QLibrary library(QStringLiteral(KEST_LIBRARY_PATH));
    QVERIFY2(library.load(), qPrintable(library.errorString()));
    const QStringList registered = nodeClassNames();
    QVERIFY(registered.contains(QStringLiteral("KestIntercomServer")));

    // ...are all listed by kest-run, which finds the plug-in itself (next to it, in ../lib).
    QProcess run;
    startKestRun(run, {QStringLiteral("--list")});
    QVERIFY(run.waitForFinished(10000));
    QCOMPARE(run.exitCode(), 0);
    const QString out = QString::fromUtf8(run.readAllStandardOutput());
    QVERIFY2(out.contains(QStringLiteral("KestIntercomServer\n    onStart()\n    onStop()\n    onRead()\n    onTimerAlive()\n")),
             qPrintable(out));
    for (const QString &name : registered)
        QVERIFY2(out.contains(QLatin1Char('\n') + name + QLatin1Char('\n')) || out.startsWith(name + QLatin1Char('\n')),
                 qPrintable(name + QStringLiteral(" is missing")));
}

void TestKestRun::badGraphExitsTwo_data()
{
    QTest::addColumn<QByteArray>("graph");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QString>("library");
    QTest::newRow("unreadable file") << QByteArray() << "cannot read graph" << QString();
    QTest::newRow("invalid JSON") << QByteArray("{\"nodes\": [") << "invalid JSON" << QString();
    QTest::newRow("unknown class lists the others") << QByteArray(R"({"nodes":[{"name":"a","class":"Nope"}]})")
                                                    << "unknown class \"Nope\" for node \"a\"; available classes: EchoNode, EsSink, EsSource, PcmSink, PcmSource" << QString();
    QTest::newRow("duplicate name") << QByteArray(R"({"nodes":[{"name":"a","class":"EchoNode"},{"name":"a","class":"EchoNode"}]})")
                                    << "duplicate node name \"a\"" << QString();
    QTest::newRow("link to a missing node") << QByteArray(R"({"nodes":[{"name":"a","class":"EchoNode"}],"links":[{"from":"a","to":"ghost"}]})")
                                            << "link 1 refers to a missing node \"ghost\"" << QString();
    QTest::newRow("bad media") << QByteArray(R"({"nodes":[{"name":"a","class":"EchoNode"}],"links":[{"from":"a","to":"a","media":"smell"}]})")
                               << "link 1 has media \"smell\"" << QString();
    QTest::newRow("node linked to itself") << QByteArray(R"({"nodes":[{"name":"a","class":"EchoNode"}],"links":[{"from":"a","to":"a","media":"audio"}]})")
                                           << "the links form a cycle for audio: \"a\" -> \"a\"" << QString();
    QTest::newRow("two-node cycle") << QByteArray(R"({"nodes":[{"name":"a","class":"EchoNode"},{"name":"b","class":"EchoNode"}],
                                                    "links":[{"from":"a","to":"b","media":"video"},{"from":"b","to":"a"}]})")
                                    << "the links form a cycle for video: \"a\" -> \"b\" -> \"a\"" << QString();
    QTest::newRow("library without nodes") << QByteArray(R"({"nodes":[]})") << "is not a plug-in of nodes" << KEST_HOST_LIBRARY_PATH;
}

void TestKestRun::badGraphExitsTwo()
{
    QFETCH(QByteArray, graph);
    QFETCH(QString, message);
    QFETCH(QString, library);
    const QString path = graph.isEmpty() ? dir.filePath(QStringLiteral("missing.json")) : writeFile(dir, QStringLiteral("bad.json"), graph);
    QProcess run;
    startKestRun(run, {QStringLiteral("--lib"), library.isEmpty() ? testNodes : library, path});
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
            {"name": "a", "class": "EchoNode", "data": {"k": [0], "k": 1, "source": "%MACHINE% (cam)", "nested": {"l": [2, "%MACHINE%"]}}},
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
    run.send(R"({"node":"idle","call":"running"})");
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"idle","call":"running","result":false})"));

    // Slots by name; values convert both ways, byte arrays become hex.
    run.send(R"({"node":"a","call":"add","args":{"x":[1]},"args":[2,3]})"); // a repeated key: the last
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"a","call":"add","result":5})"));
    run.send(R"({"node":"a","call":"echo","args":[{"m":[1,"x",true,null]}]})");
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"a","call":"echo","result":{"m":[1,"x",true,null]}})"));
    run.send(R"({"node":"a","call":"bytes","args":["AZ\n"]})");
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"a","call":"bytes","result":"415a0a"})"));
    run.send(R"({"node":"a","call":"emitEvent","args":["x",1]})"); // a void slot answers null
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"a","event":"x","value":1})"));
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"b","event":"heard","value":{"type":"x","value":1}})"));
    QCOMPARE(run.nextLine(), QByteArray(R"({"node":"a","call":"emitEvent","result":null})"));

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
    QVERIFY(error(run).startsWith(QLatin1String("invalid JSON")));
    run.send(R"({"node":"ghost","call":"echo","args":[1]})");
    QCOMPARE(error(run), QStringLiteral("unknown node \"ghost\""));
    run.send(R"({"node":"a","call":"fly"})");
    QCOMPARE(error(run), QStringLiteral("node \"a\" has no slot \"fly\""));
    run.send(R"({"node":"a","call":"add","args":[[1],2]})");
    QVERIFY(error(run).contains(QLatin1String("cannot be given as int")));
    run.send(R"({"node":"a","call":"echo","args":"x"})");
    QCOMPARE(error(run), QStringLiteral("\"args\" must be a list"));
    run.send(R"({"node":"a"})");
    QVERIFY(!error(run).isEmpty());

    // "set" merges and calls onSetData; the graph's data counted as the first call (its
    // repeated key "k" gave the last value).
    run.send(R"({"node":"a","call":"setting","args":["k"]})");
    QCOMPARE(run.nextObject().value(QLatin1String("result")).toInt(), 1);
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
}

void TestKestRun::hostileLinesAreAnswered()
{
    // Links that make a loop for events only (audio one way, video back) are allowed; each
    // node hears the event at most once per delivery.
    const QString graph = writeFile(dir, QStringLiteral("loop.json"), R"json({
        "nodes": [{"name": "a", "class": "EchoNode"}, {"name": "b", "class": "EchoNode"}],
        "links": [{"from": "a", "to": "b", "media": "audio"}, {"from": "b", "to": "a", "media": "video"}]})json");
    KestRun run;
    QVERIFY(run.start({QStringLiteral("--lib"), testNodes, graph}));
    const auto heardUntilQuiet = [&run] {
        int heard = 0;
        for (QByteArray line; !(line = run.nextLine(1000)).isEmpty();)
            heard += line.contains("heard") ? 1 : 0;
        return heard;
    };
    QVERIFY(heardUntilQuiet() > 0); // the start events of both went round
    run.send(R"({"node":"a","call":"deleteLater"})");
    QCOMPARE(error(run), QStringLiteral("node \"a\" has no slot \"deleteLater\""));
    run.send(R"({"node":"a","call":"destroyed","args":[null]})");
    QCOMPARE(error(run), QStringLiteral("node \"a\" has no slot \"destroyed\""));

    run.send(R"({"node":"a","event":{"type":"T","value":1}})");
    const int heard = heardUntilQuiet();
    QVERIFY2(heard > 0 && heard < 10, qPrintable(QString::number(heard)));

    // A line longer than 16 MiB is refused whole; the next one is read as usual.
    run.process.write(QByteArray(17 * 1024 * 1024, ' ') + R"({"node":"a","call":"echo","args":[1]})" + '\n');
    QCOMPARE(error(run, 20000), QStringLiteral("line too long"));
    run.send(R"({"node":"a","call":"echo","args":[2]})");
    QCOMPARE(run.nextObject().value(QLatin1String("result")).toInt(), 2);
    run.send(R"({"quit":true})");
    QVERIFY(run.process.waitForFinished(5000));
    QCOMPARE(run.process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(run.process.exitCode(), 0);
}

void TestKestRun::quitOrSignalStopsEveryNode_data()
{
    QTest::addColumn<int>("signalNumber"); // 0: {"quit":true}
    QTest::newRow("quit") << 0;
    QTest::newRow("SIGTERM") << int(SIGTERM);
    QTest::newRow("SIGINT") << int(SIGINT);
}

void TestKestRun::quitOrSignalStopsEveryNode()
{
    QFETCH(int, signalNumber);
    const QString stopFile = dir.filePath(QStringLiteral("stops-%1.txt").arg(signalNumber));
    const QString graph = writeFile(dir, QStringLiteral("stop.json"),
                                    QStringLiteral(R"({"nodes":[{"name":"first","class":"EchoNode","data":{"stop_file":"%1"}},
                                                   {"name":"second","class":"EchoNode","data":{"stop_file":"%1"},"start":false}]})")
                                        .arg(stopFile).toUtf8());
    KestRun run;
    QVERIFY(run.start({QStringLiteral("--lib"), testNodes, graph}));
    QVERIFY(!run.nextLine().isEmpty());
    if (signalNumber == 0) {
        run.send(R"({"quit":true})");
    } else {
        // The end of the input does not end the run: a line without its newline still counts.
        run.process.write(R"({"node":"first","call":"echo","args":["last words"]})");
        run.process.closeWriteChannel();
        QCOMPARE(run.nextObject().value(QLatin1String("result")).toString(), QStringLiteral("last words"));
        QVERIFY(!run.process.waitForFinished(300));
        ::kill(pid_t(run.process.processId()), signalNumber);
    }
    QVERIFY(run.process.waitForFinished(5000));
    QCOMPARE(run.process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(run.process.exitCode(), 0);
    QFile file(stopFile);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QByteArray("second stopped\nfirst stopped\n"));
}

QTEST_GUILESS_MAIN(TestKestRun)
#include "tst_kestrun.moc"
