#include "reader/inside/sound/sound_work.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <string_view>
#include <utility>

#include "common/utf8.h"
#include "reader/inside/sandbox.h"
#include "reader/inside/sound/loudness.h"

namespace nuvio::reader {

namespace {

template <size_t size>
void put(std::string_view text, char (&field)[size]) {
    beginning(text, size).copy(field, size);
}

// False: the read is to end.
bool wait_for_block(SoundPage& page, uint32_t n) {
    while (page.given == n && page.is_stopped == 0) {
        syscall(SYS_futex, &page.given, FUTEX_WAIT, n, nullptr, nullptr, 0);
    }
    return page.is_stopped == 0;
}

}  // namespace

void SoundWork::open(const Request& request, UniqueFd file, char* shared, Parent& parent,
                     SoundAnswer* answer) {
    m_shared = shared;
    Input* input = nullptr;
    if (request.is_remote) {
        m_remote = std::make_unique<RemoteInput>(parent, shared + kWindowPlace, request.is_radio,
                                                 request.duration_us);
        input = m_remote.get();
    } else {
        m_file = std::make_unique<FileInput>(std::move(file));
        input = m_file.get();
    }
    std::string error;
    const float gain = gain_db(*input, request.output.loudness);
    auto decoder = Decoder::open(*input, &error);
    auto sound =
        decoder ? OutputSound::open(std::move(decoder), request.output, gain, &error) : nullptr;
    m_sound = sound ? SoundSection::open(std::move(sound), request.section, &error) : nullptr;
    put(error, answer->error);
    if (!m_sound) {
        return;
    }
    const SoundInfo& info = m_sound->info();
    const SoundInfo& inside = m_sound->info_inside();
    answer->is_readable = 1;
    answer->is_deep = static_cast<Truth>(info.is_deep);
    answer->is_endless = static_cast<Truth>(info.is_endless);
    answer->is_guess = static_cast<Truth>(info.is_guess);
    answer->is_seekable = static_cast<Truth>(info.is_seekable);
    answer->rate_hz = info.rate_hz;
    answer->channels = info.channels;
    answer->frames = info.frames;
    answer->is_deep_inside = static_cast<Truth>(inside.is_deep);
    answer->rate_inside_hz = inside.rate_hz;
    answer->channels_inside = inside.channels;
    answer->sum = request.section.is_whole() ? inside.sum : SampleSum{};  // it is of the whole
    answer->gain_db = m_sound->gain_db();
    put(info.title, answer->title);
    put(info.artist, answer->artist);
    put(info.album, answer->album);
}

// Until the sound ends, its texts change or nobody wants more.
void SoundWork::read(const Request& request, Parent& parent, ReadAnswer* answer) {
    SoundPage& page = sound_page(m_shared);
    for (uint32_t n = 0; answer->has_new_texts == 0 && wait_for_block(page, n); ++n) {
        const Clock clock(kSoundTimes);
        SoundPage::Block& block = page.blocks[n % kMaxBlocks];
        const size_t bytes = m_sound->read(m_shared + kBlocksPlace + block.number * kBlockBytes,
                                           request.block_bytes);
        if (bytes == 0) {
            answer->is_at_end = 1;
            break;
        }
        block.bytes = static_cast<uint32_t>(bytes);
        block.place = m_remote ? m_remote->position() : 0;
        page.done = n + 1;
        if (page.is_awaited.exchange(0) != 0) {
            Answer news{};
            news.status = Status::progress;
            parent.tell(news);
        }
        if (const auto texts = m_sound->take_new_texts()) {
            answer->has_new_texts = 1;
            put(texts->title, answer->title);
            put(texts->artist, answer->artist);
        }
    }
    put(m_sound->last_error(), answer->error);
}

void SoundWork::seek(const Request& request, SeekAnswer* answer) {
    const auto reached = m_sound->seek(request.frame);
    answer->is_reached = static_cast<Truth>(reached.has_value());
    answer->frame = reached.value_or(0);
    put(m_sound->last_error(), answer->error);
}

}  // namespace nuvio::reader
