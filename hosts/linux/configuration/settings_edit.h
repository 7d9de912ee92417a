// Changing the settings file, and the ALSA configuration file beside it: alsa.conf of
// settings.conf, NAME.alsa.conf of NAME.conf. Any thread.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nuvio::host {

using SettingsItems = std::vector<std::pair<std::string, std::string>>;  // key and value

// The text of a settings file with these values: in the line that holds the key now (the last,
// which is the one that counts), else behind the example that is commented out, else at the end.
// All other lines stay as they are, byte for byte. Pure.
std::string edit_settings(std::string_view text, const SettingsItems& items);

// Replaces both files, each at once and whole; owner and mode of one that is there stay. True:
// `told` names both; else what was in the way, such as a value with control characters, and both
// are as they were (on a file system without links ALSA's is the new one). Waits for the disk.
bool change_settings(const SettingsItems& items, std::string_view alsa_configuration,
                     std::string& told);

// Makes ALSA read, behind the configuration that it would read anyway, the file beside the
// settings, else the one that gives `output`, a PCM's name, longer periods where it is a sound
// server's (alsa/server_periods.conf, if it is there). Before the process's first ALSA call and
// before it has other threads: changes the environment.
void use_alsa_configuration(const std::string& output);

}  // namespace nuvio::host
