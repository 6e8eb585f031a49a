// The NDI functions of the test runtime, with the names and signatures libndi.so.5 exports.
// Built without KESTTEST_STANDARD_RUNTIME it also exports the Advanced SDK functions.

#include "ndiexports.h"
#include "network.h"

#include <chrono>
#include <cstring>
#include <type_traits>

#define KESTTEST_EXPORT extern "C" __attribute__((visibility("default")))

using kesttest::Frame;
using kesttest::Network;
using kesttest::Receiver;
using Clock = std::chrono::steady_clock;

namespace {

// Waits on the network's condition until `ready` holds or the time-out passes; false on
// time-out. A time-out of 0 does not wait at all.
template <typename Ready>
bool waitFor(Network &net, std::unique_lock<std::mutex> &lock, uint32_t timeoutMs, Ready ready)
{
    if (ready())
        return true;
    if (timeoutMs == 0)
        return false;
    if (timeoutMs == NDIlib_infinite_timeout_ms) {
        net.changed.wait(lock, ready);
        return true;
    }
    return net.changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), ready);
}

template <typename Match>
void release(Receiver *r, Match match)
{
    for (auto it = r->outstanding.begin(); it != r->outstanding.end(); ++it)
        if (match(**it)) {
            r->outstanding.erase(it);
            return;
        }
    ++r->badFrees;
}

} // namespace

KESTTEST_EXPORT bool NDIlib_initialize(void)
{
    auto &net = Network::get();
    auto lock = net.lock();
    ++net.initializeCalls;
    return true;
}

KESTTEST_EXPORT void NDIlib_destroy(void) {}

KESTTEST_EXPORT const char *NDIlib_version(void)
{
    return "NDI test runtime 5 (libndi.so.5 stand-in for tests)";
}

KESTTEST_EXPORT bool NDIlib_is_supported_CPU(void)
{
    return true;
}

// --- finders -------------------------------------------------------------------------------

KESTTEST_EXPORT NDIlib_find_instance_t NDIlib_find_create_v2(const NDIlib_find_create_t *p_create_settings)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return net.createFinder(p_create_settings, nullptr, false);
}

KESTTEST_EXPORT void NDIlib_find_destroy(NDIlib_find_instance_t p_instance)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (auto *f = net.finder(p_instance, __func__))
        net.destroyFinder(f);
}

KESTTEST_EXPORT const NDIlib_source_t *NDIlib_find_get_current_sources(NDIlib_find_instance_t p_instance, uint32_t *p_no_sources)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (p_no_sources)
        *p_no_sources = 0;
    auto *f = net.finder(p_instance, __func__);
    return f ? net.currentSources(*f, p_no_sources) : nullptr;
}

KESTTEST_EXPORT bool NDIlib_find_wait_for_sources(NDIlib_find_instance_t p_instance, uint32_t timeout_in_ms)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (!net.finder(p_instance, __func__))
        return false;
    return waitFor(net, lock, timeout_in_ms, [&] {
        const auto *f = net.finder(p_instance, nullptr);
        return f && f->seenGeneration != net.generation;
    });
}

// --- receivers -----------------------------------------------------------------------------

KESTTEST_EXPORT NDIlib_recv_instance_t NDIlib_recv_create_v3(const NDIlib_recv_create_v3_t *p_create_settings)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return net.createReceiver(p_create_settings, nullptr, false);
}

KESTTEST_EXPORT void NDIlib_recv_destroy(NDIlib_recv_instance_t p_instance)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (auto *r = net.receiver(p_instance, __func__))
        net.destroyReceiver(r);
}

KESTTEST_EXPORT void NDIlib_recv_connect(NDIlib_recv_instance_t p_instance, const NDIlib_source_t *p_src)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (auto *r = net.receiver(p_instance, __func__))
        net.connect(*r, p_src);
}

KESTTEST_EXPORT NDIlib_frame_type_e NDIlib_recv_capture_v3(NDIlib_recv_instance_t p_instance,
                                                           NDIlib_video_frame_v2_t *p_video_data,
                                                           NDIlib_audio_frame_v3_t *p_audio_data,
                                                           NDIlib_metadata_frame_t *p_metadata,
                                                           uint32_t timeout_in_ms)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (!net.receiver(p_instance, __func__))
        return NDIlib_frame_type_none;
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_in_ms);
    for (;;) {
        Receiver *r = net.receiver(p_instance, nullptr);
        if (!r)
            return NDIlib_frame_type_none;
        while (!r->queue.empty()) {
            std::unique_ptr<Frame> frame = std::move(r->queue.front());
            r->queue.pop_front();
            // Kinds the caller passed no struct for are discarded, as the runtime does.
            switch (frame->type) {
            case NDIlib_frame_type_video:
                if (!p_video_data)
                    continue;
                *p_video_data = frame->video;
                break;
            case NDIlib_frame_type_audio:
                if (!p_audio_data)
                    continue;
                *p_audio_data = frame->audio;
                break;
            case NDIlib_frame_type_metadata:
                if (!p_metadata)
                    continue;
                *p_metadata = frame->metadata;
                break;
            default:
                return frame->type;
            }
            const NDIlib_frame_type_e type = frame->type;
            r->outstanding.push_back(std::move(frame));
            return type;
        }
        if (timeout_in_ms == 0)
            return NDIlib_frame_type_none;
        if (timeout_in_ms == NDIlib_infinite_timeout_ms)
            net.changed.wait(lock);
        else if (net.changed.wait_until(lock, deadline) == std::cv_status::timeout && Clock::now() >= deadline) {
            Receiver *again = net.receiver(p_instance, nullptr);
            if (!again || again->queue.empty())
                return NDIlib_frame_type_none;
        }
    }
}

KESTTEST_EXPORT void NDIlib_recv_free_video_v2(NDIlib_recv_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *r = net.receiver(p_instance, __func__);
    if (!r || !p_video_data)
        return;
    release(r, [&](const Frame &f) {
        return f.type == NDIlib_frame_type_video && f.video.p_data == p_video_data->p_data
            && f.video.p_metadata == p_video_data->p_metadata;
    });
}

KESTTEST_EXPORT void NDIlib_recv_free_audio_v3(NDIlib_recv_instance_t p_instance, const NDIlib_audio_frame_v3_t *p_audio_data)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *r = net.receiver(p_instance, __func__);
    if (!r || !p_audio_data)
        return;
    release(r, [&](const Frame &f) {
        return f.type == NDIlib_frame_type_audio && f.audio.p_data == p_audio_data->p_data
            && f.audio.p_metadata == p_audio_data->p_metadata;
    });
}

KESTTEST_EXPORT void NDIlib_recv_free_metadata(NDIlib_recv_instance_t p_instance, const NDIlib_metadata_frame_t *p_metadata)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *r = net.receiver(p_instance, __func__);
    if (!r || !p_metadata)
        return;
    release(r, [&](const Frame &f) { return f.type == NDIlib_frame_type_metadata && f.metadata.p_data == p_metadata->p_data; });
}

KESTTEST_EXPORT bool NDIlib_recv_set_tally(NDIlib_recv_instance_t p_instance, const NDIlib_tally_t *p_tally)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *r = net.receiver(p_instance, __func__);
    if (!r || !p_tally)
        return false;
    // Kept while unconnected and applied on connection; the result says whether it went out.
    r->tally = *p_tally;
    net.changed.notify_all();
    return r->sender != nullptr;
}

KESTTEST_EXPORT int NDIlib_recv_get_no_connections(NDIlib_recv_instance_t p_instance)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *r = net.receiver(p_instance, __func__);
    return r && r->sender ? 1 : 0;
}

// --- senders -------------------------------------------------------------------------------

KESTTEST_EXPORT NDIlib_send_instance_t NDIlib_send_create(const NDIlib_send_create_t *p_create_settings)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return net.createSender(p_create_settings, nullptr, false);
}

KESTTEST_EXPORT void NDIlib_send_destroy(NDIlib_send_instance_t p_instance)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (auto *s = net.sender(p_instance, __func__))
        net.destroySender(s);
}

KESTTEST_EXPORT void NDIlib_send_send_video_v2(NDIlib_send_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *s = net.sender(p_instance, __func__);
    if (s && p_video_data)
        net.send(*s, KESTTEST_CALL_SEND_VIDEO_V2, p_video_data, nullptr, nullptr);
}

KESTTEST_EXPORT void NDIlib_send_send_audio_v3(NDIlib_send_instance_t p_instance, const NDIlib_audio_frame_v3_t *p_audio_data)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *s = net.sender(p_instance, __func__);
    if (s && p_audio_data)
        net.send(*s, KESTTEST_CALL_SEND_AUDIO_V3, nullptr, p_audio_data, nullptr);
}

KESTTEST_EXPORT void NDIlib_send_add_connection_metadata(NDIlib_send_instance_t p_instance, const NDIlib_metadata_frame_t *p_metadata)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *s = net.sender(p_instance, __func__);
    if (s && p_metadata)
        net.addConnectionMetadata(*s, *p_metadata);
}

KESTTEST_EXPORT void NDIlib_send_clear_connection_metadata(NDIlib_send_instance_t p_instance)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (auto *s = net.sender(p_instance, __func__))
        s->metadata.clear();
}

KESTTEST_EXPORT bool NDIlib_send_get_tally(NDIlib_send_instance_t p_instance, NDIlib_tally_t *p_tally, uint32_t timeout_in_ms)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (!net.sender(p_instance, __func__))
        return false;
    // "Changed" means: differs from what the previous call reported.
    const bool changed = waitFor(net, lock, timeout_in_ms, [&] {
        const auto *s = net.sender(p_instance, nullptr);
        if (!s)
            return true;
        const NDIlib_tally_t now = net.tallyOf(*s);
        return now.on_program != s->reportedTally.on_program || now.on_preview != s->reportedTally.on_preview;
    });
    auto *s = net.sender(p_instance, nullptr);
    if (!s)
        return false;
    s->reportedTally = net.tallyOf(*s);
    if (p_tally)
        *p_tally = s->reportedTally;
    return changed;
}

KESTTEST_EXPORT int NDIlib_send_get_no_connections(NDIlib_send_instance_t p_instance, uint32_t timeout_in_ms)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (!net.sender(p_instance, __func__))
        return 0;
    waitFor(net, lock, timeout_in_ms, [&] {
        const auto *s = net.sender(p_instance, nullptr);
        return !s || !s->receivers.empty();
    });
    const auto *s = net.sender(p_instance, nullptr);
    return s ? int(s->receivers.size()) : 0;
}

KESTTEST_EXPORT const NDIlib_source_t *NDIlib_send_get_source_name(NDIlib_send_instance_t p_instance)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *s = net.sender(p_instance, __func__);
    return s ? &s->source : nullptr;
}

// --- Advanced SDK --------------------------------------------------------------------------
#ifndef KESTTEST_STANDARD_RUNTIME

KESTTEST_EXPORT NDIlib_find_instance_t NDIlib_find_create_v3(const NDIlib_find_create_t *p_create_settings, const char *p_config_data)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return net.createFinder(p_create_settings, p_config_data, true);
}

KESTTEST_EXPORT NDIlib_recv_instance_t NDIlib_recv_create_v4(const NDIlib_recv_create_v3_t *p_create_settings, const char *p_config_data)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return net.createReceiver(p_create_settings, p_config_data, true);
}

KESTTEST_EXPORT NDIlib_send_instance_t NDIlib_send_create_v2(const NDIlib_send_create_t *p_create_settings, const char *p_config_data)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return net.createSender(p_create_settings, p_config_data, true);
}

KESTTEST_EXPORT bool NDIlib_send_is_keyframe_required(NDIlib_send_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *s = net.sender(p_instance, __func__);
    return s && net.keyframeRequired(*s, p_video_data);
}

KESTTEST_EXPORT void NDIlib_send_send_video_scatter(NDIlib_send_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data,
                                                    const NDIlib_frame_scatter_t *p_video_scatter)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *s = net.sender(p_instance, __func__);
    if (s && p_video_data)
        net.send(*s, KESTTEST_CALL_SEND_VIDEO_SCATTER, p_video_data, nullptr, p_video_scatter);
}

KESTTEST_EXPORT void NDIlib_send_send_audio_scatter(NDIlib_send_instance_t p_instance, const NDIlib_audio_frame_v3_t *p_audio_data,
                                                    const NDIlib_frame_scatter_t *p_audio_scatter)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *s = net.sender(p_instance, __func__);
    if (s && p_audio_data)
        net.send(*s, KESTTEST_CALL_SEND_AUDIO_SCATTER, nullptr, p_audio_data, p_audio_scatter);
}

static_assert(std::is_same<decltype(&NDIlib_find_create_v3), NDIlib_find_create_v3_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_recv_create_v4), NDIlib_recv_create_v4_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_create_v2), NDIlib_send_create_v2_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_is_keyframe_required), NDIlib_send_is_keyframe_required_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_send_video_scatter), NDIlib_send_send_video_scatter_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_send_audio_scatter), NDIlib_send_send_audio_scatter_fn>::value, "signature");

#endif

// The exports match the pointer types the library resolves them as.
static_assert(std::is_same<decltype(&NDIlib_initialize), NDIlib_initialize_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_destroy), NDIlib_destroy_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_version), NDIlib_version_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_find_create_v2), NDIlib_find_create_v2_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_find_destroy), NDIlib_find_destroy_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_find_get_current_sources), NDIlib_find_get_current_sources_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_find_wait_for_sources), NDIlib_find_wait_for_sources_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_recv_create_v3), NDIlib_recv_create_v3_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_recv_destroy), NDIlib_recv_destroy_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_recv_connect), NDIlib_recv_connect_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_recv_capture_v3), NDIlib_recv_capture_v3_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_recv_free_video_v2), NDIlib_recv_free_video_v2_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_recv_free_audio_v3), NDIlib_recv_free_audio_v3_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_recv_free_metadata), NDIlib_recv_free_metadata_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_recv_set_tally), NDIlib_recv_set_tally_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_recv_get_no_connections), NDIlib_recv_get_no_connections_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_create), NDIlib_send_create_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_destroy), NDIlib_send_destroy_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_send_video_v2), NDIlib_send_send_video_v2_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_send_audio_v3), NDIlib_send_send_audio_v3_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_add_connection_metadata), NDIlib_send_add_connection_metadata_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_clear_connection_metadata), NDIlib_send_clear_connection_metadata_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_get_tally), NDIlib_send_get_tally_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_get_no_connections), NDIlib_send_get_no_connections_fn>::value, "signature");
static_assert(std::is_same<decltype(&NDIlib_send_get_source_name), NDIlib_send_get_source_name_fn>::value, "signature");
