// What `nuvio-connect --setup` does: settings that play right on a card.
#pragma once

#include <string>

// Finds the card, asks what it can do and writes: an output over it that converts only where it
// must, named so that what the card has itself is announced, the rates, and the element that
// carries the volume; a card without one gets one in software. `card` is the id or number of a card
// ("USB", "1"), with its device where it has several ("USB,3"), or the name of any ALSA output;
// empty for the only card there is. Says on standard output what it does, then checks it as --check
// does. Returns the process's exit status: EXIT_FAILURE when nothing was written or a check says
// FAIL. The main thread's.
int set_up_sound(const std::string& card);
