// What a core says of the sound that is heard, for a platform that shows it: beside the SDK's
// interface, which has no word for it. Optional on both sides: the symbol is weak, and null on a
// platform that shows nothing.
#pragma once

// What was done to the samples of the track that is heard ("96 kHz/24 bit, converted to 48 kHz/16
// bit"), in UTF-8; empty: nothing, or nothing is heard. Any thread, one at a time; does not wait.
extern "C" [[gnu::weak, gnu::visibility("default")]] void nuvio_note_sound(const char* changed);

// Of the track that is over: its title, and "verified" where the output took the samples whose sum
// its file carries, all of them and no others, else why that is not known or not so. Likewise.
extern "C" [[gnu::weak, gnu::visibility("default")]] void nuvio_note_played(const char* title,
                                                                            const char* verified);
