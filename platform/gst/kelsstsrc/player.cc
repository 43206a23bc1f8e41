// The play plan of kelsstsrc: channels opened, start frames found, frames
// grouped into instants and stamped with their play positions.
#include "player.hh"

#include <algorithm>
#include <utility>

#include "kel_buffers.h"

GST_DEBUG_CATEGORY_EXTERN(kelsstsrc_debug);
#define GST_CAT_DEFAULT kelsstsrc_debug

namespace kelsst {

namespace {

constexpr int kHeaderSize = 24;
constexpr gint64 kGroupWindow = 20 * GST_MSECOND;
// Neighbouring frames of a channel further apart than this, forward, or back
// by more than the recorder's reordering slack, are a break in its clock
// (a damaged time, a clock set anew): play goes on as if they followed.
constexpr gint64 kJumpLimit = 10 * GST_SECOND;
constexpr gint64 kBackSlack = GST_SECOND;
constexpr gint64 kAssumedGap = 40 * GST_MSECOND;

guint64 bit(int ch) { return G_GUINT64_CONSTANT(1) << ch; }

void put_le(guint8 *p, guint64 v, int n) {
  for (int i = 0; i < n; i++) p[i] = static_cast<guint8>(v >> (8 * i));
}

}  // namespace

GstBuffer *frame_buffer(const play_channel &c, const frame_entry &f, gint64 t) {
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

bool player::in_span(gint64 t) const {
  const play_settings &s = *plan_;
  return (s.begin == 0 || t >= s.begin) && (s.end == 0 || t <= s.end);
}

gint64 player::position_of(const play_channel &c) const {
  return std::max<gint64>(raw_position(c, c.next), 0);
}

gint64 player::raw_position(const play_channel &c, long i) const {
  const gint64 t = frame_time(c.rec.frames()[i]);
  return (backward_ ? base_ - t : t - base_) + c.shift;
}

void player::follow_clock_jump(play_channel &c) {
  if (c.taken < 0 || c.next < 0) return;
  const gint64 gap = raw_position(c, c.next) - raw_position(c, c.taken);
  if (gap <= kJumpLimit && gap >= -kBackSlack) return;
  c.shift += kAssumedGap - gap;
  if (c.jump_logged) return;
  c.jump_logged = true;
  g_warning("kelsstsrc: channel %d: the recorder's time jumps by %" G_GINT64_FORMAT
            " ms at frame %ld of %s; playing on from there",
            c.ch, gap / GST_MSECOND, c.next, c.rec.path().c_str());
}

// Whether frame `i` of `c` is one that this play sends.
bool player::wanted(const play_channel &c, long i) const {
  const frame_entry &f = c.rec.frames()[i];
  return (f.intra || !(backward_ || intra_only)) && in_span(frame_time(f));
}

// The next frame to play after index `from` (exclusive) in the direction of
// play, or -1.
long player::step_from(const play_channel &c, long from) const {
  const auto &frames = c.rec.frames();
  const long n = static_cast<long>(frames.size());
  if (backward_) {
    for (long i = from - 1; i >= 0; i--) {
      if (frame_time(frames[i]) < plan_->begin && plan_->begin != 0) return -1;
      if (wanted(c, i)) return i;
    }
    return -1;
  }
  for (long i = from + 1; i < n; i++) {
    if (plan_->end != 0 && frame_time(frames[i]) > plan_->end) return -1;
    if (wanted(c, i)) return i;
  }
  return -1;
}

// Where channel `c` starts for the search time.
long player::start_index(const play_channel &c) const {
  const auto &frames = c.rec.frames();
  const long n = static_cast<long>(frames.size());
  if (backward_) {
    // The last intra frame at or before the search time.
    long best = -1;
    for (long i = 0; i < n; i++) {
      if (frames[i].intra && frame_time(frames[i]) <= base_ && wanted(c, i)) best = i;
    }
    return best;
  }
  long first_after = -1, last_before = -1;
  for (long i = 0; i < n; i++) {
    const gint64 t = frame_time(frames[i]);
    if (!frames[i].intra || !in_span(t)) continue;
    if (t >= base_) {
      first_after = i;
      break;
    }
    last_before = i;
  }
  if (!plan_->hide && last_before >= 0) return last_before;
  return first_after;
}

void player::open_channels(const play_settings &s) {
  const int count = std::clamp(s.ch_num, 0, kMaxChannels);
  if (s.ch_num > kMaxChannels)
    g_warning("kelsstsrc: ch-num %d is above %d; channels from %d on are ignored", s.ch_num,
              kMaxChannels, kMaxChannels);
  for (int ch = 0; ch < kMaxChannels; ch++) {
    if (!(s.ch_mask >> ch & 1)) continue;
    if (ch >= count) {
      g_warning("kelsstsrc: ch-mask names channel %d, beyond ch-num %d", ch, s.ch_num);
      continue;
    }
    play_channel c;
    c.ch = ch;
    c.rec = recording(channel_path(s.location, ch));
    if (!c.rec.scan()) {
      g_warning("kelsstsrc: channel %d has no readable recording at %s", ch, c.rec.path().c_str());
      norecord_ |= bit(ch);
      eos_ |= bit(ch);
      continue;
    }
    GST_DEBUG("channel %d: opened %s, %zu frames", ch, c.rec.path().c_str(), c.rec.frames().size());
    if (c.rec.truncated())
      g_warning("kelsstsrc: recording %s ends in a cut frame; playing the %zu whole frames",
                c.rec.path().c_str(), c.rec.frames().size());
    if (c.rec.damaged())
      g_warning("kelsstsrc: recording %s is damaged from byte %" G_GUINT64_FORMAT
                "; playing the whole frames around the damage",
                c.rec.path().c_str(), c.rec.damage_at());
    if (c.rec.overlapped()) overlapped_ |= bit(ch);
    channels_.push_back(std::move(c));
  }
}

// Position 0: the search time, else the bound in the direction of play, else
// the outermost frame.
gint64 player::find_base(const play_settings &s) const {
  gint64 base = s.search != 0 ? s.search : backward_ ? s.end : s.begin;
  if (base == 0) {
    bool any = false;
    for (const play_channel &c : channels_) {
      for (const auto &f : c.rec.frames()) {
        const gint64 t = f.time + s.time_offset;
        if (!in_span(t)) continue;
        if (!any || (backward_ ? t > base : t < base)) base = t;
        any = true;
      }
    }
  } else if ((s.begin != 0 && base < s.begin) || (s.end != 0 && base > s.end)) {
    g_warning("kelsstsrc: search-time %" G_GINT64_FORMAT " lies outside the span; clamped", base);
    // To the nearer bound; a span may have only one.
    if (s.begin != 0) base = std::max(base, s.begin);
    if (s.end != 0) base = std::min(base, s.end);
  }
  return base;
}

void player::place_channels() {
  for (play_channel &c : channels_) {
    c.next = start_index(c);
    if (c.next >= 0) continue;
    const auto &frames = c.rec.frames();
    if (std::none_of(frames.begin(), frames.end(),
                     [&](const frame_entry &f) { return in_span(frame_time(f)); })) {
      g_warning("kelsstsrc: channel %d has no frame in the span", c.ch);
      norecord_ |= bit(c.ch);
    } else {
      g_warning("kelsstsrc: channel %d has no frame to play %s the search time", c.ch,
                backward_ ? "before" : "after");
    }
    c.ended = true;
    // A forward play may see the recording grow.
    c.waiting = !backward_;
    eos_ |= bit(c.ch);
  }
}

void player::make_plan(const play_settings &s) {
  clear();
  plan_ = s;
  backward_ = s.dir != 0;
  eos_ = overlapped_ = norecord_ = eos_pending_ = 0;
  gap_logged_ = false;
  open_channels(s);
  base_ = find_base(s);
  place_channels();
  last_pos = 0;
  GST_DEBUG("plan: %zu channels, base %" G_GINT64_FORMAT ", %s", channels_.size(), base_,
            backward_ ? "backward" : "forward");
}

// Advances channel `c` past its current frame; marks its end.
void player::advance(play_channel &c) {
  c.taken = c.next;
  c.next = step_from(c, c.next);
  follow_clock_jump(c);
  if (c.next < 0) {
    c.ended = true;
    c.waiting = !backward_;
    // Reported once the frame just taken has gone out.
    eos_pending_ |= bit(c.ch);
  }
}

// Nothing to play for longer than the jump limit (a time damaged towards the
// past became the start, a hole in every recording): every channel moves up
// so that play goes on at once.
void player::skip_gap(gint64 gap) {
  for (play_channel &c : channels_) c.shift -= gap - kAssumedGap;
  if (gap_logged_) return;
  gap_logged_ = true;
  g_warning("kelsstsrc: nothing to play for %" G_GINT64_FORMAT
            " ms after position %" G_GINT64_FORMAT " ms; playing on from there",
            gap / GST_MSECOND, last_pos / GST_MSECOND);
}

GstBuffer *player::next_group() {
  play_channel *first = nullptr;
  gint64 first_pos = 0;
  for (play_channel &c : channels_) {
    if (c.ended) continue;
    const gint64 p = position_of(c);
    if (first == nullptr || p < first_pos) first = &c, first_pos = p;
  }
  if (first == nullptr) return nullptr;
  if (first_pos > last_pos + kJumpLimit) {
    skip_gap(first_pos - last_pos);
    first_pos = position_of(*first);
  }
  GstBuffer *list = gst_kel_list_buffer_new();
  for (play_channel &c : channels_) {
    if (c.ended) continue;
    if (position_of(c) > first_pos + kGroupWindow) continue;
    const frame_entry &f = c.rec.frames()[c.next];
    if (GstBuffer *fb = frame_buffer(c, f, frame_time(f))) gst_kel_list_buffer_append(list, fb);
    advance(c);
  }
  first_pos = std::max(first_pos, last_pos);
  last_pos = first_pos;
  GST_BUFFER_PTS(list) = static_cast<GstClockTime>(first_pos);
  GST_BUFFER_DURATION(list) = GST_CLOCK_TIME_NONE;
  return list;
}

bool player::rescan_waiting() {
  bool resumed = false;
  for (play_channel &c : channels_) {
    if (!c.waiting) continue;
    const long last = c.rec.frames().empty() ? -1 : static_cast<long>(c.rec.frames().size()) - 1;
    c.rec.scan();
    // A channel that never started waits for its first intra frame; one that
    // played up to its last frame goes on with the frame after it, whatever
    // its type: the scan may have caught the recorder in the middle of a
    // group of pictures.
    const long next = c.next < 0 && last < 0 ? step_from(c, -1) : step_from(c, last);
    const bool continues = c.taken >= 0 && c.taken == last;
    if (next >= 0 && (continues || c.rec.frames()[next].intra)) {
      c.next = next;
      c.ended = c.waiting = false;
      eos_ &= ~bit(c.ch);
      eos_pending_ &= ~bit(c.ch);
      norecord_ &= ~bit(c.ch);
      resumed = true;
      GST_DEBUG("channel %d: the recording grew; playing on", c.ch);
    } else if (plan_->end != 0 && !c.rec.frames().empty() &&
               frame_time(c.rec.frames().back()) > plan_->end) {
      c.waiting = false;  // past the end of the span: final
    }
  }
  return resumed;
}

bool player::may_grow() const {
  return std::any_of(channels_.begin(), channels_.end(),
                     [](const play_channel &c) { return c.waiting; });
}

bool info_reporter::due(const player &p, gint vtick_usec) const {
  return !info_sent_ || p.eos() != sent_eos_ || p.overlapped() != sent_overlapped_ ||
         p.norecord() != sent_norecord_ ||
         (vtick_usec > 0 && p.last_pos - info_pos_ >= gint64{vtick_usec} * 1000);
}

GstStructure *info_reporter::make(const player &p, gint pr_id) {
  sent_eos_ = p.eos();
  sent_overlapped_ = p.overlapped();
  sent_norecord_ = p.norecord();
  info_pos_ = p.last_pos;
  info_sent_ = true;
  return gst_structure_new(
      "KELPlayInfo", "eos-status", G_TYPE_UINT64, p.eos(), "overlapped-status", G_TYPE_UINT64,
      p.overlapped(), "norecord-status", G_TYPE_UINT64, p.norecord(), "base-time", G_TYPE_UINT64,
      static_cast<guint64>(p.base()), "direction", G_TYPE_INT, p.backward() ? 1 : 0, "pr-id",
      G_TYPE_INT, pr_id, "position", G_TYPE_UINT64, static_cast<guint64>(p.last_pos), nullptr);
}

}  // namespace kelsst
