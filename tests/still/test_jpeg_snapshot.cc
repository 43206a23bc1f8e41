// JPEG snapshots: the request, the timed wait and the hand-over between the
// engine's thread and the caller.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>

#include "still_support.hh"

namespace {

using namespace std::chrono_literals;
using still::logged;
using testing_support::log_capture;

// Answers with a JPEG as the engine hands it over: released with free().
void answer(ravel_jpeg_cb cb, uint32_t w) {
  void *word = std::malloc(16);
  cb(&word, w + 1, w + 2, w + 3, w + 4, w + 5);
}

// The engine answers `delay` after the request, on a thread of its own.
void answer_after(std::chrono::milliseconds delay, uint32_t w = 0) {
  fake_engine::script("ravel_jpeg_enc", [delay, w](const fake_engine::call &c) -> int64_t {
    ravel_jpeg_cb cb = c.jpeg_cb;
    still::later(delay, [cb, w] { answer(cb, w); });
    return 0;
  });
}

struct outs {
  void *buf = nullptr;
  uint32_t w2 = 0, w3 = 0, w4 = 0, w5 = 0;
};

int snapshot(orlo_display_t *h, int ch, unsigned mode, int dispmode, outs &o) {
  const int r = orlo_display_get_jpeg_snapshot(h, ch, mode, dispmode, 11, 22, &o.buf, &o.w2, &o.w3,
                                               &o.w4, &o.w5);
  if (r == 0) std::free(o.buf);
  return r;
}

TEST(JpegSnapshot, EachModeRequestsThenHandsOverTheAnswer) {
  orlo_display_t *h = still::make_display();
  ASSERT_NE(h, nullptr);
  orlo_set_pb_timestamp(2, 777);
  answer_after(50ms, 10);
  for (unsigned mode : {0u, 1u, 3u}) {
    outs o;
    ASSERT_EQ(snapshot(h, 6, mode, 13, o), 0);
    EXPECT_EQ(o.w2, 12u);
    EXPECT_EQ(o.w5, 15u);
  }
  EXPECT_EQ(fake_engine::names(),
            (std::vector<std::string>{"ravel_new", "ravel_set_jpeg_dstntimeimg", "ravel_jpeg_enc",
                                      "ravel_set_jpeg_dstntimeimg", "ravel_jpeg_enc",
                                      "ravel_jpeg_enc", "ravel_set_jpeg_dstntimeimg",
                                      "ravel_set_jpeg_timestamp", "ravel_pause_frame"}));
  auto enc = fake_engine::calls("ravel_jpeg_enc");
  EXPECT_EQ(enc[0].args[1], 6);  // the channel as given: no port rule in modes 0 and 1
  EXPECT_EQ(enc[0].args[2], 0);
  EXPECT_EQ(enc[1].args[2], 1);
  EXPECT_EQ(enc[2].args[1], 2);  // the paused frame's port, with its last timestamp
  auto ts = fake_engine::calls("ravel_set_jpeg_timestamp");
  EXPECT_EQ(ts[0].args[1], 2);
  EXPECT_EQ(ts[0].args[2], 777);
  auto dst = fake_engine::calls("ravel_set_jpeg_dstntimeimg");
  EXPECT_EQ(dst[0].args[2], 11);
  EXPECT_EQ(dst[0].args[3], 22);
}

TEST(JpegSnapshot, LateAnswerIsFreedByTheCallbackAndTheNextSnapshotWorks) {
  log_capture log;
  orlo_display_t *h = still::make_display();
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
  const auto warnings = log.texts(G_LOG_LEVEL_WARNING);
  EXPECT_TRUE(g_regex_match_simple(
      "^\\n###### _cb_get_jpeg_image : [0-9]+ : late !!! get_jpeg.cancel, so free buf ###\\n$",
      warnings.back().c_str(), G_REGEX_DEFAULT, G_REGEX_MATCH_DEFAULT))
      << warnings.back();
  answer_after(20ms, 100);
  ASSERT_EQ(snapshot(h, 2, 0, 0, o), 0);
  EXPECT_EQ(o.w3, 103u);
}

TEST(JpegSnapshot, SecondCallerIsRefusedAtOnce) {
  log_capture log;
  orlo_display_t *h = still::make_display();
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
  orlo_display_t *h = still::make_display();
  EXPECT_EQ(snapshot(h, 0, 4, 0, o), -1);
  EXPECT_EQ(fake_engine::calls().size(), 1u);  // no engine call for an unknown mode
  fake_engine::script_result("ravel_jpeg_enc", -1);
  EXPECT_EQ(snapshot(h, 0, 0, 0, o), -1);
  fake_engine::script_result("ravel_jpeg_enc", 0);
  fake_engine::script_result("ravel_pause_frame", -3);
  EXPECT_EQ(snapshot(h, 4, 3, 13, o), -1);
  // A playback port beyond the snapshot table: nothing is armed.
  size_t before = fake_engine::calls().size();
  EXPECT_EQ(snapshot(h, 40, 2, 19, o), -1);
  EXPECT_EQ(fake_engine::calls().size(), before);
  for (const char *w :
       {": ravel has not been created!\n", ": Unknwon mode : 4\n",
        ": ravel_jpeg_enc failed ret : -1\n", ": ravel_pause_frame failed ret : -3\n"})
    EXPECT_TRUE(logged(log, w)) << w;
  // Then one that works, answered inside the request, before any wait:
  // the answer is not lost.
  fake_engine::script("ravel_jpeg_enc", [](const fake_engine::call &c) -> int64_t {
    answer(c.jpeg_cb, 0);
    return 0;
  });
  EXPECT_EQ(snapshot(h, 0, 1, 0, o), 0);
}

TEST(JpegSnapshot, PausedFrameFollowsThePortRuleOfEveryDisplayMode) {
  log_capture log;
  orlo_display_t *h = still::make_display();
  fake_engine::script_result("ravel_jpeg_enc", -1);  // stop after the port is known
  struct rule {
    int dispmode, ch, port;
  };
  const rule rules[] = {{12, 7, 0},  {21, 9, 0},  {13, 6, 2},  {14, 7, 1}, {15, 13, 1},
                        {16, 10, 2}, {17, 17, 1}, {18, 10, 1}, {19, 5, 5}, {20, 3, 3}};
  outs o;
  for (const rule &r : rules) EXPECT_EQ(snapshot(h, r.ch, 3, r.dispmode, o), -1);
  auto enc = fake_engine::calls("ravel_jpeg_enc");
  ASSERT_EQ(enc.size(), std::size(rules));
  for (size_t i = 0; i < enc.size(); i++) {
    EXPECT_EQ(enc[i].args[1], rules[i].port) << "dispmode " << rules[i].dispmode;
    EXPECT_EQ(enc[i].args[2], 0);
  }
  int unsupported = 0;
  for (auto &m : log.texts(G_LOG_LEVEL_MESSAGE))
    unsupported += m.find("not supprot dispmode : ") != std::string::npos;
  EXPECT_EQ(unsupported, 2);  // 19 and 20
}

}  // namespace
