#include "reader/client/music_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/utf8.h"
#include "reader/client/packets.h"

namespace nuvio::reader {

namespace {

constexpr uint32_t kMaxCount = 9999;  // of discs, tracks, years

// Numbers that neither a display nor a database stumbles over.
Tags tags_in(const TagsAnswer& answer) {
    constexpr uint32_t kMaxRate = 10'000'000;
    constexpr int64_t kMaxDuration = int64_t{1} << 40U;
    Tags tags{utf8_in(answer.title),        utf8_in(answer.artist), utf8_in(answer.album),
              utf8_in(answer.album_artist), utf8_in(answer.genre),  utf8_in(answer.composer)};
    tags.disc = std::min(answer.disc, kMaxCount);
    tags.number = std::min(answer.number, kMaxCount);
    tags.year = std::min(answer.year, kMaxCount);
    tags.rate_hz = std::min(answer.rate_hz, kMaxRate);
    tags.channels = std::min(answer.channels, kMaxCount);
    tags.bits = std::min(answer.bits, kMaxCount);
    tags.duration_ms = std::clamp<int64_t>(answer.duration_ms, 0, kMaxDuration);
    return tags;
}

// Parts that follow on each other, whatever the reader has said.
std::vector<SheetTrack> tracks_in(std::string_view records) {
    std::vector<SheetTrack> tracks;
    while (tracks.size() < kMaxSheetTracks) {
        auto track = take_sheet_track(&records);
        if (!track || track->section.begin_us >= track->section.end_us ||
            track->section.begin_us > Section::kLongest) {
            break;
        }
        for (const auto text : kSheetTexts) {
            if (text != &SheetTrack::file) {
                (*track).*text = printable(beginning((*track).*text, kMaxText));
            }
        }
        for (const auto number : kSheetNumbers) {
            (*track).*number = std::min((*track).*number, kMaxCount);
        }
        tracks.push_back(std::move(*track));
    }
    return tracks;
}

// Bytes of a remote file on their way to a reader, who needs to ask for a few only.
class Fetching : public Questions::Meanwhile {
  public:
    Fetching(RemoteBytes* bytes, const UniqueFd& memory) : m_bytes(bytes), m_memory(memory) {}

    Heard heard(const Answer& said, Request* reply) override {
        constexpr int kMostTimes = 500;
        constexpr size_t kPieceBytes = size_t{64} << 10U;
        if (said.status != Status::wants_bytes || said.wanted.is_time != 0 || m_bytes == nullptr ||
            ++m_times > kMostTimes) {
            return Heard::lie;
        }
        const size_t wanted = std::min<size_t>(said.wanted.size, kWindowBytes);
        m_piece.resize(std::max(wanted, kPieceBytes));
        reply->bytes = m_bytes->read(said.wanted.place, m_piece.data(), wanted, m_piece.size());
        const ssize_t put = pwrite(m_memory.get(), m_piece.data(), reply->bytes.size,
                                   static_cast<off_t>(kSheetRecordBytes));
        return put == static_cast<ssize_t>(reply->bytes.size) ? Heard::question : Heard::lie;
    }

  private:
    RemoteBytes* const m_bytes;
    const UniqueFd& m_memory;
    std::string m_piece;
    int m_times = 0;
};

}  // namespace

Outcome<Tags> MusicReader::tags(const UniqueFd& file) {
    const Outcome<Answer> answer = file ? m_questions.ask({Job::tags}, file) : Answer{};
    const auto* const failure = std::get_if<Failure>(&answer);
    return failure != nullptr ? Outcome<Tags>(*failure) : tags_in(std::get<Answer>(answer).tags);
}

Outcome<std::vector<SheetTrack>> MusicReader::sheet(const UniqueFd& file) {
    return file ? ask_for_sheet({Job::sheet}, file, nullptr) : std::vector<SheetTrack>();
}

Outcome<std::vector<SheetTrack>> MusicReader::sheet_inside(const UniqueFd& file) {
    Request request{Job::sheet};
    request.is_inside = true;
    return file ? ask_for_sheet(request, file, nullptr) : std::vector<SheetTrack>();
}

Outcome<std::vector<SheetTrack>> MusicReader::sheet_inside(RemoteBytes& bytes) {
    Request request{Job::sheet};
    request.is_inside = request.is_remote = true;
    return ask_for_sheet(request, {}, &bytes);
}

Outcome<std::vector<SheetTrack>> MusicReader::ask_for_sheet(const Request& request,
                                                            const UniqueFd& file,
                                                            RemoteBytes* bytes) {
    const UniqueFd memory = shared_memory(kSheetMemoryBytes);
    if (!memory) {
        return Failure{Failure::Kind::machine, std::strerror(errno)};
    }
    Fetching fetching(bytes, memory);
    const Outcome<Answer> answer = m_questions.ask(request, file, memory, fetching);
    if (const auto* const failure = std::get_if<Failure>(&answer)) {
        return *failure;
    }
    const SheetAnswer& said = std::get<Answer>(answer).sheet;
    if (const std::string fault = utf8_in(said.error); !fault.empty()) {
        return Failure{Failure::Kind::file, printable(fault)};
    }
    std::string records(std::min<size_t>(said.bytes, kSheetRecordBytes), '\0');
    const ssize_t got = pread(memory.get(), records.data(), records.size(), 0);
    return tracks_in({records.data(), static_cast<size_t>(std::max<ssize_t>(got, 0))});
}

Outcome<Picture> MusicReader::picture(const UniqueFd& file) {
    return file ? m_questions.ask_for_picture({Job::picture}, file) : Picture{};
}

}  // namespace nuvio::reader
