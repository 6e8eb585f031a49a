#pragma once

// The peers of every intercom test, all on 127.0.0.1 and on the test thread: the real relay,
// plain UDP sockets that play stations, and started station nodes.

#include "intercom/udpstation.h"

#include "intercom/datagram.h"
#include "intercom/kestintercom.h"
#include "intercom/kestintercomserver.h"
#include "kesthi.h"

#include <memory>
#include <vector>

class IntercomRig
{
public:
    IntercomRig() { relay.setData({{"port", port}}); relay.start(); }
    ~IntercomRig() { KestHi::setClockOffset(0); }

    // A started station; "hid" is off unless the settings name one.
    KestIntercom *station(const QVariantMap &settings)
    {
        stations.push_back(std::make_unique<KestIntercom>());
        stations.back()->setData({{"port", port}, {"hid", QString()}});
        stations.back()->setData(settings);
        stations.back()->start();
        return stations.back().get();
    }

    // Makes the relay file `number` at the address of a socket or a station.
    bool announce(UdpStation &raw, int number) { raw.sendTo(port, datagram(number, 254, Intercom::Alive)); return known(number); }
    bool announce(KestIntercom *node, int number) { node->onTimerKeepAlive(); return known(number); }
    bool known(int number) { return QTest::qWaitFor([&] { return relay.stations().contains(number); }, 5000); }

    // A local audio packet in the microphone's packet memory, with headroom for the header.
    Packet local(const QByteArray &bytes)
    {
        return {mic.bufferData(const_cast<char *>(bytes.constData()), bytes.size(), Intercom::kHeaderSize), bytes.size(), 0, -1, 3, &mic};
    }

    const quint16 port = freeUdpPort();
    KestIntercomServer relay;
    KestObject mic;
    std::vector<std::unique_ptr<KestIntercom>> stations;
};
