// The application sink `kelappsink`: a base sink with a bounded queue of
// rendered buffers and callback tables that the application installs.  What
// the properties, callbacks and report codes mean is told in kelapp_sink.h.
#include "kelapp_sink.h"

#include <gst/base/gstbasesink.h>
#include <gst/base/gstqueuearray.h>

#include <memory>
#include <utility>
#include <vector>

#include "ref_ptr.hh"

GST_DEBUG_CATEGORY_STATIC(kelapp_sink_debug);
#define GST_CAT_DEFAULT kelapp_sink_debug

namespace {

enum {
  PROP_0,
  PROP_CAPS,
  PROP_DROP,
  PROP_MAX_BUFFERS,
  PROP_PRIORITY,
};

// One installed table with its user data; the table is a copy.  A record is
// shared by whoever calls through it, so its destroy notify runs when the
// last of them lets go, never while a call through it is still running.
template <typename Table>
struct callback_record {
  Table table{};
  gpointer user_data = nullptr;
  GDestroyNotify notify = nullptr;

  callback_record(const Table *t, gpointer data, GDestroyNotify n)
      : table(t != nullptr ? *t : Table{}), user_data(data), notify(n) {}
  ~callback_record() {
    if (notify != nullptr) notify(user_data);
  }
  callback_record(const callback_record &) = delete;
  callback_record &operator=(const callback_record &) = delete;
};

template <typename Table>
using callbacks_ptr = std::shared_ptr<const callback_record<Table>>;

template <typename Table>
callbacks_ptr<Table> no_callbacks() {
  return std::make_shared<const callback_record<Table>>(nullptr, nullptr, nullptr);
}

// Everything below `lock` is guarded by it.  The streaming thread never calls
// a callback with the lock held, so a callback may pull or set callbacks; a
// record taken under the lock is released after it, since its last release
// runs the application's notify.
struct sink_state {
  GMutex lock;
  GCond cond;  // the queue shrank, or the sink stopped waiting
  // One reference each, oldest first.  A ring that only grows, so that the
  // steady state of render and pull allocates nothing.
  GstQueueArray *queue = gst_queue_array_new(4);
  guint max_buffers = 0;
  gboolean drop = FALSE;
  gint priority = 0;
  bool unlocked = false;  // flushing or going down: render must not wait
  GstCaps *caps = nullptr;
  callbacks_ptr<GstKelAppSinkRenderCallbacks> render_cbs =
      no_callbacks<GstKelAppSinkRenderCallbacks>();
  callbacks_ptr<GstKelAppSinkCallbacks> cbs = no_callbacks<GstKelAppSinkCallbacks>();

  sink_state() {
    g_mutex_init(&lock);
    g_cond_init(&cond);
  }
  ~sink_state();
  sink_state(const sink_state &) = delete;
  sink_state &operator=(const sink_state &) = delete;
};

}  // namespace

struct _GstKelAppSink {
  GstBaseSink parent;
  sink_state *st;  // the instance's private area, constructed in init
};

typedef struct _GstKelAppSinkClass {
  GstBaseSinkClass parent_class;
} GstKelAppSinkClass;

using GstKelAppSinkPrivate = sink_state;

G_DEFINE_TYPE_WITH_PRIVATE(GstKelAppSink, gst_kelapp_sink, GST_TYPE_BASE_SINK)

namespace {

class locked {
 public:
  explicit locked(sink_state *st) : m_(&st->lock) { g_mutex_lock(m_); }
  ~locked() { g_mutex_unlock(m_); }
  locked(const locked &) = delete;
  locked &operator=(const locked &) = delete;

 private:
  GMutex *m_;
};

// Buffers taken out of the queue under the lock, released after it: the
// last unref of a buffer may run foreign code (finalize notifies).
class dropped_buffers {
 public:
  dropped_buffers() = default;
  ~dropped_buffers() {
    for (GstBuffer *b : buffers_) gst_buffer_unref(b);
  }
  dropped_buffers(const dropped_buffers &) = delete;
  dropped_buffers &operator=(const dropped_buffers &) = delete;
  void add(GstBuffer *b) { buffers_.push_back(b); }
  size_t size() const { return buffers_.size(); }

 private:
  std::vector<GstBuffer *> buffers_;
};

guint queued(const sink_state *st) { return gst_queue_array_get_length(st->queue); }

GstBuffer *pop_oldest(sink_state *st) {
  return static_cast<GstBuffer *>(gst_queue_array_pop_head(st->queue));
}

// Empties the queue; called with the lock held.  No render waits then: a
// flush-stop holds the stream lock, and stop and finalize come after the
// streaming thread has let go.
void take_queue(sink_state *st, dropped_buffers &out) {
  while (queued(st) > 0) out.add(pop_oldest(st));
}

void flush(GstKelAppSink *self) {
  dropped_buffers dropped;
  {
    locked l(self->st);
    take_queue(self->st, dropped);
  }
  if (dropped.size() > 0) GST_DEBUG_OBJECT(self, "released %zu queued buffers", dropped.size());
}

GstFlowReturn render(GstBaseSink *base, GstBuffer *buffer) {
  auto *self = GST_KELAPP_SINK(base);
  sink_state *st = self->st;
  GstBuffer *dropped = nullptr;
  callbacks_ptr<GstKelAppSinkRenderCallbacks> render_cbs;
  callbacks_ptr<GstKelAppSinkCallbacks> cbs;
  {
    locked l(st);
    while (st->max_buffers > 0 && queued(st) >= st->max_buffers) {
      if (st->drop) {
        dropped = pop_oldest(st);
        break;
      }
      if (st->unlocked) return GST_FLOW_FLUSHING;
      g_cond_wait(&st->cond, &st->lock);
    }
    gst_queue_array_push_tail(st->queue, gst_buffer_ref(buffer));
    GST_LOG_OBJECT(self, "queued %" GST_PTR_FORMAT ", %u waiting", buffer, queued(st));
    render_cbs = st->render_cbs;
    cbs = st->cbs;
  }
  if (dropped != nullptr) {
    GST_LOG_OBJECT(self, "queue full, dropped the oldest buffer");
    gst_buffer_unref(dropped);
  }
  if (render_cbs->table.render != nullptr) render_cbs->table.render(self, render_cbs->user_data);
  if (GST_BUFFER_FLAG_IS_SET(buffer, GST_KELAPP_SINK_BUFFER_FLAG_STEP) &&
      cbs->table.render_report != nullptr)
    cbs->table.render_report(self, GST_KELAPP_SINK_REPORT_STEP_RENDERED, cbs->user_data);
  return GST_FLOW_OK;
}

GstFlowReturn preroll(GstBaseSink *base, GstBuffer * /*buffer*/) {
  auto *self = GST_KELAPP_SINK(base);
  callbacks_ptr<GstKelAppSinkCallbacks> cbs;
  {
    locked l(self->st);
    cbs = self->st->cbs;
  }
  if (cbs->table.new_preroll != nullptr) cbs->table.new_preroll(self, cbs->user_data);
  return GST_FLOW_OK;
}

gboolean event(GstBaseSink *base, GstEvent *ev) {
  auto *self = GST_KELAPP_SINK(base);
  if (GST_EVENT_IS_SERIALIZED(ev) && GST_EVENT_TYPE(ev) != GST_EVENT_FLUSH_STOP) {
    callbacks_ptr<GstKelAppSinkRenderCallbacks> render_cbs;
    callbacks_ptr<GstKelAppSinkCallbacks> cbs;
    {
      locked l(self->st);
      render_cbs = self->st->render_cbs;
      cbs = self->st->cbs;
    }
    if (cbs->table.event != nullptr) cbs->table.event(self, ev, cbs->user_data);
    if (GST_EVENT_TYPE(ev) == GST_EVENT_EOS) {
      if (render_cbs->table.eos != nullptr) render_cbs->table.eos(self, render_cbs->user_data);
      if (cbs->table.eos != nullptr) cbs->table.eos(self, cbs->user_data);
    }
  }
  if (GST_EVENT_TYPE(ev) == GST_EVENT_FLUSH_STOP) flush(self);
  return GST_BASE_SINK_CLASS(gst_kelapp_sink_parent_class)->event(base, ev);
}

// Called by the base sink when the streaming thread must stop waiting:
// flush-start and the way down from PAUSED.
gboolean unlock(GstBaseSink *base) {
  sink_state *st = GST_KELAPP_SINK(base)->st;
  locked l(st);
  st->unlocked = true;
  g_cond_broadcast(&st->cond);
  return TRUE;
}

gboolean unlock_stop(GstBaseSink *base) {
  sink_state *st = GST_KELAPP_SINK(base)->st;
  locked l(st);
  st->unlocked = false;
  return TRUE;
}

gboolean start(GstBaseSink *base) {
  GST_DEBUG_OBJECT(base, "started");
  sink_state *st = GST_KELAPP_SINK(base)->st;
  locked l(st);
  st->unlocked = false;
  return TRUE;
}

gboolean stop(GstBaseSink *base) {
  GST_DEBUG_OBJECT(base, "stopped");
  flush(GST_KELAPP_SINK(base));
  return TRUE;
}

GstCaps *get_caps(GstBaseSink *base, GstCaps *filter) {
  sink_state *st = GST_KELAPP_SINK(base)->st;
  orlo::ref_ptr<GstCaps> caps;
  {
    locked l(st);
    caps = orlo::ref(st->caps);
  }
  if (!caps) return filter != nullptr ? gst_caps_ref(filter) : gst_caps_new_any();
  if (filter == nullptr) return caps.release();
  return gst_caps_intersect_full(filter, caps.get(), GST_CAPS_INTERSECT_FIRST);
}

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec) {
  auto *self = GST_KELAPP_SINK(object);
  sink_state *st = self->st;
  dropped_buffers dropped;
  {
    locked l(st);
    switch (id) {
      case PROP_CAPS: {
        const GstCaps *caps = gst_value_get_caps(value);
        gst_caps_replace(&st->caps, const_cast<GstCaps *>(caps));
        break;
      }
      case PROP_DROP:
        st->drop = g_value_get_boolean(value);
        break;
      case PROP_MAX_BUFFERS:
        st->max_buffers = g_value_get_uint(value);
        // A smaller bound with "drop" sheds the oldest at once; without it,
        // a waiting render sees the new bound on its next wake-up.
        if (st->drop)
          while (st->max_buffers > 0 && queued(st) > st->max_buffers) dropped.add(pop_oldest(st));
        g_cond_broadcast(&st->cond);
        break;
      case PROP_PRIORITY:
        st->priority = g_value_get_int(value);
        break;
      default:
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        break;
    }
  }
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec) {
  sink_state *st = GST_KELAPP_SINK(object)->st;
  locked l(st);
  switch (id) {
    case PROP_CAPS:
      gst_value_set_caps(value, st->caps);
      break;
    case PROP_DROP:
      g_value_set_boolean(value, st->drop);
      break;
    case PROP_MAX_BUFFERS:
      g_value_set_uint(value, st->max_buffers);
      break;
    case PROP_PRIORITY:
      g_value_set_int(value, st->priority);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
      break;
  }
}

sink_state::~sink_state() {
  {
    dropped_buffers dropped;
    take_queue(this, dropped);
  }
  gst_queue_array_free(queue);
  gst_caps_replace(&caps, nullptr);
  // The records' notifies run here, as the members go.
  render_cbs.reset();
  cbs.reset();
  g_mutex_clear(&lock);
  g_cond_clear(&cond);
}

void finalize(GObject *object) {
  auto *self = GST_KELAPP_SINK(object);
  std::destroy_at(self->st);
  self->st = nullptr;
  G_OBJECT_CLASS(gst_kelapp_sink_parent_class)->finalize(object);
}

// The sources' list buffers; "caps" narrows it further.
GstStaticPadTemplate sink_template = GST_STATIC_PAD_TEMPLATE(
    "sink", GST_PAD_SINK, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-h264, stream-format=(string)kel-list; video/x-h264"));

}  // namespace

static void gst_kelapp_sink_class_init(GstKelAppSinkClass *klass) {
  GST_DEBUG_CATEGORY_INIT(kelapp_sink_debug, "kelappsink", 0, "application sink");
  auto *gobject_class = G_OBJECT_CLASS(klass);
  auto *element_class = GST_ELEMENT_CLASS(klass);
  auto *base_class = GST_BASE_SINK_CLASS(klass);

  gobject_class->set_property = set_property;
  gobject_class->get_property = get_property;
  gobject_class->finalize = finalize;

  const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
  g_object_class_install_property(
      gobject_class, PROP_CAPS,
      g_param_spec_boxed("caps", "Caps", "The caps the sink accepts (NULL: any)", GST_TYPE_CAPS,
                         flags));
  g_object_class_install_property(
      gobject_class, PROP_DROP,
      g_param_spec_boolean("drop", "Drop", "Drop the oldest buffer when the queue is full", FALSE,
                           flags));
  g_object_class_install_property(
      gobject_class, PROP_MAX_BUFFERS,
      g_param_spec_uint("max-buffers", "Max buffers", "Bound of the queue (0 = unbounded)", 0,
                        G_MAXUINT, 0, flags));
  g_object_class_install_property(
      gobject_class, PROP_PRIORITY,
      g_param_spec_int("priority", "Priority",
                       "Real-time priority of the streaming thread on the device (stored only)", 0,
                       99, 0, flags));

  gst_element_class_set_static_metadata(element_class, "Application sink", "Generic/Sink",
                                        "Queues rendered buffers and calls the application back",
                                        "liborlo");
  gst_element_class_add_static_pad_template(element_class, &sink_template);

  base_class->render = render;
  base_class->preroll = preroll;
  base_class->event = event;
  base_class->unlock = unlock;
  base_class->unlock_stop = unlock_stop;
  base_class->start = start;
  base_class->stop = stop;
  base_class->get_caps = get_caps;
}

static void gst_kelapp_sink_init(GstKelAppSink *self) {
  // The queue is the only place a rendered buffer waits: the base sink's
  // last-sample would keep one more frame alive past its pull.
  gst_base_sink_set_last_sample_enabled(GST_BASE_SINK(self), FALSE);
  self->st =
      std::construct_at(static_cast<sink_state *>(gst_kelapp_sink_get_instance_private(self)));
}

extern "C" void gst_kelapp_sink_set_render_callbacks(GstKelAppSink *sink,
                                                     const GstKelAppSinkRenderCallbacks *callbacks,
                                                     gpointer user_data, GDestroyNotify notify) {
  g_return_if_fail(GST_IS_KELAPP_SINK(sink));
  auto record = std::make_shared<const callback_record<GstKelAppSinkRenderCallbacks>>(
      callbacks, user_data, notify);
  {
    locked l(sink->st);
    std::swap(record, sink->st->render_cbs);
  }
}

extern "C" void gst_kelapp_sink_set_callbacks(GstKelAppSink *sink,
                                              const GstKelAppSinkCallbacks *callbacks,
                                              gpointer user_data, GDestroyNotify notify) {
  g_return_if_fail(GST_IS_KELAPP_SINK(sink));
  auto record =
      std::make_shared<const callback_record<GstKelAppSinkCallbacks>>(callbacks, user_data, notify);
  {
    locked l(sink->st);
    std::swap(record, sink->st->cbs);
  }
}

extern "C" GstBuffer *gst_kelapp_sink_pull_buffer(GstKelAppSink *sink) {
  g_return_val_if_fail(GST_IS_KELAPP_SINK(sink), nullptr);
  sink_state *st = sink->st;
  locked l(st);
  if (queued(st) == 0) return nullptr;
  GstBuffer *b = pop_oldest(st);
  g_cond_broadcast(&st->cond);
  return b;
}

namespace {

gboolean plugin_init(GstPlugin *plugin) {
  return gst_element_register(plugin, "kelappsink", GST_RANK_NONE, GST_TYPE_KELAPP_SINK);
}

}  // namespace

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, kelapp,
                  "Application sink of the stream elements", plugin_init, ORLO_VERSION, "LGPL",
                  PACKAGE, ORLO_ORIGIN)
