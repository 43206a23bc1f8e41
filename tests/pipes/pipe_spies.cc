#include <dlfcn.h>

#include <atomic>
#include <mutex>

#include "pipes_fixture.hh"

// The test programs are built with hidden symbols; the spies must be seen.
#define SPY __attribute__((visibility("default")))

namespace {

// The library's own function of that name, which the spy hands on to.
#define REAL(fn) reinterpret_cast<decltype(&fn)>(dlsym(RTLD_NEXT, #fn))

std::mutex lock;
std::string launch_text;
std::atomic<const void *> launch_string{nullptr};  // cleared when freed
std::atomic<gsize> failing_size{0};
GstKelAppSinkCallbacks callbacks{};
gpointer callbacks_user_data = nullptr;

}  // namespace

extern "C" SPY void g_free(gpointer p) {
  static auto free_fn = REAL(g_free);
  const void *expected = p;
  if (p != nullptr) launch_string.compare_exchange_strong(expected, nullptr);
  free_fn(p);
}

extern "C" SPY GstElement *gst_parse_launch(const gchar *line, GError **error) {
  static auto parse = REAL(gst_parse_launch);
  {
    std::lock_guard<std::mutex> g(lock);
    launch_text = line;
    launch_string = line;
  }
  return parse(line, error);
}

extern "C" SPY gpointer g_try_malloc0(gsize size) {
  static auto alloc = REAL(g_try_malloc0);
  gsize expected = size;
  if (size != 0 && failing_size.compare_exchange_strong(expected, 0)) return nullptr;
  return alloc(size);
}

extern "C" SPY void gst_kelapp_sink_set_callbacks(GstKelAppSink *sink,
                                                  const GstKelAppSinkCallbacks *table,
                                                  gpointer user_data, GDestroyNotify notify) {
  static auto set = REAL(gst_kelapp_sink_set_callbacks);
  {
    std::lock_guard<std::mutex> g(lock);
    callbacks = *table;
    callbacks_user_data = user_data;
  }
  set(sink, table, user_data, notify);
}

namespace pipe_spies {

launch_seen last_launch() {
  std::lock_guard<std::mutex> g(lock);
  return {launch_text, launch_string.load() == nullptr};
}

void fail_allocation_of(gsize size) { failing_size = size; }

GstKelAppSinkCallbacks last_callbacks(gpointer *user_data) {
  std::lock_guard<std::mutex> g(lock);
  *user_data = callbacks_user_data;
  return callbacks;
}

}  // namespace pipe_spies
