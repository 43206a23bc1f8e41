// The application sink: its bounded queue, its callbacks on the streaming
// thread, the step report, and what becomes of queued buffers on flush and
// on the way down.
#include <malloc.h>

#include "element_checks.hh"
#include "kelapp_sink.h"

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
  // A buffer holding its number `n`, through the source.
  void push(guint64 n, bool step = false) {
    GstBuffer *b = gst_buffer_new_memdup(&n, sizeof n);
    if (step) GST_BUFFER_FLAG_SET(b, GST_KELAPP_SINK_BUFFER_FLAG_STEP);
    gst_app_src_push_buffer(GST_APP_SRC(src.get()), b);
  }
  bool eos_reached() {
    gst_app_src_end_of_stream(GST_APP_SRC(src.get()));
    auto bus = orlo::adopt(gst_element_get_bus(pipe.get()));
    return static_cast<bool>(
        orlo::adopt(gst_bus_timed_pop_filtered(bus.get(), 20 * GST_SECOND, GST_MESSAGE_EOS)));
  }
  void flush() {
    gst_pad_send_event(pad.get(), gst_event_new_flush_start());
    gst_pad_send_event(pad.get(), gst_event_new_flush_stop(TRUE));
  }
  GstKelAppSink *sink() const { return GST_KELAPP_SINK(element.get()); }

  orlo::ref_ptr<GstElement> pipe, src, element;
  orlo::ref_ptr<GstPad> pad;
  std::atomic<int> arrived{0}, freed{0};
};

// Pulls one buffer and gives its number, -1 for none.
int pull_number(GstKelAppSink *sink) {
  orlo::ref_ptr<GstBuffer> b = orlo::adopt(gst_kelapp_sink_pull_buffer(sink));
  guint64 n = 0;
  return b && gst_buffer_extract(b.get(), 0, &n, sizeof n) ? static_cast<int>(n) : -1;
}

TEST(KelAppSink, DropKeepsTheNewestAndFlushReleasesThem) {
  pipeline p("sync=false drop=true max-buffers=3");
  p.set(GST_STATE_PLAYING);
  for (guint64 i = 0; i < 5; i++) p.push(i);
  ASSERT_TRUE(p.eos_reached());  // 2, 3 and 4 sit in the queue
  EXPECT_EQ(p.freed.load(), 2);
  g_object_set(p.sink(), "max-buffers", 2u, nullptr);  // sheds the oldest at once
  EXPECT_EQ(p.freed.load(), 3);
  EXPECT_EQ(pull_number(p.sink()), 3);
  EXPECT_EQ(p.freed.load(), 4);
  p.flush();
  EXPECT_EQ(pull_number(p.sink()), -1);
  EXPECT_EQ(p.freed.load(), 5);
}

TEST(KelAppSink, FullQueueWaitsForPullsOrALargerBoundAndStopReleasesTheRest) {
  pipeline p("sync=false max-buffers=1");
  std::atomic<int> rendered{0};
  const GstKelAppSinkRenderCallbacks count = {
      nullptr,
      [](GstKelAppSink *, gpointer n) { return ++*static_cast<std::atomic<int> *>(n), 0; },
      {}};
  gst_kelapp_sink_set_render_callbacks(p.sink(), &count, &rendered, nullptr);
  p.set(GST_STATE_PLAYING);
  p.flush();  // after which a full queue waits again
  for (guint64 i = 0; i < 5; i++) p.push(i);
  for (int n = 0; n < 2; n++) {
    int b = -1;
    ASSERT_TRUE(eventually([&] { return (b = pull_number(p.sink())) >= 0; }));
    EXPECT_EQ(b, n);
  }
  // Buffer 2 fills the queue, buffer 3 waits inside render until the bound
  // grows, then buffer 4 waits: going down must neither hang nor keep any.
  ASSERT_TRUE(eventually([&] { return p.arrived.load() == 4; }));
  EXPECT_EQ(rendered.load(), 3);
  g_object_set(p.sink(), "max-buffers", 2u, nullptr);
  ASSERT_TRUE(eventually([&] { return rendered.load() == 4 && p.arrived.load() == 5; }));
  p.set(GST_STATE_NULL);
  EXPECT_EQ(p.freed.load(), 5);
}

// What the callbacks saw, in order; a call on the test's own thread is marked.
struct recorder {
  std::mutex lock;
  std::vector<std::string> log;
  const std::thread::id caller = std::this_thread::get_id();
  static gint add(gpointer self, const std::string &s) {
    auto *r = static_cast<recorder *>(self);
    std::lock_guard<std::mutex> g(r->lock);
    r->log.push_back(std::this_thread::get_id() == r->caller ? "on the caller's thread: " + s : s);
    return 0;
  }
  size_t size() { return std::lock_guard<std::mutex>(lock), log.size(); }
};

TEST(KelAppSink, CallbacksRunOnTheStreamingThreadInStreamOrder) {
  recorder r;
  {
    pipeline p("sync=false drop=true max-buffers=3");
    const GstKelAppSinkRenderCallbacks render_cbs = {
        [](GstKelAppSink *, gpointer d) { recorder::add(d, "render eos"); },
        [](GstKelAppSink *sink, gpointer d) {
          return recorder::add(d, "render " + std::to_string(pull_number(sink)));
        },
        {}};
    const GstKelAppSinkCallbacks cbs = {
        [](GstKelAppSink *, gpointer d) { recorder::add(d, "eos callback"); },
        [](GstKelAppSink *, GstEvent *ev, gpointer d) {
          return recorder::add(d, GST_EVENT_TYPE_NAME(ev));
        },
        [](GstKelAppSink *, gpointer d) { return recorder::add(d, "preroll"); },
        [](GstKelAppSink *, gint code, gpointer d) {
          return recorder::add(d, "report " + std::to_string(code));
        },
        {}};
    gst_kelapp_sink_set_render_callbacks(p.sink(), &render_cbs, &r, nullptr);
    gst_kelapp_sink_set_callbacks(p.sink(), &cbs, &r, nullptr);
    p.set(GST_STATE_PLAYING);
    p.push(0);
    p.push(1, true);
    // appsrc queues buffers on a thread of its own, and an event sent to it
    // would overtake the ones still queued: send it once both have rendered.
    ASSERT_TRUE(eventually([&] { return r.size() >= 6; }));
    ASSERT_TRUE(gst_element_send_event(
        p.src.get(),
        gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, gst_structure_new_empty("KELPlayInfo"))));
    p.push(2);
    ASSERT_TRUE(p.eos_reached());
    p.flush();  // not part of the stream: the event callback never sees it
  }
  EXPECT_EQ(r.log, (std::vector<std::string>{"stream-start", "segment", "preroll", "render 0",
                                             "render 1", "report 35", "custom-downstream",
                                             "render 2", "eos", "render eos", "eos callback"}));
}

TEST(KelAppSink, ReplacedAndFinalizedTablesNotifyTheirDataAndCapsNarrowTheSink) {
  expect_element_basics("kelappsink", 4);
  static std::vector<std::string> notified;
  static char first[] = "first", second[] = "second", render[] = "render";
  const GDestroyNotify notify = [](gpointer d) { notified.push_back(static_cast<char *>(d)); };
  auto element = orlo::adopt_floating(gst_element_factory_make("kelappsink", nullptr));
  auto *sink = GST_KELAPP_SINK(element.get());
  const GstKelAppSinkCallbacks cbs = {};
  const GstKelAppSinkRenderCallbacks render_cbs = {};
  gst_kelapp_sink_set_callbacks(sink, &cbs, first, notify);
  gst_kelapp_sink_set_render_callbacks(sink, &render_cbs, render, notify);
  gst_kelapp_sink_set_callbacks(sink, &cbs, second, notify);
  EXPECT_EQ(notified, std::vector<std::string>{"first"});
  // Something that is no sink is refused, and keeps the sink's tables.
  for (auto *other : {reinterpret_cast<GstKelAppSink *>(element.get()->sinkpads->data),
                      static_cast<GstKelAppSink *>(nullptr)}) {
    gst_kelapp_sink_set_callbacks(other, &cbs, first, notify);
    gst_kelapp_sink_set_render_callbacks(other, &render_cbs, first, notify);
    EXPECT_EQ(gst_kelapp_sink_pull_buffer(other), nullptr);
  }

  auto pad = orlo::adopt(gst_element_get_static_pad(element.get(), "sink"));
  auto h264 = orlo::adopt(gst_caps_from_string("video/x-h264"));
  EXPECT_TRUE(gst_caps_is_any(orlo::adopt(gst_pad_query_caps(pad.get(), nullptr)).get()));
  EXPECT_TRUE(gst_pad_query_accept_caps(pad.get(), h264.get()));
  gst_util_set_object_arg(G_OBJECT(sink), "caps", "video/x-raw");
  EXPECT_FALSE(gst_pad_query_accept_caps(pad.get(), h264.get()));
  // A pulled buffer is not kept alive behind the queue.
  gboolean last_sample = TRUE;
  g_object_get(sink, "enable-last-sample", &last_sample, nullptr);
  EXPECT_FALSE(last_sample);
  pad.reset();
  element.reset();
  EXPECT_EQ(notified, (std::vector<std::string>{"first", "render", "second"}));

  // A sink leaves nothing of its own behind: a thousand of them hold the
  // heap where it stood, give or take the allocator's bookkeeping.
  const auto sinks = [](int n) {
    for (int i = 0; i < n; i++) {  // each with caps of its own
      auto e = orlo::adopt_floating(gst_element_factory_make("kelappsink", nullptr));
      gst_util_set_object_arg(G_OBJECT(e.get()), "caps", "video/x-raw");
    }
    return static_cast<long long>(mallinfo2().uordblks);
  };
  const long long before = sinks(100);
  EXPECT_LT(sinks(1000) - before, 1000 * 16);
}

}  // namespace
