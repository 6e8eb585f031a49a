#pragma once

// The NDI test runtime for benchmarks: it keeps no sent frames, and its per-connection log lines
// stay out of the figures.

#include "testruntime.h"

#include <QtGlobal>

#include <cstdio>

inline void useQuietNdiTestRuntime()
{
    qInstallMessageHandler([](QtMsgType type, const QMessageLogContext &, const QString &message) {
        if (type != QtDebugMsg)
            std::fprintf(stderr, "%s\n", qPrintable(message));
    });
    useNdiTestRuntime();
    kesttest_set_sent_frame_limit(0);
}
