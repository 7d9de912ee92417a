// All that a core is made of, for the description of its binary interface: each function of the
// header, with whatever types it reaches. A new function is entered at the end.
#pragma once

#include "sdk/nuvio_connect.h"

struct CoreInterface {
    decltype(&nuv_connect_create) connect_create;
    decltype(&nuv_connect_free) connect_free;
    decltype(&nuv_connect_get_sdk_version) connect_get_sdk_version;
    decltype(&nuv_connect_set_log_delegate) connect_set_log_delegate;
    decltype(&nuv_connect_connect) connect_connect;
    decltype(&nuv_connect_get_session_id) connect_get_session_id;
    decltype(&nuv_connect_get_device_uuid) connect_get_device_uuid;
    decltype(&nuv_connect_pause_playback) connect_pause_playback;
    decltype(&nuv_connect_resume_playback) connect_resume_playback;
    decltype(&nuv_connect_stop_playback) connect_stop_playback;
    decltype(&nuv_connect_next_track) connect_next_track;
    decltype(&nuv_connect_previous_track) connect_previous_track;
    decltype(&nuv_connect_deactivate_and_disconnect_renderer)
        connect_deactivate_and_disconnect_renderer;
    decltype(&nuv_connect_set_volume) connect_set_volume;
    decltype(&nuv_connect_set_mute_state) connect_set_mute_state;
    decltype(&nuv_connect_set_shuffle_mode) connect_set_shuffle_mode;
    decltype(&nuv_connect_set_loop_mode) connect_set_loop_mode;
    decltype(&nuv_connect_seek_time) connect_seek_time;
    decltype(&nuv_connect_set_device_name) connect_set_device_name;
    decltype(&nuv_connect_get_volume) connect_get_volume;
    decltype(&nuv_connect_get_mute_state) connect_get_mute_state;
    decltype(&nuv_connect_get_shuffle_mode) connect_get_shuffle_mode;
    decltype(&nuv_connect_get_loop_mode) connect_get_loop_mode;
    decltype(&nuv_connect_get_renderer_active_state) connect_get_renderer_active_state;
    decltype(&nuv_connect_get_playback_state) connect_get_playback_state;
    decltype(&nuv_connect_get_stream_metadata) connect_get_stream_metadata;
    decltype(&nuv_connect_notify_playback_initiated) connect_notify_playback_initiated;
    decltype(&nuv_connect_notify_playback_paused) connect_notify_playback_paused;
    decltype(&nuv_connect_notify_playback_resumed) connect_notify_playback_resumed;
    decltype(&nuv_connect_notify_playback_stopped) connect_notify_playback_stopped;
    decltype(&nuv_connect_notify_playback_error) connect_notify_playback_error;
    decltype(&nuv_connect_notify_playback_finished) connect_notify_playback_finished;
    decltype(&nuv_connect_resume_audio_delivery) connect_resume_audio_delivery;
    decltype(&nuv_error_to_string) error_to_string;
    decltype(&nuv_audio_quality_to_string) audio_quality_to_string;
    decltype(&nuv_device_type_to_string) device_type_to_string;
    decltype(&nuv_loop_mode_to_string) loop_mode_to_string;
    decltype(&nuv_playback_state_to_string) playback_state_to_string;
    decltype(&nuv_audio_sample_format_size) audio_sample_format_size;
};
