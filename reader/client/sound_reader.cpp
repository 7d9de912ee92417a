#include "reader/client/sound_reader.h"

#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "reader/client/packets.h"

namespace nuvio::reader {

namespace {

template <size_t size>
std::string text_in(const char (&field)[size]) {
    return {field, strnlen(field, size)};
}

Sound sound_in(const SoundAnswer& answer) {
    return {answer.rate_hz,
            answer.channels,
            answer.is_deep != 0,
            answer.is_endless != 0,
            answer.is_seekable != 0,
            answer.is_guess != 0,
            answer.frames,
            answer.is_deep_inside != 0,
            answer.rate_inside_hz,
            answer.channels_inside,
            answer.sum,
            answer.gain_db,
            text_in(answer.title),
            text_in(answer.artist),
            text_in(answer.album)};
}

}  // namespace

SoundReader::SoundReader(UniqueFd file) : m_file(std::move(file)) {}

SoundReader::SoundReader(RemoteBytes& bytes) : m_remote(&bytes) {}

SoundReader::~SoundReader() {
    if (m_shared != nullptr) {
        munmap(m_shared, kSoundBytes);
    }
}

void SoundReader::interrupt() {
    m_questions.interrupt();
}

// ---- The shared memory --------------------------------------------------------------------------

bool SoundReader::make_memory() {
    m_memory = shared_memory(kSoundBytes);
    void* const shared =
        m_memory ? mmap(nullptr, kSoundBytes, PROT_READ | PROT_WRITE, MAP_SHARED, m_memory.get(), 0)
                 : MAP_FAILED;
    m_shared = shared == MAP_FAILED ? nullptr : static_cast<char*>(shared);
    return m_shared != nullptr;
}

SoundPage& SoundReader::page() const {
    return sound_page(m_shared);
}

std::byte* SoundReader::block(size_t number) const {
    return reinterpret_cast<std::byte*>(m_shared + kBlocksPlace + number * kBlockBytes);
}

void SoundReader::begin_read() {
    page().given = 0;
    page().done = 0;
    page().is_stopped = 0;
    m_given = 0;
}

void SoundReader::give(size_t block) {
    page().blocks[m_given % kMaxBlocks].number = static_cast<uint32_t>(block);
    page().given = ++m_given;
}

void SoundReader::wake() {
    syscall(SYS_futex, &page().given, FUTEX_WAKE, 1, nullptr, nullptr, 0);
}

size_t SoundReader::done() const {
    return std::min<uint32_t>(page().done, m_given);
}

uint32_t SoundReader::bytes_of(size_t index) const {
    return page().blocks[index % kMaxBlocks].bytes;
}

uint64_t SoundReader::place_of(size_t index) const {
    return page().blocks[index % kMaxBlocks].place;
}

void SoundReader::await_block() {
    ++m_awaited;
    page().is_awaited = 1;
}

void SoundReader::stop() {
    page().is_stopped = 1;
    page().given = m_given + 1;  // no value that it could wait on
    wake();
}

// ---- Questions ----------------------------------------------------------------------------------

// What the reader of a sound may say on the way.
class SoundReader::Waiting : public Questions::Meanwhile {
  public:
    Waiting(SoundReader& sound, const OnNews& on_news) : m_sound(sound), m_on_news(on_news) {}

    std::chrono::milliseconds patience() override {
        return m_on_news ? m_on_news() : Questions::kPatience;
    }
    // While there are blocks enough a reader is silent.
    bool waits_on() override { return m_on_news != nullptr; }

    Heard heard(const Answer& said, Request* reply) override {
        if (said.status == Status::progress) {
            return m_sound.m_awaited > 0 && m_sound.m_awaited-- > 0 ? Heard::news : Heard::lie;
        }
        if (m_sound.m_remote == nullptr) {
            return Heard::lie;
        }
        if (m_on_news) {
            m_on_news();
        }
        m_sound.m_is_fetching = true;
        reply->bytes = said.wanted.is_time != 0
                           ? m_sound.m_remote->go_to_time(said.wanted.place)
                           : m_sound.m_remote->read(
                                 said.wanted.place, m_sound.m_shared + kWindowPlace,
                                 std::min<size_t>(said.wanted.size, kWindowBytes), kWindowBytes);
        if (m_on_news) {
            m_on_news();
        }
        m_sound.m_is_fetching = false;
        return Heard::question;
    }

  private:
    SoundReader& m_sound;
    const OnNews& m_on_news;
};

Outcome<Answer> SoundReader::ask(const Request& request, const OnNews& on_news) {
    if (m_is_over) {
        return Failure{Failure::Kind::file, "its reader has ended"};
    }
    static const UniqueFd none;
    const bool is_opening = request.job == Job::open_sound;
    Waiting waiting(*this, on_news);
    Outcome<Answer> answer =
        m_questions.ask(request, is_opening ? m_file : none, is_opening ? m_memory : none, waiting);
    m_is_over = std::holds_alternative<Failure>(answer);
    return answer;
}

// What libsndfile does not know another reader may, with the module for it.
Outcome<Sound> SoundReader::open(const OutputFormats& output, const Section& section) {
    if (!make_memory()) {
        return Failure{Failure::Kind::machine, std::strerror(errno)};
    }
    Request request{Job::open_sound};
    request.output = output;
    request.section = section;
    request.is_remote = m_remote != nullptr;
    request.is_radio = request.is_remote && m_remote->is_radio();
    request.duration_us = request.is_remote ? m_remote->duration_us().value_or(0) : 0;
    std::string reason;
    for (const char* option : {"--sound", "--module"}) {
        m_questions.rest(option);
        const Outcome<Answer> answer = ask(request);
        if (const auto* const failure = std::get_if<Failure>(&answer)) {
            return *failure;
        }
        const SoundAnswer& sound = std::get<Answer>(answer).sound;
        if (sound.is_readable != 0) {
            return sound_in(sound);
        }
        reason += (reason.empty() ? "" : "; ") + text_in(sound.error);
    }
    return Failure{Failure::Kind::file, reason};
}

Outcome<SoundReader::ReadEnd> SoundReader::read(size_t block_bytes, const OnNews& on_news) {
    Request request{Job::read_sound};
    request.block_bytes = static_cast<uint32_t>(block_bytes);
    const Outcome<Answer> answer = ask(request, on_news);
    if (const auto* const failure = std::get_if<Failure>(&answer)) {
        return *failure;
    }
    const ReadAnswer& end = std::get<Answer>(answer).read;
    return ReadEnd{end.is_at_end != 0, text_in(end.error), end.has_new_texts != 0,
                   text_in(end.title), text_in(end.artist)};
}

Outcome<SoundReader::Place> SoundReader::seek(uint64_t frame) {
    Request request{Job::seek_sound};
    request.frame = frame;
    const Outcome<Answer> answer = ask(request);
    if (const auto* const failure = std::get_if<Failure>(&answer)) {
        return *failure;
    }
    const SeekAnswer& place = std::get<Answer>(answer).seek;
    return Place{place.is_reached != 0 ? std::optional(place.frame) : std::nullopt,
                 text_in(place.error)};
}

}  // namespace nuvio::reader
