// The playback pipe's record: creation, the play-info status from the sink's
// event callback with its printed line, and the parameters it writes.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "kelapp_sink.h"
#include "log_capture.hh"
#include "orlo_sst_pipe.h"
#include "shared_word.hh"

namespace {

using testing_support::log_capture;

// Any integer or boolean property, widened.
int64_t prop(GstElement *e, const char *name) {
  GParamSpec *pspec = g_object_class_find_property(G_OBJECT_GET_CLASS(e), name);
  EXPECT_NE(pspec, nullptr) << name;
  if (pspec == nullptr) return -12345;
  GValue v = G_VALUE_INIT, wide = G_VALUE_INIT;
  g_value_init(&v, pspec->value_type);
  g_object_get_property(G_OBJECT(e), name, &v);
  int64_t out = 0;
  if (G_VALUE_HOLDS_BOOLEAN(&v)) {
    out = g_value_get_boolean(&v);
  } else {
    g_value_init(&wide, G_TYPE_INT64);
    EXPECT_TRUE(g_value_transform(&v, &wide)) << name;
    out = g_value_get_int64(&wide);
  }
  g_value_unset(&v);
  return out;
}

GstState state_of(GstElement *e) {
  GstState state = GST_STATE_VOID_PENDING;
  gst_element_get_state(e, &state, nullptr, 0);
  return state;
}

// Checks "name=value name=value ..." against the element's properties.
void expect_props(GstElement *e, const char *want) {
  gchar **pairs = g_strsplit(want, " ", -1);
  for (gchar **p = pairs; *p != nullptr; p++) {
    gchar **kv = g_strsplit(*p, "=", 2);
    EXPECT_EQ(prop(e, kv[0]), g_ascii_strtoll(kv[1], nullptr, 0)) << kv[0];
    g_strfreev(kv);
  }
  g_strfreev(pairs);
}

class SstPipe : public ::testing::Test {
 protected:
  void SetUp() override {
    gst_init(nullptr, nullptr);
    h = orlo_sst_pipe_new();
    ASSERT_NE(h, nullptr);
  }
  void TearDown() override {
    if (h == nullptr) return;
    orlo_sst_pipe_stop(h);
    gst_element_set_locked_state(h->src, FALSE);
    orlo_sst_pipe_delete(h);
  }
  // The sink up with the source held back, so that the test hands it events;
  // the caller unrefs the pad.
  GstPad *sink_pad_up() {
    gst_element_set_locked_state(h->src, TRUE);
    gst_element_set_state(h->pipeline, GST_STATE_PAUSED);
    GstPad *pad = gst_element_get_static_pad(h->kelappsink, "sink");
    gst_pad_send_event(pad, gst_event_new_stream_start("test"));
    GstSegment seg;
    gst_segment_init(&seg, GST_FORMAT_TIME);
    gst_pad_send_event(pad, gst_event_new_segment(&seg));
    return pad;
  }
  orlo_sst_pipe_t *h = nullptr;
};

TEST(SstPipeNew, StandsWithItsElementsPropertiesAndLogLines) {
  gst_init(nullptr, nullptr);
  log_capture logs;
  testing::internal::CaptureStdout();
  orlo_sst_pipe_t *h = orlo_sst_pipe_new();
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_NE(h, nullptr);
  EXPECT_NE(out.find("------------------------------ g_object set !!!!!!!!!!!!!!\n"),
            std::string::npos);
  gchar *line = g_strdup_printf("h_sst_pipe= !!!!!!!!!!!!!! %08x\n",
                                static_cast<unsigned>(reinterpret_cast<uintptr_t>(h)));
  EXPECT_TRUE(logs.has(G_LOG_LEVEL_MESSAGE, line));
  g_free(line);

  GstElement *src = orlo_sst_pipe_get_src(h);
  GstElement *sink = orlo_sst_pipe_get_kelappsink(h);
  ASSERT_NE(src, nullptr);
  ASSERT_TRUE(GST_IS_KELAPP_SINK(sink));
  EXPECT_STREQ(GST_OBJECT_NAME(src), "playsstsrc");
  EXPECT_STREQ(GST_OBJECT_NAME(sink), "sst_app_sink");
  EXPECT_STREQ(G_OBJECT_TYPE_NAME(src), "GstKelSstSrc");
  EXPECT_EQ(h->thread_ready, 1);
  EXPECT_NE(h->h_thread, nullptr);
  EXPECT_NE(state_of(h->pipeline), GST_STATE_PLAYING);
  expect_props(src,
               "vtick-interval-usec=1000000 open-rate=1 hide=1 ch-num=4 audio-ch=-1 "
               "ch-mask=15 search-time=0");
  expect_props(sink, "sync=1 drop=1 max-buffers=3 priority=97");
  orlo_sst_pipe_delete(h);

  logs.clear();
  orlo_sst_pipe_delete(nullptr);
  bool found = false;
  for (const auto &l : logs.lines())
    found |= l.text.find("orlo_sst_pipe_delete") != std::string::npos &&
             l.text.find("h_sst_pipe != NULL") != std::string::npos;
  EXPECT_TRUE(found);
}

// Each KELPlayInfo event replaces the masks and the direction; a non-zero
// base time is kept and printed, hours unbounded, all bits set as nines.
TEST_F(SstPipe, PlayInfoEventsSetTheStatusAndPrintTheBaseTime) {
  GstPad *pad = sink_pad_up();

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
  const unsigned addr = static_cast<unsigned>(reinterpret_cast<uintptr_t>(h));
  guint64 eos = 0, overlapped = 0, norecord = 0, base = 0;
  int dir = 0;
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.name << " base " << c.base);
    testing::internal::CaptureStdout();
    gst_pad_send_event(
        pad, gst_event_new_custom(
                 GST_EVENT_CUSTOM_DOWNSTREAM,
                 gst_structure_new(c.name, "eos-status", G_TYPE_UINT64, c.eos, "overlapped-status",
                                   G_TYPE_UINT64, c.overlapped, "norecord-status", G_TYPE_UINT64,
                                   c.norecord, "base-time", G_TYPE_UINT64, c.base, "direction",
                                   G_TYPE_INT, c.dir, nullptr)));
    const std::string out = testing::internal::GetCapturedStdout();
    if (std::string(c.name) == "KELPlayInfo") {
      eos = c.eos, overlapped = c.overlapped, norecord = c.norecord, dir = c.dir;
      base = c.base != 0 ? c.base : base;
    }
    gchar *line = g_strdup_printf("==========================%s, %08x\r\n", c.printed, addr);
    EXPECT_EQ(out, c.printed != nullptr ? line : "");
    g_free(line);
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
  gst_object_unref(pad);
}

// The sink's thread writes the 64-bit status while the application reads it:
// every value read is one that was written, never the halves of two (a
// 32-bit target needs an atomic for that).  Each value written has equal
// halves, so a torn read shows as unequal ones.
TEST_F(SstPipe, StatusWordsStayWholeBetweenTwoThreads) {
  GstPad *pad = sink_pad_up();

  constexpr guint64 kEvents = 3000, kBoth = 0x0000000100000001ull;
  std::atomic<bool> done{false};
  testing::internal::CaptureStdout();  // each base time prints a line
  std::thread writer([&] {
    for (guint64 k = 1; k <= kEvents; k++) {
      // Alternating values flip every bit of both halves.
      const guint64 v = (k % 2 ? 0xA5A5A5A5ull : 0x5A5A5A5Aull) * kBoth;
      gst_pad_send_event(
          pad,
          gst_event_new_custom(
              GST_EVENT_CUSTOM_DOWNSTREAM,
              gst_structure_new("KELPlayInfo", "eos-status", G_TYPE_UINT64, v, "overlapped-status",
                                G_TYPE_UINT64, ~v, "norecord-status", G_TYPE_UINT64, v, "base-time",
                                G_TYPE_UINT64, ~v, "direction", G_TYPE_INT, 0, nullptr)));
    }
    done.store(true);
  });
  auto whole = [](guint64 v) { return (v >> 32) == (v & 0xFFFFFFFFu); };
  unsigned long reads = 0, torn = 0;
  while (!done.load()) {
    torn += !whole(orlo_sst_pipe_get_eos_mask(h)) + !whole(orlo_sst_pipe_get_overlapped_mask(h)) +
            !whole(orlo_sst_pipe_get_norecord_mask(h)) + !whole(orlo::load_word(h->base_time));
    reads++;
  }
  writer.join();
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(torn, 0u) << "in " << reads << " rounds of reads";
  EXPECT_EQ(orlo_sst_pipe_get_eos_mask(h), 0x5A5A5A5Aull * kBoth);
  gst_object_unref(pad);
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

}  // namespace
