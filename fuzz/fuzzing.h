#pragma once

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>

// Set-up shared by every fuzz target: an application object, as in the host, and silence.
// The units log what they reject and kest-run answers on stdout; libFuzzer reports on stderr.
extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    return std::freopen("/dev/null", "w", stdout) ? 0 : 1;
}

// A broken expectation is a finding: abort so that libFuzzer keeps the input.
#define FUZZ_EXPECT(condition) ((condition) ? void() : (std::fprintf(stderr, "expectation failed: %s\n", #condition), std::abort()))
