// kelsstsrc: plays recorded channels (recording.hh) as list buffers of frame
// buffers, each frame a 24-byte header and one H.264 access unit:
//   byte 0 channel; 4..7 payload size; 8 type (1 intra, 0 inter);
//   12..15 the recorder's time in milliseconds (low 32 bits);
//   16..23 the recorder's time in nanoseconds (64 bits).
// A list buffer holds at most one frame per channel (the render worker pushes
// only the last frame of a channel in a list), frames within 20 ms of each
// other: one instant of the mosaic.  Its PTS is the play position of its
// first frame; the segment maps positions to running time at "rate", so a
// sink with "sync" paces the play.  Damage never stops a play: a channel's
// recorder time that jumps between neighbouring frames by more than 10 s
// forward (or back beyond a second) is logged once and played as if the
// frames followed; a stretch of more than 10 s with nothing to play is
// skipped; frames whose bytes are damaged are skipped (recording.hh).
//
// Properties (all readable and writable; times in nanoseconds of the
// recorder's clock):
//   "location"        string, "recordings": the recordings folder.
//   "pr-id"           int, 0: the caller's id of this play; echoed as "pr-id"
//                     in every "KELPlayInfo" event.
//   "vtick-interval-usec" int, 1000000: while playing, a "KELPlayInfo" event
//                     goes out at least once per this much play position,
//                     besides one at each change of status.
//   "open-rate"       int, 1: how many times a second a recording whose end
//                     has been reached is looked at again for frames the
//                     recorder appended since (forward play only, and only
//                     while "end-time" is not reached); 0: the end is final.
//                     While a channel waits so, no end of stream is sent.
//   "rate"            int, 1: speed factor; 2 plays twice as fast. Values
//                     below 1 count as 1.
//   "dir"             int, 0: 0 forward; any other value backward, by intra
//                     frames only, in decreasing time.
//   "rate-control"    int, 0: 1 sends intra frames only when "rate" is above
//                     1 (for a decoder that can't keep up); 0 sends all frames.
//   "hide"            int, 1: 1 starts each channel at its first intra frame
//                     at or after "search-time"; 0 starts at the intra frame
//                     before it, and the frames before "search-time" go out at
//                     position 0 at once (the picture at the search time is
//                     then complete).
//   "ch-num"          int 0..64, 4: channels 0..ch-num-1 are considered.
//   "audio-ch"        int, -1: the channel whose audio frames are sent; -1
//                     none.  Recordings hold no audio yet, so none is sent.
//   "ch-mask"         uint64, 15: one bit per channel to play (bit n for
//                     channel n).  64 bits wide, as are the status masks; a
//                     caller writes it as a 64-bit value.
//   "mode"            int, 0: 0 is the only mode (normal play); other values
//                     are logged and play as 0.
//   "begin-time"      int64, 0: nothing earlier is played; 0: no bound.
//   "end-time"        int64, 0: nothing later is played; 0: no bound.
//   "search-time"     int64, 0: the start of play, position 0; 0: "begin-time"
//                     (backward: "end-time"), or else the first (last) frame.
//                     It is reported as "base-time".
//   "time-offset"     int64, 0: added to every recorded time before it is
//                     compared or reported.
//   "next-frame-mode" int, 0: 1 steps: one list buffer per "cmd-next".
//   "cmd-next"        int, 0: written 1 in stepping mode, sends the next list
//                     buffer, marked as a stepped frame for the sink's render
//                     report; the element sets it back to 0.
// Changes of "location", "ch-num", "ch-mask", "dir", "hide", "begin-time",
// "end-time", "search-time" and "time-offset" while running take effect at
// the next buffer with a new plan from the new search time; "rate" and
// "rate-control" changes continue from the current position.
//
// The "KELPlayInfo" event (custom downstream, serialized) carries
// "eos-status" (uint64: bit n, channel n has no more frames to play),
// "overlapped-status" (uint64: bit n, channel n's recorder clock went back
// within the recording), "norecord-status" (uint64: bit n, channel n was asked
// for but has no recording or no frame in the span), "base-time" (uint64, the
// recorder's time of position 0), "direction" (int, 0 forward, 1 backward),
// "pr-id" (int) and "position" (uint64).
#include <gst/base/gstbasesrc.h>

#include <algorithm>
#include <memory>

#include "gstkelsstsrc_elements.hh"
#include "kel_buffers.h"
#include "kelapp_sink.h"
#include "kelsstsrc.h"
#include "player.hh"

#ifndef GST_KELAPP_SINK_BUFFER_FLAG_STEP
#define GST_KELAPP_SINK_BUFFER_FLAG_STEP ((GstBufferFlags)GST_BUFFER_FLAG_LAST)
#endif

GST_DEBUG_CATEGORY(kelsstsrc_debug);
#define GST_CAT_DEFAULT kelsstsrc_debug

namespace {

using kelsst::play_settings;

// The element's C++ state, in the instance's private area: constructed in
// init, destroyed in finalize.
struct src_state {
  // Guarded by the object lock.
  play_settings set;
  bool plan_dirty = false;    // a plan property changed
  bool anchor_dirty = false;  // "rate" or "rate-control" changed
  bool flushing = false;
  bool stepping = false;
  GCond cond;  // with the object lock: stepping, waits, unlock
  // Streaming thread only.
  kelsst::player play;
  kelsst::info_reporter info;
  gint64 seg_start = 0, seg_base = 0;

  src_state() { g_cond_init(&cond); }
  ~src_state() { g_cond_clear(&cond); }
  src_state(const src_state &) = delete;
  src_state &operator=(const src_state &) = delete;
};

}  // namespace

struct GstKelSstSrc {
  GstBaseSrc parent;
  src_state *st;
};

struct GstKelSstSrcClass {
  GstBaseSrcClass parent_class;
};

using GstKelSstSrcPrivate = src_state;

G_DEFINE_TYPE_WITH_PRIVATE(GstKelSstSrc, gst_kelsstsrc, GST_TYPE_BASE_SRC)

namespace {

enum {
  PROP_0,
  PROP_LOCATION,
  PROP_PR_ID,
  PROP_VTICK,
  PROP_OPEN_RATE,
  PROP_RATE,
  PROP_DIR,
  PROP_RATE_CONTROL,
  PROP_HIDE,
  PROP_CH_NUM,
  PROP_AUDIO_CH,
  PROP_CH_MASK,
  PROP_MODE,
  PROP_BEGIN,
  PROP_END,
  PROP_SEARCH,
  PROP_TIME_OFFSET,
  PROP_NEXT_FRAME_MODE,
  PROP_CMD_NEXT,
};

// What a property write changes in a running play.
enum class effect { none, replan, reanchor };

struct int_property {
  guint id;
  const char *name;
  const char *blurb;
  gint min, max, def;
  gint play_settings::*field;
  effect on_change;
};

const int_property kIntProperties[] = {
    {PROP_PR_ID, "pr-id", "Caller's id of this play, echoed in KELPlayInfo", G_MININT, G_MAXINT, 0,
     &play_settings::pr_id, effect::none},
    {PROP_VTICK, "vtick-interval-usec",
     "Play position between two periodic KELPlayInfo events (us); 0: on change only", 0, G_MAXINT,
     1000000, &play_settings::vtick_usec, effect::none},
    {PROP_OPEN_RATE, "open-rate",
     "Looks per second at an ended recording for appended frames; 0: end is final", 0, 1000, 1,
     &play_settings::open_rate, effect::none},
    {PROP_RATE, "rate", "Speed factor; below 1 counts as 1", G_MININT, G_MAXINT, 1,
     &play_settings::rate, effect::reanchor},
    {PROP_DIR, "dir", "0 forward; other: backward by intra frames", G_MININT, G_MAXINT, 0,
     &play_settings::dir, effect::replan},
    {PROP_RATE_CONTROL, "rate-control", "1: intra frames only while rate is above 1", G_MININT,
     G_MAXINT, 0, &play_settings::rate_control, effect::reanchor},
    {PROP_HIDE, "hide",
     "1: start at the first intra frame at or after search-time; 0: at the one before", G_MININT,
     G_MAXINT, 1, &play_settings::hide, effect::replan},
    {PROP_CH_NUM, "ch-num", "Channels 0..ch-num-1 are considered", 0, G_MAXINT, 4,
     &play_settings::ch_num, effect::replan},
    {PROP_AUDIO_CH, "audio-ch", "Channel whose audio is sent; -1 none", -1, G_MAXINT, -1,
     &play_settings::audio_ch, effect::none},
    {PROP_MODE, "mode", "Play mode; only 0 (normal play)", G_MININT, G_MAXINT, 0,
     &play_settings::mode, effect::none},
    {PROP_NEXT_FRAME_MODE, "next-frame-mode", "1: one list buffer per cmd-next", G_MININT, G_MAXINT,
     0, &play_settings::next_frame_mode, effect::none},
    {PROP_CMD_NEXT, "cmd-next", "1: send the next step; reset to 0 when taken", G_MININT, G_MAXINT,
     0, &play_settings::cmd_next, effect::none},
};

struct time_property {
  guint id;
  const char *name;
  const char *blurb;
  gint64 play_settings::*field;
};

const time_property kTimeProperties[] = {
    {PROP_BEGIN, "begin-time", "Nothing earlier is played (ns); 0: no bound",
     &play_settings::begin},
    {PROP_END, "end-time", "Nothing later is played (ns); 0: no bound", &play_settings::end},
    {PROP_SEARCH, "search-time", "Recorder's time of position 0 (ns)", &play_settings::search},
    {PROP_TIME_OFFSET, "time-offset", "Added to every recorded time (ns)",
     &play_settings::time_offset},
};

// List buffers of frames, not a byte stream a parser could read; still
// H.264, which is what the playback pipe's sink asks for.
GstStaticPadTemplate src_template =
    GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS,
                            GST_STATIC_CAPS("video/x-h264, stream-format=(string)kel-list"));

GstKelSstSrc *self_of(gpointer p) { return reinterpret_cast<GstKelSstSrc *>(p); }

template <typename Table>
auto find_property(const Table &rows, guint id) -> decltype(&rows[0]) {
  for (const auto &row : rows)
    if (row.id == id) return &row;
  return nullptr;
}

// Writes one property; what it changes of a running play.  Object lock held.
effect write_property(GstKelSstSrc *self, guint id, const GValue *value) {
  play_settings &s = self->st->set;
  if (const int_property *p = find_property(kIntProperties, id)) {
    s.*(p->field) = g_value_get_int(value);
    if (id == PROP_MODE && s.mode != 0)
      g_warning("kelsstsrc: mode %d is not supported; playing as mode 0", s.mode);
    return p->on_change;
  }
  if (const time_property *p = find_property(kTimeProperties, id)) {
    s.*(p->field) = g_value_get_int64(value);
    return effect::replan;
  }
  if (id == PROP_LOCATION) {
    const gchar *v = g_value_get_string(value);
    s.location = v != nullptr ? v : "recordings";
  } else {
    s.ch_mask = g_value_get_uint64(value);
  }
  return effect::replan;
}

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec) {
  GstKelSstSrc *self = self_of(object);
  if (id != PROP_LOCATION && id != PROP_CH_MASK && find_property(kIntProperties, id) == nullptr &&
      find_property(kTimeProperties, id) == nullptr) {
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
    return;
  }
  GST_OBJECT_LOCK(self);
  const effect e = write_property(self, id, value);
  if (e == effect::replan) self->st->plan_dirty = true;
  if (e == effect::reanchor) self->st->anchor_dirty = true;
  GST_DEBUG_OBJECT(self, "%s written", pspec->name);
  g_cond_broadcast(&self->st->cond);
  GST_OBJECT_UNLOCK(self);
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec) {
  GstKelSstSrc *self = self_of(object);
  GST_OBJECT_LOCK(self);
  const play_settings &s = self->st->set;
  if (const int_property *p = find_property(kIntProperties, id))
    g_value_set_int(value, s.*(p->field));
  else if (const time_property *t = find_property(kTimeProperties, id))
    g_value_set_int64(value, s.*(t->field));
  else if (id == PROP_LOCATION)
    g_value_set_string(value, s.location.c_str());
  else if (id == PROP_CH_MASK)
    g_value_set_uint64(value, s.ch_mask);
  else
    G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  GST_OBJECT_UNLOCK(self);
}

// ---- segments, info events ----

gint64 running_now(GstKelSstSrc *self) {
  gint64 now = self->st->play.last_running;
  GstClock *clock = gst_element_get_clock(GST_ELEMENT(self));
  if (clock != nullptr) {
    if (GST_STATE(self) == GST_STATE_PLAYING) {
      const GstClockTime t = gst_clock_get_time(clock);
      const GstClockTime b = gst_element_get_base_time(GST_ELEMENT(self));
      if (t > b) now = std::max<gint64>(now, static_cast<gint64>(t - b));
    }
    gst_object_unref(clock);
  }
  return now;
}

// Positions from `pos` on play from running time `running`.
void new_segment(GstKelSstSrc *self, gint64 pos, gint64 running) {
  GstSegment seg;
  gst_segment_init(&seg, GST_FORMAT_TIME);
  seg.rate = self->st->play.rate;
  seg.start = static_cast<guint64>(pos);
  seg.time = static_cast<guint64>(pos);
  seg.position = static_cast<guint64>(pos);
  seg.base = static_cast<guint64>(running);
  self->st->seg_start = pos;
  self->st->seg_base = running;
  GST_DEBUG_OBJECT(self,
                   "segment: position %" GST_TIME_FORMAT " from running time %" GST_TIME_FORMAT,
                   GST_TIME_ARGS(pos), GST_TIME_ARGS(running));
  // Downstream sees it at once, so that an info event that follows finds it;
  // the base class keeps its own copy in step.
  gst_pad_push_event(GST_BASE_SRC_PAD(self), gst_event_new_segment(&seg));
  gst_base_src_new_segment(GST_BASE_SRC(self), &seg);
}

void push_info(GstKelSstSrc *self, gint pr_id) {
  GstStructure *s = self->st->info.make(self->st->play, pr_id);
  gst_pad_push_event(GST_BASE_SRC_PAD(self), gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, s));
}

// ---- one list buffer ----

// What a buffer's production reads of the settings, copied under the lock.
struct turn {
  gint pr_id, vtick, open_rate;
  bool step;
};

// Takes over the rate settings; object lock held.
void take_rate(src_state *st) {
  st->anchor_dirty = false;
  st->play.rate = std::max(1, st->set.rate);
  st->play.intra_only = st->set.rate_control == 1 && st->play.rate > 1;
}

// Applies a new plan or rate and runs the stepping handshake, until a
// buffer may go out.  Object lock held on entry and on return; FALSE when
// flushing.
bool wait_for_turn(GstKelSstSrc *self, turn *t) {
  src_state *st = self->st;
  for (;;) {
    if (st->flushing) return false;
    if (st->plan_dirty || !st->play.has_plan()) {
      st->plan_dirty = false;
      const play_settings s = st->set;
      GST_OBJECT_UNLOCK(self);
      st->play.make_plan(s);
      st->info.reset();
      GST_OBJECT_LOCK(self);
      take_rate(st);
      GST_OBJECT_UNLOCK(self);
      new_segment(self, 0, running_now(self));
      GST_OBJECT_LOCK(self);
    } else if (st->anchor_dirty) {
      take_rate(st);
      GST_OBJECT_UNLOCK(self);
      new_segment(self, st->play.last_pos, running_now(self));
      GST_OBJECT_LOCK(self);
    } else if (st->set.next_frame_mode == 0) {
      if (!st->stepping) return true;
      // The clock ran on while we stepped: play on from now.
      st->stepping = false;
      st->anchor_dirty = true;
    } else {
      st->stepping = true;
      if (t->step || st->set.cmd_next != 0) {
        st->set.cmd_next = 0;
        t->step = true;
        return true;
      }
      g_cond_wait(&st->cond, GST_OBJECT_GET_LOCK(self));
    }
  }
}

// Every channel has ended for now: reports it, and waits for a recording to
// grow.  OK when one did, EOS when none may, FLUSHING, or CUSTOM_SUCCESS when
// a new plan is asked for.
GstFlowReturn wait_for_growth(GstKelSstSrc *self, const turn &t) {
  src_state *st = self->st;
  st->play.settle_eos();
  if (st->info.due(st->play, t.vtick)) push_info(self, t.pr_id);
  if (t.open_rate <= 0 || !st->play.may_grow()) return GST_FLOW_EOS;
  if (!st->info.gap_sent) {
    // Nothing to show for now: let the sink preroll all the same, so that a
    // state change to PLAYING completes.
    st->info.gap_sent = true;
    gst_pad_push_event(GST_BASE_SRC_PAD(self),
                       gst_event_new_gap(static_cast<GstClockTime>(st->play.last_pos), 0));
  }
  GST_OBJECT_LOCK(self);
  const gint64 until = g_get_monotonic_time() + G_USEC_PER_SEC / t.open_rate;
  while (!st->flushing && !st->plan_dirty && g_get_monotonic_time() < until)
    g_cond_wait_until(&st->cond, GST_OBJECT_GET_LOCK(self), until);
  const bool flushing = st->flushing, replan = st->plan_dirty;
  GST_OBJECT_UNLOCK(self);
  if (flushing) return GST_FLOW_FLUSHING;
  if (replan) return GST_FLOW_CUSTOM_SUCCESS;
  if (st->play.rescan_waiting()) {
    // The recording grew while we waited: play on from now.
    new_segment(self, st->play.last_pos, running_now(self));
  }
  return GST_FLOW_OK;
}

// The next list buffer of the plan, waiting for growth when all has been
// played; the same results as wait_for_growth.
GstFlowReturn produce(GstKelSstSrc *self, const turn &t, GstBuffer **list) {
  src_state *st = self->st;
  st->play.settle_eos();
  while ((*list = st->play.next_group()) == nullptr) {
    const GstFlowReturn r = wait_for_growth(self, t);
    if (r != GST_FLOW_OK) return r;
  }
  st->play.last_running = st->seg_base + (st->play.last_pos - st->seg_start) / st->play.rate;
  return GST_FLOW_OK;
}

GstFlowReturn create(GstBaseSrc *src, guint64 /*offset*/, guint /*size*/, GstBuffer **out) {
  GstKelSstSrc *self = self_of(src);
  src_state *st = self->st;
  turn t{};  // a step asked for stays asked for across a new plan
  GstBuffer *list = nullptr;
  for (;;) {
    GST_OBJECT_LOCK(self);
    const bool go = wait_for_turn(self, &t);
    t.pr_id = st->set.pr_id;
    t.vtick = st->set.vtick_usec;
    t.open_rate = st->set.open_rate;
    GST_OBJECT_UNLOCK(self);
    if (!go) return GST_FLOW_FLUSHING;
    const GstFlowReturn r = produce(self, t, &list);
    if (r == GST_FLOW_CUSTOM_SUCCESS) continue;
    if (r != GST_FLOW_OK) return r;
    break;
  }
  if (t.step) {
    // A step goes out of clock: the sink renders it at once, and its
    // position, which it never reports beyond the last buffer, stands at
    // this frame however far the clock has got.
    const gint64 now = running_now(self);
    new_segment(self, st->play.last_pos, 0);
    st->play.last_running = now;
    GST_BUFFER_FLAG_SET(list, GST_KELAPP_SINK_BUFFER_FLAG_STEP);
  }
  if (st->info.due(st->play, t.vtick)) push_info(self, t.pr_id);
  GST_LOG_OBJECT(self, "list of %u frames at %" GST_TIME_FORMAT,
                 g_list_length(gst_kel_list_buffer_get_meta(list)->list),
                 GST_TIME_ARGS(GST_BUFFER_PTS(list)));
  *out = list;
  return GST_FLOW_OK;
}

gboolean start(GstBaseSrc *src) {
  GstKelSstSrc *self = self_of(src);
  GST_OBJECT_LOCK(self);
  self->st->plan_dirty = true;
  self->st->stepping = false;
  GST_OBJECT_UNLOCK(self);
  self->st->play.last_running = 0;
  self->st->play.last_pos = 0;
  GST_DEBUG_OBJECT(self, "started");
  return TRUE;
}

gboolean stop(GstBaseSrc *src) {
  self_of(src)->st->play.clear();
  GST_DEBUG_OBJECT(src, "stopped");
  return TRUE;
}

gboolean unlock(GstBaseSrc *src) {
  GstKelSstSrc *self = self_of(src);
  GST_OBJECT_LOCK(self);
  self->st->flushing = true;
  g_cond_broadcast(&self->st->cond);
  GST_OBJECT_UNLOCK(self);
  return TRUE;
}

gboolean unlock_stop(GstBaseSrc *src) {
  GstKelSstSrc *self = self_of(src);
  GST_OBJECT_LOCK(self);
  self->st->flushing = false;
  GST_OBJECT_UNLOCK(self);
  return TRUE;
}

void finalize(GObject *object) {
  GstKelSstSrc *self = self_of(object);
  std::destroy_at(self->st);
  self->st = nullptr;
  G_OBJECT_CLASS(gst_kelsstsrc_parent_class)->finalize(object);
}

void install_properties(GObjectClass *o) {
  const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
  g_object_class_install_property(
      o, PROP_LOCATION,
      g_param_spec_string("location", "Location", "The recordings folder (chNN.h264 files)",
                          "recordings", flags));
  for (const int_property &p : kIntProperties)
    g_object_class_install_property(
        o, p.id, g_param_spec_int(p.name, p.name, p.blurb, p.min, p.max, p.def, flags));
  g_object_class_install_property(
      o, PROP_CH_MASK,
      g_param_spec_uint64("ch-mask", "ch-mask", "Channels to play, bit n for channel n (64 bits)",
                          0, G_MAXUINT64, 15, flags));
  for (const time_property &p : kTimeProperties)
    g_object_class_install_property(
        o, p.id, g_param_spec_int64(p.name, p.name, p.blurb, G_MININT64, G_MAXINT64, 0, flags));
}

}  // namespace

static void gst_kelsstsrc_class_init(GstKelSstSrcClass *klass) {
  GObjectClass *o = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstBaseSrcClass *src_class = GST_BASE_SRC_CLASS(klass);
  o->set_property = set_property;
  o->get_property = get_property;
  o->finalize = finalize;
  install_properties(o);
  gst_element_class_add_static_pad_template(element_class, &src_template);
  gst_element_class_set_static_metadata(element_class, "Recorded channel source", "Source/Video",
                                        "Plays recorded H.264 channels", "liborlo");
  src_class->start = start;
  src_class->stop = stop;
  src_class->create = create;
  src_class->unlock = unlock;
  src_class->unlock_stop = unlock_stop;
  GST_DEBUG_CATEGORY_INIT(kelsstsrc_debug, "kelsstsrc", 0, "recorded channel source");
}

static void gst_kelsstsrc_init(GstKelSstSrc *self) {
  self->st = std::construct_at(static_cast<src_state *>(gst_kelsstsrc_get_instance_private(self)));
  gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
}

extern "C" GstBuffer *gst_kelsstsrc_get_first_iframe(const gchar *location, gint ch, gint /*flags*/,
                                                     gint64 begin, gint64 end) {
  if (ch < 0 || ch >= kelsst::kMaxChannels) {
    g_warning("kelsstsrc: no channel %d", ch);
    return nullptr;
  }
  kelsst::play_channel c;
  c.ch = ch;
  c.rec =
      kelsst::recording(kelsst::channel_path(location != nullptr ? location : "recordings", ch));
  if (!c.rec.scan()) {
    g_warning("kelsstsrc: channel %d has no readable recording at %s", ch, c.rec.path().c_str());
    return nullptr;
  }
  for (const auto &f : c.rec.frames()) {
    if (!f.intra || f.time < begin || (end != 0 && f.time > end)) continue;
    return kelsst::frame_buffer(c, f, f.time);
  }
  return nullptr;
}
