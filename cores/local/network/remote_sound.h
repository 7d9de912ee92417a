// A remote audio file as libsndfile reads it.
#pragma once

#include <sndfile.h>

#include <memory>

#include "common/released_by.h"
#include "local/network/http_source.h"

namespace local_core {

using RemoteSound = std::unique_ptr<SNDFILE, nuvio::ReleasedBy<sf_close>>;

// Null when `source` is no audio file that libsndfile knows, when it failed, or while its length is
// unknown; sf_strerror(nullptr) or source.error() says why. `source` must outlive the result, which
// is read by one thread at a time and blocks as HttpSource::read() does. A file that ends early
// because its source failed looks like its end to libsndfile: ask source.failure() then.
RemoteSound open_remote_sound(HttpSource& source, SF_INFO* info);

}  // namespace local_core
