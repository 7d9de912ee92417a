// Looks at a host's rules, one by one.
#include "conformance/host_rules.h"

#include "conformance/report.h"

namespace nuvio::kit {
namespace {

std::vector<Rule> rules() {
    std::vector<Rule> all = device_rules();
    for (const auto& topic : {message_rules(), source_rules(), thread_rules()}) {
        all.insert(all.end(), topic.begin(), topic.end());
    }
    return all;
}

void check_all(Report& report, const Options& options) {
    g_patience = std::chrono::seconds(options.patience_s);
    for (const Rule& rule : rules()) {
        if (!options.wants(rule.name)) {
            continue;
        }
        report.begin(rule.name, 3 * options.patience_s);
        try {
            report.line(rule.name, Verdict::holds, rule.check());
        } catch (const Broken& broken) {
            report.line(rule.name, Verdict::broken, broken.what());
        }
    }
}

}  // namespace
}  // namespace nuvio::kit

extern "C" __attribute__((visibility("default"))) nuvio::kit::Rules nuvio_rules() {
    return {nuvio::kit::names_of(nuvio::kit::rules()), nuvio::kit::check_all};
}
