// Control lines as kest-run reads them from stdin, one per line, against a graph of two nodes.
#include "fuzz/fuzzing.h"
#include "fuzz/fuzznode.h"
#include "tools/kest-run/runner.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size)
{
    static const QByteArray graph = R"({"nodes":[{"name":"a","class":"FuzzNode"},{"name":"b","class":"FuzzNode"}],
                                       "links":[{"from":"a","to":"b","media":"audio"}]})";
    Runner runner;
    QString error;
    FUZZ_EXPECT(runner.load(graph, &error));
    runner.startNodes();
    const QByteArray input(reinterpret_cast<const char *>(bytes), int(size));
    for (const QByteArray &line : input.split('\n'))
        runner.handleLine(line);
    return 0;
}
