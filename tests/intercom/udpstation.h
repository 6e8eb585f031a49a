#pragma once

// A plain UDP endpoint on 127.0.0.1 that plays an intercom station or relay. Waiting for a
// datagram spins the event loop, so that a relay or station on the same thread keeps working.

#include <QNetworkDatagram>
#include <QTest>
#include <QUdpSocket>

#include <optional>

class UdpStation : public QUdpSocket
{
public:
    struct Received { QByteArray bytes; };
    UdpStation()
    {
        bind(QHostAddress(QHostAddress::LocalHost));
        setSocketOption(ReceiveBufferSizeSocketOption, 4 << 20); // a test may read a burst late
    }
    quint16 port() const { return localPort(); }
    void sendTo(quint16 port, const QByteArray &bytes) { writeDatagram(bytes, QHostAddress::LocalHost, port); }
    std::optional<Received> receive(int timeoutMs = 2000)
    {
        if (!QTest::qWaitFor([this] { return hasPendingDatagrams(); }, timeoutMs))
            return std::nullopt;
        return Received{receiveDatagram().data()};
    }
    QByteArray bytes(int timeoutMs = 2000) { return receive(timeoutMs).value_or(Received{"(nothing)"}).bytes; }
    bool silent() { return !receive(150); }
};

// A port that was free a moment ago.
inline quint16 freeUdpPort() { return UdpStation().port(); }

inline QByteArray datagram(int source, int destination, int type, const QByteArray &body = {})
{
    return QByteArray() + char(source) + char(destination) + char(type) + body;
}
