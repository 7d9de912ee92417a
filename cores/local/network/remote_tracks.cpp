#include "local/network/remote_tracks.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "common/text.h"
#include "local/network/remote_settings.h"
#include "local/network/source_bytes.h"
#include "reader/client/music_reader.h"
#include "reader/client/playlist_reader.h"

namespace local_core {

namespace {

// Not what it is, only whether it is worth asking.
bool may_be_playlist(const std::string& url) {
    constexpr std::string_view kEndings[] = {".m3u", ".m3u8", ".pls", ".xspf", ".jspf", ".cue"};
    const std::string_view path = std::string_view(url).substr(0, url.find('?'));
    return std::ranges::any_of(kEndings, [&](std::string_view ending) {
        return nuvio::ends_with_ignoring_case(path, ending);
    });
}

// Follows playlists in playlists within the limits.
class Finder {
  public:
    Finder(HttpRequest request, const RemoteLimits& limits, Interruption& interruption)
        : m_request(asked_just_now(std::move(request))),
          m_left(limits),
          m_interruption(interruption) {
        m_request.read_ahead_bytes = 0;  // of a track only the head is looked at
    }

    // Appends what `track` stands for. False when it can't be had.
    bool find(RemoteTrack track, int depth) {
        Found found;
        if (!look_at(track.url, &found)) {
            return false;
        }
        if (found.format == PlaylistFormat::none || is_stream_playlist(found.text)) {
            if (!track.section.is_whole()) {
                found.sheet.clear();
            }
            std::vector<RemoteTrack> parts = parts_of(std::move(track), found.sheet);
            for (RemoteTrack& part : parts) {
                add(std::move(part));
            }
        } else {
            add_all(read_playlist(found), depth);
        }
        return true;
    }

    std::vector<RemoteTrack> tracks;
    HttpFailure failure = HttpFailure::none;
    std::string error;
    std::string note;  // on a sheet

  private:
    using Sheet = std::vector<nuvio::reader::SheetTrack>;
    struct Found {
        PlaylistFormat format = PlaylistFormat::none;
        std::string text;  // of a playlist
        std::string base;  // what its relative URLs refer to
        Sheet sheet;       // inside a file
    };

    bool look_at(const std::string& url, Found* found) {
        m_request.url = url;
        HttpSource source(m_request);
        const Interruption::Watch watch(m_interruption, [&source] { source.cancel(); });
        const auto content = source.open();
        found->text.resize(content ? kPlaylistHeadBytes : 0);
        found->text.resize(source.read(found->text.data(), found->text.size()));
        if (content && source.failure() == HttpFailure::none && !content->is_radio) {
            found->base = content->url;
            found->format = playlist_format(content->content_type, found->text);
        }
        if (found->format != PlaylistFormat::none) {
            read_rest(source, &found->text);
        } else if (content && !content->is_radio && found->text.starts_with("fLaC")) {
            found->sheet = sheet_in(source);
        }
        if (source.failure() != HttpFailure::none) {
            failure = source.failure();
            error = source.error();
        } else if (found->format != PlaylistFormat::none && found->text.size() > m_left.bytes) {
            failure = HttpFailure::unusable;
            error = "the playlist is too large";
        } else {
            failure = HttpFailure::none;
            error.clear();
        }
        m_left.bytes -= std::min(m_left.bytes, found->text.size());
        return failure == HttpFailure::none;
    }

    // By a reader; one that fails costs this playlist.
    std::vector<RemoteTrack> read_playlist(const Found& found) {
        nuvio::reader::PlaylistReader reader;
        const Interruption::Watch watch(m_interruption, [&reader] { reader.interrupt(); });
        const auto listed = reader.read(found.format, found.text, m_left.tracks);
        if (const auto* const failed = std::get_if<nuvio::reader::Failure>(&listed)) {
            failure =
                m_interruption.is_interrupted() ? HttpFailure::cancelled : HttpFailure::unusable;
            error = "the playlist can't be read: " + failed->reason;
            return {};
        }
        return resolved_tracks(std::get<std::vector<nuvio::reader::ListedTrack>>(listed),
                               found.base);
    }

    // One that is no good leaves its file whole.
    Sheet sheet_in(HttpSource& source) {
        nuvio::reader::MusicReader reader;
        const Interruption::Watch watch(m_interruption, [&reader] { reader.interrupt(); });
        SourceBytes bytes(source, false);
        auto sheet = reader.sheet_inside(bytes);
        if (const auto* const failed = std::get_if<nuvio::reader::Failure>(&sheet)) {
            note = "not taken apart: " + failed->reason;
            return {};
        }
        return std::get<Sheet>(std::move(sheet));
    }

    // One byte more than is allowed shows that it is too large.
    void read_rest(HttpSource& source, std::string* text) const {
        const size_t head = text->size();
        text->resize(std::max(m_left.bytes, head) + 1);
        text->resize(head + source.read(text->data() + head, text->size() - head));
    }

    void add_all(std::vector<RemoteTrack> found, int depth) {
        const bool is_only_one = found.size() == 1;
        for (RemoteTrack& track : found) {
            const bool is_asked = (is_only_one || may_be_playlist(track.url)) &&
                                  depth < m_left.depth && m_left.playlists > 0;
            if (is_asked) {
                --m_left.playlists;
                find(std::move(track), depth + 1);
            } else if (!may_be_playlist(track.url)) {
                add(std::move(track));
            }
        }
    }

    void add(RemoteTrack track) {
        if (m_left.tracks > 0) {
            --m_left.tracks;
            tracks.push_back(std::move(track));
        }
    }

    HttpRequest m_request;
    RemoteLimits m_left;
    Interruption& m_interruption;
};

}  // namespace

std::vector<RemoteTrack> find_remote_tracks(const HttpRequest& request, const RemoteLimits& limits,
                                            Interruption& interruption, HttpFailure* failure,
                                            std::string* error) {
    Finder finder(request, limits, interruption);
    RemoteTrack whole;
    whole.url = request.url;
    finder.find(std::move(whole), 0);
    *failure = finder.tracks.empty() ? finder.failure : HttpFailure::none;
    *error = finder.tracks.empty() ? finder.error : finder.note;
    if (finder.tracks.empty() && *failure == HttpFailure::none) {
        *failure = HttpFailure::missing;
        *error = "the playlist names nothing that can be played";
    }
    return std::move(finder.tracks);
}

}  // namespace local_core
