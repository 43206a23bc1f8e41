// The playback pipe's record: creation, the play-info status from the sink's
// event callback with its printed line, the render report, and the
// parameters it writes.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "log_capture.hh"
#include "orlo_lumen_pipe.h"
#include "orlo_sst_pipe.h"
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

GstEvent *play_info_event(const char *name, guint64 eos, guint64 overlapped, guint64 norecord,
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
  void TearDown() override { orlo_sst_pipe_delete(h); }
  // Hands the sink's event callback an event; what it printed.
  std::string deliver(GstEvent *ev) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(cbs.event(GST_KELAPP_SINK(h->kelappsink), ev, h), 0);
    gst_event_unref(ev);
    return testing::internal::GetCapturedStdout();
  }
  log_capture log;
  orlo_sst_pipe_t *h = nullptr;
  std::string created_out;
  GstKelAppSinkCallbacks cbs{};
};

TEST_F(SstPipe, StandsWithItsElementsPropertiesCallbacksAndLines) {
  EXPECT_NE(created_out.find("------------------------------ g_object set !!!!!!!!!!!!!!\n"),
            std::string::npos);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_MESSAGE, "h_sst_pipe= !!!!!!!!!!!!!! " + address_of(h) + "\n"));
  const auto launch = pipe_spies::last_launch();
  EXPECT_EQ(launch.text,
            "kelsstsrc name=playsstsrc ! kelappsink caps=\"video/x-h264\" name=sst_app_sink");
  EXPECT_TRUE(launch.freed);
  EXPECT_STREQ(GST_OBJECT_NAME(orlo_sst_pipe_get_src(h)), "playsstsrc");
  EXPECT_STREQ(GST_OBJECT_NAME(orlo_sst_pipe_get_kelappsink(h)), "sst_app_sink");
  ASSERT_TRUE(GST_IS_KELAPP_SINK(h->kelappsink));
  EXPECT_NE(state_of(h->pipeline), GST_STATE_PLAYING);
  expect_props(h->src,
               "vtick-interval-usec=1000000 open-rate=1 hide=1 ch-num=4 audio-ch=-1 "
               "ch-mask=15 search-time=0");
  expect_props(h->kelappsink, "sync=1 drop=1 max-buffers=3 priority=97");

  EXPECT_EQ(cbs.new_preroll(GST_KELAPP_SINK(h->kelappsink), h), 0);
  // The render report keeps and prints the stream time at code 35 alone; a
  // pipe that does not play knows no position: 0.
  h->last_timestamp = 77;
  EXPECT_EQ(cbs.render_report(GST_KELAPP_SINK(h->kelappsink), 34, h), 0);
  EXPECT_EQ(orlo_sst_pipe_get_last_timestamp(h), 77u);
  testing::internal::CaptureStdout();
  EXPECT_EQ(cbs.render_report(GST_KELAPP_SINK(h->kelappsink), 35, h), 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "last render time 0:00:00.000000000\r\n");
  EXPECT_EQ(orlo_sst_pipe_get_last_timestamp(h), 0u);
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
        deliver(play_info_event(c.name, c.eos, c.overlapped, c.norecord, c.base, c.dir));
    if (std::string(c.name) == "KELPlayInfo") {
      eos = c.eos, overlapped = c.overlapped, norecord = c.norecord, dir = c.dir;
      base = c.base != 0 ? c.base : base;
    }
    EXPECT_EQ(out, c.printed != nullptr ? "==========================" + std::string(c.printed) +
                                              ", " + address_of(h) + "\r\n"
                                        : "");
    EXPECT_EQ(orlo_sst_pipe_get_eos_mask(h), eos);
    EXPECT_EQ(orlo_sst_pipe_get_overlapped_mask(h), overlapped);
    EXPECT_EQ(orlo_sst_pipe_get_norecord_mask(h), norecord);
    EXPECT_EQ(h->base_time, base);
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
// halves, so a torn read shows as unequal ones.
TEST_F(SstPipe, StatusWordsStayWholeBetweenTwoThreads) {
  constexpr guint64 kEvents = 3000, kBoth = 0x0000000100000001ull;
  std::atomic<bool> done{false};
  std::thread writer([&] {
    for (guint64 k = 1; k <= kEvents; k++) {
      // Alternating values flip every bit of both halves.
      const guint64 v = (k % 2 ? 0xA5A5A5A5ull : 0x5A5A5A5Aull) * kBoth;
      GstEvent *ev = play_info_event("KELPlayInfo", v, ~v, v, ~v, 0);
      cbs.event(GST_KELAPP_SINK(h->kelappsink), ev, h);
      gst_event_unref(ev);
    }
    done.store(true);
  });
  auto whole = [](guint64 v) { return (v >> 32) == (v & 0xFFFFFFFFu); };
  unsigned long reads = 0, torn = 0;
  testing::internal::CaptureStdout();  // each base time prints a line
  while (!done.load()) {
    torn += !whole(orlo_sst_pipe_get_eos_mask(h)) + !whole(orlo_sst_pipe_get_overlapped_mask(h)) +
            !whole(orlo_sst_pipe_get_norecord_mask(h)) + !whole(orlo::load_word(h->base_time));
    reads++;
  }
  writer.join();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(torn, 0u) << "in " << reads << " rounds of reads";
  EXPECT_EQ(orlo_sst_pipe_get_eos_mask(h), 0x5A5A5A5Aull * kBoth);
}

TEST_F(SstPipe, SetParamWritesTimesInNanosecondsAndFixedValues) {
  g_object_set(h->src, "audio-ch", 3, "mode", 1, "vtick-interval-usec", 5, nullptr);
  EXPECT_EQ(orlo_sst_pipe_set_param(h, 2, 1, 1, 0, orlo_timeval_t{2, 500000},
                                    orlo_timeval_t{-3, 250}, orlo_timeval_t{7, 0}, 8, 0x80000001u),
            0);
  // ch-mask: no sign spreads into bit 63.
  expect_props(h->src,
               "begin-time=2500000000 end-time=-2999750000 search-time=7000000000 time-offset=0 "
               "vtick-interval-usec=33366 audio-ch=-1 mode=0 rate=2 dir=1 rate-control=1 hide=0 "
               "ch-num=8 open-rate=1 ch-mask=0x80000001");
  EXPECT_EQ(state_of(h->pipeline), GST_STATE_NULL);
}

// No record, no pipe: the caller gets NULL and the line; delete of NULL
// logs and returns.
TEST(PipeRecords, AMissingRecordIsRefusedWithItsLine) {
  log_capture log;
  pipe_spies::fail_allocation_of(sizeof(orlo_sst_pipe_t));
  EXPECT_EQ(orlo_sst_pipe_new(), nullptr);
  pipe_spies::fail_allocation_of(sizeof(orlo_lumen_pipe_t));
  EXPECT_EQ(orlo_lumen_pipe_new(4), nullptr);
  orlo_sst_pipe_delete(nullptr);
  orlo_lumen_pipe_delete(nullptr);
  for (const char *line : {"orlo_sst_pipe_new: assertion 'h_sst_pipe != NULL' failed",
                           "orlo_lumen_pipe_new: assertion 'h_lumen_pipe != NULL' failed",
                           "orlo_sst_pipe_delete: assertion 'h_sst_pipe != NULL' failed",
                           "orlo_lumen_pipe_delete: assertion 'h_lumen_pipe != NULL' failed"})
    EXPECT_EQ(log.count(line), 1) << line;
}

}  // namespace
