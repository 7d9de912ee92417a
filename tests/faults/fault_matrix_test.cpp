// Every ALSA call that the sink makes, failing with each error that a driver really gives there, at
// each moment of a session; and what may happen to a card without any call. The real renderer,
// sources, sink and volume manager play on the simulated card; the SDK is scripted.
//
// A row of the table is a fault, a column the moment at which it strikes, a cell what becomes of
// the session. In every cell: the session comes to its end, waits without spinning, releases what
// it held, and the next session plays bit for bit.
//
// Not here: snd_pcm_pause, which the renderer never comes to (the sink's own test fails it), and
// the mixer's calls, which mixer_faults_test.cpp fails.
//
// By default a part of the cells, the same each time; NUVIO_LONG=1 runs them all.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "faults/card_sessions.h"
#include "platform/Environment.h"
#include "tools/simcard/simcard.h"

// The settings name the default device.
void GetEnvItemByName(const char* /*key*/, char* value) {
    std::strcpy(value, "default");
}

namespace {

using simcard::Card;
using simcard::Fault;
using simcard::Op;
using simcard::Resume;

// ---- The table ---------------------------------------------------------------------------------

enum class Outcome : char {
    does_not_occur = '.',  // the call isn't made then, or the event changes nothing
    silent = 'S',          // repaired; every frame is heard
    loses_queue = 'Q',     // repaired; what ALSA had queued is lost, the rest is heard
    error = 'E',           // one playback error
    ends = 'F',            // reported as finished; what was queued at the end is lost
};

// The columns.
struct Moment {
    const char* name;
    Point point;
    std::vector<Clip> tracks;
    // So slow a card that something is left to drain when the end-of-track timer fires.
    bool is_slow = false;
    enum Then { go_on, pause, seek } then = go_on;
};

const std::vector<Moment>& moments() {
    static const std::vector<Moment> table = {
        // Before playback is initiated.
        {"open", Point::opening, {{kCd, 400}}},
        // The sink waits for room; after that playback pauses, to be resumed; or seeks forward.
        {"mid", Point::waiting, {{kCd, 400}}},
        {"pause", Point::waiting, {{kCd, 400}}, false, Moment::pause},
        {"seek", Point::waiting, {{kCd, 400}}, false, Moment::seek},
        // The next track of the same format starts to flow behind the ending one.
        {"hand", Point::handing_over, {{kCd, 150}, {kCd, 250}}},
        // The ending track is drained, the next one has another format.
        {"format", Point::changing_format, {{kCd, 150}, {kHiRes, 150}}, true},
        // Everything is queued, the end-of-track timers run; then the rest is drained.
        {"tail", Point::delivered, {{kCd, 150}}, true},
        {"drain", Point::draining, {{kCd, 150}}, true},
    };
    return table;
}

struct Row {
    std::string name;
    std::vector<Fault> faults;
    void (*event)(Card&) = nullptr;
    std::string outcomes;  // a letter a moment
};

constexpr uint64_t kForever = Fault::kForever;

Row fails(Op op, int error, uint64_t times, std::string outcomes) {
    const std::string often = times == kForever ? "forever" : std::to_string(times) + "x";
    std::erase(outcomes, ' ');
    return {std::string(simcard::op_name(op)) + "_" + strerrorname_np(error) + "_" + often,
            {{op, error, 0, times}},
            nullptr,
            std::move(outcomes)};
}

// This call is well, and takes a quarter of a second.
Row is_slow(Op op, std::string outcomes) {
    std::erase(outcomes, ' ');
    return {std::string(simcard::op_name(op)) + "_is_slow",
            {{.op = op, .ms = 250}},
            nullptr,
            std::move(outcomes)};
}

// After the failure of the row this call, its repair or itself, takes longer than it may.
Row hangs(Op op, Row row) {
    row.name += std::string("_then_") + simcard::op_name(op) + "_hangs";
    row.faults.push_back({.op = op, .error = EIO, .ms = op == Op::drain ? 1500U : 1300U});
    return row;
}

Row happens(const char* name, void (*event)(Card&), std::string outcomes) {
    std::erase(outcomes, ' ');
    return {name, {}, event, std::move(outcomes)};
}

const std::vector<Row>& rows() {
    // clang-format off
    static const std::vector<Row> table = {
        //                                         open mid  paus seek hand form tail drai
        fails(Op::open, EBUSY, 1,                 " E    .    .    .    .    E    .    .  "),
        fails(Op::open, ENODEV, 1,                " E    .    .    .    .    E    .    .  "),
        fails(Op::open, EAGAIN, 1,                " E    .    .    .    .    E    .    .  "),
        fails(Op::open, EINTR, 1,                 " E    .    .    .    .    E    .    .  "),
        fails(Op::hw_params, EIO, 1,              " E    .    .    .    .    E    .    .  "),
        fails(Op::hw_params, EBUSY, 1,            " E    .    .    .    .    E    .    .  "),
        fails(Op::hw_params, ENODEV, 1,           " E    .    .    .    .    E    .    .  "),
        fails(Op::poll_descriptor_count, EIO, 1,  " E    .    .    .    .    E    .    .  "),
        fails(Op::poll_descriptors, EIO, 1,       " E    .    .    .    .    E    .    .  "),
        // Set-up prepares; so do a pause and a seek after they have dropped the queue, and there
        // the next write tries again.
        fails(Op::prepare, EIO, 1,                " E    .    S    S    .    E    .    .  "),
        fails(Op::prepare, EBUSY, 1,              " E    .    S    S    .    E    .    .  "),
        fails(Op::prepare, EIO, kForever,          " E    .    E    E    .    E    .    .  "),
        fails(Op::prepare, ENODEV, kForever,       " E    .    E    E    .    E    .    .  "),
        // The first write into a prepared stream starts it.
        fails(Op::start, EIO, 1,                  " S    .    S    S    .    S    .    .  "),
        fails(Op::start, EPIPE, 1,                " Q    .    Q    Q    .    Q    .    .  "),
        fails(Op::start, ESTRPIPE, 1,             " S    .    S    S    .    S    .    .  "),
        fails(Op::start, EIO, kForever,            " E    .    E    E    .    E    .    .  "),
        fails(Op::start, ENODEV, kForever,         " E    .    E    E    .    E    .    .  "),
        // An underrun of an empty stream loses nothing.
        fails(Op::write, EPIPE, 1,                " S    Q    S    S    Q    S    .    .  "),
        fails(Op::write, EPIPE, kForever,          " E    E    E    E    E    E    .    .  "),
        fails(Op::write, ESTRPIPE, 1,             " S    S    S    S    S    S    .    .  "),
        fails(Op::write, ESTRPIPE, kForever,       " E    E    E    E    E    E    .    .  "),
        fails(Op::write, EINTR, 2,                " S    S    S    S    S    S    .    .  "),
        fails(Op::write, EINTR, kForever,          " E    E    E    E    E    E    .    .  "),
        fails(Op::write, EAGAIN, 2,               " S    S    S    S    S    S    .    .  "),
        fails(Op::write, EAGAIN, kForever,         " E    E    E    E    E    E    .    .  "),
        fails(Op::write, EIO, 1,                  " S    S    S    S    S    S    .    .  "),
        fails(Op::write, EIO, kForever,            " E    E    E    E    E    E    .    .  "),
        fails(Op::write, ENODEV, kForever,         " E    E    E    E    E    E    .    .  "),
        // The space query. snd_pcm_avail makes two calls.
        fails(Op::pointer, EPIPE, 1,              " S    Q    S    S    Q    S    .    .  "),
        fails(Op::pointer, EPIPE, kForever,        " E    E    E    E    E    E    .    .  "),
        fails(Op::pointer, ESTRPIPE, 1,           " S    S    S    S    S    S    .    .  "),
        fails(Op::pointer, EIO, 2,                " S    S    S    S    S    S    .    .  "),
        fails(Op::pointer, EIO, kForever,          " E    E    E    E    E    E    .    .  "),
        fails(Op::pointer, ENODEV, kForever,       " E    E    E    E    E    E    .    .  "),
        // The position is not worth an error.
        fails(Op::delay, EPIPE, 1,                " Q    Q    S    S    Q    Q    .    .  "),
        fails(Op::delay, ESTRPIPE, 1,             " S    S    S    S    S    S    .    .  "),
        fails(Op::delay, EIO, kForever,            " S    S    S    S    S    S    .    .  "),
        fails(Op::delay, ENODEV, kForever,         " S    S    S    S    S    S    .    .  "),
        fails(Op::poll_revents, EIO, 1,           " S    S    S    S    S    S    .    .  "),
        fails(Op::poll_revents, EIO, kForever,     " S    S    S    S    S    S    .    .  "),
        fails(Op::drop, EIO, 1,                   " .    .    S    S    .    .    .    .  "),
        fails(Op::drain, EINTR, 2,                " .    .    .    .    .    S    .    S  "),
        fails(Op::drain, EINTR, 5,                " .    .    .    .    .    Q    .    F  "),
        fails(Op::drain, EAGAIN, 1,               " .    .    .    .    .    Q    .    F  "),
        fails(Op::drain, EPIPE, 1,                " .    .    .    .    .    Q    .    F  "),
        fails(Op::drain, ESTRPIPE, 1,             " .    .    .    .    .    Q    .    F  "),
        fails(Op::drain, EIO, 1,                  " .    .    .    .    .    Q    .    F  "),
        fails(Op::drain, ENODEV, 1,               " .    .    .    .    .    Q    .    F  "),
        is_slow(Op::prepare,                      " S    .    S    S    .    S    .    .  "),
        is_slow(Op::drop,                         " .    .    S    S    .    .    .    .  "),
        // The PCM is away. In a new set-up and after a drop a prepare is made before all else.
        hangs(Op::prepare, fails(Op::delay, EPIPE, 1,
                                                  " .    E    .    .    E    .    .    .  ")),
        hangs(Op::prepare, fails(Op::pointer, EPIPE, 1,
                                                  " .    E    .    .    E    .    .    .  ")),
        hangs(Op::resume, fails(Op::delay, ESTRPIPE, 1,
                                                  " E    E    E    E    E    E    .    .  ")),
        hangs(Op::drop, fails(Op::drop, EIO, 1,   " .    .    E    E    .    .    .    .  ")),
        hangs(Op::drain, fails(Op::drain, EIO, 1, " .    .    .    .    .    Q    .    F  ")),

        happens("short_writes", [](Card& card) { card.shorten_writes(7, 3); },
                                                  " S    S    S    S    S    S    .    .  "),
        happens("underrun", [](Card& card) { card.underrun(); },
                                                  " .    Q    S    S    Q    .    .    .  "),
        happens("suspended_resume_works", [](Card& card) { card.suspend(Resume::works); },
                                                  " .    S    S    S    S    Q    F    F  "),
        happens("suspended_resume_unsupported",
                [](Card& card) { card.suspend(Resume::unsupported); },
                                                  " .    Q    S    S    Q    Q    F    F  "),
        happens("suspended_for_good", [](Card& card) { card.suspend(Resume::stuck); },
                                                  " .    E    S    S    E    Q    F    F  "),
        happens("unplugged", [](Card& card) { card.unplug(); },
                                                  " E    E    E    E    E    E    F    F  "),
        happens("unplugged_and_plugged_in", [](Card& card) { card.unplug(); card.plug_in(); },
                                                  " .    E    E    E    E    Q    F    F  "),
    };
    // clang-format on
    return table;
}

// ---- A cell ------------------------------------------------------------------------------------

struct Cell {
    const Row* row;
    const Moment* moment;
    Outcome outcome;
    std::string name;
};
void PrintTo(const Cell& cell, std::ostream* out) {
    *out << cell.name << " -> " << static_cast<char>(cell.outcome);
}

std::vector<Cell> cells_of(const Row& row) {
    std::vector<Cell> cells;
    for (size_t i = 0; i < moments().size(); ++i) {
        const Moment& moment = moments()[i];
        const auto outcome = static_cast<Outcome>(row.outcomes.at(i));
        if (outcome != Outcome::does_not_occur) {
            cells.push_back({&row, &moment, outcome, row.name + "_" + moment.name});
        }
    }
    return cells;
}

// In the short form one cell of each row, another column from row to row.
std::vector<Cell> selected_cells() {
    std::vector<Cell> selected;
    size_t turn = 0;
    for (const Row& row : rows()) {
        const std::vector<Cell> cells = cells_of(row);
        if (std::getenv("NUVIO_LONG") != nullptr) {
            selected.insert(selected.end(), cells.begin(), cells.end());
        } else {
            selected.push_back(cells[turn++ % cells.size()]);
        }
    }
    return selected;
}

constexpr double kSlow = 0.5;
constexpr uint64_t kMaxCalls = 1500;  // of the PCM, in a session

class FaultMatrix : public CardSessions, public testing::WithParamInterface<Cell> {
  protected:
    // The first session of a cell.
    void play(const Cell& cell, Card& card, ScriptedSdk& sdk) {
        sdk.at([&](Point point) {
            if (struck_ || point != cell.moment->point) {
                return;
            }
            struck_ = true;
            for (const Fault& fault : cell.row->faults) {
                card.inject(fault);
            }
            if (cell.row->event != nullptr) {
                cell.row->event(card);
            }
            if (cell.moment->then == Moment::pause) {
                sdk.pause_for(30);
            } else if (cell.moment->then == Moment::seek) {
                sdk.seek_ahead(50);
            }
        });
        card.set_speed(cell.moment->is_slow ? kSlow : kSpeed);
        sdk.play(cell.moment->tracks);
    }

    bool struck_ = false;
};

void check(const Cell& cell, const Card& card, const ScriptedSdk& sdk) {
    const simcard::Counters counters = card.counters();
    for (const Fault& fault : cell.row->faults) {
        EXPECT_GE(counters.faults[static_cast<size_t>(fault.op)], 1U)
            << "the call is not made at this moment";
    }
    const auto* const mixer_calls = &counters.calls[static_cast<size_t>(Op::poll_revents) + 1];
    EXPECT_LE(std::accumulate(counters.calls, mixer_calls, uint64_t{0}), kMaxCalls);
    for (const simcard::Recording& recording : card.recordings()) {
        EXPECT_TRUE(recording.closed);
        EXPECT_TRUE(ScriptedSdk::is_in_order(Card::data(recording), recording.frame_bytes()))
            << "nothing is heard twice or out of order";
    }

    const bool fails = cell.outcome == Outcome::error;
    EXPECT_EQ(sdk.errors(), fails ? 1U : 0U);
    EXPECT_EQ(sdk.ended(), !fails);
    if (fails) {
        return;
    }
    uint64_t frames = 0;
    for (const Clip& track : cell.moment->tracks) {
        frames += track.frames();
    }
    EXPECT_EQ(sdk.frames_taken() + sdk.frames_skipped(), frames) << "the tracks are taken whole";
    EXPECT_EQ(counters.frames_played + counters.frames_dropped, counters.frames_written);
    const bool drops_itself = cell.moment->then != Moment::go_on;
    const bool loses_queue = cell.outcome != Outcome::silent;
    const uint64_t own_drops = drops_itself ? 1 : 0;
    EXPECT_GE(counters.calls[static_cast<size_t>(Op::drop)], own_drops);
    // On a busy machine the queue may have been heard before it could be dropped or lost.
    EXPECT_LE(counters.drops, own_drops + (loses_queue ? 1 : 0));
    if (!loses_queue) {
        EXPECT_EQ(counters.frames_written, sdk.frames_taken());
    }
}

TEST_P(FaultMatrix, SessionEndsAsStatedAndTheNextOnePlays) {
    const Cell& cell = GetParam();
    Card card = make_card(settings());
    make_renderer();
    card.reset_counters();
    const size_t descriptors = open_descriptors();
    {
        ScriptedSdk sdk(&loop_, renderer_);
        play(cell, card, sdk);
        run(sdk);
        EXPECT_TRUE(struck_) << "the moment never came";
        EXPECT_TRUE(run_until([&] { return open_descriptors() <= descriptors; }))
            << "a descriptor was left open";
        check(cell, card, sdk);
    }

    card.clear_faults();
    card.plug_in();
    card.set_speed(kSpeed);
    card.reset_counters();
    ScriptedSdk sdk(&loop_, renderer_);
    sdk.play({{kCd, 150}});
    run(sdk);
    EXPECT_EQ(sdk.errors(), 0U);
    EXPECT_TRUE(sdk.ended());
    EXPECT_EQ(card.counters().frames_played, sdk.frames_taken()) << "the next session plays";
}

INSTANTIATE_TEST_SUITE_P(AlsaCalls, FaultMatrix, testing::ValuesIn(selected_cells()),
                         [](const auto& cell) { return cell.param.name; });

}  // namespace
