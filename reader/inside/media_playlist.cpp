#include "reader/inside/media_playlist.h"

#include <algorithm>
#include <array>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/m3u.h"
#include "common/music/section.h"
#include "common/number.h"
#include "common/text.h"

namespace nuvio::reader {

namespace {

constexpr size_t kMaxInits = 1000;
// What is said to be neither sound nor picture and takes more has pictures in it.
constexpr uint64_t kMaxSoundBits = 600'000;

// Of "NAME=value,OTHER="a, b"" the value of a name, without quotes; empty where it has none.
std::string_view attribute(std::string_view list, std::string_view wanted) {
    while (!list.empty()) {
        const std::string_view name = trim(list.substr(0, list.find('=')));
        list.remove_prefix(std::min(list.find('='), list.size() - 1) + 1);
        const bool is_quoted = list.starts_with('"');
        list.remove_prefix(is_quoted ? 1 : 0);
        const std::string_view value = list.substr(0, list.find(is_quoted ? '"' : ','));
        list.remove_prefix(value.size());
        list.remove_prefix(std::min(list.find(','), list.size()));
        list.remove_prefix(list.empty() ? 0 : 1);
        if (name == wanted) {
            return is_quoted ? value : trim(value);
        }
    }
    return {};
}

uint64_t number_in(std::string_view text) {
    return to_number<uint64_t>(text.substr(0, text.find_first_not_of("0123456789"))).value_or(0);
}

bool is_sound(std::string_view codec) {
    constexpr std::array<std::string_view, 3> kKinds = {"mp4a", "fLaC", "alac"};
    return std::ranges::any_of(
        kKinds, [&](std::string_view kind) { return starts_with_ignoring_case(codec, kind); });
}

// One version of the stream.
struct Variant {
    std::string_view location;
    std::string_view group;  // of renditions of its sound; possibly empty
    uint64_t bits = 0;       // a second
    bool has_sound = false;
    bool is_sound_alone = false;
};

struct Rendition {
    std::string_view group, location;
    bool is_default;
};

Variant variant_of(std::string_view attributes) {
    Variant variant;
    variant.group = attribute(attributes, "AUDIO");
    variant.bits = number_in(attribute(attributes, "BANDWIDTH"));
    std::string_view codecs = attribute(attributes, "CODECS");
    if (codecs.empty()) {
        variant.has_sound = true;
        variant.is_sound_alone =
            attribute(attributes, "RESOLUTION").empty() && variant.bits <= kMaxSoundBits;
        return variant;
    }
    variant.is_sound_alone = true;
    while (!codecs.empty()) {
        const std::string_view codec = codecs.substr(0, codecs.find(','));
        const bool sounds = is_sound(trim(codec));
        variant.has_sound = variant.has_sound || sounds;
        variant.is_sound_alone = variant.is_sound_alone && sounds;
        codecs.remove_prefix(std::min(codec.size() + 1, codecs.size()));
    }
    return variant;
}

class Parser {
  public:
    Parser(std::string_view text, size_t max_segments)
        : m_text(text), m_max_segments(max_segments) {
        m_playlist.has_end = text.find("#EXT-X-ENDLIST") != std::string_view::npos;
    }

    MediaPlaylist parse() {
        while (!m_text.empty()) {
            take_line(trim(m3u::take_line(m_text)));
        }
        m_playlist.variant = choose();
        m_playlist.segments.assign(std::make_move_iterator(m_segments.begin()),
                                   std::make_move_iterator(m_segments.end()));
        return std::move(m_playlist);
    }

  private:
    static constexpr size_t kMaxLineBytes = 4096;

    void take_line(std::string_view line) {
        static constexpr struct {
            std::string_view tag;
            void (Parser::*take)(std::string_view value);
        } kTags[] = {
            {"#EXTINF:", &Parser::take_info},
            {"#EXT-X-BYTERANGE:", &Parser::take_range},
            {"#EXT-X-MAP:", &Parser::take_init},
            {"#EXT-X-KEY:", &Parser::take_key},
            {"#EXT-X-DISCONTINUITY", &Parser::take_cut},
            {"#EXT-X-MEDIA-SEQUENCE:", &Parser::take_first_number},
            {"#EXT-X-TARGETDURATION:", &Parser::take_target},
            {"#EXT-X-STREAM-INF:", &Parser::take_variant},
            {"#EXT-X-MEDIA:", &Parser::take_rendition},
        };
        if (line.empty() || line.size() > kMaxLineBytes) {
            return;
        }
        if (!line.starts_with('#')) {
            take_location(line);
            return;
        }
        for (const auto& row : kTags) {
            if (line.starts_with(row.tag)) {
                (this->*row.take)(line.substr(row.tag.size()));
            }
        }
    }

    void take_info(std::string_view value) {
        constexpr size_t kDecimals = 6;
        m_next.title = m3u::title_of(value);
        const std::string_view seconds = trim(value.substr(0, value.find(',')));
        const size_t point = section::place_of('.', seconds);
        m_next.duration_us =
            section::time_us(seconds.substr(0, std::min(point + 1 + kDecimals, seconds.size())))
                .value_or(0);
    }
    void take_cut(std::string_view value) { m_next.is_cut = m_next.is_cut || value.empty(); }
    void take_first_number(std::string_view value) { m_playlist.first_number = number_in(value); }
    void take_target(std::string_view value) { m_playlist.target_s = number_in(value); }
    void take_key(std::string_view value) {
        const std::string_view method = attribute(value, "METHOD");
        m_has_key = !method.empty() && method != "NONE";
    }

    // "SIZE" or "SIZE@FIRST"; without the latter it goes on behind the range before.
    void take_range(std::string_view value) {
        const size_t at = value.find('@');
        m_next.part.size = number_in(value);
        m_next.part.first =
            at == std::string_view::npos ? m_behind_last : number_in(value.substr(at + 1));
    }

    void take_init(std::string_view value) {
        const std::string_view range = attribute(value, "BYTERANGE");
        const size_t at = range.find('@');
        const MediaPart init{std::string(attribute(value, "URI")),
                             at == std::string_view::npos ? 0 : number_in(range.substr(at + 1)),
                             number_in(range)};
        auto& inits = m_playlist.inits;
        const bool is_new = inits.empty() || inits.back() != init;
        if (is_new && inits.size() < std::min(kMaxInits, m_max_segments)) {
            inits.push_back(init);
        }
    }

    void take_variant(std::string_view value) { m_variant = variant_of(value); }
    void take_rendition(std::string_view value) {
        if (attribute(value, "TYPE") == "AUDIO") {
            m_renditions.push_back({attribute(value, "GROUP-ID"), attribute(value, "URI"),
                                    attribute(value, "DEFAULT") == "YES"});
        }
    }

    void take_location(std::string_view line) {
        if (m_variant) {
            m_variant->location = line;
            m_variants.push_back(*m_variant);
            m_variant.reset();
            return;
        }
        m_next.part.location = line;
        if (!m_playlist.inits.empty()) {
            m_next.init = static_cast<uint32_t>(m_playlist.inits.size() - 1);
        }
        m_behind_last = m_next.part.first + m_next.part.size;
        m_playlist.is_encrypted = m_playlist.is_encrypted || m_has_key;
        keep(std::exchange(m_next, {}));
    }

    void keep(MediaSegment segment) {
        if (m_segments.size() < m_max_segments) {
            m_segments.push_back(std::move(segment));
        } else if (!m_playlist.has_end && m_max_segments > 0) {
            m_segments.pop_front();
            m_segments.push_back(std::move(segment));
            ++m_playlist.first_number;
        }
    }

    // Sound that is not in the version itself: the default of its group, else the first.
    void find_rendition(Variant* variant) const {
        const Rendition* found = nullptr;
        for (const Rendition& each : m_renditions) {
            const bool is_better = found == nullptr || (each.is_default && !found->is_default);
            if (each.group == variant->group && !each.location.empty() && is_better) {
                found = &each;
            }
        }
        if (found != nullptr && !variant->group.empty()) {
            variant->location = found->location;
            variant->is_sound_alone = true;
        }
    }

    std::string choose() {
        const Variant* best = nullptr;
        for (Variant& variant : m_variants) {
            find_rendition(&variant);
            const bool is_better =
                best == nullptr || (variant.is_sound_alone != best->is_sound_alone
                                        ? variant.is_sound_alone
                                        : variant.is_sound_alone == (variant.bits > best->bits));
            if (variant.has_sound && is_better) {
                best = &variant;
            }
        }
        return best != nullptr ? std::string(best->location) : "";
    }

    std::string_view m_text;  // that is left
    const size_t m_max_segments;
    MediaPlaylist m_playlist;
    std::deque<MediaSegment> m_segments;
    MediaSegment m_next;  // as far as it is said
    uint64_t m_behind_last = 0;
    bool m_has_key = false;
    std::vector<Variant> m_variants;
    std::vector<Rendition> m_renditions;
    std::optional<Variant> m_variant;  // whose location comes next
};

}  // namespace

MediaPlaylist parse_media_playlist(std::string_view text, size_t max_segments) {
    return Parser(text, max_segments).parse();
}

}  // namespace nuvio::reader
