#include "tally/eventrecorder.h"
#include "tally/kesttallyarbiter.h"

#include <QMetaMethod>
#include <QTest>

namespace {

const QString kBusOptions = QStringLiteral(
    R"(["bus_options",[{"id":"b1","label":"Program","type":"program","color":"#ff0000"},{"id":"b2","label":"Preview","type":"preview","color":"#00ff00"}]])");
const QString kDevices = QStringLiteral(
    R"(["devices",[{"id":"dev1","name":"Camera 1","enabled":true},{"id":"dev2","name":"Camera 2","enabled":true},{"id":7,"name":"Numbered"}]])");

} // namespace

class TestTallyArbiter : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void defaultsAndSurface();
    void colours_data();
    void colours();
    void devicesAreKept_data();
    void devicesAreKept();
    void reassign_data();
    void reassign();
    void flashIsTenStepsWhiteFirst();
    void flashAgainStartsOver();
    void flashWithoutArgumentIsIgnored();
};

void TestTallyArbiter::defaultsAndSurface()
{
    KestTallyArbiter node;
    QCOMPARE(node.data.value(QStringLiteral("ip")).toString(), QStringLiteral("127.0.0.1"));
    QCOMPARE(node.data.value(QStringLiteral("port")).toInt(), 4455);
    QCOMPARE(node.data.value(QStringLiteral("deviceId")).toString(), QString());
    QCOMPARE(node.data.value(QStringLiteral("typeName")).toString(), QStringLiteral("Encoder"));
    QCOMPARE(node.data.value(QStringLiteral("reconnect")).toBool(), false);
    QCOMPARE(node.typeName, QStringLiteral("share"));
    QCOMPARE(node.typeId, 2);

    // The host calls these by name, in this order after the base's.
    QStringList methods;
    const QMetaObject *mo = node.metaObject();
    for (int i = mo->methodOffset(); i < mo->methodCount(); ++i)
        methods << QString::fromLatin1(mo->method(i).methodSignature());
    QCOMPARE(methods, (QStringList{"onStart()", "onStop()", "onSetData(QVariantMap)", "onConnected()", "onDisconnected()",
                                   "onNewMessage(QString)", "getDevices()", "onTimerFlash()"}));
    QCOMPARE(mo->constructorCount(), 2);
}

void TestTallyArbiter::colours_data()
{
    QTest::addColumn<QStringList>("messages");
    QTest::addColumn<QStringList>("colours");

    const QString program = QStringLiteral(R"(["device_states",[{"busId":"b1","deviceId":"dev1","sources":["ds1"]}]])");
    QTest::newRow("bus colour") << QStringList{kBusOptions, program} << QStringList{"#ff0000"};
    QTest::newRow("first active state wins, whatever the bus kind")
        << QStringList{kBusOptions, R"(["device_states",[{"busId":"b2","sources":["s"]},{"busId":"b1","sources":["s"]}]])"}
        << QStringList{"#00ff00"};
    QTest::newRow("empty sources are skipped")
        << QStringList{R"(["bus_options",[{"id":"b1","color":"#ff0000"}]])",
                       R"(["device_states",[{"busId":"b1","sources":[]},{"busId":"b1","sources":["s"]}]])"}
        << QStringList{"#ff0000"};
    QTest::newRow("missing sources are skipped") << QStringList{kBusOptions, R"(["device_states",[{"busId":"b1"}]])"}
                                                 << QStringList{"#000000"};
    QTest::newRow("no states: dark") << QStringList{kBusOptions, R"(["device_states",[]])"} << QStringList{"#000000"};
    QTest::newRow("before any bus options: dark") << QStringList{program} << QStringList{"#000000"};
    QTest::newRow("unknown bus: dark") << QStringList{kBusOptions, R"(["device_states",[{"busId":"b9","sources":["s"]}]])"}
                                       << QStringList{"#000000"};
    QTest::newRow("a later option replaces the colour")
        << QStringList{kBusOptions, R"(["bus_options",[{"id":"b1","color":"#0000ff"}]])", program} << QStringList{"#0000ff"};
    QTest::newRow("more than one argument: the rest is the list")
        << QStringList{kBusOptions, R"(["device_states",{"busId":"b9","sources":["s"]},{"busId":"b1","sources":["s"]}])"}
        << QStringList{"#ff0000"};
    QTest::newRow("repeated states repeat the colour") << QStringList{kBusOptions, program, program}
                                                       << QStringList{"#ff0000", "#ff0000"};
    QTest::newRow("numeric bus ids") << QStringList{R"(["bus_options",[{"id":3,"color":"#123456"}]])",
                                                    R"(["device_states",[{"busId":3,"sources":["s"]}]])"}
                                     << QStringList{"#123456"};
    QString many = QStringLiteral(R"(["device_states",[)");
    while (many.size() < 1024 * 1024)
        many += QStringLiteral(R"({"busId":"b2","deviceId":"dev1","sources":[]},)");
    many += QStringLiteral(R"({"busId":"b1","sources":["s"]}]])");
    QTest::newRow("1 MB of states") << QStringList{kBusOptions, many} << QStringList{"#ff0000"};

    // Bad input: ignored, or skipped where one element of a list is bad.
    QTest::newRow("number instead of the state list") << QStringList{kBusOptions, R"(["device_states",5])"} << QStringList{};
    QTest::newRow("map instead of the state list") << QStringList{kBusOptions, R"(["device_states",{"busId":"b1"}])"}
                                                   << QStringList{};
    QTest::newRow("string instead of the state list") << QStringList{kBusOptions, R"(["device_states","dev1"])"}
                                                      << QStringList{};
    QTest::newRow("state that is not a map is skipped")
        << QStringList{kBusOptions, R"(["device_states",[5,"x",null,{"busId":"b1","sources":["s"]}]])"} << QStringList{"#ff0000"};
    QTest::newRow("sources that are not a list") << QStringList{kBusOptions, R"(["device_states",[{"busId":"b1","sources":"s"}]])"}
                                                 << QStringList{"#000000"};
    QTest::newRow("bus id that is a map") << QStringList{kBusOptions, R"(["device_states",[{"busId":{"id":"b1"},"sources":["s"]}]])"}
                                          << QStringList{"#000000"};
    QTest::newRow("map instead of a colour string")
        << QStringList{R"(["bus_options",[{"id":"b1","color":{"r":255}}]])", program} << QStringList{"#000000"};
    QTest::newRow("bus option without id") << QStringList{R"(["bus_options",[{"color":"#ff0000"}]])",
                                                          R"(["device_states",[{"sources":["s"]}]])"}
                                           << QStringList{"#000000"};
    QTest::newRow("number instead of the option list") << QStringList{R"(["bus_options",5])", program} << QStringList{"#000000"};
    QTest::newRow("not JSON") << QStringList{kBusOptions, R"(["device_states",[{"busId":"b1")"} << QStringList{};
    QTest::newRow("1 MB that is not JSON") << QStringList{kBusOptions, QString(1024 * 1024, QLatin1Char('['))} << QStringList{};
    QTest::newRow("text that was not UTF-8") << QStringList{kBusOptions, QString::fromUtf8("[\"device_states\xff\",[]]")}
                                             << QStringList{};
    QTest::newRow("empty") << QStringList{kBusOptions, ""} << QStringList{};
    QTest::newRow("object") << QStringList{kBusOptions, R"({"sid":"x"})"} << QStringList{};
    QTest::newRow("name that is a map") << QStringList{kBusOptions, R"([{"device_states":1},[]])"} << QStringList{};
    QTest::newRow("names are case-sensitive") << QStringList{kBusOptions, R"(["Device_States",[]])"} << QStringList{};
    QTest::newRow("other events") << QStringList{kBusOptions, R"(["version","3.3.0"])", R"(["error","Invalid Device Id"])",
                                                 R"(["messaging","server",null,"hello"])"}
                                  << QStringList{};
}

void TestTallyArbiter::colours()
{
    QFETCH(QStringList, messages);
    QFETCH(QStringList, colours);
    KestTallyArbiter node;
    EventRecorder recorder(&node);
    for (const QString &message : messages)
        node.onNewMessage(message);
    QCOMPARE(recorder.colours(), colours);
    QCOMPARE(recorder.events.size(), colours.size());
}

void TestTallyArbiter::devicesAreKept_data()
{
    QTest::addColumn<QString>("message");
    QTest::addColumn<int>("count");
    QTest::newRow("list replaces") << R"(["devices",[{"id":"dev9","name":"Nine"}]])" << 1;
    QTest::newRow("empty list replaces") << R"(["devices",[]])" << 0;
    QTest::newRow("number is ignored") << R"(["devices",5])" << 3;
    QTest::newRow("map is ignored") << R"(["devices",{"id":"dev9"}])" << 3;
    QTest::newRow("no argument is ignored") << R"(["devices"])" << 3;
}

void TestTallyArbiter::devicesAreKept()
{
    QFETCH(QString, message);
    QFETCH(int, count);
    KestTallyArbiter node;
    node.onNewMessage(kDevices);
    node.onNewMessage(message);
    QVariant devices;
    QVERIFY(QMetaObject::invokeMethod(&node, "getDevices", Q_RETURN_ARG(QVariant, devices)));
    QCOMPARE(devices.toList().size(), count);
    if (count == 3)
        QCOMPARE(devices.toList().at(1).toMap().value(QStringLiteral("name")).toString(), QStringLiteral("Camera 2"));
}

void TestTallyArbiter::reassign_data()
{
    QTest::addColumn<bool>("withDevices");
    QTest::addColumn<QString>("message");
    QTest::addColumn<QVariant>("deviceId");  // invalid: ignored
    QTest::addColumn<QString>("deviceName");
    QTest::newRow("known device") << true << R"(["reassign","dev1","dev2","client-7"])" << QVariant("dev2") << "Camera 2";
    QTest::newRow("unknown device") << true << R"(["reassign","dev1","nope","client-7"])" << QVariant("nope") << "Unknow";
    QTest::newRow("no device list yet") << false << R"(["reassign","dev1","dev2"])" << QVariant("dev2") << "Unknow";
    QTest::newRow("numeric ids") << true << R"(["reassign",1,7])" << QVariant(7.0) << "Numbered";
    QTest::newRow("one id only: ignored") << true << R"(["reassign","dev2"])" << QVariant() << "";
    QTest::newRow("ids that are maps: ignored") << true << R"(["reassign",{"id":"dev1"},{"id":"dev2"}])" << QVariant() << "";
    QTest::newRow("ids in one list") << true << R"(["reassign",["dev1","dev2"]])" << QVariant("dev2") << "Camera 2";
    QTest::newRow("map instead of ids: ignored") << true << R"(["reassign",{"old":"dev1","new":"dev2"}])" << QVariant() << "";
}

void TestTallyArbiter::reassign()
{
    QFETCH(bool, withDevices);
    QFETCH(QString, message);
    QFETCH(QVariant, deviceId);
    QFETCH(QString, deviceName);
    KestTallyArbiter node;
    node.data[QStringLiteral("deviceId")] = QStringLiteral("dev1");
    if (withDevices)
        node.onNewMessage(kDevices);
    EventRecorder recorder(&node);
    node.onNewMessage(message);

    if (!deviceId.isValid()) {
        QTest::qWait(250); // a flash would have shown its first colours by now
        QVERIFY(recorder.events.isEmpty());
        QCOMPARE(node.data.value(QStringLiteral("deviceId")).toString(), QStringLiteral("dev1"));
        return;
    }
    QCOMPARE(node.data.value(QStringLiteral("deviceId")), deviceId);
    const QVariantList reassigned = recorder.values(QStringLiteral("TA_reassign"));
    QCOMPARE(reassigned.size(), 1);
    QCOMPARE(reassigned.first().toMap(),
             (QVariantMap{{QStringLiteral("deviceId"), deviceId}, {QStringLiteral("deviceName"), deviceName}}));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours(), flashColours(), 5000);
}

void TestTallyArbiter::flashIsTenStepsWhiteFirst()
{
    KestTallyArbiter node;
    EventRecorder recorder(&node);
    node.onNewMessage(QStringLiteral(R"(["flash","dev1"])"));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 10, 5000);
    QCOMPARE(recorder.colours(), flashColours());
    const QVector<qint64> times = recorder.colourTimes();
    // Timed from the command: the tenth step is due 1 s later, and none comes early.
    QVERIFY2(times.first() >= 95, qPrintable(QString::number(times.first())));
    QVERIFY2(times.last() >= 950, qPrintable(QString::number(times.last())));
    QString why;
    QVERIFY2(flashTimingHolds(times, &why), qPrintable(why));
    QTest::qWait(300); // the eleventh tick ends it: nothing more comes
    QCOMPARE(recorder.colours().size(), 10);
}

void TestTallyArbiter::flashAgainStartsOver()
{
    KestTallyArbiter node;
    EventRecorder recorder(&node);
    node.onNewMessage(QStringLiteral(R"(["flash","dev1"])"));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 3, 5000);
    node.onNewMessage(QStringLiteral(R"(["flash","dev1"])"));
    QTRY_COMPARE_WITH_TIMEOUT(recorder.colours().size(), 13, 5000);
    QCOMPARE(recorder.colours().mid(3), flashColours());
}

void TestTallyArbiter::flashWithoutArgumentIsIgnored()
{
    KestTallyArbiter node;
    EventRecorder recorder(&node);
    node.onNewMessage(QStringLiteral(R"(["flash"])"));
    QTest::qWait(250); // a flash would have shown two colours by now
    QVERIFY(recorder.events.isEmpty());
}

QTEST_GUILESS_MAIN(TestTallyArbiter)
#include "tst_tallyarbiter.moc"
