// The software engine's own calls (ravel_soft.h).
#include "ravel_soft.h"

#include <glib.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "engine.hh"
#include "log_domain.hh"
#include "picture_file.hh"

extern "C" {

ravel_t *ravel_soft_engine(void) { return ravel_current(); }

int32_t ravel_soft_port_stats(ravel_t *engine, int32_t port, ravel_soft_port_stats_t *out) {
  if (engine == nullptr || out == nullptr || !engine->port_ok(port)) return -1;
  // One instant for the columns that add up to `accepted`.
  engine->ports[port]->with_counters([out](const ravel_soft::port_counters &c) {
    out->accepted = c.accepted.load();
    out->refused = c.refused.load();
    out->decoded = c.decoded.load();
    out->decode_errors = c.decode_errors.load();
    out->skipped = c.skipped.load();
    out->flushed = c.flushed.load();
    out->queued = c.queued.load();
    out->pictures = c.pictures.load();
    out->shown = c.shown.load();
    out->released = c.released.load();
    out->last_shown = c.last_shown_seq.load();
    out->no_signal = c.no_signal.load() ? 1 : 0;
  });
  ravel_soft::picture_ptr pic = engine->ports[port]->latest();
  out->width = pic ? pic->width() : 0;
  out->height = pic ? pic->height() : 0;
  return 0;
}

uint64_t ravel_soft_compose_passes(ravel_t *engine) {
  return engine == nullptr ? 0 : engine->stats.compose_passes.load();
}

int32_t ravel_soft_display_size(ravel_t *engine, int32_t display, int32_t *width, int32_t *height) {
  int index = ravel_soft::compositor::index_of(display);
  if (engine == nullptr || index < 0 || width == nullptr || height == nullptr) return -1;
  int w, h;
  engine->compositor->size(index, &w, &h);
  *width = w;
  *height = h;
  return 0;
}

int32_t ravel_soft_read_display(ravel_t *engine, int32_t display, uint8_t *rgb, int32_t stride) {
  int index = ravel_soft::compositor::index_of(display);
  if (engine == nullptr || index < 0 || rgb == nullptr) return -1;
  int w, h;
  engine->compositor->size(index, &w, &h);
  if (stride < 3 * w) return -1;
  engine->compositor->read_rgb(index, rgb, stride);
  return 0;
}

int32_t ravel_soft_write_display(ravel_t *engine, int32_t display, const char *path) {
  int index = ravel_soft::compositor::index_of(display);
  if (engine == nullptr || index < 0 || path == nullptr) return -1;
  int w, h;
  engine->compositor->size(index, &w, &h);
  std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
  engine->compositor->read_rgb(index, rgb.data(), w * 3);
  return ravel_soft::write_png(path, rgb.data(), w, h, w * 3) ? 0 : -1;
}

int32_t ravel_soft_wait_compose(ravel_t *engine, int32_t timeout_ms) {
  if (engine == nullptr || timeout_ms < 0) return -1;
  // Pictures decoded but not yet due first reach the display in their turn.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (auto &port : engine->ports)
    if (!port->wait_presented(deadline)) return -1;
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - std::chrono::steady_clock::now());
  return engine->compositor->wait_pass(std::max(left, std::chrono::milliseconds(0))) ? 0 : -1;
}

namespace {

int32_t show_display(ravel_t *engine, int32_t display, const char *sink) {
  int index = ravel_soft::compositor::index_of(display);
  if (engine == nullptr || index < 0 || engine->closed || sink == nullptr) return -1;
  std::lock_guard<std::mutex> g(engine->windows_lock);
  auto &window = engine->windows[index];
  if (window) return 0;
  auto made = std::make_unique<ravel_soft::display_window>();
  int w, h;
  engine->compositor->size(index, &w, &h);
  if (!made->open(w, h, display == 0 ? "display 0" : "display 2", sink)) return -1;
  window = std::move(made);
  ravel_soft::display_window *shown = window.get();
  engine->compositor->set_observer(index, [shown](const ravel_soft::canvas &c) { shown->push(c); });
  // The window starts with the display as it is.
  engine->compositor->redraw_all();
  return 0;
}

}  // namespace

int32_t ravel_soft_show_window(ravel_t *engine, int32_t display) {
  if (!ravel_soft::graphical_display_available()) {
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_MESSAGE, "no graphical display: display %d stays headless",
          display);
    return -1;
  }
  return show_display(engine, display, ravel_soft::display_window::kWindowSink);
}

int32_t ravel_soft_show_display_through(ravel_t *engine, int32_t display, const char *sink) {
  return show_display(engine, display, sink);
}

int32_t ravel_soft_set_port_signal(ravel_t *engine, int32_t port, int32_t present) {
  if (engine == nullptr || !engine->port_ok(port)) return -1;
  engine->ports[port]->set_signal(present != 0);
  engine->compositor->picture_arrived();
  return 0;
}

int32_t ravel_soft_set_signal_timeout(ravel_t *engine, int32_t timeout_ms) {
  if (engine == nullptr || timeout_ms < 0) return -1;
  engine->signal_timeout_ms = timeout_ms;
  return 0;
}

int32_t ravel_soft_set_compose_rate(ravel_t *engine, int32_t per_second) {
  if (engine == nullptr || per_second < 0) return -1;
  engine->compositor->set_fixed_rate(per_second);
  return 0;
}

int32_t ravel_soft_hold_port(ravel_t *engine, int32_t port, int32_t hold) {
  if (engine == nullptr || !engine->port_ok(port)) return -1;
  engine->ports[port]->hold(hold != 0);
  return 0;
}

}  // extern "C"
