// What the service relies on a core for, a rule a function: which there are, and what is made of
// them.
#include "conformance/core_rules.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "conformance/report.h"
#include "conformance/wav_folder.h"

namespace nuvio::kit {

std::string ms(uint64_t value) {
    return std::to_string(value) + " ms";
}

void join(Device& device, const Run& run, bool become_active) {
    const nuv_error error = device.call([&](nuv_connect* core) {
        return nuv_connect_connect(core, "conformance", run.endpoint.c_str(), "token", 0,
                                   "ws://localhost:9/", "token", 0, become_active);
    });
    if (error != NUV_ERROR_OK) {
        throw Broken(std::string("connect answers ") + nuv_error_to_string(error));
    }
}

void play(Device& device, const Run& run, uint64_t frames) {
    const size_t since = device.mark();
    device.take_only(frames);
    join(device, run);
    device.await_state(NUV_PLAYBACK_STATE_PLAYING, since);
}

void expect_answer(const std::string& what, nuv_error answer) {
    if (answer != NUV_ERROR_OK) {
        throw Broken(what + " answers " + nuv_error_to_string(answer));
    }
}

void expect_order(const Device& device, size_t since, const std::vector<std::string>& names) {
    size_t place = since;
    for (const std::string& name : names) {
        const Event* const event = device.find(name, place);
        if (event == nullptr) {
            throw Broken("\"" + name + "\" does not come after what precedes it: " + names.front() +
                         " ... " + names.back());
        }
        place = static_cast<size_t>(event - device.events().data()) + 1;
    }
}

namespace {

struct Rule {
    const char* name;
    std::string (*check)(const Run& run);
};

constexpr std::array kRules = {
    Rule{"texts", check_texts},
    Rule{"services", check_services},
    Rule{"no-session", check_without_session},
    Rule{"session", check_session},
    Rule{"delivery", check_delivery},
    Rule{"tracks", check_tracks},
    Rule{"next-early", check_next_early},
    Rule{"pause", check_pause},
    Rule{"presses", check_presses},
    Rule{"seek", check_seek},
    Rule{"skip", check_skip},
    Rule{"volume", check_volume},
    Rule{"modes", check_modes},
    Rule{"name", check_name},
    Rule{"stop", check_stop},
    Rule{"error", check_error},
    Rule{"leave", check_leave},
    Rule{"threads", check_threads},
    Rule{"free", check_free},
};

struct Throughout {
    const char* name;
    const char* holds;
};

constexpr std::array kThroughout = {
    Throughout{"loop-thread", "every delegate came on the loop's thread"},
    Throughout{"not-inside", "no delegate came from inside a call"},
    Throughout{"states", "each in a state of the renderer that it is for"},
    Throughout{"streams", "each of a stream that was started and not disposed of"},
    Throughout{"disposal", "no stream was disposed of while it played"},
    Throughout{"frames", "offers were whole frames"},
    Throughout{"rest", "what was refused came again first"},
    Throughout{"notices", "the renderer's notices were taken"},
};

// True when the rule is seen broken.
bool check(Report& report, const Rule& rule, const Run& run) {
    report.begin(rule.name, static_cast<unsigned>(12 * run.patience.count()));
    try {
        const std::string seen = rule.check(run);
        // Some rules are watched by the device as well.
        const std::string breach = run.breaches.of(rule.name);
        report.line(rule.name, breach.empty() ? Verdict::holds : Verdict::broken,
                    breach.empty() ? seen : breach);
        return !breach.empty();
    } catch (const Broken& broken) {
        report.line(rule.name, Verdict::broken, broken.what());
        return true;
    } catch (const NotSeen& why) {
        report.line(rule.name, Verdict::not_seen, why.what());
        return false;
    }
}

}  // namespace
}  // namespace nuvio::kit

extern "C" __attribute__((visibility("default"))) void nuvio_check_rules(
    nuvio::kit::Report& report, const nuvio::kit::Options& options) {
    using namespace nuvio::kit;
    std::vector<const char*> names;
    std::ranges::transform(kRules, std::back_inserter(names), &Rule::name);
    std::ranges::transform(kThroughout, std::back_inserter(names), &Throughout::name);
    if (is_only_asked(report, options, names)) {
        return;
    }
    std::optional<WavFolder> tracks;
    if (options.endpoint.empty()) {
        tracks.emplace();
        // For the local core, which reads files from named folders only.
        setenv("NUVIO_MUSIC_FOLDERS", tracks->path().c_str(), 0);
    }
    Breaches breaches;
    const Run run{breaches, tracks ? tracks->path() : options.endpoint,
                  std::chrono::seconds(options.patience_s)};
    std::vector<const char*> watched;  // what the rules behind them may still break
    // What holds throughout is watched in all that is done.
    const bool all = std::ranges::any_of(
        kThroughout, [&](const Throughout& each) { return options.wants(each.name); });
    for (const Rule& rule : kRules) {
        if ((all || options.wants(rule.name)) && !check(report, rule, run)) {
            watched.push_back(rule.name);
        }
    }
    for (const char* name : watched) {
        if (const std::string breach = breaches.of(name); !breach.empty()) {
            report.line(name, Verdict::broken, "in what followed: " + breach);
        }
    }
    for (const auto& [name, holds] : kThroughout) {
        if (!options.wants(name)) {
            continue;
        }
        const std::string breach = breaches.of(name);
        report.line(name, breach.empty() ? Verdict::holds : Verdict::broken,
                    breach.empty() ? holds : breach);
    }
}
