#include "configuration/identity.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <string_view>

#include "base/text.h"
#include "common/files/files.h"

namespace nuvio::host {

namespace {

constexpr size_t kMaxFileBytes = 4096;

// What firmware says when its maker left the field alone.
constexpr std::array<std::string_view, 8> kPlaceholders = {
    "To Be Filled By O.E.M.",
    "To be filled by O.E.M.",
    "System manufacturer",
    "System Product Name",
    "Default string",
    "Not Specified",
    "Unknown",
    "None",
};

// The file's first line as clean text; empty when there is none or it says nothing.
std::string first_line(const std::string& path) {
    const FileText file = read_file(path, kMaxFileBytes);
    const std::string_view text = file.text;
    // The device tree ends its texts with a NUL.
    const std::string_view line =
        trim(text.substr(0, text.find_first_of(std::string_view("\n\0", 2))));
    const bool placeholder =
        std::find(kPlaceholders.begin(), kPlaceholders.end(), line) != kPlaceholders.end();
    return placeholder || !is_printable_utf8(line) ? std::string() : std::string(line);
}

std::string pretty_host_name(const std::string& root) {
    constexpr std::string_view kKey = "PRETTY_HOSTNAME=";
    const FileText file = read_file(root + "/etc/machine-info", kMaxFileBytes);
    std::string_view rest = file.text;
    while (!rest.empty()) {
        const size_t end = std::min(rest.find('\n'), rest.size());
        std::string_view line = trim(rest.substr(0, end));
        rest.remove_prefix(std::min(end + 1, rest.size()));
        if (!line.starts_with(kKey)) {
            continue;
        }
        line = trim(line.substr(kKey.size()));
        if (line.size() >= 2 && (line.front() == '"' || line.front() == '\'') &&
            line.back() == line.front()) {
            line = line.substr(1, line.size() - 2);
        }
        return is_printable_utf8(line) ? std::string(line) : std::string();
    }
    return {};
}

std::string host_name() {
    std::array<char, HOST_NAME_MAX + 1> name{};
    if (::gethostname(name.data(), name.size() - 1) != 0) {
        return {};
    }
    return to_utf8(name.data());
}

}  // namespace

std::string friendly_name(const Settings& settings, const std::string& root) {
    if (!settings.get(kHostFriendlyName).empty()) {
        return settings.get(kHostFriendlyName);
    }
    const std::string pretty = pretty_host_name(root);
    return pretty.empty() ? host_name() : pretty;
}

std::string manufacturer(const Settings& settings, const std::string& root) {
    if (!settings.get(kHostManufacturer).empty()) {
        return settings.get(kHostManufacturer);
    }
    return first_line(root + "/sys/class/dmi/id/sys_vendor");
}

std::string model(const Settings& settings, const std::string& root) {
    if (!settings.get(kHostModel).empty()) {
        return settings.get(kHostModel);
    }
    const std::string product = first_line(root + "/sys/class/dmi/id/product_name");
    return product.empty() ? first_line(root + "/proc/device-tree/model") : product;
}

}  // namespace nuvio::host
