#include "local/track/track_decoder.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "common/utf8.h"
#include "local/base/files.h"
#include "local/network/hls_source.h"

namespace local_core {

namespace {

namespace reader = nuvio::reader;

// Keeps the arithmetic of positions far from overflow.
constexpr uint64_t kMaxFrames = uint64_t{1} << 48;

constexpr size_t kMaxStationBytes = 1024;

nuv_audio_format format_of(uint32_t rate_hz, uint32_t channels, bool is_deep) {
    return {rate_hz, channels,
            is_deep ? NUV_AUDIO_SAMPLE_FORMAT_24_BIT : NUV_AUDIO_SAMPLE_FORMAT_16_BIT};
}

}  // namespace

std::string TrackInfo::conversion() const {
    if (!is_converted(inside, format) && gain_db == 0) {
        return "";
    }
    return format_text(inside) + level_text(gain_db) +
           (is_converted(inside, format) ? ", converted to " + format_text(format) : "");
}

uint64_t TrackInfo::most_frames() const {
    return is_guess ? kMaxFrames : frame_count;
}

uint64_t TrackInfo::frame_at(uint64_t position_ms) const {
    const uint64_t limited = std::min(position_ms, this->position_ms(most_frames()) + 1);
    return std::min(limited * format.sample_rate / 1000, most_frames());
}

TrackDecoder::TrackDecoder(const Output& output) : m_output(output) {}
TrackDecoder::~TrackDecoder() = default;

// ---- Opening ------------------------------------------------------------------------------------

std::unique_ptr<TrackDecoder> TrackDecoder::open(const Track& track, const Output& output,
                                                 Interruption& interruption, OpenFailure* failure) {
    std::unique_ptr<TrackDecoder> decoder(new TrackDecoder(output));
    const bool is_open = track.remote ? decoder->open_remote(track, interruption, failure)
                                      : decoder->open_local(track, interruption, failure);
    return is_open && decoder->describe(failure) ? std::move(decoder) : nullptr;
}

bool TrackDecoder::open_local(const Track& track, Interruption& interruption,
                              OpenFailure* failure) {
    nuvio::UniqueFd file = open_regular_file(track.location, &failure->reason);
    if (!file) {
        return false;
    }
    m_sound = std::make_unique<reader::SoundReader>(std::move(file));
    return open_sound(track, interruption, failure);
}

// What the URL leads to, or the stream whose playlist that is.
std::optional<HttpContent> TrackDecoder::open_source(const HttpRequest& request,
                                                     Interruption& interruption) {
    auto file = std::make_unique<HttpSource>(request);
    HttpSource& source = *file;
    const auto watch = [&] {
        m_source_watch.emplace(interruption, [this] { m_source->cancel(); });
    };
    m_source = std::move(file);
    watch();
    auto content = source.open();
    if (content && !content->is_radio) {
        if (auto playlist = HlsSource::playlist_in(source)) {
            m_source_watch.reset();
            m_source = std::make_unique<HlsSource>(request, content->url, std::move(*playlist));
            watch();
            content->is_radio = true;
        }
    }
    return content;
}

bool TrackDecoder::open_remote(const Track& track, Interruption& interruption,
                               OpenFailure* failure) {
    const auto content = open_source(track.request(), interruption);
    bool is_open = false;
    if (content) {
        m_bytes = std::make_unique<SourceBytes>(*m_source, content->is_radio);
        m_sound = std::make_unique<reader::SoundReader>(*m_bytes);
        is_open = open_sound(track, interruption, failure);
        m_info.station = nuvio::beginning(content->station, kMaxStationBytes);
        m_info.live_title = m_source->title_at(m_source->position());
    }
    // What failed or was cancelled on the way counts, also where a parser was content with less.
    if (m_source->failure() != HttpFailure::none) {
        *failure = {m_source->error(), m_source->failure()};
        return false;
    }
    return is_open;
}

bool TrackDecoder::open_sound(const Track& track, Interruption& interruption,
                              OpenFailure* failure) {
    m_sound_watch.emplace(interruption, [this] { m_sound->interrupt(); });
    reader::Outcome<reader::Sound> sound = m_sound->open(m_output.formats, track.section);
    if (const auto* const failed = std::get_if<reader::Failure>(&sound)) {
        *failure = {failed->reason,
                    interruption.is_interrupted() ? HttpFailure::cancelled : HttpFailure::none};
        return false;
    }
    m_read = std::get<reader::Sound>(std::move(sound));
    return true;
}

// Whoever said it may have been anyone.
bool TrackDecoder::describe(OpenFailure* failure) {
    const size_t sample_bytes = m_read.is_deep ? sizeof(int32_t) : sizeof(int16_t);
    const uint64_t frames = m_read.is_endless ? kMaxFrames : m_read.frames;
    if (m_read.rate_hz == 0 || m_read.channels == 0 || frames == 0 || frames > kMaxFrames ||
        m_read.channels > kMaxFrameBytes / sample_bytes) {
        failure->reason = "nothing to play, or of unknown length";
        return false;
    }
    m_info.format = format_of(m_read.rate_hz, m_read.channels, m_read.is_deep);
    m_info.inside = format_of(m_read.rate_inside_hz, m_read.channels_inside, m_read.is_deep_inside);
    m_info.frame_bytes = sample_bytes * m_read.channels;
    m_info.frame_count = frames;
    m_info.is_guess = m_read.is_guess;
    m_info.is_endless = m_read.is_endless;
    m_info.seekable = m_read.is_seekable;
    m_info.title = m_read.title;
    m_info.artist = m_read.artist;
    m_info.album = m_read.album;
    m_info.sum = m_read.sum;
    m_info.gain_db = std::isfinite(m_read.gain_db) ? m_read.gain_db : 0;
    if (m_output.formats.rate_count > 0) {
        failure->reason = reader::kReaderLied;
        return is_among(m_info.format, m_output.formats);
    }
    failure->reason = "above the quality that the output takes";
    return !is_above(m_info.format, m_output.highest);
}

// ---- Sound --------------------------------------------------------------------------------------

void TrackDecoder::fail(const reader::Failure& failure) {
    m_error = failure.reason;
    m_is_broken = true;
}

bool TrackDecoder::read(size_t block_bytes, const reader::SoundReader::OnNews& on_news) {
    const auto outcome = m_sound->read(block_bytes, on_news);
    if (const auto* const failed = std::get_if<reader::Failure>(&outcome)) {
        fail(*failed);
        return true;
    }
    const auto& end = std::get<reader::SoundReader::ReadEnd>(outcome);
    m_error = end.error;
    if (end.has_new_texts) {
        m_own_texts = {end.title, end.artist};
    }
    return end.is_at_end;
}

// What a reader says beyond its block would have been written beside it.
size_t TrackDecoder::bytes_of(size_t index, size_t block_bytes) {
    const size_t said = m_sound->bytes_of(index);
    const size_t bytes = std::min(said, block_bytes) / m_info.frame_bytes * m_info.frame_bytes;
    if (bytes != said || bytes == 0) {
        m_has_lied = true;
        m_sound->stop();
        return 0;
    }
    return bytes;
}

std::string TrackDecoder::live_title(size_t index) const {
    return m_source ? m_source->title_at(m_sound->place_of(index)) : "";
}

std::optional<uint64_t> TrackDecoder::seek(uint64_t frame) {
    const auto outcome = m_sound->seek(frame);
    if (const auto* const failed = std::get_if<reader::Failure>(&outcome)) {
        fail(*failed);
        return std::nullopt;
    }
    const auto& place = std::get<reader::SoundReader::Place>(outcome);
    m_error = place.error;
    return place.frame && *place.frame <= m_info.most_frames() ? place.frame : std::nullopt;
}

HttpFailure TrackDecoder::failure() const {
    return m_source ? m_source->failure() : HttpFailure::none;
}

std::string TrackDecoder::last_error() const {
    return failure() != HttpFailure::none ? m_source->error()
           : m_has_lied                   ? reader::kReaderLied
                                          : m_error;
}

}  // namespace local_core
