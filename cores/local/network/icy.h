// Titles that an internet radio sends between its audio bytes: after each `interval` bytes of audio
// one byte, a sixteenth of the length of the text that follows ("StreamTitle='...';...").
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace local_core {

// The title in such a text, as written by the station; empty where there is none.
std::string_view icy_title(std::string_view text);

// Takes the texts out of one connection's bytes. One thread at a time.
class IcyFilter {
  public:
    // Called with the audio between two texts and with each text that has a title, in their order.
    using AudioHandler = std::function<void(std::string_view audio)>;
    using TitleHandler = std::function<void(std::string_view title)>;

    // `interval` of 0: there are no texts.
    explicit IcyFilter(size_t interval = 0) : m_interval(interval), m_audio_left(interval) {}

    // Any bytes, in any pieces; at most 4080 of them are held.
    void feed(std::string_view bytes, const AudioHandler& audio, const TitleHandler& title);

  private:
    size_t m_interval;
    size_t m_audio_left;
    size_t m_text_left = 0;
    std::string m_text;
};

}  // namespace local_core
