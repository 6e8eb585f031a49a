#pragma once

// The NDI functions the test runtime exports, for tests that link it and call it directly
// (the library under test goes through its loader instead). The Advanced SDK functions exist
// only in the full runtime, not in the standard one.

#include "ndi/ndiabi.h"

#ifdef __cplusplus
extern "C" {
#endif

bool NDIlib_initialize(void);
void NDIlib_destroy(void);
const char *NDIlib_version(void);
bool NDIlib_is_supported_CPU(void);

NDIlib_find_instance_t NDIlib_find_create_v2(const NDIlib_find_create_t *p_create_settings);
void NDIlib_find_destroy(NDIlib_find_instance_t p_instance);
const NDIlib_source_t *NDIlib_find_get_current_sources(NDIlib_find_instance_t p_instance, uint32_t *p_no_sources);
bool NDIlib_find_wait_for_sources(NDIlib_find_instance_t p_instance, uint32_t timeout_in_ms);

NDIlib_recv_instance_t NDIlib_recv_create_v3(const NDIlib_recv_create_v3_t *p_create_settings);
void NDIlib_recv_destroy(NDIlib_recv_instance_t p_instance);
void NDIlib_recv_connect(NDIlib_recv_instance_t p_instance, const NDIlib_source_t *p_src);
NDIlib_frame_type_e NDIlib_recv_capture_v3(NDIlib_recv_instance_t p_instance, NDIlib_video_frame_v2_t *p_video_data,
                                           NDIlib_audio_frame_v3_t *p_audio_data, NDIlib_metadata_frame_t *p_metadata,
                                           uint32_t timeout_in_ms);
void NDIlib_recv_free_video_v2(NDIlib_recv_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data);
void NDIlib_recv_free_audio_v3(NDIlib_recv_instance_t p_instance, const NDIlib_audio_frame_v3_t *p_audio_data);
void NDIlib_recv_free_metadata(NDIlib_recv_instance_t p_instance, const NDIlib_metadata_frame_t *p_metadata);
bool NDIlib_recv_set_tally(NDIlib_recv_instance_t p_instance, const NDIlib_tally_t *p_tally);
int NDIlib_recv_get_no_connections(NDIlib_recv_instance_t p_instance);

NDIlib_send_instance_t NDIlib_send_create(const NDIlib_send_create_t *p_create_settings);
void NDIlib_send_destroy(NDIlib_send_instance_t p_instance);
void NDIlib_send_send_video_v2(NDIlib_send_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data);
void NDIlib_send_send_audio_v3(NDIlib_send_instance_t p_instance, const NDIlib_audio_frame_v3_t *p_audio_data);
void NDIlib_send_add_connection_metadata(NDIlib_send_instance_t p_instance, const NDIlib_metadata_frame_t *p_metadata);
void NDIlib_send_clear_connection_metadata(NDIlib_send_instance_t p_instance);
bool NDIlib_send_get_tally(NDIlib_send_instance_t p_instance, NDIlib_tally_t *p_tally, uint32_t timeout_in_ms);
int NDIlib_send_get_no_connections(NDIlib_send_instance_t p_instance, uint32_t timeout_in_ms);
const NDIlib_source_t *NDIlib_send_get_source_name(NDIlib_send_instance_t p_instance);

// Advanced SDK.
NDIlib_find_instance_t NDIlib_find_create_v3(const NDIlib_find_create_t *p_create_settings, const char *p_config_data);
NDIlib_recv_instance_t NDIlib_recv_create_v4(const NDIlib_recv_create_v3_t *p_create_settings, const char *p_config_data);
NDIlib_send_instance_t NDIlib_send_create_v2(const NDIlib_send_create_t *p_create_settings, const char *p_config_data);
bool NDIlib_send_is_keyframe_required(NDIlib_send_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data);
void NDIlib_send_send_video_scatter(NDIlib_send_instance_t p_instance, const NDIlib_video_frame_v2_t *p_video_data,
                                    const NDIlib_frame_scatter_t *p_video_scatter);
void NDIlib_send_send_audio_scatter(NDIlib_send_instance_t p_instance, const NDIlib_audio_frame_v3_t *p_audio_data,
                                    const NDIlib_frame_scatter_t *p_audio_scatter);

#ifdef __cplusplus
}
#endif
