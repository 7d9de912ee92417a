// Controls: what a person does at the device, from the desktop's player controls or the panel.
//
// Any thread; nothing waits.
#pragma once

#include <cstdint>
#include <string>

#include "device/message_store.h"
#include "device/network_monitor.h"
#include "device/now_playing.h"
#include "device/source_switch.h"

namespace nuvio::host {

class Controls {
  public:
    Controls(MessageStore& messages, NowPlaying& now_playing, SourceSwitch& source_switch,
             NetworkMonitor& network)
        : m_messages(messages),
          m_now_playing(now_playing),
          m_source_switch(source_switch),
          m_network(network) {}

    // A command word of the service; false when no source takes it.
    bool command(const std::string& word) { return m_source_switch.send_command(word); }

    static constexpr int64_t kMaxSeekMs = INT32_MAX;  // what a command can carry

    // From the start of the track; beyond kMaxSeekMs it is ignored.
    void seek(int64_t position_ms);

    // The volume control: kept by the device, and told to the source.
    void set_volume(int percent);

    // The source mutes and reports it; without one the device keeps it for the next.
    void set_mute(bool muted);

    // Writes a message as the device's own parts would: those that are more than a stored text
    // (name, volume, mute, current source) take effect. False when the id or text makes no sense.
    bool write_message(int id, const std::string& text);

    // False for what is_device_name refuses.
    bool rename(const std::string& name);

    // False unless from 1 to 255 and not this service's own number.
    bool take_output(int source);
    void give_back_output() { m_source_switch.give_back_output(); }
    void refuse_next_request() { m_source_switch.refuse_next_request(); }

    void request_shutdown();

    const MessageStore& messages() const { return m_messages; }
    NowPlaying& now_playing() { return m_now_playing; }
    NetworkMonitor& network() { return m_network; }

  private:
    MessageStore& m_messages;
    NowPlaying& m_now_playing;
    SourceSwitch& m_source_switch;
    NetworkMonitor& m_network;
};

}  // namespace nuvio::host
