// Looks at a core's rules, one by one, and at what the device watches meanwhile.
#include "conformance/core_rules.h"

#include <array>
#include <cstdlib>
#include <optional>

#include "conformance/report.h"
#include "conformance/wav_folder.h"

namespace nuvio::kit {
namespace {

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

std::vector<Rule> rules() {
    std::vector<Rule> all = session_rules();
    for (const auto& topic : {control_rules(), end_rules()}) {
        all.insert(all.end(), topic.begin(), topic.end());
    }
    return all;
}

std::vector<std::string> names() {
    std::vector<std::string> result = names_of(rules());
    for (const std::string& name : names_of(kThroughout)) {
        result.push_back(name);
    }
    return result;
}

// What to look at for the rules that are wanted: for none but those that are watched throughout,
// everything.
std::vector<Rule> chosen(const Options& options) {
    std::vector<Rule> result = rules();
    std::erase_if(result, [&](const Rule& rule) { return !options.wants(rule.name); });
    return result.empty() ? rules() : result;
}

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

void check_all(Report& report, const Options& options) {
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
    for (const Rule& rule : chosen(options)) {
        if (!check(report, rule, run)) {
            watched.push_back(rule.name);
        }
    }
    for (const char* name : watched) {
        if (const std::string breach = breaches.of(name); !breach.empty()) {
            report.line(name, Verdict::broken, "in what followed: " + breach);
        }
    }
    for (const auto& [name, holds] : kThroughout) {
        const std::string breach = breaches.of(name);
        if (options.wants(name)) {
            report.line(name, breach.empty() ? Verdict::holds : Verdict::broken,
                        breach.empty() ? holds : breach);
        }
    }
}

}  // namespace
}  // namespace nuvio::kit

extern "C" __attribute__((visibility("default"))) nuvio::kit::Rules nuvio_rules() {
    return {nuvio::kit::names(), nuvio::kit::check_all};
}
