// The NDI test runtime: an in-process "network" of the senders, receivers and finders made
// through its NDI functions, the rules by which frames travel between them, and the kesttest_*
// control functions. One lock guards all of it. Built without KESTTEST_STANDARD_RUNTIME it also
// exports the Advanced SDK functions.

#include "kesttest.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include <unistd.h>

#define KESTTEST_EXPORT extern "C" __attribute__((visibility("default")))
// The exports match the pointer types the library resolves them as.
#define KESTTEST_SIGNATURE(name) static_assert(std::is_same<decltype(&NDIlib_##name), NDIlib_##name##_fn>::value, #name)

namespace {

// A C string that may be NULL, kept.
struct Text
{
    Text(const char *p = nullptr) : isNull(!p), text(p ? p : "") {}
    const char *get() const { return isNull ? nullptr : text.c_str(); }
    bool is(const char *p) const { return !isNull && p && text == p; }
    bool isNull;
    std::string text;
};

// A frame waiting in a receiver's queue or held by the application; p_data points at payload.
struct Frame
{
    NDIlib_frame_type_e type = NDIlib_frame_type_none;
    NDIlib_video_frame_v2_t video{};
    NDIlib_audio_frame_v3_t audio{};
    std::unique_ptr<uint8_t[]> payload;
};

struct Sent
{
    kesttest_sent_frame_t info{}; // points into the vectors below
    std::vector<uint8_t> bytes;
    std::vector<const uint8_t *> blocks;
};

struct Receiver;

struct Sender
{
    std::string ndiName, sourceName; // sourceName: "MACHINE (name)"
    Text groups, config;
    bool withConfig = false, clockVideo = false, clockAudio = false;
    bool local = true; // on this machine
    std::vector<Receiver *> receivers;
    std::vector<std::string> metadata;
    NDIlib_tally_t reported{};
    bool keyframeHigh = false, keyframeLow = false;
    int64_t videoFrames = 0, audioFrames = 0, droppedFrames = 0;
    const char *lastDropReason = nullptr;
    std::deque<std::unique_ptr<Sent>> sent;
};

struct Receiver
{
    Text wanted, config, recvName;
    bool withConfig = false;
    // The runtime's defaults, for a NULL settings pointer.
    NDIlib_recv_color_format_e colorFormat = NDIlib_recv_color_format_UYVY_BGRA;
    NDIlib_recv_bandwidth_e bandwidth = NDIlib_recv_bandwidth_highest;
    bool allowFields = true;
    bool waitingForKey = false; // joined at a time the sender was between key frames
    Sender *sender = nullptr;
    NDIlib_tally_t tally{};
    std::deque<std::unique_ptr<Frame>> queue;
    std::list<std::unique_ptr<Frame>> outstanding;
    int badFrees = 0;
};

struct Finder
{
    bool showLocal = true;
    Text groups, extraIps;
    // The last list handed out, kept until the next query or the finder's destruction.
    std::vector<std::string> names;
    std::vector<NDIlib_source_t> sources;
};

struct Network
{
    Network()
    {
        char host[256] = {};
        if (::gethostname(host, sizeof(host) - 1) != 0 || !host[0])
            std::strcpy(host, "localhost");
        for (const char *c = host; *c; ++c)
            machine += char(std::toupper(static_cast<unsigned char>(*c)));
    }
    std::mutex mutex;
    std::vector<std::unique_ptr<Sender>> senders;
    std::vector<std::unique_ptr<Receiver>> receivers;
    std::vector<std::unique_ptr<Finder>> finders;
    std::string machine;
    std::string senderMachine; // of senders created from now on; empty: this machine
    int sendersCreated = 0, findersCreated = 0, sourceQueries = 0;
    int failNext[3] = {0, 0, 0};
    int sentFrameLimit = -1;
    bool joinAtKeyFrame = false;
};

// Never destroyed: instances may be used until the very end of the process.
Network &net()
{
    static Network *network = new Network;
    return *network;
}

// The network, locked for the scope of the object.
struct Locked
{
    std::lock_guard<std::mutex> guard{net().mutex};
    Network *operator->() const { return &net(); }
};

// The instance behind a handle. The NDI functions (which name themselves) abort on a destroyed
// or unknown one, as a use after free would; control queries just get NULL.
template <typename T, typename H>
T *lookup(const std::vector<std::unique_ptr<T>> &list, H handle, const char *function = nullptr)
{
    for (const auto &item : list)
        if (reinterpret_cast<H>(item.get()) == handle)
            return item.get();
    if (handle && function) {
        std::fprintf(stderr, "NDI test runtime: %s called with a destroyed or unknown instance %p\n", function,
                     static_cast<const void *>(handle));
        std::abort();
    }
    return nullptr;
}

template <typename T>
void erase(std::vector<std::unique_ptr<T>> &list, T *item)
{
    list.erase(std::find_if(list.begin(), list.end(), [item](const auto &p) { return p.get() == item; }));
}

template <typename T, typename H>
H at(const std::vector<std::unique_ptr<T>> &list, int index)
{
    return index >= 0 && index < int(list.size()) ? reinterpret_cast<H>(list[size_t(index)].get()) : nullptr;
}

bool takeCreateFailure(int kind)
{
    int &left = net().failNext[kind];
    if (left <= 0)
        return false;
    --left;
    return true;
}

// Lower case is the low-bandwidth (preview) stream, upper case the full one.
bool isLower(uint32_t fourcc)
{
    return char(fourcc & 0xff) >= 'a' && char(fourcc & 0xff) <= 'z';
}

// The codec a compressed packet must name for a frame of this FourCC; 0: none carries one.
uint32_t packetCodec(uint32_t fourcc, bool video)
{
    if (!video)
        return fourcc == NDIlib_FourCC_audio_type_ex_AAC ? uint32_t(NDIlib_compressed_FourCC_type_AAC) : 0;
    switch (fourcc) {
    case NDIlib_FourCC_video_type_ex_H264_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_H264_lowest_bandwidth: return NDIlib_compressed_FourCC_type_H264;
    case NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_HEVC_lowest_bandwidth: return NDIlib_compressed_FourCC_type_HEVC;
    default: return 0;
    }
}

// Whether a receiver of this colour format gets packets of this codec as they were sent. The
// others get them decoded: video in the format's colours, audio as floating-point planes.
bool passedThrough(NDIlib_recv_color_format_e format, uint32_t codec)
{
    const bool h264 = codec == NDIlib_compressed_FourCC_type_H264, hevc = codec == NDIlib_compressed_FourCC_type_HEVC;
    switch (format) {
    case NDIlib_recv_color_format_compressed_v3: return h264;
    case NDIlib_recv_color_format_compressed_v4:
    case NDIlib_recv_color_format_compressed_v5: return h264 || hevc;
    case NDIlib_recv_color_format_compressed_v3_with_audio: return !hevc;
    case NDIlib_recv_color_format_compressed_v4_with_audio:
    case NDIlib_recv_color_format_compressed_v5_with_audio: return true;
    default: return false;
    }
}

// A decoded frame as the runtime would deliver it. The pictures and the sound cannot be
// decoded here, so they are blank; format and sizes are what a receiver must cope with.
std::unique_ptr<Frame> decodedFrame(const NDIlib_video_frame_v2_t *video, const NDIlib_audio_frame_v3_t *audio,
                                    NDIlib_recv_color_format_e format)
{
    auto f = std::make_unique<Frame>();
    size_t size = 0;
    if (video) {
        f->type = NDIlib_frame_type_video;
        f->video = *video;
        const bool rgb = format == NDIlib_recv_color_format_BGRX_BGRA || format == NDIlib_recv_color_format_RGBX_RGBA;
        f->video.FourCC = format == NDIlib_recv_color_format_BGRX_BGRA   ? NDIlib_FourCC_video_type_BGRX
                          : format == NDIlib_recv_color_format_RGBX_RGBA ? NDIlib_FourCC_video_type_RGBX
                                                                         : NDIlib_FourCC_video_type_UYVY;
        f->video.line_stride_in_bytes = video->xres * (rgb ? 4 : 2);
        size = size_t(f->video.line_stride_in_bytes) * size_t(video->yres);
    } else {
        f->type = NDIlib_frame_type_audio;
        f->audio = *audio;
        f->audio.FourCC = NDIlib_FourCC_audio_type_FLTP;
        f->audio.channel_stride_in_bytes = audio->no_samples * int(sizeof(float));
        size = size_t(f->audio.channel_stride_in_bytes) * size_t(audio->no_channels);
    }
    f->payload.reset(new uint8_t[size]());
    f->video.p_data = f->audio.p_data = f->payload.get();
    f->video.p_metadata = f->audio.p_metadata = nullptr;
    return f;
}

// A comma-separated group list as names without case; NULL or no name at all: "public".
std::vector<std::string> groupNames(const Text &groups)
{
    std::vector<std::string> names;
    size_t start = 0;
    const std::string &text = groups.text;
    while (start <= text.size()) {
        const size_t end = std::min(text.find(',', start), text.size());
        std::string name = text.substr(start, end - start);
        name.erase(0, name.find_first_not_of(' '));
        name.erase(name.find_last_not_of(' ') + 1);
        std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return char(std::tolower(c)); });
        if (!name.empty())
            names.push_back(name);
        start = end + 1;
    }
    if (names.empty())
        names.push_back("public");
    return names;
}

// A finder lists a sender when they share a group, and a sender on this machine only when
// the finder shows local sources.
bool lists(const Finder &f, const Sender &s)
{
    if (s.local && !f.showLocal)
        return false;
    const std::vector<std::string> mine = groupNames(f.groups), theirs = groupNames(s.groups);
    return std::any_of(mine.begin(), mine.end(),
                       [&](const std::string &g) { return std::find(theirs.begin(), theirs.end(), g) != theirs.end(); });
}

std::unique_ptr<Frame> makeFrame(const NDIlib_video_frame_v2_t *video, const NDIlib_audio_frame_v3_t *audio,
                                 const uint8_t *data, int size)
{
    auto f = std::make_unique<Frame>();
    f->type = video ? NDIlib_frame_type_video : NDIlib_frame_type_audio;
    if (data) {
        f->payload.reset(new uint8_t[size_t(std::max(size, 1))]);
        std::memcpy(f->payload.get(), data, size_t(std::max(size, 0)));
    }
    if (video) {
        f->video = *video;
        f->video.p_data = f->payload.get();
        f->video.p_metadata = nullptr;
    } else {
        f->audio = *audio;
        f->audio.p_data = f->payload.get();
        f->audio.p_metadata = nullptr;
    }
    return f;
}

void attach(Receiver &r, Sender &s)
{
    r.sender = &s;
    s.receivers.push_back(&r);
    // A new viewer cannot decode until the next key frame of the stream it watches; in one
    // test mode the runtime holds its video back until then.
    (r.bandwidth == NDIlib_recv_bandwidth_lowest ? s.keyframeLow : s.keyframeHigh) = true;
    r.waitingForKey = net().joinAtKeyFrame;
}

void detach(Receiver &r, bool lost)
{
    if (!r.sender)
        return;
    auto &list = r.sender->receivers;
    list.erase(std::remove(list.begin(), list.end(), &r), list.end());
    r.sender = nullptr;
    if (lost) {
        r.queue.push_back(std::make_unique<Frame>());
        r.queue.back()->type = NDIlib_frame_type_error;
    }
}

// Receivers asking for a source name connect to a live sender of that name whenever one exists.
void reattach()
{
    for (const auto &r : net().receivers)
        for (const auto &s : net().senders)
            if (!r->sender && r->wanted.is(s->sourceName.c_str()))
                attach(*r, *s);
}

void connect(Receiver &r, const char *name)
{
    if (r.wanted.is(name)) // asked again for the source it has: nothing changes
        return;
    detach(r, false);
    r.wanted = Text(name);
    reattach();
}

NDIlib_tally_t tallyOf(const Sender &s)
{
    NDIlib_tally_t tally{};
    for (const Receiver *r : s.receivers) {
        tally.on_program = tally.on_program || r->tally.on_program;
        tally.on_preview = tally.on_preview || r->tally.on_preview;
    }
    return tally;
}

// The gathered scatter list of a frame.
struct Scatter
{
    int blocks = 0;
    int64_t total = 0;
    NDIlib_compressed_packet_t header{};
};

constexpr int kMaxPictureSide = 8192;
constexpr uint32_t kMinAudioSpecificConfigBytes = 2;

// The first documented rule a compressed frame breaks; NULL when it keeps them all. The
// packet header must lie in the first block, and header, data and extra data must fill the
// blocks exactly. Extra data (the parameter sets) comes with every key frame and with no other
// frame; every AAC packet is a key frame and carries its AudioSpecificConfig. The description
// must be one a receiver can use: a picture size, a frame rate, an aspect ratio, progressive
// pictures; a sample rate, channels and samples.
const char *brokenRule(const NDIlib_video_frame_v2_t *video, const NDIlib_audio_frame_v3_t *audio,
                       const NDIlib_frame_scatter_t *scatter, Scatter &out)
{
    if (!scatter || !scatter->p_data_blocks || !scatter->p_data_blocks_size || !scatter->p_data_blocks[0])
        return "the scatter list has no blocks";
    for (; scatter->p_data_blocks[out.blocks]; ++out.blocks)
        out.total += std::max(scatter->p_data_blocks_size[out.blocks], 0);
    if (scatter->p_data_blocks_size[0] < int(sizeof(out.header)))
        return "the compressed packet header is not inside the first block";
    std::memcpy(&out.header, scatter->p_data_blocks[0], sizeof(out.header));
    const NDIlib_compressed_packet_t &h = out.header;
    const uint32_t codec = packetCodec(video ? uint32_t(video->FourCC) : uint32_t(audio->FourCC), video != nullptr);
    if (!codec)
        return "the FourCC is not one of a compressed packet";
    if (h.version < NDIlib_compressed_packet_version_0)
        return "the compressed packet header version is too small";
    if (uint32_t(h.fourCC) != codec)
        return "the compressed packet codec does not match the frame's FourCC";
    if (int64_t(h.version) + h.data_size + h.extra_data_size != out.total)
        return "header, data and extra data do not add up to the frame";
    const bool key = h.flags & NDIlib_compressed_packet_flags_keyframe;
    if (!video) {
        if (!key)
            return "an AAC packet is not flagged as a key frame";
        if (h.extra_data_size < kMinAudioSpecificConfigBytes)
            return "an AAC packet carries no AudioSpecificConfig as extra data";
        if (audio->sample_rate <= 0 || audio->no_channels <= 0 || audio->no_samples <= 0)
            return "the sample rate, channel count or samples per frame is not positive";
        return nullptr;
    }
    if (key && h.extra_data_size == 0)
        return "a key frame carries no extra data (its parameter sets)";
    if (!key && h.extra_data_size != 0)
        return "a frame that is not a key frame carries extra data";
    if (video->xres <= 0 || video->yres <= 0 || video->xres > kMaxPictureSide || video->yres > kMaxPictureSide)
        return "the picture size xres by yres is not between 1 and 8192 a side";
    if (video->frame_rate_N <= 0 || video->frame_rate_D <= 0)
        return "the frame rate N/D is not a positive fraction";
    if (!std::isfinite(video->picture_aspect_ratio) || video->picture_aspect_ratio < 0)
        return "the picture aspect ratio is negative or not a number";
    if (video->frame_format_type != NDIlib_frame_format_type_progressive)
        return "compressed video is not progressive";
    return nullptr;
}

// A frame that breaks a rule is dropped and counted, as the vendor's runtime drops it.
[[maybe_unused]] void send(Sender &s, const NDIlib_video_frame_v2_t *video, const NDIlib_audio_frame_v3_t *audio,
                           const NDIlib_frame_scatter_t *scatter)
{
    const bool isVideo = video != nullptr;
    const uint32_t fourcc = isVideo ? uint32_t(video->FourCC) : uint32_t(audio->FourCC);
    Scatter blocks;
    const char *reason = brokenRule(video, audio, scatter, blocks);
    const bool key = blocks.header.flags & NDIlib_compressed_packet_flags_keyframe;
    if (reason) {
        ++s.droppedFrames;
        s.lastDropReason = reason;
    } else if (isVideo) {
        ++s.videoFrames;
        if (key)
            (isLower(fourcc) ? s.keyframeLow : s.keyframeHigh) = false;
    } else {
        ++s.audioFrames;
    }

    // Video goes to the receivers of its bandwidth, audio to all but those of metadata only.
    // The bytes are gathered only when someone looks at them: a send with nobody watching costs
    // no copy and no allocation.
    std::vector<uint8_t> bytes;
    const auto gather = [&] {
        if (!bytes.empty() || blocks.total == 0)
            return;
        bytes.reserve(size_t(blocks.total));
        for (int i = 0; i < blocks.blocks; ++i)
            bytes.insert(bytes.end(), scatter->p_data_blocks[i], scatter->p_data_blocks[i] + std::max(scatter->p_data_blocks_size[i], 0));
    };
    const auto takes = [&](const Receiver &r) {
        if (r.bandwidth == NDIlib_recv_bandwidth_metadata_only)
            return false;
        if (!isVideo)
            return true;
        return r.bandwidth != NDIlib_recv_bandwidth_audio_only && isLower(fourcc) == (r.bandwidth == NDIlib_recv_bandwidth_lowest);
    };
    for (Receiver *r : s.receivers) {
        if (reason || !takes(*r) || (isVideo && r->waitingForKey && !key))
            continue;
        if (isVideo)
            r->waitingForKey = false;
        if (!passedThrough(r->colorFormat, blocks.header.fourCC)) {
            r->queue.push_back(decodedFrame(video, audio, r->colorFormat));
            continue;
        }
        gather();
        auto f = makeFrame(video, audio, bytes.data(), int(bytes.size()));
        (isVideo ? f->video.data_size_in_bytes : f->audio.data_size_in_bytes) = int(bytes.size());
        r->queue.push_back(std::move(f));
    }
    if (net().sentFrameLimit == 0)
        return;
    gather();
    auto rec = std::make_unique<Sent>();
    rec->bytes = std::move(bytes);
    if (blocks.blocks > 0)
        rec->blocks.assign(scatter->p_data_blocks, scatter->p_data_blocks + blocks.blocks);
    kesttest_sent_frame_t &info = rec->info;
    info.type = isVideo ? NDIlib_frame_type_video : NDIlib_frame_type_audio;
    info.video = isVideo ? *video : NDIlib_video_frame_v2_t{};
    info.audio = isVideo ? NDIlib_audio_frame_v3_t{} : *audio;
    info.video.p_metadata = info.audio.p_metadata = nullptr;
    info.p_drop_reason = reason;
    info.p_bytes = rec->bytes.data();
    info.no_bytes = int(rec->bytes.size());
    info.no_blocks = blocks.blocks;
    info.p_blocks = rec->blocks.data();
    s.sent.push_back(std::move(rec));
    while (net().sentFrameLimit > 0 && int(s.sent.size()) > net().sentFrameLimit)
        s.sent.pop_front();
}

NDIlib_send_instance_t createSender(const NDIlib_send_create_t *settings, const char *config, bool withConfig)
{
    Locked n;
    // A sender needs a name; NULL settings or an empty name fail as a bad argument.
    if (takeCreateFailure(KESTTEST_SENDER) || !settings || !settings->p_ndi_name || !settings->p_ndi_name[0])
        return nullptr;
    auto s = std::make_unique<Sender>();
    s->ndiName = settings->p_ndi_name;
    s->local = n->senderMachine.empty();
    s->sourceName = (s->local ? n->machine : n->senderMachine) + " (" + s->ndiName + ")";
    s->groups = Text(settings->p_groups);
    s->config = Text(config);
    s->withConfig = withConfig;
    s->clockVideo = settings->clock_video;
    s->clockAudio = settings->clock_audio;
    n->senders.push_back(std::move(s));
    ++n->sendersCreated;
    reattach();
    return reinterpret_cast<NDIlib_send_instance_t>(n->senders.back().get());
}

NDIlib_recv_instance_t createReceiver(const NDIlib_recv_create_v3_t *settings, const char *config, bool withConfig)
{
    Locked n;
    if (takeCreateFailure(KESTTEST_RECEIVER))
        return nullptr;
    n->receivers.push_back(std::make_unique<Receiver>());
    Receiver &r = *n->receivers.back();
    r.config = Text(config);
    r.withConfig = withConfig;
    if (settings) {
        r.colorFormat = settings->color_format;
        r.bandwidth = settings->bandwidth;
        r.allowFields = settings->allow_video_fields;
        r.recvName = Text(settings->p_ndi_recv_name);
        connect(r, settings->source_to_connect_to.p_ndi_name);
    }
    return reinterpret_cast<NDIlib_recv_instance_t>(&r);
}

template <typename FrameStruct>
bool inject(NDIlib_recv_instance_t receiver, const FrameStruct *frame, int no_bytes)
{
    Locked n;
    Receiver *r = lookup(n->receivers, receiver);
    if (!r || !frame)
        return false;
    if constexpr (std::is_same<FrameStruct, NDIlib_video_frame_v2_t>::value)
        r->queue.push_back(makeFrame(frame, nullptr, frame->p_data, no_bytes));
    else
        r->queue.push_back(makeFrame(nullptr, frame, frame->p_data, no_bytes));
    return true;
}

} // namespace

// --- NDI functions ---------------------------------------------------------------------------

KESTTEST_EXPORT bool NDIlib_initialize(void)
{
    return true;
}

KESTTEST_EXPORT NDIlib_find_instance_t NDIlib_find_create_v2(const NDIlib_find_create_t *p_create_settings)
{
    Locked n;
    n->finders.push_back(std::make_unique<Finder>());
    if (p_create_settings) {
        n->finders.back()->showLocal = p_create_settings->show_local_sources;
        n->finders.back()->groups = Text(p_create_settings->p_groups);
        n->finders.back()->extraIps = Text(p_create_settings->p_extra_ips);
    }
    ++n->findersCreated;
    return reinterpret_cast<NDIlib_find_instance_t>(n->finders.back().get());
}

KESTTEST_EXPORT void NDIlib_find_destroy(NDIlib_find_instance_t p_instance)
{
    Locked n;
    if (Finder *f = lookup(n->finders, p_instance, __func__))
        erase(n->finders, f);
}

KESTTEST_EXPORT const NDIlib_source_t *NDIlib_find_get_current_sources(NDIlib_find_instance_t p_instance, uint32_t *p_no_sources)
{
    Locked n;
    if (p_no_sources)
        *p_no_sources = 0;
    Finder *f = lookup(n->finders, p_instance, __func__);
    if (!f)
        return nullptr;
    ++n->sourceQueries;
    // A fresh list every time: the previous one is released, as the runtime documents.
    std::vector<std::string> names;
    for (const auto &s : n->senders)
        if (lists(*f, *s))
            names.push_back(s->sourceName);
    f->names = std::move(names);
    std::vector<NDIlib_source_t> sources;
    for (const std::string &name : f->names)
        sources.push_back({name.c_str(), nullptr});
    f->sources = std::move(sources);
    if (p_no_sources)
        *p_no_sources = uint32_t(f->sources.size());
    return f->sources.empty() ? nullptr : f->sources.data();
}

KESTTEST_EXPORT NDIlib_recv_instance_t NDIlib_recv_create_v3(const NDIlib_recv_create_v3_t *p_create_settings)
{
    return createReceiver(p_create_settings, nullptr, false);
}

KESTTEST_EXPORT void NDIlib_recv_destroy(NDIlib_recv_instance_t p_instance)
{
    Locked n;
    if (Receiver *r = lookup(n->receivers, p_instance, __func__)) {
        detach(*r, false);
        erase(n->receivers, r);
    }
}

KESTTEST_EXPORT void NDIlib_recv_connect(NDIlib_recv_instance_t p_instance, const NDIlib_source_t *p_src)
{
    Locked n;
    if (Receiver *r = lookup(n->receivers, p_instance, __func__))
        connect(*r, p_src ? p_src->p_ndi_name : nullptr);
}

KESTTEST_EXPORT NDIlib_frame_type_e NDIlib_recv_capture_v3(NDIlib_recv_instance_t p_instance, NDIlib_video_frame_v2_t *p_video_data,
                                                           NDIlib_audio_frame_v3_t *p_audio_data, NDIlib_metadata_frame_t *,
                                                           uint32_t)
{
    Locked n;
    Receiver *r = lookup(n->receivers, p_instance, __func__);
    while (r && !r->queue.empty()) {
        std::unique_ptr<Frame> frame = std::move(r->queue.front());
        r->queue.pop_front();
        const NDIlib_frame_type_e type = frame->type;
        // Kinds the caller passed no struct for are discarded, as the runtime does.
        if (type == NDIlib_frame_type_video && p_video_data)
            *p_video_data = frame->video;
        else if (type == NDIlib_frame_type_audio && p_audio_data)
            *p_audio_data = frame->audio;
        else if (type == NDIlib_frame_type_video || type == NDIlib_frame_type_audio)
            continue;
        else
            return type;
        r->outstanding.push_back(std::move(frame));
        return type;
    }
    return NDIlib_frame_type_none;
}

namespace {

void release(NDIlib_recv_instance_t p_instance, NDIlib_frame_type_e type, const uint8_t *data, const char *function)
{
    Locked n;
    Receiver *r = lookup(n->receivers, p_instance, function);
    if (!r)
        return;
    const auto it = std::find_if(r->outstanding.begin(), r->outstanding.end(), [&](const auto &f) {
        return f->type == type && (type == NDIlib_frame_type_video ? f->video.p_data : f->audio.p_data) == data;
    });
    if (it == r->outstanding.end())
        ++r->badFrees;
    else
        r->outstanding.erase(it);
}

} // namespace

KESTTEST_EXPORT void NDIlib_recv_free_video_v2(NDIlib_recv_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data)
{
    if (p_video_data)
        release(p_instance, NDIlib_frame_type_video, p_video_data->p_data, __func__);
}

KESTTEST_EXPORT void NDIlib_recv_free_audio_v3(NDIlib_recv_instance_t p_instance, const NDIlib_audio_frame_v3_t *p_audio_data)
{
    if (p_audio_data)
        release(p_instance, NDIlib_frame_type_audio, p_audio_data->p_data, __func__);
}

KESTTEST_EXPORT bool NDIlib_recv_set_tally(NDIlib_recv_instance_t p_instance, const NDIlib_tally_t *p_tally)
{
    Locked n;
    Receiver *r = lookup(n->receivers, p_instance, __func__);
    if (!r || !p_tally)
        return false;
    // Kept while unconnected and applied on connection; the result says whether it went out.
    r->tally = *p_tally;
    return r->sender != nullptr;
}

KESTTEST_EXPORT NDIlib_send_instance_t NDIlib_send_create(const NDIlib_send_create_t *p_create_settings)
{
    return createSender(p_create_settings, nullptr, false);
}

KESTTEST_EXPORT void NDIlib_send_destroy(NDIlib_send_instance_t p_instance)
{
    Locked n;
    Sender *s = lookup(n->senders, p_instance, __func__);
    if (!s)
        return;
    while (!s->receivers.empty())
        detach(*s->receivers.front(), true);
    erase(n->senders, s);
    reattach(); // to another sender of the same name, if there is one
}

KESTTEST_EXPORT void NDIlib_send_add_connection_metadata(NDIlib_send_instance_t p_instance, const NDIlib_metadata_frame_t *p_metadata)
{
    Locked n;
    Sender *s = lookup(n->senders, p_instance, __func__);
    if (s && p_metadata && p_metadata->p_data) // NUL-terminated: the library passes length 0
        s->metadata.emplace_back(p_metadata->p_data);
}

KESTTEST_EXPORT bool NDIlib_send_get_tally(NDIlib_send_instance_t p_instance, NDIlib_tally_t *p_tally, uint32_t)
{
    Locked n;
    Sender *s = lookup(n->senders, p_instance, __func__);
    if (!s)
        return false;
    // "Changed" means: differs from what the previous call reported.
    const NDIlib_tally_t now = tallyOf(*s);
    const bool changed = now.on_program != s->reported.on_program || now.on_preview != s->reported.on_preview;
    s->reported = now;
    if (p_tally)
        *p_tally = now;
    return changed;
}

#ifndef KESTTEST_STANDARD_RUNTIME

KESTTEST_EXPORT NDIlib_recv_instance_t NDIlib_recv_create_v4(const NDIlib_recv_create_v3_t *p_create_settings, const char *p_config_data)
{
    return createReceiver(p_create_settings, p_config_data, true);
}

KESTTEST_EXPORT NDIlib_send_instance_t NDIlib_send_create_v2(const NDIlib_send_create_t *p_create_settings, const char *p_config_data)
{
    return createSender(p_create_settings, p_config_data, true);
}

KESTTEST_EXPORT bool NDIlib_send_is_keyframe_required(NDIlib_send_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data)
{
    Locked n;
    const Sender *s = lookup(n->senders, p_instance, __func__);
    if (!s)
        return false;
    if (!p_video_data)
        return s->keyframeHigh || s->keyframeLow;
    return isLower(p_video_data->FourCC) ? s->keyframeLow : s->keyframeHigh;
}

KESTTEST_EXPORT void NDIlib_send_send_video_scatter(NDIlib_send_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data,
                                                    const NDIlib_frame_scatter_t *p_video_scatter)
{
    Locked n;
    Sender *s = lookup(n->senders, p_instance, __func__);
    if (s && p_video_data)
        send(*s, p_video_data, nullptr, p_video_scatter);
}

KESTTEST_EXPORT void NDIlib_send_send_audio_scatter(NDIlib_send_instance_t p_instance, const NDIlib_audio_frame_v3_t *p_audio_data,
                                                    const NDIlib_frame_scatter_t *p_audio_scatter)
{
    Locked n;
    Sender *s = lookup(n->senders, p_instance, __func__);
    if (s && p_audio_data)
        send(*s, nullptr, p_audio_data, p_audio_scatter);
}

KESTTEST_SIGNATURE(recv_create_v4);
KESTTEST_SIGNATURE(send_create_v2);
KESTTEST_SIGNATURE(send_is_keyframe_required);
KESTTEST_SIGNATURE(send_send_video_scatter);
KESTTEST_SIGNATURE(send_send_audio_scatter);
#endif

KESTTEST_SIGNATURE(initialize);
KESTTEST_SIGNATURE(find_create_v2);
KESTTEST_SIGNATURE(find_destroy);
KESTTEST_SIGNATURE(find_get_current_sources);
KESTTEST_SIGNATURE(recv_create_v3);
KESTTEST_SIGNATURE(recv_destroy);
KESTTEST_SIGNATURE(recv_connect);
KESTTEST_SIGNATURE(recv_capture_v3);
KESTTEST_SIGNATURE(recv_free_video_v2);
KESTTEST_SIGNATURE(recv_free_audio_v3);
KESTTEST_SIGNATURE(recv_set_tally);
KESTTEST_SIGNATURE(send_create);
KESTTEST_SIGNATURE(send_destroy);
KESTTEST_SIGNATURE(send_add_connection_metadata);
KESTTEST_SIGNATURE(send_get_tally);

// --- control -------------------------------------------------------------------------------

KESTTEST_EXPORT const char *kesttest_machine_name(void)
{
    return net().machine.c_str();
}

KESTTEST_EXPORT void kesttest_set_sender_machine(const char *machine)
{
    Locked n;
    n->senderMachine = machine && n->machine != machine ? machine : "";
}

KESTTEST_EXPORT void kesttest_set_join_at_key_frame(bool hold)
{
    Locked n;
    n->joinAtKeyFrame = hold;
}

KESTTEST_EXPORT void kesttest_fail_next_creates(int kind, int count)
{
    Locked n;
    if (kind == KESTTEST_SENDER || kind == KESTTEST_RECEIVER)
        n->failNext[kind] = std::max(count, 0);
}

KESTTEST_EXPORT int kesttest_sender_count(void)
{
    Locked n;
    return int(n->senders.size());
}

KESTTEST_EXPORT NDIlib_send_instance_t kesttest_sender_at(int index)
{
    Locked n;
    return at<Sender, NDIlib_send_instance_t>(n->senders, index);
}

KESTTEST_EXPORT int kesttest_senders_created(void)
{
    Locked n;
    return n->sendersCreated;
}

KESTTEST_EXPORT bool kesttest_sender_info(NDIlib_send_instance_t sender, kesttest_sender_info_t *out)
{
    Locked n;
    const Sender *s = lookup(n->senders, sender);
    if (!s || !out)
        return false;
    *out = {s->ndiName.c_str(), s->groups.get(), s->withConfig, s->config.get(), s->clockVideo, s->clockAudio,
            int(s->receivers.size()), tallyOf(*s), int(s->metadata.size()), s->videoFrames, s->audioFrames,
            s->droppedFrames, s->lastDropReason};
    return true;
}

KESTTEST_EXPORT const char *kesttest_sender_connection_metadata(NDIlib_send_instance_t sender, int index)
{
    Locked n;
    const Sender *s = lookup(n->senders, sender);
    return s && index >= 0 && index < int(s->metadata.size()) ? s->metadata[size_t(index)].c_str() : nullptr;
}

KESTTEST_EXPORT int kesttest_sent_frame_count(NDIlib_send_instance_t sender)
{
    Locked n;
    const Sender *s = lookup(n->senders, sender);
    return s ? int(s->sent.size()) : 0;
}

KESTTEST_EXPORT bool kesttest_sent_frame(NDIlib_send_instance_t sender, int index, kesttest_sent_frame_t *out)
{
    Locked n;
    const Sender *s = lookup(n->senders, sender);
    if (!s || !out || index < 0 || index >= int(s->sent.size()))
        return false;
    *out = s->sent[size_t(index)]->info;
    return true;
}

KESTTEST_EXPORT void kesttest_set_sent_frame_limit(int frames)
{
    Locked n;
    n->sentFrameLimit = std::max(frames, -1);
}

KESTTEST_EXPORT int kesttest_receiver_count(void)
{
    Locked n;
    return int(n->receivers.size());
}

KESTTEST_EXPORT NDIlib_recv_instance_t kesttest_receiver_at(int index)
{
    Locked n;
    return at<Receiver, NDIlib_recv_instance_t>(n->receivers, index);
}

KESTTEST_EXPORT bool kesttest_receiver_info(NDIlib_recv_instance_t receiver, kesttest_receiver_info_t *out)
{
    Locked n;
    const Receiver *r = lookup(n->receivers, receiver);
    if (!r || !out)
        return false;
    *out = {r->wanted.get(), r->withConfig, r->config.get(), r->colorFormat, r->bandwidth, r->allowFields,
            r->recvName.get(), r->sender != nullptr, int(r->queue.size()), int(r->outstanding.size()), r->badFrees};
    return true;
}

KESTTEST_EXPORT bool kesttest_receiver_inject_video(NDIlib_recv_instance_t receiver, const NDIlib_video_frame_v2_t *frame, int no_bytes)
{
    return inject(receiver, frame, no_bytes);
}

KESTTEST_EXPORT bool kesttest_receiver_inject_audio(NDIlib_recv_instance_t receiver, const NDIlib_audio_frame_v3_t *frame, int no_bytes)
{
    return inject(receiver, frame, no_bytes);
}

KESTTEST_EXPORT bool kesttest_receiver_inject(NDIlib_recv_instance_t receiver, NDIlib_frame_type_e type)
{
    Locked n;
    Receiver *r = lookup(n->receivers, receiver);
    if (!r || (type != NDIlib_frame_type_error && type != NDIlib_frame_type_status_change))
        return false;
    r->queue.push_back(std::make_unique<Frame>());
    r->queue.back()->type = type;
    return true;
}

KESTTEST_EXPORT int kesttest_finder_count(void)
{
    Locked n;
    return int(n->finders.size());
}

KESTTEST_EXPORT NDIlib_find_instance_t kesttest_finder_at(int index)
{
    Locked n;
    return at<Finder, NDIlib_find_instance_t>(n->finders, index);
}

KESTTEST_EXPORT bool kesttest_finder_info(NDIlib_find_instance_t finder, kesttest_finder_info_t *out)
{
    Locked n;
    const Finder *f = lookup(n->finders, finder);
    if (!f || !out)
        return false;
    *out = {f->showLocal, f->groups.get(), f->extraIps.get()};
    return true;
}

KESTTEST_EXPORT int kesttest_finders_created(void)
{
    Locked n;
    return n->findersCreated;
}

KESTTEST_EXPORT int kesttest_source_queries(void)
{
    Locked n;
    return n->sourceQueries;
}
