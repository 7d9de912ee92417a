#include "platform/Thread.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <string>

namespace android {

struct Thread::State {
    enum class Phase { idle, running, ended };

    std::mutex mutex;
    std::condition_variable ended;
    Phase phase = Phase::idle;  // guarded by mutex
    std::string name;           // this and the next are set before the thread starts
    int32_t priority = 0;
    sp<Thread> self;  // keeps the object while its thread runs

    // The thread's start routine.
    static void* serve(void* argument);
};

namespace {

struct Attributes {
    Attributes() { pthread_attr_init(&value); }
    ~Attributes() { pthread_attr_destroy(&value); }
    Attributes(const Attributes&) = delete;
    Attributes& operator=(const Attributes&) = delete;
    pthread_attr_t value{};
};

constexpr size_t kMaxNameLength = 15;  // the kernel's

}  // namespace

void* Thread::State::serve(void* argument) {
    State& state = *static_cast<State*>(argument);
    const sp<Thread> self = std::move(state.self);
    pthread_setname_np(pthread_self(), state.name.substr(0, kMaxNameLength).c_str());
    // On Linux a nice value belongs to one thread; without the privilege it stays as it is.
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), state.priority);
    while (self->threadLoop()) {
    }
    const std::lock_guard lock(state.mutex);
    state.phase = Phase::ended;
    state.ended.notify_all();
    return nullptr;
}

Thread::Thread(bool) : m_state(std::make_unique<State>()) {}

Thread::~Thread() = default;

int32_t Thread::run(const char* name, int32_t priority, size_t stack) {
    const std::lock_guard lock(m_state->mutex);
    if (m_state->phase != State::Phase::idle) {
        return -EALREADY;
    }
    // Detached: the last reference may be the thread's own, and then nobody is left to join it.
    Attributes attributes;
    pthread_attr_setdetachstate(&attributes.value, PTHREAD_CREATE_DETACHED);
    if (const int error = stack == 0 ? 0 : pthread_attr_setstacksize(&attributes.value, stack)) {
        return -error;
    }
    m_state->name = name == nullptr ? "" : name;
    m_state->priority = priority;
    m_state->self = this;
    pthread_t thread{};
    if (const int error = pthread_create(&thread, &attributes.value, State::serve, m_state.get())) {
        m_state->self.clear();
        return -error;
    }
    m_state->phase = State::Phase::running;
    return 0;
}

void Thread::join() {
    std::unique_lock lock(m_state->mutex);
    m_state->ended.wait(lock, [this] { return m_state->phase != State::Phase::running; });
}

}  // namespace android
