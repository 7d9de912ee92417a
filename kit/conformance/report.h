// What the conformance program says: a line a rule, with what was seen.
//
// The program and its modules (one for cores, one for hosts) share this header and no code: a
// module leaves the interface's symbols open, and the library under test, loaded before it, fills
// them in.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
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
    std::vector<std::string> rules;  // the names of those to look at; none: all

    bool wants(const std::string& rule) const {
        return rules.empty() || std::find(rules.begin(), rules.end(), rule) != rules.end();
    }
};

// A module's rules.
struct Rules {
    std::vector<std::string> names;
    void (*check)(Report& report, const Options& options);
};

template <typename List>
std::vector<std::string> names_of(const List& rules) {
    std::vector<std::string> names;
    names.reserve(std::size(rules));
    for (const auto& rule : rules) {
        names.emplace_back(rule.name);
    }
    return names;
}

// The name under which a module shows its only function.
inline constexpr char kRulesFunction[] = "nuvio_rules";
using RulesFunction = Rules (*)();

}  // namespace nuvio::kit
