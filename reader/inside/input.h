// The bytes of a sound: of a file, or remote ones that the parent fetches.
//
// One thread; reading blocks on the file, or on the parent.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "common/unique_fd.h"
#include "reader/inside/serve.h"
#include "reader/protocol.h"

namespace nuvio::reader {

class Input {
  public:
    virtual ~Input() = default;
    // Bytes read, fewer than asked only at the end or where it failed.
    virtual size_t read(void* to, size_t size) = 0;
    // False where a radio can't go to, or nobody.
    virtual bool seek(uint64_t position) = 0;
    virtual uint64_t position() const = 0;
    // None while it is unknown, and of a stream that has no end.
    virtual std::optional<uint64_t> length() = 0;
    // Nothing more of it will come.
    virtual bool has_failed() const = 0;
    // Endless: does not seek.
    virtual bool is_radio() const = 0;
    // All of it can be read without a network's delay.
    virtual bool is_at_hand() const = 0;
    // Of a radio that has an end, and can be gone to by times.
    virtual std::optional<uint64_t> duration_us() const { return std::nullopt; }
    // Goes to where something begins that is to be opened anew, at or before the time, and says
    // when that is.
    virtual std::optional<uint64_t> go_to_time(uint64_t /*time_us*/) { return std::nullopt; }
    // Where it seems to end something else may begin, to be opened anew: goes on to it.
    virtual bool next_run() { return false; }
};

// The bytes from a place on, fewer at the end; none where it can't go there.
inline std::string bytes_at(Input& input, uint64_t place, size_t size) {
    std::string bytes(size, '\0');
    bytes.resize(input.seek(place) ? input.read(bytes.data(), size) : 0);
    return bytes;
}

// The number of `size` bytes at a place; 0 beyond the end.
inline uint64_t number_at(Input& input, uint64_t place, size_t size, std::endian order) {
    uint64_t number = 0;
    const std::string bytes = bytes_at(input, place, size);
    for (size_t i = 0; i < size && bytes.size() == size; ++i) {
        const char byte = bytes[order == std::endian::big ? i : size - 1 - i];
        number = number << 8U | static_cast<uint8_t>(byte);
    }
    return number;
}

class FileInput : public Input {
  public:
    explicit FileInput(UniqueFd file);

    size_t read(void* to, size_t size) override;
    bool seek(uint64_t position) override;
    uint64_t position() const override { return m_position; }
    std::optional<uint64_t> length() override { return m_length; }
    bool has_failed() const override { return m_has_failed; }
    bool is_radio() const override { return false; }
    bool is_at_hand() const override { return true; }

  private:
    const UniqueFd m_file;
    const uint64_t m_length;
    uint64_t m_position = 0;
    bool m_has_failed = false;
};

class RemoteInput : public Input {
  public:
    // `window`: kWindowBytes, where the parent puts the bytes.
    // `duration_us`: of a radio that has an end; else 0.
    RemoteInput(Parent& parent, const char* window, bool is_radio, uint64_t duration_us)
        : m_parent(parent), m_window(window), m_is_radio(is_radio), m_duration_us(duration_us) {}

    size_t read(void* to, size_t size) override;
    bool seek(uint64_t position) override;
    uint64_t position() const override { return m_position; }
    std::optional<uint64_t> length() override;
    bool has_failed() const override { return m_bytes.has_failed; }
    bool is_radio() const override { return m_is_radio; }
    bool is_at_hand() const override { return false; }
    std::optional<uint64_t> duration_us() const override;
    std::optional<uint64_t> go_to_time(uint64_t time_us) override;
    bool next_run() override;

  private:
    void ask(uint64_t place, size_t size);
    bool has(uint64_t place) const;
    bool is_at_next_run() const;

    Parent& m_parent;
    const char* const m_window;
    const bool m_is_radio;
    const uint64_t m_duration_us;
    Bytes m_bytes{0, Bytes::kUnknown, 0, true, false, false};
    uint64_t m_run = 0;  // where the present one begins
    uint64_t m_position = 0;
};

}  // namespace nuvio::reader
