// Still images: the thumbnail decode, the JPEG snapshot with its hand-over
// between the engine's thread and the caller, and the JPEG live-stream
// selection kept in the handle.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <memory>
#include <regex>
#include <string>
#include <thread>

#include "fake_engine.hh"
#include "frames.hh"
#include "log_capture.hh"
#include "orlo_display.h"

namespace {

using namespace testing_support;
using names = std::vector<std::string>;

orlo_display_t *make_display() {
  static const int32_t formats[] = {0};
  return orlo_display_new(formats, 0, 16, 0, 1, -1, nullptr);
}

// Whether a warning contains `piece` (the lines carry a line number).
bool logged(const log_capture &log, const std::string &piece) {
  for (const auto &t : log.texts(G_LOG_LEVEL_WARNING))
    if (t.find(piece) != std::string::npos) return true;
  return false;
}

TEST(JpegLiveStream, StartChangeAndStopKeepTheirFields) {
  orlo_display_t *h = make_display();
  int table[ORLO_MAX_SLOT], zeros[ORLO_MAX_SLOT] = {};
  for (int i = 0; i < ORLO_MAX_SLOT; i++) table[i] = i % 3 + 1;
  auto holds = [h](const int *t) { return std::memcmp(h->ch_jpeg_live, t, sizeof zeros) == 0; };
  EXPECT_EQ(orlo_display_jpeg_live_stream_change(h, table), 0);  // before any start
  EXPECT_TRUE(holds(table) && h->jpeg_live_arg == 0);
  EXPECT_EQ(orlo_display_jpeg_live_stream_start(h, zeros, 42), 0);
  EXPECT_TRUE(holds(zeros));
  EXPECT_EQ(
      orlo_display_jpeg_live_stream_change(h, table) + orlo_display_jpeg_live_stream_all_stop(h),
      0);
  EXPECT_TRUE(holds(zeros) && h->jpeg_live_arg == 42);
  // A missing table is refused.
  EXPECT_EQ(orlo_display_jpeg_live_stream_start(h, nullptr, 1) +
                orlo_display_jpeg_live_stream_change(h, nullptr),
            -2);
}

// Answers with a JPEG as the engine hands it over: released with free().
void answer(ravel_jpeg_cb cb, uint32_t w) {
  void *word = std::malloc(16);
  cb(&word, w + 1, w + 2, w + 3, w + 4, w + 5);
}

// The engine takes each encode request and answers it on a thread of its own:
// before the caller starts to wait or while it waits, whichever the scheduler
// makes of it; the caller must take the answer either way.
void engine_answers(uint32_t w = 0) {
  fake_engine::script("ravel_jpeg_enc", [w](const fake_engine::call &c) -> int64_t {
    std::thread([cb = c.jpeg_cb, w] { answer(cb, w); }).detach();
    return 0;
  });
}

// The engine calls after ravel_new, each with its words after the handle
// (an encode request's callback left out).
names trace() {
  names out;
  for (const auto &c : fake_engine::calls()) {
    if (c.name == "ravel_new") continue;
    out.push_back(c.name);
    for (size_t i = 1; i < c.args.size() - (c.jpeg_cb != nullptr); i++)
      out.back() += " " + std::to_string(c.args[i]);
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
    std::thread([cb] { answer(cb, 20); }).detach();
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

// A refused request returns at once, without a wait.  One snapshot at a
// time: a second caller is refused at once while the first waits; an answer
// after the wait is freed by the callback.  The next snapshot works.
TEST(JpegSnapshot, RefusalsAndALateAnswerLeaveTheNextSnapshotWorking) {
  log_capture log;
  outs o1, o2;
  orlo_display_t no_engine{};
  EXPECT_EQ(snapshot(&no_engine, 0, 0, 0, o1), -1);  // before any display made the engine
  orlo_display_t *h = make_display();
  EXPECT_EQ(snapshot(nullptr, 0, 0, 0, o1), -1);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_CRITICAL,
                      "orlo_display_get_jpeg_snapshot: assertion 'h_display != NULL' failed"));
  EXPECT_EQ(snapshot(h, 0, 4, 0, o1), -1);
  EXPECT_EQ(snapshot(h, 32, 2, 19, o1), -1);  // no playback port 32: nothing is armed
  EXPECT_EQ(trace(), names{});
  fake_engine::script_result("ravel_jpeg_enc", -1);
  EXPECT_EQ(snapshot(h, 0, 0, 0, o1), -1);
  fake_engine::script_result("ravel_pause_frame", -3);
  fake_engine::script_result("ravel_jpeg_enc", 0);
  EXPECT_EQ(snapshot(h, 4, 3, 13, o1), -1);
  for (const char *w :
       {" : ravel has not been created!\n", ": Unknwon mode : 4\n",
        ": ravel_jpeg_enc failed ret : -1\n", ": ravel_pause_frame failed ret : -3\n"})
    EXPECT_TRUE(logged(log, w)) << w;
  EXPECT_FALSE(logged(log, "get jpeg image failed"));
  std::promise<ravel_jpeg_cb> requested;
  fake_engine::script("ravel_jpeg_enc", [&](const fake_engine::call &c) -> int64_t {
    requested.set_value(c.jpeg_cb);  // no answer in time
    return 0;
  });
  int first = 99;
  o1.buf = &o1;  // untouched on failure
  std::thread t([&] { first = snapshot(h, 0, 0, 0, o1); });
  const ravel_jpeg_cb late = requested.get_future().get();
  EXPECT_EQ(snapshot(h, 1, 0, 0, o2), -2);
  t.join();
  EXPECT_EQ(first, -1);
  EXPECT_EQ(o1.buf, &o1);
  EXPECT_TRUE(logged(log, ": g_mutex_trylock fail!\n") && logged(log, ": get jpeg image failed\n"));
  answer(late, 0);  // LeakSanitizer watches the free
  EXPECT_TRUE(std::regex_match(
      log.texts(G_LOG_LEVEL_WARNING).back(),
      std::regex(
          "\n###### _cb_get_jpeg_image : [0-9]+ : late !!! get_jpeg.cancel, so free buf ###\n")));
  // Then one answered inside the request, before any wait: it is not lost.
  fake_engine::script("ravel_jpeg_enc", [](const fake_engine::call &c) -> int64_t {
    answer(c.jpeg_cb, 100);
    return 0;
  });
  ASSERT_EQ(snapshot(h, 2, 1, 0, o1), 0);
  EXPECT_EQ(o1.w[1], 103u);
}

TEST(JpegSnapshot, PausedFrameFollowsThePortRuleOfEveryDisplayMode) {
  log_capture log;
  orlo_display_t *h = make_display();
  fake_engine::script_result("ravel_jpeg_enc", -1);  // stop once the port is known
  const int rules[][3] = {{12, 7, 0},  {21, 9, 0},  {13, 6, 2},  {14, 7, 1}, {15, 13, 1},
                          {16, 10, 2}, {17, 17, 1}, {18, 10, 1}, {19, 5, 5}, {20, 3, 3}};
  outs o;
  names want;
  for (const auto &[dispmode, ch, port] : rules) {
    EXPECT_EQ(snapshot(h, ch, 3, dispmode, o), -1);
    want.push_back("ravel_jpeg_enc " + std::to_string(port) + " 0");
  }
  EXPECT_EQ(trace(), want);
  // One line for each rule, and one more before it for 19 and 20.
  auto messages = log.texts(G_LOG_LEVEL_MESSAGE);
  ASSERT_EQ(messages.size(), 12u);
  for (auto &m : messages) m = std::regex_replace(m, std::regex(" : [0-9]+ : "), " : N : ");
  EXPECT_EQ(messages[8], "_get_snapshot_port : N : not supprot dispmode : 19, snapshot ch : 5\n");
  EXPECT_EQ(messages[9], "_get_snapshot_port : N : dispmode : 19, snapshot ch : 5\n");
}

constexpr int W = 8, H = 4;
const std::string kCannotDecode =
    "orlo_display_decode_image: get thumbnail image failed (cannot decode this!!)\n";

// Delivers a decoded picture as the engine gives it: packed Y0 V Y1 U of luma
// `y` and neutral chroma, g_free'd.
void deliver(ravel_image_cb cb, uint8_t y) {
  auto *p = static_cast<uint8_t *>(g_malloc(W * H * 2));
  for (int i = 0; i < W * H * 2; i++) p[i] = i % 2 == 0 ? y : 128;
  void *word = p;
  cb(&word);
}

// The engine refuses `refusals` offers, then answers with luma `y` on a
// thread of its own.
void engine_decodes(int refusals, uint8_t y) {
  auto tries = std::make_shared<int>(0);
  fake_engine::script("ravel_put_decode_stream", [=](const fake_engine::call &c) -> int64_t {
    if (++*tries <= refusals) return -1;
    std::thread([cb = c.image_cb, y] { deliver(cb, y); }).detach();
    return 0;
  });
}

// A display, a destination of W x H filled with 0x55, and the frames' count.
struct ThumbnailDecode : ::testing::Test {
  log_capture log;
  orlo_display_t *h = make_display();
  free_counter frames;
  std::vector<uint8_t> dst = std::vector<uint8_t>(W * H * 3, 0x55);
  // Decodes `b` (watched unless null) into dst.
  int decode(GstBuffer *b, int width = W, int height = H) {
    return orlo_display_decode_image(h, b != nullptr ? frames.watch(b) : b, width, height, 0,
                                     dst.data());
  }
};

// Each refusal releases the frame, answers -1 without waiting and leaves dst.
TEST_F(ThumbnailDecode, RefusedFramesAreReleasedAtOnce) {
  // An inter frame of a channel that port 0 did not last see (channel 0).
  EXPECT_EQ(decode(make_frame(5, 0, "inter")), -1);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING, "previous ch(0) is not matched with current ch(5)\n"));
  for (auto [width, height] : {std::pair{0, H}, {W, 0}})  // a picture of no width, of no height
    EXPECT_EQ(decode(make_frame(0, 1, "intra"), width, height), -1);
  EXPECT_EQ(decode(gst_buffer_new_memdup("\x03\x00", 2)), -1);  // too short to be a frame
  EXPECT_EQ(log.count(kCannotDecode), 2);
  fake_engine::script_result("ravel_put_decode_stream", -1);
  EXPECT_EQ(decode(make_frame(0, 1, "intra")), -1);
  EXPECT_EQ(fake_engine::calls("ravel_put_decode_stream").size(), 21u);
  EXPECT_EQ(frames.freed.load(), 5);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING, "ravel push failed at port 0\n"));
  EXPECT_EQ(log.count(kCannotDecode), 3);
  EXPECT_EQ(dst, std::vector<uint8_t>(W * H * 3, 0x55));
}

// No picture within a second: the call gives up and the engine keeps the
// frame.  The picture arrives late; the next call drops it without a leak and,
// after twenty refusals, takes its own.  That frame is one an application
// stored itself: a plain buffer of header and payload.
TEST_F(ThumbnailDecode, ALatePictureIsDroppedAndTwentyRefusalsThenAPictureInRgb) {
  std::atomic<ravel_image_cb> late{nullptr};
  fake_engine::hold_frames(true);
  fake_engine::script("ravel_put_decode_stream", [&](const fake_engine::call &c) -> int64_t {
    late = c.image_cb;
    return 0;
  });
  EXPECT_EQ(decode(make_frame(0, 1, "intra")), -1);
  EXPECT_TRUE(
      log.has(G_LOG_LEVEL_WARNING, "orlo_display_decode_image: get thumbnail image failed\n"));
  EXPECT_EQ(frames.freed.load(), 0);  // the engine still has the frame
  deliver(late.load(), 16);
  fake_engine::reset();  // gives the first frame back
  engine_decodes(20, 235);
  GstBuffer *frame = make_frame(3, 1, "picture");
  const GstKelBuddyMeta *m = gst_kel_buddy_buffer_get_meta(frame);
  GstBuffer *plain = gst_buffer_new_memdup(m->data, m->size);
  gst_buffer_unref(frame);
  ASSERT_EQ(decode(plain), 0);
  const auto pushes = fake_engine::calls("ravel_put_decode_stream");
  ASSERT_EQ(pushes.size(), 21u);
  // Port 0, the payload behind the header and its size, no JPEG callback.
  const fake_engine::call &p = pushes[20];
  EXPECT_EQ((std::vector<int64_t>{p.args[1], p.args[4], p.args[6]}),
            (std::vector<int64_t>{0, 7, 0}));
  EXPECT_EQ(std::string(p.record.begin(), p.record.end()), "picture");
  // Luma 235 with neutral chroma floors to 254 in every channel.
  EXPECT_EQ(dst, std::vector<uint8_t>(W * H * 3, 254));
  EXPECT_EQ(frames.freed.load(), 2) << "the caller's reference was taken over";
}

}  // namespace
