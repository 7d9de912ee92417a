// The shortest period of ALSA's where the output is a sound server's, which knows the place within
// a period; a card's driver does not always. Longer ones halve what server and plug-in do.
#pragma once

namespace nuvio {

inline constexpr unsigned kServerPeriodUs = 250'000;

}  // namespace nuvio
