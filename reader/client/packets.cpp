#include "reader/client/packets.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <utility>

#include "common/process/packets.h"

namespace nuvio::reader {

UniqueFd shared_memory(size_t bytes) {
    UniqueFd memory(memfd_create("nuvio-reader", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    const bool is_made =
        memory && ftruncate(memory.get(), static_cast<off_t>(bytes)) == 0 &&
        fcntl(memory.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) == 0;
    return is_made ? std::move(memory) : UniqueFd();
}

bool send(int socket, const Request& request, const UniqueFd& file, const UniqueFd& memory) {
    return send_packet(socket, {bytes_of(request)}, {file.get(), memory.get()});
}

}  // namespace nuvio::reader
