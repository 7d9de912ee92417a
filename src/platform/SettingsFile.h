// Writing the configuration items from the command line, where the platform keeps them in files of
// this machine. Optional: the symbol is weak, and null on a platform without such files.
#pragma once

#include <string>
#include <utility>
#include <vector>

struct SettingsChange {
    std::vector<std::pair<std::string, std::string>> items;  // key and value
    // Text of an ALSA configuration file that only this service reads, behind ALSA's own. It takes
    // the place of the one before.
    std::string alsaConfiguration;
};

// Changes these items and leaves all others, comments included, as they are; each file is either
// the old or the new one at any moment. True: `told` names the files, and GetEnvItemByName gives
// the new values; else what was in the way. Waits for the disk. The main thread's, before the
// platform has been started.
[[gnu::weak]] bool ChangeSettings(const SettingsChange& change, std::string& told);
