#pragma once

#include "kestobject.h"

// Base of the host's video encoder nodes.
class KestEncodeV : public KestObject
{
    Q_OBJECT
public:
    Q_INVOKABLE explicit KestEncodeV(QObject *parent = nullptr);

public Q_SLOTS:
    // Asks the encoder to make its next frame a key frame. The result carries no meaning.
    virtual QVariant idr();
};
