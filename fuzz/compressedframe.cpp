// A compressed frame as an NDI receiver hands it over: every byte range it yields is copied, so
// AddressSanitizer sees any that leaves the frame (libFuzzer's input is exactly `size` bytes).
#include "fuzz/fuzzing.h"
#include "ndi/compressedframe.h"

#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    const CompressedFrame frame = readCompressedFrame(bytes, int(qMin<size_t>(size, INT_MAX)));
    if (!frame.isValid())
        return 0;
    FUZZ_EXPECT(frame.payloadSize > 0 && frame.extraSize >= 0);
    // Copied as a receiver copies them; AddressSanitizer checks the ranges of the copy.
    QByteArray copy(frame.payloadSize + frame.extraSize, Qt::Uninitialized);
    std::memcpy(copy.data(), frame.payload, size_t(frame.payloadSize));
    std::memcpy(copy.data() + frame.payloadSize, frame.extra, size_t(frame.extraSize));
    return 0;
}
