#pragma once

// A plain UDP endpoint on 127.0.0.1 that plays an intercom station or relay.

#include <QByteArray>

#include <optional>

#include <arpa/inet.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <poll.h>
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
        const sockaddr_in address = loopback(0);
        ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
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
        const sockaddr_in to = loopback(port);
        ::sendto(fd, bytes.constData(), size_t(bytes.size()), 0, reinterpret_cast<const sockaddr *>(&to), sizeof(to));
    }

    std::optional<Received> receive(int timeoutMs = 2000) const
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
    QByteArray bytes(int timeoutMs = 2000) const { return receive(timeoutMs).value_or(Received{"(nothing)"}).bytes; }

    // True when nothing arrives within `quietMs`.
    bool silent(int quietMs = 150) const { return !receive(quietMs).has_value(); }

private:
    static sockaddr_in loopback(quint16 port)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        return address;
    }

    int fd = -1;
};

inline QByteArray datagram(quint8 source, quint8 destination, quint8 type, const QByteArray &body = {})
{
    return QByteArray() + char(source) + char(destination) + char(type) + body;
}

// A port that was free a moment ago.
inline quint16 freeUdpPort()
{
    return UdpStation().port();
}

