#include "ndi/compressedframe.h"

#include <cstring>

namespace {

constexpr int kHeaderBytes = NDIlib_compressed_packet_version_0;

} // namespace

CompressedFrame readCompressedFrame(const uint8_t *data, int size)
{
    CompressedFrame frame;
    if (!data) {
        frame.problem = QStringLiteral("the frame has no data");
        return frame;
    }
    if (size < kHeaderBytes) {
        frame.problem = QStringLiteral("the frame size %1 cannot hold a %2-byte packet header").arg(size).arg(kHeaderBytes);
        return frame;
    }
    std::memcpy(&frame.header, data, sizeof(frame.header));
    const NDIlib_compressed_packet_t &h = frame.header;
    // A newer, longer header is fine: the payload starts after `version` bytes, whatever the
    // header holds beyond the fields known here.
    if (h.version < kHeaderBytes) {
        frame.problem = QStringLiteral("the packet header version %1 is smaller than %2 bytes").arg(h.version).arg(kHeaderBytes);
        return frame;
    }
    if (h.version > size) {
        frame.problem = QStringLiteral("the packet header version %1 is larger than the frame of %2 bytes").arg(h.version).arg(size);
        return frame;
    }
    // 64-bit sums: both sizes are unsigned 32-bit and may each be absurd.
    if (qint64(h.data_size) + qint64(h.extra_data_size) > qint64(size) - h.version) {
        frame.problem = QStringLiteral("payload %1 and extra data %2 bytes do not fit a frame of %3 bytes with a %4-byte header")
                            .arg(h.data_size)
                            .arg(h.extra_data_size)
                            .arg(size)
                            .arg(h.version);
        return frame;
    }
    if (h.data_size == 0) {
        frame.problem = QStringLiteral("the packet has no payload");
        return frame;
    }
    const char *bytes = reinterpret_cast<const char *>(data);
    frame.payload = bytes + h.version;
    frame.payloadSize = int(h.data_size);
    frame.extra = frame.payload + frame.payloadSize;
    frame.extraSize = int(h.extra_data_size);
    return frame;
}
