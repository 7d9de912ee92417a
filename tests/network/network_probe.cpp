// Drives the core's content as a decoder's thread would, for test_network.py:
//   network_probe read URL [KEY=VALUE ...] [OFFSET:COUNT ...]   bytes to stdout, the outcome to
//                                                               stderr; COUNT 0 is all that is left
//   network_probe decode PATH|URL [...]     the same in frames, as the device gets them
//   network_probe encode FILE TO [TITLE]    a stereo file as MP3, or as Vorbis with a title
//   network_probe abandon URL 0:COUNT       so many sources of it, for none of which is waited
//   network_probe tracks URL [KEY=VALUE ...]                    a line a track to stdout
#include <sndfile.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "local/network/http_source.h"
#include "local/network/remote_tracks.h"
#include "local/track/track_decoder.h"

using namespace local_core;

namespace {

const char* const kFailures[] = {"none",    "cancelled", "unusable",   "refused",
                                 "missing", "changed",   "unreachable"};

void tell(HttpFailure failure, const std::string& error) {
    std::fprintf(stderr, "failure=%s\nerror=%s\n", kFailures[static_cast<int>(failure)],
                 error.c_str());
}

size_t number(std::string_view text) {
    return std::strtoull(std::string(text).c_str(), nullptr, 10);
}

struct Job {
    HttpRequest request;
    std::vector<std::pair<size_t, size_t>> parts;
    size_t cancel_after_ms = 0;
    size_t pause_ms = 0;  // after the first piece
};

Job parse(int argc, char** argv) {
    Job job;
    job.request.url = argv[2];
    job.request.token_origin = argv[2];
    for (int i = 3; i < argc; ++i) {
        const std::string_view argument = argv[i];
        const size_t equals = argument.find('=');
        const std::string_view key = argument.substr(0, equals);
        const std::string_view value = argument.substr(std::min(equals + 1, argument.size()));
        if (equals == std::string_view::npos) {
            const size_t colon = argument.find(':');
            job.parts.emplace_back(number(argument), number(argument.substr(colon + 1)));
        } else if (key == "token") {
            job.request.token = value;
        } else if (key == "authorities") {
            job.request.authorities = value;
        } else if (key == "give_up_ms") {
            job.request.give_up_after = std::chrono::milliseconds(number(value));
        } else if (key == "stalled_s") {
            job.request.stalled_after = std::chrono::seconds(number(value));
        } else if (key == "read_ahead") {
            job.request.read_ahead_bytes = number(value);
        } else if (key == "cancel_after_ms") {
            job.cancel_after_ms = number(value);
        } else if (key == "pause_ms") {
            job.pause_ms = number(value);
        }
    }
    if (job.parts.empty()) {
        job.parts.emplace_back(0, 0);
    }
    return job;
}

// What is asked for of `source`, a unit of so many bytes.
template <typename Source>
void read_parts(Source& source, const Job& job, size_t unit) {
    std::vector<int32_t> piece(2500);  // no divisor of anything
    size_t pause_ms = job.pause_ms;
    for (auto [offset, count] : job.parts) {
        source.seek(offset);
        for (size_t left = count == 0 ? SIZE_MAX : count * unit; left > 0;) {
            const size_t got = source.read(piece.data(), piece.size() * sizeof piece[0]);
            if (got == 0) {
                break;
            }
            std::fwrite(piece.data(), 1, std::min(left, got), stdout);
            left -= std::min(left, got);
            std::this_thread::sleep_for(std::chrono::milliseconds(std::exchange(pause_ms, 0)));
        }
    }
}

// A track as a source of its bytes, a block at a time.
struct Sound {
    TrackDecoder& decoder;
    std::string title = decoder.info().live_title;
    bool is_over = false;

    // What it plays from here on.
    void tell_news() {
        if (const std::string now = decoder.live_title(0); now != title) {
            std::fprintf(stderr, "live_title=%s\n", now.c_str());
            title = now;
        }
        if (const auto texts = decoder.take_own_texts()) {
            std::fprintf(stderr, "own_title=%s|%s\n", texts->title.c_str(), texts->artist.c_str());
        }
        while (const auto note = decoder.take_note()) {
            std::fprintf(stderr, "note=%s\n", note->c_str());
        }
    }

    void seek(size_t frame) {
        decoder.seek(frame);
        is_over = false;
    }
    size_t read(void* to, size_t size) {
        const size_t whole = size - size % decoder.info().frame_bytes;
        if (is_over) {
            return 0;
        }
        decoder.begin_read();
        decoder.give(3);
        decoder.await_block();
        is_over = decoder.read(whole, [&] {
            if (decoder.done() > 0) {
                decoder.stop();
            }
            return std::chrono::milliseconds(-1);
        });
        const size_t got = decoder.done() > 0 ? decoder.bytes_of(0, whole) : 0;
        if (got > 0) {
            tell_news();
        }
        std::copy_n(decoder.block(3), got, static_cast<std::byte*>(to));
        return got;
    }
};

void read(const Job& job) {
    HttpSource source(job.request);
    std::thread canceller([&] {
        if (job.cancel_after_ms > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(job.cancel_after_ms));
            source.cancel();
        }
    });
    if (source.open()) {
        read_parts(source, job, 1);
    }
    canceller.join();
    tell(source.failure(), source.error());
}

// Each with a name of its own before the URL's.
void abandon(const Job& job) {
    const auto connections = HttpTransfer::keep_connections();
    for (size_t n = 0; n < job.parts.front().second; ++n) {
        HttpRequest request = job.request;
        request.url.insert(request.url.find("//") + 2, "n" + std::to_string(n) + ".");
        HttpSource source(request);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        tell(source.failure(), source.error());
    }
}

void decode(const Job& job) {
    Track track{.location = job.request.url};
    if (track.location.find("://") != std::string::npos) {
        track.remote = std::make_shared<const HttpRequest>(job.request);
    }
    Interruption none;
    OpenFailure failure;
    const auto decoder =
        TrackDecoder::open(track, {NUV_AUDIO_QUALITY_HI_RES_LEVEL_3, {}}, none, &failure);
    if (!decoder) {
        tell(failure.network, failure.reason);
        return;
    }
    const TrackInfo& info = decoder->info();
    std::fprintf(stderr, "about=%u Hz %zu frames %d%d %s%s%s\n", info.format.sample_rate,
                 info.is_endless ? 0 : static_cast<size_t>(info.frame_count), info.is_endless,
                 info.seekable, info.title.c_str(), info.live_title.c_str(), info.station.c_str());
    Sound sound{*decoder};
    read_parts(sound, job, info.frame_bytes);
    tell(decoder->failure(), decoder->last_error());
}

void encode(const char* from, const char* to, const char* title) {
    SF_INFO info{};
    SNDFILE* const source = sf_open(from, SFM_READ, &info);
    info.format = title != nullptr ? SF_FORMAT_OGG | SF_FORMAT_VORBIS
                                   : SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III;
    SNDFILE* const file = sf_open(to, SFM_WRITE, &info);
    if (title != nullptr) {
        sf_set_string(file, SF_STR_TITLE, title);
        sf_set_string(file, SF_STR_ARTIST, "Band");
    }
    std::vector<float> piece(size_t{2} * 3000);
    while (const sf_count_t got = sf_readf_float(source, piece.data(), 3000)) {
        sf_writef_float(file, piece.data(), got);
    }
    sf_close(file);
    sf_close(source);
}

void list_tracks(const Job& job) {
    HttpFailure failure = HttpFailure::none;
    std::string error;
    Interruption none;
    for (const RemoteTrack& track : find_remote_tracks(job.request, {}, none, &failure, &error)) {
        const std::string url = nuvio::with_section(track.url, track.section);
        std::printf("%s|%s|%s|%s|%s|%lld\n", url.c_str(), track.title.c_str(),
                    track.creator.c_str(), track.album.c_str(), track.image.c_str(),
                    static_cast<long long>(track.duration_ms.value_or(0)));
    }
    tell(failure, error);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    static constexpr struct {
        std::string_view name;
        void (*run)(const Job& job);
    } kCommands[] = {
        {"read", read}, {"abandon", abandon}, {"decode", decode}, {"tracks", list_tracks}};
    if (argv[1] == std::string_view("encode") && argc >= 4) {
        encode(argv[2], argv[3], argv[4]);
        return 0;
    }
    for (const auto& command : kCommands) {
        if (command.name == argv[1]) {
            command.run(parse(argc, argv));
            return 0;
        }
    }
    return 2;
}
