/*
 * nuvio_connect.h - the C interface of the streaming SDK, libnuvio_connect.
 *
 * The library joins a controller's session, decodes its tracks and hands PCM and control to the
 * device through delegate records. A core belongs to one libuv loop.
 *
 * Threads
 *   - nuv_connect_create, nuv_connect_free, nuv_connect_connect, nuv_connect_set_log_delegate, the
 *     nuv_connect_notify_* calls and nuv_connect_resume_audio_delivery: loop thread only.
 *   - Control and query calls (marked below): any thread, as long as the core lives.
 *   - The text functions: any thread.
 *   - Delegates arrive on the loop thread only, and never from inside a call of this header: what a
 *     call sets off is delivered on a later pass of the loop. A delegate may call back into the
 *     core, but must not free it. The log callback may arrive on any thread.
 *
 * Ownership
 *   Texts passed in are copied unless said otherwise; texts handed out belong to the core and stay
 *   valid as said at each call. What a delegate is passed is valid during its call only.
 *
 * Units
 *   Positions and durations are milliseconds, volumes percent (0 to 100), sizes bytes.
 */
#ifndef NUVIO_CONNECT_H
#define NUVIO_CONNECT_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <uv.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct nuv_connect nuv_connect;

/* Result of an operation; 0 is success. Texts: nuv_error_to_string. */
typedef enum nuv_error {
    NUV_ERROR_OK = 0,
    NUV_ERROR_INVALID_ARGUMENT = 1, /* null or out of range */
    NUV_ERROR_INVALID_STATE = 2,    /* the call makes no sense now, e.g. pause while stopped */
    NUV_ERROR_NOT_FOUND = 3,        /* no such stream, or no next or previous track */
    NUV_ERROR_TOKEN_EXPIRED = 4,    /* the session's token has expired */
    NUV_ERROR_EMPTY_SESSION = 5,    /* the session has nothing that can be played */
    NUV_ERROR_NOT_CONNECTED = 6,    /* no session */
    NUV_ERROR_INTERNAL = 7          /* the library failed inside; its log says why */
} nuv_error;

typedef enum nuv_device_type {
    NUV_DEVICE_TYPE_SPEAKER = 0,
    NUV_DEVICE_TYPE_SOUNDBAR = 1,
    NUV_DEVICE_TYPE_RECEIVER = 2,
    NUV_DEVICE_TYPE_STREAMER = 3
} nuv_device_type;

/* Highest quality that a renderer takes; ordered. */
typedef enum nuv_audio_quality {
    NUV_AUDIO_QUALITY_CD = 0,             /* 44.1 or 48 kHz, 16 bit */
    NUV_AUDIO_QUALITY_HI_RES_LEVEL_1 = 1, /* up to 96 kHz, 24 bit */
    NUV_AUDIO_QUALITY_HI_RES_LEVEL_2 = 2, /* up to 192 kHz, 24 bit */
    NUV_AUDIO_QUALITY_HI_RES_LEVEL_3 = 3  /* up to 384 kHz, 24 bit */
} nuv_audio_quality;

typedef enum nuv_audio_sample_format {
    NUV_AUDIO_SAMPLE_FORMAT_16_BIT = 0, /* signed, little endian, 2 bytes */
    NUV_AUDIO_SAMPLE_FORMAT_24_BIT = 1  /* signed, little endian, sign-extended in 4 bytes */
} nuv_audio_sample_format;

typedef enum nuv_playback_state {
    NUV_PLAYBACK_STATE_STOPPED = 0,
    NUV_PLAYBACK_STATE_PLAYING = 1,
    NUV_PLAYBACK_STATE_PAUSED = 2
} nuv_playback_state;

typedef enum nuv_loop_mode {
    NUV_LOOP_MODE_OFF = 0,
    NUV_LOOP_MODE_ONE = 1,
    NUV_LOOP_MODE_ALL = 2
} nuv_loop_mode;

typedef struct nuv_audio_format {
    uint32_t sample_rate;   /* Hz, frames a second */
    uint32_t channel_count; /* interleaved samples a frame */
    nuv_audio_sample_format sample_format;
} nuv_audio_format;

typedef struct nuv_audio_stream_info {
    nuv_audio_format format;
    uint64_t duration_ms;
} nuv_audio_stream_info;

/* Display texts of one stream; never null, possibly empty. */
typedef struct nuv_stream_metadata {
    const char* title;
    const char* artist;
    const char* album;
    const char* album_art_url;
} nuv_stream_metadata;

/* Publishing of the device on the local network. */
typedef struct nuv_advertising_delegate {
    void* context;
    /* name: instance name; service_name: DNS-SD type. Never called twice without a stop between. */
    void (*start)(nuv_connect* core, const char* name, const char* service_name, void* context);
    void (*stop)(nuv_connect* core, void* context);
} nuv_advertising_delegate;

/* The local HTTP server through which a controller hands over a session. */
typedef struct nuv_local_config_server_delegate {
    void* context;
    void (*start)(nuv_connect* core, void* context);
    void (*stop)(nuv_connect* core, void* context);
} nuv_local_config_server_delegate;

/* PCM streams. Every stream id but that of `started` names a stream started and not disposed of. */
typedef struct nuv_audio_stream_delegate {
    void* context;
    void (*started)(nuv_connect* core, uint64_t stream_id, nuv_audio_stream_info info,
                    uint64_t start_position_ms, void* context);
    /*
     * Offers size > 0 bytes of whole frames; returns the bytes taken. Fewer than offered stops the
     * stream's delivery until nuv_connect_resume_audio_delivery, then the rest comes again. The
     * data is valid during the call only.
     */
    size_t (*data)(nuv_connect* core, uint64_t stream_id, const void* data, size_t size,
                   void* context);
    void (*metadata)(nuv_connect* core, uint64_t stream_id, const nuv_stream_metadata* metadata,
                     void* context);
    /* All of the stream has been offered and taken. */
    void (*finished)(nuv_connect* core, uint64_t stream_id, void* context);
    /* A seek is over: what is offered from now on begins at the position. */
    void (*seeked)(nuv_connect* core, uint64_t stream_id, uint64_t position_ms, void* context);
    /* The stream is no more: its id and its texts are dead once this returns. */
    void (*dispose)(nuv_connect* core, uint64_t stream_id, void* context);
} nuv_audio_stream_delegate;

/* Playback control and the core's notifications. */
typedef struct nuv_media_delegate {
    void* context;
    void (*initiate_playback)(nuv_connect* core, nuv_playback_state initial_state, void* context);
    void (*pause_playback)(nuv_connect* core, void* context);
    void (*resume_playback)(nuv_connect* core, void* context);
    void (*stop_playback)(nuv_connect* core, void* context);
    void (*seek_in_progress)(nuv_connect* core, void* context);
    uint64_t (*get_playback_position)(nuv_connect* core, void* context); /* ms */
    void (*volume_changed)(nuv_connect* core, uint32_t volume, void* context);
    void (*mute_state_changed)(nuv_connect* core, bool muted, void* context);
    void (*playback_state_changed)(nuv_connect* core, nuv_playback_state state, void* context);
    void (*maximum_audio_quality_changed)(nuv_connect* core, nuv_audio_quality quality,
                                          void* context);
    void (*playback_controls_changed)(nuv_connect* core, nuv_loop_mode loop_mode, bool shuffle,
                                      void* context);
    void (*playback_actions_availability_changed)(nuv_connect* core, bool next_available,
                                                  void* context);
} nuv_media_delegate;

typedef struct nuv_renderer_state_delegate {
    void* context;
    void (*active_state_changed)(nuv_connect* core, bool active, void* context);
} nuv_renderer_state_delegate;

/* The core's own log lines. Levels: 0 trace, 1 debug, 2 info, 3 warning, 4 error, 5 fatal. */
typedef struct nuv_log_delegate {
    void* context;
    void (*callback)(uint32_t level, const char* category, const char* message);
} nuv_log_delegate;

/* Passed by value to nuv_connect_create. The texts are borrowed for the life of the core. */
typedef struct nuv_connect_config {
    int32_t interface_version; /* 1: this header */
    const char* device_name;
    nuv_device_type device_type;
    const char* manufacturer;
    const char* model;
    const char* serial_number;
    const char* hardware_id; /* identifies the unit; the serial number where there is no other */
    const char* app_id;
    const char* app_secret;
    nuv_audio_quality maximum_audio_quality;
    int32_t renderer_count; /* 1 */
    nuv_advertising_delegate advertising_delegate;
    nuv_local_config_server_delegate local_config_server_delegate;
    nuv_audio_stream_delegate audio_stream_delegate;
    nuv_media_delegate media_delegate;
    nuv_renderer_state_delegate renderer_state_delegate; /* may be all zero */
} nuv_connect_config;

/* ---- Life ------------------------------------------------------------------------------------ */

/*
 * Returns a core on `loop`, or null with *error set, where error is not null:
 * NUV_ERROR_INVALID_ARGUMENT for a null text and for a delegate without one of its callbacks (the
 * renderer state's may be null). The core asks for the local configuration
 * server and the advertising through their delegates on a later pass of the loop.
 */
nuv_connect* nuv_connect_create(uv_loop_t* loop, nuv_connect_config config, nuv_error* error);

/*
 * Ends every session and thread of the core; calls no delegate. The core's loop handles finish
 * closing on later passes of the loop. Null does nothing.
 */
void nuv_connect_free(nuv_connect* core);

/* Constant text, e.g. "1.0.0". */
const char* nuv_connect_get_sdk_version(void);

/* Installs the log callback; one with a null callback removes it. */
nuv_error nuv_connect_set_log_delegate(nuv_connect* core, nuv_log_delegate delegate);

/* ---- Session --------------------------------------------------------------------------------- */

/*
 * Joins the session that a controller hands over. `exp` values are seconds since the epoch, 0 for
 * none. On an error what was playing goes on.
 */
nuv_error nuv_connect_connect(nuv_connect* core, const char* session_id, const char* api_endpoint,
                              const char* api_jwt, uint64_t api_exp, const char* nconnect_endpoint,
                              const char* nconnect_jwt, uint64_t nconnect_exp, bool become_active);

/* Id of the current session; left alone when there is none. Valid until the next connect or free.
 * Loop thread. */
nuv_error nuv_connect_get_session_id(nuv_connect* core, const char** session_id);

/* The device's UUID in the service; valid until free. Any thread. */
nuv_error nuv_connect_get_device_uuid(nuv_connect* core, const char** uuid);

/* ---- Control: any thread ----------------------------------------------------------------------
 */

nuv_error nuv_connect_pause_playback(nuv_connect* core);
nuv_error nuv_connect_resume_playback(nuv_connect* core);
nuv_error nuv_connect_stop_playback(nuv_connect* core);
nuv_error nuv_connect_next_track(nuv_connect* core);
nuv_error nuv_connect_previous_track(nuv_connect* core);
/* Stops playback and leaves the session; success when there is none. */
nuv_error nuv_connect_deactivate_and_disconnect_renderer(nuv_connect* core);
/* Percent; above 100: NUV_ERROR_INVALID_ARGUMENT. */
nuv_error nuv_connect_set_volume(nuv_connect* core, uint32_t volume);
nuv_error nuv_connect_set_mute_state(nuv_connect* core, bool muted);
nuv_error nuv_connect_set_shuffle_mode(nuv_connect* core, bool shuffle);
nuv_error nuv_connect_set_loop_mode(nuv_connect* core, nuv_loop_mode loop_mode);
nuv_error nuv_connect_seek_time(nuv_connect* core, uint64_t position_ms);
/* Renames the device: it is advertised anew under the new name. */
nuv_error nuv_connect_set_device_name(nuv_connect* core, const char* device_name);

/* ---- Queries: any thread; the out value is left alone on an error ------------------------------
 */

nuv_error nuv_connect_get_volume(nuv_connect* core, uint32_t* volume);
nuv_error nuv_connect_get_mute_state(nuv_connect* core, bool* muted);
nuv_error nuv_connect_get_shuffle_mode(nuv_connect* core, bool* shuffle);
nuv_error nuv_connect_get_loop_mode(nuv_connect* core, nuv_loop_mode* loop_mode);
nuv_error nuv_connect_get_renderer_active_state(nuv_connect* core, bool* active);
nuv_error nuv_connect_get_playback_state(nuv_connect* core, nuv_playback_state* state);
/* The texts stay valid until the stream is disposed of: copy them on the loop thread. */
nuv_error nuv_connect_get_stream_metadata(nuv_connect* core, uint64_t stream_id,
                                          nuv_stream_metadata* metadata);

/* ---- Notifications from the renderer: loop thread ----------------------------------------------
 */

nuv_error nuv_connect_notify_playback_initiated(nuv_connect* core, nuv_audio_format format);
nuv_error nuv_connect_notify_playback_paused(nuv_connect* core);
nuv_error nuv_connect_notify_playback_resumed(nuv_connect* core);
nuv_error nuv_connect_notify_playback_stopped(nuv_connect* core);
nuv_error nuv_connect_notify_playback_error(nuv_connect* core);
/* The playing stream has been heard to its end; no_next_track: no further stream is queued. */
nuv_error nuv_connect_notify_playback_finished(nuv_connect* core, bool no_next_track);
/* Opens a stream's delivery again after a short count. */
nuv_error nuv_connect_resume_audio_delivery(nuv_connect* core, uint64_t stream_id);

/* ---- Texts: constant, never null; "unknown" for a value outside the type -----------------------
 */

const char* nuv_error_to_string(nuv_error error);
const char* nuv_audio_quality_to_string(nuv_audio_quality quality);
const char* nuv_device_type_to_string(nuv_device_type type);
const char* nuv_loop_mode_to_string(nuv_loop_mode loop_mode);
const char* nuv_playback_state_to_string(nuv_playback_state state);
/* Bytes one sample takes: 2, or 4 for 24 bit; 0 for a value outside the type. */
size_t nuv_audio_sample_format_size(nuv_audio_sample_format format);

#ifdef __cplusplus
}
#endif

#endif
