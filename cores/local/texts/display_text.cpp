#include "local/texts/display_text.h"

#include <algorithm>

#include "common/utf8.h"

namespace local_core {

std::string display_text(std::string_view raw) {
    std::string text = nuvio::is_utf8(raw) ? std::string(raw) : nuvio::utf8_from_latin1(raw);
    std::replace_if(text.begin(), text.end(), nuvio::is_control, ' ');
    const size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

}  // namespace local_core
