// The playback pipe's record: creation, the play-info status from the sink's
// event callback, the parameters and the stepping properties written by the
// control operations.
#include <gtest/gtest.h>

#include <string>

#include "kelapp_sink.h"
#include "log_capture.hh"
#include "orlo_sst_pipe.h"

namespace {

using testing_support::log_capture;

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

  // Brings the sink up with the source held back, so that the test can hand
  // the sink events of its own.
  GstPad *open_sink() {
    gst_element_set_locked_state(h->src, TRUE);
    gst_element_set_state(h->pipeline, GST_STATE_PAUSED);
    GstPad *pad = gst_element_get_static_pad(h->kelappsink, "sink");
    gst_pad_send_event(pad, gst_event_new_stream_start("test"));
    GstSegment seg;
    gst_segment_init(&seg, GST_FORMAT_TIME);
    gst_pad_send_event(pad, gst_event_new_segment(&seg));
    return pad;
  }

  static GstEvent *play_info(guint64 eos, guint64 overlapped, guint64 norecord, guint64 base,
                             int direction, const char *name = "KELPlayInfo") {
    return gst_event_new_custom(
        GST_EVENT_CUSTOM_DOWNSTREAM,
        gst_structure_new(name, "eos-status", G_TYPE_UINT64, eos, "overlapped-status",
                          G_TYPE_UINT64, overlapped, "norecord-status", G_TYPE_UINT64, norecord,
                          "base-time", G_TYPE_UINT64, base, "direction", G_TYPE_INT, direction,
                          nullptr));
  }

  template <typename T>
  T get(GstElement *e, const char *name) {
    T v{};
    g_object_get(e, name, &v, nullptr);
    return v;
  }

  orlo_sst_pipe_t *h = nullptr;
};

TEST(SstPipeNew, StandsWithItsElementsPropertiesAndLogLine) {
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
  ASSERT_NE(sink, nullptr);
  EXPECT_STREQ(GST_OBJECT_NAME(src), "playsstsrc");
  EXPECT_STREQ(GST_OBJECT_NAME(sink), "sst_app_sink");
  EXPECT_STREQ(G_OBJECT_TYPE_NAME(src), "GstKelSstSrc");
  EXPECT_TRUE(GST_IS_KELAPP_SINK(sink));
  EXPECT_EQ(h->thread_ready, 1);
  EXPECT_NE(h->h_thread, nullptr);
  EXPECT_EQ(orlo_sst_pipe_get_eos_mask(h), 0u);
  EXPECT_EQ(orlo_sst_pipe_get_overlapped_mask(h), 0u);
  EXPECT_EQ(orlo_sst_pipe_get_norecord_mask(h), 0u);
  EXPECT_EQ(orlo_sst_pipe_get_last_timestamp(h), 0u);
  EXPECT_EQ(h->base_time, 0u);
  EXPECT_EQ(h->direction, 0);
  GstState state = GST_STATE_VOID_PENDING;
  gst_element_get_state(h->pipeline, &state, nullptr, 0);
  EXPECT_NE(state, GST_STATE_PLAYING);

  gint i = 0;
  guint64 mask = 0;
  gint64 t = -1;
  g_object_get(src, "vtick-interval-usec", &i, nullptr);
  EXPECT_EQ(i, 1000000);
  g_object_get(src, "open-rate", &i, nullptr);
  EXPECT_EQ(i, 1);
  g_object_get(src, "hide", &i, nullptr);
  EXPECT_EQ(i, 1);
  g_object_get(src, "ch-num", &i, nullptr);
  EXPECT_EQ(i, 4);
  g_object_get(src, "audio-ch", &i, nullptr);
  EXPECT_EQ(i, -1);
  g_object_get(src, "ch-mask", &mask, nullptr);
  EXPECT_EQ(mask, 15u);
  g_object_get(src, "search-time", &t, nullptr);
  EXPECT_EQ(t, 0);
  gboolean b = FALSE;
  guint u = 0;
  g_object_get(sink, "sync", &b, nullptr);
  EXPECT_TRUE(b);
  g_object_get(sink, "drop", &b, nullptr);
  EXPECT_TRUE(b);
  g_object_get(sink, "max-buffers", &u, nullptr);
  EXPECT_EQ(u, 3u);
  g_object_get(sink, "priority", &i, nullptr);
  EXPECT_EQ(i, 97);
  orlo_sst_pipe_delete(h);
}

TEST_F(SstPipe, PlayInfoEventsReplaceTheMasksAndKeepANonZeroBaseTime) {
  GstPad *pad = open_sink();
  testing::internal::CaptureStdout();
  gst_pad_send_event(pad, play_info(5, 6, 7, 10 * GST_SECOND, 1));
  gst_pad_send_event(pad, play_info(0, 2, 0, 0, 0));
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(orlo_sst_pipe_get_eos_mask(h), 0u);  // replaced, not merged
  EXPECT_EQ(orlo_sst_pipe_get_overlapped_mask(h), 2u);
  EXPECT_EQ(orlo_sst_pipe_get_norecord_mask(h), 0u);
  EXPECT_EQ(h->base_time, 10 * GST_SECOND);  // a base time of 0 changes nothing
  EXPECT_EQ(h->direction, 0);
  gchar *line = g_strdup_printf("==========================0:00:10.000000000, %08x\r\n",
                                static_cast<unsigned>(reinterpret_cast<uintptr_t>(h)));
  EXPECT_EQ(out, line);  // one line: the event with base time 0 printed nothing
  g_free(line);

  // Another name changes nothing; clearing leaves the base time and the last
  // render time alone.
  gst_pad_send_event(pad, play_info(9, 9, 9, 5, 1, "OtherInfo"));
  EXPECT_EQ(orlo_sst_pipe_get_overlapped_mask(h), 2u);
  EXPECT_EQ(h->direction, 0);
  h->last_timestamp = 77;
  orlo_sst_pipe_clear_status(h);
  EXPECT_EQ(orlo_sst_pipe_get_overlapped_mask(h), 0u);
  EXPECT_EQ(orlo_sst_pipe_get_last_timestamp(h), 77u);
  EXPECT_EQ(h->base_time, 10 * GST_SECOND);
  gst_object_unref(pad);
}

TEST_F(SstPipe, BaseTimePrintsAllBitsSetAndExactlyOneHour) {
  GstPad *pad = open_sink();
  const unsigned addr = static_cast<unsigned>(reinterpret_cast<uintptr_t>(h));
  testing::internal::CaptureStdout();
  gst_pad_send_event(pad, play_info(0, 0, 0, G_MAXUINT64, 0));
  std::string out = testing::internal::GetCapturedStdout();
  gchar *line = g_strdup_printf("==========================99:99:99.999999999, %08x\r\n", addr);
  EXPECT_EQ(out, line);
  g_free(line);
  EXPECT_EQ(h->base_time, G_MAXUINT64);

  testing::internal::CaptureStdout();
  gst_pad_send_event(pad, play_info(0, 0, 0, 3600 * GST_SECOND, 0));
  out = testing::internal::GetCapturedStdout();
  line = g_strdup_printf("==========================1:00:00.000000000, %08x\r\n", addr);
  EXPECT_EQ(out, line);
  g_free(line);

  testing::internal::CaptureStdout();
  gst_pad_send_event(pad, play_info(0, 0, 0, 25 * 3600 * GST_SECOND + 61 * GST_SECOND + 7, 0));
  out = testing::internal::GetCapturedStdout();
  line = g_strdup_printf("==========================25:01:01.000000007, %08x\r\n", addr);
  EXPECT_EQ(out, line);
  g_free(line);
  gst_object_unref(pad);
}

TEST_F(SstPipe, SetParamWritesTimesInNanosecondsAndFixedValues) {
  g_object_set(h->src, "audio-ch", 3, "mode", 0, "vtick-interval-usec", 5, nullptr);
  orlo_sst_pipe_set_param(h, 2, 1, 1, 0, orlo_timeval_t{2, 500000}, orlo_timeval_t{-3, 250},
                          orlo_timeval_t{7, 0}, 8, 0x80000001u);
  EXPECT_EQ(get<gint64>(h->src, "begin-time"), 2500000000);
  EXPECT_EQ(get<gint64>(h->src, "end-time"), -3 * 1000000000LL + 250000);
  EXPECT_EQ(get<gint64>(h->src, "search-time"), 7000000000);
  EXPECT_EQ(get<gint64>(h->src, "time-offset"), 0);
  EXPECT_EQ(get<gint>(h->src, "vtick-interval-usec"), 33366);
  EXPECT_EQ(get<gint>(h->src, "audio-ch"), -1);
  EXPECT_EQ(get<gint>(h->src, "rate"), 2);
  EXPECT_EQ(get<gint>(h->src, "dir"), 1);
  EXPECT_EQ(get<gint>(h->src, "rate-control"), 1);
  EXPECT_EQ(get<gint>(h->src, "hide"), 0);
  EXPECT_EQ(get<gint>(h->src, "ch-num"), 8);
  EXPECT_EQ(get<gint>(h->src, "open-rate"), 1);
  EXPECT_EQ(get<guint64>(h->src, "ch-mask"), 0x80000001u);  // no sign spreads into bit 63
  // No state change.
  GstState state = GST_STATE_VOID_PENDING;
  gst_element_get_state(h->pipeline, &state, nullptr, 0);
  EXPECT_EQ(state, GST_STATE_NULL);
}

TEST_F(SstPipe, StateOperationsWriteSteppingAndSync) {
  // With no recordings the source ends at once; the properties are what
  // matters here.
  g_object_set(h->src, "location", "/nonexistent-orlo-recordings", "open-rate", 0, nullptr);
  orlo_sst_pipe_next(h);
  orlo_sst_pipe_next(h);
  EXPECT_EQ(get<gint>(h->src, "next-frame-mode"), 1);
  EXPECT_FALSE(get<gboolean>(h->kelappsink, "sync"));
  GstState state = GST_STATE_VOID_PENDING;
  gst_element_get_state(h->pipeline, &state, nullptr, 0);
  EXPECT_EQ(state, GST_STATE_PLAYING);

  orlo_sst_pipe_stop(h);  // leaves sync as it was
  EXPECT_FALSE(get<gboolean>(h->kelappsink, "sync"));
  EXPECT_EQ(get<gint>(h->src, "next-frame-mode"), 0);

  orlo_sst_pipe_next(h);
  orlo_sst_pipe_start(h);
  EXPECT_TRUE(get<gboolean>(h->kelappsink, "sync"));
  EXPECT_EQ(get<gint>(h->src, "next-frame-mode"), 0);
  EXPECT_EQ(get<gint>(h->src, "cmd-next"), 0);

  orlo_sst_pipe_next(h);
  EXPECT_EQ(orlo_sst_pipe_pause(h), 0);
  EXPECT_TRUE(get<gboolean>(h->kelappsink, "sync"));
  EXPECT_EQ(get<gint>(h->src, "next-frame-mode"), 0);
}

TEST(SstPipeDelete, NullHandleIsReported) {
  log_capture logs;
  orlo_sst_pipe_delete(nullptr);
  bool found = false;
  for (const auto &l : logs.lines())
    found |= l.text.find("orlo_sst_pipe_delete") != std::string::npos &&
             l.text.find("h_sst_pipe != NULL") != std::string::npos;
  EXPECT_TRUE(found);
}

}  // namespace
