// The application sink: its bounded queue, its callbacks on the streaming
// thread, the step report, and what becomes of queued buffers on flush and
// on the way down.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kelapp_sink.h"
#include "ref_ptr.hh"

namespace {

template <typename F>
bool wait_for(F cond) {
  for (int i = 0; i < 2000; i++) {
    if (cond()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return cond();
}

// appsrc -> kelappsink.  Buffers are watched where they enter the sink, not
// where they are pushed: the source copies a buffer it still shares with the
// pusher (it marks the first one DISCONT), so the pushed object may be freed
// early and a different one reach the sink.
class pipeline {
 public:
  explicit pipeline(const char *sink_props) {
    gst_init(nullptr, nullptr);
    std::string launch =
        std::string("appsrc name=src format=time ! kelappsink name=sink ") + sink_props;
    GError *err = nullptr;
    pipe_ = orlo::adopt_floating(gst_parse_launch(launch.c_str(), &err));
    if (err != nullptr) {
      ADD_FAILURE() << err->message;
      g_error_free(err);
    }
    src_ = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipe_.get()), "src"));
    sink_ = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipe_.get()), "sink"));
    pad_ = orlo::adopt(gst_element_get_static_pad(sink_.get(), "sink"));
    gst_pad_add_probe(pad_.get(), GST_PAD_PROBE_TYPE_BUFFER, on_arrival, this, nullptr);
  }
  ~pipeline() { stop(); }

  void play() { gst_element_set_state(pipe_.get(), GST_STATE_PLAYING); }
  void stop() {
    if (pipe_) gst_element_set_state(pipe_.get(), GST_STATE_NULL);
  }
  void push(GstBuffer *b) {  // takes over the caller's reference
    GstFlowReturn ret;
    g_signal_emit_by_name(src_.get(), "push-buffer", b, &ret);
    gst_buffer_unref(b);
  }
  void eos() {
    GstFlowReturn ret;
    g_signal_emit_by_name(src_.get(), "end-of-stream", &ret);
  }
  bool wait_eos() {
    orlo::ref_ptr<GstBus> bus = orlo::adopt(gst_element_get_bus(pipe_.get()));
    orlo::ref_ptr<GstMessage> msg = orlo::adopt(gst_bus_timed_pop_filtered(
        bus.get(), 20 * GST_SECOND,
        static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    return msg && GST_MESSAGE_TYPE(msg.get()) == GST_MESSAGE_EOS;
  }
  GstKelAppSink *sink() const { return GST_KELAPP_SINK(sink_.get()); }
  GstElement *src() const { return src_.get(); }
  GstPad *pad() const { return pad_.get(); }

  std::atomic<int> arrived{0}, freed{0};

 private:
  static GstPadProbeReturn on_arrival(GstPad *, GstPadProbeInfo *info, gpointer self) {
    static_cast<pipeline *>(self)->arrived++;
    gst_mini_object_weak_ref(GST_MINI_OBJECT_CAST(GST_PAD_PROBE_INFO_BUFFER(info)), on_free, self);
    return GST_PAD_PROBE_OK;
  }
  static void on_free(gpointer self, GstMiniObject *) { static_cast<pipeline *>(self)->freed++; }

  orlo::ref_ptr<GstElement> pipe_, src_, sink_;
  orlo::ref_ptr<GstPad> pad_;
};

GstBuffer *numbered(guint64 n) {
  GstBuffer *b = gst_buffer_new_allocate(nullptr, 8, nullptr);
  gst_buffer_fill(b, 0, &n, sizeof n);
  GST_BUFFER_PTS(b) = n * GST_MSECOND;
  return b;
}

guint64 number_of(GstBuffer *b) {
  guint64 n = 0;
  gst_buffer_extract(b, 0, &n, sizeof n);
  return n;
}

TEST(KelAppSink, DropKeepsTheNewestAndFlushReleasesThem) {
  pipeline p("sync=false drop=true max-buffers=2");
  p.play();
  for (guint64 i = 0; i < 5; i++) p.push(numbered(i));
  p.eos();
  ASSERT_TRUE(p.wait_eos());  // 3 and 4 sit in the queue
  EXPECT_EQ(p.arrived.load(), 5);
  EXPECT_EQ(p.freed.load(), 3);
  GstBuffer *b = gst_kelapp_sink_pull_buffer(p.sink());
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(number_of(b), 3u);
  gst_buffer_unref(b);
  EXPECT_EQ(p.freed.load(), 4);
  gst_pad_send_event(p.pad(), gst_event_new_flush_start());
  gst_pad_send_event(p.pad(), gst_event_new_flush_stop(TRUE));
  EXPECT_EQ(gst_kelapp_sink_pull_buffer(p.sink()), nullptr);
  EXPECT_EQ(p.freed.load(), 5);
}

TEST(KelAppSink, FullQueueWaitsForPullsAndNullReleasesTheRest) {
  pipeline p("sync=false max-buffers=1");
  p.play();
  for (guint64 i = 0; i < 4; i++) p.push(numbered(i));
  std::vector<guint64> got;
  for (int n = 0; n < 2; n++) {
    GstBuffer *b = nullptr;
    ASSERT_TRUE(wait_for([&] { return (b = gst_kelapp_sink_pull_buffer(p.sink())) != nullptr; }));
    got.push_back(number_of(b));
    gst_buffer_unref(b);
  }
  EXPECT_EQ(got, (std::vector<guint64>{0, 1}));
  // Buffer 2 fills the queue, buffer 3 waits inside render: going down must
  // neither hang nor keep either.
  ASSERT_TRUE(wait_for([&] { return p.arrived.load() == 4; }));
  p.stop();
  EXPECT_EQ(p.freed.load(), 4);
}

struct recorder {
  std::mutex lock;
  std::vector<std::string> log;
  std::atomic<bool> off_caller_thread{true};
  std::thread::id caller = std::this_thread::get_id();
  void add(std::string s) {
    if (std::this_thread::get_id() == caller) off_caller_thread = false;
    std::lock_guard<std::mutex> g(lock);
    log.push_back(std::move(s));
  }
  std::vector<std::string> snapshot() {
    std::lock_guard<std::mutex> g(lock);
    return log;
  }
};

gint on_render(GstKelAppSink *sink, gpointer data) {
  GstBuffer *b = gst_kelapp_sink_pull_buffer(sink);
  static_cast<recorder *>(data)->add(b ? "render " + std::to_string(number_of(b)) : "render none");
  if (b) gst_buffer_unref(b);
  return 0;
}

gint on_event(GstKelAppSink *, GstEvent *ev, gpointer data) {
  const GstStructure *s = gst_event_get_structure(ev);
  if (s != nullptr && gst_structure_has_name(s, "KELPlayInfo")) {
    gint dir = -1;
    gst_structure_get_int(s, "direction", &dir);
    static_cast<recorder *>(data)->add("play-info " + std::to_string(dir));
  } else if (GST_EVENT_TYPE(ev) == GST_EVENT_EOS) {
    static_cast<recorder *>(data)->add("eos event");
  }
  return 0;
}

gint on_report(GstKelAppSink *, gint code, gpointer data) {
  static_cast<recorder *>(data)->add("report " + std::to_string(code));
  return 0;
}

void on_eos(GstKelAppSink *, gpointer data) { static_cast<recorder *>(data)->add("eos"); }

void on_notify(gpointer data) { static_cast<recorder *>(data)->add("notify"); }

TEST(KelAppSink, CallbacksRunOnTheStreamingThreadInStreamOrder) {
  recorder r;
  {
    pipeline p("sync=false drop=true max-buffers=3");
    const GstKelAppSinkRenderCallbacks render_cbs = {on_eos, on_render, {}};
    const GstKelAppSinkCallbacks cbs = {nullptr, on_event, nullptr, on_report, {}};
    gst_kelapp_sink_set_render_callbacks(p.sink(), &render_cbs, &r, nullptr);
    gst_kelapp_sink_set_callbacks(p.sink(), &cbs, &r, nullptr);
    p.play();
    p.push(numbered(0));
    GstBuffer *b = numbered(1);
    GST_BUFFER_FLAG_SET(b, GST_KELAPP_SINK_BUFFER_FLAG_STEP);
    p.push(b);
    // appsrc queues buffers on a thread of its own, and an event sent to it
    // would overtake the ones still queued: send it once both have rendered.
    ASSERT_TRUE(wait_for([&] { return r.snapshot().size() >= 3; }));
    GstStructure *s = gst_structure_new("KELPlayInfo", "direction", G_TYPE_INT, 1, nullptr);
    ASSERT_TRUE(
        gst_element_send_event(p.src(), gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, s)));
    p.push(numbered(2));
    p.eos();
    ASSERT_TRUE(p.wait_eos());
  }
  EXPECT_EQ(r.snapshot(),
            (std::vector<std::string>{"render 0", "render 1", "report 35", "play-info 1",
                                      "render 2", "eos event", "eos"}));
  EXPECT_TRUE(r.off_caller_thread.load());
}

TEST(KelAppSink, ReplacedAndFinalizedTablesNotifyTheirData) {
  gst_init(nullptr, nullptr);
  recorder first, second, render;
  GstElement *sink =
      GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("kelappsink", nullptr)));
  EXPECT_EQ(gst_kelapp_sink_pull_buffer(GST_KELAPP_SINK(sink)), nullptr);
  const GstKelAppSinkCallbacks cbs = {};
  const GstKelAppSinkRenderCallbacks render_cbs = {};
  gst_kelapp_sink_set_callbacks(GST_KELAPP_SINK(sink), &cbs, &first, on_notify);
  gst_kelapp_sink_set_render_callbacks(GST_KELAPP_SINK(sink), &render_cbs, &render, on_notify);
  gst_kelapp_sink_set_callbacks(GST_KELAPP_SINK(sink), &cbs, &second, on_notify);
  EXPECT_EQ(first.snapshot(), std::vector<std::string>{"notify"});
  EXPECT_TRUE(second.snapshot().empty());
  gst_object_unref(sink);
  EXPECT_EQ(second.snapshot(), std::vector<std::string>{"notify"});
  EXPECT_EQ(render.snapshot(), std::vector<std::string>{"notify"});
}

// A table's user data that knows whether a render is inside it.
struct guarded {
  std::atomic<int> inside{0}, renders{0};
  std::atomic<bool> hold{false}, notified{false}, notified_inside{false};
};

gint render_guarded(GstKelAppSink *sink, gpointer data) {
  auto *g = static_cast<guarded *>(data);
  g->inside++;
  g->renders++;
  if (g->hold) wait_for([&] { return !g->hold.load(); });
  if (GstBuffer *b = gst_kelapp_sink_pull_buffer(sink)) gst_buffer_unref(b);
  g->inside--;
  return 0;
}

void notify_guarded(gpointer data) {
  auto *g = static_cast<guarded *>(data);
  if (g->inside.load() != 0) g->notified_inside = true;
  g->notified = true;
}

TEST(KelAppSink, ReplacedTablesAreNotifiedOnlyAfterTheLastRenderInsideThemReturns) {
  // The tables outlive the sink: the last one is notified when the sink goes.
  std::vector<guarded> tables(20);
  pipeline p("sync=false");
  const GstKelAppSinkRenderCallbacks cbs = {nullptr, render_guarded, {}};
  tables[0].hold = true;
  gst_kelapp_sink_set_render_callbacks(p.sink(), &cbs, &tables[0], notify_guarded);
  p.play();
  std::atomic<bool> pushing{true};
  std::thread pusher([&] {
    for (int i = 0; pushing; i++) p.push(numbered(i));
  });
  // A render sits in the first table while it is replaced.
  ASSERT_TRUE(wait_for([&] { return tables[0].inside.load() == 1; }));
  gst_kelapp_sink_set_render_callbacks(p.sink(), &cbs, &tables[1], notify_guarded);
  EXPECT_FALSE(tables[0].notified.load());
  tables[0].hold = false;
  ASSERT_TRUE(wait_for([&] { return tables[0].notified.load(); }));
  // And again and again while buffers flow.
  for (size_t i = 2; i < tables.size(); i++) {
    ASSERT_TRUE(wait_for([&] { return tables[i - 1].renders.load() > 0; }));
    gst_kelapp_sink_set_render_callbacks(p.sink(), &cbs, &tables[i], notify_guarded);
  }
  pushing = false;
  pusher.join();
  p.stop();
  for (size_t i = 0; i + 1 < tables.size(); i++) {
    EXPECT_TRUE(tables[i].notified.load()) << i;
    EXPECT_FALSE(tables[i].notified_inside.load()) << i;
  }
}

// Both sinks' render callbacks wait inside for each other.
struct rendezvous {
  std::atomic<int> inside{0};
  std::atomic<bool> met{false};
};

gint meet(GstKelAppSink *sink, gpointer data) {
  auto *r = static_cast<rendezvous *>(data);
  r->inside++;
  if (wait_for([&] { return r->inside.load() >= 2; })) r->met = true;
  if (GstBuffer *b = gst_kelapp_sink_pull_buffer(sink)) gst_buffer_unref(b);
  return 0;
}

TEST(KelAppSink, TwoSinksRenderAtTheSameTime) {
  rendezvous r;
  pipeline a("sync=false"), b("sync=false");
  const GstKelAppSinkRenderCallbacks cbs = {nullptr, meet, {}};
  gst_kelapp_sink_set_render_callbacks(a.sink(), &cbs, &r, nullptr);
  gst_kelapp_sink_set_render_callbacks(b.sink(), &cbs, &r, nullptr);
  for (pipeline *p : {&a, &b}) {
    p->play();
    p->push(numbered(0));
    p->eos();
  }
  ASSERT_TRUE(a.wait_eos());
  ASSERT_TRUE(b.wait_eos());
  EXPECT_TRUE(r.met.load());
}

}  // namespace
