// What a session's server sends: commands as texts, and the URL it is reached by.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "common/utf8.h"
#include "fuzz/expect.h"
#include "local/channel/link.h"
#include "local/channel/messages.h"

using namespace local_core;

namespace {

void expect_within_bounds(const RemoteCommand& command) {
    FUZZ_EXPECT(!command.id.empty() && command.id.size() <= kMaxCommandIdBytes);
    FUZZ_EXPECT(nuvio::is_utf8(command.id));
    FUZZ_EXPECT(command.tracks.size() <= kMaxTracksACommand);
    FUZZ_EXPECT(command.items.size() <= kMaxTracksACommand);
    FUZZ_EXPECT(command.verb != Verb::volume || command.number <= 100);
    FUZZ_EXPECT(command.verb != Verb::queue_replace || command.number < command.tracks.size());
    for (const NamedTrack& track : command.tracks) {
        FUZZ_EXPECT(!track.url.empty() && track.url.size() <= kMaxUrlBytes);
        FUZZ_EXPECT(nuvio::is_utf8(track.title) && track.title.size() <= kMaxTextBytes);
    }
}

// The device tells nothing that it would not itself accept as a message.
void tell(const RemoteCommand& command) {
    QueueMessage queue(1, command.tracks.size(), 0);
    size_t count = 0;
    while (count < command.tracks.size() && queue.add(count, command.tracks[count])) {
        ++count;
    }
    const std::string text = queue.text();
    FUZZ_EXPECT(text.size() <= kMaxMessageBytes && nuvio::is_utf8(text));
    FUZZ_EXPECT(count == command.tracks.size() || count > 0);
    FUZZ_EXPECT(write_done(command.id).find("\"ok\":true") != std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    const auto message = read_command(input);
    if (const auto* const command = std::get_if<RemoteCommand>(&message)) {
        expect_within_bounds(*command);
        tell(*command);
    } else {
        const auto& refusal = std::get<Refusal>(message);
        FUZZ_EXPECT(!refusal.error.empty() && refusal.id.size() <= kMaxCommandIdBytes);
        FUZZ_EXPECT(nuvio::is_utf8(write_refused(refusal)));
    }
    if (const auto target = link_target(input, input, 0)) {
        FUZZ_EXPECT(!target->host.empty() && target->port != 0 && target->path.starts_with('/'));
        FUZZ_EXPECT(std::none_of(target->token.begin(), target->token.end(), nuvio::is_control));
    }
    return 0;
}
