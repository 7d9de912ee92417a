// Drives the network's content as a decoder would, for test_network.py:
//   network_probe read URL [KEY=VALUE ...] [OFFSET:COUNT ...]   bytes to stdout, the outcome to
//                                                               stderr; COUNT 0 is all that is left
//   network_probe decode URL [...]     the same in 16-bit frames of two channels
//   network_probe encode FILE TO [TITLE]    a stereo file as MP3, or as Vorbis with a title
//   network_probe tracks URL [KEY=VALUE ...]                    a line a track to stdout
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "local/network/http_source.h"
#include "local/network/remote_sound.h"
#include "local/network/remote_tracks.h"

using namespace local_core;

namespace {

const char* const kFailures[] = {"none",    "cancelled", "unusable",   "refused",
                                 "missing", "changed",   "unreachable"};

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

void read_parts(HttpSource& source, const Job& job) {
    std::vector<char> piece(10000);  // no divisor of anything
    std::string title;
    bool has_paused = job.pause_ms == 0;
    for (auto [offset, count] : job.parts) {
        if (!source.seek(offset)) {
            std::fprintf(stderr, "seek=false\n");
        }
        for (size_t left = count == 0 ? SIZE_MAX : count; left > 0;) {
            const size_t got = source.read(piece.data(), std::min(left, piece.size()));
            std::fwrite(piece.data(), 1, got, stdout);
            left -= got;
            if (source.title() != title) {
                title = source.title();
                std::fprintf(stderr, "title=%s\n", title.c_str());
            }
            if (got == 0) {
                break;
            }
            if (!has_paused) {
                std::this_thread::sleep_for(std::chrono::milliseconds(job.pause_ms));
                has_paused = true;
            }
        }
    }
}

void read(const Job& job) {
    HttpSource source(job.request);
    std::thread canceller([&] {
        if (job.cancel_after_ms > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(job.cancel_after_ms));
            source.cancel();
        }
    });
    if (const auto content = source.open()) {
        std::fprintf(stderr, "type=%s\nurl=%s\nradio=%d\n", content->content_type.c_str(),
                     content->url.c_str(), content->is_radio ? 1 : 0);
        read_parts(source, job);
    }
    canceller.join();
    std::fprintf(stderr, "failure=%s\nerror=%s\n", kFailures[static_cast<int>(source.failure())],
                 source.error().c_str());
}

void decode(const Job& job) {
    HttpSource source(job.request);
    SF_INFO info{};
    const auto sound = RemoteSound::open(source, &info);
    std::vector<float> piece(size_t{2} * 3000);
    for (auto [offset, count] : job.parts) {
        if (!sound || info.channels != 2 ||
            (info.seekable != 0 &&
             sf_seek(sound->file(), static_cast<sf_count_t>(offset), SEEK_SET) < 0)) {
            break;
        }
        for (size_t left = count == 0 ? SIZE_MAX : count; left > 0;) {
            const auto frames = static_cast<sf_count_t>(std::min<size_t>(left, 3000));
            const sf_count_t got = sf_readf_float(sound->file(), piece.data(), frames);
            if (got <= 0) {
                break;
            }
            for (size_t i = 0; i < 2 * static_cast<size_t>(got);
                 ++i) {  // rounded, as the core does
                const auto sample = static_cast<short>(std::lrintf(piece[i] * 32768));
                std::fwrite(&sample, sizeof sample, 1, stdout);
            }
            left -= static_cast<size_t>(got);
        }
    }
    std::fprintf(stderr, "failure=%s\nerror=%s\n", kFailures[static_cast<int>(source.failure())],
                 source.error().c_str());
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
        std::printf("%s|%s|%s|%s|%s|%lld\n", track.url.c_str(), track.title.c_str(),
                    track.creator.c_str(), track.album.c_str(), track.image.c_str(),
                    static_cast<long long>(track.duration_ms.value_or(0)));
    }
    std::fprintf(stderr, "failure=%s\nerror=%s\n", kFailures[static_cast<int>(failure)],
                 error.c_str());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 2;
    }
    static constexpr struct {
        std::string_view name;
        void (*run)(const Job& job);
    } kCommands[] = {{"read", read}, {"decode", decode}, {"tracks", list_tracks}};
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
