// Loaded into an unchanged daemon (LD_PRELOAD): counts what happens between the SDK's offer of data
// and snd_pcm_writei, allocations, copies and ALSA calls, and notes when the PCM is dropped.
//
// The counters lie in the file that NUVIO_PROBE names (bench/lab.py knows their order), so that
// they can be read at any time. With NUVIO_PROBE_MARK a failing fcntl(-1, mark) is called at each
// border between SDK, daemon and ALSA, for strace to show.
#include <alsa/asoundlib.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "sdk/nuvio_connect.h"

namespace {

using Counter = std::atomic<uint64_t>;

struct Counters {
    Counter offers;
    Counter bytes_offered;
    Counter bytes_taken;
    Counter writes;                    // snd_pcm_writei during an offer
    Counter foreign_writes;            // of those, from other memory than the SDK's block
    Counter allocations_before_write;  // between an offer's begin and its (last) write
    Counter allocations_in_offer;      // until the delegate returns; ALSA's own are not counted
    Counter allocations;               // whole process, all threads
    Counter drops;
    Counter last_drop_ns;  // monotonic clock, on return; the same below
    Counter drain_begin_ns;
    Counter drain_end_ns;
    Counter reopened_ns;  // first write after the last drain
    Counter main_ns;      // just before main
    Counter volumes;
    Counter last_volume_ns;
};

enum class Mark : int { offer = 0x6e01, offer_end, alsa, alsa_end };

Counters g_unnamed;
Counters* g_counters = &g_unnamed;
bool g_marks = false;
bool g_drained = false;  // loop's thread
nuv_audio_stream_delegate g_stream;

// What the loop's thread is in. No dynamic allocation behind these: they are used inside malloc.
struct ThreadState {
    bool in_offer;
    bool in_alsa;
    uint64_t allocations;  // since the last write of this offer
    const char* block;
    size_t block_size;
};
__attribute__((tls_model("initial-exec"))) thread_local ThreadState t_state;

uint64_t now_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

void mark(Mark which) {
    if (g_marks) {
        const int error = errno;
        fcntl(-1, static_cast<int>(which));
        errno = error;
    }
}

void count_allocation() {
    g_counters->allocations.fetch_add(1, std::memory_order_relaxed);
    if (t_state.in_offer && !t_state.in_alsa) {
        ++t_state.allocations;
    }
}

template <typename Function>
Function* next_function(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// The time inside ALSA, during which nothing is the daemon's doing.
class InAlsa {
  public:
    InAlsa() : m_nested(t_state.in_alsa) {
        t_state.in_alsa = true;
        if (!m_nested) {
            mark(Mark::alsa);
        }
    }
    ~InAlsa() {
        if (!m_nested) {
            mark(Mark::alsa_end);
        }
        t_state.in_alsa = m_nested;
    }
    InAlsa(const InAlsa&) = delete;
    InAlsa& operator=(const InAlsa&) = delete;

  private:
    const bool m_nested;
};

size_t probed_data(nuv_connect* core, uint64_t stream_id, const void* data, size_t size,
                   void* context) {
    mark(Mark::offer);
    t_state = {true, false, 0, static_cast<const char*>(data), size};
    const size_t taken = g_stream.data(core, stream_id, data, size, context);
    t_state.in_offer = false;
    mark(Mark::offer_end);
    g_counters->allocations_in_offer += t_state.allocations;
    g_counters->bytes_offered += size;
    g_counters->bytes_taken += taken;
    ++g_counters->offers;
    return taken;
}

void note_write(const void* buffer) {
    const auto* from = static_cast<const char*>(buffer);
    const bool is_ours = from >= t_state.block && from < t_state.block + t_state.block_size;
    ++g_counters->writes;
    g_counters->foreign_writes += is_ours ? 0 : 1;
    g_counters->allocations_before_write += t_state.allocations;
    g_counters->allocations_in_offer += t_state.allocations;
    t_state.allocations = 0;
}

__attribute__((constructor)) void open_counters() {
    g_marks = std::getenv("NUVIO_PROBE_MARK") != nullptr;
    const char* const path = std::getenv("NUVIO_PROBE");
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd >= 0) {
        void* const memory =
            mmap(nullptr, sizeof(Counters), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (memory != MAP_FAILED) {
            g_counters = static_cast<Counters*>(memory);
        }
    }
    g_counters->main_ns = now_ns();
}

}  // namespace

extern "C" {

// ---- The SDK

nuv_connect* nuv_connect_create(uv_loop_t* loop, nuv_connect_config config, nuv_error* error) {
    static auto* const real = next_function<decltype(nuv_connect_create)>("nuv_connect_create");
    g_stream = config.audio_stream_delegate;
    config.audio_stream_delegate.data = probed_data;
    return real(loop, config, error);
}

// ---- ALSA, as far as an offer goes

snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t size) {
    static auto* const real = next_function<decltype(snd_pcm_writei)>("snd_pcm_writei");
    if (t_state.in_offer) {
        note_write(buffer);
    }
    if (g_drained) {
        g_drained = false;
        g_counters->reopened_ns = now_ns();
    }
    const InAlsa alsa;
    return real(pcm, buffer, size);
}

snd_pcm_sframes_t snd_pcm_avail(snd_pcm_t* pcm) {
    static auto* const real = next_function<decltype(snd_pcm_avail)>("snd_pcm_avail");
    const InAlsa alsa;
    return real(pcm);
}

snd_pcm_sframes_t snd_pcm_avail_update(snd_pcm_t* pcm) {
    static auto* const real = next_function<decltype(snd_pcm_avail_update)>("snd_pcm_avail_update");
    const InAlsa alsa;
    return real(pcm);
}

int snd_pcm_delay(snd_pcm_t* pcm, snd_pcm_sframes_t* delay) {
    static auto* const real = next_function<decltype(snd_pcm_delay)>("snd_pcm_delay");
    const InAlsa alsa;
    return real(pcm, delay);
}

snd_pcm_state_t snd_pcm_state(snd_pcm_t* pcm) {
    static auto* const real = next_function<decltype(snd_pcm_state)>("snd_pcm_state");
    const InAlsa alsa;
    return real(pcm);
}

int snd_pcm_poll_descriptors_revents(snd_pcm_t* pcm, pollfd* descriptors, unsigned count,
                                     unsigned short* revents) {
    static auto* const real = next_function<decltype(snd_pcm_poll_descriptors_revents)>(
        "snd_pcm_poll_descriptors_revents");
    const InAlsa alsa;
    return real(pcm, descriptors, count, revents);
}

int snd_pcm_prepare(snd_pcm_t* pcm) {
    static auto* const real = next_function<decltype(snd_pcm_prepare)>("snd_pcm_prepare");
    const InAlsa alsa;
    return real(pcm);
}

int snd_pcm_drop(snd_pcm_t* pcm) {
    static auto* const real = next_function<decltype(snd_pcm_drop)>("snd_pcm_drop");
    const InAlsa alsa;
    const int result = real(pcm);
    g_counters->last_drop_ns = now_ns();
    ++g_counters->drops;
    return result;
}

int snd_pcm_drain(snd_pcm_t* pcm) {
    static auto* const real = next_function<decltype(snd_pcm_drain)>("snd_pcm_drain");
    const InAlsa alsa;
    g_counters->drain_begin_ns = now_ns();
    const int result = real(pcm);
    g_counters->drain_end_ns = now_ns();
    g_drained = true;
    return result;
}

int snd_mixer_selem_set_playback_volume_all(snd_mixer_elem_t* element, long value) {
    static auto* const real = next_function<decltype(snd_mixer_selem_set_playback_volume_all)>(
        "snd_mixer_selem_set_playback_volume_all");
    const int result = real(element, value);
    g_counters->last_volume_ns = now_ns();
    ++g_counters->volumes;
    return result;
}

// ---- Allocation

void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size) {
    count_allocation();
    return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    count_allocation();
    return __libc_calloc(count, size);
}

void* realloc(void* old, size_t size) {
    count_allocation();
    return __libc_realloc(old, size);
}

void* memalign(size_t alignment, size_t size) {
    count_allocation();
    return __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    count_allocation();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, size_t alignment, size_t size) {
    count_allocation();
    *memory = __libc_memalign(alignment, size);
    return *memory == nullptr ? ENOMEM : 0;
}

}  // extern "C"
