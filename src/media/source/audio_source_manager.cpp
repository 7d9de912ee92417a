#include "media/source/audio_source_manager.h"

#include <algorithm>
#include <cinttypes>
#include <iterator>
#include <list>

#include "media/source/audio_source_private.h"
#include "utility/check.h"
#include "utility/log_delegate.h"

struct audio_source_manager {
    nuv_connect* core = nullptr;  // borrowed
    audio_source_manager_event_listener event_listener;
    std::list<audio_source> sources;  // in order of arrival; the addresses are handed out
    audio_source* active_source = nullptr;
    audio_source* next_source = nullptr;
};

namespace {

audio_source_manager* manager_of(void* context, const nuv_connect* core,
                                 const char* caller = __builtin_FUNCTION()) {
    auto* self = static_cast<audio_source_manager*>(context);
    NUV_CHECK_OF(caller, self != NULL);
    NUV_CHECK_OF(caller, core == self->core);
    return self;
}

// Null, with a log line, when the SDK reports on a stream that does not live.
audio_source* live_source(audio_source_manager* self, uint64_t stream_id, const char* event) {
    audio_source* source = audio_source_manager_get_source_by_stream_id(self, stream_id);
    if (source == nullptr) {
        app_log(LOG_LEVEL_ERROR, "[Stream %" PRIu64 "]: No such audio stream, ignoring its %s",
                stream_id, event);
    }
    return source;
}

void designate(audio_source_manager* self, audio_source* source) {
    if (self->active_source == nullptr) {
        self->active_source = source;
    } else if (self->next_source == nullptr) {
        self->next_source = source;
    }
}

auto position_in_list(audio_source_manager* self, const audio_source* source) {
    return std::find_if(self->sources.begin(), self->sources.end(),
                        [source](const audio_source& other) { return &other == source; });
}

audio_source* following(audio_source_manager* self, const audio_source* source) {
    const auto after = std::next(position_in_list(self, source));
    return after == self->sources.end() ? nullptr : &*after;
}

void hand_designation_on(audio_source_manager* self, const audio_source* source) {
    if (source == self->active_source) {
        self->active_source = self->next_source;
        if (self->next_source != nullptr) {
            self->next_source = following(self, self->next_source);
        }
    } else if (source == self->next_source) {
        self->next_source = following(self, source);
    }
}

void audio_source_manager_on_audio_stream_started(nuv_connect* core, uint64_t stream_id,
                                                  nuv_audio_stream_info info,
                                                  uint64_t start_position_ms, void* context) {
    audio_source_manager* self = manager_of(context, core);
    audio_source source;
    source.manager = self;
    source.id = stream_id;
    source.format = info.format;
    source.duration = info.duration_ms;
    audio_source_update_consumed_bytes_from_position(&source, start_position_ms);
    app_log(LOG_LEVEL_INFO, "[Stream %" PRIu64 "]: New audio stream (starting from %" PRIu64 "ms)",
            stream_id, start_position_ms);

    audio_source* added = &self->sources.emplace_back(source);
    designate(self, added);
    const audio_source_manager_event_listener& to = self->event_listener;
    to.new_source_callback(self, added, to.listener);
}

size_t audio_source_manager_on_audio_stream_data(nuv_connect* core, uint64_t stream_id,
                                                 const void* data, size_t size, void* context) {
    audio_source_manager* self = manager_of(context, core);
    NUV_CHECK(data != NULL);
    audio_source* source = live_source(self, stream_id, "data");
    if (source == nullptr || size == 0 || !source->delivery_active) {
        return 0;
    }
    const audio_source_event_listener& to = source->event_listener;
    if (to.data_produced == nullptr) {
        return 0;
    }
    const size_t consumed = to.data_produced(source, data, size, to.listener);
    source->bytes_consumed += consumed;
    if (consumed < size) {
        audio_source_pause(source);
    }
    return consumed;
}

void audio_source_manager_on_audio_stream_metadata(nuv_connect* core, uint64_t stream_id,
                                                   const nuv_stream_metadata* metadata,
                                                   void* context) {
    audio_source_manager* self = manager_of(context, core);
    NUV_CHECK(metadata != NULL);
    if (live_source(self, stream_id, "metadata") == nullptr) {
        return;
    }
    app_log(LOG_LEVEL_INFO, "[Stream %" PRIu64 "]: Stream metadata became available:", stream_id);
    app_log(LOG_LEVEL_INFO, "      Title: %s", metadata->title);
    app_log(LOG_LEVEL_INFO, "      Artist: %s", metadata->artist);
    app_log(LOG_LEVEL_INFO, "      Album: %s", metadata->album);
    app_log(LOG_LEVEL_INFO, "      Album art URL: %s", metadata->album_art_url);
}

void audio_source_manager_on_audio_stream_finished(nuv_connect* core, uint64_t stream_id,
                                                   void* context) {
    audio_source_manager* self = manager_of(context, core);
    audio_source* source = live_source(self, stream_id, "end");
    if (source == nullptr) {
        return;
    }
    app_log(LOG_LEVEL_INFO, "[Stream %" PRIu64 "]: Audio stream finished", stream_id);
    audio_source_set_state(source, AUDIO_SOURCE_STATE_FINISHED);
}

void audio_source_manager_on_audio_stream_seeked(nuv_connect* core, uint64_t stream_id,
                                                 uint64_t position_ms, void* context) {
    audio_source_manager* self = manager_of(context, core);
    audio_source* source = live_source(self, stream_id, "seek");
    if (source == nullptr) {
        return;
    }
    app_log(LOG_LEVEL_INFO, "[Stream %" PRIu64 "]: Audio stream seeked: %" PRIu64 "ms", stream_id,
            position_ms);
    audio_source_update_consumed_bytes_from_position(source, position_ms);
    const audio_source_event_listener& to = source->event_listener;
    if (to.seek_complete != nullptr) {
        to.seek_complete(source, to.listener);
    }
    audio_source_set_state(source, AUDIO_SOURCE_STATE_STREAMING);
}

void audio_source_manager_on_audio_stream_dispose(nuv_connect* core, uint64_t stream_id,
                                                  void* context) {
    audio_source_manager* self = manager_of(context, core);
    audio_source* source = live_source(self, stream_id, "disposal");
    if (source == nullptr) {
        return;
    }
    app_log(LOG_LEVEL_INFO, "[Stream %" PRIu64 "]: Audio stream has been disposed of", stream_id);
    if (source->event_listener.dispose != nullptr) {
        source->event_listener.dispose(source, source->event_listener.listener);
    }
    const bool active_changes = source == self->active_source;
    const bool next_changes = source == self->next_source;
    hand_designation_on(self, source);
    self->sources.remove_if([source](const audio_source& other) { return &other == source; });

    const audio_source_manager_event_listener& to = self->event_listener;
    if ((active_changes || next_changes) && to.sources_moved_up_callback != nullptr) {
        to.sources_moved_up_callback(self, active_changes, to.listener);
    }
}

}  // namespace

audio_source_manager* audio_source_manager_new(audio_source_manager_event_listener event_listener) {
    NUV_CHECK(event_listener.new_source_callback != NULL);
    auto* self = new audio_source_manager();
    self->event_listener = event_listener;
    return self;
}

void audio_source_manager_free(audio_source_manager* self) {
    NUV_CHECK(self != NULL);
    delete self;
}

void audio_source_manager_set_core(audio_source_manager* self, nuv_connect* core) {
    NUV_CHECK(self != NULL);
    NUV_CHECK(core != NULL);
    self->core = core;
}

nuv_connect* audio_source_manager_get_core(const audio_source_manager* self) {
    NUV_CHECK(self != NULL);
    return self->core;
}

nuv_audio_stream_delegate audio_source_manager_get_audio_stream_delegate(
    audio_source_manager* self) {
    NUV_CHECK(self != NULL);
    return {self,
            audio_source_manager_on_audio_stream_started,
            audio_source_manager_on_audio_stream_data,
            audio_source_manager_on_audio_stream_metadata,
            audio_source_manager_on_audio_stream_finished,
            audio_source_manager_on_audio_stream_seeked,
            audio_source_manager_on_audio_stream_dispose};
}

audio_source* audio_source_manager_get_active_source(const audio_source_manager* self) {
    NUV_CHECK(self != NULL);
    return self->active_source;
}

audio_source* audio_source_manager_get_next_source(const audio_source_manager* self) {
    NUV_CHECK(self != NULL);
    return self->next_source;
}

audio_source* audio_source_manager_get_source_by_stream_id(audio_source_manager* self,
                                                           uint64_t stream_id) {
    NUV_CHECK(self != NULL);
    const auto found =
        std::find_if(self->sources.begin(), self->sources.end(),
                     [stream_id](const audio_source& source) { return source.id == stream_id; });
    return found == self->sources.end() ? nullptr : &*found;
}
