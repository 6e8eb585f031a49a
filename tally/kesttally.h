#pragma once

#include "kestobject.h"

#include <QByteArray>
#include <QVariant>

class KestGPIO;
class QSerialPort;

// Radio tally transmitter on a serial port. The module takes short frames telling each tally
// light its state (setTally) and this unit's number (setIndex), and AT configuration commands
// (sendAT) while a GPIO line holds it in command mode.
//
// Settings: "uart" (string, "/dev/ttyUSB0") - the serial device; "baudRate" (int, 9600);
// "gpio" (string, "GPIO0_3") - the line that puts the module into command mode at 0;
// "init" (string, "AT+C077") - AT command sent at every start, none when empty.
class KestTally : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit KestTally(QObject *parent = nullptr);

    // Checks a reply frame of the module and logs "check sum error" when it does not add up.
    // Replies are not used otherwise, so nothing calls this yet.
    bool dealCmd(const QByteArray &reply);

public Q_SLOTS:
    void onStart() override;
    void onStop() override;
    // `tally`: list of input states (0 off, 1 and 2 the two lit states); inputs 0..7 count.
    QVariant setTally(QVariant tally);
    // `num`: this unit's number, counted from 1.
    QVariant setIndex(QVariant num);
    // Sends `cmd` as it is (no line ending added) in command mode; blocks for about 300 ms.
    QVariant sendAT(QVariant cmd);
    void onRead();

private:
    bool writeData(quint8 cmd, const QByteArray &payload);

    QSerialPort *port;
    KestGPIO *gpio;
};
