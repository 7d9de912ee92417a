// The walls around the fetcher: it can open connections and read files, and can neither start
// another program nor write a file, and the kernel takes it first where memory is short.
#pragma once

#include <string>

namespace local_core {

// Once, by a process of one thread. False, with *error set, where the kernel refuses.
// `filtered`: false where the kernel has no filter of system calls and whoever runs this machine
// wants to do without.
bool shut_in_fetcher(bool filtered, std::string* error);

}  // namespace local_core
