#include "ndi/ndiruntime.h"

#include "nodelog.h"

#include <QDir>
#include <QFile>

#include <atomic>

#include <dlfcn.h>

namespace {

const char kRuntimeFile[] = "libndi.so.5";
const char kRuntimeDirVariable[] = "NDI_RUNTIME_DIR_V5";

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
    void *handle = nullptr;
    const QString dir = QFile::decodeName(qgetenv(kRuntimeDirVariable));
    if (!dir.isEmpty()) {
        const QString path = QDir(dir).filePath(QString::fromLatin1(kRuntimeFile));
        handle = ::dlopen(QFile::encodeName(path).constData(), RTLD_NOW | RTLD_LOCAL);
        if (handle)
            loadedFrom = path;
        else
            tried << lastDlError();
    } else {
        tried << QStringLiteral("%1 is not set").arg(QLatin1String(kRuntimeDirVariable));
    }
    if (!handle) {
        handle = ::dlopen(kRuntimeFile, RTLD_NOW | RTLD_LOCAL);
        if (handle)
            loadedFrom = QString::fromLatin1(kRuntimeFile);
        else
            tried << lastDlError();
    }
    if (!handle) {
        problemLine = QStringLiteral("NDI unavailable: cannot load %1 (%2)")
                          .arg(QLatin1String(kRuntimeFile), tried.join(QStringLiteral("; ")));
        return;
    }
    available = resolve(handle);
    if (!available) {
        problemLine = QStringLiteral("NDI unavailable: %1 lacks %2").arg(loadedFrom, missing.join(QStringLiteral(", ")));
        fns = {};
        loadedFrom.clear();
        ::dlclose(handle);
        return;
    }
    if (missing.isEmpty())
        return;

    // A runtime without the Advanced SDK still serves whatever does not depend on it.
    QStringList effects;
    if (!fns.send_create_v2 || !fns.recv_create_v4)
        effects << QStringLiteral("the configuration file is not passed");
    if (!fns.send_is_keyframe_required)
        effects << QStringLiteral("key frames are not requested");
    if (!fns.send_send_video_scatter || !fns.send_send_audio_scatter)
        effects << QStringLiteral("compressed video and audio are not sent");
    problemLine = QStringLiteral("NDI runtime %1 lacks the Advanced SDK functions %2: %3")
                      .arg(loadedFrom, missing.join(QStringLiteral(", ")), effects.join(QStringLiteral(", ")));
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
