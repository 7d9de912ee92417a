// Files that are made to harm whoever reads what they say about themselves.
#pragma once

#include <cstddef>
#include <string>

using namespace std::string_literals;

inline std::string big_endian(size_t number) {
    std::string bytes;
    for (unsigned shift = 32; shift > 0; shift -= 8) {
        bytes += static_cast<char>(number >> (shift - 8) & 0xffU);
    }
    return bytes;
}

// Seven bits a byte.
inline std::string syncsafe(size_t number) {
    std::string bytes;
    for (unsigned shift = 28; shift > 0; shift -= 7) {
        bytes += static_cast<char>(number >> (shift - 7) & 0x7fU);
    }
    return bytes;
}

inline std::string m4a_of_nested_atoms(size_t depth) {
    std::string file = "\0\0\0\020ftypM4A \0\0\0\0"s;
    for (size_t left = depth; left > 0; --left) {
        file += big_endian(8 * left);
        file += "moov";
    }
    return file;
}

inline std::string id3(const std::string& frames, size_t size) {
    return "ID3\4\0\0"s + syncsafe(size) + frames;
}

inline std::string mp3_of_nested_chapters(size_t depth) {
    constexpr size_t kFrame = 27;
    std::string frames;
    for (size_t left = depth; left > 0; --left) {
        frames += "CHAP";
        frames += syncsafe(kFrame * left - 10);
        frames += "\0\0\0"s;  // flags, and a name of no characters
        frames.append(16, '\1');
    }
    return id3(frames, frames.size());
}
