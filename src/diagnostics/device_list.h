// What `nuvio-connect --list-devices` tells: the values that the sound settings can take.
#pragma once

// Writes the names of ALSA's playback devices with their descriptions, then the elements with a
// playback volume of the configured mixer device, of "default" and of each card, on standard
// output. Returns the process's exit status, EXIT_FAILURE when there is nothing to list. The main
// thread's.
int list_devices();
