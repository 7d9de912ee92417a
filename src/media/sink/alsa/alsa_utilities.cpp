#include "media/sink/alsa/alsa_utilities.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <utility>

#include "media/sink/alsa/bounded_handle.h"
#include "utility/check.h"
#include "utility/log_delegate.h"

namespace {

[[gnu::format(printf, 2, 0)]] void log_error_text(int error, const char* what, va_list arguments) {
    std::array<char, 2048> text;
    std::vsnprintf(text.data(), text.size(), what, arguments);
    app_log(LOG_LEVEL_ERROR, "%s: %s (%d)", text.data(), snd_strerror(error), error);
}

template <typename Handle>
poll_descriptors query_poll_descriptors(Handle* handle, const char* owner,
                                        int (*query_count)(Handle*),
                                        int (*fill)(Handle*, pollfd*, unsigned)) {
    const int count = query_count(handle);
    if (count < 1) {
        log_alsa_error(count, "Unable to query %s's descriptor count", owner);
        return {};
    }
    const auto expected = static_cast<unsigned>(count);
    auto entries = std::make_unique<pollfd[]>(expected);
    const auto got = static_cast<unsigned>(fill(handle, entries.get(), expected));
    if (got != expected) {
        app_log(LOG_LEVEL_ERROR, "Unable to retrieve all %s's descriptors: got %u, expected %u",
                owner, got, expected);
        return {};
    }
    return {std::move(entries), expected};
}

// Keeps what was refused. True when nothing was.
bool is_granted(int result, std::optional<alsa_refusal>& refusal, std::string what) {
    if (result < 0) {
        refusal = alsa_refusal{result, std::move(what)};
    }
    return result >= 0;
}

int attach_mixer(bounded_handle<mixer_ptr>& mixer, const char* device) {
    return mixer.call([name = std::string(device)](const mixer_ptr& opened) {
        return snd_mixer_attach(opened.get(), name.c_str());
    });
}

int load_mixer(bounded_handle<mixer_ptr>& mixer) {
    return mixer.call([](const mixer_ptr& opened) { return snd_mixer_load(opened.get()); });
}

// Whatever stands still is most likely a server that the next one would wait for, too.
int may_open() {
    return running_alsa_calls() < kMaxAlsaCalls ? 0 : -EAGAIN;
}

void say_nothing(const char*, int, const char*, int, const char*, ...) {}

}  // namespace

hw_params_ptr new_hw_params() {
    snd_pcm_hw_params_t* params = nullptr;
    const int rc = snd_pcm_hw_params_malloc(&params);
    NUV_CHECK(rc == 0);
    return hw_params_ptr(params);
}

format_mask_ptr new_format_mask() {
    snd_pcm_format_mask_t* mask = nullptr;
    const int rc = snd_pcm_format_mask_malloc(&mask);
    NUV_CHECK(rc == 0);
    return format_mask_ptr(mask);
}

selem_id_ptr new_selem_id() {
    snd_mixer_selem_id_t* id = nullptr;
    const int rc = snd_mixer_selem_id_malloc(&id);
    NUV_CHECK(rc == 0);
    return selem_id_ptr(id);
}

int open_playback_pcm(pcm_ptr& pcm, const char* device) {
    bounded_handle<pcm_ptr> opened;
    const auto open = [name = std::string(device)](pcm_ptr& into) {
        snd_pcm_t* handle = nullptr;
        const int result = snd_pcm_open(&handle, name.c_str(), SND_PCM_STREAM_PLAYBACK, 0);
        into.reset(result < 0 ? nullptr : handle);
        return result;
    };
    int rc = may_open();
    if (rc >= 0) {
        rc = opened.call(open);
    }
    if (rc >= 0) {
        pcm = opened.take();
    }
    return std::min(rc, 0);
}

std::optional<alsa_refusal> set_up_pcm(snd_pcm_t* pcm, const pcm_stream& stream,
                                       unsigned& granted_rate) {
    const hw_params_ptr owner = new_hw_params();
    snd_pcm_hw_params_t* params = owner.get();
    std::optional<alsa_refusal> refusal;
    unsigned rate = stream.rate;
    granted_rate = 0;
    if (!is_granted(snd_pcm_hw_params_any(pcm, params), refusal,
                    "Unable to get any playback configurations from ALSA") ||
        !is_granted(snd_pcm_hw_params_set_rate_resample(pcm, params, 1), refusal,
                    "Unable to enable ALSA PCM's resampling") ||
        !is_granted(snd_pcm_hw_params_set_access(pcm, params, SND_PCM_ACCESS_RW_INTERLEAVED),
                    refusal, "Unable to set ALSA PCM's access to interleaved") ||
        !is_granted(snd_pcm_hw_params_set_rate_near(pcm, params, &rate, nullptr), refusal,
                    "Unable to set ALSA PCM's sample rate to " + std::to_string(stream.rate))) {
        return refusal;
    }
    granted_rate = rate;
    if (is_granted(
            snd_pcm_hw_params_set_channels(pcm, params, stream.channels), refusal,
            "Unable to set ALSA PCM's channel count to " + std::to_string(stream.channels)) &&
        is_granted(snd_pcm_hw_params_set_format(pcm, params, stream.format), refusal,
                   std::string("Unable to set ALSA PCM's format to ") +
                       snd_pcm_format_name(stream.format))) {
        is_granted(snd_pcm_hw_params(pcm, params), refusal, "Unable to set ALSA PCM's HW params");
    }
    return refusal;
}

std::optional<alsa_refusal> open_simple_mixer(mixer_ptr& mixer, const char* device) {
    std::optional<alsa_refusal> refusal;
    snd_mixer_t* opened = nullptr;
    if (!is_granted(may_open(), refusal, "Unable to open ALSA mixer") ||
        !is_granted(snd_mixer_open(&opened, 0), refusal, "Unable to open ALSA mixer")) {
        return refusal;
    }
    bounded_handle<mixer_ptr> owner{mixer_ptr(opened)};
    if (is_granted(attach_mixer(owner, device), refusal,
                   std::string("Unable to attach ALSA mixer to device '") + device + "'") &&
        is_granted(snd_mixer_selem_register(opened, nullptr, nullptr), refusal,
                   "Unable to register ALSA simple element mixer class") &&
        is_granted(load_mixer(owner), refusal, "Unable to load ALSA mixer elements")) {
        mixer = owner.take();
    }
    return refusal;
}

snd_mixer_elem_t* find_element(snd_mixer_t* mixer, const char* name, unsigned index) {
    const selem_id_ptr id = new_selem_id();
    snd_mixer_selem_id_set_name(id.get(), name);
    snd_mixer_selem_id_set_index(id.get(), index);
    return snd_mixer_find_selem(mixer, id.get());
}

bool has_volume_and_switch(snd_mixer_elem_t* element) {
    return snd_mixer_selem_has_playback_volume(element) == 1 &&
           snd_mixer_selem_has_playback_switch(element) == 1;
}

std::string describe_pcm(snd_pcm_t* pcm) {
    snd_output_t* opened = nullptr;
    if (snd_output_buffer_open(&opened) < 0) {
        return {};
    }
    const std::unique_ptr<snd_output_t, nuvio::ReleasedBy<snd_output_close>> output(opened);
    snd_pcm_dump(pcm, opened);
    char* text = nullptr;
    const size_t size = snd_output_buffer_string(opened, &text);
    return text == nullptr ? std::string() : std::string(text, size);
}

void silence_alsa() {
    snd_lib_error_set_handler(say_nothing);
}

void log_alsa_error(int error, const char* what, ...) {
    va_list arguments;
    va_start(arguments, what);
    log_error_text(error, what, arguments);
    va_end(arguments);
}

bool alsa_ok(int result, const char* what, ...) {
    if (result >= 0) {
        return true;
    }
    va_list arguments;
    va_start(arguments, what);
    log_error_text(result, what, arguments);
    va_end(arguments);
    return false;
}

poll_descriptors get_poll_descriptors(snd_pcm_t* pcm) {
    const auto fill = [](snd_pcm_t* of, pollfd* entries, unsigned count) {
        app_log(LOG_LEVEL_TRACE, "ALSA PCM's descriptor count: %u", count);
        return snd_pcm_poll_descriptors(of, entries, count);
    };
    return query_poll_descriptors(pcm, "ALSA PCM", snd_pcm_poll_descriptors_count, +fill);
}

poll_descriptors get_poll_descriptors(snd_mixer_t* mixer) {
    return query_poll_descriptors(mixer, "ALSA mixer", snd_mixer_poll_descriptors_count,
                                  snd_mixer_poll_descriptors);
}
