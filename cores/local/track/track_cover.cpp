#include "local/track/track_cover.h"

#include <utility>

#include "common/url/url.h"
#include "local/base/files.h"
#include "reader/client/music_reader.h"

namespace local_core {

namespace {

constexpr std::chrono::seconds kPatience{20};
constexpr size_t kMaxFetchedBytes = size_t{2} << 20U;  // in memory at once, beside the sound

}  // namespace

std::string TrackCover::find(const Track& track, TrackTexts* texts) {
    if (!track.remote && texts->album_art_url.empty()) {
        std::string error;
        nuvio::reader::MusicReader reader;
        const auto picture = reader.picture(open_regular_file(track.location, &error));
        if (const auto* const failure = std::get_if<nuvio::reader::Failure>(&picture)) {
            return failure->reason;
        }
        m_kept = KeptCover::keep(std::get<nuvio::reader::Picture>(picture).bytes());
        texts->album_art_url = m_kept ? m_kept->url() : "";
    } else if (track.remote && !track.remote->token.empty() &&
               nuvio::same_origin(texts->album_art_url, track.remote->token_origin)) {
        HttpRequest request = track.request();
        request.url = std::exchange(texts->album_art_url, "");
        request.read_ahead_bytes = kMaxFetchedBytes;
        request.give_up_after = kPatience;
        m_source = std::make_unique<HttpSource>(std::move(request));
        m_until = std::chrono::steady_clock::now() + kPatience;
    }
    return {};
}

std::optional<std::string> TrackCover::take_fetched() {
    const bool is_there = m_source->is_settled();
    if (!is_there && std::chrono::steady_clock::now() < m_until) {
        return std::nullopt;
    }
    std::string picture(is_there ? kMaxFetchedBytes : 0, '\0');
    picture.resize(m_source->read(picture.data(), picture.size()));
    m_source.reset();
    m_kept = KeptCover::keep(picture);
    return m_kept ? std::optional(m_kept->url()) : std::nullopt;
}

void TrackCover::reset() {
    m_source.reset();
    m_kept.reset();
}

}  // namespace local_core
