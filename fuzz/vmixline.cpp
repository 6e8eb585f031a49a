// One line from a vMix switcher, as the tally node reads it off the socket.
#include "fuzz/fuzzing.h"
#include "tally/vmixline.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    const QByteArray line = QByteArray::fromRawData(reinterpret_cast<const char *>(bytes), int(size));
    const QString text = VMix::lineText(line);
    FUZZ_EXPECT(!text.contains(QChar(0)));
    if (const std::optional<QVariantList> tally = VMix::tally(text)) {
        for (const QVariant &value : *tally)
            FUZZ_EXPECT(value.toInt() >= 0 && value.toInt() <= 9);
    }
    return 0;
}
