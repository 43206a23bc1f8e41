// Render passes of the live sink: list buffers of 16 channels go through the
// kelappsink and the render worker to an engine that accepts every frame at
// once.  The pass must allocate nothing: malloc and its kin are taken over
// here and counted while a pass runs.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <vector>

#include "kel_buffers.h"
#include "kelapp_sink.h"
#include <orlo/orlo_display.h>
#include "ravel.h"

#define BENCH_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

std::atomic<bool> counting{false};
std::atomic<long> allocations{0};

void count() {
  if (counting.load(std::memory_order_relaxed)) allocations.fetch_add(1, std::memory_order_relaxed);
}

ravel_release_fn engine_release = nullptr;
int engine_word;

}  // namespace

// glibc's own entry points, which the interposed ones forward to.
extern "C" void *__libc_malloc(size_t);
extern "C" void *__libc_calloc(size_t, size_t);
extern "C" void *__libc_realloc(void *, size_t);
extern "C" void *__libc_memalign(size_t, size_t);

BENCH_EXPORT void *malloc(size_t n) {
  count();
  return __libc_malloc(n);
}
BENCH_EXPORT void *calloc(size_t n, size_t m) {
  count();
  return __libc_calloc(n, m);
}
BENCH_EXPORT void *realloc(void *p, size_t n) {
  count();
  return __libc_realloc(p, n);
}
BENCH_EXPORT int posix_memalign(void **out, size_t align, size_t n) {
  count();
  *out = __libc_memalign(align, n);
  return *out != nullptr ? 0 : 12 /* ENOMEM */;
}
BENCH_EXPORT void *aligned_alloc(size_t align, size_t n) {
  count();
  return __libc_memalign(align, n);
}

// The engine: takes every frame and gives it back at once.
BENCH_EXPORT ravel_t *ravel_new(const int32_t *, int32_t, int32_t, int32_t, int32_t,
                                ravel_release_fn release, int32_t, int32_t, int32_t, int32_t,
                                const int32_t *, int32_t, const int32_t *) {
  engine_release = release;
  return reinterpret_cast<ravel_t *>(&engine_word);
}

BENCH_EXPORT int32_t ravel_put_decode_stream(ravel_t *, int32_t, void *buffer, const uint8_t *,
                                             int32_t, int32_t, ravel_jpeg_cb, ravel_image_cb,
                                             int32_t, int32_t) {
  engine_release(buffer);
  return 0;
}

namespace {

constexpr int CHANNELS = 16;

GstBuffer *frame(uint8_t channel, uint8_t type, uint32_t payload_bytes) {
  GstBuffer *b = gst_kel_buddy_buffer_new(24 + payload_bytes);
  uint8_t *d = gst_kel_buddy_buffer_get_meta(b)->data;
  d[0] = channel;
  std::memcpy(d + 4, &payload_bytes, 4);
  d[8] = type;
  return b;
}

// A list of `per_slot` frames for each of the 16 channels; only the last of
// a slot is pushed.
GstBuffer *list_of(uint8_t type, int per_slot) {
  GstBuffer *list = gst_kel_list_buffer_new();
  for (int k = 0; k < per_slot; k++)
    for (int ch = 0; ch < CHANNELS; ch++)
      gst_kel_list_buffer_append(list, frame(static_cast<uint8_t>(ch), type, 4096));
  return list;
}

struct live_setup {
  orlo_display_t *h = nullptr;
  GstElement *sink = nullptr;
  GstPad *pad = nullptr;

  live_setup() {
    const int32_t formats[] = {0};
    h = orlo_display_new(formats, 0, CHANNELS, 0, 1, -1, nullptr);
    sink = GST_ELEMENT(gst_object_ref_sink(g_object_new(GST_TYPE_KELAPP_SINK, nullptr)));
    g_object_set(sink, "sync", FALSE, "drop", TRUE, "max-buffers", 3u, nullptr);
    pad = gst_element_get_static_pad(sink, "sink");
    gst_element_set_state(sink, GST_STATE_PLAYING);
    gst_pad_send_event(pad, gst_event_new_stream_start("bench"));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_send_event(pad, gst_event_new_segment(&segment));
    orlo_display_bind_src_pipe(h, sink, 0);
    // Channel j on port j, from its first intra frame on.
    orlo_decode_cfg_t table[ORLO_MAX_SLOT] = {};
    for (int j = 0; j < CHANNELS; j++) {
      table[16 + j].port = j;
      table[16 + j].enable = 1;
    }
    orlo_display_decode_change(h, table);
    gst_pad_chain(pad, list_of(1, 1));
  }
  ~live_setup() {
    gst_element_set_state(sink, GST_STATE_NULL);
    gst_object_unref(pad);
    gst_object_unref(sink);
  }
};

void BM_LiveRenderPass(benchmark::State &state) {
  static live_setup live;
  const int per_slot = static_cast<int>(state.range(0));
  GstBuffer *list = list_of(0, per_slot);
  const long frames_per_pass = static_cast<long>(per_slot) * CHANNELS;
  // Warm up: the sink's queue and the first-pass paths settle.
  for (int i = 0; i < 16; i++) gst_pad_chain(live.pad, gst_buffer_ref(list));

  long passes = 0;
  allocations = 0;
  counting = true;
  for (auto _ : state) {
    gst_pad_chain(live.pad, gst_buffer_ref(list));
    passes++;
  }
  counting = false;
  gst_buffer_unref(list);

  state.SetItemsProcessed(passes * frames_per_pass);
  state.counters["frames_per_list"] = static_cast<double>(frames_per_pass);
  state.counters["pushes_per_pass"] = CHANNELS;
  state.counters["frames/s"] = benchmark::Counter(static_cast<double>(passes * frames_per_pass),
                                                  benchmark::Counter::kIsRate);
  // A rate of frames per 1e9 seconds, inverted: nanoseconds per frame.
  state.counters["ns/frame"] =
      benchmark::Counter(static_cast<double>(passes * frames_per_pass) / 1e9,
                         benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  state.counters["allocs/pass"] =
      static_cast<double>(allocations.load()) / static_cast<double>(passes > 0 ? passes : 1);
  if (allocations.load() != 0) state.SkipWithError("a render pass allocated");
}

}  // namespace

BENCHMARK(BM_LiveRenderPass)->Arg(1)->Arg(4)->ArgName("frames_per_slot");

int main(int argc, char **argv) {
  gst_init(nullptr, nullptr);
  // The count must see GLib's allocations, or a zero would prove nothing.
  counting = true;
  g_free(g_malloc(32));
  counting = false;
  if (allocations.exchange(0) != 1) {
    fprintf(stderr, "malloc is not interposed: the allocation count would be void\n");
    return 1;
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
