// Mpris: the device as a media player on the message bus (org.mpris.MediaPlayer2), so that
// desktops and their media keys show and control it.
//
// On the dispatcher's thread. Calls are answered first; the service hears of them on the
// notification pool.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <optional>

#include "device/controls.h"
#include "device/device_model.h"

namespace nuvio::host {

class Mpris {
  public:
    static constexpr char kBusName[] = "org.mpris.MediaPlayer2.nuvio_connect";

    Mpris(Controls& controls, const DeviceModel& device) : m_controls(controls), m_device(device) {}

    // Puts the object on the connection, for the connection's life. Negative errno on failure.
    int attach(sd_bus* bus);

    // Signals the changes (device/changes.h) to the bus; `bus` may be null, while there is none.
    void publish(sd_bus* bus, uint32_t changes);

    // What the bus asks for (mpris_interface.h).
    Controls& controls() { return m_controls; }
    const DeviceModel& device() const { return m_device; }
    void preview_start();
    void play_pause();
    void seek_by(int64_t offset_us);
    void seek_to(const char* track, int64_t position_us);
    void set_volume(double volume);

  private:
    NowPlayingView view() const { return m_device.playing(); }
    void seek(int64_t position_ms);

    Controls& m_controls;
    const DeviceModel& m_device;
    // After a play-pause key, until the service reports or should have: what it has been asked to
    // become.
    std::optional<android::EPlayState> m_expected;
    NowPlaying::Clock::time_point m_expected_until;

    // Where the last seek went, and until when that counts as the position for a step from there.
    int64_t m_seek_target_ms = 0;
    NowPlaying::Clock::time_point m_seek_counts_until;
};

}  // namespace nuvio::host
