#include "ndi/ndiruntime.h"

#include "nodelog.h"

#include <QDir>
#include <QFile>

#include <atomic>

#include <dlfcn.h>

namespace {

// Where the runtime is looked for, in order. NDI 6 keeps the version 5 functions, so it serves
// when no version 5 runtime is installed; its Advanced build has a file name of its own.
struct Candidate
{
    const char *dirVariable; // nullptr: the dynamic loader's search path
    const char *file;
};
const Candidate kCandidates[] = {
    {"NDI_RUNTIME_DIR_V5", "libndi.so.5"},
    {nullptr, "libndi.so.5"},
    {"NDI_RUNTIME_DIR_V6", "libndi_advanced.so.6"},
    {"NDI_RUNTIME_DIR_V6", "libndi.so.6"},
    {nullptr, "libndi_advanced.so.6"},
    {nullptr, "libndi.so.6"},
};

template <typename F>
bool bind(void *handle, const char *name, F &slot, QStringList &missing)
{
    slot = reinterpret_cast<F>(::dlsym(handle, name));
    if (!slot)
        missing << QString::fromLatin1(name);
    return slot != nullptr;
}

QString lastDlError()
{
    const char *error = ::dlerror();
    return error ? QString::fromLocal8Bit(error) : QStringLiteral("unknown error");
}

} // namespace

const NdiRuntime &NdiRuntime::instance()
{
    // Function-local static: the compiler makes the first call load once, thread-safely.
    static const NdiRuntime runtime;
    return runtime;
}

NdiRuntime::NdiRuntime()
{
    QStringList tried;
    for (const Candidate &candidate : kCandidates) {
        QString path = QString::fromLatin1(candidate.file);
        if (candidate.dirVariable) {
            const QString dir = QFile::decodeName(qgetenv(candidate.dirVariable));
            if (dir.isEmpty()) {
                const QString unset = QStringLiteral("%1 is not set").arg(QLatin1String(candidate.dirVariable));
                if (!tried.contains(unset))
                    tried << unset;
                continue;
            }
            path = QDir(dir).filePath(path);
        }
        void *handle = ::dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            tried << lastDlError();
            continue;
        }
        loadedFrom = path;
        missing.clear();
        if (resolve(handle)) {
            available = true;
            break;
        }
        // Not an NDI runtime after all: the next candidate may be one.
        tried << QStringLiteral("%1 lacks %2").arg(path, missing.join(QStringLiteral(", ")));
        fns = {};
        ::dlclose(handle);
    }
    if (!available) {
        loadedFrom.clear();
        missing.clear();
        problemLine = QStringLiteral("NDI unavailable: cannot load libndi.so.5 or libndi.so.6 (%1)").arg(tried.join(QStringLiteral("; ")));
        return;
    }

    QStringList notes;
    if (!loadedFrom.endsWith(QLatin1String(kCandidates[0].file)))
        notes << QStringLiteral("NDI runtime %1 in use through its version 5 functions, as no version 5 runtime was found (%2)")
                     .arg(loadedFrom, tried.join(QStringLiteral("; ")));
    // A runtime without the Advanced SDK still serves whatever does not depend on it.
    if (!missing.isEmpty()) {
        QStringList effects;
        if (!fns.send_create_v2 || !fns.recv_create_v4)
            effects << QStringLiteral("the configuration file is not passed");
        if (!fns.send_is_keyframe_required)
            effects << QStringLiteral("key frames are not requested");
        if (!fns.send_send_video_scatter || !fns.send_send_audio_scatter)
            effects << QStringLiteral("compressed video and audio are not sent");
        notes << QStringLiteral("NDI runtime %1 lacks the Advanced SDK functions %2: %3")
                     .arg(loadedFrom, missing.join(QStringLiteral(", ")), effects.join(QStringLiteral(", ")));
    }
    problemLine = notes.join(QStringLiteral("; "));
}

bool NdiRuntime::resolve(void *handle)
{
    bool standard = true;
    standard &= bind(handle, "NDIlib_initialize", fns.initialize, missing);
    standard &= bind(handle, "NDIlib_find_create_v2", fns.find_create_v2, missing);
    standard &= bind(handle, "NDIlib_find_get_current_sources", fns.find_get_current_sources, missing);
    standard &= bind(handle, "NDIlib_find_destroy", fns.find_destroy, missing);
    standard &= bind(handle, "NDIlib_recv_create_v3", fns.recv_create_v3, missing);
    standard &= bind(handle, "NDIlib_recv_connect", fns.recv_connect, missing);
    standard &= bind(handle, "NDIlib_recv_capture_v3", fns.recv_capture_v3, missing);
    standard &= bind(handle, "NDIlib_recv_free_video_v2", fns.recv_free_video_v2, missing);
    standard &= bind(handle, "NDIlib_recv_free_audio_v3", fns.recv_free_audio_v3, missing);
    standard &= bind(handle, "NDIlib_recv_set_tally", fns.recv_set_tally, missing);
    standard &= bind(handle, "NDIlib_recv_destroy", fns.recv_destroy, missing);
    standard &= bind(handle, "NDIlib_send_create", fns.send_create, missing);
    standard &= bind(handle, "NDIlib_send_add_connection_metadata", fns.send_add_connection_metadata, missing);
    standard &= bind(handle, "NDIlib_send_get_tally", fns.send_get_tally, missing);
    standard &= bind(handle, "NDIlib_send_destroy", fns.send_destroy, missing);
    if (!standard)
        return false;
    bind(handle, "NDIlib_recv_create_v4", fns.recv_create_v4, missing);
    bind(handle, "NDIlib_send_create_v2", fns.send_create_v2, missing);
    bind(handle, "NDIlib_send_is_keyframe_required", fns.send_is_keyframe_required, missing);
    bind(handle, "NDIlib_send_send_video_scatter", fns.send_send_video_scatter, missing);
    bind(handle, "NDIlib_send_send_audio_scatter", fns.send_send_audio_scatter, missing);
    return true;
}

void NdiRuntime::reportProblemOnce(const KestObject *node) const
{
    static std::atomic<bool> reported{false};
    if (problemLine.isEmpty() || reported.exchange(true))
        return;
    nodeLog(node) << problemLine;
}
