#pragma once

// Test-only control interface of the NDI test runtime (tests/ndi-runtime, built as
// libndi.so.5). Tests link the runtime and reach it through these functions; the library under
// test reaches the same runtime through NDI_RUNTIME_DIR_V5 and the NDI functions.
//
// All functions are thread-safe. Handles are the ones the NDI functions returned; an unknown or
// destroyed handle makes a query return false / 0 / NULL. Strings and arrays returned here stay
// valid until the instance they belong to is destroyed or changed (a receiver connected to
// another source), unless a function says otherwise.

#include "ndi/ndiabi.h"

#ifdef __cplusplus
extern "C" {
#endif

// --- the machine -------------------------------------------------------------------------
// Machine part of every source name: the host name in upper case. A sender "cam" is listed by
// finders as kesttest_machine_name() + " (cam)".
const char *kesttest_machine_name(void);
// Number of NDIlib_initialize calls so far.
int kesttest_initialize_calls(void);

// --- creation failures -------------------------------------------------------------------
enum kesttest_kind_e { KESTTEST_FINDER = 1, KESTTEST_SENDER = 2, KESTTEST_RECEIVER = 3 };
// The next `count` creations of that kind (any create function) return NULL. 0 cancels.
void kesttest_fail_next_creates(int kind, int count);

// --- senders -------------------------------------------------------------------------------
// Live senders in creation order; index out of range: NULL.
int kesttest_sender_count(void);
NDIlib_send_instance_t kesttest_sender_at(int index);
// The live sender whose source name ("MACHINE (name)") or plain NDI name equals `name`.
NDIlib_send_instance_t kesttest_sender_by_name(const char *name);
// Total number of senders ever created (successfully) in the process.
int kesttest_senders_created(void);

typedef struct kesttest_sender_info_t {
    const char *p_ndi_name;    // as passed at creation
    const char *p_source_name; // "MACHINE (name)", as finders list it
    const char *p_groups;      // as passed at creation: NULL when NULL was passed
    bool clock_video, clock_audio;
    bool created_with_config;  // NDIlib_send_create_v2 (Advanced)
    const char *p_config;      // its p_config_data as passed (NULL when none)
    int no_connections;        // receivers connected now
    NDIlib_tally_t tally;      // what NDIlib_send_get_tally would report now
    bool keyframe_required_high, keyframe_required_low; // per stream, see NDIlib_send_is_keyframe_required
    int no_connection_metadata;
    int64_t video_frames, audio_frames; // accepted frames
    int64_t dropped_frames;             // frames refused by the runtime's rules
} kesttest_sender_info_t;
bool kesttest_sender_info(NDIlib_send_instance_t sender, kesttest_sender_info_t *out);

// Connection metadata attached with NDIlib_send_add_connection_metadata, in order; p_data is
// the runtime's copy, length and timecode as passed.
bool kesttest_sender_connection_metadata(NDIlib_send_instance_t sender, int index, NDIlib_metadata_frame_t *out);

// Frames the sender was given, recorded in order (see kesttest_set_sent_frame_limit).
enum kesttest_call_e {
    KESTTEST_CALL_SEND_VIDEO_V2 = 1,
    KESTTEST_CALL_SEND_VIDEO_SCATTER = 2,
    KESTTEST_CALL_SEND_AUDIO_V3 = 3,
    KESTTEST_CALL_SEND_AUDIO_SCATTER = 4
};
typedef struct kesttest_sent_frame_t {
    int call;                      // kesttest_call_e
    NDIlib_frame_type_e type;      // video or audio
    NDIlib_video_frame_v2_t video; // video calls: the struct as passed, except p_metadata (a copy)
    NDIlib_audio_frame_v3_t audio; // audio calls: likewise
    bool accepted;                 // false: refused, see p_drop_reason
    const char *p_drop_reason;     // NULL when accepted
    const uint8_t *p_bytes;        // the frame as receivers get it (the blocks concatenated)
    int no_bytes;
    int no_blocks;                 // scatter blocks before the NULL terminator (0: no scatter)
    const uint8_t *const *p_blocks; // the block pointers as passed (the caller's memory)
    const int *p_block_sizes;
} kesttest_sent_frame_t;
int kesttest_sent_frame_count(NDIlib_send_instance_t sender);
// Valid until kesttest_clear_sent_frames or the sender's destruction.
bool kesttest_sent_frame(NDIlib_send_instance_t sender, int index, kesttest_sent_frame_t *out);
void kesttest_clear_sent_frames(NDIlib_send_instance_t sender);
// Frames kept per sender, the oldest dropped first: -1 keeps all (the default), 0 none.
void kesttest_set_sent_frame_limit(int frames);

// --- receivers ---------------------------------------------------------------------------
int kesttest_receiver_count(void);
NDIlib_recv_instance_t kesttest_receiver_at(int index);

typedef struct kesttest_receiver_info_t {
    const char *p_recv_name;   // as passed (NULL when none)
    const char *p_source_name; // the source asked for (creation or NDIlib_recv_connect); NULL: none
    const char *p_url_address; // as passed with it
    NDIlib_recv_color_format_e color_format;
    NDIlib_recv_bandwidth_e bandwidth;
    bool allow_video_fields;
    bool created_with_config;  // NDIlib_recv_create_v4 (Advanced)
    const char *p_config;
    bool connected;            // a live sender of that name exists
    NDIlib_tally_t tally;      // as last set with NDIlib_recv_set_tally
    int queued_frames;         // waiting for NDIlib_recv_capture_v3
    int outstanding_frames;    // captured and not yet freed
    int bad_frees;             // free calls that matched no captured frame
    int64_t dropped_frames;    // frames this receiver could not take (format, queue full)
} kesttest_receiver_info_t;
bool kesttest_receiver_info(NDIlib_recv_instance_t receiver, kesttest_receiver_info_t *out);

// Scripted frames, queued behind what is already waiting and delivered exactly as given: every
// field (FourCC, sizes, header contents) is kept, whatever it says, except that p_data points
// at the runtime's copy of the first `no_bytes` bytes of p_data (a NULL p_data stays NULL; a
// non-NULL p_data with no_bytes <= 0 gives a valid zero-length buffer) and p_metadata at a copy.
// No bandwidth or format rule applies to them.
bool kesttest_receiver_inject_video(NDIlib_recv_instance_t receiver, const NDIlib_video_frame_v2_t *frame, int no_bytes);
bool kesttest_receiver_inject_audio(NDIlib_recv_instance_t receiver, const NDIlib_audio_frame_v3_t *frame, int no_bytes);
bool kesttest_receiver_inject_metadata(NDIlib_recv_instance_t receiver, const char *text);
// A frame without payload: NDIlib_frame_type_error or NDIlib_frame_type_status_change.
bool kesttest_receiver_inject(NDIlib_recv_instance_t receiver, NDIlib_frame_type_e type);

// --- finders -------------------------------------------------------------------------------
int kesttest_finder_count(void);
// Total number of finders ever created (successfully) in the process.
int kesttest_finders_created(void);
// Number of NDIlib_find_get_current_sources calls on all finders so far.
int kesttest_source_queries(void);

#ifdef __cplusplus
}
#endif
