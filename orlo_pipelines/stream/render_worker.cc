// Sink binding and the render worker: one pass per rendered list buffer,
// which walks the list, plays the audio, and sends each stream slot's frame
// to the engine port that the slot tables choose.
#include "display/display_state.hh"
#include "glib_lock.hh"
#include "kel_buffers.h"
#include "ref_ptr.hh"
#include "shared_word.hh"
#include "stream/stream_delivery.hh"

namespace {

// Touched by render passes alone, under the handle's `mutex`.
// Nonzero once the slot has seen an intra frame while it waited.
int32_t ch_started[ORLO_MAX_SLOT];
// Nonzero once the slot's copies to main_port may run.
int32_t ch_sync_started[ORLO_MAX_SLOT];

constexpr int LIVE_PAIRS = 16;
constexpr int LIVE_FIRST = 16;   // first slots of the pairs: live channels 0..15
constexpr int LIVE_SECOND = 32;  // second slots: live channels 16..31
constexpr int PLAYBACK_FIRST = 48;
constexpr int PLAYBACK_END = 80;  // one past the last dispatched playback slot

// The frames of one pass, one per slot, borrowed from the list buffer.
using pass_frames_t = orlo::frame[ORLO_MAX_SLOT];

// The base of the slots of a sink's channels, by the element's place among
// the bound sinks.
int sink_base(orlo_display_t *h, GstElement *sink) {
  if (sink == orlo::load_word(h->sinks[0])) return LIVE_FIRST;
  if (sink == orlo::load_word(h->sinks[1])) return PLAYBACK_FIRST;
  return PLAYBACK_END;
}

// The stream slot of a channel.  Sums above 63 are taken 16 lower, which
// keeps the sums inside the 84 slots: the playback sink (base 48) puts its
// channels 16..31 on the slots of its channels 0..15, and a sink of base 80
// reaches its channels 0..19.  The fold happens once: 63 stays, 64 becomes
// 48.
int slot_of(int channel, int base) {
  const int slot = channel + base;
  return slot > 63 ? slot - 16 : slot;
}

void walk(orlo_display_t *h, const GList *members, int base, pass_frames_t &pass_frames) {
  for (const GList *l = members; l != nullptr; l = l->next) {
    orlo::frame f;
    if (!orlo::read_frame(static_cast<GstBuffer *>(l->data), f)) continue;
    if (f.type == orlo::FRAME_AUDIO) {
      orlo::play_audio_frame(h, f);
      continue;
    }
    const int slot = slot_of(f.channel, base);
    if (slot >= ORLO_MAX_SLOT) {
      g_warning("%s:%d: channel %d (slot base %d) has no stream slot, frame dropped\n", __func__,
                __LINE__, f.channel, base);
      continue;
    }
    if (h->ch_enable[slot] == orlo::SLOT_OFF) {
      ch_started[slot] = 0;
      ch_sync_started[slot] = 0;
      continue;
    }
    if (h->ch_sync[slot] == 0) ch_sync_started[slot] = 0;
    if (h->ch_wait_first[slot] == 1 && f.type == orlo::FRAME_INTRA) {
      h->ch_wait_first[slot] = 0;
      ch_started[slot] = 1;
      if (orlo_first_cb_t cb = h->ch_first_cb[slot]; cb != nullptr) cb(slot);
    }
    if (h->ch_wait_sync[slot] == 1 && f.type == orlo::FRAME_INTRA) {
      h->ch_wait_sync[slot] = 0;
      ch_sync_started[slot] = 1;
    }
    pass_frames[slot] = f;
  }
}

void push_if_any(orlo_display_t *h, int port, const orlo::frame *f) {
  if (f != nullptr && f->buffer != nullptr) orlo::push_frame(h, port, *f);
}

// Stage A: what goes to the second slot's port.  A first slot that is
// leaving feeds it until the second has started, then turns off.
void live_stage_a(orlo_display_t *h, pass_frames_t &pass_frames, int j) {
  const int first = LIVE_FIRST + j, second = LIVE_SECOND + j;
  int32_t *enable = h->ch_enable;
  const orlo::frame *sel = nullptr;
  if (enable[first] == orlo::SLOT_LEAVING) {
    if (ch_started[second] != 0) {
      enable[first] = orlo::SLOT_OFF;
      sel = &pass_frames[second];
    } else if (ch_started[first] != 0) {
      sel = &pass_frames[first];
    }
  } else if (ch_started[second] != 0 && enable[second] == orlo::SLOT_ON) {
    sel = &pass_frames[second];
  }
  push_if_any(h, h->ch_port[second], sel);
}

// Stage B: what goes to the first slot's port, then the first slot's copy to
// main_port.
void live_stage_b(orlo_display_t *h, pass_frames_t &pass_frames, int j) {
  const int first = LIVE_FIRST + j, second = LIVE_SECOND + j;
  int32_t *enable = h->ch_enable;
  const orlo::frame *sel = nullptr;
  if (enable[second] == orlo::SLOT_LEAVING) {
    if (ch_started[first] != 0) {
      enable[second] = orlo::SLOT_OFF;
      if (enable[first] == orlo::SLOT_ON) sel = &pass_frames[first];
    } else if (ch_started[second] != 0) {
      sel = &pass_frames[second];
    }
  } else if (ch_started[first] != 0 && enable[first] == orlo::SLOT_ON) {
    sel = &pass_frames[first];
  }
  push_if_any(h, h->ch_port[first], sel);
  if (ch_sync_started[first] != 0 && pass_frames[first].buffer != nullptr)
    orlo::push_frame_to_main_port(h, pass_frames[first]);
}

void live_dispatch(orlo_display_t *h, pass_frames_t &pass_frames) {
  for (int j = 0; j < LIVE_PAIRS; j++) live_stage_a(h, pass_frames, j);
  for (int j = 0; j < LIVE_PAIRS; j++) live_stage_b(h, pass_frames, j);
}

void playback_dispatch(orlo_display_t *h, pass_frames_t &pass_frames) {
  for (int slot = PLAYBACK_FIRST; slot < PLAYBACK_END; slot++) {
    if (ch_started[slot] == 0 || h->ch_enable[slot] != orlo::SLOT_ON) continue;
    const orlo::frame &f = pass_frames[slot];
    if (f.buffer == nullptr) continue;
    orlo::push_playback_frame(h, h->ch_port[slot], f);
    if (ch_sync_started[slot] != 0) orlo::push_frame_to_main_port(h, f);
  }
}

}  // namespace

gint orlo_display_push_buffers(GstKelAppSink *sink, gpointer h_display) {
  auto *h = static_cast<orlo_display_t *>(h_display);
  GstElement *element = GST_ELEMENT_CAST(sink);
  // Declared before the lock, so released after it.
  orlo::ref_ptr<GstBuffer> buffer = orlo::adopt(gst_kelapp_sink_pull_buffer(sink));
  const int base = sink_base(h, element);

  orlo::mutex_guard lock(h->mutex);
  const GstKelListMeta *list = gst_kel_list_buffer_get_meta(buffer.get());
  if (list == nullptr) return 0;

  pass_frames_t pass_frames{};
  walk(h, list->list, base, pass_frames);
  if (element == h->sinks[0]) live_dispatch(h, pass_frames);
  if (element == h->sinks[1]) playback_dispatch(h, pass_frames);
  return 0;
}

extern "C" ORLO_API int orlo_display_bind_src_pipe(orlo_display_t *h_display, GstElement *sink,
                                                   int kelappsink_idx) {
  if (h_display == nullptr || sink == nullptr) {
    g_return_if_fail_warning(nullptr, "orlo_display_bind_src_pipe",
                             "h_display != NULL && sink != NULL");
    return -1;
  }
  orlo::mutex_guard lock(h_display->mutex);
  if (kelappsink_idx < 0 || kelappsink_idx >= ORLO_MAX_SINK) {
    g_warning("Invalid kelappsink_idx\n");
    return -1;
  }
  if (h_display->sinks[kelappsink_idx] != nullptr) {
    g_warning("App idx %d is aleady used.\n", kelappsink_idx);
    return -1;
  }
  if (!GST_IS_KELAPP_SINK(sink)) {
    g_return_if_fail_warning(nullptr, "orlo_display_bind_src_pipe", "GST_IS_KELAPP_SINK(sink)");
    return -1;
  }
  // A sink stays bound for the life of the handle, which keeps it alive.
  orlo::store_word(h_display->sinks[kelappsink_idx],
                   static_cast<GstElement *>(gst_object_ref(sink)));
  const GstKelAppSinkRenderCallbacks callbacks = {nullptr, orlo_display_push_buffers, {}};
  gst_kelapp_sink_set_render_callbacks(GST_KELAPP_SINK(sink), &callbacks, h_display, nullptr);
  return 0;
}
