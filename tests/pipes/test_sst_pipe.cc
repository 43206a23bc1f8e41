// The playback pipe: its build with its lines, the play-info status from the
// sink's event callback, the parameters it writes, and play, pause and frame
// steps over channels recorded in the test.
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <string>
#include <thread>

#include "kel_buffers.h"
#include "log_capture.hh"
#include "orlo_lumen_pipe.h"
#include "pipes_fixture.hh"
#include "shared_word.hh"

namespace {

using namespace pipes_test;
using testing_support::log_capture;

std::string address_of(const void *p) {
  char text[20];
  snprintf(text, sizeof text, "%08x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)));
  return text;
}

GstEvent *play_info(const char *name, guint64 eos, guint64 overlapped, guint64 norecord,
                    guint64 base, int dir) {
  return gst_event_new_custom(
      GST_EVENT_CUSTOM_DOWNSTREAM,
      gst_structure_new(name, "eos-status", G_TYPE_UINT64, eos, "overlapped-status", G_TYPE_UINT64,
                        overlapped, "norecord-status", G_TYPE_UINT64, norecord, "base-time",
                        G_TYPE_UINT64, base, "direction", G_TYPE_INT, dir, nullptr));
}

class SstPipe : public ::testing::Test {
 protected:
  void SetUp() override {
    gst_init(nullptr, nullptr);
    testing::internal::CaptureStdout();
    h = orlo_sst_pipe_new();
    created_out = testing::internal::GetCapturedStdout();
    ASSERT_NE(h, nullptr);
    gpointer user_data = nullptr;
    cbs = pipe_spies::last_callbacks(&user_data);
    ASSERT_EQ(user_data, h);
  }
  void TearDown() override {
    orlo_sst_pipe_stop(h);
    orlo_sst_pipe_delete(h);
  }
  GstKelAppSink *sink() const { return GST_KELAPP_SINK(h->kelappsink); }
  // Hands the sink's event callback an event; what it printed.
  std::string deliver(GstEvent *ev) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(cbs.event(sink(), ev, h), 0);
    gst_event_unref(ev);
    return testing::internal::GetCapturedStdout();
  }
  log_capture log;
  orlo_sst_pipe_t *h = nullptr;
  std::string created_out;
  GstKelAppSinkCallbacks cbs{};
};

TEST_F(SstPipe, StandsWithItsElementsPropertiesCallbacksLinesAndParameters) {
  EXPECT_NE(created_out.find("------------------------------ g_object set !!!!!!!!!!!!!!\n"),
            std::string::npos);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_MESSAGE, "h_sst_pipe= !!!!!!!!!!!!!! " + address_of(h) + "\n"));
  const auto launch = pipe_spies::last_launch();
  EXPECT_EQ(launch.text,
            "kelsstsrc name=playsstsrc ! kelappsink caps=\"video/x-h264\" name=sst_app_sink");
  EXPECT_TRUE(launch.freed);
  EXPECT_STREQ(GST_OBJECT_NAME(orlo_sst_pipe_get_src(h)), "playsstsrc");
  EXPECT_STREQ(GST_OBJECT_NAME(orlo_sst_pipe_get_kelappsink(h)), "sst_app_sink");
  expect_props(h->src,
               "vtick-interval-usec=1000000 open-rate=1 hide=1 ch-num=4 audio-ch=-1 "
               "ch-mask=15 search-time=0");
  expect_props(h->kelappsink, "sync=TRUE drop=TRUE max-buffers=3 priority=97");

  // The render report keeps and prints the stream time at code 35 alone; a
  // pipe that does not play knows no position: 0.
  h->last_timestamp = 77;
  EXPECT_EQ(cbs.render_report(sink(), 34, h), 0);
  EXPECT_EQ(orlo_sst_pipe_get_last_timestamp(h), 77u);
  testing::internal::CaptureStdout();
  EXPECT_EQ(cbs.render_report(sink(), 35, h), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "last render time 0:00:00.000000000\r\n");
  EXPECT_EQ(orlo_sst_pipe_get_last_timestamp(h), 0u);

  // Parameters: times in nanoseconds, fixed values beside them.
  g_object_set(h->src, "audio-ch", 3, "mode", 1, "vtick-interval-usec", 5, nullptr);
  EXPECT_EQ(orlo_sst_pipe_set_param(h, 2, 1, 1, 0, orlo_timeval_t{2, 500000},
                                    orlo_timeval_t{-3, 250}, orlo_timeval_t{7, 0}, 8, 0x80000001u),
            0);
  // ch-mask: no sign spreads into bit 63; the pipe does not play.
  expect_props(h->src,
               "begin-time=2500000000 end-time=-2999750000 search-time=7000000000 time-offset=0 "
               "vtick-interval-usec=33366 audio-ch=-1 mode=0 rate=2 dir=1 rate-control=1 hide=0 "
               "ch-num=8 open-rate=1 ch-mask=2147483649");
  EXPECT_EQ(GST_STATE(h->pipeline), GST_STATE_NULL);
}

// Each KELPlayInfo event replaces the masks and the direction; a non-zero
// base time is kept and printed, hours unbounded, all bits set as nines.
TEST_F(SstPipe, PlayInfoEventsSetTheStatusAndPrintTheBaseTime) {
  const guint64 s = GST_SECOND;
  struct {
    const char *name;
    guint64 eos, overlapped, norecord, base;
    int dir;
    const char *printed;  // nullptr: nothing
  } cases[] = {
      {"KELPlayInfo", 5, 6, 7, 10 * s, 1, "0:00:10.000000000"},
      {"KELPlayInfo", 0, 2, 0, 0, 0, nullptr},  // base time 0 changes nothing
      {"OtherInfo", 9, 9, 9, 5, 1, nullptr},    // another name is not ours
      {"KELPlayInfo", 1, 2, 4, G_MAXUINT64, 0, "99:99:99.999999999"},
      {"KELPlayInfo", 0, 0, 0, 3600 * s, 1, "1:00:00.000000000"},
      {"KELPlayInfo", 0, 0, 0, 25 * 3600 * s + 61 * s + 7, 0, "25:01:01.000000007"},
  };
  guint64 eos = 0, overlapped = 0, norecord = 0, base = 0;
  int dir = 0;
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.name << " base " << c.base);
    const std::string out =
        deliver(play_info(c.name, c.eos, c.overlapped, c.norecord, c.base, c.dir));
    if (std::string(c.name) == "KELPlayInfo") {
      eos = c.eos, overlapped = c.overlapped, norecord = c.norecord, dir = c.dir;
      base = c.base != 0 ? c.base : base;
    }
    EXPECT_EQ(out, c.printed != nullptr ? "==========================" + std::string(c.printed) +
                                              ", " + address_of(h) + "\r\n"
                                        : "");
    EXPECT_EQ(
        (std::vector<guint64>{orlo_sst_pipe_get_eos_mask(h), orlo_sst_pipe_get_overlapped_mask(h),
                              orlo_sst_pipe_get_norecord_mask(h), h->base_time}),
        (std::vector<guint64>{eos, overlapped, norecord, base}));
    EXPECT_EQ(h->direction, dir);
  }

  // Clearing leaves the base time and the last render time alone.
  h->last_timestamp = 77;
  orlo_sst_pipe_clear_status(h);
  EXPECT_EQ(orlo_sst_pipe_get_eos_mask(h) | orlo_sst_pipe_get_overlapped_mask(h) |
                orlo_sst_pipe_get_norecord_mask(h),
            0u);
  EXPECT_EQ(orlo_sst_pipe_get_last_timestamp(h), 77u);
  EXPECT_EQ(h->base_time, base);
}

// The sink's thread writes the 64-bit status while the application reads it:
// every value read is one that was written, never the halves of two (a
// 32-bit target needs an atomic for that).  Each value written has equal
// halves, alternating ones flip every bit, so a torn read shows.
TEST_F(SstPipe, StatusWordsStayWholeBetweenTwoThreads) {
  constexpr guint64 kBoth = 0x0000000100000001ull;
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (guint64 k = 1; k <= 3000; k++) {
      const guint64 v = (k % 2 ? 0xA5A5A5A5ull : 0x5A5A5A5Aull) * kBoth;
      GstEvent *ev = play_info("KELPlayInfo", v, ~v, v, ~v, 0);
      cbs.event(sink(), ev, h);
      gst_event_unref(ev);
    }
    done = true;
  });
  auto torn = [](guint64 v) { return (v >> 32) != (v & 0xFFFFFFFFu); };
  unsigned long reads = 0, torn_reads = 0;
  testing::internal::CaptureStdout();  // each base time prints a line
  for (; !done; reads++)
    torn_reads += torn(orlo_sst_pipe_get_eos_mask(h)) + torn(orlo_sst_pipe_get_overlapped_mask(h)) +
                  torn(orlo_sst_pipe_get_norecord_mask(h)) + torn(orlo::load_word(h->base_time));
  writer.join();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(torn_reads, 0u) << "in " << reads << " rounds of reads";
  EXPECT_EQ(orlo_sst_pipe_get_eos_mask(h), 0x5A5A5A5Aull * kBoth);
}

// Two channels recorded in the test: played on the clock, held by a pause,
// stepped off the clock one frame of each channel at a time, then played on
// to the EOS bits, every channel's frames in order.
TEST_F(SstPipe, PlaysPausesStepsAndPlaysOnToTheEosBits) {
  constexpr int kFrames = 50;
  temp_dir folder;
  for (int ch = 0; ch < 2; ch++) ASSERT_TRUE(record_channel(folder.path, ch, kFrames));
  g_object_set(h->src, "location", folder.path.c_str(), nullptr);
  collector seen(h->kelappsink);
  orlo_sst_pipe_set_param(h, 1, 0, 0, 1, tv(0), tv(0), tv(kStart), 2, 3);
  EXPECT_EQ(orlo_sst_pipe_start(h), 0);
  ASSERT_TRUE(eventually([&] { return seen.frames().size() >= 10; }));
  EXPECT_EQ(orlo_sst_pipe_pause(h), 0);
  gst_element_get_state(h->pipeline, nullptr, nullptr, 20 * GST_SECOND);
  // The stream time is the base time and the sink's position, added
  // forward, subtracted backward.
  gint64 position = -1;
  ASSERT_TRUE(gst_element_query_position(h->kelappsink, GST_FORMAT_TIME, &position));
  EXPECT_GT(position, 0);
  EXPECT_EQ(orlo_sst_pipe_get_timestamp(h), static_cast<uint64_t>(kStart + position));
  h->direction = 1;
  EXPECT_EQ(orlo_sst_pipe_get_timestamp(h), static_cast<uint64_t>(kStart - position));
  h->direction = 0;

  // The frame held by the paused sink, then three steps off the clock: each
  // renders one frame of each channel and reports it.
  EXPECT_EQ(orlo_sst_pipe_next(h), 0);
  expect_props(h->kelappsink, "sync=FALSE");
  ASSERT_TRUE(eventually([&] { return orlo_sst_pipe_get_last_timestamp(h) != 0; }));
  const size_t held = seen.frames().size();
  const uint64_t first = orlo_sst_pipe_get_last_timestamp(h);
  for (uint64_t step = 1; step <= 3; step++) {
    orlo_sst_pipe_next(h);
    ASSERT_TRUE(eventually([&] {
      return seen.frames().size() == held + 2 * step &&
             orlo_sst_pipe_get_last_timestamp(h) == first + step * kFrameNs;
    })) << "step "
        << step;
  }
  orlo_sst_pipe_start(h);
  expect_props(h->kelappsink, "sync=TRUE");
  ASSERT_TRUE(eventually([&] { return orlo_sst_pipe_get_eos_mask(h) == 3; }));
  std::map<int, int64_t> last;
  for (const auto &f : seen.frames()) {
    EXPECT_GT(f.time, last[f.ch]) << "channel " << f.ch;
    last[f.ch] = f.time;
  }
  const int64_t end = kStart + (kFrames - 1) * kFrameNs;
  EXPECT_EQ(last, (std::map<int, int64_t>{{0, end}, {1, end}}));
  // A stop leaves the sink's clock as stepping left it.
  orlo_sst_pipe_next(h);
  orlo_sst_pipe_stop(h);
  expect_props(h->kelappsink, "sync=FALSE");

  // The first intra frame of a span, found in the recording itself.
  auto b = orlo::adopt(orlo_sst_pipe_get_iframe(
      folder.path.c_str(), 1, 0, tv(kStart + 5 * kFrameNs), tv(kStart + 19 * kFrameNs)));
  ASSERT_TRUE(b);
  const frame_seen f = read_header(gst_kel_buddy_buffer_get_meta(b.get())->data);
  EXPECT_EQ((std::vector<int64_t>{f.ch, f.type, f.time}),
            (std::vector<int64_t>{1, 1, kStart + 10 * kFrameNs}));
}

// No record, no pipe: the caller gets NULL and the line.  A NULL handle gets
// its family's failure answer and the line, never a crash.
TEST(PipeRecords, AMissingRecordOrHandleIsRefusedWithItsLine) {
  log_capture log;
  pipe_spies::fail_allocation_of(sizeof(orlo_sst_pipe_t));
  EXPECT_EQ(orlo_sst_pipe_new(), nullptr);
  pipe_spies::fail_allocation_of(sizeof(orlo_lumen_pipe_t));
  EXPECT_EQ(orlo_lumen_pipe_new(4), nullptr);
  orlo_sst_pipe_delete(nullptr);
  orlo_lumen_pipe_delete(nullptr);
  EXPECT_EQ(orlo_sst_pipe_get_norecord_mask(nullptr), 0u);
  EXPECT_EQ(orlo_lumen_pipe_get_kelappsink(nullptr), nullptr);
  EXPECT_EQ(orlo_lumen_pipe_set_alarm_callback(nullptr, nullptr, nullptr), -1);
  for (const char *line :
       {"orlo_sst_pipe_new: assertion 'h_sst_pipe != NULL' failed",
        "orlo_lumen_pipe_new: assertion 'h_lumen_pipe != NULL' failed",
        "orlo_sst_pipe_delete: assertion 'h_sst_pipe != NULL' failed",
        "orlo_lumen_pipe_delete: assertion 'h_lumen_pipe != NULL' failed",
        "orlo_sst_pipe_get_norecord_mask: assertion 'h_sst_pipe != NULL' failed"})
    EXPECT_EQ(log.count(line), 1) << line;
}

// A recording that is cut into files by duration and still growing: the
// files play as one, and the source looks for new frames at its open rate and
// plays them on after the first EOS bit.
TEST(SstPlay, ACutAndGrowingRecordingPlaysOnWithOpenRate) {
  gst_init(nullptr, nullptr);
  temp_dir folder;
  constexpr int kShort = 30;
  ASSERT_TRUE(record_channel(folder.path, 0, kShort, "max-duration=400000000"));
  ASSERT_TRUE(g_file_test((folder.path + "/ch00-0001.h264").c_str(), G_FILE_TEST_EXISTS));
  orlo_sst_pipe_t *h = orlo_sst_pipe_new();
  ASSERT_NE(h, nullptr);
  g_object_set(h->src, "location", folder.path.c_str(), "open-rate", 20, nullptr);
  collector sink(h->kelappsink);
  orlo_sst_pipe_set_param(h, 4, 0, 0, 1, tv(0), tv(0), tv(0), 4, 1);
  orlo_sst_pipe_start(h);
  EXPECT_TRUE(eventually(
      [&] { return sink.frames().size() >= kShort && orlo_sst_pipe_get_eos_mask(h) == 1; }));
  ASSERT_TRUE(record_channel(folder.path, 0, 10, "", kStart + kShort * kFrameNs));
  ASSERT_TRUE(eventually([&] { return sink.frames().size() >= kShort + 10; }));
  int64_t last = 0;
  for (const auto &f : sink.frames()) {
    EXPECT_GT(f.time, last);
    last = f.time;
  }
  EXPECT_EQ(last, kStart + (kShort + 9) * kFrameNs);
  orlo_sst_pipe_stop(h);
  orlo_sst_pipe_delete(h);
}

}  // namespace
