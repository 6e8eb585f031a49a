#include "kestintercomserver.h"

#include "datagram.h"
#include "hostclock.h"
#include "registration.h"

#include <QTimer>
#include <QUdpSocket>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <netinet/in.h>
#include <sys/uio.h>

namespace {

const int registered = Kest::registerClass<KestIntercomServer>();

constexpr int kDefaultPort = 7000;
constexpr int kReceiveSlots = 16;   // datagrams taken per recvmmsg call
constexpr int kSendSlots = 256;     // datagrams handed to the kernel per sendmmsg call

// The socket's own address family decides the form of every destination address: a dual-stack
// IPv6 socket reaches IPv4 stations through mapped addresses.
socklen_t toSockaddr(const QHostAddress &address, quint16 port, int family, sockaddr_storage *out)
{
    std::memset(out, 0, sizeof(*out));
    if (family == AF_INET6) {
        auto *sa = reinterpret_cast<sockaddr_in6 *>(out);
        sa->sin6_family = AF_INET6;
        sa->sin6_port = htons(port);
        bool isV4 = false;
        const quint32 v4 = address.toIPv4Address(&isV4);
        if (isV4) {
            sa->sin6_addr.s6_addr[10] = 0xff;
            sa->sin6_addr.s6_addr[11] = 0xff;
            const quint32 be = htonl(v4);
            std::memcpy(&sa->sin6_addr.s6_addr[12], &be, 4);
        } else {
            const Q_IPV6ADDR v6 = address.toIPv6Address();
            std::memcpy(&sa->sin6_addr, &v6, 16);
            sa->sin6_scope_id = address.scopeId().toUInt();
        }
        return sizeof(sockaddr_in6);
    }
    auto *sa = reinterpret_cast<sockaddr_in *>(out);
    sa->sin_family = AF_INET;
    sa->sin_port = htons(port);
    sa->sin_addr.s_addr = htonl(address.toIPv4Address());
    return sizeof(sockaddr_in);
}

} // namespace

// Receive and send lists, kept across reads so that relaying allocates nothing.
struct KestIntercomServer::Batch
{
    std::unique_ptr<char[]> buffers{new char[size_t(kReceiveSlots) * Intercom::kMaxDatagramSize]};
    mmsghdr rx[kReceiveSlots]{};
    iovec rxVec[kReceiveSlots]{};
    sockaddr_storage rxFrom[kReceiveSlots]{};

    mmsghdr tx[kSendSlots]{};
    iovec txVec[kSendSlots]{};
    sockaddr_storage txTo[kSendSlots]{};
    int txCount = 0;
    int family = AF_INET6; // of the bound socket


    char *slot(int i) const { return buffers.get() + size_t(i) * Intercom::kMaxDatagramSize; }

    void armReceive()
    {
        for (int i = 0; i < kReceiveSlots; ++i) {
            rxVec[i] = {slot(i), size_t(Intercom::kMaxDatagramSize)};
            rx[i].msg_hdr = {};
            rx[i].msg_hdr.msg_iov = &rxVec[i];
            rx[i].msg_hdr.msg_iovlen = 1;
            rx[i].msg_hdr.msg_name = &rxFrom[i];
            rx[i].msg_hdr.msg_namelen = sizeof(rxFrom[i]);
        }
    }
};

KestIntercomServer::KestIntercomServer(QObject *parent)
    : KestObject(parent), socket(new QUdpSocket(this)), timer(new QTimer(this))
{
    data[QStringLiteral("port")] = kDefaultPort;
    connect(socket, &QUdpSocket::readyRead, this, &KestIntercomServer::onRead);
    connect(timer, &QTimer::timeout, this, &KestIntercomServer::onTimerAlive);
}

KestIntercomServer::~KestIntercomServer() = default;

void KestIntercomServer::onStart()
{
    if (socket->state() != QAbstractSocket::UnconnectedState)
        socket->close();
    // A failed bind is not reported: the relay then simply hears nothing.
    socket->bind(QHostAddress::Any, quint16(data.value(QStringLiteral("port")).toInt()));
    socket->setSocketOption(QAbstractSocket::SendBufferSizeSocketOption, Intercom::kSocketBufferBytes);
    socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, Intercom::kSocketBufferBytes);
    socket->setReadBufferSize(Intercom::kSocketBufferBytes);
    if (!batch)
        batch = std::make_unique<Batch>();
    sockaddr_storage local{};
    socklen_t localLength = sizeof(local);
    if (::getsockname(int(socket->socketDescriptor()), reinterpret_cast<sockaddr *>(&local), &localLength) == 0)
        batch->family = local.ss_family;
    timer->start(Intercom::kAliveIntervalMs);
}

void KestIntercomServer::onStop()
{
    socket->close();
    timer->stop();
}

void KestIntercomServer::onRead()
{
    const int fd = int(socket->socketDescriptor());
    if (fd < 0 || !batch)
        return;
    Batch &b = *batch;
    for (;;) {
        // Drain the socket in batches: one system call per batch instead of one per datagram.
        int received = 0;
        do {
            b.armReceive();
            received = ::recvmmsg(fd, b.rx, kReceiveSlots, MSG_DONTWAIT, nullptr);
            if (received < 0 && errno == EINTR) {
                received = kReceiveSlots; // interrupted: try again
                continue;
            }
            const qint64 now = hostClockUs();
            for (int i = 0; i < received; ++i)
                receive(b.slot(i), int(b.rx[i].msg_len), reinterpret_cast<sockaddr *>(&b.rxFrom[i]),
                        b.rx[i].msg_hdr.msg_namelen, now);
            flush();
        } while (received == kReceiveSlots);

        // QUdpSocket keeps its read notification off until it is read through its own API, so
        // finish with one read through it. A datagram that slipped in meanwhile is relayed too.
        QHostAddress address;
        quint16 port = 0;
        const qint64 size = socket->readDatagram(b.slot(0), Intercom::kMaxDatagramSize, &address, &port);
        if (size < 0)
            break;
        sockaddr_storage from;
        const socklen_t fromLength = toSockaddr(address, port, b.family, &from);
        receive(b.slot(0), int(size), reinterpret_cast<sockaddr *>(&from), fromLength, hostClockUs());
        flush();
    }
}

void KestIntercomServer::receive(const char *data, int size, const sockaddr *from, socklen_t fromLength, qint64 now)
{
    const Intercom::Header header = Intercom::readHeader(data, size);
    const quint8 source = header.source;
    if (!known[source]) {
        known[source] = true;
        order.insert(std::lower_bound(order.begin(), order.end(), source), source);
        table[source] = {};
    }
    Channel &channel = table[source];
    channel.lastSeen = now;
    if (channel.addressLength != fromLength || std::memcmp(&channel.address, from, fromLength) != 0) {
        std::memcpy(&channel.address, from, fromLength);
        channel.addressLength = fromLength;
    }
    send(data, size, source, header.destination);
}

void KestIntercomServer::send(const char *data, int size, quint8 from, quint8 to)
{
    Batch &b = *batch;
    const auto queue = [&](const Channel &channel) {
        if (b.txCount == kSendSlots)
            flush();
        const int i = b.txCount++;
        // The destination is copied: a later datagram of the same batch may move the station.
        std::memcpy(&b.txTo[i], &channel.address, channel.addressLength);
        b.txVec[i] = {const_cast<char *>(data), size_t(size)};
        b.tx[i].msg_hdr = {};
        b.tx[i].msg_hdr.msg_name = &b.txTo[i];
        b.tx[i].msg_hdr.msg_namelen = channel.addressLength;
        b.tx[i].msg_hdr.msg_iov = &b.txVec[i];
        b.tx[i].msg_hdr.msg_iovlen = 1;
    };
    if (to == Intercom::kBroadcast) {
        for (quint8 station : order)
            if (station != from)
                queue(table[station]);
    } else if (known[to]) {
        queue(table[to]);
    }
}

void KestIntercomServer::flush()
{
    Batch &b = *batch;
    const int fd = int(socket->socketDescriptor());
    int done = 0;
    while (fd >= 0 && done < b.txCount) {
        const int sent = ::sendmmsg(fd, b.tx + done, unsigned(b.txCount - done), 0);
        if (sent > 0)
            done += sent;
        else if (errno != EINTR)
            ++done; // write errors are ignored: skip the datagram that failed
    }
    b.txCount = 0;
}

void KestIntercomServer::onTimerAlive()
{
    const qint64 now = hostClockUs();
    const std::vector<quint8> snapshot = order;
    for (quint8 station : snapshot) {
        const qint64 lastSeen = table[station].lastSeen;
        if (lastSeen != 0 && now - lastSeen > Intercom::kPresenceTimeoutUs)
            forget(station);
    }
}

void KestIntercomServer::forget(quint8 station)
{
    known[station] = false;
    table[station] = {};
    order.erase(std::find(order.begin(), order.end(), station));
}

QList<int> KestIntercomServer::stations() const
{
    return QList<int>(order.begin(), order.end());
}

QHostAddress KestIntercomServer::stationAddress(int station) const
{
    if (station < 0 || station > 255 || !known[size_t(station)])
        return {};
    return QHostAddress(reinterpret_cast<const sockaddr *>(&table[size_t(station)].address));
}

quint16 KestIntercomServer::stationPort(int station) const
{
    if (station < 0 || station > 255 || !known[size_t(station)])
        return 0;
    const auto &address = table[size_t(station)].address;
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6 *>(&address)->sin6_port);
    return ntohs(reinterpret_cast<const sockaddr_in *>(&address)->sin_port);
}
