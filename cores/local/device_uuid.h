// The device's UUID in the service: the same at every start, another one on every machine, whatever
// the device is called and whichever network card it has.
#pragma once

#include <string>

namespace local_core {

// This machine's: of its id, as systemd has it, and of NUVIO_STATE_DIR, so that two devices on one
// machine are two. Reads the disk, and writes it at the first start of a machine without an id.
std::string device_uuid();

// A name-based UUID (version 8) in its canonical text form. Its 122 free bits are two 64-bit FNV-1a
// hashes, with different start values, of the two texts, each closed by a NUL. Without a machine
// (an empty text) it is a random one, kept in the folder's file "device_uuid"; where that cannot be
// kept, another one at each call.
std::string device_uuid(const std::string& machine, const std::string& state_folder);

}  // namespace local_core
