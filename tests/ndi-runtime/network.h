#pragma once

// The in-process "network" of the NDI test runtime: every sender, receiver and finder created
// through the runtime's functions, and the rules by which frames travel between them. One lock
// guards all of it; the exported functions (exports.cpp, control.cpp) take it and call in here.

#include "kesttest.h"
#include "ndi/ndiabi.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kesttest {

// A frame waiting in a receiver's queue or held by the application after capture. The structs
// point into the frame's own storage.
struct Frame
{
    NDIlib_frame_type_e type = NDIlib_frame_type_none;
    NDIlib_video_frame_v2_t video{};
    NDIlib_audio_frame_v3_t audio{};
    NDIlib_metadata_frame_t metadata{};
    std::unique_ptr<uint8_t[]> payload;
    std::string text; // metadata text, or the video/audio frame's p_metadata
};

struct SentRecord
{
    kesttest_call_e call = KESTTEST_CALL_SEND_VIDEO_V2;
    NDIlib_frame_type_e type = NDIlib_frame_type_none;
    NDIlib_video_frame_v2_t video{};
    NDIlib_audio_frame_v3_t audio{};
    const char *dropReason = nullptr;
    std::vector<uint8_t> bytes;
    std::vector<const uint8_t *> blocks;
    std::vector<int> blockSizes;
    std::string metadata;
};

struct ConnectionMetadata
{
    std::string text;
    NDIlib_metadata_frame_t frame{}; // length and timecode as passed, p_data -> text
};

struct Receiver;

struct Sender
{
    std::string ndiName;
    std::string sourceName; // "MACHINE (name)"
    std::string url;
    std::string groups;
    bool groupsNull = true;
    bool clockVideo = false;
    bool clockAudio = false;
    bool withConfig = false;
    std::string config;
    bool configNull = true;
    NDIlib_source_t source{};

    std::vector<Receiver *> receivers;
    std::vector<std::unique_ptr<ConnectionMetadata>> metadata;
    NDIlib_tally_t reportedTally{};
    bool keyframeHigh = false;
    bool keyframeLow = false;
    int64_t videoFrames = 0;
    int64_t audioFrames = 0;
    int64_t droppedFrames = 0;
    std::deque<std::unique_ptr<SentRecord>> sent;
};

struct Receiver
{
    std::string name;
    bool nameNull = true;
    std::string wantedName;
    bool wantsSource = false;
    std::string wantedUrl;
    bool urlNull = true;
    NDIlib_recv_color_format_e colorFormat = NDIlib_recv_color_format_UYVY_BGRA;
    NDIlib_recv_bandwidth_e bandwidth = NDIlib_recv_bandwidth_highest;
    bool allowFields = true;
    bool withConfig = false;
    std::string config;
    bool configNull = true;

    Sender *sender = nullptr;
    NDIlib_tally_t tally{};
    std::deque<std::unique_ptr<Frame>> queue;
    std::list<std::unique_ptr<Frame>> outstanding;
    int badFrees = 0;
    int64_t droppedFrames = 0;
};

struct Finder
{
    bool showLocal = true;
    std::vector<std::string> groups;
    bool withConfig = false;
    std::string config;
    // The last list handed out, kept until the next query or the finder's destruction.
    std::vector<std::string> names;
    std::vector<std::string> urls;
    std::vector<NDIlib_source_t> sources;
    uint64_t seenGeneration = UINT64_MAX;
};

class Network
{
public:
    static constexpr int kQueueLimit = 1024; // frames waiting per receiver; the oldest go first

    static Network &get();

    std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(mutex); }

    // Each of these expects the lock held by the caller.
    Sender *sender(NDIlib_send_instance_t handle, const char *function);
    Receiver *receiver(NDIlib_recv_instance_t handle, const char *function);
    Finder *finder(NDIlib_find_instance_t handle, const char *function);
    bool takeCreateFailure(int kind);

    NDIlib_send_instance_t createSender(const NDIlib_send_create_t *settings, const char *config, bool withConfig);
    void destroySender(Sender *s);
    NDIlib_recv_instance_t createReceiver(const NDIlib_recv_create_v3_t *settings, const char *config, bool withConfig);
    void destroyReceiver(Receiver *r);
    NDIlib_find_instance_t createFinder(const NDIlib_find_create_t *settings, const char *config, bool withConfig);
    void destroyFinder(Finder *f);

    void connect(Receiver &r, const NDIlib_source_t *source);
    void send(Sender &s, kesttest_call_e call, const NDIlib_video_frame_v2_t *video,
              const NDIlib_audio_frame_v3_t *audio, const NDIlib_frame_scatter_t *scatter);
    void addConnectionMetadata(Sender &s, const NDIlib_metadata_frame_t &frame);
    NDIlib_tally_t tallyOf(const Sender &s) const;
    bool keyframeRequired(const Sender &s, const NDIlib_video_frame_v2_t *frame) const;
    const NDIlib_source_t *currentSources(Finder &f, uint32_t *count);
    void enqueue(Receiver &r, std::unique_ptr<Frame> frame);

    std::mutex mutex;
    std::condition_variable changed; // any change a waiting call could be interested in

    std::vector<std::unique_ptr<Sender>> senders;
    std::vector<std::unique_ptr<Receiver>> receivers;
    std::vector<std::unique_ptr<Finder>> finders;
    uint64_t generation = 0; // bumped whenever the list of sources changes
    std::string machine;
    int initializeCalls = 0;
    int sendersCreated = 0;
    int findersCreated = 0;
    int sourceQueries = 0;
    int failNext[4] = {0, 0, 0, 0};
    int sentFrameLimit = -1;

private:
    Network();
    void attach(Receiver &r, Sender &s);
    void detach(Receiver &r, bool lost);
    bool visible(const Finder &f, const Sender &s) const;
};

// Runtime clock for receive time stamps, in 100 ns units.
int64_t now100ns();

} // namespace kesttest
