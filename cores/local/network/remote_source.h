// A run of bytes from the network, as a decoder's thread reads it. A thread of each kind's own
// reads ahead into it.
//
// One thread at a time reads; cancel() is for any thread at any time. Never for the loop's thread:
// read() blocks, until cancel() at the latest.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "local/network/http_failure.h"
#include "local/network/stream_buffer.h"

namespace local_core {

class RemoteSource {
  public:
    // Does not wait for the network.
    virtual ~RemoteSource() = default;
    RemoteSource(const RemoteSource&) = delete;
    RemoteSource& operator=(const RemoteSource&) = delete;

    // Reads `size` bytes, fewer only at the end or where it failed.
    size_t read(void* to, size_t size);

    // What is there behind the place; the place stays.
    size_t look_ahead(void* to, size_t size) const;

    // The next read begins there; nothing is transferred until then. A server without ranges is
    // read on to that place, for one further back from the beginning. Of a radio only what is still
    // in memory can be gone to: false for the rest.
    bool seek(uint64_t position);
    uint64_t position() const;
    // Known at the end at the latest.
    std::optional<uint64_t> length() const;
    // What is left to read can be read without waiting: it is all there, or nothing more will come.
    bool is_settled() const;

    // What the radio says it plays at the place, as sent; possibly empty.
    std::string title_at(uint64_t position) const;

    // Something else begins at the place, and is to be opened anew. The next such place behind one.
    bool begins_run(uint64_t position) const;
    std::optional<uint64_t> run_behind(uint64_t position) const;

    // Of a stream in segments that has an end: how long it is by what it says.
    virtual std::optional<uint64_t> duration_us() { return std::nullopt; }
    // Goes to a run that begins at or before the time, whenever that comes. None beyond the end,
    // and of whatever has no such times. The reader's thread.
    struct Run {
        uint64_t place;
        uint64_t begin_us;
    };
    virtual std::optional<Run> go_to_time(uint64_t /*time_us*/) { return std::nullopt; }

    // What it had to leave out, for people; once each.
    std::optional<std::string> take_note();

    // Ends whatever waits, for good.
    void cancel() { fail(HttpFailure::cancelled, "cancelled"); }

    HttpFailure failure() const;
    // For people; empty without a failure. Never has a token in it.
    std::string error() const;

  protected:
    explicit RemoteSource(size_t read_ahead_bytes) : m_buffer(read_ahead_bytes) {}

    template <typename Get>
    auto locked(Get get) const {
        const std::lock_guard lock(m_mutex);
        return get();
    }
    // The first one counts, but for a cancel.
    void fail(HttpFailure failure, const std::string& error);

    // Forgotten where nobody takes the ones before.
    void note(std::string text);

    // On the reader's thread and under the lock: it has read on, or waits.
    virtual void on_moved() = 0;
    // On any thread, without the lock: ends what the thread of its own waits for.
    virtual void on_failure() = 0;

    // Under the lock.
    bool is_complete() const { return m_length && m_buffer.end() >= *m_length; }
    // Less than a quarter is left to read: time for the next burst.
    bool is_low() const;
    // From the end of what is there on.
    void note_title(std::string_view title);
    void begin_run();

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;  // what the reader waits for
    // Under the lock from here.
    StreamBuffer m_buffer;
    uint64_t m_position = 0;  // the reader's
    std::optional<uint64_t> m_length;
    bool m_is_radio = false;
    HttpFailure m_failure = HttpFailure::none;

  private:
    std::deque<std::pair<uint64_t, std::string>> m_titles;  // from which position on
    std::deque<uint64_t> m_runs;                            // where they begin
    std::deque<std::string> m_notes;
    std::string m_error;
};

}  // namespace local_core
