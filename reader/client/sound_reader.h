// The sound of one file, or of remote bytes, decoded by a reader of its own:
// inside/sound/decoder.h and output_sound.h say to which formats. It goes to memory that both
// processes see: nothing is copied.
//
// Errors  Failure: whatever the bytes do to the reader, it costs this sound alone. After one the
//         sound is over.
// Threads one at a time for what asks the reader, which waits for its disk or its server; what is
//         said to be for any thread is.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "common/unique_fd.h"
#include "reader/client/questions.h"
#include "reader/client/remote_bytes.h"
#include "reader/protocol.h"

namespace nuvio::reader {

// As the reader says it: all of it may be anything, texts any bytes.
struct Sound {
    uint32_t rate_hz = 0;
    uint32_t channels = 0;
    bool is_deep = false;  // 24 bits sign-extended in 4 bytes, else 16 bits
    bool is_endless = false;
    bool is_seekable = false;
    bool is_guess = false;  // of `frames`: there may be fewer, or more
    uint64_t frames = 0;
    // As it is in the file, where it is converted; else as above.
    bool is_deep_inside = false;
    uint32_t rate_inside_hz = 0, channels_inside = 0;
    SampleSum sum{};
    float gain_db = 0;                 // by which it was made louder
    std::string title, artist, album;  // a kilobyte each at most; empty: not said
};

class SoundReader {
  public:
    explicit SoundReader(UniqueFd file);
    // `bytes` must outlive it.
    explicit SoundReader(RemoteBytes& bytes);
    ~SoundReader();
    SoundReader(const SoundReader&) = delete;
    SoundReader& operator=(const SoundReader&) = delete;

    // Once, first. A sound that no reader knows is a failure of the file. What comes is as the
    // output takes it, and this part of the sound: its lengths and places are the part's.
    Outcome<Sound> open(const OutputFormats& output, const Section& section = {});

    // Where a block's samples are, of kBlockBytes.
    std::byte* block(size_t number) const;

    struct ReadEnd {
        bool is_at_end = false;
        std::string error;  // what the library says of the end; possibly empty
        // Of a radio, from the last block on.
        bool has_new_texts = false;
        std::string title, artist;
    };
    // Called on the thread that reads, when blocks may be done and at the times that it asks for:
    // how long to wait at most until the next time; negative: for ever.
    using OnNews = std::function<std::chrono::milliseconds()>;
    // Decodes into the blocks that are given, `block_bytes` at most into each, until the sound
    // ends, its texts change or stop() is called.
    Outcome<ReadEnd> read(size_t block_bytes, const OnNews& on_news);
    // Goes to a frame; the one reached, or why none was.
    struct Place {
        std::optional<uint64_t> frame;
        std::string error;
    };
    Outcome<Place> seek(uint64_t frame);

    // ---- Any thread, one at a time, once the sound is open

    // Before a read: what is given and done counts from here on.
    void begin_read();
    // A block to be filled; of all kMaxBlocks those that are not done have to be known by the
    // caller. The reader may sleep until wake().
    void give(size_t block);
    void wake();
    // How many blocks of the present read there are. Of one of the last kMaxBlocks: its bytes,
    // which may be any number, and up to where remote bytes were taken.
    size_t done() const;
    uint32_t bytes_of(size_t index) const;
    uint64_t place_of(size_t index) const;
    // `on_news` is to come with the next block.
    void await_block();
    void stop();
    // It waits for remote bytes.
    bool is_fetching() const { return m_is_fetching; }

    // ---- Any thread, always

    // What is under way, and all from now on, is a failure.
    void interrupt();

  private:
    class Waiting;

    bool make_memory();
    Outcome<Answer> ask(const Request& request, const OnNews& on_news = {});
    SoundPage& page() const;

    const UniqueFd m_file;
    RemoteBytes* const m_remote = nullptr;
    UniqueFd m_memory;
    char* m_shared = nullptr;  // mapped
    Questions m_questions{"nuvio-connect-reader"};
    bool m_is_over = false;  // it has failed
    std::atomic<uint32_t> m_given{0}, m_awaited{0};
    std::atomic<bool> m_is_fetching{false};
};

}  // namespace nuvio::reader
