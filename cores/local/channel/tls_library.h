// OpenSSL, as the channel uses it.
#pragma once

#include <openssl/crypto.h>

namespace local_core {

// The first word of the process to it: it does not clean up in an exit handler, for threads that
// were left behind may still be in it then. Any thread.
inline void keep_tls_library() {
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}

}  // namespace local_core
