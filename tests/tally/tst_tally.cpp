// The tally units that need no peer: the Tally Arbiter listener's message handling (fed
// directly), the serial light's frames and its stale-lock removal.

#include "tally/eventrecorder.h"
#include "tally/kesttallyarbiter.h"
#include "tally/serialframe.h"
#include "tally/stalelocks.h"

#include "json.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

#include <climits>

#include <sys/stat.h>

namespace {

const QString kBusOptions = QStringLiteral(
    R"(["bus_options",[{"id":"b1","label":"Program","type":"program","color":"#ff0000","priority":200},{"id":"b2","label":"Preview","type":"preview","color":"#00ff00","priority":50}]])");
const QString kDevices = QStringLiteral(R"(["devices",[{"id":"dev1","name":"Camera 1"},{"id":"dev2","name":"Camera 2"},{"id":7,"name":"Numbered"}]])");
const QString kProgram = QStringLiteral(R"(["device_states",[{"busId":"b1","deviceId":"dev1","sources":["ds1"]}]])");

QString states(const char *list) { return QStringLiteral(R"(["device_states",%1])").arg(QLatin1String(list)); }

} // namespace

// Bodies outside the class: moc misreads some of the raw strings in the tables.
class TestTally : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void colours_data();
    void colours();
    void commands_data();
    void commands();
    void flashIsTenStepsWhiteFirst();
    void serialFrames();
    void staleLocks_data();
    void staleLocks();
};

// Messages in turn (a JSON object: settings instead), then the colours sent to the host.
void TestTally::colours_data()
{
    QTest::addColumn<QStringList>("messages");
    QTest::addColumn<QString>("colours");
    QTest::newRow("bus colour, once per message") << QStringList{kBusOptions, kProgram, kProgram} << "#ff0000 #ff0000";
    QTest::newRow("first active state wins, whatever the bus kind")
        << QStringList{kBusOptions, states(R"([{"busId":"b2","sources":["s"]},{"busId":"b1","sources":["s"]}])")} << "#00ff00";
    QTest::newRow("states without sources, not maps or of unknown buses are skipped")
        << QStringList{kBusOptions, states(R"([{"busId":"b2","sources":[]},{"busId":"b2"},5,{"busId":"b9","sources":["s"]},{"busId":"b1","sources":["s"]}])")} << "#ff0000";
    QTest::newRow("no states: dark") << QStringList{kBusOptions, states("[]")} << "#000000";
    QTest::newRow("ignored: states not a list, not JSON, other events")
        << QStringList{kBusOptions, states("5"), R"(["device_states",[{"busId":"b1")", R"(["version","3.3.0"])", R"(["error","x"])"} << "";
    const QString both = states(R"([{"busId":"b2","deviceId":"dev1","sources":["s"]},{"busId":"b1","deviceId":"dev1","sources":["s"]}])");
    QTest::newRow("busPriority: program beats preview") << QStringList{R"({"busPriority":true})", kBusOptions, both} << "#ff0000";
    QTest::newRow("busPriority: ties keep the server's order, no priority ranks last")
        << QStringList{R"({"busPriority":true})", kBusOptions, R"(["bus_options",[{"id":"b3","color":"#0000ff","priority":200},{"id":"b4","color":"#ffff00"}]])",
                       states(R"([{"busId":"b4","sources":["s"]},{"busId":"b3","sources":["s"]},{"busId":"b1","sources":["s"]}])")}
        << "#0000ff";
    QTest::newRow("followReassign: only the followed device's states, and those without a device")
        << QStringList{R"({"followReassign":true,"deviceId":"dev1"})", kBusOptions, states(R"([{"busId":"b1","deviceId":"dev2","sources":["s"]}])"),
                       states(R"([{"busId":"b1","deviceId":"dev2","sources":["s"]},{"busId":"b2","deviceId":"dev1","sources":[]}])"),
                       states(R"([{"busId":"b2","sources":["s"]}])")}
        << "#000000 #00ff00";
}

void TestTally::colours()
{
    QFETCH(QStringList, messages);
    KestTallyArbiter node;
    EventRecorder recorder(&node);
    for (const QString &message : messages)
        message.startsWith('{') ? node.data.insert(Json::decode(message).toMap()) : node.onNewMessage(message);
    QTEST(recorder.colours().join(' '), "colours");
    QCOMPARE(recorder.events.size(), recorder.colours().size());
}

// The device name comes from the last device list.
void TestTally::commands_data()
{
    QTest::addColumn<QString>("message");
    QTest::addColumn<QVariant>("deviceId"); // invalid: the command is ignored
    QTest::addColumn<QString>("deviceName");
    QTest::newRow("reassign, known device") << R"(["reassign","dev1","dev2","client-7"])" << QVariant("dev2") << "Camera 2";
    QTest::newRow("reassign, unknown device") << R"(["reassign","dev1","nope"])" << QVariant("nope") << "Unknow";
    QTest::newRow("reassign, numeric ids") << R"(["reassign",1,7])" << QVariant(7.0) << "Numbered";
    QTest::newRow("flash without argument: ignored") << R"(["flash"])" << QVariant() << "";
}

void TestTally::commands()
{
    QFETCH(QString, message);
    QFETCH(QVariant, deviceId);
    QFETCH(QString, deviceName);
    KestTallyArbiter node;
    node.data[QStringLiteral("deviceId")] = QStringLiteral("dev1");
    node.onNewMessage(kDevices);
    node.onNewMessage(QStringLiteral(R"(["devices",5])")); // a list that is not one is ignored
    QCOMPARE(node.getDevices().toList().size(), 3);
    EventRecorder recorder(&node);
    node.onNewMessage(message);
    QTest::qWait(deviceId.isValid() ? 0 : 250); // a flash would have shown its first colour by now
    QCOMPARE(node.data.value(QStringLiteral("deviceId")), deviceId.isValid() ? deviceId : QVariant("dev1"));
    QCOMPARE(recorder.values(QStringLiteral("TA_reassign")), (deviceId.isValid() ? QVariantList{QVariantMap{{"deviceId", deviceId}, {"deviceName", deviceName}}} : QVariantList()));
    QTRY_COMPARE(recorder.colours(), deviceId.isValid() ? QStringList{"#ffffff"} : QStringList()); // a flash starts
}

// Ten steps, 100 ms apart from the command on; a flash during a flash starts over.
void TestTally::flashIsTenStepsWhiteFirst()
{
    KestTallyArbiter node;
    EventRecorder recorder(&node);
    node.onNewMessage(QStringLiteral(R"(["flash","dev1"])"));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 3, 5000);
    recorder.events.clear();
    const qint64 commandMs = recorder.clock.elapsed();
    node.onNewMessage(QStringLiteral(R"(["flash","dev1"])"));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 10, 5000);
    QVERIFY2(recorder.flashFault().isEmpty(), qPrintable(recorder.flashFault()));
    QVERIFY(recorder.events.first().atMs - commandMs >= 95 && recorder.events.last().atMs - commandMs >= 950);
    QTest::qWait(300); // the eleventh tick ends it: nothing more comes
    QCOMPARE(recorder.colours().size(), 10);
}

void TestTally::serialFrames()
{
    using namespace SerialTally;
    QCOMPARE(frame(kTallyCommand, tallyPayload({2, 1, 0})).toHex(), "01010204ff"); // state-2 mask, state-1 mask, sum, end
    QCOMPARE(frame(kTallyCommand, tallyPayload({1, 0, 0, 0, 0, 0, 0, 2, 2, 1})).toHex(), "01800182ff"); // input 7 the top bit, 8 on none
    QCOMPARE(frame(kTallyCommand, tallyPayload({3, -1, 1, "2"})).toHex(), "0108040dff"); // other values off, text a number
    // The unit number counted from 1, low 8 bits: 0 and INT_MIN wrap without overflow.
    QCOMPARE(frame(kIndexCommand, indexPayload(1)).toHex() + indexPayload(0).toHex() + indexPayload(INT_MIN).toHex(), "020002ffffff");
    QCOMPARE(QVector<bool>({checksumMatches(QByteArray::fromHex("01010204")), checksumMatches(QByteArray::fromHex("ff0201")),
                            checksumMatches(QByteArray::fromHex("01010205")), checksumMatches({})}),
             QVector<bool>({true, true, false, false}));
}

// In a private folder standing in for /tmp: "name/" a folder, "name@" a link to a folder
// elsewhere, "name|" a FIFO, anything else a file. Only a character device's lock files and
// links go; a value that names none removes nothing, whatever the names contain.
void TestTally::staleLocks_data()
{
    QTest::addColumn<QString>("uart");
    QTest::addColumn<QStringList>("removed");
    QTest::newRow("lock files and links of a character device") << "/dev/null" << QStringList{"LCK..null", "null-link", "null.lock"};
    for (const char *hostile : {"", "/dev/", "/dev/.", "/dev/s", "../../etc/passwd", "/dev/nul*", "/dev/null;", "/dev/null/"})
        QTest::newRow(hostile) << hostile << QStringList{};
}

void TestTally::staleLocks()
{
    QFETCH(QString, uart);
    QFETCH(QStringList, removed);
    QTemporaryDir scratch, elsewhere;
    QStringList entries;
    for (const QString &entry : QStringList{"LCK..null", "null.lock", "null-link@", "null.d/", "null.fifo|", ".LCK..null", "LCK..NULL", "passwd", "s"}) {
        const QString name = entry.endsWith('/') || entry.endsWith('@') || entry.endsWith('|') ? entry.chopped(1) : entry;
        const QString path = scratch.filePath(name);
        const bool made = entry.endsWith('/') ? QDir().mkdir(path)
                          : entry.endsWith('@') ? QFile::link(elsewhere.path(), path)
                          : entry.endsWith('|') ? ::mkfifo(QFile::encodeName(path).constData(), 0600) == 0
                                                : QFile(path).open(QIODevice::WriteOnly);
        QVERIFY2(made, qPrintable(entry));
        if (!removed.contains(name))
            entries << name;
    }
    QCOMPARE(SerialTally::removeStaleLocks(scratch.path(), uart), removed.size());
    entries.sort();
    QCOMPARE(QDir(scratch.path()).entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name), entries);
    QVERIFY(QDir(elsewhere.path()).exists()); // what a link points to survives
}

QTEST_GUILESS_MAIN(TestTally)
#include "tst_tally.moc"
