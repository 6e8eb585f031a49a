#include "tally/kesttallyarbiter.h"

#include "json.h"
#include "jsonscreen.h"
#include "nodelog.h"
#include "registration.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {

const int registered = Kest::registerClass<KestTallyArbiter>();

const QString kDefaultAddress = QStringLiteral("127.0.0.1");
constexpr int kDefaultPort = 4455;
constexpr int kEngineIoRevision = 4;
constexpr int kFlashStepMs = 100;
constexpr int kFlashSteps = 10;
constexpr int kFirstReconnectDelayMs = 1000;
constexpr int kMaxReconnectDelayMs = 30000;
// Covers what the session reports nowhere, such as a WebSocket upgrade that is never answered.
constexpr int kAttemptTimeoutMs = 10000;

const QString kWhite = QStringLiteral("#ffffff");
const QString kDark = QStringLiteral("#000000");
const QString kUnknownName = QStringLiteral("Unknow");

// Ids and colours arrive as JSON strings (ids also as numbers); lists, maps and null do not
// name anything.
bool isText(const QVariant &value)
{
    switch (value.userType()) {
    case QMetaType::QString:
    case QMetaType::Double:
    case QMetaType::LongLong:
    case QMetaType::Int:
        return true;
    default:
        return false;
    }
}

} // namespace

KestTallyArbiter::KestTallyArbiter(QObject *parent)
    : KestObject(parent),
      client(kEngineIoRevision, this),
      flashTimer(this),
      reconnectTimer(this),
      attemptTimer(this),
      reconnectDelayMs(kFirstReconnectDelayMs)
{
    typeName = QStringLiteral("share");
    typeId = 2;
    data[QStringLiteral("ip")] = kDefaultAddress;
    data[QStringLiteral("port")] = kDefaultPort;
    data[QStringLiteral("deviceId")] = QString();
    data[QStringLiteral("typeName")] = QStringLiteral("Encoder");
    data[QStringLiteral("reconnect")] = false;
    data[QStringLiteral("followReassign")] = false;
    data[QStringLiteral("busPriority")] = false;
    data[QStringLiteral("darkOnLoss")] = false;

    connect(&client, &SocketIO::Client::connected, this, &KestTallyArbiter::onConnected);
    connect(&client, &SocketIO::Client::disconnected, this, &KestTallyArbiter::onDisconnected);
    connect(&client, &SocketIO::Client::newMessage, this, &KestTallyArbiter::onNewMessage);
    connect(&flashTimer, &QTimer::timeout, this, &KestTallyArbiter::onTimerFlash);

    connect(&client, &SocketIO::Client::stateChanged, this, &KestTallyArbiter::onClientStateChanged);
    connect(&client, &SocketIO::Client::handshakeFailed, this, &KestTallyArbiter::onHandshakeFailed);
    reconnectTimer.setSingleShot(true);
    attemptTimer.setSingleShot(true);
    connect(&reconnectTimer, &QTimer::timeout, this, &KestTallyArbiter::openClient);
    connect(&attemptTimer, &QTimer::timeout, this, [this] {
        if (!connected)
            scheduleReconnect();
    });
}

void KestTallyArbiter::onStart()
{
    running = true;
    reconnectTimer.stop();
    reconnectDelayMs = kFirstReconnectDelayMs;
    openClient();
}

void KestTallyArbiter::onStop()
{
    running = false;
    reconnectTimer.stop();
    attemptTimer.stop();
    client.close();
}

void KestTallyArbiter::onSetData(QVariantMap newData)
{
    if (!reconnectWanted()) {
        reconnectTimer.stop();
        attemptTimer.stop();
    }
    if (newData.contains(QStringLiteral("ip"))) {
        client.close();
        onStart();
    }
    regist();
}

void KestTallyArbiter::openClient()
{
    const QString url = QStringLiteral("http://%1:%2")
                            .arg(data.value(QStringLiteral("ip")).toString())
                            .arg(data.value(QStringLiteral("port")).toInt());
    client.open(QUrl(url));
}

void KestTallyArbiter::onConnected()
{
    nodeLog(this) << "Connected";
    connected = true;
    attemptTimer.stop();
    reconnectDelayMs = kFirstReconnectDelayMs;
    client.eemit(QStringLiteral("version"));
    client.eemit(QStringLiteral("devices"));
    client.eemit(QStringLiteral("bus_options"));
    regist();
}

void KestTallyArbiter::onDisconnected()
{
    nodeLog(this) << "onDisconnected";
    // The session reports its end more than once (close() and the WebSocket's own signal).
    const bool wasConnected = std::exchange(connected, false);
    attemptTimer.stop();
    if (wasConnected && data.value(QStringLiteral("darkOnLoss")).toBool()) {
        flashTimer.stop(); // a flash step would light the dead link again
        sendEvent(QStringLiteral("TA_color"), kDark);
    }
    scheduleReconnect();
}

void KestTallyArbiter::regist()
{
    if (!connected)
        return;
    const QVariantMap registration{
        {QStringLiteral("deviceId"), data.value(QStringLiteral("deviceId"))},
        {QStringLiteral("listenerType"), data.value(QStringLiteral("typeName"))},
        {QStringLiteral("canBeReassigned"), true},
        {QStringLiteral("canBeFlashed"), true},
        {QStringLiteral("supportsChat"), true},
    };
    client.eemit(QStringLiteral("listenerclient_connect"), registration);
}

void KestTallyArbiter::onNewMessage(QString str)
{
    const QVariantList message = Json::decode(JsonScreen::screen(str)).toList();
    // An event without an argument (a bare "flash") is ignored as well: deliberate, the
    // server always sends one.
    if (message.size() < 2)
        return;
    const QString name = message.first().toString();
    const QVariant argument = message.size() == 2 ? message.at(1) : QVariant(message.mid(1));

    if (name == QLatin1String("device_states"))
        showStates(argument);
    else if (name == QLatin1String("bus_options"))
        storeBusOptions(argument);
    else if (name == QLatin1String("devices")) {
        if (argument.userType() == QMetaType::QVariantList)
            devices = argument.toList();
    } else if (name == QLatin1String("reassign"))
        reassign(argument);
    else if (name == QLatin1String("flash"))
        flash();
}

// The bus's kind plays no part: the server's colour for the bus is the tally colour, and the
// first active state in the server's order wins, unless "busPriority" asks for the server's
// priorities.
void KestTallyArbiter::showStates(const QVariant &states)
{
    if (states.userType() != QMetaType::QVariantList)
        return;
    const QVariantList entries = states.toList();
    const bool byPriority = data.value(QStringLiteral("busPriority")).toBool();
    // A listener that registered again after a reassign sits in the rooms of both devices and
    // hears the states of each.
    const bool filtered = data.value(QStringLiteral("followReassign")).toBool();
    const QString followed = data.value(QStringLiteral("deviceId")).toString();
    bool ours = entries.isEmpty();
    const QString *colour = nullptr;
    double best = 0;
    for (const QVariant &entry : entries) {
        const QVariantMap state = entry.toMap();
        const QVariant deviceId = state.value(QStringLiteral("deviceId"));
        if (filtered && isText(deviceId) && deviceId.toString() != followed)
            continue;
        ours = true;
        if (state.value(QStringLiteral("sources")).toList().isEmpty())
            continue;
        const QVariant busId = state.value(QStringLiteral("busId"));
        if (!isText(busId))
            continue;
        const auto known = busColors.constFind(busId.toString());
        if (known == busColors.constEnd())
            continue;
        if (!byPriority) {
            colour = &*known;
            break;
        }
        // A bus without a priority ranks below every bus with one; ties keep the server's order.
        const double priority = busPriorities.value(busId.toString(), -std::numeric_limits<double>::infinity());
        if (!colour || priority > best) {
            colour = &*known;
            best = priority;
        }
    }
    if (ours) // states of another device only are not this listener's tally
        sendEvent(QStringLiteral("TA_color"), colour ? *colour : kDark);
}

void KestTallyArbiter::storeBusOptions(const QVariant &options)
{
    if (options.userType() != QMetaType::QVariantList)
        return;
    for (const QVariant &entry : options.toList()) {
        const QVariantMap option = entry.toMap();
        const QVariant id = option.value(QStringLiteral("id"));
        const QVariant colour = option.value(QStringLiteral("color"));
        if (!isText(id) || colour.userType() != QMetaType::QString)
            continue;
        busColors.insert(id.toString(), colour.toString());
        const QVariant priority = option.value(QStringLiteral("priority"));
        if (isText(priority) && priority.userType() != QMetaType::QString) // a number
            busPriorities.insert(id.toString(), priority.toDouble());
        else
            busPriorities.remove(id.toString());
    }
}

void KestTallyArbiter::reassign(const QVariant &ids)
{
    const QVariantList list = ids.toList();
    if (ids.userType() != QMetaType::QVariantList || list.size() < 2 || !isText(list.at(0)) || !isText(list.at(1)))
        return;
    const QVariant oldId = list.at(0);
    const QVariant newId = list.at(1);
    client.eemit(QStringLiteral("listener_reassign_object"),
                 QVariantMap{{QStringLiteral("oldDeviceId"), oldId}, {QStringLiteral("newDeviceId"), newId}});
    data[QStringLiteral("deviceId")] = newId;
    // The server ignores the request above from a listener that has not logged in as a
    // producer; registering again is what moves it.
    if (data.value(QStringLiteral("followReassign")).toBool())
        regist();

    QVariantMap reassigned{{QStringLiteral("deviceId"), newId}, {QStringLiteral("deviceName"), kUnknownName}};
    const auto device = std::find_if(devices.cbegin(), devices.cend(), [&newId](const QVariant &entry) {
        return entry.toMap().value(QStringLiteral("id")).toString() == newId.toString();
    });
    if (device != devices.cend())
        reassigned[QStringLiteral("deviceName")] = device->toMap().value(QStringLiteral("name"));
    sendEvent(QStringLiteral("TA_reassign"), reassigned);

    client.eemit(QStringLiteral("devices"));
    flash();
}

void KestTallyArbiter::flash()
{
    flashTimer.stop();
    flashCount = 0;
    flashTimer.start(kFlashStepMs);
}

QVariant KestTallyArbiter::getDevices()
{
    return devices;
}

// Ten alternating colours, white first; the colour from before is not restored, the next
// device states set it again.
void KestTallyArbiter::onTimerFlash()
{
    ++flashCount;
    if (flashCount <= kFlashSteps)
        sendEvent(QStringLiteral("TA_color"), flashCount % 2 == 1 ? kWhite : kDark);
    else
        flashTimer.stop();
}

bool KestTallyArbiter::reconnectWanted() const
{
    return running && data.value(QStringLiteral("reconnect")).toBool();
}

void KestTallyArbiter::onClientStateChanged(SocketIO::Client::State state)
{
    if (state != SocketIO::Client::Opening)
        return;
    // An attempt is under way, whoever started it (this node or the session's own restart).
    reconnectTimer.stop();
    if (reconnectWanted())
        attemptTimer.start(kAttemptTimeoutMs);
}

void KestTallyArbiter::onHandshakeFailed()
{
    attemptTimer.stop();
    scheduleReconnect();
}

void KestTallyArbiter::scheduleReconnect()
{
    if (!reconnectWanted() || reconnectTimer.isActive())
        return;
    nodeLog(this) << "reconnecting in" << reconnectDelayMs << "ms";
    reconnectTimer.start(reconnectDelayMs);
    reconnectDelayMs = std::min(reconnectDelayMs * 2, kMaxReconnectDelayMs);
}
