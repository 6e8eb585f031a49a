#pragma once

#include "intercom/datagram.h"
#include "intercom/framequeue.h"
#include "kestobject.h"

#include <QHostAddress>

#include <array>
#include <deque>
#include <map>

class QSocketNotifier;
class QTimer;
class QUdpSocket;

// One intercom station. The local microphone arrives as PCM packets (onNewPacketA); a voice
// gate decides which of them go to the relay; every local packet also clocks one mixing step
// that plays the other stations' queued audio downstream (sendPacketA), in the format of the
// local stream. The station announces itself every 3 s, keeps a roster of the stations it
// hears, carries "TALLY" commands between stations and the host, and opens its voice gate when
// a key of a USB headset is released.
//
// Settings:
//   "did"  (int, 1)            own station number (low 8 bits)
//   "tid"  (int, 1)            where the audio goes (low 8 bits; 255: every other station)
//   "ip"   (string, 127.0.0.1) relay address      "port" (int, 1234) relay UDP port
//   "name" (string, "")        sent in the alive datagram, cut to 253 UTF-8 bytes
//   "buf"  (int, 8)            jitter depth in frames; a station's queue holds 2 x "buf"
//   "vad"  (int, 50)           voice gate threshold in dB; 0: send everything; negative: the
//                              gate opens only by the headset, threshold 65
//   "hid"  (string, /dev/input/event0)  headset input device; "" or no key: no headset
//   "bufLenA" (int, 8)         pre-roll depth in packets     "memSize" (int, 4096000)
// The sample width is "bitwidth" (8 or 16) of the audio stream description.
class KestIntercom : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit KestIntercom(QObject *parent = nullptr);
    ~KestIntercom() override;

    static int vol2db(int v);

    // Handles one received datagram (onRead calls it for each). Queued audio frames point into
    // the datagram, so it must stay valid while queued: onRead reads into packet memory.
    void handleDatagram(char *datagram, int size);

    // For tests and benchmarks.
    int queuedFrames(int station) const;
    bool isGateOpen() const { return gateOpen; }
    bool isHeadsetOpen() const { return headsetOpen; }

public Q_SLOTS:
    void send(Packet pkt);
    void onStart() override;
    void onStop() override;
    void onSetData(QVariantMap) override;
    void onNewPacketA(Packet pkt) override;
    void onNewInfoA(StreamInfo info) override;
    void doVad(Packet pkt);
    void onTimerKeepAlive();
    void onTimerMix();
    void onRead();
    void mix(Packet src1, Packet src2, Packet dst);
    void mix8(Packet src1, Packet src2, Packet dst);
    QVariant getState();
    QVariant sendCmd(QVariant cmd);
    void onNewCmd(QString func, QVariant data);
    void onNewEvent(QString type, QVariant info) override;
    void onHidRead();

private:
    struct Channel
    {
        bool talking = false; // heard in the mix right now
        qint64 lastAlive = 0; // 0 until the station's first alive datagram
        QString name;
        FrameQueue packets;
    };

    bool writeToRelay(const char *datagram, int size);
    int jitterDepth() const;
    bool eightBit() const;
    void openHeadset(const QString &path);
    void closeHeadset();

    Intercom::Header audioHeader{1, 1, Intercom::Audio}; // own number, partner, type
    QHostAddress relayAddress;
    quint16 relayPort = 0;
    QString relayText;     // "ip" and "port" as last read, so that bad values are logged once
    QString relayPortText;

    QUdpSocket *socket;
    QTimer *keepAliveTimer;
    QTimer *mixTimer;

    std::array<char, Intercom::kAliveBufferSize> alive{};
    int aliveLength = 0;

    // The host has no way to read its started flag back, so the station keeps its own:
    // datagrams, events and microphone packets are ignored while it is stopped.
    bool started = false;

    std::map<int, Channel> roster;
    int threshold = 0;

    bool gateOpen = false;
    std::deque<quint8> history; // one voice decision (0 or 1) per local packet, oldest first
    int historySum = 0;

    QSocketNotifier *headset = nullptr;
    bool headsetOpen = false;
};
