#include "reader/client/picture_scaler.h"

namespace nuvio::reader {

Outcome<Picture> PictureScaler::scaled(const UniqueFd& picture, uint32_t edge) {
    Request request{Job::scaled_picture};
    request.edge = edge;
    return m_questions.ask_for_picture(request, picture);
}

}  // namespace nuvio::reader
