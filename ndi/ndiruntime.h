#pragma once

#include "ndi/ndiabi.h"

#include <QString>
#include <QStringList>

class KestObject;

// The NDI functions the nodes call. A null member: the loaded runtime does not export it.
struct NdiFunctions
{
    // Standard runtime: all of them are needed; without one the runtime is not used at all.
    NDIlib_initialize_fn initialize = nullptr;
    NDIlib_find_create_v2_fn find_create_v2 = nullptr;
    NDIlib_find_get_current_sources_fn find_get_current_sources = nullptr;
    NDIlib_find_destroy_fn find_destroy = nullptr;
    NDIlib_recv_create_v3_fn recv_create_v3 = nullptr;
    NDIlib_recv_connect_fn recv_connect = nullptr;
    NDIlib_recv_capture_v3_fn recv_capture_v3 = nullptr;
    NDIlib_recv_free_video_v2_fn recv_free_video_v2 = nullptr;
    NDIlib_recv_free_audio_v3_fn recv_free_audio_v3 = nullptr;
    NDIlib_recv_set_tally_fn recv_set_tally = nullptr;
    NDIlib_recv_destroy_fn recv_destroy = nullptr;
    NDIlib_send_create_fn send_create = nullptr;
    NDIlib_send_add_connection_metadata_fn send_add_connection_metadata = nullptr;
    NDIlib_send_get_tally_fn send_get_tally = nullptr;
    NDIlib_send_destroy_fn send_destroy = nullptr;

    // Advanced SDK: each may be missing; the nodes then do without what it gives.
    NDIlib_recv_create_v4_fn recv_create_v4 = nullptr;
    NDIlib_send_create_v2_fn send_create_v2 = nullptr;
    NDIlib_send_is_keyframe_required_fn send_is_keyframe_required = nullptr;
    NDIlib_send_send_video_scatter_fn send_send_video_scatter = nullptr;
    NDIlib_send_send_audio_scatter_fn send_send_audio_scatter = nullptr;
};

// The NDI runtime, loaded once per process on first use: libndi.so.5 from the directory named by
// $NDI_RUNTIME_DIR_V5, else through the dynamic loader's search path; without one, the NDI 6
// runtime (libndi_advanced.so.6, then libndi.so.6) from $NDI_RUNTIME_DIR_V6, else through the
// loader's path, used through the version 5 functions it keeps. The first file that has every
// standard function is used; it is never unloaded.
class NdiRuntime
{
public:
    // Thread-safe; the first call loads and resolves, later calls return the same object.
    static const NdiRuntime &instance();

    // True when every standard function was found; functions() is then usable.
    bool isAvailable() const { return available; }
    const NdiFunctions &functions() const { return fns; }

    // The file that was loaded ("" when none).
    QString fileName() const { return loadedFrom; }
    // Exported functions that are missing: standard ones make the runtime unavailable,
    // Advanced ones only switch features off.
    QStringList missingFunctions() const { return missing; }
    // One line worth logging: what was tried when nothing could be loaded, the NDI 6 runtime
    // in use when no version 5 runtime was found, what is missing and what that means; empty
    // when the version 5 runtime has everything.
    QString problem() const { return problemLine; }

    // Logs problem() through `node` the first time any node of the process calls it; later
    // calls, and calls when there is no problem, log nothing.
    void reportProblemOnce(const KestObject *node) const;

    NdiRuntime(const NdiRuntime &) = delete;
    NdiRuntime &operator=(const NdiRuntime &) = delete;

private:
    NdiRuntime();
    bool resolve(void *handle);

    NdiFunctions fns;
    bool available = false;
    QString loadedFrom;
    QStringList missing;
    QString problemLine;
};
