#pragma once

// A node that keeps what reaches it downstream: packets (and copies of their bytes, taken on
// arrival), stream infos and events.

#include "kestobject.h"

class Recorder : public KestObject
{
public:
    QList<Packet> audio, video;
    QList<QByteArray> frames; // audio bytes
    QList<StreamInfo> infosA, infosV;
    QStringList events; // "type=value"

    void onNewPacketA(Packet p) override
    {
        audio << p;
        frames << QByteArray(p.data, p.len);
    }
    void onNewPacketV(Packet p) override { video << p; }
    void onNewInfoA(StreamInfo i) override { infosA << i; }
    void onNewInfoV(StreamInfo i) override { infosV << i; }
    void onNewEvent(QString type, QVariant info) override { events << type + '=' + info.toString(); }
};
