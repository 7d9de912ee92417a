// Where an Ogg radio begins another stream: its next piece of music, or its server's next life.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace nuvio::reader {

// Looks at one stream's bytes in their order. One thread at a time.
class OggEnd {
  public:
    // Any bytes, in any pieces. How many of these are the present stream's, when the next one
    // begins here; possibly negative: so many of the pieces before are the next one's.
    std::optional<std::ptrdiff_t> find(std::string_view bytes);

  private:
    std::string m_tail;        // of the piece before, too short for a page's head
    bool m_has_begun = false;  // pages came that are no stream's first
};

}  // namespace nuvio::reader
