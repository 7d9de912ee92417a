// How the running service does, for a platform that shows it to those who look after the device.
// Optional: the symbol is weak, and null on a platform that shows nothing.
#pragma once

#include "platform/AMessage.h"
#include "platform/RefBase.h"

// Keys and values as of now; what is not known is absent. Texts: "service_version", "sdk_version",
// "alsa_version"; "error", the last one, with "error_time" (UTC, 2024-01-31T14:05:09Z). Numbers
// since the start: "sessions", "underruns". While an output is open: "device"; "rate" (Hz), "bits"
// and "channels" of the stream; "buffer_frames", "period_frames"; "path", ALSA's layers on the way
// to the card with " > " between them; "card_rate", "card_bits", "card_channels", "card_format",
// what the last of them was set up for; "bit_exact" (0, 1, absent where nobody knows), and where it
// is not 1 "bit_exact_why".
using ServiceReport = android::sp<android::AMessage> (*)();

// Hands over the function to ask, before the platform's threads are started. It may be called on
// any thread until the process ends and never waits.
[[gnu::weak]] void OfferServiceReport(ServiceReport report);
