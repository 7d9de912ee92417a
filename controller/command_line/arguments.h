// What commands take as arguments, in the form of the API. Pure functions, any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace nuvio::controller {

// A number, or one from where it is now: "+10".
struct Amount {
    int64_t number = 0;
    bool is_relative = false;
};

std::optional<Amount> to_amount(const std::string& text);
// "90", "1:30", "1:02:03", "+10", "-10", in ms.
std::optional<Amount> to_time(const std::string& text);
std::optional<bool> to_switch(const std::string& text);  // "on", "off"
// "1:30", "1:02:03"
std::string time_text(int64_t ms);
// What is to be played: a path of this machine is made absolute; what is neither that nor a URL nor
// "album:7" and the like is searched for.
std::string to_what(const std::string& text);

}  // namespace nuvio::controller
