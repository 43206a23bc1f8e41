// The inside of the push, built into this test on its own: the gate to the
// engine, the snapshot flag of a playback port, the playback timestamps and
// the JPEG hand-over.
#include <cstdlib>
#include <thread>

#include "glib_lock.hh"
#include "log_capture.hh"
#include "stream_delivery.hh"
#include "stream_support.hh"

// The process-wide state that liborlo's display core would provide.
extern "C" {
orlo_display_t *g_display = nullptr;
ravel_t *g_engine = nullptr;
}

namespace {

using namespace stream_test;
using testing_support::log_capture;

class PushInternals : public ::testing::Test {
 protected:
  void SetUp() override {
    gst_init(nullptr, nullptr);
    const int32_t formats[] = {0};
    const int32_t zeros[4] = {};
    g_engine = ravel_new(
        formats, 0, 16, 0, 0, [](void *b) { gst_mini_object_unref(GST_MINI_OBJECT_CAST(b)); }, 0, 0,
        0, 24, zeros, 6, zeros);
    h.mutex = orlo::new_mutex();
    h.mutex_jpeg = orlo::new_mutex();
    h.cond_jpeg = orlo::new_cond();
    h.main_port = -1;
    g_display = &h;
  }
  void TearDown() override {
    g_display = nullptr;
    for (GMutex *m : {h.mutex, h.mutex_jpeg}) {
      g_mutex_clear(m);
      g_free(m);
    }
    g_cond_clear(h.cond_jpeg);
    g_free(h.cond_jpeg);
  }
  orlo::frame frame_of(GstBuffer *b) {
    orlo::frame f;
    EXPECT_TRUE(orlo::read_frame(b, f));
    return f;
  }
  orlo_display_t h{};
};

TEST_F(PushInternals, GateRemembersIntraChannelsPerPort) {
  log_capture log;
  orlo::ref_ptr<GstBuffer> b = orlo::adopt(make_frame(0, 0, "x"));
  const uint8_t payload[1] = {0};
  // A fresh port remembers channel 0.
  EXPECT_EQ(_put_decode_stream(2, b.get(), payload, 1, nullptr, nullptr, 0, 0), 0);
  EXPECT_EQ(_put_decode_stream(2, b.get(), payload, 1, nullptr, nullptr, 3, 0), -2);
  // Type 5 records the channel just as type 1 does.
  EXPECT_EQ(_put_decode_stream(2, b.get(), payload, 1, nullptr, nullptr, 19, 5), 0);
  EXPECT_EQ(_put_decode_stream(2, b.get(), payload, 1, nullptr, nullptr, 3, 0), -2);
  EXPECT_EQ(_put_decode_stream(2, b.get(), payload, 1, nullptr, nullptr, 19, 0), 0);
  // A refusing engine is worth a retry.
  fake_engine::script_result("ravel_put_decode_stream", -7);
  EXPECT_EQ(_put_decode_stream(2, b.get(), payload, 1, nullptr, nullptr, 19, 0), -1);
  EXPECT_EQ(_put_decode_stream(18, b.get(), payload, 1, nullptr, nullptr, 0, 1), -2);
  EXPECT_EQ(log.count("previous ch(0) is not matched with current ch(3)\n"), 1);
  EXPECT_EQ(log.count("previous ch(19) is not matched with current ch(3)\n"), 1);
  const auto puts = fake_engine::calls("ravel_put_decode_stream");
  ASSERT_EQ(puts.size(), 4u);
  const auto &a = puts[0].args;
  EXPECT_EQ(a[0], reinterpret_cast<intptr_t>(g_engine));
  EXPECT_EQ(a[2], reinterpret_cast<intptr_t>(b.get()));
  EXPECT_EQ(a[3], reinterpret_cast<intptr_t>(payload));
  EXPECT_EQ(a[4], 1);
  EXPECT_EQ(a[5], 0);
  EXPECT_EQ(a[8], 0);
  EXPECT_EQ(a[9], 0);
}

TEST_F(PushInternals, SnapshotFlagGoesWithTheFirstAttemptOnly) {
  orlo::ref_ptr<GstBuffer> b = orlo::adopt(make_frame(0, 1, "P", 4321));
  _enable_pb_snapshot_port(3, 1);
  fake_engine::script_sequence("ravel_put_decode_stream", {-1, -1, 0});
  orlo::mutex_guard lock(h.mutex);
  EXPECT_EQ(orlo::push_playback_frame(&h, 3, frame_of(b.get())), 0);
  EXPECT_EQ(
      fake_engine::names(),
      (std::vector<std::string>{"ravel_new", "ravel_set_jpeg_timestamp", "ravel_put_decode_stream",
                                "ravel_put_decode_stream", "ravel_put_decode_stream"}));
  const auto ts = fake_engine::calls("ravel_set_jpeg_timestamp");
  EXPECT_EQ(ts[0].args[1], 3);
  EXPECT_EQ(ts[0].args[2], 4321);
  const auto puts = fake_engine::calls("ravel_put_decode_stream");
  EXPECT_EQ(puts[0].jpeg_cb, &_cb_get_jpeg_image);
  EXPECT_EQ(puts[1].jpeg_cb, nullptr);
  EXPECT_EQ(puts[2].jpeg_cb, nullptr);
  EXPECT_FALSE(_check_pb_snapshot_port(3));
  EXPECT_EQ(orlo_get_pb_timestamp(3), 4321u);
  // Ordinary pushes never look at the flag.
  _enable_pb_snapshot_port(3, 1);
  EXPECT_EQ(orlo::push_frame(&h, 3, frame_of(b.get())), 0);
  EXPECT_EQ(fake_engine::calls("ravel_put_decode_stream").back().jpeg_cb, nullptr);
  EXPECT_TRUE(_check_pb_snapshot_port(3));
  EXPECT_FALSE(_check_pb_snapshot_port(3));
}

TEST_F(PushInternals, PlaybackPortsBeyondTheTablesAreRefusedOrOpen) {
  log_capture log;
  orlo_set_pb_timestamp(32, 7);
  EXPECT_EQ(orlo_get_pb_timestamp(32), 0u);
  orlo_set_pb_timestamp(-1, 7);
  EXPECT_EQ(orlo_get_pb_timestamp(-1), 0u);
  orlo_set_pb_timestamp(20, 7);  // no engine port, but within the accessors' range
  EXPECT_EQ(orlo_get_pb_timestamp(20), 7u);
  EXPECT_FALSE(_check_pb_snapshot_port(32));
  _enable_pb_snapshot_port(40, 1);
  const auto criticals = log.texts(G_LOG_LEVEL_CRITICAL);
  ASSERT_EQ(criticals.size(), 2u);
  for (const auto &c : criticals)
    EXPECT_NE(c.find("assertion 'ch < ORLO_MAX_PLAYBACK_CHANNEL' failed"), std::string::npos) << c;
}

TEST_F(PushInternals, JpegAnswerWakesTheWaiterAndStaysWithIt) {
  void *jpeg = std::malloc(16);
  std::thread engine([&] {
    void *p = jpeg;
    _cb_get_jpeg_image(&p, 1, 2, 3, 4, 5);
  });
  {
    orlo::mutex_guard lock(h.mutex_jpeg);
    const gint64 end = g_get_monotonic_time() + 10 * G_TIME_SPAN_SECOND;
    while (g_jpeg_result.buf == nullptr && g_cond_wait_until(h.cond_jpeg, h.mutex_jpeg, end)) {
    }
  }
  engine.join();
  EXPECT_EQ(g_jpeg_result.buf, jpeg);
  EXPECT_EQ(g_jpeg_result.word1, 1u);
  EXPECT_EQ(g_jpeg_result.word5, 5u);
  EXPECT_EQ(g_jpeg_result.cancel, 0);
  std::free(g_jpeg_result.buf);  // the caller's now
}

TEST_F(PushInternals, LateJpegAnswerIsFreedAndTheRecordCleared) {
  log_capture log;
  g_jpeg_result.cancel = 1;
  void *p = std::malloc(64);  // a leak here would fail the sanitizer run
  _cb_get_jpeg_image(&p, 1, 2, 3, 4, 5);
  EXPECT_EQ(g_jpeg_result.buf, nullptr);
  EXPECT_EQ(g_jpeg_result.word2, 0u);
  EXPECT_EQ(g_jpeg_result.cancel, 0);
  g_jpeg_result.cancel = 1;
  void *none = nullptr;
  _cb_get_jpeg_image(&none, 9, 9, 9, 9, 9);
  EXPECT_EQ(g_jpeg_result.cancel, 0);
  EXPECT_EQ(g_jpeg_result.word1, 0u);
  const auto warnings = log.texts(G_LOG_LEVEL_WARNING);
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_TRUE(g_regex_match_simple(
      "^\\n###### _cb_get_jpeg_image : [0-9]+ : late !!! get_jpeg.cancel, so free buf ###\\n$",
      warnings[0].c_str(), G_REGEX_DEFAULT, G_REGEX_MATCH_DEFAULT))
      << warnings[0];
}

}  // namespace
