// A graph file as kest-run loads it: built, started and torn down again.
#include "fuzz/fuzzing.h"
#include "fuzz/fuzznode.h"
#include "tools/kest-run/runner.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    Runner runner;
    QString error;
    if (runner.load(QByteArray(reinterpret_cast<const char *>(bytes), int(size)), &error))
        runner.startNodes();
    else
        FUZZ_EXPECT(!error.isEmpty());
    return 0;
}
