#pragma once

// Test helpers for the intercom: a plain UDP endpoint on 127.0.0.1 that plays a station, and a
// relay running on its own thread so that a test can block on its sockets.

#include "intercom/kestintercomserver.h"

#include <QByteArray>
#include <QCoreApplication>
#include <QThread>

#include <cstring>
#include <optional>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

class UdpStation
{
public:
    struct Received
    {
        QByteArray bytes;
        qint64 stampNs = 0; // kernel receive time: orders arrivals across stations
    };

    UdpStation()
    {
        fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address));
        // The first SIOCGSTAMPNS has nothing to report yet, but from then on the kernel stamps
        // every arriving datagram; receive() reads each stamp back the same way. Unlike the
        // SO_TIMESTAMPNS control message this works alike for 32- and 64-bit time and under
        // qemu-user, which does not pass that option on.
        timespec none{};
        ::ioctl(fd, SIOCGSTAMPNS, &none);
        const int buffer = 4 << 20;
        ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
    }
    ~UdpStation() { ::close(fd); }
    UdpStation(const UdpStation &) = delete;
    UdpStation &operator=(const UdpStation &) = delete;

    quint16 port() const
    {
        sockaddr_in address{};
        socklen_t length = sizeof(address);
        ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
        return ntohs(address.sin_port);
    }

    void sendTo(quint16 port, const QByteArray &bytes) const
    {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        to.sin_port = htons(port);
        ::sendto(fd, bytes.constData(), size_t(bytes.size()), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to));
    }

    std::optional<Received> receive(int timeoutMs) const
    {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) <= 0)
            return std::nullopt;
        static char buffer[65536];
        const ssize_t n = ::recv(fd, buffer, sizeof(buffer), 0);
        if (n < 0)
            return std::nullopt;
        Received r{QByteArray(buffer, int(n)), 0};
        timespec stamp{};
        if (::ioctl(fd, SIOCGSTAMPNS, &stamp) == 0)
            r.stampNs = qint64(stamp.tv_sec) * 1000000000 + stamp.tv_nsec;
        return r;
    }

    // True when nothing arrives within `quietMs`.
    bool silent(int quietMs = 150) const { return !receive(quietMs).has_value(); }

private:
    int fd = -1;
};

inline QByteArray datagram(quint8 source, quint8 destination, quint8 type, const QByteArray &body = {})
{
    QByteArray bytes;
    bytes.append(char(source)).append(char(destination)).append(char(type)).append(body);
    return bytes;
}

// A port that was free a moment ago.
inline quint16 freeUdpPort()
{
    UdpStation probe;
    return probe.port();
}

// The relay on a thread of its own, so that the test thread may block on station sockets.
class RelayThread
{
public:
    explicit RelayThread(quint16 port) : relay(new KestIntercomServer)
    {
        relay->setName(QStringLiteral("relay"));
        relay->setData({{QStringLiteral("port"), port}});
        relay->moveToThread(&thread);
        thread.start();
        run([this] { relay->start(); });
    }
    ~RelayThread()
    {
        run([this] {
            relay->stop();
            relay->moveToThread(QCoreApplication::instance()->thread());
        });
        thread.quit();
        thread.wait();
        delete relay;
    }

    template <typename F>
    void run(F &&f)
    {
        QMetaObject::invokeMethod(relay, std::forward<F>(f), Qt::BlockingQueuedConnection);
    }

    QList<int> stations()
    {
        QList<int> result;
        run([&] { result = relay->stations(); });
        return result;
    }

    KestIntercomServer *relay;
    QThread thread;
};
