// The play of recorded channels, apart from the element that drives it: which
// frames of which channel go out in which order, at which play position, and
// the status masks that the "KELPlayInfo" events report.  Streaming thread
// only.
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "play_settings.hh"
#include "recording.hh"

namespace kelsst {

struct play_channel {
  int ch = 0;
  recording rec;
  long next = -1;        // index of the next frame to play, -1 when none
  bool ended = false;    // no more frames in the span
  bool waiting = false;  // ended, but may grow (open-rate)
  long taken = -1;       // index of the last frame sent, -1 none yet
  gint64 shift = 0;      // added to positions after a jump of the recorder's clock
  bool jump_logged = false;
};

// A frame buffer of channel `c`'s frame `f` stamped with recorder time `t`;
// NULL when its bytes can't be read.
GstBuffer *frame_buffer(const play_channel &c, const frame_entry &f, gint64 t);

class player {
 public:
  // Opens the channels of `s` and places each at its start.
  void make_plan(const play_settings &s);
  void clear() { plan_.reset(), channels_.clear(); }
  bool has_plan() const { return plan_.has_value(); }

  // The next instant: at most one frame per channel, within the group
  // window of the earliest.  NULL when every channel has ended.
  GstBuffer *next_group();
  // Looks again at the ended channels that may grow.  True when one goes on.
  bool rescan_waiting();
  bool may_grow() const;
  // Channels whose last frame has gone out now count as ended.
  void settle_eos() { eos_ |= std::exchange(eos_pending_, 0); }

  bool backward() const { return backward_; }
  gint64 base() const { return base_; }
  guint64 eos() const { return eos_; }
  guint64 overlapped() const { return overlapped_; }
  guint64 norecord() const { return norecord_; }

  // Play position of the last buffer sent, and the running time it maps to.
  gint64 last_pos = 0;
  gint64 last_running = 0;
  gint rate = 1;
  bool intra_only = false;

 private:
  gint64 frame_time(const frame_entry &f) const { return f.time + plan_->time_offset; }
  bool in_span(gint64 t) const;
  gint64 position_of(const play_channel &c) const;
  // Frame i's position with the channel's shift, before clamping.
  gint64 raw_position(const play_channel &c, long i) const;
  bool wanted(const play_channel &c, long i) const;
  long step_from(const play_channel &c, long from) const;
  long start_index(const play_channel &c) const;
  void open_channels(const play_settings &s);
  gint64 find_base(const play_settings &s) const;
  void place_channels();
  void advance(play_channel &c);
  void follow_clock_jump(play_channel &c);
  void skip_gap(gint64 gap);

  std::optional<play_settings> plan_;  // the settings the plan was made from
  std::vector<play_channel> channels_;
  bool backward_ = false;
  gint64 base_ = 0;  // recorder's time of position 0
  guint64 eos_ = 0, overlapped_ = 0, norecord_ = 0, eos_pending_ = 0;
  bool gap_logged_ = false;
};

// The "KELPlayInfo" reports: one at each change of status and one each
// "vtick-interval-usec" of play position.
class info_reporter {
 public:
  void reset() { info_pos_ = -1, info_sent_ = false, gap_sent = false; }
  bool due(const player &p, gint vtick_usec) const;
  // The event's structure; counts it as sent.
  GstStructure *make(const player &p, gint pr_id);
  bool gap_sent = false;  // a gap since the plan, for a play with nothing to show

 private:
  guint64 sent_eos_ = 0, sent_overlapped_ = 0, sent_norecord_ = 0;
  gint64 info_pos_ = -1;
  bool info_sent_ = false;
};

}  // namespace kelsst
