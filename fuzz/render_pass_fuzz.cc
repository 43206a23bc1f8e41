// The render pass under libFuzzer: random list-buffer members through a
// bound sink into the recording engine.  An input is
//   byte 0    bits 0-1 the sink (index 0, 1 or 2), bits 2-3 the slot table,
//             bit 4 the engine refuses the first push
//   byte 1    main_port, -1..18
//   members   each a 16-bit little-endian length and that many bytes: the
//             frame header and payload of one buddy buffer.
#include <fcntl.h>
#include <gst/gst.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

#include "fake_engine.hh"
#include "kel_buffers.h"
#include "kelapp_sink.h"
#include "orlo_display.h"

// The engine push sleeps a millisecond after each refusal before it offers
// again.  Here no engine thread needs the time, so the sleep returns at once
// and the fuzzer is not held up by the scheduler.
extern "C" int usleep(useconds_t) { return 0; }

namespace {

void quiet(const gchar *, GLogLevelFlags, const gchar *, gpointer) {}

// A kelappsink fed on the fuzzer's thread.
struct sink {
  GstElement *element = nullptr;
  GstPad *pad = nullptr;
  void make() {
    element = GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("kelappsink", nullptr)));
    if (element == nullptr) abort();
    g_object_set(element, "sync", FALSE, nullptr);
    pad = gst_element_get_static_pad(element, "sink");
    gst_element_set_state(element, GST_STATE_PLAYING);
    gst_pad_send_event(pad, gst_event_new_stream_start("fuzz"));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_send_event(pad, gst_event_new_segment(&segment));
  }
};

// Four slot tables: each slot on its own port; slots paired on a port; in
// sync; none enabled.
void set_table(orlo_display_t *h, int kind) {
  orlo_decode_cfg_t table[ORLO_MAX_SLOT] = {};
  for (int slot = 0; slot < ORLO_MAX_SLOT && kind != 3; ++slot) {
    table[slot].port = kind == 1 ? (slot % 36) / 2 : slot % 18;
    table[slot].enable = kind == 1 ? 1 + slot % 2 : 1;
    table[slot].sync = kind == 2 ? 1 : 0;
  }
  orlo_display_decode_change(h, table);
}

struct world {
  orlo_display_t *display = nullptr;
  sink sinks[3];
  world() {
    g_log_set_default_handler(quiet, nullptr);
    gst_init(nullptr, nullptr);
    const int32_t formats[] = {0};
    display = orlo_display_new(formats, 0, 16, 0, 1, open("/dev/null", O_WRONLY), nullptr);
    if (display == nullptr) abort();
    for (int i = 0; i < 3; ++i) {
      sinks[i].make();
      if (orlo_display_bind_src_pipe(display, sinks[i].element, i) != 0) abort();
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static world w;
  if (size < 2) return 0;
  fake_engine::reset();
  if (data[0] & 0x10) fake_engine::script_sequence("ravel_put_decode_stream", {-1, 0});
  set_table(w.display, (data[0] >> 2) & 3);
  w.display->main_port = data[1] % 20 - 1;
  GstBuffer *list = gst_kel_list_buffer_new();
  for (size_t at = 2; at + 2 <= size;) {
    size_t length = data[at] | (static_cast<size_t>(data[at + 1]) << 8);
    at += 2;
    if (length > size - at) length = size - at;
    gst_kel_list_buffer_append(list, gst_kel_buddy_buffer_new_copy(data + at, length));
    at += length;
  }
  gst_pad_chain(w.sinks[(data[0] & 3) % 3].pad, list);
  fake_engine::reset();  // frames the engine still holds go back
  return 0;
}
