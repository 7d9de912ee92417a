#include "reader/inside/sheet.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include "common/number.h"
#include "common/text.h"
#include "common/utf8.h"
#include "reader/inside/flac_sheet.h"
#include "reader/inside/input.h"

namespace nuvio::reader {

namespace {

constexpr uint32_t kFramesASecond = 75;

// The next word, or what stands in quotes.
std::string_view take_word(std::string_view* line) {
    const std::string_view rest = trim(*line);
    const bool is_quoted = rest.starts_with('"');
    const size_t begin = is_quoted ? 1 : 0;
    const size_t end = std::min(rest.find_first_of(is_quoted ? "\"" : " \t", begin), rest.size());
    *line = rest.substr(std::min(end + 1, rest.size()));
    return rest.substr(begin, end - begin);
}

// A name, possibly in quotes, and a type behind it.
std::string_view file_in(std::string_view line) {
    line = trim(line);
    return line.starts_with('"') ? take_word(&line)
                                 : trim(line.substr(0, line.find_last_of(" \t")));
}

// All that follows, with quotes around it or without.
std::string text_of(std::string_view line) {
    line = trim(line);
    if (line.size() >= 2 && line.front() == '"' && line.back() == '"') {
        line = line.substr(1, line.size() - 2);
    }
    return std::string(beginning(trim(line), kMaxText));
}

// "mm:ss:ff".
std::optional<uint64_t> time_us(std::string_view text) {
    const size_t first = text.find(':');
    const size_t last = text.rfind(':');
    if (first == last) {
        return std::nullopt;
    }
    const auto minutes = to_number<uint16_t>(text.substr(0, first));
    const auto seconds = to_number<uint8_t>(text.substr(first + 1, last - first - 1));
    const auto frames = to_number<uint8_t>(text.substr(last + 1));
    if (!minutes || !seconds || !frames || *seconds >= 60 || *frames >= kFramesASecond) {
        return std::nullopt;
    }
    const uint64_t count = (*minutes * uint64_t{60} + *seconds) * kFramesASecond + *frames;
    return time_us_of(count, kFramesASecond);
}

class SheetParser {
  public:
    std::vector<SheetTrack> parse(std::string_view text, std::string* fault) {
        for (m_line = 1; !text.empty() && m_fault.empty(); ++m_line) {
            std::string_view line = take_line(&text);
            const std::string_view word = take_word(&line);
            const auto* const command = std::ranges::find_if(kCommands, [&](const Command& row) {
                return equals_ignoring_case(word, row.word);
            });
            if (command != std::end(kCommands)) {
                (this->*command->take)(line);
            }
        }
        finish();
        *fault = m_fault;
        return m_fault.empty() ? std::move(m_found) : std::vector<SheetTrack>();
    }

  private:
    struct Entry {
        SheetTrack track;
        bool is_audio = false;
        std::optional<SheetPlace> place;
    };
    struct Command {
        std::string_view word;
        void (SheetParser::*take)(std::string_view line);
    };
    static const Command kCommands[6];

    static std::string_view take_line(std::string_view* text) {
        const size_t end = std::min(text->find_first_of("\r\n"), text->size());
        const std::string_view line = text->substr(0, end);
        text->remove_prefix(end);
        text->remove_prefix(text->starts_with("\r\n") ? 2 : std::min<size_t>(text->size(), 1));
        return line;
    }

    void fail(const std::string& what) {
        if (m_fault.empty()) {
            m_fault = (m_line > 0 ? "line " + std::to_string(m_line) + ": " : "") + what;
        }
    }

    void take_file(std::string_view line) {
        m_file = beginning(file_in(line), kMaxText);
        ++m_files;
    }

    void take_track(std::string_view line) {
        if (m_entries.size() == kMaxSheetTracks) {
            return fail("more than 99 tracks");
        }
        Entry& entry = m_entries.emplace_back();
        entry.track.number = to_number<uint32_t>(take_word(&line)).value_or(0);
        entry.is_audio = equals_ignoring_case(take_word(&line), "AUDIO");
    }

    // A track lies in the file that is named last before its first index.
    void take_index(std::string_view line) {
        const std::string_view number = take_word(&line);
        if (to_number<uint32_t>(number).value_or(0) != 1) {
            return;
        }
        const auto begin_us = time_us(take_word(&line));
        if (!begin_us) {
            return fail("no time");
        }
        if (m_entries.empty() || m_files == 0) {
            return fail("a place of no track, or in no file");
        }
        const SheetPlace place{*begin_us, m_files - 1};
        if (m_last_place && m_last_place->file == place.file &&
            m_last_place->begin_us >= place.begin_us) {
            return fail("a track that does not begin behind the one before it");
        }
        m_last_place = place;
        m_entries.back().place = place;
        m_entries.back().track.file = m_file;
    }

    void take_title(std::string_view line) {
        (m_entries.empty() ? m_whole.album : m_entries.back().track.title) = text_of(line);
    }
    void take_performer(std::string_view line) {
        (m_entries.empty() ? m_whole.album_artist : m_entries.back().track.artist) = text_of(line);
    }
    void take_remark(std::string_view line) {
        const std::string_view word = take_word(&line);
        const auto number = static_cast<uint32_t>(
            std::clamp(leading_number(std::string(take_word(&line))), 0L, 9999L));
        if (equals_ignoring_case(word, "DATE")) {
            m_whole.year = number;
        } else if (equals_ignoring_case(word, "DISCNUMBER")) {
            m_whole.disc = number;
        }
    }

    void finish() {
        m_line = 0;
        std::vector<SheetPlace> places;
        for (const Entry& entry : m_entries) {
            if (!entry.place) {
                return fail("a track without a place");
            }
            places.push_back(*entry.place);
        }
        const std::vector<Section> parts = parts_of(places);
        for (size_t i = 0; i < m_entries.size(); ++i) {
            SheetTrack& track = m_entries[i].track;
            track.section = parts[i];
            track.album = m_whole.album;
            track.album_artist = m_whole.album_artist;
            track.artist = track.artist.empty() ? m_whole.album_artist : track.artist;
            track.year = m_whole.year;
            track.disc = m_whole.disc;
            if (m_entries[i].is_audio) {
                m_found.push_back(std::move(track));
            }
        }
        if (m_found.empty()) {
            fail("it names no track");
        }
    }

    size_t m_line = 0;   // 0: none
    SheetTrack m_whole;  // of all tracks
    std::string m_file;
    size_t m_files = 0;
    std::vector<Entry> m_entries;
    std::optional<SheetPlace> m_last_place;
    std::vector<SheetTrack> m_found;
    std::string m_fault;
};

const SheetParser::Command SheetParser::kCommands[6] = {
    {"FILE", &SheetParser::take_file},   {"TRACK", &SheetParser::take_track},
    {"INDEX", &SheetParser::take_index}, {"TITLE", &SheetParser::take_title},
    {"REM", &SheetParser::take_remark},  {"PERFORMER", &SheetParser::take_performer},
};

}  // namespace

std::vector<Section> parts_of(const std::vector<SheetPlace>& places) {
    std::vector<Section> parts;
    for (size_t i = 0; i < places.size(); ++i) {
        const bool is_first = i == 0 || places[i - 1].file != places[i].file;
        const bool is_last = i + 1 == places.size() || places[i + 1].file != places[i].file;
        parts.push_back({is_first ? 0 : places[i].begin_us,
                         is_last ? Section::kToTheEnd : places[i + 1].begin_us});
    }
    return parts;
}

std::vector<SheetTrack> parse_sheet(std::string_view text, std::string* fault) {
    text = without_byte_order_mark(text);
    std::string decoded;
    if (!is_utf8(text)) {
        decoded = utf8_from_latin1(text);
        text = decoded;
    }
    return SheetParser().parse(text, fault);
}

// What is beyond kMaxSheetBytes no sheet has.
void read_sheet(const Request& request, UniqueFd file, char* shared, Parent& parent,
                SheetAnswer* answer) {
    std::unique_ptr<Input> input;
    if (request.is_remote) {
        input = std::make_unique<RemoteInput>(parent, shared + kSheetRecordBytes, false, 0);
    } else {
        input = std::make_unique<FileInput>(std::move(file));
    }
    std::string fault;
    const std::vector<SheetTrack> tracks =
        request.is_inside ? flac_sheet(*input, &fault)
                          : parse_sheet(bytes_at(*input, 0, kMaxSheetBytes), &fault);
    std::string records;
    for (const SheetTrack& track : tracks) {
        records += record_of(track);
    }
    answer->bytes = static_cast<uint32_t>(records.copy(shared, kSheetRecordBytes));
    fault.copy(answer->error, sizeof answer->error);
}

}  // namespace nuvio::reader
