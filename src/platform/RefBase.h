// RefBase and sp<>: intrusive reference counting of the platform's objects.
//
// An object is created with new, wrapped in an sp<> at once, and deleted when the last sp<> lets
// go of it, on the thread that lets go. Counting is atomic: sp<> objects to one target may be
// copied and dropped on any thread; one sp<> variable may not be written on two threads at a time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace android {

class RefBase {
  public:
    void incStrong() const { m_count.fetch_add(1, std::memory_order_relaxed); }
    void decStrong() const {
        if (m_count.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }
    int32_t getStrongCount() const { return m_count.load(std::memory_order_relaxed); }

    RefBase(const RefBase&) = delete;
    RefBase& operator=(const RefBase&) = delete;

  protected:
    RefBase() = default;
    virtual ~RefBase() = default;

  private:
    mutable std::atomic<int32_t> m_count{0};
};

template <typename T>
class sp {
  public:
    sp() = default;
    sp(std::nullptr_t) {}  // NOLINT(google-explicit-constructor): as the platform has it
    sp(T* object) : m_object(object) { acquire(); }  // NOLINT(google-explicit-constructor)
    sp(const sp& other) : m_object(other.m_object) { acquire(); }
    sp(sp&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
    template <typename U>
    sp(const sp<U>& other) : m_object(other.get()) {  // NOLINT(google-explicit-constructor)
        acquire();
    }
    ~sp() { release(); }

    sp& operator=(sp other) noexcept {
        std::swap(m_object, other.m_object);
        return *this;
    }

    void clear() { *this = sp(); }
    T* get() const { return m_object; }
    T* operator->() const { return m_object; }
    T& operator*() const { return *m_object; }
    explicit operator bool() const { return m_object != nullptr; }
    bool operator==(const sp& other) const { return m_object == other.m_object; }
    bool operator==(std::nullptr_t) const { return m_object == nullptr; }

  private:
    void acquire() {
        if (m_object != nullptr) {
            m_object->incStrong();
        }
    }
    void release() {
        if (m_object != nullptr) {
            m_object->decStrong();
        }
    }

    T* m_object = nullptr;
};

}  // namespace android
