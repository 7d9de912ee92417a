// AMessage: a message of keys and values for the platform's user-interface manager.
//
// Keys are unique, values keep the order in which they were first set. Not thread-safe: built by
// one thread, then handed over and only read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "platform/RefBase.h"

namespace android {

class AMessage : public RefBase {
  public:
    using Value = std::variant<int32_t, std::string>;

    // Kind of message and its receiver, both numbers of the platform's; 0 where they do not count.
    AMessage(uint32_t what, int32_t target) : m_what(what), m_target(target) {}

    void setString(const char* key, const char* text, size_t length) {
        set(key, std::string(text, length));
    }
    void setInt32(const char* key, int32_t value) { set(key, value); }

    // For the receiver: the value is left alone and false returned when the key is absent or of
    // another type.
    bool findString(const char* key, std::string* text) const { return find(key, text); }
    bool findInt32(const char* key, int32_t* value) const { return find(key, value); }
    const std::vector<std::pair<std::string, Value>>& entries() const { return m_entries; }
    uint32_t what() const { return m_what; }
    int32_t target() const { return m_target; }

  private:
    void set(const char* key, Value value) {
        for (auto& [name, held] : m_entries) {
            if (name == key) {
                held = std::move(value);
                return;
            }
        }
        m_entries.emplace_back(key, std::move(value));
    }

    template <typename T>
    bool find(const char* key, T* out) const {
        for (const auto& [name, held] : m_entries) {
            if (name == key && std::holds_alternative<T>(held)) {
                *out = std::get<T>(held);
                return true;
            }
        }
        return false;
    }

    uint32_t m_what;
    int32_t m_target;
    std::vector<std::pair<std::string, Value>> m_entries;
};

}  // namespace android
