// The streams that the renderer knows, or soon will: the current one is what is heard, the next one
// is announced while the current one still plays, the retired one has been heard to its end and
// waits for its disposal.
//
// A stream is opened (on its decoding thread), announced once that is done, offered block by block
// as long as its delivery is open, reported as finished, and disposed of. Delivery is closed until
// the renderer opens it, and again after every short count. Of the next stream no more is offered
// than a hand-over needs: the renderer takes it for the current one's when it reports the position.
//
// Loop thread only. Delegates are called from `start`, `offer`, `finish`, the disposals,
// `report_seeked` and `heard_position_ms` alone.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>

#include "local/base/logger.h"
#include "local/playback/control.h"
#include "local/track/track_pipe.h"
#include "sdk/nuvio_connect.h"

namespace local_core {

struct PlayerDelegates {
    nuv_connect* core;  // handed to every callback
    nuv_audio_stream_delegate audio;
    nuv_media_delegate media;
    Output output;  // what the renderer takes
};

// Which track of which session a stream plays.
struct TrackPlace {
    size_t track;
    uint64_t session;

    bool operator==(const TrackPlace&) const = default;
};

// A track of which some was heard, and that is over.
struct PlayedTrack {
    TrackPlace place;
    std::string title;
    Verdict verdict;
};

class StreamQueue {
  public:
    class Stream {
      public:
        const TrackPlace& place() const { return m_place; }
        // Of an announced stream.
        const TrackInfo& info() const { return m_pipe->info(); }
        const TrackTexts& texts() const {
            return m_texts.empty() ? m_pipe->texts() : m_texts.back();
        }
        const std::string& open_error() const { return m_pipe->open_error(); }
        uint64_t id() const { return m_id; }
        bool is_announced() const { return m_id != 0; }
        bool is_decoded_wholly() const { return m_pipe->is_decoded_wholly(); }
        // What the network did to a track that is decoded wholly or failed to open.
        HttpFailure failure() const { return m_pipe->failure(); }
        // Reported as delivered wholly.
        bool is_finished() const { return m_is_finished; }
        // The renderer has taken some of it, or it has been positioned.
        bool has_flowed() const { return m_has_flowed; }

      private:
        friend class StreamQueue;
        Stream(std::unique_ptr<TrackPipe> pipe, TrackPlace place)
            : m_pipe(std::move(pipe)), m_place(place) {}

        std::unique_ptr<TrackPipe> m_pipe;
        TrackPlace m_place;
        // The last ones are the present ones; those before are kept for who still holds them.
        std::deque<TrackTexts> m_texts;
        uint64_t m_id = 0;  // 0: not announced
        bool m_is_open = false;
        bool m_is_finished = false;
        bool m_has_flowed = false;
        bool m_is_played_out = false;  // heard to its end
        PcmBlock m_block{};            // being offered
        size_t m_offered_bytes = 0;    // of the block, taken by the renderer
        uint64_t m_taken_bytes = 0;    // since the start or the last seek
        uint64_t m_begin_ms = 0;       // where that was
    };
    enum class Role { current, next };

    // `on_change` comes from the decoding thread: a stream can go on.
    StreamQueue(const PlayerDelegates& delegates, Control& control,
                std::shared_ptr<const Logger> logger, std::function<void()> on_change);
    // Calls no delegate.
    ~StreamQueue();
    StreamQueue(const StreamQueue&) = delete;
    StreamQueue& operator=(const StreamQueue&) = delete;

    // Null where there is none.
    const Stream* current() const { return m_current.get(); }
    const Stream* next() const { return m_next.get(); }
    bool has_retired() const { return m_retired != nullptr; }

    // Begins to open the track; there must be no stream in the role.
    void open(Role role, const Track& track, TrackPlace place);
    // Announces the stream once, when its track is open; `failed`: it can't be opened.
    enum class Start { under_way, announced, failed };
    Start start(Role role);

    // Each disposal tells the renderer of what was announced; false when there was nothing.
    bool dispose(Role role);
    bool dispose_retired();
    // What has been decoded of the next stream stays: it becomes the current one, to be announced
    // anew.
    bool dispose_current_keeping_next();
    // All of the current stream was heard.
    void note_played_out() { m_current->m_is_played_out = true; }
    // The track that was over last, and how many were.
    const std::optional<PlayedTrack>& last_played() const { return m_last_played; }
    uint64_t played_count() const { return m_played_count; }
    // The current stream retires, the announced next one becomes current. False without one.
    bool advance();

    struct Offered {
        size_t taken_bytes = 0;
        bool has_more = false;   // that may be taken at once
        bool is_at_end = false;  // to be finished
        bool is_output_full = false;
    };
    // Offers the stream's next block, or what is left of the last one: so many bytes at most, in
    // whole frames.
    Offered offer(Role role, size_t most_bytes = SIZE_MAX);
    // How often a stream's texts were told anew.
    uint64_t text_count() const { return m_text_count; }
    // Reports it as delivered wholly.
    void finish(Role role);
    // NUV_ERROR_NOT_FOUND for an unknown stream.
    nuv_error open_delivery(uint64_t stream_id);

    // The current stream goes on there; what the renderer had taken of it is no more.
    void seek_current(uint64_t frame);
    // The frame reached; none while the seek is under way.
    std::optional<uint64_t> seek_result();
    void report_seeked(uint64_t position_ms);

    // Gives up the streams of this machine's files that the loop has been waiting for since
    // `patience` ago; the time of the next look, none where nothing is waited for.
    std::optional<std::chrono::steady_clock::time_point> give_up_hanging(
        std::chrono::steady_clock::duration patience);

    // The place in the current track that is heard now, and the one up to which the renderer has
    // it.
    uint64_t heard_position_ms() const;
    uint64_t delivered_position_ms() const;
    // The renderer has taken some of the next stream already.
    bool is_handing_over() const { return m_next && m_next->m_taken_bytes > 0; }

  private:
    using StreamPtr = std::unique_ptr<Stream>;

    size_t wanted_of_next() const;  // bytes
    StreamPtr& in(Role role) { return role == Role::current ? m_current : m_next; }
    void announce(Stream& stream);
    void withdraw(Stream& stream);
    void conclude(Stream& stream);
    void release(StreamPtr stream);
    void give_back_block(Stream& stream);
    void renew_texts(Stream& stream);

    const PlayerDelegates m_delegates;
    Control& m_control;
    // What was heard, and when, as the next stream began to flow behind the current one.
    uint64_t m_hand_over_position_ms = 0;
    std::chrono::steady_clock::time_point m_hand_over_time;

    uint64_t m_last_stream_id = 0;
    uint64_t m_text_count = 0;
    std::optional<PlayedTrack> m_last_played;
    uint64_t m_played_count = 0;
    DecodeCrew m_crew;
    StreamPtr m_current;
    StreamPtr m_next;
    StreamPtr m_retired;
};

}  // namespace local_core
