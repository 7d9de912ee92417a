#include "local/texts/display_text.h"

#include "common/text.h"
#include "common/utf8.h"

namespace local_core {

std::string display_text(std::string_view raw) {
    return std::string(
        nuvio::trim(nuvio::printable(nuvio::is_utf8(raw) ? raw : nuvio::utf8_from_latin1(raw))));
}

}  // namespace local_core
