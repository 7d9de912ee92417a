#include "media/sink/alsa/descriptor_poller.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <vector>

#include "common/unique_fd.h"
#include "loop_fixture.h"

using namespace std::chrono_literals;
using Events = std::vector<short>;

namespace {

class DescriptorPollerTest : public LoopTest {
  protected:
    descriptor_poller* make(const std::vector<pollfd>& entries) {
        auto copies = std::make_unique<pollfd[]>(entries.size());
        std::ranges::copy(entries, copies.get());
        return descriptor_poller_new(
            &loop_, std::move(copies), static_cast<unsigned>(entries.size()),
            {this, [](descriptor_poller* poller, pollfd* array, unsigned count, void* user_data) {
                 Events events;
                 std::transform(array, array + count, std::back_inserter(events),
                                [](const pollfd& entry) { return entry.revents; });
                 auto* self = static_cast<DescriptorPollerTest*>(user_data);
                 self->reports_.push_back(events);
                 if (count > 1) {
                     descriptor_poller_stop_polling(poller);
                 }
             }});
    }

    std::vector<Events> reports_;
};

TEST_F(DescriptorPollerTest, OnlyTheFiringEntryIsRewrittenAndUnusableEntriesAreLeftOut) {
    const nuvio::UniqueFd first(eventfd(1, EFD_NONBLOCK));
    const nuvio::UniqueFd third(eventfd(0, EFD_NONBLOCK));
    descriptor_poller* poller =
        make({{first.get(), POLLIN, 0}, {-1, POLLIN, 77}, {third.get(), POLLIN, 0}});
    run_for(20ms);
    EXPECT_TRUE(reports_.empty()) << "nothing is polled before start";
    descriptor_poller_start_polling(poller);
    ASSERT_TRUE(run_until([&] { return reports_.size() == 1; }));
    EXPECT_EQ(reports_[0], (Events{POLLIN, 77, 0}));

    eventfd_t value = 0;
    eventfd_read(first.get(), &value);
    eventfd_write(third.get(), 1);
    descriptor_poller_start_polling(poller);
    ASSERT_TRUE(run_until([&] { return reports_.size() == 2; }));
    EXPECT_EQ(reports_[1], (Events{POLLIN, 77, POLLIN})) << "the first keeps its last event's";
    descriptor_poller_free(poller);
    run_for(20ms);
    EXPECT_EQ(reports_.size(), 2U) << "no event after free";
}

TEST_F(DescriptorPollerTest, FailedDescriptorIsReportedOnceForEachStart) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const nuvio::UniqueFd writer(ends[1]);
    close(ends[0]);  // writing can only fail now
    descriptor_poller* poller = make({{writer.get(), POLLOUT, 0}});
    for (const size_t starts : {1U, 2U}) {
        descriptor_poller_start_polling(poller);
        run_for(20ms);
        EXPECT_EQ(reports_, std::vector(starts, Events{POLLERR}));
    }
    descriptor_poller_free(poller);
}

}  // namespace
