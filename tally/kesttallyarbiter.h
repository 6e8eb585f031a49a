#pragma once

#include "kestobject.h"
#include "socketio/client.h"

#include <QMap>
#include <QTimer>

// Listener client of a Tally Arbiter server: registers for one device, turns the device's bus
// states into a colour ("TA_color"), flashes and follows reassignment on the server's request.
//
// Settings: "ip" (string, "127.0.0.1"), "port" (int, 4455) - the server;
//           "deviceId" (string, "") - the device to follow; the server may reassign it;
//           "typeName" (string, "Encoder") - the listener type the server shows;
//           "reconnect" (bool, false) - open again after a lost connection or a failed
//           handshake, 1 s later and twice as long each time up to 30 s;
//           "followReassign" (bool, false) - on a reassign also register for the new device
//           and take only the followed device's states (the server keeps the old registration);
//           "busPriority" (bool, false) - the active bus with the highest priority gives the
//           colour, not the first in the server's order;
//           "darkOnLoss" (bool, false) - "#000000" once when a connected session ends.
// Events: "TA_color" (colour text), "TA_reassign" ({"deviceId", "deviceName"}).
class KestTallyArbiter : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit KestTallyArbiter(QObject *parent = nullptr);

public Q_SLOTS:
    void onStart() override;
    void onStop() override;
    void onSetData(QVariantMap newData) override;
    void onConnected();
    void onDisconnected();
    void onNewMessage(QString str);
    QVariant getDevices();
    void onTimerFlash();

private:
    void regist();
    void openClient();
    void showStates(const QVariant &states);
    void storeBusOptions(const QVariant &options);
    void reassign(const QVariant &ids);
    void flash();

    bool reconnectWanted() const;
    void onClientStateChanged(SocketIO::Client::State state);
    void onHandshakeFailed();
    void scheduleReconnect();

    SocketIO::Client client;
    QVariantList devices;
    bool connected = false;
    QMap<QString, QString> busColors;
    QMap<QString, double> busPriorities;
    QTimer flashTimer;
    int flashCount = 0;

    bool running = false; // opened by onStart() and not stopped since
    QTimer reconnectTimer;
    QTimer attemptTimer;  // an attempt that has not connected by now has failed
    int reconnectDelayMs;
};
