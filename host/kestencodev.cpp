#include "kestencodev.h"

KestEncodeV::KestEncodeV(QObject *parent) : KestObject(parent) {}

QVariant KestEncodeV::idr()
{
    return {};
}
