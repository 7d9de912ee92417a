// Pictures made smaller, by a process that can do nothing else: see music_reader.h.
#pragma once

#include <cstdint>

#include "reader/client/questions.h"

namespace nuvio::reader {

class PictureScaler {
  public:
    // A JPEG of which no side is longer than `edge` pixels, also of one that is no larger.
    // `picture`: a file, or the memory of a Picture. None: of no kind that is read here (JPEG, PNG,
    // WebP).
    Outcome<Picture> scaled(const UniqueFd& picture, uint32_t edge);

  private:
    Questions m_questions{"nuvio-connect-scaler"};
};

}  // namespace nuvio::reader
