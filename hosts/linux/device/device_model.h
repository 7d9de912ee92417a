// DeviceModel: how the device is, put together in one place. What shows it (MPRIS, the panel,
// status for machines, metrics, the service manager) says only which parts it shows, and under
// which name.
//
// Any thread. Each part is read under its owner's lock, one after the other, and none is held when
// a call returns. Asks no card and wakes nothing; `state` and `name` may read the machine's name
// from the disk.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "configuration/settings.h"
#include "device/message_store.h"
#include "device/network_monitor.h"
#include "device/now_playing.h"
#include "platform/ServiceReport.h"

namespace nuvio::host {

struct AudioFormat {
    std::optional<int32_t> rate;  // Hz
    std::optional<int32_t> bits;
    std::optional<int32_t> channels;
};

// What the service tells (platform/ServiceReport.h says what each is); none where it tells nothing.
struct ServiceState {
    std::optional<std::string> version;
    std::optional<std::string> sdk_version;
    std::optional<std::string> alsa_version;
    std::optional<int32_t> sessions;
    std::optional<int32_t> underruns;
    std::optional<std::string> error;
    std::optional<std::string> error_time;
    AudioFormat stream;
    std::optional<std::string> device;
    std::optional<std::string> path;
    AudioFormat card;
    std::optional<std::string> card_format;
    std::optional<bool> bit_exact;
    std::optional<std::string> bit_exact_why;
    std::optional<int32_t> buffer_frames;
    std::optional<int32_t> period_frames;

    std::optional<int64_t> error_unix_time() const;  // s since 1970
    std::optional<double> buffer_seconds() const;
};

// A track that is over, as the core says (common/sound_note.h).
struct PlayedNote {
    std::string title;
    std::string verified;
};

struct DeviceState {
    std::string name;
    std::string version;  // of the host
    std::chrono::seconds uptime;
    NowPlayingView playing;
    std::optional<int> volume;
    bool muted;
    ServiceState service;
    std::optional<PlayedNote> played;  // the last one
};

// What the service offers to tell; null, as at first, where it tells nothing.
void set_service_report(ServiceReport report);

// What the core says of the sound that is heard (common/sound_note.h); empty at first.
void set_sound_note(const std::string& changed);
void set_played_note(const PlayedNote& played);

class DeviceModel {
  public:
    // All borrowed. The device counts as started now.
    DeviceModel(const Settings& settings, const MessageStore& messages,
                const NowPlaying& now_playing, NetworkMonitor& network)
        : m_settings(settings),
          m_messages(messages),
          m_now_playing(now_playing),
          m_network(network) {}

    DeviceState state() const;

    // The setting without which the service has nothing to run; empty when all is set.
    std::string missing_setting() const;
    // The name given to the device, else the machine's.
    std::string name() const;
    // In percent; none while nobody has set one.
    std::optional<int> volume() const;
    bool is_muted() const;
    // The number of the source that has the output; 0: none.
    int current_source() const;
    bool is_usable(int iface) const { return m_network.is_usable(iface); }
    NowPlayingView playing() const { return m_now_playing.view(); }

  private:
    using Clock = std::chrono::steady_clock;

    const Settings& m_settings;
    const MessageStore& m_messages;
    const NowPlaying& m_now_playing;
    NetworkMonitor& m_network;
    const Clock::time_point m_started = Clock::now();
};

}  // namespace nuvio::host
