// What the running service notes down about itself, for whoever asks how it does.
//
// One record a process. Any thread; the lock is held for a copy and nothing is called under it. A
// note costs the audio path nothing: an underrun is a counter, an output is noted when it is opened
// and closed, an error when it is logged.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

// An output that is open.
struct service_output {
    std::string device;  // the name it was opened by
    unsigned rate = 0;   // Hz; this and the next two of the stream, as the SDK delivers it
    unsigned bits = 0;   // that count in a sample
    unsigned channels = 0;
    uint64_t buffer_frames = 0;  // at that rate
    uint64_t period_frames = 0;
    std::string set_up;  // ALSA's own description of what it set up, layer by layer
};

struct service_record {
    std::optional<service_output> output;
    uint64_t underruns = 0;  // repaired, since the start
    uint64_t sessions = 0;   // that controllers handed over and the SDK took, since the start
    time_t error_time = 0;   // of the last line at ERROR or above; 0: there was none
    std::string error;       // its message, the first 255 bytes
};

void service_record_output_opened(service_output output);
void service_record_output_closed();
void service_record_underrun();
void service_record_session();
// Allocates nothing. The message must not be null.
void service_record_error(const char* message);

service_record service_record_read();
