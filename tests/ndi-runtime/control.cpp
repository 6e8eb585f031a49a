// The test-only control interface declared in kesttest.h.

#include "kesttest.h"
#include "network.h"

#include <algorithm>
#include <cstring>

#define KESTTEST_EXPORT extern "C" __attribute__((visibility("default")))

using kesttest::Frame;
using kesttest::Network;

namespace {

template <typename T, typename H>
H at(const std::vector<std::unique_ptr<T>> &list, int index)
{
    if (index < 0 || index >= int(list.size()))
        return nullptr;
    return reinterpret_cast<H>(list[size_t(index)].get());
}

const char *nullable(const std::string &text, bool isNull)
{
    return isNull ? nullptr : text.c_str();
}

// Copies `size` bytes of `data` into the frame, keeping a NULL pointer NULL.
uint8_t *copyPayload(Frame &frame, const uint8_t *data, int size)
{
    if (!data)
        return nullptr;
    const size_t n = size > 0 ? size_t(size) : 0;
    frame.payload.reset(new uint8_t[std::max<size_t>(n, 1)]);
    if (n > 0)
        std::memcpy(frame.payload.get(), data, n);
    return frame.payload.get();
}

} // namespace

KESTTEST_EXPORT const char *kesttest_machine_name(void)
{
    return Network::get().machine.c_str();
}

KESTTEST_EXPORT int kesttest_initialize_calls(void)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return net.initializeCalls;
}

KESTTEST_EXPORT void kesttest_fail_next_creates(int kind, int count)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (kind >= 1 && kind <= 3)
        net.failNext[kind] = std::max(count, 0);
}

// --- senders -------------------------------------------------------------------------------

KESTTEST_EXPORT int kesttest_sender_count(void)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return int(net.senders.size());
}

KESTTEST_EXPORT NDIlib_send_instance_t kesttest_sender_at(int index)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return at<kesttest::Sender, NDIlib_send_instance_t>(net.senders, index);
}

KESTTEST_EXPORT NDIlib_send_instance_t kesttest_sender_by_name(const char *name)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (!name)
        return nullptr;
    for (const auto &s : net.senders)
        if (s->sourceName == name || s->ndiName == name)
            return reinterpret_cast<NDIlib_send_instance_t>(s.get());
    return nullptr;
}

KESTTEST_EXPORT int kesttest_senders_created(void)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return net.sendersCreated;
}

KESTTEST_EXPORT bool kesttest_sender_info(NDIlib_send_instance_t sender, kesttest_sender_info_t *out)
{
    auto &net = Network::get();
    auto lock = net.lock();
    const auto *s = net.sender(sender, nullptr);
    if (!s || !out)
        return false;
    *out = {};
    out->p_ndi_name = s->ndiName.c_str();
    out->p_source_name = s->sourceName.c_str();
    out->p_groups = nullable(s->groups, s->groupsNull);
    out->clock_video = s->clockVideo;
    out->clock_audio = s->clockAudio;
    out->created_with_config = s->withConfig;
    out->p_config = nullable(s->config, s->configNull);
    out->no_connections = int(s->receivers.size());
    out->tally = net.tallyOf(*s);
    out->keyframe_required_high = s->keyframeHigh;
    out->keyframe_required_low = s->keyframeLow;
    out->no_connection_metadata = int(s->metadata.size());
    out->video_frames = s->videoFrames;
    out->audio_frames = s->audioFrames;
    out->dropped_frames = s->droppedFrames;
    return true;
}

KESTTEST_EXPORT bool kesttest_sender_connection_metadata(NDIlib_send_instance_t sender, int index, NDIlib_metadata_frame_t *out)
{
    auto &net = Network::get();
    auto lock = net.lock();
    const auto *s = net.sender(sender, nullptr);
    if (!s || !out || index < 0 || index >= int(s->metadata.size()))
        return false;
    *out = s->metadata[size_t(index)]->frame;
    return true;
}

KESTTEST_EXPORT int kesttest_sent_frame_count(NDIlib_send_instance_t sender)
{
    auto &net = Network::get();
    auto lock = net.lock();
    const auto *s = net.sender(sender, nullptr);
    return s ? int(s->sent.size()) : 0;
}

KESTTEST_EXPORT bool kesttest_sent_frame(NDIlib_send_instance_t sender, int index, kesttest_sent_frame_t *out)
{
    auto &net = Network::get();
    auto lock = net.lock();
    const auto *s = net.sender(sender, nullptr);
    if (!s || !out || index < 0 || index >= int(s->sent.size()))
        return false;
    const kesttest::SentRecord &rec = *s->sent[size_t(index)];
    *out = {};
    out->call = rec.call;
    out->type = rec.type;
    out->video = rec.video;
    out->audio = rec.audio;
    out->accepted = rec.dropReason == nullptr;
    out->p_drop_reason = rec.dropReason;
    out->p_bytes = rec.bytes.data();
    out->no_bytes = int(rec.bytes.size());
    out->no_blocks = int(rec.blocks.size());
    out->p_blocks = rec.blocks.data();
    out->p_block_sizes = rec.blockSizes.data();
    return true;
}

KESTTEST_EXPORT void kesttest_clear_sent_frames(NDIlib_send_instance_t sender)
{
    auto &net = Network::get();
    auto lock = net.lock();
    if (auto *s = net.sender(sender, nullptr))
        s->sent.clear();
}

KESTTEST_EXPORT void kesttest_set_sent_frame_limit(int frames)
{
    auto &net = Network::get();
    auto lock = net.lock();
    net.sentFrameLimit = frames < 0 ? -1 : frames;
}

// --- receivers -----------------------------------------------------------------------------

KESTTEST_EXPORT int kesttest_receiver_count(void)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return int(net.receivers.size());
}

KESTTEST_EXPORT NDIlib_recv_instance_t kesttest_receiver_at(int index)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return at<kesttest::Receiver, NDIlib_recv_instance_t>(net.receivers, index);
}

KESTTEST_EXPORT bool kesttest_receiver_info(NDIlib_recv_instance_t receiver, kesttest_receiver_info_t *out)
{
    auto &net = Network::get();
    auto lock = net.lock();
    const auto *r = net.receiver(receiver, nullptr);
    if (!r || !out)
        return false;
    *out = {};
    out->p_recv_name = nullable(r->name, r->nameNull);
    out->p_source_name = nullable(r->wantedName, !r->wantsSource);
    out->p_url_address = nullable(r->wantedUrl, r->urlNull);
    out->color_format = r->colorFormat;
    out->bandwidth = r->bandwidth;
    out->allow_video_fields = r->allowFields;
    out->created_with_config = r->withConfig;
    out->p_config = nullable(r->config, r->configNull);
    out->connected = r->sender != nullptr;
    out->tally = r->tally;
    out->queued_frames = int(r->queue.size());
    out->outstanding_frames = int(r->outstanding.size());
    out->bad_frees = r->badFrees;
    out->dropped_frames = r->droppedFrames;
    return true;
}

KESTTEST_EXPORT bool kesttest_receiver_inject_video(NDIlib_recv_instance_t receiver, const NDIlib_video_frame_v2_t *frame, int no_bytes)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *r = net.receiver(receiver, nullptr);
    if (!r || !frame)
        return false;
    auto f = std::make_unique<Frame>();
    f->type = NDIlib_frame_type_video;
    f->video = *frame;
    f->video.p_data = copyPayload(*f, frame->p_data, no_bytes);
    f->text = frame->p_metadata ? frame->p_metadata : "";
    f->video.p_metadata = frame->p_metadata ? f->text.c_str() : nullptr;
    net.enqueue(*r, std::move(f));
    return true;
}

KESTTEST_EXPORT bool kesttest_receiver_inject_audio(NDIlib_recv_instance_t receiver, const NDIlib_audio_frame_v3_t *frame, int no_bytes)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *r = net.receiver(receiver, nullptr);
    if (!r || !frame)
        return false;
    auto f = std::make_unique<Frame>();
    f->type = NDIlib_frame_type_audio;
    f->audio = *frame;
    f->audio.p_data = copyPayload(*f, frame->p_data, no_bytes);
    f->text = frame->p_metadata ? frame->p_metadata : "";
    f->audio.p_metadata = frame->p_metadata ? f->text.c_str() : nullptr;
    net.enqueue(*r, std::move(f));
    return true;
}

KESTTEST_EXPORT bool kesttest_receiver_inject_metadata(NDIlib_recv_instance_t receiver, const char *text)
{
    auto &net = Network::get();
    auto lock = net.lock();
    auto *r = net.receiver(receiver, nullptr);
    if (!r || !text)
        return false;
    auto f = std::make_unique<Frame>();
    f->type = NDIlib_frame_type_metadata;
    f->text = text;
    f->metadata.length = int(f->text.size() + 1);
    f->metadata.timecode = NDIlib_send_timecode_synthesize;
    net.enqueue(*r, std::move(f));
    return true;
}

KESTTEST_EXPORT bool kesttest_receiver_inject(NDIlib_recv_instance_t receiver, NDIlib_frame_type_e type)
{
    if (type != NDIlib_frame_type_error && type != NDIlib_frame_type_status_change)
        return false;
    auto &net = Network::get();
    auto lock = net.lock();
    auto *r = net.receiver(receiver, nullptr);
    if (!r)
        return false;
    auto f = std::make_unique<Frame>();
    f->type = type;
    net.enqueue(*r, std::move(f));
    return true;
}

// --- finders -------------------------------------------------------------------------------

KESTTEST_EXPORT int kesttest_finder_count(void)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return int(net.finders.size());
}

KESTTEST_EXPORT int kesttest_finders_created(void)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return net.findersCreated;
}

KESTTEST_EXPORT int kesttest_source_queries(void)
{
    auto &net = Network::get();
    auto lock = net.lock();
    return net.sourceQueries;
}
