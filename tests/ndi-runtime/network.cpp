#include "network.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <unistd.h>

namespace kesttest {

namespace {

constexpr int kFirstStreamPort = 5961; // made-up addresses: one TCP port per sender, as NDI 5 uses

enum class Kind {
    Packet,       // compressed behind an NDIlib_compressed_packet_t (H.264, HEVC, AAC)
    Opaque,       // compressed without a packet header (SpeedHQ, Opus): data_size_in_bytes bytes
    Uncompressed, // sized from the resolution and stride
};

bool isLower(uint32_t fourcc)
{
    const char first = char(fourcc & 0xff);
    return first >= 'a' && first <= 'z';
}

Kind videoKind(uint32_t fourcc)
{
    switch (fourcc) {
    case NDIlib_FourCC_video_type_ex_H264_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_H264_lowest_bandwidth:
    case NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_HEVC_lowest_bandwidth:
    case NDIlib_FourCC_video_type_ex_H264_alpha_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_H264_alpha_lowest_bandwidth:
    case NDIlib_FourCC_video_type_ex_HEVC_alpha_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_HEVC_alpha_lowest_bandwidth:
        return Kind::Packet;
    case NDIlib_FourCC_video_type_ex_SHQ0_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_SHQ2_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_SHQ7_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_SHQ0_lowest_bandwidth:
    case NDIlib_FourCC_video_type_ex_SHQ2_lowest_bandwidth:
    case NDIlib_FourCC_video_type_ex_SHQ7_lowest_bandwidth:
        return Kind::Opaque;
    default:
        return Kind::Uncompressed;
    }
}

Kind audioKind(uint32_t fourcc)
{
    if (fourcc == NDIlib_FourCC_audio_type_ex_AAC)
        return Kind::Packet;
    if (fourcc == NDIlib_FourCC_audio_type_ex_OPUS)
        return Kind::Opaque;
    return Kind::Uncompressed;
}

// The codec a compressed packet must name for a frame of this FourCC.
uint32_t packetCodec(uint32_t fourcc, bool video)
{
    if (!video)
        return NDIlib_compressed_FourCC_type_AAC;
    switch (fourcc) {
    case NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_HEVC_lowest_bandwidth:
    case NDIlib_FourCC_video_type_ex_HEVC_alpha_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_HEVC_alpha_lowest_bandwidth:
        return NDIlib_compressed_FourCC_type_HEVC;
    default:
        return NDIlib_compressed_FourCC_type_H264;
    }
}

// Bytes of an uncompressed video frame: its planes at the given (or natural) stride.
int64_t uncompressedVideoSize(const NDIlib_video_frame_v2_t &f)
{
    const int64_t x = std::max(f.xres, 0), y = std::max(f.yres, 0);
    int64_t stride = f.line_stride_in_bytes;
    switch (f.FourCC) {
    case NDIlib_FourCC_video_type_UYVY:
        return (stride > 0 ? stride : x * 2) * y;
    case NDIlib_FourCC_video_type_UYVA: // UYVY plane, then an 8-bit alpha plane
        return (stride > 0 ? stride : x * 2) * y + x * y;
    case NDIlib_FourCC_video_type_P216: // 16-bit Y plane, then interleaved 16-bit CbCr
        return (stride > 0 ? stride : x * 2) * y * 2;
    case NDIlib_FourCC_video_type_PA16: // P216 plus a 16-bit alpha plane
        return (stride > 0 ? stride : x * 2) * y * 3;
    case NDIlib_FourCC_video_type_YV12:
    case NDIlib_FourCC_video_type_I420:
    case NDIlib_FourCC_video_type_NV12:
        return (stride > 0 ? stride : x) * y * 3 / 2;
    case NDIlib_FourCC_video_type_BGRA:
    case NDIlib_FourCC_video_type_BGRX:
    case NDIlib_FourCC_video_type_RGBA:
    case NDIlib_FourCC_video_type_RGBX:
        return (stride > 0 ? stride : x * 4) * y;
    default:
        return std::max<int64_t>(stride, 0) * y;
    }
}

int64_t uncompressedAudioSize(const NDIlib_audio_frame_v3_t &f)
{
    const int64_t stride = f.channel_stride_in_bytes > 0 ? f.channel_stride_in_bytes : int64_t(std::max(f.no_samples, 0)) * 4;
    return stride * std::max(f.no_channels, 0);
}

bool formatTakes(NDIlib_recv_color_format_e format, const int accepted[], int count)
{
    return std::find(accepted, accepted + count, int(format)) != accepted + count;
}

// Whether a receiver gets a frame of this kind; the runtime decodes nothing, so compressed
// frames reach only receivers that asked for them compressed.
bool receiverTakes(const Receiver &r, NDIlib_frame_type_e type, uint32_t fourcc)
{
    if (r.bandwidth == NDIlib_recv_bandwidth_metadata_only)
        return type == NDIlib_frame_type_metadata;
    if (type == NDIlib_frame_type_audio) {
        if (fourcc == NDIlib_FourCC_audio_type_ex_AAC) {
            static const int aac[] = {304, 305, 308};
            return formatTakes(r.colorFormat, aac, 3);
        }
        if (fourcc == NDIlib_FourCC_audio_type_ex_OPUS)
            return r.colorFormat == NDIlib_recv_color_format_compressed_v5_with_audio;
        return true;
    }
    if (type != NDIlib_frame_type_video)
        return true;
    if (r.bandwidth == NDIlib_recv_bandwidth_audio_only)
        return false;
    const Kind kind = videoKind(fourcc);
    if (kind == Kind::Uncompressed)
        return true;
    // The upper-case stream goes to full-bandwidth receivers, the lower-case one to previews.
    if (isLower(fourcc) != (r.bandwidth == NDIlib_recv_bandwidth_lowest))
        return false;
    switch (fourcc) {
    case NDIlib_FourCC_video_type_ex_H264_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_H264_lowest_bandwidth: {
        static const int h264[] = {302, 303, 304, 305, 307, 308};
        return formatTakes(r.colorFormat, h264, 6);
    }
    case NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_HEVC_lowest_bandwidth: {
        static const int hevc[] = {303, 305, 307, 308};
        return formatTakes(r.colorFormat, hevc, 4);
    }
    case NDIlib_FourCC_video_type_ex_H264_alpha_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_H264_alpha_lowest_bandwidth:
    case NDIlib_FourCC_video_type_ex_HEVC_alpha_highest_bandwidth:
    case NDIlib_FourCC_video_type_ex_HEVC_alpha_lowest_bandwidth:
        return r.colorFormat == NDIlib_recv_color_format_compressed_v5
            || r.colorFormat == NDIlib_recv_color_format_compressed_v5_with_audio;
    default: // SpeedHQ
        return r.colorFormat >= NDIlib_recv_color_format_compressed_v1
            && r.colorFormat <= NDIlib_recv_color_format_compressed_v5_with_audio;
    }
}

std::vector<std::string> splitGroups(const char *list)
{
    std::vector<std::string> groups;
    std::string current;
    const auto flush = [&] {
        const size_t begin = current.find_first_not_of(' ');
        const size_t end = current.find_last_not_of(' ');
        if (begin != std::string::npos)
            groups.push_back(current.substr(begin, end - begin + 1));
        current.clear();
    };
    for (const char *c = list ? list : ""; *c; ++c) {
        if (*c == ',')
            flush();
        else
            current += char(std::tolower(static_cast<unsigned char>(*c)));
    }
    flush();
    if (groups.empty())
        groups.push_back("public"); // what NDI calls its default group
    return groups;
}

[[noreturn]] void badHandle(const char *function, const void *handle)
{
    std::fprintf(stderr, "NDI test runtime: %s called with a destroyed or unknown instance %p\n", function, handle);
    std::abort();
}

template <typename T, typename H>
T *lookup(const std::vector<std::unique_ptr<T>> &list, H handle, const char *function)
{
    if (!handle)
        return nullptr;
    for (const auto &item : list)
        if (reinterpret_cast<H>(item.get()) == handle)
            return item.get();
    if (function)
        badHandle(function, handle);
    return nullptr;
}

} // namespace

int64_t now100ns()
{
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    return int64_t(ts.tv_sec) * 10000000 + ts.tv_nsec / 100;
}

Network &Network::get()
{
    // Never destroyed: instances may be used until the very end of the process.
    static Network *network = new Network;
    return *network;
}

Network::Network()
{
    char host[256] = {};
    if (::gethostname(host, sizeof(host) - 1) != 0 || !host[0])
        std::strcpy(host, "localhost");
    for (char *c = host; *c; ++c)
        machine += char(std::toupper(static_cast<unsigned char>(*c)));
}

Sender *Network::sender(NDIlib_send_instance_t handle, const char *function)
{
    return lookup(senders, handle, function);
}

Receiver *Network::receiver(NDIlib_recv_instance_t handle, const char *function)
{
    return lookup(receivers, handle, function);
}

Finder *Network::finder(NDIlib_find_instance_t handle, const char *function)
{
    return lookup(finders, handle, function);
}

bool Network::takeCreateFailure(int kind)
{
    if (kind < 1 || kind > 3 || failNext[kind] <= 0)
        return false;
    --failNext[kind];
    return true;
}

NDIlib_send_instance_t Network::createSender(const NDIlib_send_create_t *settings, const char *config, bool withConfig)
{
    // A sender needs a name; NULL settings or an empty name fail as a bad argument.
    if (takeCreateFailure(KESTTEST_SENDER) || !settings || !settings->p_ndi_name || !settings->p_ndi_name[0])
        return nullptr;
    auto s = std::make_unique<Sender>();
    s->ndiName = settings->p_ndi_name;
    s->sourceName = machine + " (" + s->ndiName + ")";
    s->url = "127.0.0.1:" + std::to_string(kFirstStreamPort + sendersCreated);
    s->groupsNull = settings->p_groups == nullptr;
    s->groups = settings->p_groups ? settings->p_groups : "";
    s->clockVideo = settings->clock_video;
    s->clockAudio = settings->clock_audio;
    s->withConfig = withConfig;
    s->configNull = config == nullptr;
    s->config = config ? config : "";
    s->source.p_ndi_name = s->sourceName.c_str();
    s->source.p_url_address = s->url.c_str();
    Sender *created = s.get();
    senders.push_back(std::move(s));
    ++sendersCreated;
    ++generation;
    for (const auto &r : receivers)
        if (r->wantsSource && !r->sender && r->wantedName == created->sourceName)
            attach(*r, *created);
    changed.notify_all();
    return reinterpret_cast<NDIlib_send_instance_t>(created);
}

void Network::destroySender(Sender *s)
{
    const std::vector<Receiver *> connected = s->receivers;
    for (Receiver *r : connected)
        detach(*r, true);
    senders.erase(std::find_if(senders.begin(), senders.end(), [s](const auto &p) { return p.get() == s; }));
    ++generation;
    // A receiver still asking for that name connects to another live sender of the same name.
    for (const auto &r : receivers) {
        if (!r->wantsSource || r->sender)
            continue;
        for (const auto &other : senders) {
            if (other->sourceName == r->wantedName) {
                attach(*r, *other);
                break;
            }
        }
    }
    changed.notify_all();
}

NDIlib_recv_instance_t Network::createReceiver(const NDIlib_recv_create_v3_t *settings, const char *config, bool withConfig)
{
    if (takeCreateFailure(KESTTEST_RECEIVER))
        return nullptr;
    auto r = std::make_unique<Receiver>();
    Receiver *created = r.get();
    created->withConfig = withConfig;
    created->configNull = config == nullptr;
    created->config = config ? config : "";
    if (settings) {
        created->colorFormat = settings->color_format;
        created->bandwidth = settings->bandwidth;
        created->allowFields = settings->allow_video_fields;
        created->nameNull = settings->p_ndi_recv_name == nullptr;
        created->name = settings->p_ndi_recv_name ? settings->p_ndi_recv_name : "";
    }
    receivers.push_back(std::move(r));
    if (settings && settings->source_to_connect_to.p_ndi_name)
        connect(*created, &settings->source_to_connect_to);
    return reinterpret_cast<NDIlib_recv_instance_t>(created);
}

void Network::destroyReceiver(Receiver *r)
{
    detach(*r, false);
    receivers.erase(std::find_if(receivers.begin(), receivers.end(), [r](const auto &p) { return p.get() == r; }));
    changed.notify_all();
}

NDIlib_find_instance_t Network::createFinder(const NDIlib_find_create_t *settings, const char *config, bool withConfig)
{
    if (takeCreateFailure(KESTTEST_FINDER))
        return nullptr;
    auto f = std::make_unique<Finder>();
    f->showLocal = settings ? settings->show_local_sources : true;
    f->groups = splitGroups(settings ? settings->p_groups : nullptr);
    f->withConfig = withConfig;
    f->config = config ? config : "";
    Finder *created = f.get();
    finders.push_back(std::move(f));
    ++findersCreated;
    return reinterpret_cast<NDIlib_find_instance_t>(created);
}

void Network::destroyFinder(Finder *f)
{
    finders.erase(std::find_if(finders.begin(), finders.end(), [f](const auto &p) { return p.get() == f; }));
}

void Network::connect(Receiver &r, const NDIlib_source_t *source)
{
    // Asked again for the source it already has: the connection stays as it is.
    if (r.wantsSource && source && source->p_ndi_name && r.wantedName == source->p_ndi_name)
        return;
    detach(r, false);
    r.wantsSource = source && source->p_ndi_name;
    r.wantedName = r.wantsSource ? source->p_ndi_name : "";
    r.urlNull = !r.wantsSource || !source->p_url_address;
    r.wantedUrl = r.urlNull ? "" : source->p_url_address;
    if (!r.wantsSource)
        return;
    for (const auto &s : senders) {
        if (s->sourceName == r.wantedName) {
            attach(r, *s);
            break;
        }
    }
}

void Network::attach(Receiver &r, Sender &s)
{
    r.sender = &s;
    s.receivers.push_back(&r);
    // A new viewer cannot decode until the next key frame of the stream it watches.
    if (r.bandwidth == NDIlib_recv_bandwidth_highest)
        s.keyframeHigh = true;
    else if (r.bandwidth == NDIlib_recv_bandwidth_lowest)
        s.keyframeLow = true;
    for (const auto &m : s.metadata) {
        auto frame = std::make_unique<Frame>();
        frame->type = NDIlib_frame_type_metadata;
        frame->text = m->text;
        frame->metadata.length = int(frame->text.size() + 1);
        frame->metadata.timecode = m->frame.timecode;
        enqueue(r, std::move(frame));
    }
    changed.notify_all();
}

void Network::detach(Receiver &r, bool lost)
{
    if (!r.sender)
        return;
    auto &list = r.sender->receivers;
    list.erase(std::remove(list.begin(), list.end(), &r), list.end());
    r.sender = nullptr;
    if (lost) {
        auto frame = std::make_unique<Frame>();
        frame->type = NDIlib_frame_type_error;
        enqueue(r, std::move(frame));
    }
    changed.notify_all();
}

void Network::enqueue(Receiver &r, std::unique_ptr<Frame> frame)
{
    // Pointers into the frame's own storage; the frame never moves once made.
    Frame &f = *frame;
    if (f.type == NDIlib_frame_type_metadata)
        f.metadata.p_data = const_cast<char *>(f.text.c_str());
    r.queue.push_back(std::move(frame));
    while (int(r.queue.size()) > kQueueLimit) {
        r.queue.pop_front();
        ++r.droppedFrames;
    }
    changed.notify_all();
}

NDIlib_tally_t Network::tallyOf(const Sender &s) const
{
    NDIlib_tally_t tally{};
    for (const Receiver *r : s.receivers) {
        tally.on_program = tally.on_program || r->tally.on_program;
        tally.on_preview = tally.on_preview || r->tally.on_preview;
    }
    return tally;
}

bool Network::keyframeRequired(const Sender &s, const NDIlib_video_frame_v2_t *frame) const
{
    if (!frame)
        return s.keyframeHigh || s.keyframeLow;
    return isLower(frame->FourCC) ? s.keyframeLow : s.keyframeHigh;
}

void Network::addConnectionMetadata(Sender &s, const NDIlib_metadata_frame_t &frame)
{
    auto entry = std::make_unique<ConnectionMetadata>();
    if (frame.p_data)
        entry->text = frame.length > 0 ? std::string(frame.p_data, strnlen(frame.p_data, size_t(frame.length)))
                                       : std::string(frame.p_data);
    entry->frame = frame;
    entry->frame.p_data = const_cast<char *>(entry->text.c_str());
    // Sent to every new connection, and at once to the receivers already connected.
    for (Receiver *r : s.receivers) {
        auto out = std::make_unique<Frame>();
        out->type = NDIlib_frame_type_metadata;
        out->text = entry->text;
        out->metadata.length = int(out->text.size() + 1);
        out->metadata.timecode = frame.timecode;
        enqueue(*r, std::move(out));
    }
    s.metadata.push_back(std::move(entry));
}

void Network::send(Sender &s, kesttest_call_e call, const NDIlib_video_frame_v2_t *video,
                   const NDIlib_audio_frame_v3_t *audio, const NDIlib_frame_scatter_t *scatter)
{
    const bool isVideo = video != nullptr;
    const uint32_t fourcc = isVideo ? uint32_t(video->FourCC) : uint32_t(audio->FourCC);
    const Kind kind = isVideo ? videoKind(fourcc) : audioKind(fourcc);
    const NDIlib_frame_type_e type = isVideo ? NDIlib_frame_type_video : NDIlib_frame_type_audio;
    // The scatter list only means something for compressed frames.
    const bool scattered = scatter && kind != Kind::Uncompressed;

    const char *reason = nullptr;
    const uint8_t *single = nullptr;
    int64_t total = 0;
    int blockCount = 0;
    if (scattered) {
        if (!scatter->p_data_blocks || !scatter->p_data_blocks_size) {
            reason = "the scatter list has no blocks";
        } else {
            for (; scatter->p_data_blocks[blockCount]; ++blockCount) {
                const int size = scatter->p_data_blocks_size[blockCount];
                if (size < 0 && !reason)
                    reason = "a scatter block has a negative size";
                total += std::max(size, 0);
            }
        }
        if (!reason && blockCount == 0)
            reason = "the scatter list has no blocks";
    } else {
        single = isVideo ? video->p_data : audio->p_data;
        if (kind == Kind::Uncompressed)
            total = isVideo ? uncompressedVideoSize(*video) : uncompressedAudioSize(*audio);
        else
            total = isVideo ? video->data_size_in_bytes : audio->data_size_in_bytes;
        if (total < 0)
            reason = "data_size_in_bytes is negative";
        else if (total > 0 && !single)
            reason = "p_data is NULL";
    }

    NDIlib_compressed_packet_t header{};
    if (!reason && kind == Kind::Packet) {
        const int64_t firstSize = scattered ? scatter->p_data_blocks_size[0] : total;
        const uint8_t *first = scattered ? scatter->p_data_blocks[0] : single;
        if (firstSize < int64_t(sizeof(header))) {
            reason = scattered ? "the compressed packet header is not inside the first block"
                               : "the frame is shorter than a compressed packet header";
        } else {
            std::memcpy(&header, first, sizeof(header));
            if (header.version < NDIlib_compressed_packet_version_0)
                reason = "the compressed packet header version is too small";
            else if (uint32_t(header.fourCC) != packetCodec(fourcc, isVideo))
                reason = "the compressed packet codec does not match the frame's FourCC";
            else if (int64_t(header.version) + header.data_size + header.extra_data_size != total)
                reason = "header, data and extra data do not add up to the frame";
        }
    }

    if (reason) {
        ++s.droppedFrames;
    } else {
        ++(isVideo ? s.videoFrames : s.audioFrames);
        if (isVideo && kind == Kind::Packet && (header.flags & NDIlib_compressed_packet_flags_keyframe))
            (isLower(fourcc) ? s.keyframeLow : s.keyframeHigh) = false;
    }

    // The bytes are gathered only when someone looks at them: a send with nobody watching
    // costs no copy and no allocation.
    bool anyTarget = false;
    if (!reason) {
        for (Receiver *r : s.receivers) {
            if (receiverTakes(*r, type, fourcc))
                anyTarget = true;
            else
                ++r->droppedFrames;
        }
    }
    const bool record = sentFrameLimit != 0;
    if (!anyTarget && !record)
        return;

    std::vector<uint8_t> bytes;
    bytes.reserve(size_t(total));
    if (scattered && scatter->p_data_blocks && scatter->p_data_blocks_size) {
        for (int i = 0; i < blockCount; ++i)
            if (scatter->p_data_blocks_size[i] > 0)
                bytes.insert(bytes.end(), scatter->p_data_blocks[i], scatter->p_data_blocks[i] + scatter->p_data_blocks_size[i]);
    } else if (single && total > 0) {
        bytes.assign(single, single + total);
    }
    const char *metadata = isVideo ? video->p_metadata : audio->p_metadata;

    if (anyTarget) {
        const int64_t stamp = now100ns();
        for (Receiver *r : s.receivers) {
            if (!receiverTakes(*r, type, fourcc))
                continue;
            auto frame = std::make_unique<Frame>();
            frame->type = type;
            frame->payload.reset(new uint8_t[std::max<size_t>(bytes.size(), 1)]);
            if (!bytes.empty())
                std::memcpy(frame->payload.get(), bytes.data(), bytes.size());
            frame->text = metadata ? metadata : "";
            if (isVideo) {
                frame->video = *video;
                frame->video.p_data = frame->payload.get();
                if (kind != Kind::Uncompressed)
                    frame->video.data_size_in_bytes = int(bytes.size());
                frame->video.p_metadata = metadata ? frame->text.c_str() : nullptr;
                frame->video.timestamp = stamp;
            } else {
                frame->audio = *audio;
                frame->audio.p_data = frame->payload.get();
                if (kind != Kind::Uncompressed)
                    frame->audio.data_size_in_bytes = int(bytes.size());
                frame->audio.p_metadata = metadata ? frame->text.c_str() : nullptr;
                frame->audio.timestamp = stamp;
            }
            enqueue(*r, std::move(frame));
        }
    }

    if (record) {
        auto rec = std::make_unique<SentRecord>();
        rec->call = call;
        rec->type = type;
        rec->dropReason = reason;
        rec->metadata = metadata ? metadata : "";
        if (isVideo) {
            rec->video = *video;
            rec->video.p_metadata = metadata ? rec->metadata.c_str() : nullptr;
        } else {
            rec->audio = *audio;
            rec->audio.p_metadata = metadata ? rec->metadata.c_str() : nullptr;
        }
        if (scatter && scatter->p_data_blocks && scatter->p_data_blocks_size) {
            for (int i = 0; scatter->p_data_blocks[i]; ++i) {
                rec->blocks.push_back(scatter->p_data_blocks[i]);
                rec->blockSizes.push_back(scatter->p_data_blocks_size[i]);
            }
        }
        rec->bytes = std::move(bytes);
        s.sent.push_back(std::move(rec));
        while (sentFrameLimit > 0 && int(s.sent.size()) > sentFrameLimit)
            s.sent.pop_front();
    }
}

bool Network::visible(const Finder &f, const Sender &s) const
{
    if (!f.showLocal) // every sender of this runtime runs on this machine
        return false;
    const std::vector<std::string> senderGroups = splitGroups(s.groupsNull ? nullptr : s.groups.c_str());
    for (const std::string &g : f.groups)
        if (std::find(senderGroups.begin(), senderGroups.end(), g) != senderGroups.end())
            return true;
    return false;
}

const NDIlib_source_t *Network::currentSources(Finder &f, uint32_t *count)
{
    ++sourceQueries;
    f.seenGeneration = generation;
    // A fresh list every time: the previous one is released, as the runtime documents.
    std::vector<std::string> names, urls;
    for (const auto &s : senders) {
        if (visible(f, *s)) {
            names.push_back(s->sourceName);
            urls.push_back(s->url);
        }
    }
    f.names = std::move(names);
    f.urls = std::move(urls);
    f.sources.clear();
    f.sources.shrink_to_fit();
    for (size_t i = 0; i < f.names.size(); ++i) {
        NDIlib_source_t source{};
        source.p_ndi_name = f.names[i].c_str();
        source.p_url_address = f.urls[i].c_str();
        f.sources.push_back(source);
    }
    if (count)
        *count = uint32_t(f.sources.size());
    return f.sources.empty() ? nullptr : f.sources.data();
}

} // namespace kesttest
