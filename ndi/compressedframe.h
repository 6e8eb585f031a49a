#pragma once

#include "ndi/ndiabi.h"

#include <QString>

// A received compressed NDI frame (H.264, HEVC, AAC): the packet header, then `data_size` bytes
// of payload, then `extra_data_size` bytes of codec configuration, all inside the frame's
// `data_size_in_bytes`. Pure: a pointer and a size in, byte ranges out.
struct CompressedFrame
{
    NDIlib_compressed_packet_t header{}; // the 44 bytes this layout knows
    const char *payload = nullptr;       // header.version bytes after the start of the frame
    int payloadSize = 0;
    const char *extra = nullptr;         // right behind the payload
    int extraSize = 0;
    QString problem;                     // why the frame is unusable; empty when it is usable

    bool isValid() const { return problem.isEmpty(); }
};

// Reads the frame at `data` of `size` bytes (the frame's data_size_in_bytes). Never reads a
// byte outside [data, data + size): a frame whose header claims more than that, whose header
// is shorter than the layout above, or that has no payload comes back with a problem.
CompressedFrame readCompressedFrame(const uint8_t *data, int size);
