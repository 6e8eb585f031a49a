// kest-run as a subprocess: its class list, and transcripts of whole runs against the test
// nodes: the control protocol, hostile input, refused graphs and the end of a run.

#include "kestrunprocess.h"

#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <unistd.h>

class TestKestRun : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void listsEveryClassWithItsSlots();
    void transcript_data();
    void transcript();

private:
    QTemporaryDir dir;
};

void TestKestRun::listsEveryClassWithItsSlots()
{
    // kest-run finds the plug-in by itself (next to it, in ../lib). The classes with its own host
    // nodes: the "unknown class" row.
    QProcess run;
    startKestRun(run, {QStringLiteral("--list")});
    QVERIFY(run.waitForFinished(10000));
    const QString out = QString::fromUtf8(run.readAllStandardOutput());
    QVERIFY2(run.exitCode() == 0 && out.contains("KestIntercomServer\n    onStart()\n    onStop()\n    onRead()\n    onTimerAlive()\n"), qPrintable(out));
}

void TestKestRun::transcript_data()
{
    // "> " a line of input, "< " a line of output (all of it, in order), "! N" signal N, and a
    // line starting "kest-run: " all that goes to stderr before kest-run exits with 2. The last
    // input line goes without its newline: the end of the input still delivers it.
    QTest::addColumn<QString>("library");
    QTest::addColumn<QByteArray>("graph"); // "": no file
    QTest::addColumn<QByteArray>("transcript");
    const QString nodes = QStringLiteral(TEST_NODES_PATH);
    const QByteArray one = R"({"nodes":[{"name":"a","class":"EchoNode"}]})";
    QTest::newRow("control protocol") << nodes << QByteArray(R"g({"nodes":[
        {"name":"a","class":"EchoNode","data":{"k":1}},{"name":"b","class":"EchoNode"}],
        "links":[{"from":"a","to":"b","media":"audio"}]})g") << QByteArray(R"t(
< {"node":"a","event":"started","value":"a"}
< {"node":"b","event":"heard","value":{"type":"started","value":"a"}}
< {"node":"b","event":"started","value":"b"}
> {"node":"a","call":"add","args":{"x":[1]},"args":[2,3]}
< {"node":"a","call":"add","result":5}
> {"node":"a","call":"echo","args":[{"m":[1,"x",true,null]}]}
< {"node":"a","call":"echo","result":{"m":[1,"x",true,null]}}
> {"node":"a","call":"bytes","args":["AZ\n"]}
< {"node":"a","call":"bytes","result":"415a0a"}
> {"node":"a","call":"emitEvent","args":["x",1]}
< {"node":"a","event":"x","value":1}
< {"node":"b","event":"heard","value":{"type":"x","value":1}}
< {"node":"a","call":"emitEvent","result":null}
> {"node":"a","set":{"k":2}}
> {"node":"a","call":"setting","args":["k"]}
< {"node":"a","call":"setting","result":2}
> {"node":"b","event":{"type":"TALLY","value":[1,0]}}
< {"node":"b","event":"heard","value":{"type":"TALLY","value":[1,0]}}
> {"node":"a","stop":true}
< {"node":"a","event":"stopped","value":"a"}
< {"node":"b","event":"heard","value":{"type":"stopped","value":"a"}}
> {"quit":true}
< {"node":"b","event":"stopped","value":"b"}
< {"node":"a","event":"stopped","value":"a"}
< {"node":"b","event":"heard","value":{"type":"stopped","value":"a"}}
)t");
    // QObject's own methods are no slots of a node; a line of more than 16 MiB is refused whole.
    for (int signal : {SIGTERM, SIGINT})
        QTest::addRow("signal %d stops every node", signal) << nodes << one << QByteArray(R"(
< {"node":"a","event":"started","value":"a"}
> {"node":"a","call":"deleteLater"}
< {"error":"node \"a\" has no slot \"deleteLater\""}
> %LONG%{"node":"a","call":"echo","args":[1]}
< {"error":"line too long"}
> {"node":"a","call":"echo","args":["last words"]}
< {"node":"a","call":"echo","result":"last words"}
! )" + QByteArray::number(signal) + R"(
< {"node":"a","event":"stopped","value":"a"}
)");
    // Events go round a loop of links (audio one way, video back) once per delivery: a delivery
    // never re-enters a node that is still handling one.
    QTest::newRow("loop of links") << nodes << QByteArray(R"({"nodes":[{"name":"a","class":"EchoNode"},{"name":"b","class":"EchoNode"}],
        "links":[{"from":"a","to":"b","media":"audio"},{"from":"b","to":"a","media":"video"}]})") << QByteArray(R"(
< {"node":"a","event":"started","value":"a"}
< {"node":"b","event":"heard","value":{"type":"started","value":"a"}}
< {"node":"a","event":"heard","value":{"type":"heard","value":{"type":"started","value":"a"}}}
< {"node":"b","event":"started","value":"b"}
< {"node":"a","event":"heard","value":{"type":"started","value":"b"}}
< {"node":"b","event":"heard","value":{"type":"heard","value":{"type":"started","value":"b"}}}
> {"quit":true}
< {"node":"b","event":"stopped","value":"b"}
< {"node":"a","event":"heard","value":{"type":"stopped","value":"b"}}
< {"node":"b","event":"heard","value":{"type":"heard","value":{"type":"stopped","value":"b"}}}
< {"node":"a","event":"stopped","value":"a"}
< {"node":"b","event":"heard","value":{"type":"stopped","value":"a"}}
< {"node":"a","event":"heard","value":{"type":"heard","value":{"type":"stopped","value":"a"}}}
)");
    // A cycle counts only links that carry its medium: none for audio here, one for video.
    QTest::newRow("two-node cycle") << nodes << QByteArray(R"({"nodes":[{"name":"a","class":"EchoNode"},{"name":"b","class":"EchoNode"}],
        "links":[{"from":"a","to":"b","media":"video"},{"from":"b","to":"a"}]})")
                                    << QByteArray(R"(kest-run: bad graph %GRAPH%: the links form a cycle for video: "a" -> "b" -> "a")");
    QTest::newRow("unknown class") << QStringLiteral(KEST_LIBRARY_PATH) << QByteArray(R"({"nodes":[{"name":"a","class":"Nope"}]})")
        << QByteArray(R"(kest-run: bad graph %GRAPH%: unknown class "Nope" for node "a"; available classes: EsSink, EsSource, KestIntercom, )"
                      "KestIntercomServer, KestNDIRecv, KestNDISend, KestTally, KestTallyArbiter, KestVMix, PcmSink, PcmSource");
    QTest::newRow("no graph file") << nodes << QByteArray() << QByteArray("kest-run: cannot read graph %GRAPH%: No such file or directory");
    QTest::newRow("library without nodes") << QStringLiteral(KEST_HOST_LIBRARY_PATH) << one
                                           << QByteArray("kest-run: %LIB% is not a plug-in of nodes: loading it registered no node class");
}

void TestKestRun::transcript()
{
    QFETCH(QString, library);
    QFETCH(QByteArray, graph);
    QFETCH(QByteArray, transcript);
    QFile file(dir.filePath(QStringLiteral("graph.json")));
    QFile::remove(file.fileName());
    QVERIFY(graph.isEmpty() || (file.open(QIODevice::WriteOnly) && file.write(graph) == graph.size()));
    file.close();
    transcript.replace("%GRAPH%", file.fileName().toUtf8());
    QByteArray input, output, error;
    int signal = 0, outputBeforeSignal = 0;
    for (const QByteArray &line : transcript.replace("%LIB%", library.toUtf8()).trimmed().split('\n')) {
        if (line.startsWith("! ")) {
            signal = line.mid(2).toInt();
            outputBeforeSignal = output.size();
        } else if (line.startsWith("kest-run: ")) {
            error += line + '\n';
        } else {
            (line.startsWith('>') ? input : output) += line.mid(2) + '\n';
        }
    }
    input.replace("%LONG%", QByteArray(17 << 20, ' '));
    QProcess run;
    startKestRun(run, {QStringLiteral("--lib"), library, file.fileName()});
    QVERIFY(run.waitForStarted(5000));
    run.write(input.left(input.size() - 1));
    run.closeWriteChannel();
    QByteArray out;
    if (signal) {
        QTRY_VERIFY_WITH_TIMEOUT((out += run.readAllStandardOutput()).size() >= outputBeforeSignal, 10000);
        ::kill(pid_t(run.processId()), signal);
    }
    QVERIFY(run.waitForFinished(30000));
    QCOMPARE(run.exitStatus(), QProcess::NormalExit);
    QCOMPARE(out + run.readAllStandardOutput(), output);
    QCOMPARE(run.exitCode(), error.isEmpty() ? 0 : 2);
    if (!error.isEmpty())
        QCOMPARE(run.readAllStandardError(), error);
}

QTEST_GUILESS_MAIN(TestKestRun)
#include "tst_kestrun.moc"
