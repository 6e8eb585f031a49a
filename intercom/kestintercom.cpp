#include "kestintercom.h"

#include "intercom/pcm.h"
#include "json.h"
#include "jsonscreen.h"
#include "hostclock.h"
#include "nodelog.h"
#include "packetqueue.h"
#include "registration.h"

#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>
#include <QTimer>
#include <QUdpSocket>

#include <cerrno>
#include <cstddef>
#include <cstring>

#include <fcntl.h>
#include <linux/input.h>
#include <unistd.h>

namespace {

const int registered = Kest::registerClass<KestIntercom>();

constexpr int kTypeId = 4;
constexpr int kDefaultStation = 1;
constexpr int kDefaultPort = 1234;
// Not "kDefaultMemSize": KestObject has a constant of that name, which wins inside the class.
constexpr int kDefaultMemSizeBytes = 4096000;
constexpr int kDefaultJitterFrames = 8;
constexpr int kDefaultVadDb = 50;
constexpr int kDefaultPreRollPackets = 8;
constexpr const char *kDefaultHeadset = "/dev/input/event0";

constexpr int kQueueFactor = 2;        // a station's queue holds 2 x "buf" frames
constexpr int kHeadsetThresholdDb = 65; // threshold when "vad" is negative
constexpr int kHangOverFactor = 20;     // the gate closes after "buf" x 20 quiet packets
constexpr int kHeadsetHangOverFactor = 10;
constexpr int kAudioFrameType = 3;

// The headset's key arrives as three input records: scan code, key, synchronisation. The value
// of the middle one is 1 for a press, 0 for a release, 2 for a repeat. Sizes come from the
// kernel's own struct so that the offsets are right whatever the width of its time fields
// (16-byte records and offset 28 on the 32-bit appliance).
constexpr int kInputRecordBytes = int(sizeof(input_event));
constexpr int kKeyBlockBytes = 3 * kInputRecordBytes;
constexpr int kKeyValueOffset = kInputRecordBytes + int(offsetof(input_event, value));
constexpr qint32 kKeyReleased = 0;

const QString kDid = QStringLiteral("did");
const QString kTid = QStringLiteral("tid");
const QString kIp = QStringLiteral("ip");
const QString kPort = QStringLiteral("port");
const QString kMemSize = QStringLiteral("memSize");
const QString kBuf = QStringLiteral("buf");
const QString kVad = QStringLiteral("vad");
const QString kBufLenA = QStringLiteral("bufLenA");
const QString kName = QStringLiteral("name");
const QString kHid = QStringLiteral("hid");
const QString kBitwidth = QStringLiteral("bitwidth");
const QString kTally = QStringLiteral("TALLY");
const QString kFunc = QStringLiteral("func");
const QString kData = QStringLiteral("data");

const char kGateOpened[] = "+++++++++++++++++";
const char kGateClosed[] = "----------------------";

} // namespace

KestIntercom::KestIntercom(QObject *parent)
    : KestObject(parent),
      socket(new QUdpSocket(this)),
      keepAliveTimer(new QTimer(this)),
      mixTimer(new QTimer(this))
{
    typeName = QStringLiteral("shareA");
    typeId = kTypeId;
    data[kDid] = kDefaultStation;
    data[kTid] = kDefaultStation;
    data[kIp] = QStringLiteral("127.0.0.1");
    data[kPort] = kDefaultPort;
    data[kMemSize] = kDefaultMemSizeBytes;
    data[kBuf] = kDefaultJitterFrames;
    data[kVad] = kDefaultVadDb;
    data[kBufLenA] = kDefaultPreRollPackets;
    data[kName] = QString();
    data[kHid] = QString::fromLatin1(kDefaultHeadset);
    connect(keepAliveTimer, &QTimer::timeout, this, &KestIntercom::onTimerKeepAlive);
    // Never started: the mixing step is clocked by the local audio packets instead.
    connect(mixTimer, &QTimer::timeout, this, &KestIntercom::onTimerMix);
    connect(socket, &QUdpSocket::readyRead, this, &KestIntercom::onRead);
    socket->setReadBufferSize(Intercom::kSocketBufferBytes);
}

KestIntercom::~KestIntercom()
{
    closeHeadset();
}

int KestIntercom::vol2db(int v)
{
    return Intercom::vol2db(v);
}

void KestIntercom::onSetData(QVariantMap)
{
    audioHeader = {Intercom::stationNumber(data.value(kDid).toInt()),
                   Intercom::stationNumber(data.value(kTid).toInt()), Intercom::Audio};

    const QString ip = data.value(kIp).toString();
    if (ip != relayText) {
        relayText = ip;
        relayAddress = QHostAddress(ip);
        if (relayAddress.isNull())
            nodeLog(this) << "relay address" << ip << "is not an IP address; nothing is sent";
    }
    const QString portText = data.value(kPort).toString();
    if (portText != relayPortText) {
        relayPortText = portText;
        bool ok = false;
        const int port = portText.toInt(&ok);
        relayPort = ok && port > 0 && port <= 65535 ? quint16(port) : 0;
        if (relayPort == 0)
            nodeLog(this) << "relay port" << portText << "is not a UDP port; nothing is sent";
    }

    aliveLength = Intercom::buildAlive(alive.data(), audioHeader.source, data.value(kName).toString());
    threshold = data.value(kVad).toInt();

    if (data.contains(kHid)) {
        const QString path = data.value(kHid).toString();
        if (!path.isEmpty() && QFileInfo::exists(path))
            openHeadset(path);
        else
            closeHeadset();
    }
}

void KestIntercom::onStart()
{
    started = true;
    keepAliveTimer->start(Intercom::kAliveIntervalMs);
    // Bound once and kept, so that a restart keeps the port the relay knows.
    if (socket->state() == QAbstractSocket::UnconnectedState) {
        if (!socket->bind(QHostAddress(QHostAddress::Any), 0))
            nodeLog(this) << "cannot open a UDP socket:" << socket->errorString();
    }
    socket->setSocketOption(QAbstractSocket::SendBufferSizeSocketOption, Intercom::kSocketBufferBytes);
    socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, Intercom::kSocketBufferBytes);
}

void KestIntercom::onStop()
{
    started = false;
    keepAliveTimer->stop();
}

void KestIntercom::onTimerKeepAlive()
{
    const qint64 now = hostClockUs();
    writeToRelay(alive.data(), aliveLength);

    // Entries heard only through audio or commands have no alive time and stay.
    for (auto it = roster.begin(); it != roster.end();) {
        const qint64 lastAlive = it->second.lastAlive;
        if (lastAlive != 0 && now - lastAlive > Intercom::kPresenceTimeoutUs)
            it = roster.erase(it);
        else
            ++it;
    }

    // The headset's reconnect: a vanished device is closed, a returned one opened.
    if (data.contains(kHid) && (!headsetOpen || !QFileInfo::exists(data.value(kHid).toString())))
        onSetData(QVariantMap());
}

void KestIntercom::onRead()
{
    while (socket->hasPendingDatagrams()) {
        const qint64 pending = socket->pendingDatagramSize();
        if (pending < 0)
            break;
        // The body gets the block, the header its headroom: samples then start aligned.
        const int bodySize = qMax(0, int(pending) - Intercom::kHeaderSize);
        char *body = bufferData(nullptr, bodySize, Intercom::kHeaderSize);
        if (!body) {
            socket->readDatagram(nullptr, 0); // no packet memory: drop it
            continue;
        }
        char *datagram = body - Intercom::kHeaderSize;
        const qint64 size = socket->readDatagram(datagram, pending);
        if (size < 0)
            break;
        handleDatagram(datagram, int(size));
    }
}

void KestIntercom::handleDatagram(char *datagram, int size)
{
    if (!started)
        return;
    const Intercom::Header header = Intercom::readHeader(datagram, size);
    if (header.source == audioHeader.source)
        return; // our own datagram, echoed by the relay
    Channel &channel = roster[header.source];
    const Intercom::Body body = Intercom::body(datagram, size);

    switch (header.type) {
    case Intercom::Audio: {
        // An empty body has nothing to play; it would only hold a place in the queue.
        if (body.size == 0 || channel.packets.size() >= kQueueFactor * jitterDepth())
            return;
        Packet frame;
        frame.data = const_cast<char *>(body.data);
        frame.len = body.size;
        frame.pts = 0;
        frame.dts = -1;
        channel.packets.append(frame);
        return;
    }
    case Intercom::Alive:
        channel.lastAlive = hostClockUs();
        channel.name = QString::fromUtf8(body.data, body.size);
        return;
    case Intercom::Command: {
        // Screened first: the host's decoder may be Qt's, which leaks on repeated keys.
        const QVariantMap command = Json::decode(JsonScreen::screen(Intercom::commandText(body))).toMap();
        nodeLog(this) << command;
        onNewCmd(command.value(kFunc).toString(), command.value(kData));
        return;
    }
    default:
        return;
    }
}

QVariant KestIntercom::sendCmd(QVariant cmd)
{
    if (!cmd.canConvert<QVariantMap>()) {
        nodeLog(this) << "sendCmd needs a map such as {\"tid\": 2, \"func\": \"TALLY\", \"data\": 1}";
        return false;
    }
    QVariantMap command = cmd.toMap();
    const quint8 destination = Intercom::stationNumber(command.value(kTid).toInt());
    command.remove(kTid);
    const QByteArray text = Intercom::commandBody(Json::encode(command, false));

    const int size = Intercom::kHeaderSize + text.size();
    char *datagram = bufferData(nullptr, size, 0);
    if (!datagram)
        return false;
    Intercom::writeHeader(datagram, {audioHeader.source, destination, Intercom::Command});
    std::memcpy(datagram + Intercom::kHeaderSize, text.constData(), size_t(text.size()));
    return writeToRelay(datagram, size);
}

void KestIntercom::onNewCmd(QString func, QVariant data)
{
    if (func == kTally)
        sendEvent(kTally, data);
}

void KestIntercom::onNewEvent(QString type, QVariant info)
{
    if (!started || type != kTally)
        return;
    // -1 is destination 255: every other station.
    sendCmd(QVariantMap{{kTid, -1}, {kFunc, kTally}, {kData, info}});
    sendEvent(kTally, info);
}

QVariant KestIntercom::getState()
{
    QVariantList list;
    for (const auto &[number, channel] : roster)
        list << QVariantMap{{QStringLiteral("id"), number},
                            {QStringLiteral("talking"), channel.talking},
                            {QStringLiteral("name"), channel.name}};
    return QVariantMap{{QStringLiteral("list"), list}};
}

void KestIntercom::send(Packet pkt)
{
    if (!pkt.data || pkt.len < 0)
        return;
    // The three bytes in front of the payload are free for the header (packet headroom).
    char *datagram = pkt.data - Intercom::kHeaderSize;
    Intercom::writeHeader(datagram, audioHeader);
    writeToRelay(datagram, Intercom::kHeaderSize + pkt.len);
}

bool KestIntercom::writeToRelay(const char *datagram, int size)
{
    if (relayAddress.isNull() || relayPort == 0)
        return false;
    return socket->writeDatagram(datagram, size, relayAddress, relayPort) == size;
}

void KestIntercom::onNewInfoA(StreamInfo info)
{
    infoA = info;
    sendInfoA(info);
}

void KestIntercom::onNewPacketA(Packet pkt)
{
    if (!started)
        return;
    if (threshold == 0)
        send(pkt);
    else
        doVad(pkt);
    onTimerMix();
}

void KestIntercom::doVad(Packet pkt)
{
    if (!gateOpen)
        bufferPacketA(pkt); // pre-roll: restores the onset that precedes the opening decision

    const int level = eightBit() ? Intercom::level8(pkt.data, pkt.len) : Intercom::level16(pkt.data, pkt.len);
    const int gateThreshold = threshold < 0 ? kHeadsetThresholdDb : threshold;
    const quint8 decision = level > gateThreshold ? 1 : 0;
    history.push_back(decision);
    historySum += decision;
    // The decisions are judged with the newest included and before the oldest are trimmed.
    const int sum = historySum;
    const int buf = jitterDepth();
    const auto trimHistory = [this](int keep) {
        while (int(history.size()) > qMax(0, keep)) {
            historySum -= history.front();
            history.pop_front();
        }
    };

    if (!gateOpen) {
        trimHistory(buf);
        if (sum > buf / 4 && threshold > 0) {
            Packet preRoll;
            while (takePacket(lockA, packetsA, preRoll))
                send(preRoll); // oldest first; the current packet is the last of them
            gateOpen = true;
            nodeLog(this) << kGateOpened;
        }
        return;
    }

    send(pkt);
    const int hangOver = buf * (threshold < 0 ? kHeadsetHangOverFactor : kHangOverFactor);
    trimHistory(hangOver);
    if (int(history.size()) == hangOver && sum == 0) {
        gateOpen = false;
        nodeLog(this) << kGateClosed;
    }
}

void KestIntercom::onTimerMix()
{
    const int buf = jitterDepth();
    const bool eight = eightBit();
    Packet mixed;
    bool anyone = false;
    for (auto &entry : roster) {
        Channel &channel = entry.second;
        const int queued = channel.packets.size();
        // The jitter buffer: a silent station is held back until more than "buf" frames
        // wait, then it plays one frame per step until its queue runs dry.
        if (channel.talking ? queued == 0 : queued <= buf) {
            channel.talking = false;
            continue;
        }
        const Packet frame = channel.packets.takeFirst();
        if (!anyone) {
            mixed = frame; // mixed in place, in the first contributor's buffer
            anyone = true;
        } else if (eight) {
            mix8(mixed, frame, mixed);
        } else {
            mix(mixed, frame, mixed);
        }
        channel.talking = true;
    }
    if (!anyone)
        return;
    mixed.frameType = kAudioFrameType;
    mixed.source = infoA.source; // the mix belongs to the stream description passed on
    sendPacketA(mixed);
}

void KestIntercom::mix(Packet src1, Packet src2, Packet dst)
{
    Intercom::mix16(src1.data, src1.len, src2.data, src2.len, dst.data, dst.len);
}

void KestIntercom::mix8(Packet src1, Packet src2, Packet dst)
{
    Intercom::mix8(src1.data, src1.len, src2.data, src2.len, dst.data, dst.len);
}

int KestIntercom::jitterDepth() const
{
    return data.value(kBuf).toInt();
}

bool KestIntercom::eightBit() const
{
    return infoA.params.value(kBitwidth).toInt() == 8;
}

int KestIntercom::queuedFrames(int station) const
{
    const auto it = roster.find(station);
    return it == roster.end() ? 0 : it->second.packets.size();
}

void KestIntercom::openHeadset(const QString &path)
{
    nodeLog(this) << "open HID" << path;
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd <= 0) {
        // Descriptor 0 counts as a failure, as it always has for stations; it is not leaked.
        if (fd == 0)
            ::close(fd);
        nodeLog(this) << "Cant open!" << path;
        return;
    }
    closeHeadset();
    headset = new QSocketNotifier(fd, QSocketNotifier::Read, this);
    connect(headset, &QSocketNotifier::activated, this, &KestIntercom::onHidRead);
    headset->setEnabled(true);
    headsetOpen = true;
}

void KestIntercom::closeHeadset()
{
    if (headset) {
        const int fd = int(headset->socket());
        delete headset; // before the descriptor goes, so that nothing polls a closed one
        headset = nullptr;
        ::close(fd);
    }
    headsetOpen = false;
}

void KestIntercom::onHidRead()
{
    if (!headset)
        return;
    const int fd = int(headset->socket());
    char block[kKeyBlockBytes];
    for (;;) {
        const ssize_t got = ::read(fd, block, sizeof(block));
        if (got == kKeyBlockBytes) {
            qint32 value;
            std::memcpy(&value, block + kKeyValueOffset, sizeof(value));
            if (value == kKeyReleased) {
                // Packets buffered before the key predate the request to talk: they are
                // dropped rather than left to be replayed at a later opening.
                Packet stale;
                while (takePacket(lockA, packetsA, stale)) {
                }
                gateOpen = true;
                nodeLog(this) << kGateOpened;
            }
            continue;
        }
        if (got < 0 && errno == EINTR)
            continue;
        // ENODEV: the headset was unplugged. End of file and other errors leave nothing to
        // read either; closing keeps the notifier from firing forever, and the keep-alive
        // opens the device again when it is back.
        if (got == 0 || (got < 0 && errno != EAGAIN && errno != EWOULDBLOCK)) {
            headset->setEnabled(false);
            headset->deleteLater();
            headset = nullptr;
            ::close(fd);
            headsetOpen = false;
        }
        return; // short reads end the pass without action
    }
}
