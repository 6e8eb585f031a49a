#pragma once

#include "kestobject.h"

class QTcpSocket;
class QTimer;

// Follows a vMix switcher's tally over its TCP API: keeps a connection, subscribes to the tally
// feed and sends every tally line to the host as the event "TALLY" (a list of ints, element i
// for switcher input i + 1, passed on as the switcher sent them). Retries every 5 s while the
// switcher cannot be reached; the connection is governed by onSetData alone.
//
// Settings: "ip" (string, none) - the switcher's IPv4 or IPv6 address (no name look-up);
// "port" (int, 8099) - the TCP API port, low 16 bits;
// "queryOnConnect" (bool, false) - ask for the current tally once the subscription is taken.
class KestVMix : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit KestVMix(QObject *parent = nullptr);

public Q_SLOTS:
    void onSetData(QVariantMap settings) override;
    void onConnected();
    void onRead();
    void onDisconnect();
    void onTimer();

private:
    void dealMessage(const QString &line);
    void discardSocket();

    QTimer *timer;
    QTcpSocket *socket = nullptr;
};
