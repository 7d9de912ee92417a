#include "reader/inside/playlist.h"

#include <expat.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <memory>
#include <utility>

#include "common/json/json.h"
#include "common/m3u.h"
#include "common/number.h"
#include "common/percent_encoding.h"
#include "common/released_by.h"
#include "common/text.h"
#include "common/utf8.h"
#include "reader/inside/media_playlist.h"
#include "reader/inside/sheet.h"

namespace nuvio::reader {

namespace {

std::vector<ListedTrack> parse_m3u(std::string_view text, size_t max_entries) {
    // A list of one stream's pieces, not of tracks.
    if (text.find("#EXT-X-") != std::string_view::npos) {
        return {};
    }
    std::vector<ListedTrack> entries;
    for (nuvio::PlaylistEntry& entry : nuvio::parse_m3u(text, max_entries)) {
        ListedTrack& added = entries.emplace_back();
        added.location = std::move(entry.location);
        added.title = std::move(entry.title);
    }
    return entries;
}

// "File1=http://...", "Title1=...", "Length1=seconds", in any order.
std::vector<ListedTrack> parse_pls(std::string_view text, size_t max_entries) {
    std::map<unsigned, ListedTrack> by_number;
    while (!text.empty()) {
        const size_t end = text.find_first_of("\r\n");
        const std::string_view line = nuvio::trim(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        const size_t equals = line.find('=');
        const size_t digits = line.find_first_of("0123456789");
        if (equals == std::string_view::npos || digits >= equals) {
            continue;
        }
        const auto number = nuvio::to_number<unsigned>(line.substr(digits, equals - digits));
        if (!number || (by_number.size() >= max_entries && !by_number.contains(*number))) {
            continue;
        }
        const std::string_view key = line.substr(0, digits);
        const std::string_view value = nuvio::trim(line.substr(equals + 1));
        if (nuvio::equals_ignoring_case(key, "file")) {
            by_number[*number].location = value;
        } else if (nuvio::equals_ignoring_case(key, "title")) {
            by_number[*number].title = value;
        } else if (nuvio::equals_ignoring_case(key, "length")) {
            if (const auto seconds = nuvio::to_number<uint32_t>(value)) {
                by_number[*number].duration_ms = uint64_t{*seconds} * 1000;
            }
        }
    }
    std::vector<ListedTrack> entries;
    entries.reserve(by_number.size());
    for (auto& [number, entry] : by_number) {
        entries.push_back(std::move(entry));
    }
    return entries;
}

// Expat keeps all open elements, all names and the whole of a tag: 50 times the bytes of a playlist
// that is made for it. Where it gets no more than this it stops with XML_ERROR_NO_MEMORY.
constexpr size_t kMaxParserBytes = size_t{8} << 20U;

thread_local size_t t_parser_bytes = 0;  // held by this thread's parser

void* resize_for_parser(void* memory, size_t size) {
    const size_t others = t_parser_bytes - malloc_usable_size(memory);
    void* const moved = others + size <= kMaxParserBytes ? std::realloc(memory, size) : nullptr;
    if (moved != nullptr) {
        t_parser_bytes = others + malloc_usable_size(moved);
    }
    return moved;
}

void* allocate_for_parser(size_t size) {
    return resize_for_parser(nullptr, size);
}

void free_of_parser(void* memory) {
    t_parser_bytes -= malloc_usable_size(memory);
    std::free(memory);
}

constexpr XML_Memory_Handling_Suite kParserMemory = {allocate_for_parser, resize_for_parser,
                                                     free_of_parser};

// Gathers playlist/trackList/track/FIELD.
class XspfReader {
  public:
    explicit XspfReader(size_t max_entries)
        : m_parser(XML_ParserCreate_MM(nullptr, &kParserMemory, " ")), m_max_entries(max_entries) {}

    std::vector<ListedTrack> read(std::string_view text) {
        XML_Parser parser = m_parser.get();
        if (parser != nullptr) {
            XML_SetUserData(parser, this);
            XML_SetElementHandler(parser, on_start, on_end);
            XML_SetCharacterDataHandler(parser, on_text);
            XML_SetStartDoctypeDeclHandler(parser, on_doctype);
            // What stands before a fault counts.
            XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE);
        }
        return std::move(m_entries);
    }

  private:
    static constexpr size_t kTrackDepth = 3;
    static constexpr size_t kMaxFieldBytes = 8192;

    static XspfReader& self(void* data) { return *static_cast<XspfReader*>(data); }

    static void on_start(void* data, const char* name, const char** /*attributes*/) {
        XspfReader& reader = self(data);
        const std::string_view full = name;
        const std::string_view local = full.substr(full.find_last_of(' ') + 1);
        static constexpr std::string_view kPath[] = {"playlist", "trackList", "track"};
        const size_t depth = reader.m_depth++;
        if (depth < kTrackDepth) {
            reader.m_matching += depth == reader.m_matching && local == kPath[depth] ? 1 : 0;
        }
        if (depth + 1 == kTrackDepth) {
            reader.m_entry = {};
        }
        reader.m_field = depth == kTrackDepth ? std::string(local) : std::string();
        reader.m_text.clear();
    }

    // After XML_StopParser expat calls the end of an empty element that it was stopped in the start
    // of, and ends of namespaces; nothing further for this handler. Its stack of open elements is
    // on the heap, however deep they are.
    static void on_end(void* data, const char* /*name*/) {
        XspfReader& reader = self(data);
        const size_t depth = --reader.m_depth;
        const bool is_in_track = reader.m_matching == kTrackDepth;
        if (depth == kTrackDepth && is_in_track) {
            reader.take_field();
        } else if (depth + 1 == kTrackDepth && is_in_track) {
            reader.m_entries.push_back(std::move(reader.m_entry));
            if (reader.m_entries.size() >= reader.m_max_entries) {
                XML_StopParser(reader.m_parser.get(), XML_FALSE);
            }
        }
        reader.m_matching = std::min(reader.m_matching, depth);
    }

    static void on_text(void* data, const char* text, int length) {
        XspfReader& reader = self(data);
        const auto size = static_cast<size_t>(length);
        if (!reader.m_field.empty() && reader.m_text.size() + size <= kMaxFieldBytes) {
            reader.m_text.append(text, size);
        }
    }

    // No playlist needs one, and entities are what grows. Expat comes here before it reads what the
    // brackets declare, and stops where it is.
    static void on_doctype(void* data, const char*, const char*, const char*, int) {
        XML_StopParser(self(data).m_parser.get(), XML_FALSE);
    }

    void take_field() {
        for (const auto& field : kListedTexts) {
            // Of several locations the first counts.
            if (m_field == field.name && (m_entry.*field.text).empty()) {
                m_entry.*field.text = nuvio::trim(m_text);
            }
        }
        if (m_field == "duration") {
            m_entry.duration_ms = nuvio::to_number<uint64_t>(nuvio::trim(m_text));
        }
    }

    std::unique_ptr<XML_ParserStruct, nuvio::ReleasedBy<XML_ParserFree>> m_parser;
    size_t m_max_entries;
    size_t m_depth = 0;     // of open elements
    size_t m_matching = 0;  // how many of them, from the outermost, are on the way to a track
    std::string m_field;
    std::string m_text;
    ListedTrack m_entry;
    std::vector<ListedTrack> m_entries;
};

std::vector<ListedTrack> parse_xspf(std::string_view text, size_t max_entries) {
    return XspfReader(max_entries).read(text);
}

// A text, or the first of a list of texts.
std::string json_text(const cJSON* value) {
    if (cJSON_IsArray(value)) {
        value = value->child;
    }
    const char* text = cJSON_GetStringValue(value);
    return text != nullptr ? text : "";
}

std::vector<ListedTrack> parse_jspf(std::string_view text, size_t max_entries) {
    const nuvio::JsonPtr root = nuvio::parse_json(text);
    const cJSON* tracks = nuvio::member(nuvio::member(root.get(), "playlist"), "track");
    std::vector<ListedTrack> entries;
    const cJSON* track = nullptr;
    cJSON_ArrayForEach(track, tracks) {
        if (entries.size() >= max_entries) {
            break;
        }
        ListedTrack entry;
        for (const auto& field : kListedTexts) {
            entry.*field.text = json_text(nuvio::member(track, std::string(field.name).c_str()));
        }
        const cJSON* duration = nuvio::member(track, "duration");
        constexpr double kMaxMilliseconds = 1e12;
        if (cJSON_IsNumber(duration) && duration->valuedouble >= 0 &&
            duration->valuedouble <= kMaxMilliseconds) {
            entry.duration_ms = static_cast<uint64_t>(duration->valuedouble);
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

// As a reference to what lies beside the sheet or below, under whichever system it was written.
std::string reference_to(std::string name) {
    if (starts_with_ignoring_case(name, "http://") || starts_with_ignoring_case(name, "https://")) {
        return name;
    }
    std::ranges::replace(name, '\\', '/');
    const bool is_absolute = name.starts_with('/') || name.find(':') == 1;
    return percent_encode(is_absolute ? name.substr(name.rfind('/') + 1) : name);
}

constexpr struct {
    PlaylistFormat format;
    std::vector<ListedTrack> (*parse)(std::string_view text, size_t max_entries);
} kParsers[] = {
    {PlaylistFormat::m3u, parse_m3u},
    {PlaylistFormat::pls, parse_pls},
    {PlaylistFormat::xspf, parse_xspf},
    {PlaylistFormat::jspf, parse_jspf},
};

}  // namespace

std::vector<ListedTrack> parse_playlist(PlaylistFormat format, std::string_view text,
                                        size_t max_tracks) {
    const auto* parser =
        std::ranges::find_if(kParsers, [&](const auto& row) { return row.format == format; });
    return parser == std::end(kParsers)
               ? std::vector<ListedTrack>()
               : parser->parse(nuvio::without_byte_order_mark(text), max_tracks);
}

std::vector<ListedTrack> tracks_of_sheet(std::string_view text, size_t max_tracks,
                                         std::string* fault) {
    std::vector<ListedTrack> listed;
    for (const SheetTrack& track : parse_sheet(text, fault)) {
        if (listed.size() < max_tracks) {
            ListedTrack& added = listed.emplace_back();
            added.location = with_section(reference_to(track.file), track.section);
            added.title = title_of(track);
            added.creator = track.artist;
            added.album = track.album;
            added.duration_ms = track.section.length_ms();
        }
    }
    return listed;
}

void read_playlist(const Request& request, char* shared, PlaylistAnswer* answer) {
    const std::string_view text(shared, request.text_bytes);
    std::string records;
    if (request.format == PlaylistFormat::hls) {
        records = record_of(parse_media_playlist(text, request.max_tracks));
    }
    std::string fault;
    for (const ListedTrack& track :
         request.format == PlaylistFormat::cue
             ? tracks_of_sheet(text, request.max_tracks, &fault)
             : parse_playlist(request.format, text, request.max_tracks)) {
        records += record_of(track);
    }
    beginning(fault, sizeof answer->error).copy(answer->error, sizeof answer->error);
    answer->bytes =
        static_cast<uint32_t>(records.copy(shared + kMaxPlaylistBytes, kMaxRecordBytes));
}

}  // namespace nuvio::reader
