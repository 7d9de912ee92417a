#include "controller/library/mounts.h"

#include <fcntl.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <sstream>
#include <system_error>

#include "common/files/files.h"
#include "controller/library/music_folders.h"

namespace nuvio::controller {

namespace {

constexpr char kTable[] = "/proc/self/mountinfo";
constexpr size_t kMaxTable = size_t{4} << 20U;

// The table has what would end a field as three octal digits.
std::string as_in_table(const std::string& path) {
    std::string text;
    for (const char c : path) {
        switch (c) {
            case ' ':
                text += "\\040";
                break;
            case '\t':
                text += "\\011";
                break;
            case '\n':
                text += "\\012";
                break;
            case '\\':
                text += "\\134";
                break;
            default:
                text += c;
        }
    }
    return text;
}

std::string mount_point_of(const std::string& line) {
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 5; ++i) {  // id, parent's id, device, its part, place
        fields >> field;
    }
    return field;
}

}  // namespace

Mounts::Mounts(const std::vector<std::string>& folders)
    : m_table(open(kTable, O_RDONLY | O_CLOEXEC)) {
    for (const std::string& folder : folders) {
        std::error_code error;
        const std::string real = std::filesystem::weakly_canonical(folder, error);
        m_folders.push_back(as_in_table(error ? folder : real));
    }
    m_known = lines();
}

bool Mounts::have_come() {
    std::set<std::string> now = lines();
    m_known.swap(now);
    return !std::ranges::includes(now, m_known);
}

std::set<std::string> Mounts::lines() const {
    std::set<std::string> lines;
    std::istringstream table(read_file(std::string(kTable), kMaxTable).text);
    for (std::string line; std::getline(table, line);) {
        const std::string place = mount_point_of(line);
        if (std::ranges::any_of(m_folders, [&](const std::string& folder) {
                return is_within(place, folder) || is_within(folder, place);
            })) {
            lines.insert(line);
        }
    }
    return lines;
}

}  // namespace nuvio::controller
