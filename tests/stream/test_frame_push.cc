// The push of frames to a port, seen through render passes: the attempts
// and their sleeps, the port's state, the channel of the last intra frame,
// and the release of every reference.
#include <algorithm>

#include "stream_support.hh"

namespace {

using namespace stream_test;
using strings = std::vector<std::string>;

// What reached the engine and the sleeps between, in order.  usleep is taken
// over for the whole process: the push's sleeps are counted, not slept.
strings events;

}  // namespace

extern "C" __attribute__((visibility("default"))) int usleep(useconds_t us) {
  events.push_back("sleep " + std::to_string(us));
  return 0;
}

namespace {

// The engine answers `result` and records each attempt as "put <port> <payload>".
void record_puts(int64_t result) {
  fake_engine::script("ravel_put_decode_stream", [result](const fake_engine::call &c) {
    events.push_back("put " + std::to_string(c.args[1]) + " " +
                     std::string(c.record.begin(), c.record.end()));
    return result;
  });
}

using Push = display_test;

TEST_F(Push, RefusedFrameGetsTwentyOneAttemptsThenOneInStateOne) {
  log_capture log;
  decode_change(h, {{16, 4, 1}});
  record_puts(-1);
  free_counter fc;
  sink.render(make_list({fc.watch(make_frame(0, 1, "A0i"))}));
  strings expected;
  for (int i = 0; i < 21; i++) expected.insert(expected.end(), {"put 4 A0i", "sleep 1000"});
  EXPECT_EQ(events, expected);
  EXPECT_EQ(h->port_state[4], 1);
  EXPECT_EQ(fc.freed.load(), 1);  // the push gave its reference back
  // In state 1 the port takes intra frames only, with one attempt each.
  events.clear();
  sink.render(make_list({make_frame(0, 1, "A1i")}));
  sink.render(make_list({make_frame(0, 0, "A2")}));  // dropped at the gate, silently
  // An accepted intra frame (type 5 as well) puts the port back in step.
  record_puts(0);
  sink.render(make_list({make_frame(0, 5, "A3i5")}));
  EXPECT_EQ(h->port_state[4], 0);
  sink.render(make_list({make_frame(0, 0, "A4")}));
  EXPECT_EQ(events, (strings{"put 4 A1i", "sleep 1000", "put 4 A3i5", "put 4 A4"}));
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING), strings(2, "ravel push failed at port 4\n"));
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
  EXPECT_EQ(strings(events.begin(), events.begin() + 4),
            (strings{"put 4", "put 9", "sleep 1000", "put 12"}));
  EXPECT_EQ(h->port_state[12], 1);
  EXPECT_EQ(h->port_state[9], 0);
}

// Every frame buffer and every list buffer is freed exactly once, whatever
// became of its frames: accepted, refused, foreign, gated or played.  A
// foreign frame costs no attempt and no sleep, and closes the port.
TEST_F(Push, EveryBufferIsFreedExactlyOnce) {
  log_capture log;
  // Channel 0 to port 4 with a copy to main_port 9; channel 1 to port 5;
  // channel 2 to port 6, which refuses everything; channel 17 shares port 4.
  decode_change(h, {{16, 4, 1, 1}, {17, 5, 1}, {18, 6, 1}, {33, 4, 1}});
  h->main_port = 9;
  orlo_display_audio_change(h, -1, 1);
  fake_engine::script("ravel_put_decode_stream", [](const fake_engine::call &c) -> int64_t {
    return c.args[1] == 6 ? -1 : 0;
  });
  fake_engine::hold_frames(true);
  free_counter frames, lists;
  auto f = [&](uint8_t ch, uint8_t type, const char *payload) {
    return frames.watch(make_frame(ch, type, payload));
  };
  // 1: accepted (and copied), accepted, refused 21 times, played.
  // 2: channel 17's intra frame takes port 4, so channel 0's inter frame is
  //    foreign there; its copy is accepted; port 6 is gated; channel 3 is off.
  // 3: a replaced frame and a non-frame.  4: an empty list.
  const std::vector<std::vector<GstBuffer *>> passes = {
      {f(0, 1, "A0i"), f(1, 1, "B0i"), f(2, 1, "C0i"), f(0, 10, "pcm0")},
      {f(0, 0, "A1"), f(1, 0, "B1"), f(2, 0, "C1"), f(17, 1, "E0i"), f(3, 1, "D0i"),
       f(5, 10, "pcm5")},
      {f(1, 0, "B2"), f(1, 0, "B3"), frames.watch(gst_buffer_new_allocate(nullptr, 8, nullptr))},
      {},
  };
  for (const auto &members : passes) sink.render(lists.watch(make_list(members)));
  EXPECT_EQ(lists.freed.load(), 4);
  // The engine took A0i twice (port and copy), B0i, E0i, A1's copy, B1 and
  // B3; port 6 saw C0i 21 times and nothing after.
  EXPECT_EQ(fake_engine::calls("ravel_put_decode_stream").size(), 28u);
  EXPECT_EQ(std::count(events.begin(), events.end(), "sleep 1000"), 21);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING),
            (strings{"ravel push failed at port 6\n",
                     "previous ch(17) is not matched with current ch(0)\n"}));
  EXPECT_EQ(h->port_state[4], 1);
  // It still holds the six frames it accepted; every other frame is gone with
  // its list or with the push that gave it up.
  EXPECT_EQ(frames.freed.load(), frames.watched.load() - 6);
  EXPECT_EQ(fake_engine::release_held(), 7);
  EXPECT_EQ(frames.freed.load(), frames.watched.load());
  EXPECT_EQ(heard(), "pcm0pcm5");
}

}  // namespace
