#pragma once

// The NDI test runtime (ndi-runtime/, built as libndi.so.5): its test-only control
// interface, and the NDI functions tests and benchmarks call directly. The library under test
// reaches the same runtime through NDI_RUNTIME_DIR_V5 and its loader.
//
// All functions are thread-safe. An unknown or destroyed handle makes a query return
// false / 0 / NULL. Strings and arrays returned here live as long as the instance they belong to.

#include "ndi/ndiabi.h"

#ifdef __cplusplus
extern "C" {
#endif

// Machine part of every source name: a sender "cam" is listed as kesttest_machine_name() + " (cam)".
const char *kesttest_machine_name(void);

enum kesttest_kind_e { KESTTEST_SENDER = 1, KESTTEST_RECEIVER = 2 };
// The next `count` creations of that kind return NULL. 0 cancels.
void kesttest_fail_next_creates(int kind, int count);
// Senders created from now on run on another machine (NULL: this one again): they are listed
// as machine + " (name)", also by finders that do not show local sources.
void kesttest_set_sender_machine(const char *machine);
// How video starts for a receiver that connects to a sender between two key frames: false
// (the default) from the next frame on, key frame or not; true from the next key frame of its
// stream on. Nobody knows which the vendor's runtime does; receivers must cope with both.
void kesttest_set_join_at_key_frame(bool hold);

// --- senders -------------------------------------------------------------------------------
// Live senders in creation order; index out of range: NULL.
int kesttest_sender_count(void);
NDIlib_send_instance_t kesttest_sender_at(int index);
int kesttest_senders_created(void); // successfully, since the process began

typedef struct kesttest_sender_info_t {
    const char *p_ndi_name; // as passed at creation
    const char *p_groups;   // as passed: NULL when NULL was passed
    bool created_with_config; // NDIlib_send_create_v2 (Advanced)
    const char *p_config;     // its p_config_data as passed
    bool clock_video, clock_audio;
    int no_connections;
    NDIlib_tally_t tally; // what NDIlib_send_get_tally would report now
    int no_connection_metadata;
    int64_t video_frames, audio_frames; // accepted
    // Frames that broke a documented rule and were dropped, and the rule the last one broke
    // (NULL: none); each recorded frame names its own in p_drop_reason.
    int64_t dropped_frames;
    const char *p_last_drop_reason;
} kesttest_sender_info_t;
bool kesttest_sender_info(NDIlib_send_instance_t sender, kesttest_sender_info_t *out);
// The text of NDIlib_send_add_connection_metadata call `index`; NULL when out of range.
const char *kesttest_sender_connection_metadata(NDIlib_send_instance_t sender, int index);

// The frames a sender was given, in order, also those it dropped (see kesttest_set_sent_frame_limit).
typedef struct kesttest_sent_frame_t {
    NDIlib_frame_type_e type;      // video or audio
    NDIlib_video_frame_v2_t video; // as passed, without p_metadata
    NDIlib_audio_frame_v3_t audio;
    const char *p_drop_reason;      // NULL when the runtime accepted the frame
    const uint8_t *p_bytes;         // the frame as receivers get it: the blocks concatenated
    int no_bytes;
    int no_blocks;                  // scatter blocks before the NULL terminator
    const uint8_t *const *p_blocks; // the block pointers as passed (the caller's memory)
} kesttest_sent_frame_t;
int kesttest_sent_frame_count(NDIlib_send_instance_t sender);
bool kesttest_sent_frame(NDIlib_send_instance_t sender, int index, kesttest_sent_frame_t *out);
// Frames kept per sender, the oldest dropped first: -1 keeps all (the default), 0 none.
void kesttest_set_sent_frame_limit(int frames);

// --- receivers ---------------------------------------------------------------------------
int kesttest_receiver_count(void);
NDIlib_recv_instance_t kesttest_receiver_at(int index);

typedef struct kesttest_receiver_info_t {
    const char *p_source_name; // asked for at creation or with NDIlib_recv_connect; NULL: none
    bool created_with_config;  // NDIlib_recv_create_v4 (Advanced)
    const char *p_config;
    // As passed at creation. A colour format that does not pass a codec through gets its
    // frames decoded: video as UYVY (BGRX, RGBX for those formats), audio as FLTP.
    NDIlib_recv_color_format_e color_format;
    NDIlib_recv_bandwidth_e bandwidth;
    bool allow_video_fields;
    const char *p_ndi_recv_name;
    bool connected;            // to a live sender of that name
    int queued_frames;         // waiting for NDIlib_recv_capture_v3
    int outstanding_frames;    // captured and not yet freed
    int bad_frees;             // free calls that matched no captured frame
} kesttest_receiver_info_t;
bool kesttest_receiver_info(NDIlib_recv_instance_t receiver, kesttest_receiver_info_t *out);

// Scripted frames, queued behind what is waiting and delivered exactly as given (FourCC,
// sizes, header contents), except that p_data points at the runtime's copy of its first
// `no_bytes` bytes (NULL stays NULL) and p_metadata is NULL.
bool kesttest_receiver_inject_video(NDIlib_recv_instance_t receiver, const NDIlib_video_frame_v2_t *frame, int no_bytes);
bool kesttest_receiver_inject_audio(NDIlib_recv_instance_t receiver, const NDIlib_audio_frame_v3_t *frame, int no_bytes);
// A frame without payload: NDIlib_frame_type_error or NDIlib_frame_type_status_change.
bool kesttest_receiver_inject(NDIlib_recv_instance_t receiver, NDIlib_frame_type_e type);

// --- finders -------------------------------------------------------------------------------
// A finder lists the senders that share one of its groups (case aside; NULL or "" is
// "public"), those of this machine only when it shows local sources.
int kesttest_finder_count(void);
NDIlib_find_instance_t kesttest_finder_at(int index);
typedef struct kesttest_finder_info_t {
    bool show_local_sources; // as passed at creation, or the defaults for NULL settings
    const char *p_groups;
    const char *p_extra_ips;
} kesttest_finder_info_t;
bool kesttest_finder_info(NDIlib_find_instance_t finder, kesttest_finder_info_t *out);
int kesttest_finders_created(void);
int kesttest_source_queries(void); // NDIlib_find_get_current_sources calls so far

// --- NDI functions tests call directly ---------------------------------------------------
// Time-outs are ignored: nothing in the runtime waits. The library only polls.
NDIlib_find_instance_t NDIlib_find_create_v2(const NDIlib_find_create_t *p_create_settings);
void NDIlib_find_destroy(NDIlib_find_instance_t p_instance);
const NDIlib_source_t *NDIlib_find_get_current_sources(NDIlib_find_instance_t p_instance, uint32_t *p_no_sources);
NDIlib_recv_instance_t NDIlib_recv_create_v3(const NDIlib_recv_create_v3_t *p_create_settings);
void NDIlib_recv_destroy(NDIlib_recv_instance_t p_instance);
NDIlib_frame_type_e NDIlib_recv_capture_v3(NDIlib_recv_instance_t p_instance, NDIlib_video_frame_v2_t *p_video_data,
                                           NDIlib_audio_frame_v3_t *p_audio_data, NDIlib_metadata_frame_t *p_metadata,
                                           uint32_t timeout_in_ms);
void NDIlib_recv_free_video_v2(NDIlib_recv_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data);
void NDIlib_recv_free_audio_v3(NDIlib_recv_instance_t p_instance, const NDIlib_audio_frame_v3_t *p_audio_data);
bool NDIlib_recv_set_tally(NDIlib_recv_instance_t p_instance, const NDIlib_tally_t *p_tally);
void NDIlib_send_destroy(NDIlib_send_instance_t p_instance);
// Advanced SDK: not in the standard runtime.
NDIlib_send_instance_t NDIlib_send_create_v2(const NDIlib_send_create_t *p_create_settings, const char *p_config_data);
void NDIlib_send_send_video_scatter(NDIlib_send_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data,
                                    const NDIlib_frame_scatter_t *p_video_scatter);
void NDIlib_send_send_audio_scatter(NDIlib_send_instance_t p_instance, const NDIlib_audio_frame_v3_t *p_audio_data,
                                    const NDIlib_frame_scatter_t *p_audio_scatter);

#ifdef __cplusplus
}
#endif
