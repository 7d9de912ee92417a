#include "media/sink/alsa/descriptor_poller.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <vector>

#include "loop_fixture.h"

using namespace std::chrono_literals;

namespace {

using Events = std::vector<short>;

class DescriptorPollerTest : public LoopTest {
  protected:
    ~DescriptorPollerTest() override {
        for (const int descriptor : m_descriptors) {
            close(descriptor);
        }
    }

    int keep(int descriptor) { return m_descriptors.emplace_back(descriptor); }
    int new_event() { return keep(eventfd(0, EFD_NONBLOCK)); }
    static void signal(int event) { eventfd_write(event, 1); }

    descriptor_poller* make(const std::vector<pollfd>& entries) {
        array_ = std::make_unique<pollfd[]>(entries.size());
        std::ranges::copy(entries, array_.get());
        return descriptor_poller_new(
            &loop_, std::move(array_), static_cast<unsigned>(entries.size()),
            {this, [](descriptor_poller* poller, pollfd* array, unsigned count, void* user_data) {
                 static_cast<DescriptorPollerTest*>(user_data)->on_event(poller, array, count);
             }});
    }

    void on_event(descriptor_poller* poller, const pollfd* array, unsigned count) {
        last_events_.clear();
        for (unsigned i = 0; i < count; ++i) {
            last_events_.push_back(array[i].revents);
        }
        ++event_count_;
        if (stop_on_event_) {
            descriptor_poller_stop_polling(poller);
        }
    }

    std::unique_ptr<pollfd[]> array_;
    Events last_events_;
    int event_count_ = 0;
    bool stop_on_event_ = true;

  private:
    std::vector<int> m_descriptors;
};

TEST_F(DescriptorPollerTest, OnlyTheFiringEntryIsRewrittenAndUnusableEntriesAreLeftOut) {
    const int first = new_event();
    const int third = new_event();
    descriptor_poller* poller =
        make({{first, POLLIN, 0}, {-1, POLLIN, 77}, {third, POLLIN | POLLOUT, 0}});
    ASSERT_NE(poller, nullptr);

    signal(first);
    run_for(20ms);
    EXPECT_EQ(event_count_, 0) << "nothing is polled before start";

    descriptor_poller_start_polling(poller);
    ASSERT_TRUE(run_until([&] { return event_count_ == 1; }));
    EXPECT_THAT(last_events_, testing::AnyOf(Events{POLLIN, 77, 0}, Events{0, 77, POLLOUT}));

    // The first entry keeps what its own last event wrote.
    eventfd_t value = 0;
    eventfd_read(first, &value);
    signal(third);
    descriptor_poller_start_polling(poller);
    ASSERT_TRUE(run_until([&] { return event_count_ == 2; }));
    EXPECT_EQ(last_events_[1], 77);
    EXPECT_EQ(last_events_[2], POLLIN | POLLOUT);

    descriptor_poller_free(poller);
    run_for(20ms);
    EXPECT_EQ(event_count_, 2) << "no event after free";
}

TEST_F(DescriptorPollerTest, FailedDescriptorIsReportedOnceForEachStart) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const int writer = keep(ends[1]);
    close(ends[0]);  // writing can only fail now
    stop_on_event_ = false;
    descriptor_poller* poller = make({{writer, POLLOUT, 0}});
    for (int starts = 1; starts <= 2; ++starts) {
        descriptor_poller_start_polling(poller);
        run_for(20ms);
        EXPECT_EQ(event_count_, starts);
        EXPECT_EQ(last_events_, Events{POLLERR});
    }
    descriptor_poller_free(poller);
}

}  // namespace
