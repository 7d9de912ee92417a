// The program that speaks HTTP for the core, for as long as something is played from a server. It
// knows what its requests have in them, and ends with who started it.
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <string_view>

#include "local/network/fetcher/fetches.h"
#include "local/network/fetcher/walls.h"

int main(int argc, char** argv) {
#ifdef M_ARENA_MAX
    mallopt(M_ARENA_MAX, 1);
#endif
    signal(SIGPIPE, SIG_IGN);
    const bool is_filtered = argc < 2 || argv[1] != std::string_view("--unfiltered");
    std::string error;
    if (!local_core::shut_in_fetcher(is_filtered, &error)) {
        dprintf(STDERR_FILENO, "%s: not started: %s\n", argv[0], error.c_str());
        return 1;
    }
    curl_global_init(CURL_GLOBAL_DEFAULT);
    local_core::Fetches fetches;
    while (fetches.turn()) {
    }
    _exit(0);  // lookups that hang end here
}

// GnuTLS asks this word of its own as it is loaded, and finds it here first. Where it comes along
// it is with libcurl, for protocols that are not spoken: it need not get ready, which takes 0.12
// MB.
extern "C" __attribute__((visibility("default"))) int _gnutls_global_init_skip();
int _gnutls_global_init_skip() {
    return 1;
}
