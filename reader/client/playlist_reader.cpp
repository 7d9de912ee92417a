#include "reader/client/playlist_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/utf8.h"
#include "reader/client/packets.h"

namespace nuvio::reader {

Outcome<std::string> PlaylistReader::records_of(PlaylistFormat format, std::string_view text,
                                                size_t max_tracks) {
    if (text.size() > kMaxPlaylistBytes) {
        return Failure{Failure::Kind::file, "the playlist is too large"};
    }
    const UniqueFd memory = shared_memory(kPlaylistMemoryBytes);
    if (!memory ||
        pwrite(memory.get(), text.data(), text.size(), 0) != static_cast<ssize_t>(text.size())) {
        return Failure{Failure::Kind::machine, std::strerror(errno)};
    }
    Request request{Job::playlist};
    request.format = format;
    request.text_bytes = static_cast<uint32_t>(text.size());
    request.max_tracks = static_cast<uint32_t>(max_tracks);
    const Outcome<Answer> answer = m_questions.ask(request, memory);
    if (const auto* const failure = std::get_if<Failure>(&answer)) {
        return *failure;
    }
    const PlaylistAnswer& said = std::get<Answer>(answer).playlist;
    if (const std::string fault = utf8_in(said.error); !fault.empty()) {
        return Failure{Failure::Kind::file, printable(fault)};
    }
    std::string records(std::min<size_t>(said.bytes, kMaxRecordBytes), '\0');
    const ssize_t got =
        pread(memory.get(), records.data(), records.size(), static_cast<off_t>(kMaxPlaylistBytes));
    records.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return records;
}

Outcome<std::vector<ListedTrack>> PlaylistReader::read(PlaylistFormat format, std::string_view text,
                                                       size_t max_tracks) {
    const Outcome<std::string> records = records_of(format, text, max_tracks);
    m_questions.rest();
    if (const auto* const failure = std::get_if<Failure>(&records)) {
        return *failure;
    }
    return tracks_in(std::get<std::string>(records), max_tracks);
}

Outcome<MediaPlaylist> PlaylistReader::read_media(std::string_view text, size_t max_segments) {
    const Outcome<std::string> record = records_of(PlaylistFormat::hls, text, max_segments);
    if (const auto* const failure = std::get_if<Failure>(&record)) {
        return *failure;
    }
    return media_playlist_in(std::get<std::string>(record), max_segments);
}

}  // namespace nuvio::reader
