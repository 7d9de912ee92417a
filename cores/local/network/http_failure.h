// Why content over the network ended before its end.
#pragma once

namespace local_core {

// Why there are no more bytes.
enum class HttpFailure {
    none,
    cancelled,
    unusable,     // no URL or token that could be sent, too many redirects
    refused,      // the token is missing or no longer good (401, 403)
    missing,      // other answers that stay what they are
    changed,      // the file is another than the one that was begun
    unreachable,  // no byte for too long
};

}  // namespace local_core
