#include "reader/client/music_reader.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "common/utf8.h"

namespace nuvio::reader {

namespace {

// What the reader may have put there; empty where it is no text.
std::string text_in(const char (&field)[kMaxText]) {
    const std::string_view text(field, strnlen(field, kMaxText));
    return is_utf8(text) ? std::string(text) : std::string();
}

// Numbers that neither a display nor a database stumbles over.
Tags tags_in(const TagsAnswer& answer) {
    constexpr uint32_t kMaxCount = 9999;
    constexpr uint32_t kMaxRate = 10'000'000;
    constexpr int64_t kMaxDuration = int64_t{1} << 40U;
    Tags tags{text_in(answer.title), text_in(answer.artist), text_in(answer.album),
              text_in(answer.album_artist)};
    tags.disc = std::min(answer.disc, kMaxCount);
    tags.number = std::min(answer.number, kMaxCount);
    tags.year = std::min(answer.year, kMaxCount);
    tags.rate_hz = std::min(answer.rate_hz, kMaxRate);
    tags.channels = std::min(answer.channels, kMaxCount);
    tags.bits = std::min(answer.bits, kMaxCount);
    tags.duration_ms = std::clamp<int64_t>(answer.duration_ms, 0, kMaxDuration);
    return tags;
}

}  // namespace

Outcome<Tags> MusicReader::tags(const UniqueFd& file) {
    const Outcome<Answer> answer = file ? m_questions.ask({Job::tags}, file) : Answer{};
    const auto* const failure = std::get_if<Failure>(&answer);
    return failure != nullptr ? Outcome<Tags>(*failure) : tags_in(std::get<Answer>(answer).tags);
}

Outcome<Picture> MusicReader::picture(const UniqueFd& file) {
    return file ? m_questions.ask_for_picture({Job::picture}, file) : Picture{};
}

}  // namespace nuvio::reader
