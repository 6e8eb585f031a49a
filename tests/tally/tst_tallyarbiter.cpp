// The Tally Arbiter listener's message handling, fed directly (no server).

#include "tally/eventrecorder.h"
#include "tally/kesttallyarbiter.h"

#include <QTest>

namespace {

const QString kBusOptions = QStringLiteral(
    R"(["bus_options",[{"id":"b1","label":"Program","type":"program","color":"#ff0000","priority":200},{"id":"b2","label":"Preview","type":"preview","color":"#00ff00","priority":50}]])");
const QString kDevices = QStringLiteral(
    R"(["devices",[{"id":"dev1","name":"Camera 1","enabled":true},{"id":"dev2","name":"Camera 2","enabled":true},{"id":7,"name":"Numbered"}]])");
const QString kProgram = QStringLiteral(R"(["device_states",[{"busId":"b1","deviceId":"dev1","sources":["ds1"]}]])");

} // namespace

class TestTallyArbiter : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void colours_data();
    void colours();
    void devices();
    void commands_data();
    void commands();
    void flashIsTenStepsWhiteFirst();
};

void TestTallyArbiter::colours_data()
{
    QTest::addColumn<QStringList>("messages");
    QTest::addColumn<QStringList>("colours");
    QTest::addColumn<QVariantMap>("settings");
    QTest::newRow("bus colour") << QStringList{kBusOptions, kProgram} << QStringList{"#ff0000"} << QVariantMap();
    QTest::newRow("first active state wins, whatever the bus kind")
        << QStringList{kBusOptions, R"(["device_states",[{"busId":"b2","sources":["s"]},{"busId":"b1","sources":["s"]}]])"}
        << QStringList{"#00ff00"} << QVariantMap();
    QTest::newRow("empty and missing sources are skipped")
        << QStringList{kBusOptions, R"(["device_states",[{"busId":"b2","sources":[]},{"busId":"b2"},{"busId":"b1","sources":["s"]}]])"}
        << QStringList{"#ff0000"} << QVariantMap();
    QTest::newRow("no states: dark") << QStringList{kBusOptions, R"(["device_states",[]])"} << QStringList{"#000000"} << QVariantMap();
    QTest::newRow("before any bus options: dark") << QStringList{kProgram} << QStringList{"#000000"} << QVariantMap();
    QTest::newRow("a later option replaces the colour")
        << QStringList{kBusOptions, R"(["bus_options",[{"id":"b1","color":"#0000ff"}]])", kProgram} << QStringList{"#0000ff"} << QVariantMap();
    QTest::newRow("repeated key: the last value") << QStringList{kBusOptions, R"(["device_states",[{"busId":[1],"busId":"b1","sources":["s"]}]])"}
                                                  << QStringList{"#ff0000"} << QVariantMap();
    QTest::newRow("repeated states repeat the colour") << QStringList{kBusOptions, kProgram, kProgram} << QStringList{"#ff0000", "#ff0000"} << QVariantMap();
    QString many = QStringLiteral(R"(["device_states",[)");
    while (many.size() < 1024 * 1024)
        many += QStringLiteral(R"({"busId":"b2","deviceId":"dev1","sources":[]},)");
    many += QStringLiteral(R"({"busId":"b1","sources":["s"]}]])");
    QTest::newRow("1 MB of states") << QStringList{kBusOptions, many} << QStringList{"#ff0000"} << QVariantMap();

    // Bad input: ignored, or skipped where one element of a list is bad.
    QTest::newRow("number instead of the state list") << QStringList{kBusOptions, R"(["device_states",5])"} << QStringList{} << QVariantMap();
    QTest::newRow("states that are not maps are skipped")
        << QStringList{kBusOptions, R"(["device_states",[5,"x",null,{"busId":"b1","sources":["s"]}]])"} << QStringList{"#ff0000"} << QVariantMap();
    QTest::newRow("map instead of a colour") << QStringList{R"(["bus_options",[{"id":"b1","color":{"r":255}}]])", kProgram}
                                             << QStringList{"#000000"} << QVariantMap();
    QTest::newRow("not JSON") << QStringList{kBusOptions, R"(["device_states",[{"busId":"b1")"} << QStringList{} << QVariantMap();
    QTest::newRow("text that was not UTF-8") << QStringList{kBusOptions, QString::fromUtf8("[\"device_states\xff\",[]]")} << QStringList{} << QVariantMap();
    QTest::newRow("empty") << QStringList{kBusOptions, ""} << QStringList{} << QVariantMap();
    QTest::newRow("other events") << QStringList{kBusOptions, R"(["version","3.3.0"])", R"(["error","Invalid Device Id"])"}
                                  << QStringList{} << QVariantMap();

    // Settings beyond the defaults.
    const QString both = R"(["device_states",[{"busId":"b2","deviceId":"dev1","sources":["s"]},{"busId":"b1","deviceId":"dev1","sources":["s"]}]])";
    const QVariantMap byPriority{{"busPriority", true}}, followed{{"followReassign", true}, {"deviceId", "dev1"}};
    QTest::newRow("busPriority: program beats preview") << QStringList{kBusOptions, both} << QStringList{"#ff0000"} << byPriority;
    QTest::newRow("busPriority: ties keep the server's order, no priority ranks last")
        << QStringList{kBusOptions, R"(["bus_options",[{"id":"b3","color":"#0000ff","priority":200},{"id":"b4","color":"#ffff00"}]])",
                       R"(["device_states",[{"busId":"b4","sources":["s"]},{"busId":"b3","sources":["s"]},{"busId":"b1","sources":["s"]}]])"}
        << QStringList{"#0000ff"} << byPriority;
    QTest::newRow("by default another device's states count")
        << QStringList{kBusOptions, R"(["device_states",[{"busId":"b1","deviceId":"dev2","sources":["s"]}]])"} << QStringList{"#ff0000"} << QVariantMap{};
    QTest::newRow("followReassign: only the followed device's states, and those without a device")
        << QStringList{kBusOptions, R"(["device_states",[{"busId":"b1","deviceId":"dev2","sources":["s"]}]])",
                       R"(["device_states",[{"busId":"b1","deviceId":"dev2","sources":["s"]},{"busId":"b2","deviceId":"dev1","sources":[]}]])",
                       R"(["device_states",[{"busId":"b2","sources":["s"]}]])"}
        << QStringList{"#000000", "#00ff00"} << followed;
}

void TestTallyArbiter::colours()
{
    QFETCH(QStringList, messages);
    QFETCH(QVariantMap, settings);
    KestTallyArbiter node;
    node.data.insert(settings);
    EventRecorder recorder(&node);
    for (const QString &message : messages)
        node.onNewMessage(message);
    QTEST(recorder.colours(), "colours");
    QCOMPARE(recorder.events.size(), recorder.colours().size());
}

void TestTallyArbiter::devices()
{
    KestTallyArbiter node;
    const auto names = [&node] {
        QVariant devices;
        QMetaObject::invokeMethod(&node, "getDevices", Q_RETURN_ARG(QVariant, devices));
        QStringList list;
        for (const QVariant &device : devices.toList())
            list << device.toMap().value(QStringLiteral("name")).toString();
        return list;
    };
    node.onNewMessage(kDevices);
    node.onNewMessage(QStringLiteral(R"(["devices",5])")); // a number or a map is ignored
    node.onNewMessage(QStringLiteral(R"(["devices",{"id":"dev9"}])"));
    QCOMPARE(names(), (QStringList{"Camera 1", "Camera 2", "Numbered"}));
    node.onNewMessage(QStringLiteral(R"(["devices",[{"id":"dev9","name":"Nine"}]])"));
    QCOMPARE(names(), QStringList{"Nine"});
}

void TestTallyArbiter::commands_data()
{
    QTest::addColumn<QString>("message");
    QTest::addColumn<QVariant>("deviceId"); // invalid: the command is ignored
    QTest::addColumn<QString>("deviceName");
    QTest::newRow("reassign, known device") << R"(["reassign","dev1","dev2","client-7"])" << QVariant("dev2") << "Camera 2";
    QTest::newRow("reassign, unknown device") << R"(["reassign","dev1","nope"])" << QVariant("nope") << "Unknow";
    QTest::newRow("reassign, numeric ids") << R"(["reassign",1,7])" << QVariant(7.0) << "Numbered";
    QTest::newRow("reassign, one id only: ignored") << R"(["reassign","dev2"])" << QVariant() << "";
    QTest::newRow("reassign, maps as ids: ignored") << R"(["reassign",{"id":"dev1"},{"id":"dev2"}])" << QVariant() << "";
    QTest::newRow("flash without argument: ignored") << R"(["flash"])" << QVariant() << "";
}

void TestTallyArbiter::commands()
{
    QFETCH(QString, message);
    QFETCH(QVariant, deviceId);
    QFETCH(QString, deviceName);
    KestTallyArbiter node;
    node.data[QStringLiteral("deviceId")] = QStringLiteral("dev1");
    node.onNewMessage(kDevices);
    EventRecorder recorder(&node);
    node.onNewMessage(message);
    if (!deviceId.isValid()) {
        QTest::qWait(250); // a flash would have shown its first colours by now
        QVERIFY(recorder.events.isEmpty());
        QCOMPARE(node.data.value(QStringLiteral("deviceId")), QVariant("dev1"));
        return;
    }
    QCOMPARE(node.data.value(QStringLiteral("deviceId")), deviceId);
    QCOMPARE(recorder.values(QStringLiteral("TA_reassign")),
             (QVariantList{QVariantMap{{QStringLiteral("deviceId"), deviceId}, {QStringLiteral("deviceName"), deviceName}}}));
    QTRY_COMPARE(recorder.colours(), QStringList{"#ffffff"}); // a flash starts
}

void TestTallyArbiter::flashIsTenStepsWhiteFirst()
{
    KestTallyArbiter node;
    EventRecorder recorder(&node);
    node.onNewMessage(QStringLiteral(R"(["flash","dev1"])"));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 3, 5000);
    // A flash during a flash starts over.
    recorder.events.clear();
    const qint64 commandMs = recorder.clock.elapsed();
    node.onNewMessage(QStringLiteral(R"(["flash","dev1"])"));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 10, 5000);
    QVERIFY2(recorder.flashFault().isEmpty(), qPrintable(recorder.flashFault()));
    // Timed from the command: the tenth step is due 1 s later, and none comes early.
    QVERIFY(recorder.events.first().atMs - commandMs >= 95);
    QVERIFY(recorder.events.last().atMs - commandMs >= 950);
    QTest::qWait(300); // the eleventh tick ends it: nothing more comes
    QCOMPARE(recorder.colours().size(), 10);
}

QTEST_GUILESS_MAIN(TestTallyArbiter)
#include "tst_tallyarbiter.moc"
