// What the conformance program says: a line a rule, with what was seen.
//
// The program and its modules (one for cores, one for hosts) share this header and no code: a
// module leaves the interface's symbols open, and the library under test, loaded before it, fills
// them in.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

namespace nuvio::kit {

enum class Verdict { holds, broken, not_seen };

// The main thread's.
class Report {
  public:
    // The rule that is looked at now: a library that never returns, or crashes, fails in its name
    // (after `limit_s` seconds the process ends).
    void begin(const char* rule, unsigned limit_s) {
        m_rule = rule;
        alarm(limit_s);
    }

    void line(const char* rule, Verdict verdict, const std::string& seen) {
        static constexpr const char* kWords[] = {"ok", "FAIL", "-"};
        std::printf("%-4s  %-12s  %s\n", kWords[static_cast<int>(verdict)], rule, seen.c_str());
        std::fflush(stdout);
        m_broken += verdict == Verdict::broken ? 1 : 0;
        m_unseen += verdict == Verdict::not_seen ? 1 : 0;
    }

    int broken() const { return m_broken; }
    int unseen() const { return m_unseen; }
    const char* rule() const { return m_rule; }

  private:
    const char* volatile m_rule = "load";  // read by a signal handler
    int m_broken = 0;
    int m_unseen = 0;
};

struct Options {
    std::string endpoint;  // what a session of the core plays; empty: tracks of the module's own
    unsigned patience_s = 10;        // for whatever is to come
    std::vector<std::string> rules;  // these alone; empty: all
    bool lists = false;              // the rules' names are printed, and none is looked at

    bool wants(const char* rule) const {
        return rules.empty() || std::ranges::find(rules, rule) != rules.end();
    }
};

// True, with a line that names it, where a rule is wanted that is none of `names`. With `lists` the
// names are printed.
template <typename Names>
bool is_only_asked(Report& report, const Options& options, const Names& names) {
    for (const char* name : names) {
        if (options.lists) {
            std::printf("%s\n", name);
        }
    }
    for (const std::string& rule : options.rules) {
        if (std::ranges::find(names, rule) == std::ranges::end(names)) {
            report.line(rule.c_str(), Verdict::broken, "there is no such rule");
            return true;
        }
    }
    return options.lists;
}

// The name under which a module shows its only function.
inline constexpr char kRulesFunction[] = "nuvio_check_rules";
using RulesFunction = void (*)(Report& report, const Options& options);

}  // namespace nuvio::kit
