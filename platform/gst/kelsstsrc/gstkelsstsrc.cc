// kelsstsrc: plays recorded channels (recording.hh) as list buffers of frame
// buffers, each frame a 24-byte header and one H.264 access unit:
//   byte 0 channel; 4..7 payload size; 8 type (1 intra, 0 inter);
//   12..15 the recorder's time in milliseconds (low 32 bits);
//   16..23 the recorder's time in nanoseconds (64 bits).
// A list buffer holds at most one frame per channel (the render worker pushes
// only the last frame of a channel in a list), frames within 20 ms of each
// other: one instant of the mosaic.  Its PTS is the play position of its
// first frame; the segment maps positions to running time at "rate", so a
// sink with "sync" paces the play.
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
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "gstkelsstsrc_elements.hh"
#include "kel_buffers.h"
#include "kelapp_sink.h"
#include "kelsstsrc.h"
#include "recording.hh"

#ifndef GST_KELAPP_SINK_BUFFER_FLAG_STEP
#define GST_KELAPP_SINK_BUFFER_FLAG_STEP ((GstBufferFlags)GST_BUFFER_FLAG_LAST)
#endif

GST_DEBUG_CATEGORY_STATIC(kelsstsrc_debug);
#define GST_CAT_DEFAULT kelsstsrc_debug

namespace {

constexpr int kHeaderSize = 24;
constexpr gint64 kGroupWindow = 20 * GST_MSECOND;

struct settings {
  std::string location = "recordings";
  gint pr_id = 0;
  gint vtick_usec = 1000000;
  gint open_rate = 1;
  gint rate = 1;
  gint dir = 0;
  gint rate_control = 0;
  gint hide = 1;
  gint ch_num = 4;
  gint audio_ch = -1;
  guint64 ch_mask = 15;
  gint mode = 0;
  gint64 begin = 0, end = 0, search = 0, time_offset = 0;
};

struct channel {
  int ch = 0;
  kelsst::recording rec;
  long next = -1;        // index of the next frame to play, -1 when none
  bool ended = false;    // no more frames in the span
  bool waiting = false;  // ended, but may grow (open-rate)
};

}  // namespace

struct GstKelSstSrc {
  GstBaseSrc parent;
  // Guarded by the object lock.
  settings set;
  gint next_frame_mode;
  gint cmd_next;
  bool plan_dirty;    // a plan property changed
  bool anchor_dirty;  // "rate" or "rate-control" changed
  bool flushing;
  GCond cond;  // with the object lock: stepping, waits, unlock
  // Streaming thread only.
  settings *plan;  // the settings the current plan was made from
  std::vector<channel> *channels;
  bool backward;
  gint64 base;  // recorder's time of position 0
  gint rate;
  bool intra_only;
  gint64 last_pos;      // position of the last buffer sent
  gint64 last_running;  // its running time
  gint64 seg_start, seg_base;
  bool stepping;
  guint64 eos, overlapped, norecord;
  guint64 eos_pending;
  guint64 sent_eos, sent_overlapped, sent_norecord;
  gint64 info_pos;  // position of the last info event, -1 none yet
  bool info_sent;   // any info since the plan
  bool gap_sent;    // a gap since the plan, for a play with nothing to show
};

struct GstKelSstSrcClass {
  GstBaseSrcClass parent_class;
};

G_DEFINE_TYPE(GstKelSstSrc, gst_kelsstsrc, GST_TYPE_BASE_SRC)

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

GstStaticPadTemplate src_template = GST_STATIC_PAD_TEMPLATE(
    "src", GST_PAD_SRC, GST_PAD_ALWAYS,
    GST_STATIC_CAPS("video/x-h264, stream-format=(string)byte-stream, alignment=(string)au"));

GstKelSstSrc *self_of(gpointer p) { return reinterpret_cast<GstKelSstSrc *>(p); }

void put_le(guint8 *p, guint64 v, int n) {
  for (int i = 0; i < n; i++) p[i] = static_cast<guint8>(v >> (8 * i));
}

void set_property(GObject *object, guint id, const GValue *value, GParamSpec *pspec) {
  GstKelSstSrc *self = self_of(object);
  GST_OBJECT_LOCK(self);
  settings &s = self->set;
  bool plan = true;
  switch (id) {
    case PROP_LOCATION: {
      const gchar *v = g_value_get_string(value);
      s.location = v != nullptr ? v : "recordings";
      break;
    }
    case PROP_PR_ID:
      s.pr_id = g_value_get_int(value);
      plan = false;
      break;
    case PROP_VTICK:
      s.vtick_usec = g_value_get_int(value);
      plan = false;
      break;
    case PROP_OPEN_RATE:
      s.open_rate = g_value_get_int(value);
      plan = false;
      break;
    case PROP_RATE:
      s.rate = g_value_get_int(value);
      plan = false;
      self->anchor_dirty = true;
      break;
    case PROP_RATE_CONTROL:
      s.rate_control = g_value_get_int(value);
      plan = false;
      self->anchor_dirty = true;
      break;
    case PROP_DIR:
      s.dir = g_value_get_int(value);
      break;
    case PROP_HIDE:
      s.hide = g_value_get_int(value);
      break;
    case PROP_CH_NUM:
      s.ch_num = g_value_get_int(value);
      break;
    case PROP_AUDIO_CH:
      s.audio_ch = g_value_get_int(value);
      plan = false;
      break;
    case PROP_CH_MASK:
      s.ch_mask = g_value_get_uint64(value);
      break;
    case PROP_MODE:
      s.mode = g_value_get_int(value);
      if (s.mode != 0) g_warning("kelsstsrc: mode %d is not supported; playing as mode 0", s.mode);
      plan = false;
      break;
    case PROP_BEGIN:
      s.begin = g_value_get_int64(value);
      break;
    case PROP_END:
      s.end = g_value_get_int64(value);
      break;
    case PROP_SEARCH:
      s.search = g_value_get_int64(value);
      break;
    case PROP_TIME_OFFSET:
      s.time_offset = g_value_get_int64(value);
      break;
    case PROP_NEXT_FRAME_MODE:
      self->next_frame_mode = g_value_get_int(value);
      plan = false;
      break;
    case PROP_CMD_NEXT:
      self->cmd_next = g_value_get_int(value);
      plan = false;
      break;
    default:
      plan = false;
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  if (plan) self->plan_dirty = true;
  g_cond_broadcast(&self->cond);
  GST_OBJECT_UNLOCK(self);
}

void get_property(GObject *object, guint id, GValue *value, GParamSpec *pspec) {
  GstKelSstSrc *self = self_of(object);
  GST_OBJECT_LOCK(self);
  const settings &s = self->set;
  switch (id) {
    case PROP_LOCATION:
      g_value_set_string(value, s.location.c_str());
      break;
    case PROP_PR_ID:
      g_value_set_int(value, s.pr_id);
      break;
    case PROP_VTICK:
      g_value_set_int(value, s.vtick_usec);
      break;
    case PROP_OPEN_RATE:
      g_value_set_int(value, s.open_rate);
      break;
    case PROP_RATE:
      g_value_set_int(value, s.rate);
      break;
    case PROP_DIR:
      g_value_set_int(value, s.dir);
      break;
    case PROP_RATE_CONTROL:
      g_value_set_int(value, s.rate_control);
      break;
    case PROP_HIDE:
      g_value_set_int(value, s.hide);
      break;
    case PROP_CH_NUM:
      g_value_set_int(value, s.ch_num);
      break;
    case PROP_AUDIO_CH:
      g_value_set_int(value, s.audio_ch);
      break;
    case PROP_CH_MASK:
      g_value_set_uint64(value, s.ch_mask);
      break;
    case PROP_MODE:
      g_value_set_int(value, s.mode);
      break;
    case PROP_BEGIN:
      g_value_set_int64(value, s.begin);
      break;
    case PROP_END:
      g_value_set_int64(value, s.end);
      break;
    case PROP_SEARCH:
      g_value_set_int64(value, s.search);
      break;
    case PROP_TIME_OFFSET:
      g_value_set_int64(value, s.time_offset);
      break;
    case PROP_NEXT_FRAME_MODE:
      g_value_set_int(value, self->next_frame_mode);
      break;
    case PROP_CMD_NEXT:
      g_value_set_int(value, self->cmd_next);
      break;
    default:
      G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
  }
  GST_OBJECT_UNLOCK(self);
}

// ---- the plan: which frames of which channel, from where ----

gint64 frame_time(const GstKelSstSrc *self, const kelsst::frame_entry &f) {
  return f.time + self->plan->time_offset;
}

bool in_span(const GstKelSstSrc *self, gint64 t) {
  const settings &s = *self->plan;
  return (s.begin == 0 || t >= s.begin) && (s.end == 0 || t <= s.end);
}

gint64 position_of(const GstKelSstSrc *self, gint64 t) {
  gint64 p = self->backward ? self->base - t : t - self->base;
  return std::max<gint64>(p, 0);
}

// Whether frame `i` of `c` is one that this play sends.
bool wanted(const GstKelSstSrc *self, const channel &c, long i) {
  const kelsst::frame_entry &f = c.rec.frames()[i];
  return (f.intra || !(self->backward || self->intra_only)) && in_span(self, frame_time(self, f));
}

// The next frame to play after index `from` (exclusive) in the direction of
// play, or -1.
long step_from(const GstKelSstSrc *self, const channel &c, long from) {
  const auto &frames = c.rec.frames();
  const long n = static_cast<long>(frames.size());
  if (self->backward) {
    for (long i = from - 1; i >= 0; i--) {
      if (frame_time(self, frames[i]) < self->plan->begin && self->plan->begin != 0) return -1;
      if (wanted(self, c, i)) return i;
    }
    return -1;
  }
  for (long i = from + 1; i < n; i++) {
    if (self->plan->end != 0 && frame_time(self, frames[i]) > self->plan->end) return -1;
    if (wanted(self, c, i)) return i;
  }
  return -1;
}

// Where channel `c` starts for the search time `base`.
long start_index(const GstKelSstSrc *self, const channel &c) {
  const auto &frames = c.rec.frames();
  const long n = static_cast<long>(frames.size());
  if (self->backward) {
    // The last intra frame at or before the search time.
    long best = -1;
    for (long i = 0; i < n; i++) {
      if (frames[i].intra && frame_time(self, frames[i]) <= self->base && wanted(self, c, i))
        best = i;
    }
    return best;
  }
  long first_after = -1, last_before = -1;
  for (long i = 0; i < n; i++) {
    const gint64 t = frame_time(self, frames[i]);
    if (!frames[i].intra || !in_span(self, t)) continue;
    if (t >= self->base) {
      first_after = i;
      break;
    }
    last_before = i;
  }
  if (!self->plan->hide && last_before >= 0) return last_before;
  return first_after;
}

void clear_plan(GstKelSstSrc *self) {
  delete self->channels;
  self->channels = nullptr;
  delete self->plan;
  self->plan = nullptr;
}

// Opens the channels of `s` and places each at its start.  Streaming thread,
// without the object lock.
void make_plan(GstKelSstSrc *self, const settings &s) {
  clear_plan(self);
  self->plan = new settings(s);
  self->channels = new std::vector<channel>();
  self->backward = s.dir != 0;
  self->eos = self->overlapped = self->norecord = self->eos_pending = 0;
  const int count = std::clamp(s.ch_num, 0, kelsst::kMaxChannels);
  if (s.ch_num > kelsst::kMaxChannels)
    g_warning("kelsstsrc: ch-num %d is above %d; channels from %d on are ignored", s.ch_num,
              kelsst::kMaxChannels, kelsst::kMaxChannels);
  for (int ch = 0; ch < kelsst::kMaxChannels; ch++) {
    if (!(s.ch_mask >> ch & 1)) continue;
    if (ch >= count) {
      g_warning("kelsstsrc: ch-mask names channel %d, beyond ch-num %d", ch, s.ch_num);
      continue;
    }
    channel c;
    c.ch = ch;
    c.rec = kelsst::recording(kelsst::channel_path(s.location, ch));
    if (!c.rec.scan()) {
      g_warning("kelsstsrc: channel %d has no readable recording at %s", ch, c.rec.path().c_str());
      self->norecord |= G_GUINT64_CONSTANT(1) << ch;
      self->eos |= G_GUINT64_CONSTANT(1) << ch;
      continue;
    }
    if (c.rec.truncated())
      g_warning("kelsstsrc: recording %s ends in a cut frame; playing the %zu whole frames",
                c.rec.path().c_str(), c.rec.frames().size());
    if (c.rec.overlapped()) self->overlapped |= G_GUINT64_CONSTANT(1) << ch;
    self->channels->push_back(std::move(c));
  }

  // Position 0: the search time, else the bound in the direction of play,
  // else the outermost frame.
  gint64 base = s.search != 0 ? s.search : self->backward ? s.end : s.begin;
  if (base == 0) {
    bool any = false;
    for (const channel &c : *self->channels) {
      for (const auto &f : c.rec.frames()) {
        const gint64 t = f.time + s.time_offset;
        if (!in_span(self, t)) continue;
        if (!any || (self->backward ? t > base : t < base)) base = t;
        any = true;
      }
    }
  } else if ((s.begin != 0 && base < s.begin) || (s.end != 0 && base > s.end)) {
    g_warning("kelsstsrc: search-time %" G_GINT64_FORMAT " lies outside the span; clamped", base);
    base = std::clamp(base, s.begin != 0 ? s.begin : base, s.end != 0 ? s.end : base);
  }
  self->base = base;
  for (channel &c : *self->channels) {
    c.next = start_index(self, c);
    if (c.next < 0) {
      const guint64 bit = G_GUINT64_CONSTANT(1) << c.ch;
      if (c.rec.frames().empty() || std::none_of(c.rec.frames().begin(), c.rec.frames().end(),
                                                 [&](const kelsst::frame_entry &f) {
                                                   return in_span(self, frame_time(self, f));
                                                 })) {
        g_warning("kelsstsrc: channel %d has no frame in the span", c.ch);
        self->norecord |= bit;
      } else {
        g_warning("kelsstsrc: channel %d has no frame to play %s the search time", c.ch,
                  self->backward ? "before" : "after");
      }
      c.ended = true;
      // A forward play may see the recording grow.
      c.waiting = !self->backward;
      self->eos |= bit;
    }
  }
  self->last_pos = 0;
  self->info_pos = -1;
  self->info_sent = false;
  self->gap_sent = false;
}

// ---- segments, info events ----

gint64 running_now(GstKelSstSrc *self) {
  gint64 now = self->last_running;
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
  seg.rate = self->rate;
  seg.start = static_cast<guint64>(pos);
  seg.time = static_cast<guint64>(pos);
  seg.position = static_cast<guint64>(pos);
  seg.base = static_cast<guint64>(running);
  self->seg_start = pos;
  self->seg_base = running;
  // Downstream sees it at once, so that an info event that follows finds it;
  // the base class keeps its own copy in step.
  gst_pad_push_event(GST_BASE_SRC_PAD(self), gst_event_new_segment(&seg));
  gst_base_src_new_segment(GST_BASE_SRC(self), &seg);
}

void push_info(GstKelSstSrc *self, gint pr_id) {
  GstStructure *s = gst_structure_new(
      "KELPlayInfo", "eos-status", G_TYPE_UINT64, self->eos, "overlapped-status", G_TYPE_UINT64,
      self->overlapped, "norecord-status", G_TYPE_UINT64, self->norecord, "base-time",
      G_TYPE_UINT64, static_cast<guint64>(self->base), "direction", G_TYPE_INT,
      self->backward ? 1 : 0, "pr-id", G_TYPE_INT, pr_id, "position", G_TYPE_UINT64,
      static_cast<guint64>(self->last_pos), nullptr);
  self->sent_eos = self->eos;
  self->sent_overlapped = self->overlapped;
  self->sent_norecord = self->norecord;
  self->info_pos = self->last_pos;
  self->info_sent = true;
  gst_pad_push_event(GST_BASE_SRC_PAD(self), gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, s));
}

bool info_due(const GstKelSstSrc *self, gint vtick_usec) {
  return !self->info_sent || self->eos != self->sent_eos ||
         self->overlapped != self->sent_overlapped || self->norecord != self->sent_norecord ||
         (vtick_usec > 0 && self->last_pos - self->info_pos >= gint64{vtick_usec} * 1000);
}

// ---- one list buffer ----

GstBuffer *frame_buffer(const channel &c, const kelsst::frame_entry &f, gint64 t) {
  GstBuffer *b = gst_kel_buddy_buffer_new(kHeaderSize + f.size);
  guint8 *d = gst_kel_buddy_buffer_get_meta(b)->data;
  d[0] = static_cast<guint8>(c.ch);
  put_le(d + 4, f.size, 4);
  d[8] = f.intra ? 1 : 0;
  put_le(d + 12, static_cast<guint64>(t / 1000000), 4);
  put_le(d + 16, static_cast<guint64>(t), 8);
  if (!c.rec.read_frame(f, d + kHeaderSize)) {
    g_warning("kelsstsrc: cannot read a frame of channel %d from %s", c.ch, c.rec.path().c_str());
    gst_buffer_unref(b);
    return nullptr;
  }
  return b;
}

// Advances channel `c` past its current frame; marks its end.
void advance(GstKelSstSrc *self, channel &c) {
  c.next = step_from(self, c, c.next);
  if (c.next < 0) {
    c.ended = true;
    c.waiting = !self->backward;
    // Reported once the frame just taken has gone out.
    self->eos_pending |= G_GUINT64_CONSTANT(1) << c.ch;
  }
}

// Collects the next instant: at most one frame per channel, within the group
// window of the earliest.  NULL when every channel has ended.
GstBuffer *next_group(GstKelSstSrc *self) {
  auto &chs = *self->channels;
  channel *first = nullptr;
  gint64 first_pos = 0;
  for (channel &c : chs) {
    if (c.ended) continue;
    const gint64 p = position_of(self, frame_time(self, c.rec.frames()[c.next]));
    if (first == nullptr || p < first_pos) first = &c, first_pos = p;
  }
  if (first == nullptr) return nullptr;
  GstBuffer *list = gst_kel_list_buffer_new();
  for (channel &c : chs) {
    if (c.ended) continue;
    const kelsst::frame_entry &f = c.rec.frames()[c.next];
    const gint64 t = frame_time(self, f);
    if (position_of(self, t) > first_pos + kGroupWindow) continue;
    if (GstBuffer *fb = frame_buffer(c, f, t)) gst_kel_list_buffer_append(list, fb);
    advance(self, c);
  }
  first_pos = std::max(first_pos, self->last_pos);
  self->last_pos = first_pos;
  GST_BUFFER_PTS(list) = static_cast<GstClockTime>(first_pos);
  GST_BUFFER_DURATION(list) = GST_CLOCK_TIME_NONE;
  self->last_running = self->seg_base + (first_pos - self->seg_start) / self->rate;
  return list;
}

// Looks again at the ended channels that may grow.  True when one goes on.
bool rescan_waiting(GstKelSstSrc *self) {
  bool resumed = false;
  for (channel &c : *self->channels) {
    if (!c.waiting) continue;
    const long last = c.rec.frames().empty() ? -1 : static_cast<long>(c.rec.frames().size()) - 1;
    c.rec.scan();
    long from = last;
    // A channel that never started waits for its first intra frame.
    const long next = c.next < 0 && last < 0 ? step_from(self, c, -1) : step_from(self, c, from);
    if (next >= 0 && c.rec.frames()[next].intra) {
      c.next = next;
      c.ended = c.waiting = false;
      self->eos &= ~(G_GUINT64_CONSTANT(1) << c.ch);
      self->eos_pending &= ~(G_GUINT64_CONSTANT(1) << c.ch);
      self->norecord &= ~(G_GUINT64_CONSTANT(1) << c.ch);
      resumed = true;
    } else if (self->plan->end != 0 && !c.rec.frames().empty() &&
               frame_time(self, c.rec.frames().back()) > self->plan->end) {
      c.waiting = false;  // past the end of the span: final
    }
  }
  return resumed;
}

GstFlowReturn create(GstBaseSrc *src, guint64 /*offset*/, guint /*size*/, GstBuffer **out) {
  GstKelSstSrc *self = self_of(src);
  bool step = false;
again:
  GST_OBJECT_LOCK(self);
  for (;;) {
    if (self->flushing) {
      GST_OBJECT_UNLOCK(self);
      return GST_FLOW_FLUSHING;
    }
    if (self->plan_dirty || self->plan == nullptr) {
      self->plan_dirty = false;
      settings s = self->set;
      GST_OBJECT_UNLOCK(self);
      make_plan(self, s);
      GST_OBJECT_LOCK(self);
      self->anchor_dirty = false;
      self->rate = std::max(1, self->set.rate);
      self->intra_only = self->set.rate_control == 1 && self->rate > 1;
      GST_OBJECT_UNLOCK(self);
      new_segment(self, 0, running_now(self));
      GST_OBJECT_LOCK(self);
      continue;
    }
    if (self->anchor_dirty) {
      self->anchor_dirty = false;
      self->rate = std::max(1, self->set.rate);
      self->intra_only = self->set.rate_control == 1 && self->rate > 1;
      GST_OBJECT_UNLOCK(self);
      new_segment(self, self->last_pos, running_now(self));
      GST_OBJECT_LOCK(self);
      continue;
    }
    if (self->next_frame_mode == 0) {
      if (self->stepping) {
        // The clock ran on while we stepped: play on from now.
        self->stepping = false;
        self->anchor_dirty = true;
        continue;
      }
      break;
    }
    self->stepping = true;
    if (step || self->cmd_next != 0) {
      self->cmd_next = 0;
      step = true;
      break;
    }
    g_cond_wait(&self->cond, GST_OBJECT_GET_LOCK(self));
  }
  const gint pr_id = self->set.pr_id;
  const gint vtick = self->set.vtick_usec;
  const gint open_rate = self->set.open_rate;
  GST_OBJECT_UNLOCK(self);

  self->eos |= std::exchange(self->eos_pending, 0);
  GstBuffer *list = next_group(self);
  while (list == nullptr) {
    self->eos |= std::exchange(self->eos_pending, 0);
    // Every channel has ended.
    if (info_due(self, vtick)) push_info(self, pr_id);
    const bool may_grow =
        open_rate > 0 && std::any_of(self->channels->begin(), self->channels->end(),
                                     [](const channel &c) { return c.waiting; });
    if (!may_grow) return GST_FLOW_EOS;
    if (!self->gap_sent) {
      // Nothing to show for now: let the sink preroll all the same, so that
      // a state change to PLAYING completes.
      self->gap_sent = true;
      gst_pad_push_event(GST_BASE_SRC_PAD(self),
                         gst_event_new_gap(static_cast<GstClockTime>(self->last_pos), 0));
    }
    GST_OBJECT_LOCK(self);
    const gint64 until = g_get_monotonic_time() + G_USEC_PER_SEC / open_rate;
    while (!self->flushing && !self->plan_dirty && g_get_monotonic_time() < until)
      g_cond_wait_until(&self->cond, GST_OBJECT_GET_LOCK(self), until);
    const bool flushing = self->flushing, replan = self->plan_dirty;
    GST_OBJECT_UNLOCK(self);
    if (flushing) return GST_FLOW_FLUSHING;
    if (replan) goto again;  // a step asked for stays asked for
    if (rescan_waiting(self)) {
      // The recording grew while we waited: play on from now.
      new_segment(self, self->last_pos, running_now(self));
      list = next_group(self);
    }
  }
  if (step) {
    // A step goes out of clock: the sink renders it at once, and its
    // position, which it never reports beyond the last buffer, stands at
    // this frame however far the clock has got.
    const gint64 now = running_now(self);
    new_segment(self, self->last_pos, 0);
    self->last_running = now;
    GST_BUFFER_FLAG_SET(list, GST_KELAPP_SINK_BUFFER_FLAG_STEP);
  }
  if (info_due(self, vtick)) push_info(self, pr_id);
  *out = list;
  return GST_FLOW_OK;
}

gboolean start(GstBaseSrc *src) {
  GstKelSstSrc *self = self_of(src);
  GST_OBJECT_LOCK(self);
  self->plan_dirty = true;
  self->stepping = false;
  GST_OBJECT_UNLOCK(self);
  self->last_running = 0;
  self->last_pos = 0;
  return TRUE;
}

gboolean stop(GstBaseSrc *src) {
  clear_plan(self_of(src));
  return TRUE;
}

gboolean unlock(GstBaseSrc *src) {
  GstKelSstSrc *self = self_of(src);
  GST_OBJECT_LOCK(self);
  self->flushing = true;
  g_cond_broadcast(&self->cond);
  GST_OBJECT_UNLOCK(self);
  return TRUE;
}

gboolean unlock_stop(GstBaseSrc *src) {
  GstKelSstSrc *self = self_of(src);
  GST_OBJECT_LOCK(self);
  self->flushing = false;
  GST_OBJECT_UNLOCK(self);
  return TRUE;
}

void finalize(GObject *object) {
  GstKelSstSrc *self = self_of(object);
  clear_plan(self);
  g_cond_clear(&self->cond);
  self->set.~settings();
  G_OBJECT_CLASS(gst_kelsstsrc_parent_class)->finalize(object);
}

void install_int(GObjectClass *klass, guint id, const char *name, const char *blurb, gint min,
                 gint max, gint def) {
  g_object_class_install_property(
      klass, id,
      g_param_spec_int(name, name, blurb, min, max, def,
                       static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
}

void install_time(GObjectClass *klass, guint id, const char *name, const char *blurb) {
  g_object_class_install_property(
      klass, id,
      g_param_spec_int64(name, name, blurb, G_MININT64, G_MAXINT64, 0,
                         static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
}

}  // namespace

static void gst_kelsstsrc_class_init(GstKelSstSrcClass *klass) {
  GObjectClass *o = G_OBJECT_CLASS(klass);
  GstElementClass *element_class = GST_ELEMENT_CLASS(klass);
  GstBaseSrcClass *src_class = GST_BASE_SRC_CLASS(klass);
  o->set_property = set_property;
  o->get_property = get_property;
  o->finalize = finalize;
  const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
  g_object_class_install_property(
      o, PROP_LOCATION,
      g_param_spec_string("location", "Location", "The recordings folder (chNN.h264 files)",
                          "recordings", flags));
  install_int(o, PROP_PR_ID, "pr-id", "Caller's id of this play, echoed in KELPlayInfo", G_MININT,
              G_MAXINT, 0);
  install_int(o, PROP_VTICK, "vtick-interval-usec",
              "Play position between two periodic KELPlayInfo events (us); 0: on change only", 0,
              G_MAXINT, 1000000);
  install_int(o, PROP_OPEN_RATE, "open-rate",
              "Looks per second at an ended recording for appended frames; 0: end is final", 0,
              1000, 1);
  install_int(o, PROP_RATE, "rate", "Speed factor; below 1 counts as 1", G_MININT, G_MAXINT, 1);
  install_int(o, PROP_DIR, "dir", "0 forward; other: backward by intra frames", G_MININT, G_MAXINT,
              0);
  install_int(o, PROP_RATE_CONTROL, "rate-control", "1: intra frames only while rate is above 1",
              G_MININT, G_MAXINT, 0);
  install_int(o, PROP_HIDE, "hide",
              "1: start at the first intra frame at or after search-time; 0: at the one before",
              G_MININT, G_MAXINT, 1);
  install_int(o, PROP_CH_NUM, "ch-num", "Channels 0..ch-num-1 are considered", 0, G_MAXINT, 4);
  install_int(o, PROP_AUDIO_CH, "audio-ch", "Channel whose audio is sent; -1 none", -1, G_MAXINT,
              -1);
  g_object_class_install_property(
      o, PROP_CH_MASK,
      g_param_spec_uint64("ch-mask", "ch-mask", "Channels to play, bit n for channel n (64 bits)",
                          0, G_MAXUINT64, 15, flags));
  install_int(o, PROP_MODE, "mode", "Play mode; only 0 (normal play)", G_MININT, G_MAXINT, 0);
  install_time(o, PROP_BEGIN, "begin-time", "Nothing earlier is played (ns); 0: no bound");
  install_time(o, PROP_END, "end-time", "Nothing later is played (ns); 0: no bound");
  install_time(o, PROP_SEARCH, "search-time", "Recorder's time of position 0 (ns)");
  install_time(o, PROP_TIME_OFFSET, "time-offset", "Added to every recorded time (ns)");
  install_int(o, PROP_NEXT_FRAME_MODE, "next-frame-mode", "1: one list buffer per cmd-next",
              G_MININT, G_MAXINT, 0);
  install_int(o, PROP_CMD_NEXT, "cmd-next", "1: send the next step; reset to 0 when taken",
              G_MININT, G_MAXINT, 0);
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
  new (&self->set) settings();
  g_cond_init(&self->cond);
  gst_base_src_set_format(GST_BASE_SRC(self), GST_FORMAT_TIME);
  gst_base_src_set_live(GST_BASE_SRC(self), FALSE);
}

extern "C" GstBuffer *gst_kelsstsrc_get_first_iframe(const gchar *location, gint ch, gint /*flags*/,
                                                     gint64 begin, gint64 end) {
  if (ch < 0 || ch >= kelsst::kMaxChannels) {
    g_warning("kelsstsrc: no channel %d", ch);
    return nullptr;
  }
  channel c;
  c.ch = ch;
  c.rec =
      kelsst::recording(kelsst::channel_path(location != nullptr ? location : "recordings", ch));
  if (!c.rec.scan()) {
    g_warning("kelsstsrc: channel %d has no readable recording at %s", ch, c.rec.path().c_str());
    return nullptr;
  }
  for (const auto &f : c.rec.frames()) {
    if (!f.intra || f.time < begin || (end != 0 && f.time > end)) continue;
    return frame_buffer(c, f, f.time);
  }
  return nullptr;
}
