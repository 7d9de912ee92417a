// The output device and the mixer element, tried as the sink and the volume control use them. Plays
// nothing and changes nothing; each call opens the device and closes it again. The main thread's.
#pragma once

#include "diagnostics/finding.h"

// Sets the output up in every rate and format of the quality that the service announces, and for
// mono. What is refused, or granted at another rate, is what a track would fail at or sound wrong.
Finding check_output();

// The element must have a volume and a switch.
Finding check_mixer();
