// A frame from the Tally Arbiter server: the Engine.IO open packet, or a Socket.IO packet with
// its event or acknowledgement data.
#include "fuzz/fuzzing.h"
#include "socketio/protocol.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    const QByteArray frame = QByteArray::fromRawData(reinterpret_cast<const char *>(bytes), int(size));
    SocketIO::Protocol protocol;
    SocketIO::HandShake handShake;
    protocol.decryptHandShake(frame, &handShake);
    SocketIO::Packet *packet = protocol.decrypt(frame);
    FUZZ_EXPECT(packet && packet->parent() == &protocol);
    packet->eventData();
    packet->ackData();
    return 0; // the protocol deletes the packet, its child
}
