// The application sink: its bounded queue, its callbacks on the streaming
// thread, the step report, and what becomes of queued buffers on flush and
// on the way down.
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "element_checks.hh"
#include "eventually.hh"
#include "kelapp_sink.h"
#include "ref_ptr.hh"

using testing_support::eventually;

namespace {

// appsrc -> kelappsink.  Buffers are counted where they enter the sink: the
// source may copy a buffer it still shares with the pusher.
struct pipeline {
  explicit pipeline(const std::string &props) {
    gst_init(nullptr, nullptr);
    pipe = orlo::adopt_floating(gst_parse_launch(
        ("appsrc name=src format=time ! kelappsink name=sink " + props).c_str(), nullptr));
    src = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipe.get()), "src"));
    element = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipe.get()), "sink"));
    pad = orlo::adopt(gst_element_get_static_pad(element.get(), "sink"));
    gst_pad_add_probe(
        pad.get(), GST_PAD_PROBE_TYPE_BUFFER,
        [](GstPad *, GstPadProbeInfo *info, gpointer self) {
          static_cast<pipeline *>(self)->arrived++;
          gst_mini_object_weak_ref(
              GST_MINI_OBJECT_CAST(GST_PAD_PROBE_INFO_BUFFER(info)),
              [](gpointer p, GstMiniObject *) { static_cast<pipeline *>(p)->freed++; }, self);
          return GST_PAD_PROBE_OK;
        },
        this, nullptr);
  }
  ~pipeline() { set(GST_STATE_NULL); }
  void set(GstState s) { gst_element_set_state(pipe.get(), s); }
  // A buffer holding its number `n`; takes it to the source.
  void push(guint64 n, bool step = false) {
    GstBuffer *b = gst_buffer_new_allocate(nullptr, 8, nullptr);
    gst_buffer_fill(b, 0, &n, sizeof n);
    GST_BUFFER_PTS(b) = n * GST_MSECOND;
    if (step) GST_BUFFER_FLAG_SET(b, GST_KELAPP_SINK_BUFFER_FLAG_STEP);
    GstFlowReturn ret;
    g_signal_emit_by_name(src.get(), "push-buffer", b, &ret);
    gst_buffer_unref(b);
  }
  bool eos_reached() {
    GstFlowReturn ret;
    g_signal_emit_by_name(src.get(), "end-of-stream", &ret);
    auto bus = orlo::adopt(gst_element_get_bus(pipe.get()));
    auto msg = orlo::adopt(gst_bus_timed_pop_filtered(
        bus.get(), 20 * GST_SECOND,
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    return msg && GST_MESSAGE_TYPE(msg.get()) == GST_MESSAGE_EOS;
  }
  GstKelAppSink *sink() const { return GST_KELAPP_SINK(element.get()); }

  orlo::ref_ptr<GstElement> pipe, src, element;
  orlo::ref_ptr<GstPad> pad;
  std::atomic<int> arrived{0}, freed{0};
};

// Pulls one buffer and gives its number, -1 for none.
int pull_number(GstKelAppSink *sink) {
  GstBuffer *b = gst_kelapp_sink_pull_buffer(sink);
  guint64 n = 0;
  if (b == nullptr) return -1;
  gst_buffer_extract(b, 0, &n, sizeof n);
  gst_buffer_unref(b);
  return static_cast<int>(n);
}

TEST(KelAppSink, DropKeepsTheNewestAndFlushReleasesThem) {
  pipeline p("sync=false drop=true max-buffers=3");
  p.set(GST_STATE_PLAYING);
  for (guint64 i = 0; i < 5; i++) p.push(i);
  ASSERT_TRUE(p.eos_reached());  // 2, 3 and 4 sit in the queue
  EXPECT_EQ(p.arrived.load(), 5);
  EXPECT_EQ(p.freed.load(), 2);
  g_object_set(p.sink(), "max-buffers", 2u, nullptr);  // sheds the oldest at once
  EXPECT_EQ(p.freed.load(), 3);
  EXPECT_EQ(pull_number(p.sink()), 3);
  EXPECT_EQ(p.freed.load(), 4);
  gst_pad_send_event(p.pad.get(), gst_event_new_flush_start());
  gst_pad_send_event(p.pad.get(), gst_event_new_flush_stop(TRUE));
  EXPECT_EQ(pull_number(p.sink()), -1);
  EXPECT_EQ(p.freed.load(), 5);
}

TEST(KelAppSink, FullQueueWaitsForPullsAndStopReleasesTheRest) {
  pipeline p("sync=false max-buffers=1");
  p.set(GST_STATE_PLAYING);
  for (guint64 i = 0; i < 4; i++) p.push(i);
  std::vector<int> got;
  for (int n = 0; n < 2; n++) {
    int b = -1;
    ASSERT_TRUE(eventually([&] { return (b = pull_number(p.sink())) >= 0; }));
    got.push_back(b);
  }
  EXPECT_EQ(got, (std::vector<int>{0, 1}));
  // Buffer 2 fills the queue, buffer 3 waits inside render: going down must
  // neither hang nor keep either.
  ASSERT_TRUE(eventually([&] { return p.arrived.load() == 4; }));
  p.set(GST_STATE_NULL);
  EXPECT_EQ(p.freed.load(), 4);
}

// What the callbacks saw, in order, and whether any ran on the test's thread.
struct recorder {
  std::mutex lock;
  std::vector<std::string> log;
  std::atomic<bool> off_caller_thread{true};
  std::thread::id caller = std::this_thread::get_id();
  static void add(gpointer self, const std::string &s) {
    auto *r = static_cast<recorder *>(self);
    if (std::this_thread::get_id() == r->caller) r->off_caller_thread = false;
    std::lock_guard<std::mutex> g(r->lock);
    r->log.push_back(s);
  }
  std::vector<std::string> snapshot() {
    std::lock_guard<std::mutex> g(lock);
    return log;
  }
};

// Each event by its type, a play-info event with its direction.
gint on_event(GstKelAppSink *, GstEvent *ev, gpointer r) {
  const GstStructure *s = gst_event_get_structure(ev);
  gint dir = -1;
  std::string name = GST_EVENT_TYPE_NAME(ev);
  if (s != nullptr && gst_structure_get_int(s, "direction", &dir))
    name += " " + std::to_string(dir);
  recorder::add(r, name);
  return 0;
}

TEST(KelAppSink, CallbacksRunOnTheStreamingThreadInStreamOrder) {
  recorder r;
  {
    pipeline p("sync=false drop=true max-buffers=3");
    const GstKelAppSinkRenderCallbacks render_cbs = {
        [](GstKelAppSink *, gpointer d) { recorder::add(d, "render eos"); },
        [](GstKelAppSink *sink, gpointer d) -> gint {
          recorder::add(d, "render " + std::to_string(pull_number(sink)));
          return 0;
        },
        {}};
    const GstKelAppSinkCallbacks cbs = {
        [](GstKelAppSink *, gpointer d) { recorder::add(d, "eos callback"); },
        on_event,
        [](GstKelAppSink *, gpointer d) -> gint { return recorder::add(d, "preroll"), 0; },
        [](GstKelAppSink *, gint code, gpointer d) -> gint {
          return recorder::add(d, "report " + std::to_string(code)), 0;
        },
        {}};
    gst_kelapp_sink_set_render_callbacks(p.sink(), &render_cbs, &r, nullptr);
    gst_kelapp_sink_set_callbacks(p.sink(), &cbs, &r, nullptr);
    p.set(GST_STATE_PLAYING);
    p.push(0);
    p.push(1, true);
    // appsrc queues buffers on a thread of its own, and an event sent to it
    // would overtake the ones still queued: send it once both have rendered.
    ASSERT_TRUE(eventually([&] { return r.snapshot().size() >= 4; }));
    GstStructure *s = gst_structure_new("KELPlayInfo", "direction", G_TYPE_INT, 1, nullptr);
    ASSERT_TRUE(
        gst_element_send_event(p.src.get(), gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, s)));
    p.push(2);
    ASSERT_TRUE(p.eos_reached());
    // A flush is not part of the stream: the event callback never sees it.
    gst_pad_send_event(p.pad.get(), gst_event_new_flush_start());
    gst_pad_send_event(p.pad.get(), gst_event_new_flush_stop(TRUE));
  }
  EXPECT_EQ(r.snapshot(),
            (std::vector<std::string>{"stream-start", "segment", "preroll", "render 0", "render 1",
                                      "report 35", "custom-downstream 1", "render 2", "eos",
                                      "render eos", "eos callback"}));
  EXPECT_TRUE(r.off_caller_thread.load());
}

TEST(KelAppSink, ReplacedAndFinalizedTablesNotifyTheirDataAndCapsNarrowTheSink) {
  expect_element_basics("kelappsink", 4);
  recorder first, second, render;
  const GDestroyNotify notify = [](gpointer d) { recorder::add(d, "notify"); };
  auto element = orlo::adopt_floating(gst_element_factory_make("kelappsink", nullptr));
  auto *sink = GST_KELAPP_SINK(element.get());
  EXPECT_EQ(gst_kelapp_sink_pull_buffer(sink), nullptr);
  const GstKelAppSinkCallbacks cbs = {};
  const GstKelAppSinkRenderCallbacks render_cbs = {};
  gst_kelapp_sink_set_callbacks(sink, &cbs, &first, notify);
  gst_kelapp_sink_set_render_callbacks(sink, &render_cbs, &render, notify);
  gst_kelapp_sink_set_callbacks(sink, &cbs, &second, notify);
  EXPECT_EQ(first.snapshot(), std::vector<std::string>{"notify"});
  EXPECT_TRUE(second.snapshot().empty());

  auto pad = orlo::adopt(gst_element_get_static_pad(element.get(), "sink"));
  auto h264 = orlo::adopt(gst_caps_from_string("video/x-h264"));
  auto raw = orlo::adopt(gst_caps_from_string("video/x-raw"));
  EXPECT_TRUE(gst_pad_query_accept_caps(pad.get(), h264.get()));
  g_object_set(element.get(), "caps", raw.get(), nullptr);
  EXPECT_FALSE(gst_pad_query_accept_caps(pad.get(), h264.get()));
  // A pulled buffer is not kept alive behind the queue; a priority is one
  // of SCHED_FIFO's.
  gboolean last_sample = TRUE;
  gint priority = 0;
  g_object_set(element.get(), "priority", 100, nullptr);  // refused
  g_object_get(element.get(), "priority", &priority, "enable-last-sample", &last_sample, nullptr);
  EXPECT_TRUE(priority == 0 && !last_sample);
  // Something that is no sink is refused, and keeps the sink's tables.
  for (auto *other :
       {reinterpret_cast<GstKelAppSink *>(pad.get()), static_cast<GstKelAppSink *>(nullptr)}) {
    gst_kelapp_sink_set_callbacks(other, &cbs, &first, notify);
    gst_kelapp_sink_set_render_callbacks(other, &render_cbs, &first, notify);
    EXPECT_EQ(gst_kelapp_sink_pull_buffer(other), nullptr);
  }
  element.reset();
  EXPECT_EQ(second.snapshot(), std::vector<std::string>{"notify"});
  EXPECT_EQ(render.snapshot(), std::vector<std::string>{"notify"});
}

}  // namespace
