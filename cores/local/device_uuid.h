// The device's UUID in the service: the same for the same unit, whatever it is called.
#pragma once

#include <string>

namespace local_core {

// A name-based UUID (version 8) in its canonical text form. Its 122 free bits are two 64-bit FNV-1a
// hashes, with different start values, of the four texts, each closed by a NUL.
std::string device_uuid(const std::string& manufacturer, const std::string& model,
                        const std::string& serial_number, const std::string& hardware_id);

}  // namespace local_core
