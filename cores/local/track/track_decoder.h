// One open audio file or radio, decoded by a reader of its own (reader/client/sound_reader.h) to
// the SDK's two sample formats: 16 bits, or 24 bits sign-extended in 4 bytes. What the output does
// not take is converted, where it says to what; else rate and channel count are the file's.
//
// Any one thread at a time, unless said otherwise. Every call of that thread may block on the file,
// or on a server, until the interruption.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "local/network/http_failure.h"
#include "local/network/http_source.h"
#include "local/network/interruption.h"
#include "local/network/remote_source.h"
#include "local/network/source_bytes.h"
#include "local/track/content.h"
#include "local/track/output.h"
#include "reader/client/sound_reader.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

// Why a track can't be opened.
struct OpenFailure {
    std::string reason;
    HttpFailure network = HttpFailure::none;  // none: it is the file itself
};

struct TrackInfo {
    nuv_audio_format format;
    nuv_audio_format inside;  // the file's, as the reader says
    size_t frame_bytes;
    uint64_t frame_count;  // of an endless one more than anybody hears
    bool is_guess;         // of `frame_count`: it is played to its end, wherever that is
    bool is_endless;
    bool seekable;
    // Tags as the file has them, their first kilobyte; empty where it has none.
    std::string title;
    std::string artist;
    std::string album;
    // Of a radio: its name and what it plays, as sent; possibly empty.
    std::string station;
    std::string live_title;
    float gain_db;                 // by which it was made louder, as its tags say
    nuvio::reader::SampleSum sum;  // of the file's samples, where it has one

    // "96 kHz/24 bit, converted to 48 kHz/16 bit"; empty: what is heard are the samples inside.
    std::string conversion() const;
    // 0 of an endless one.
    uint64_t duration_ms() const { return is_endless ? 0 : position_ms(frame_count); }
    uint64_t position_ms(uint64_t frame) const { return frame * 1000 / format.sample_rate; }
    // Of a guess, there may be frames behind `frame_count`.
    uint64_t most_frames() const;
    // Truncated, and never beyond the end.
    uint64_t frame_at(uint64_t position_ms) const;
};

class TrackDecoder {
  public:
    // Frames larger than this are refused, so that a block of this size always holds some.
    static constexpr size_t kMaxFrameBytes = 4096;

    // Null, with *failure set, when the track can't be read, has nothing to play or is above
    // what the output takes. The interruption must outlive the decoder.
    static std::unique_ptr<TrackDecoder> open(const Track& track, const Output& output,
                                              Interruption& interruption, OpenFailure* failure);
    ~TrackDecoder();
    TrackDecoder(const TrackDecoder&) = delete;
    TrackDecoder& operator=(const TrackDecoder&) = delete;

    const TrackInfo& info() const { return m_info; }

    // Decodes into the blocks that are given, each as many whole frames as fit into `block_bytes`;
    // returns at the end of the track or at a place that can't be decoded, where a radio's own
    // texts change, or soon after stop(). True: nothing more will come. `on_news`: see SoundReader.
    bool read(size_t block_bytes, const nuvio::reader::SoundReader::OnNews& on_news);
    // Any thread, one at a time: see SoundReader. bytes_of(): whole frames, at most `block_bytes`.
    std::byte* block(size_t number) const { return m_sound->block(number); }
    void begin_read() { m_sound->begin_read(); }
    void give(size_t block) { m_sound->give(block); }
    void wake() { m_sound->wake(); }
    size_t done() const { return m_sound->done(); }
    size_t bytes_of(size_t index, size_t block_bytes);
    void await_block() { m_sound->await_block(); }
    void stop() { m_sound->stop(); }
    bool is_fetching() const { return m_sound->is_fetching(); }
    // Of a radio, what its server says it plays at the end of a block of the present read; possibly
    // empty.
    std::string live_title(size_t index) const;

    // Goes to a frame; returns the one reached, none when the file can't be positioned.
    std::optional<uint64_t> seek(uint64_t frame);

    // Of a radio, what it plays from the last block of the last read on, where it says that itself;
    // once.
    struct Texts {
        std::string title, artist;
    };
    std::optional<Texts> take_own_texts() { return std::exchange(m_own_texts, std::nullopt); }

    // What its server lacked and was left out; once each.
    std::optional<std::string> take_note() {
        return m_source ? m_source->take_note() : std::nullopt;
    }

    // Why the last read or seek failed: its server, its reader or what libsndfile says; empty when
    // nothing did.
    HttpFailure failure() const;
    std::string last_error() const;
    // It ended though it is not over.
    bool is_broken() const { return m_is_broken || m_has_lied || failure() != HttpFailure::none; }
    // What bytes_of() found; nothing more of it is to be read.
    bool has_lied() const { return m_has_lied; }

  private:
    explicit TrackDecoder(const Output& output);
    bool open_local(const Track& track, Interruption& interruption, OpenFailure* failure);
    std::optional<HttpContent> open_source(const HttpRequest& request, Interruption& interruption);
    bool open_remote(const Track& track, Interruption& interruption, OpenFailure* failure);
    bool open_sound(const Track& track, Interruption& interruption, OpenFailure* failure);
    bool describe(OpenFailure* failure);
    void fail(const nuvio::reader::Failure& failure);

    const Output m_output;
    std::unique_ptr<RemoteSource> m_source;  // null for a file of this machine
    std::unique_ptr<SourceBytes> m_bytes;
    std::unique_ptr<nuvio::reader::SoundReader> m_sound;
    std::optional<Interruption::Watch> m_source_watch, m_sound_watch;
    nuvio::reader::Sound m_read;
    TrackInfo m_info{};
    std::optional<Texts> m_own_texts;
    std::string m_error;
    bool m_is_broken = false;
    std::atomic<bool> m_has_lied{false};
};

}  // namespace local_core
