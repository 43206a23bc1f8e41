// JPEG snapshots: the request, the timed wait and the hand-over between the
// engine's thread and the caller.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>

#include "log_capture.hh"
#include "still_support.hh"

namespace {

using namespace std::chrono_literals;
using testing_support::log_capture;

// A JPEG as the engine hands it over: released with free().
void *engine_jpeg(size_t n) {
  void *p = std::malloc(n);
  std::memset(p, 0xd8, n);
  return p;
}

void answer(ravel_jpeg_cb cb, void *jpeg, uint32_t w) {
  void *word = jpeg;
  cb(&word, w + 1, w + 2, w + 3, w + 4, w + 5);
}

struct outs {
  void *buf = nullptr;
  uint32_t w2 = 0, w3 = 0, w4 = 0, w5 = 0;
};

int snapshot(orlo_display_t *h, int ch, unsigned mode, int dispmode, outs &o) {
  return orlo_display_get_jpeg_snapshot(h, ch, mode, dispmode, 11, 22, &o.buf, &o.w2, &o.w3,
                                        &o.w4, &o.w5);
}

TEST(JpegSnapshot, ChannelModesRequestThenHandOverTheAnswer) {
  orlo_display_t *h = still::make_display();
  ASSERT_NE(h, nullptr);
  fake_engine::script("ravel_jpeg_enc", [](const fake_engine::call &c) -> int64_t {
    ravel_jpeg_cb cb = c.jpeg_cb;
    still::later(50ms, [cb] { answer(cb, engine_jpeg(100), 10); });
    return 0;
  });
  for (unsigned mode : {0u, 1u}) {
    outs o;
    ASSERT_EQ(snapshot(h, 5, mode, 13, o), 0);
    ASSERT_NE(o.buf, nullptr);
    EXPECT_EQ(o.w2, 12u);
    EXPECT_EQ(o.w5, 15u);
    std::free(o.buf);
  }
  auto names = fake_engine::names();
  std::vector<std::string> expected = {"ravel_new", "ravel_set_jpeg_dstntimeimg", "ravel_jpeg_enc",
                                       "ravel_set_jpeg_dstntimeimg", "ravel_jpeg_enc"};
  EXPECT_EQ(names, expected);
  auto enc = fake_engine::calls("ravel_jpeg_enc");
  EXPECT_EQ(enc[0].args[1], 5);  // the channel as given: no port rule in these modes
  EXPECT_EQ(enc[0].args[2], 0);
  EXPECT_EQ(enc[1].args[2], 1);
  auto dst = fake_engine::calls("ravel_set_jpeg_dstntimeimg");
  EXPECT_EQ(dst[0].args[2], 11);
  EXPECT_EQ(dst[0].args[3], 22);
}

TEST(JpegSnapshot, AnAnswerBeforeTheWaitIsNotLost) {
  orlo_display_t *h = still::make_display();
  fake_engine::script("ravel_jpeg_enc", [](const fake_engine::call &c) -> int64_t {
    answer(c.jpeg_cb, engine_jpeg(10), 0);  // inside the request, before any wait
    return 0;
  });
  outs o;
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(snapshot(h, 1, 0, 0, o), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
  std::free(o.buf);
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
  bool timed_out = false;
  for (auto &t : log.texts(G_LOG_LEVEL_WARNING))
    timed_out |= t.find(": get jpeg image failed\n") != std::string::npos;
  EXPECT_TRUE(timed_out);

  // The late answer: freed by the callback (LeakSanitizer watches), record clean.
  answer(pending.load(), engine_jpeg(50), 0);
  bool late = false;
  for (auto &t : log.texts(G_LOG_LEVEL_WARNING))
    late |= t.find("late !!! get_jpeg.cancel, so free buf") != std::string::npos;
  EXPECT_TRUE(late);

  fake_engine::script("ravel_jpeg_enc", [](const fake_engine::call &c) -> int64_t {
    ravel_jpeg_cb cb = c.jpeg_cb;
    still::later(20ms, [cb] { answer(cb, engine_jpeg(30), 100); });
    return 0;
  });
  ASSERT_EQ(snapshot(h, 2, 0, 0, o), 0);
  EXPECT_EQ(o.w3, 103u);
  std::free(o.buf);
}

TEST(JpegSnapshot, SecondCallerIsRefusedAtOnce) {
  log_capture log;
  orlo_display_t *h = still::make_display();
  std::atomic<bool> requested{false};
  fake_engine::script("ravel_jpeg_enc", [&](const fake_engine::call &c) -> int64_t {
    ravel_jpeg_cb cb = c.jpeg_cb;
    requested = true;
    still::later(400ms, [cb] { answer(cb, engine_jpeg(10), 0); });
    return 0;
  });
  int first = 99;
  outs o1;
  std::thread t([&] { first = snapshot(h, 0, 0, 0, o1); });
  while (!requested) std::this_thread::sleep_for(1ms);
  outs o2;
  EXPECT_EQ(snapshot(h, 1, 0, 0, o2), -2);
  EXPECT_EQ(o2.buf, nullptr);
  t.join();
  EXPECT_EQ(first, 0);
  std::free(o1.buf);
  bool refused = false;
  for (auto &l : log.texts(G_LOG_LEVEL_WARNING))
    refused |= l.find(": g_mutex_trylock fail!\n") != std::string::npos;
  EXPECT_TRUE(refused);
}

TEST(JpegSnapshot, RefusalsLeaveTheNextSnapshotWorking) {
  log_capture log;
  orlo_display_t *h = still::make_display();
  outs o;
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

  auto warnings = log.texts(G_LOG_LEVEL_WARNING);
  auto has = [&](const std::string &piece) {
    for (auto &w : warnings)
      if (w.find(piece) != std::string::npos) return true;
    return false;
  };
  EXPECT_TRUE(has(": Unknwon mode : 4\n"));
  EXPECT_TRUE(has(": ravel_jpeg_enc failed ret : -1\n"));
  EXPECT_TRUE(has(": ravel_pause_frame failed ret : -3\n"));

  fake_engine::script("ravel_jpeg_enc", [](const fake_engine::call &c) -> int64_t {
    answer(c.jpeg_cb, engine_jpeg(10), 0);
    return 0;
  });
  ASSERT_EQ(snapshot(h, 0, 1, 0, o), 0);
  std::free(o.buf);
}

TEST(JpegSnapshot, PausedFrameUsesThePortRuleAndTheLastPlaybackTimestamp) {
  log_capture log;
  orlo_display_t *h = still::make_display();
  orlo_set_pb_timestamp(2, 777);
  fake_engine::script_result("ravel_jpeg_enc", -1);  // stop after the port is known
  struct rule {
    int dispmode, ch, port;
  };
  const rule rules[] = {{12, 7, 0}, {21, 9, 0}, {13, 6, 2}, {14, 7, 1}, {15, 13, 1},
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

  std::atomic<ravel_jpeg_cb> cb{nullptr};
  fake_engine::script("ravel_jpeg_enc", [&](const fake_engine::call &c) -> int64_t {
    cb = c.jpeg_cb;
    return 0;
  });
  fake_engine::script("ravel_pause_frame", [&](const fake_engine::call &) -> int64_t {
    ravel_jpeg_cb f = cb.load();
    still::later(10ms, [f] { answer(f, engine_jpeg(10), 0); });
    return 0;
  });
  size_t before = fake_engine::calls().size();
  ASSERT_EQ(snapshot(h, 6, 3, 13, o), 0);
  std::free(o.buf);
  auto tail = fake_engine::calls();
  std::vector<std::string> order;
  for (size_t i = before; i < tail.size(); i++) order.push_back(tail[i].name);
  std::vector<std::string> expected = {"ravel_jpeg_enc", "ravel_set_jpeg_dstntimeimg",
                                       "ravel_set_jpeg_timestamp", "ravel_pause_frame"};
  EXPECT_EQ(order, expected);
  EXPECT_EQ(tail[before + 2].args[1], 2);
  EXPECT_EQ(tail[before + 2].args[2], 777);
}

TEST(JpegSnapshot, NoEngineIsRefused) {
  log_capture log;
  orlo_display_t fake{};
  outs o;
  EXPECT_EQ(snapshot(&fake, 0, 0, 0, o), -1);
  bool said = false;
  for (auto &w : log.texts(G_LOG_LEVEL_WARNING))
    said |= w.find(": ravel has not been created!\n") != std::string::npos;
  EXPECT_TRUE(said);
}

}  // namespace
