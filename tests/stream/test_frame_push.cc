// The push of frames to a port, seen through render passes: the attempts
// and their sleeps, the port's state, the channel of the last intra frame.
#include <unistd.h>

#include "log_capture.hh"
#include "stream_support.hh"

namespace {

using namespace stream_test;
using testing_support::log_capture;

// What reached the engine and the sleeps between, in order.  usleep is taken
// over for the whole process: the push's sleeps are counted, not slept.
std::vector<std::string> events;

}  // namespace

extern "C" __attribute__((visibility("default"))) int usleep(useconds_t us) {
  events.push_back("sleep " + std::to_string(us));
  return 0;
}

namespace {

void record_puts(int64_t result) {
  fake_engine::script("ravel_put_decode_stream", [result](const fake_engine::call &c) {
    events.push_back("put " + std::to_string(c.args[1]) + " " +
                     std::string(c.record.begin(), c.record.end()));
    return result;
  });
}

std::vector<std::string> repeated(const std::vector<std::string> &unit, int n) {
  std::vector<std::string> out;
  for (int i = 0; i < n; i++) out.insert(out.end(), unit.begin(), unit.end());
  return out;
}

class Push : public ::testing::Test {
 protected:
  void SetUp() override {
    h = make_display();
    ASSERT_EQ(orlo_display_bind_src_pipe(h, sink.element(), 0), 0);
  }
  orlo_display_t *h = nullptr;
  direct_sink sink;
};

TEST_F(Push, RefusedFrameGetsTwentyOneAttemptsEachFollowedByASleep) {
  log_capture log;
  decode_change(h, {{16, 4, 1}});
  record_puts(-1);
  free_counter fc;
  sink.render(make_list({fc.watch(make_frame(0, 1, "A0i"))}));
  EXPECT_EQ(events, repeated({"put 4 A0i", "sleep 1000"}, 21));
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING),
            std::vector<std::string>{"ravel push failed at port 4\n"});
  EXPECT_EQ(h->port_state[4], 1);
  EXPECT_EQ(fc.freed.load(), 1);  // the push gave its reference back
}

TEST_F(Push, PortInStateOneTakesIntraFramesOnlyWithOneAttempt) {
  log_capture log;
  decode_change(h, {{16, 4, 1}});
  h->port_state[4] = 1;
  record_puts(-1);
  sink.render(make_list({make_frame(0, 1, "A0i")}));
  sink.render(make_list({make_frame(0, 0, "A1")}));  // dropped at the gate, silently
  EXPECT_EQ(events, (std::vector<std::string>{"put 4 A0i", "sleep 1000"}));
  EXPECT_EQ(log.count("ravel push failed at port 4\n"), 1);
  // An accepted intra frame puts the port back in step for the inter frames.
  record_puts(0);
  sink.render(make_list({make_frame(0, 5, "A2i5")}));
  EXPECT_EQ(h->port_state[4], 0);
  sink.render(make_list({make_frame(0, 0, "A3")}));
  EXPECT_EQ(events,
            (std::vector<std::string>{"put 4 A0i", "sleep 1000", "put 4 A2i5", "put 4 A3"}));
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING).size(), 1u);
}

TEST_F(Push, ForeignChannelCostsNoAttemptNoSleepAndClosesThePort) {
  log_capture log;
  // Channels 0 and 1 share port 4.
  decode_change(h, {{16, 4, 1}, {17, 4, 1}});
  record_puts(0);
  sink.render(make_list({make_frame(1, 1, "B0i")}));
  sink.render(make_list({make_frame(0, 1, "A0i")}));
  events.clear();
  sink.render(make_list({make_frame(1, 0, "B1")}));
  EXPECT_TRUE(events.empty());
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING),
            std::vector<std::string>{"previous ch(0) is not matched with current ch(1)\n"});
  EXPECT_EQ(h->port_state[4], 1);
  sink.render(make_list({make_frame(0, 0, "A1")}));  // the port now waits for an intra frame
  EXPECT_TRUE(events.empty());
}

TEST_F(Push, FreshPortRemembersChannelZero) {
  log_capture log;
  decode_change(h, {{16, 4, 1}, {19, 5, 1}});
  record_puts(0);
  sink.render(make_list({make_frame(0, 1, "A0i"), make_frame(3, 1, "D0i")}));
  // The slots keep flowing on ports that have seen no intra frame yet.
  decode_change(h, {{16, 10, 1}, {19, 11, 1}});
  events.clear();
  sink.render(make_list({make_frame(0, 0, "A1"), make_frame(3, 0, "D1")}));
  EXPECT_EQ(events, std::vector<std::string>{"put 10 A1"});
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING),
            std::vector<std::string>{"previous ch(0) is not matched with current ch(3)\n"});
}

TEST_F(Push, MainPortCopyOfARefusedFrameRetriesAtTheCurrentMainPort) {
  decode_change(h, {{16, 4, 1, 1}});
  h->main_port = 9;
  fake_engine::script("ravel_put_decode_stream", [this](const fake_engine::call &c) -> int64_t {
    events.push_back("put " + std::to_string(c.args[1]));
    if (c.args[1] == 4) return 0;
    h->main_port = 12;  // the layout moves main_port while the copy retries
    return -1;
  });
  sink.render(make_list({make_frame(0, 1, "A0i")}));
  ASSERT_GE(events.size(), 4u);
  EXPECT_EQ(std::vector<std::string>(events.begin(), events.begin() + 4),
            (std::vector<std::string>{"put 4", "put 9", "sleep 1000", "put 12"}));
  EXPECT_EQ(h->port_state[12], 1);
  EXPECT_EQ(h->port_state[9], 0);
}

}  // namespace
