#pragma once

// The C interface of the NDI 5 runtime (libndi.so.5) and of its Advanced SDK compressed path,
// declared by this project for loading the runtime at run time. Nothing here links against the
// runtime: ndi/ndiruntime.h resolves the functions by name.
//
// Every layout below is checked at compile time for the two targets this library runs on:
// 32-bit ARM (EABI hard-float, 4-byte pointers, 8-byte aligned int64) and x86_64. sizeof(void *)
// selects the expected figures; a 32-bit target that aligns int64 to 4 bytes (i386) fails the
// checks on purpose, since its layout differs from the runtime's.
//
// Only C headers are included, so the file also compiles freestanding for a cross target
// (tests/ndi checks it for armv7 with clang when clang is installed).

#include <stddef.h>
#include <stdint.h>

// Opaque handles.
struct NDIlib_find_instance_type;
struct NDIlib_recv_instance_type;
struct NDIlib_send_instance_type;
typedef NDIlib_find_instance_type *NDIlib_find_instance_t;
typedef NDIlib_recv_instance_type *NDIlib_recv_instance_t;
typedef NDIlib_send_instance_type *NDIlib_send_instance_t;

constexpr uint32_t ndiFourCC(char a, char b, char c, char d)
{
    return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 | uint32_t(uint8_t(d)) << 24;
}

// Every enum of the runtime has a 0x7fffffff member, so each is a 4-byte int.
enum NDIlib_frame_type_e : int32_t {
    NDIlib_frame_type_none = 0,
    NDIlib_frame_type_video = 1,
    NDIlib_frame_type_audio = 2,
    NDIlib_frame_type_metadata = 3,
    NDIlib_frame_type_error = 4,
    NDIlib_frame_type_status_change = 100,
    NDIlib_frame_type_max = 0x7fffffff
};

enum NDIlib_recv_bandwidth_e : int32_t {
    NDIlib_recv_bandwidth_metadata_only = -10,
    NDIlib_recv_bandwidth_audio_only = 10,
    NDIlib_recv_bandwidth_lowest = 0,
    NDIlib_recv_bandwidth_highest = 100,
    NDIlib_recv_bandwidth_max = 0x7fffffff
};

enum NDIlib_frame_format_type_e : int32_t {
    NDIlib_frame_format_type_interleaved = 0,
    NDIlib_frame_format_type_progressive = 1,
    NDIlib_frame_format_type_field_0 = 2,
    NDIlib_frame_format_type_field_1 = 3,
    NDIlib_frame_format_type_max = 0x7fffffff
};

// The standard formats and, from 300 on, the Advanced SDK's compressed ones (same field).
enum NDIlib_recv_color_format_e : int32_t {
    NDIlib_recv_color_format_BGRX_BGRA = 0,
    NDIlib_recv_color_format_UYVY_BGRA = 1,
    NDIlib_recv_color_format_RGBX_RGBA = 2,
    NDIlib_recv_color_format_UYVY_RGBA = 3,
    NDIlib_recv_color_format_fastest = 100,
    NDIlib_recv_color_format_best = 101,
    NDIlib_recv_color_format_compressed_v1 = 300,          // SpeedHQ only
    NDIlib_recv_color_format_compressed_v2 = 301,          // SpeedHQ; H.264 arrives decoded
    NDIlib_recv_color_format_compressed_v3 = 302,          // SpeedHQ, H.264
    NDIlib_recv_color_format_compressed_v4 = 303,          // SpeedHQ, H.264, HEVC
    NDIlib_recv_color_format_compressed_v3_with_audio = 304,
    NDIlib_recv_color_format_compressed_v4_with_audio = 305, // ... and AAC passed through
    NDIlib_recv_color_format_compressed_v5 = 307,          // v4 plus H.264/HEVC with alpha
    NDIlib_recv_color_format_compressed_v5_with_audio = 308,
    NDIlib_recv_color_format_max = 0x7fffffff
};

enum NDIlib_FourCC_video_type_e : uint32_t {
    NDIlib_FourCC_video_type_UYVY = 0x59565955,
    NDIlib_FourCC_video_type_UYVA = 0x41565955,
    NDIlib_FourCC_video_type_P216 = 0x36313250,
    NDIlib_FourCC_video_type_PA16 = 0x36314150,
    NDIlib_FourCC_video_type_YV12 = 0x32315659,
    NDIlib_FourCC_video_type_I420 = 0x30323449,
    NDIlib_FourCC_video_type_NV12 = 0x3231564E,
    NDIlib_FourCC_video_type_BGRA = 0x41524742,
    NDIlib_FourCC_video_type_BGRX = 0x58524742,
    NDIlib_FourCC_video_type_RGBA = 0x41424752,
    NDIlib_FourCC_video_type_RGBX = 0x58424752,
    // Compressed (Advanced SDK). Upper case: the full-bandwidth stream; lower case: the preview
    // (proxy) stream of the same source.
    NDIlib_FourCC_video_type_ex_SHQ0_highest_bandwidth = 0x30514853,
    NDIlib_FourCC_video_type_ex_SHQ2_highest_bandwidth = 0x32514853,
    NDIlib_FourCC_video_type_ex_SHQ7_highest_bandwidth = 0x37514853,
    NDIlib_FourCC_video_type_ex_SHQ0_lowest_bandwidth = 0x30716873,
    NDIlib_FourCC_video_type_ex_SHQ2_lowest_bandwidth = 0x32716873,
    NDIlib_FourCC_video_type_ex_SHQ7_lowest_bandwidth = 0x37716873,
    NDIlib_FourCC_video_type_ex_H264_highest_bandwidth = 0x34363248, // 'H264'
    NDIlib_FourCC_video_type_ex_H264_lowest_bandwidth = 0x34363268,  // 'h264'
    NDIlib_FourCC_video_type_ex_HEVC_highest_bandwidth = 0x43564548, // 'HEVC'
    NDIlib_FourCC_video_type_ex_HEVC_lowest_bandwidth = 0x63766568,  // 'hevc'
    NDIlib_FourCC_video_type_ex_H264_alpha_highest_bandwidth = 0x34363241,
    NDIlib_FourCC_video_type_ex_H264_alpha_lowest_bandwidth = 0x34363261,
    NDIlib_FourCC_video_type_ex_HEVC_alpha_highest_bandwidth = 0x43564541,
    NDIlib_FourCC_video_type_ex_HEVC_alpha_lowest_bandwidth = 0x63766561,
    NDIlib_FourCC_video_type_max = 0x7fffffff // also "not described yet" in the sender
};

enum NDIlib_FourCC_audio_type_e : uint32_t {
    NDIlib_FourCC_audio_type_FLTP = 0x70544C46, // 'FLTp'
    NDIlib_FourCC_audio_type_ex_AAC = 0x000000FF,
    NDIlib_FourCC_audio_type_AAC = 0x000000FF,
    NDIlib_FourCC_audio_type_ex_OPUS = 0x7375704F, // 'Opus', not behind a compressed packet
    NDIlib_FourCC_audio_type_max = 0x7fffffff
};

// Codec of a compressed packet: always upper case, the bandwidth lives in the frame's FourCC.
enum NDIlib_compressed_FourCC_type_e : uint32_t {
    NDIlib_compressed_FourCC_type_H264 = 0x34363248,
    NDIlib_compressed_FourCC_type_HEVC = 0x43564548,
    NDIlib_compressed_FourCC_type_AAC = 0x000000FF,
    NDIlib_compressed_FourCC_type_max = 0x7fffffff
};

enum NDIlib_compressed_packet_flags_e : uint32_t {
    NDIlib_compressed_packet_flags_none = 0,
    NDIlib_compressed_packet_flags_keyframe = 1
};

static_assert(ndiFourCC('H', '2', '6', '4') == NDIlib_FourCC_video_type_ex_H264_highest_bandwidth, "FourCC byte order");
static_assert(ndiFourCC('h', 'e', 'v', 'c') == NDIlib_FourCC_video_type_ex_HEVC_lowest_bandwidth, "FourCC byte order");
static_assert(ndiFourCC('F', 'L', 'T', 'p') == NDIlib_FourCC_audio_type_FLTP, "FourCC byte order");

// Size of the compressed packet header, and the only header version there is.
constexpr int32_t NDIlib_compressed_packet_version_0 = 44;
// Time codes: "let the runtime make one up" on send; "sender too old to stamp" on receive.
constexpr int64_t NDIlib_send_timecode_synthesize = INT64_MAX;
constexpr int64_t NDIlib_recv_timestamp_undefined = INT64_MAX;
constexpr uint32_t NDIlib_infinite_timeout_ms = 0xFFFFFFFFu;

struct NDIlib_source_t {
    const char *p_ndi_name; // "MACHINE (SOURCE)", UTF-8
    union {
        const char *p_url_address; // opaque to applications
        const char *p_ip_address;
    };
};

struct NDIlib_find_create_t {
    bool show_local_sources;
    const char *p_groups;    // comma list; null: the default groups
    const char *p_extra_ips; // comma list of addresses
};

struct NDIlib_send_create_t {
    const char *p_ndi_name;
    const char *p_groups; // null: the default groups
    bool clock_video;
    bool clock_audio;
};

struct NDIlib_recv_create_v3_t {
    NDIlib_source_t source_to_connect_to;
    NDIlib_recv_color_format_e color_format;
    NDIlib_recv_bandwidth_e bandwidth;
    bool allow_video_fields;
    const char *p_ndi_recv_name;
};

struct NDIlib_video_frame_v2_t {
    int xres;
    int yres;
    NDIlib_FourCC_video_type_e FourCC;
    int frame_rate_N;
    int frame_rate_D;
    float picture_aspect_ratio; // 0: square pixels
    NDIlib_frame_format_type_e frame_format_type;
    int64_t timecode;  // 100 ns units
    uint8_t *p_data;   // compressed: the packet header, payload and extra data
    union {
        int line_stride_in_bytes;
        int data_size_in_bytes; // compressed: header + payload + extra data
    };
    const char *p_metadata; // UTF-8 XML or null
    int64_t timestamp;      // 100 ns units; set by the runtime on the receiving side
};

struct NDIlib_audio_frame_v3_t {
    int sample_rate;
    int no_channels;
    int no_samples; // per channel
    int64_t timecode;
    NDIlib_FourCC_audio_type_e FourCC;
    uint8_t *p_data;
    union {
        int channel_stride_in_bytes;
        int data_size_in_bytes;
    };
    const char *p_metadata;
    int64_t timestamp;
};

struct NDIlib_metadata_frame_t {
    int length; // UTF-8 length including the terminating NUL; 0: the runtime measures it
    int64_t timecode;
    char *p_data;
};

struct NDIlib_tally_t {
    bool on_program;
    bool on_preview;
};

// Advanced SDK: the header in front of every compressed video and audio payload. The payload
// follows after `version` bytes (readers must skip by `version`, not by sizeof), then the extra
// data (parameter sets, AudioSpecificConfig).
#pragma pack(push, 1)
struct NDIlib_compressed_packet_t {
    int32_t version; // NDIlib_compressed_packet_version_0
    NDIlib_compressed_FourCC_type_e fourCC;
    int64_t pts;
    int64_t dts;
    uint64_t reserved;
    uint32_t flags; // NDIlib_compressed_packet_flags_e
    uint32_t data_size;
    uint32_t extra_data_size;
};
#pragma pack(pop)

// Advanced SDK: a frame given as a list of blocks whose concatenation is the whole frame. The
// block list ends with a null pointer; the whole packet header must lie in the first block.
struct NDIlib_frame_scatter_t {
    const uint8_t *const *p_data_blocks;
    const int *p_data_blocks_size;
};

// --- layout checks --------------------------------------------------------------------------
namespace NdiAbiLayout {
constexpr bool k64 = sizeof(void *) == 8;
constexpr size_t pick(size_t x86_64, size_t armv7) { return k64 ? x86_64 : armv7; }
} // namespace NdiAbiLayout

#define KEST_NDI_CHECK_SIZE(type, x64, arm) \
    static_assert(sizeof(type) == NdiAbiLayout::pick(x64, arm), "size of " #type)
#define KEST_NDI_CHECK_OFFSET(type, field, x64, arm) \
    static_assert(offsetof(type, field) == NdiAbiLayout::pick(x64, arm), "offset of " #type "::" #field)

static_assert(sizeof(bool) == 1, "bool is one byte in the runtime's structs");
static_assert(sizeof(NDIlib_frame_type_e) == 4 && sizeof(NDIlib_recv_bandwidth_e) == 4
                  && sizeof(NDIlib_FourCC_video_type_e) == 4 && sizeof(NDIlib_compressed_FourCC_type_e) == 4,
              "enums are 4 bytes");

KEST_NDI_CHECK_SIZE(NDIlib_source_t, 16, 8);
KEST_NDI_CHECK_OFFSET(NDIlib_source_t, p_url_address, 8, 4);

KEST_NDI_CHECK_SIZE(NDIlib_find_create_t, 24, 12);
KEST_NDI_CHECK_OFFSET(NDIlib_find_create_t, p_groups, 8, 4);
KEST_NDI_CHECK_OFFSET(NDIlib_find_create_t, p_extra_ips, 16, 8);

KEST_NDI_CHECK_SIZE(NDIlib_send_create_t, 24, 12);
KEST_NDI_CHECK_OFFSET(NDIlib_send_create_t, p_groups, 8, 4);
KEST_NDI_CHECK_OFFSET(NDIlib_send_create_t, clock_video, 16, 8);
KEST_NDI_CHECK_OFFSET(NDIlib_send_create_t, clock_audio, 17, 9);

KEST_NDI_CHECK_SIZE(NDIlib_recv_create_v3_t, 40, 24);
KEST_NDI_CHECK_OFFSET(NDIlib_recv_create_v3_t, color_format, 16, 8);
KEST_NDI_CHECK_OFFSET(NDIlib_recv_create_v3_t, bandwidth, 20, 12);
KEST_NDI_CHECK_OFFSET(NDIlib_recv_create_v3_t, allow_video_fields, 24, 16);
KEST_NDI_CHECK_OFFSET(NDIlib_recv_create_v3_t, p_ndi_recv_name, 32, 20);

KEST_NDI_CHECK_SIZE(NDIlib_video_frame_v2_t, 72, 64);
KEST_NDI_CHECK_OFFSET(NDIlib_video_frame_v2_t, FourCC, 8, 8);
KEST_NDI_CHECK_OFFSET(NDIlib_video_frame_v2_t, picture_aspect_ratio, 20, 20);
KEST_NDI_CHECK_OFFSET(NDIlib_video_frame_v2_t, frame_format_type, 24, 24);
KEST_NDI_CHECK_OFFSET(NDIlib_video_frame_v2_t, timecode, 32, 32);
KEST_NDI_CHECK_OFFSET(NDIlib_video_frame_v2_t, p_data, 40, 40);
KEST_NDI_CHECK_OFFSET(NDIlib_video_frame_v2_t, data_size_in_bytes, 48, 44);
KEST_NDI_CHECK_OFFSET(NDIlib_video_frame_v2_t, p_metadata, 56, 48);
KEST_NDI_CHECK_OFFSET(NDIlib_video_frame_v2_t, timestamp, 64, 56);

KEST_NDI_CHECK_SIZE(NDIlib_audio_frame_v3_t, 64, 48);
KEST_NDI_CHECK_OFFSET(NDIlib_audio_frame_v3_t, no_samples, 8, 8);
KEST_NDI_CHECK_OFFSET(NDIlib_audio_frame_v3_t, timecode, 16, 16);
KEST_NDI_CHECK_OFFSET(NDIlib_audio_frame_v3_t, FourCC, 24, 24);
KEST_NDI_CHECK_OFFSET(NDIlib_audio_frame_v3_t, p_data, 32, 28);
KEST_NDI_CHECK_OFFSET(NDIlib_audio_frame_v3_t, data_size_in_bytes, 40, 32);
KEST_NDI_CHECK_OFFSET(NDIlib_audio_frame_v3_t, p_metadata, 48, 36);
KEST_NDI_CHECK_OFFSET(NDIlib_audio_frame_v3_t, timestamp, 56, 40);

KEST_NDI_CHECK_SIZE(NDIlib_metadata_frame_t, 24, 24);
KEST_NDI_CHECK_OFFSET(NDIlib_metadata_frame_t, timecode, 8, 8);
KEST_NDI_CHECK_OFFSET(NDIlib_metadata_frame_t, p_data, 16, 16);

KEST_NDI_CHECK_SIZE(NDIlib_tally_t, 2, 2);
KEST_NDI_CHECK_OFFSET(NDIlib_tally_t, on_preview, 1, 1);

KEST_NDI_CHECK_SIZE(NDIlib_compressed_packet_t, 44, 44);
KEST_NDI_CHECK_OFFSET(NDIlib_compressed_packet_t, fourCC, 4, 4);
KEST_NDI_CHECK_OFFSET(NDIlib_compressed_packet_t, pts, 8, 8);
KEST_NDI_CHECK_OFFSET(NDIlib_compressed_packet_t, dts, 16, 16);
KEST_NDI_CHECK_OFFSET(NDIlib_compressed_packet_t, reserved, 24, 24);
KEST_NDI_CHECK_OFFSET(NDIlib_compressed_packet_t, flags, 32, 32);
KEST_NDI_CHECK_OFFSET(NDIlib_compressed_packet_t, data_size, 36, 36);
KEST_NDI_CHECK_OFFSET(NDIlib_compressed_packet_t, extra_data_size, 40, 40);
static_assert(sizeof(NDIlib_compressed_packet_t) == NDIlib_compressed_packet_version_0, "header version is its size");

KEST_NDI_CHECK_SIZE(NDIlib_frame_scatter_t, 16, 8);
KEST_NDI_CHECK_OFFSET(NDIlib_frame_scatter_t, p_data_blocks_size, 8, 4);

#undef KEST_NDI_CHECK_SIZE
#undef KEST_NDI_CHECK_OFFSET

// --- functions --------------------------------------------------------------------------------
// Signatures of the exported functions this project uses, as pointer types for dlsym. All use
// the platform's C calling convention; none passes a struct by value.

// Standard runtime.
typedef bool (*NDIlib_initialize_fn)(void);
typedef void (*NDIlib_destroy_fn)(void);
typedef const char *(*NDIlib_version_fn)(void);
typedef NDIlib_find_instance_t (*NDIlib_find_create_v2_fn)(const NDIlib_find_create_t *p_create_settings);
typedef void (*NDIlib_find_destroy_fn)(NDIlib_find_instance_t p_instance);
typedef const NDIlib_source_t *(*NDIlib_find_get_current_sources_fn)(NDIlib_find_instance_t p_instance,
                                                                     uint32_t *p_no_sources);
typedef bool (*NDIlib_find_wait_for_sources_fn)(NDIlib_find_instance_t p_instance, uint32_t timeout_in_ms);
typedef NDIlib_recv_instance_t (*NDIlib_recv_create_v3_fn)(const NDIlib_recv_create_v3_t *p_create_settings);
typedef void (*NDIlib_recv_destroy_fn)(NDIlib_recv_instance_t p_instance);
typedef void (*NDIlib_recv_connect_fn)(NDIlib_recv_instance_t p_instance, const NDIlib_source_t *p_src);
typedef NDIlib_frame_type_e (*NDIlib_recv_capture_v3_fn)(NDIlib_recv_instance_t p_instance,
                                                         NDIlib_video_frame_v2_t *p_video_data,
                                                         NDIlib_audio_frame_v3_t *p_audio_data,
                                                         NDIlib_metadata_frame_t *p_metadata,
                                                         uint32_t timeout_in_ms);
typedef void (*NDIlib_recv_free_video_v2_fn)(NDIlib_recv_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data);
typedef void (*NDIlib_recv_free_audio_v3_fn)(NDIlib_recv_instance_t p_instance, const NDIlib_audio_frame_v3_t *p_audio_data);
typedef void (*NDIlib_recv_free_metadata_fn)(NDIlib_recv_instance_t p_instance, const NDIlib_metadata_frame_t *p_metadata);
typedef bool (*NDIlib_recv_set_tally_fn)(NDIlib_recv_instance_t p_instance, const NDIlib_tally_t *p_tally);
typedef int (*NDIlib_recv_get_no_connections_fn)(NDIlib_recv_instance_t p_instance);
typedef NDIlib_send_instance_t (*NDIlib_send_create_fn)(const NDIlib_send_create_t *p_create_settings);
typedef void (*NDIlib_send_destroy_fn)(NDIlib_send_instance_t p_instance);
typedef void (*NDIlib_send_send_video_v2_fn)(NDIlib_send_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data);
typedef void (*NDIlib_send_send_audio_v3_fn)(NDIlib_send_instance_t p_instance, const NDIlib_audio_frame_v3_t *p_audio_data);
typedef void (*NDIlib_send_add_connection_metadata_fn)(NDIlib_send_instance_t p_instance,
                                                       const NDIlib_metadata_frame_t *p_metadata);
typedef void (*NDIlib_send_clear_connection_metadata_fn)(NDIlib_send_instance_t p_instance);
typedef bool (*NDIlib_send_get_tally_fn)(NDIlib_send_instance_t p_instance, NDIlib_tally_t *p_tally, uint32_t timeout_in_ms);
typedef int (*NDIlib_send_get_no_connections_fn)(NDIlib_send_instance_t p_instance, uint32_t timeout_in_ms);
typedef const NDIlib_source_t *(*NDIlib_send_get_source_name_fn)(NDIlib_send_instance_t p_instance);

// Advanced SDK only: a standard runtime does not export these.
typedef NDIlib_find_instance_t (*NDIlib_find_create_v3_fn)(const NDIlib_find_create_t *p_create_settings,
                                                           const char *p_config_data);
typedef NDIlib_recv_instance_t (*NDIlib_recv_create_v4_fn)(const NDIlib_recv_create_v3_t *p_create_settings,
                                                           const char *p_config_data);
typedef NDIlib_send_instance_t (*NDIlib_send_create_v2_fn)(const NDIlib_send_create_t *p_create_settings,
                                                           const char *p_config_data);
typedef bool (*NDIlib_send_is_keyframe_required_fn)(NDIlib_send_instance_t p_instance,
                                                    const NDIlib_video_frame_v2_t *p_video_data);
typedef void (*NDIlib_send_send_video_scatter_fn)(NDIlib_send_instance_t p_instance,
                                                  const NDIlib_video_frame_v2_t *p_video_data,
                                                  const NDIlib_frame_scatter_t *p_video_scatter);
typedef void (*NDIlib_send_send_audio_scatter_fn)(NDIlib_send_instance_t p_instance,
                                                  const NDIlib_audio_frame_v3_t *p_audio_data,
                                                  const NDIlib_frame_scatter_t *p_audio_scatter);

// The defaults the runtime's own C++ constructors would give (the structs above are plain so
// that `T x{}` zeroes them; these give the runtime's defaults instead).
inline NDIlib_video_frame_v2_t ndiVideoFrameDefaults()
{
    NDIlib_video_frame_v2_t frame{};
    frame.FourCC = NDIlib_FourCC_video_type_UYVY;
    frame.frame_rate_N = 30000;
    frame.frame_rate_D = 1001;
    frame.frame_format_type = NDIlib_frame_format_type_progressive;
    frame.timecode = NDIlib_send_timecode_synthesize;
    return frame;
}

inline NDIlib_audio_frame_v3_t ndiAudioFrameDefaults()
{
    NDIlib_audio_frame_v3_t frame{};
    frame.sample_rate = 48000;
    frame.no_channels = 2;
    frame.timecode = NDIlib_send_timecode_synthesize;
    frame.FourCC = NDIlib_FourCC_audio_type_FLTP;
    return frame;
}
