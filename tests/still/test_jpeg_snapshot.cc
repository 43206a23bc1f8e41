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

// The engine answers `delay` after the request, on a thread of its own.
void answer_after(std::chrono::milliseconds delay, uint32_t w = 0) {
  fake_engine::script("ravel_jpeg_enc", [delay, w](const fake_engine::call &c) -> int64_t {
    ravel_jpeg_cb cb = c.jpeg_cb;
    later(delay, [cb, w] { answer(cb, w); });
    return 0;
  });
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
  answer_after(50ms, 10);
  for (unsigned mode : {0u, 1u, 3u}) {
    outs o;
    ASSERT_EQ(snapshot(h, 6, mode, 13, o), 0);
    EXPECT_EQ(std::vector<uint32_t>(o.w, o.w + 4), (std::vector<uint32_t>{12, 13, 14, 15}));
  }
  EXPECT_EQ(fake_engine::names(),
            (names{"ravel_new", "ravel_set_jpeg_dstntimeimg", "ravel_jpeg_enc",
                   "ravel_set_jpeg_dstntimeimg", "ravel_jpeg_enc", "ravel_jpeg_enc",
                   "ravel_set_jpeg_dstntimeimg", "ravel_set_jpeg_timestamp", "ravel_pause_frame"}));
  // Modes 0 and 1: the channel as given, flag 0 or 1; mode 3: the paused
  // frame's port, with its last time stamp.
  const auto enc = fake_engine::calls("ravel_jpeg_enc");
  EXPECT_EQ((std::vector<int64_t>{enc[0].args[1], enc[0].args[2], enc[1].args[1], enc[1].args[2],
                                  enc[2].args[1], enc[2].args[2]}),
            (std::vector<int64_t>{6, 0, 6, 1, 2, 0}));
  EXPECT_EQ(fake_engine::calls("ravel_set_jpeg_timestamp")[0].args[2], 777);
  EXPECT_EQ(fake_engine::calls("ravel_pause_frame")[0].args[1], 2);

  auto dstn_args = [] {
    std::vector<int64_t> v;
    for (const auto &c : fake_engine::calls("ravel_set_jpeg_dstntimeimg"))
      v.insert(v.end(), c.args.begin() + 1, c.args.end());
    return v;
  };
  EXPECT_EQ(dstn_args(), (std::vector<int64_t>{6, 11, 22, 6, 11, 22, 2, 11, 22}));

  // Mode 2 arms port 0 for the next playback frame, which brings the answer.
  const ravel_jpeg_cb cb = enc[0].jpeg_cb;
  fake_engine::reset();
  fake_engine::script("ravel_set_jpeg_dstntimeimg", [cb](const fake_engine::call &) -> int64_t {
    later(50ms, [cb] { answer(cb, 20); });
    return 0;
  });
  outs o;
  ASSERT_EQ(snapshot(h, 5, 2, 12, o), 0);
  EXPECT_EQ(o.w[3], 25u);
  EXPECT_EQ(fake_engine::names(), (names{"ravel_set_jpeg_dstntimeimg"}));
  EXPECT_EQ(dstn_args(), (std::vector<int64_t>{0, 11, 22}));
}

TEST(JpegSnapshot, LateAnswerIsFreedByTheCallbackAndTheNextSnapshotWorks) {
  log_capture log;
  orlo_display_t *h = make_display();
  std::atomic<ravel_jpeg_cb> pending{nullptr};
  fake_engine::script("ravel_jpeg_enc", [&](const fake_engine::call &c) -> int64_t {
    pending = c.jpeg_cb;  // no answer in time
    return 0;
  });
  outs o;
  o.buf = &o;  // untouched on failure
  EXPECT_EQ(snapshot(h, 2, 0, 0, o), -1);
  EXPECT_EQ(o.buf, &o);
  EXPECT_TRUE(logged(log, ": get jpeg image failed\n"));
  // The late answer: freed by the callback (LeakSanitizer watches).
  answer(pending.load(), 0);
  EXPECT_TRUE(std::regex_match(
      log.texts(G_LOG_LEVEL_WARNING).back(),
      std::regex(
          "\n###### _cb_get_jpeg_image : [0-9]+ : late !!! get_jpeg.cancel, so free buf ###\n")));
  answer_after(20ms, 100);
  ASSERT_EQ(snapshot(h, 2, 0, 0, o), 0);
  EXPECT_EQ(o.w[1], 103u);
}

TEST(JpegSnapshot, SecondCallerIsRefusedAtOnce) {
  log_capture log;
  orlo_display_t *h = make_display();
  // The engine holds the first request until the second caller was refused.
  std::promise<ravel_jpeg_cb> requested;
  fake_engine::script("ravel_jpeg_enc", [&](const fake_engine::call &c) -> int64_t {
    requested.set_value(c.jpeg_cb);
    return 0;
  });
  int first = 99;
  outs o1, o2;
  std::thread t([&] { first = snapshot(h, 0, 0, 0, o1); });
  const ravel_jpeg_cb cb = requested.get_future().get();
  EXPECT_EQ(snapshot(h, 1, 0, 0, o2), -2);
  EXPECT_EQ(o2.buf, nullptr);
  answer(cb, 0);
  t.join();
  EXPECT_EQ(first, 0);
  EXPECT_TRUE(logged(log, ": g_mutex_trylock fail!\n"));
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
  EXPECT_EQ(fake_engine::calls().size(), 1u);  // ravel_new only
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
  std::vector<int64_t> want, got;
  for (const auto &r : rules) {
    EXPECT_EQ(snapshot(h, r.ch, 3, r.dispmode, o), -1);
    want.push_back(r.port);
  }
  for (const auto &c : fake_engine::calls("ravel_jpeg_enc")) got.push_back(c.args[1]);
  EXPECT_EQ(got, want);
  const auto messages = log.texts(G_LOG_LEVEL_MESSAGE);
  const std::regex ruled("_get_snapshot_port : [0-9]+ : dispmode : 19, snapshot ch : 5\n");
  const std::regex unsupported(
      "_get_snapshot_port : [0-9]+ : not supprot dispmode : 19, snapshot ch : 5\n");
  EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                          [&](const std::string &m) { return std::regex_match(m, unsupported); }),
            1);
  EXPECT_EQ(std::count_if(messages.begin(), messages.end(),
                          [&](const std::string &m) { return std::regex_match(m, ruled); }),
            1);
  EXPECT_EQ(messages.size(), 12u);  // one for each rule, and one more for 19 and 20
}

}  // namespace
