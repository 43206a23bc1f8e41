// JPEG snapshots: the request, the timed wait and the hand-over between the
// engine's thread and the caller.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <future>
#include <regex>

#include "still_support.hh"

namespace {

using namespace still;
using names = std::vector<std::string>;

// Answers with a JPEG as the engine hands it over: released with free().
void answer(ravel_jpeg_cb cb, uint32_t w) {
  void *word = std::malloc(16);
  cb(&word, w + 1, w + 2, w + 3, w + 4, w + 5);
}

// The engine takes each encode request and answers it on a thread of its own.
void engine_answers(uint32_t w = 0) {
  fake_engine::script("ravel_jpeg_enc", [w](const fake_engine::call &c) -> int64_t {
    on_engine_thread([cb = c.jpeg_cb, w] { answer(cb, w); });
    return 0;
  });
}

// The engine calls after ravel_new, each with its words after the handle
// (the encode request's callback left out).
names trace() {
  names out;
  for (const auto &c : fake_engine::calls()) {
    if (c.name == "ravel_new") continue;
    std::string line = c.name;
    const size_t n = c.args.size() - (c.name == "ravel_jpeg_enc" ? 1 : 0);
    for (size_t i = 1; i < n; i++) line += " " + std::to_string(c.args[i]);
    out.push_back(line);
  }
  return out;
}

struct outs {
  void *buf = nullptr;
  uint32_t w[4] = {};
};

// A snapshot with dstn 11 and timeimg 22; the picture is freed at once.
int snapshot(orlo_display_t *h, int ch, unsigned mode, int dispmode, outs &o) {
  const int r = orlo_display_get_jpeg_snapshot(h, ch, mode, dispmode, 11, 22, &o.buf, &o.w[0],
                                               &o.w[1], &o.w[2], &o.w[3]);
  EXPECT_TRUE(r != 0 || o.buf != nullptr);
  std::free(r == 0 ? o.buf : nullptr);
  return r;
}

TEST(JpegSnapshot, EachModeRequestsThenHandsOverTheAnswer) {
  orlo_display_t *h = make_display();
  orlo_set_pb_timestamp(2, 777);
  engine_answers(10);
  for (unsigned mode : {0u, 1u, 3u}) {
    outs o;
    ASSERT_EQ(snapshot(h, 6, mode, 13, o), 0);
    EXPECT_EQ(std::vector<uint32_t>(o.w, o.w + 4), (std::vector<uint32_t>{12, 13, 14, 15}));
  }
  // Mode 2 arms port 0 for the next playback frame, which brings the answer.
  const ravel_jpeg_cb cb = fake_engine::calls("ravel_jpeg_enc")[0].jpeg_cb;
  fake_engine::script("ravel_set_jpeg_dstntimeimg", [cb](const fake_engine::call &) -> int64_t {
    on_engine_thread([cb] { answer(cb, 20); });
    return 0;
  });
  outs o;
  ASSERT_EQ(snapshot(h, 5, 2, 12, o), 0);
  EXPECT_EQ(o.w[3], 25u);
  // Modes 0 and 1: the channel as given, flag 0 or 1; mode 3: the paused
  // frame's port (6 in mode 13: 2) with its last time stamp, encode first.
  EXPECT_EQ(trace(),
            (names{"ravel_set_jpeg_dstntimeimg 6 11 22", "ravel_jpeg_enc 6 0",
                   "ravel_set_jpeg_dstntimeimg 6 11 22", "ravel_jpeg_enc 6 1", "ravel_jpeg_enc 2 0",
                   "ravel_set_jpeg_dstntimeimg 2 11 22", "ravel_set_jpeg_timestamp 2 777",
                   "ravel_pause_frame 2", "ravel_set_jpeg_dstntimeimg 0 11 22"}));
}

// One snapshot at a time: a second caller is refused at once while the
// first waits; an answer after the wait is freed by the callback.
TEST(JpegSnapshot, SecondCallerIsRefusedAndALateAnswerIsFreedByTheCallback) {
  log_capture log;
  orlo_display_t *h = make_display();
  std::promise<ravel_jpeg_cb> requested;
  fake_engine::script("ravel_jpeg_enc", [&](const fake_engine::call &c) -> int64_t {
    requested.set_value(c.jpeg_cb);  // no answer in time
    return 0;
  });
  int first = 99;
  outs o1, o2;
  o1.buf = &o1;  // untouched on failure
  std::thread t([&] { first = snapshot(h, 0, 0, 0, o1); });
  const ravel_jpeg_cb late = requested.get_future().get();
  EXPECT_EQ(snapshot(h, 1, 0, 0, o2), -2);
  EXPECT_EQ(o2.buf, nullptr);
  t.join();
  EXPECT_EQ(first, -1);
  EXPECT_EQ(o1.buf, &o1);
  EXPECT_TRUE(logged(log, ": g_mutex_trylock fail!\n"));
  EXPECT_TRUE(logged(log, ": get jpeg image failed\n"));
  answer(late, 0);  // LeakSanitizer watches the free
  EXPECT_TRUE(std::regex_match(
      log.texts(G_LOG_LEVEL_WARNING).back(),
      std::regex(
          "\n###### _cb_get_jpeg_image : [0-9]+ : late !!! get_jpeg.cancel, so free buf ###\n")));
  engine_answers(100);
  ASSERT_EQ(snapshot(h, 2, 0, 0, o1), 0);
  EXPECT_EQ(o1.w[1], 103u);
}

TEST(JpegSnapshot, RefusalsLeaveTheNextSnapshotWorking) {
  log_capture log;
  outs o;
  orlo_display_t no_engine{};
  EXPECT_EQ(snapshot(&no_engine, 0, 0, 0, o), -1);  // before any display made the engine
  orlo_display_t *h = make_display();
  EXPECT_EQ(snapshot(h, 0, 4, 0, o), -1);
  // A playback port beyond the snapshot table: nothing is armed.
  EXPECT_EQ(snapshot(h, 32, 2, 19, o), -1);
  EXPECT_EQ(trace(), names{});
  fake_engine::script_result("ravel_jpeg_enc", -1);
  EXPECT_EQ(snapshot(h, 0, 0, 0, o), -1);
  fake_engine::script_result("ravel_jpeg_enc", 0);
  fake_engine::script_result("ravel_pause_frame", -3);
  EXPECT_EQ(snapshot(h, 4, 3, 13, o), -1);
  for (const char *w :
       {" : ravel has not been created!\n", ": Unknwon mode : 4\n",
        ": ravel_jpeg_enc failed ret : -1\n", ": ravel_pause_frame failed ret : -3\n"})
    EXPECT_TRUE(logged(log, w)) << w;
  // Then one that works, answered inside the request, before any wait: the
  // answer is not lost.
  fake_engine::script("ravel_jpeg_enc", [](const fake_engine::call &c) -> int64_t {
    answer(c.jpeg_cb, 0);
    return 0;
  });
  EXPECT_EQ(snapshot(h, 0, 1, 0, o), 0);
}

TEST(JpegSnapshot, PausedFrameFollowsThePortRuleOfEveryDisplayMode) {
  log_capture log;
  orlo_display_t *h = make_display();
  fake_engine::script_result("ravel_jpeg_enc", -1);  // stop once the port is known
  const struct {
    int dispmode, ch, port;
  } rules[] = {{12, 7, 0},  {21, 9, 0},  {13, 6, 2},  {14, 7, 1}, {15, 13, 1},
               {16, 10, 2}, {17, 17, 1}, {18, 10, 1}, {19, 5, 5}, {20, 3, 3}};
  outs o;
  names want;
  for (const auto &r : rules) {
    EXPECT_EQ(snapshot(h, r.ch, 3, r.dispmode, o), -1);
    want.push_back("ravel_jpeg_enc " + std::to_string(r.port) + " 0");
  }
  EXPECT_EQ(trace(), want);
  // One line for each rule, and one more before it for 19 and 20.
  auto messages = log.texts(G_LOG_LEVEL_MESSAGE);
  ASSERT_EQ(messages.size(), 12u);
  const std::regex line_no(" : [0-9]+ : ");
  for (auto &m : messages) m = std::regex_replace(m, line_no, " : N : ");
  EXPECT_EQ(messages[8], "_get_snapshot_port : N : not supprot dispmode : 19, snapshot ch : 5\n");
  EXPECT_EQ(messages[9], "_get_snapshot_port : N : dispmode : 19, snapshot ch : 5\n");
}

}  // namespace
