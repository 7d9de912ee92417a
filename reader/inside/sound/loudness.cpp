#include "reader/inside/sound/loudness.h"

#include <fileref.h>
#include <mp4file.h>
#include <tpropertymap.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>

#include "reader/inside/music_file.h"

namespace nuvio::reader {

namespace {

// Of a remote sound no more is looked through, lest all of it is fetched before it plays.
constexpr long kRemoteHeadBytes = long{512} << 10;
constexpr float kLeastDb = -60, kMostDb = 15;
constexpr float kMostPeak = 100;
// R128's tags lead to -23 LUFS, in steps of 1/256 dB.
constexpr float kR128Steps = 256, kR128OffsetDb = 5;

class InputBytes : public TaggedBytes {
  public:
    explicit InputBytes(Input& input) : TaggedBytes(length_of(input)), m_input(input) {}

  private:
    static long length_of(Input& input) {
        const uint64_t length = input.length().value_or(UINT64_MAX);
        return length <= LONG_MAX ? static_cast<long>(length) : -1;
    }
    size_t read_at(long place, char* to, size_t count) override {
        const bool is_near = m_input.is_at_hand() || place < kRemoteHeadBytes;
        return is_near && m_input.seek(static_cast<uint64_t>(place)) ? m_input.read(to, count) : 0;
    }

    Input& m_input;
};

// By the names that are in use.
class Tags {
  public:
    explicit Tags(TagLib::File& file)
        : m_properties(file.properties()), m_mp4(dynamic_cast<TagLib::MP4::File*>(&file)) {}

    // "-7.3 dB".
    std::optional<float> number(const std::string& name) const {
        const std::string text = text_of(name);
        char* end = nullptr;
        const float number = std::strtof(text.c_str(), &end);
        return end != text.c_str() && std::isfinite(number) ? std::optional(number) : std::nullopt;
    }

  private:
    std::string text_of(const std::string& name) const {
        const auto found = m_properties.find(name);
        if (found != m_properties.end() && !found->second.isEmpty()) {
            return found->second.front().to8Bit(true);
        }
        if (m_mp4 == nullptr || m_mp4->tag() == nullptr) {
            return {};
        }
        const std::string own = "----:com.apple.iTunes:" + TagLib::String(name).to8Bit(true);
        for (const auto& [key, item] : m_mp4->tag()->itemMap()) {
            if (key.upper() == TagLib::String(own).upper() && !item.toStringList().isEmpty()) {
                return item.toStringList().front().to8Bit(true);
            }
        }
        return {};
    }

    const TagLib::PropertyMap m_properties;
    TagLib::MP4::File* const m_mp4;  // null: it is none
};

// Of the track or of the album; none where the tags do not say it.
std::optional<float> gain_in(const Tags& tags, const std::string& of) {
    std::optional<float> gain = tags.number("REPLAYGAIN_" + of + "_GAIN");
    if (const auto steps = tags.number("R128_" + of + "_GAIN")) {
        gain = *steps / kR128Steps + kR128OffsetDb;
    }
    if (!gain) {
        return std::nullopt;
    }
    const float peak = tags.number("REPLAYGAIN_" + of + "_PEAK").value_or(0);
    const float most = peak > 0 && peak <= kMostPeak ? -20 * std::log10(peak) : kMostDb;
    return std::clamp(std::min(*gain, most), kLeastDb, kMostDb);
}

float gain_in(Input& input, Loudness wanted) {
    InputBytes bytes(input);
    const TagLib::FileRef music(&bytes, false);
    if (music.isNull()) {
        return 0;
    }
    const Tags tags(*music.file());
    const auto of_track = gain_in(tags, "TRACK"), of_album = gain_in(tags, "ALBUM");
    const bool is_by_album = wanted == Loudness::album && of_album;
    return (is_by_album || !of_track ? of_album : of_track).value_or(0);
}

}  // namespace

float gain_db(Input& input, Loudness wanted) {
    if (wanted == Loudness::own || input.is_radio() || !input.length()) {
        return 0;
    }
    float gain = 0;
    try {
        gain = gain_in(input, wanted);
    } catch (const std::exception&) {
        gain = 0;  // tags too large, or beyond TagLib, are no reason not to play
    }
    input.seek(0);
    return gain;
}

}  // namespace nuvio::reader
