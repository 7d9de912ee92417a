#include "reader/inside/sound/foreign_sound.h"

#include "common/module.h"

namespace nuvio::reader {

namespace {

// Set once, before the walls.
bool has_been_told = false;
OpenForeignSound* module_function = nullptr;

}  // namespace

void load_foreign_sound() {
    has_been_told = true;
    std::string error;
    module_function = reinterpret_cast<OpenForeignSound*>(
        find_in_module(kForeignSoundModule, kForeignSoundFunction, &error));
}

bool is_foreign_reader() {
    return has_been_told;
}

std::unique_ptr<ForeignSound> open_foreign_sound(Input& input, std::string* error) {
    if (module_function == nullptr) {
        *error = "not a format that is read here (nuvio-connect-core-ffmpeg reads more)";
        return nullptr;
    }
    return std::unique_ptr<ForeignSound>(module_function(input, error));
}

}  // namespace nuvio::reader
