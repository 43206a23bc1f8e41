// The software media engine: bring-up, streams, regions and still images.
//
// Each engine port decodes on a thread of its own, the compositor redraws
// the tiles of a port when it has a new picture, and JPEG requests are served
// on a third kind of thread: callers never wait for decoding.
#include <glib.h>

#include <cstring>

#include "display_format.hh"
#include "engine.hh"
#include "log_domain.hh"

namespace {

using orlo::size_of_format;

// One engine per process.  At exit its threads end, but its memory stays to
// the end: a thread of the application that still pushes a frame while the
// process exits finds a closed engine rather than freed memory.
struct engine_keeper {
  std::unique_ptr<ravel> engine;
  ravel *kept = nullptr;
  ~engine_keeper() {
    if (engine) {
      engine->shutdown();
      kept = engine.release();
    }
  }
};
engine_keeper keeper;
std::atomic<ravel *> current{nullptr};

}  // namespace

ravel::ravel(ravel_release_fn release_fn, int32_t channels, int width0, int height0)
    : release(release_fn), ch_count(channels) {
  // No frame is taken before ravel_new has returned, so no picture arrives
  // before the compositor exists.
  for (int i = 0; i < ravel_soft::kPorts; i++)
    ports[i] = std::make_unique<ravel_soft::port_decoder>(
        i, release, stats, [this](int, auto due) { compositor->picture_arrived(due); });
  compositor = std::make_unique<ravel_soft::compositor>(
      [this](int port, auto now) {
        auto timeout = std::chrono::milliseconds(signal_timeout_ms.load());
        ravel_soft::port_decoder &p = *ports[port];
        ravel_soft::tile_source t;
        t.pic = p.take_for_display(now, &t.next_due);
        t.no_signal = p.no_signal(now, timeout);
        return t;
      },
      [this](int port, bool shown) { ports[port]->set_shown(shown); }, stats, width0, height0);
  stills = std::make_unique<ravel_soft::still_requests>(
      [this](int port) { return ports[port]->latest(); },
      [this](int port) { return jpeg[port].timestamp.load(); }, stats);
}

void ravel::shutdown() {
  closed = true;
  for (int i = 0; i < ravel_soft::compositor::kDisplays; i++) compositor->set_observer(i, nullptr);
  compositor->shutdown();
  {
    std::lock_guard<std::mutex> g(windows_lock);
    for (auto &w : windows)
      if (w) w->close();
  }
  stills->shutdown();
  for (auto &p : ports) p->shutdown();
}

ravel *ravel_current() { return current.load(); }

extern "C" {

ravel_t *ravel_new(const int32_t *formats, int32_t, int32_t ch_count, int32_t, int32_t,
                   ravel_release_fn release, int32_t, int32_t, int32_t, int32_t, const int32_t *,
                   int32_t, const int32_t *) {
  if (formats == nullptr || release == nullptr) {
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "ravel_new: %s is missing",
          formats == nullptr ? "the display format" : "the release function");
    return nullptr;
  }
  if (keeper.engine) return keeper.engine.get();
  orlo::display_size size = size_of_format(formats[0]);
  if (size.width == 0) {
    // The caller refuses such a format itself; the engine still comes up.
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING,
          "display format %d is unknown: display 0 is 1920 x 1080", formats[0]);
    size = {1920, 1080};
  }
  keeper.engine = std::make_unique<ravel>(release, ch_count, size.width, size.height);
  current = keeper.engine.get();
  return keeper.engine.get();
}

int32_t ravel_init_dec_config_param(ravel_t *engine, ravel_dec_config_t *dec_block) {
  if (engine == nullptr || dec_block == nullptr) return -1;
  for (int i = 0; i < RAVEL_DEC_CONFIG_COUNT; i++) {
    ravel_dec_config_t &r = dec_block[i];
    std::memset(&r, 0, sizeof r);
    r.word[0] = i;
    r.word[1] = i;
    r.word[2] = 1920;
    r.word[3] = 1080;
    r.word[4] = i;
    r.word[5] = -1;
    r.word[6] = -1;
    r.word[8] = -1;
  }
  return 0;
}

int32_t ravel_init_enc_config_param(ravel_t *engine, void *enc_block) {
  if (engine == nullptr || enc_block == nullptr) return -1;
  std::memset(enc_block, 0, RAVEL_ENC_CONFIG_BYTES);
  return 0;
}

int32_t ravel_change_pipe_config(ravel_t *engine, ravel_dec_config_t *dec_block, int32_t count,
                                 void *, int32_t ch_count) {
  if (engine == nullptr || dec_block == nullptr || count < 0 || count > RAVEL_DEC_CONFIG_COUNT)
    return -1;
  std::lock_guard<std::mutex> g(engine->control.lock);
  // Count 0 stands for the whole block as the engine filled it.
  int n = count == 0 ? RAVEL_DEC_CONFIG_COUNT : count;
  std::memcpy(engine->control.dec_config.data(), dec_block, sizeof(ravel_dec_config_t) * n);
  engine->control.dec_config_count = count;
  engine->control.enc_ch_count = ch_count;
  // A new pipe layout starts every port afresh.
  for (auto &p : engine->ports) p->reset();
  return 0;
}

int32_t ravel_start(ravel_t *engine) {
  if (engine == nullptr || engine->closed) return -1;
  engine->started = true;
  engine->idle_refusal_logged = false;
  for (auto &p : engine->ports) p->set_running(true);
  engine->compositor->set_running(true);
  return 0;
}

int32_t ravel_stop(ravel_t *engine) {
  if (engine == nullptr) return -1;
  engine->started = false;
  engine->idle_refusal_logged = false;
  // Queued frames go back undecoded; the displays keep their last picture.
  for (auto &p : engine->ports) p->set_running(false);
  engine->compositor->set_running(false);
  return 0;
}

int32_t ravel_change_geometry(ravel_t *engine, const ravel_region_t *regions, int32_t count,
                              int32_t display, int32_t playback) {
  if (engine == nullptr) return -1;
  int index = ravel_soft::compositor::index_of(display);
  if (index < 0 || count < 0 || count > 37 || (count > 0 && regions == nullptr)) {
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING,
          "ravel_change_geometry: refused (display %d, %d regions)", display, count);
    return -1;
  }
  for (int i = 0; i < count; i++) {
    if (!engine->port_ok(regions[i].ch))
      g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_MESSAGE,
            "display %d: region %d names %d, which is no engine port: it shows black", display, i,
            regions[i].ch);
  }
  engine->compositor->set_regions(index, regions, count, playback);
  return 0;
}

int32_t ravel_put_decode_stream(ravel_t *engine, int32_t port, void *buffer, const uint8_t *data,
                                int32_t size, int32_t, ravel_jpeg_cb jpeg_cb,
                                ravel_image_cb image_cb, int32_t, int32_t) {
  if (engine == nullptr) return -1;
  if (!engine->port_ok(port) || buffer == nullptr || data == nullptr || size <= 0) {
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING,
          "ravel_put_decode_stream: frame refused (port %d, %d bytes%s)", port, size,
          buffer == nullptr || data == nullptr ? ", no data" : "");
    if (engine->port_ok(port)) engine->stats.port[port].refused++;
    return -1;
  }
  if (!engine->running()) {
    // Frames are taken between ravel_start and ravel_stop only.
    if (!engine->idle_refusal_logged.exchange(true))
      g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING,
            "port %d: frame refused, the engine is not running", port);
    engine->stats.port[port].refused++;
    return -1;
  }
  ravel_soft::pending_frame f;
  f.buffer = buffer;
  f.data = data;
  f.size = size;
  f.jpeg_cb = jpeg_cb;
  f.image_cb = image_cb;
  f.jpeg_timestamp = engine->jpeg[port].timestamp.load();
  return engine->ports[port]->offer(f);
}

int32_t ravel_jpeg_enc(ravel_t *engine, int32_t ch, int32_t flag, ravel_jpeg_cb cb) {
  if (engine == nullptr || cb == nullptr || engine->closed) return -1;
  if (!engine->port_ok(ch)) {
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "ravel_jpeg_enc: %d is no engine port", ch);
    return -1;
  }
  if (!engine->ports[ch]->latest()) {
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "ravel_jpeg_enc: port %d has no picture yet", ch);
    return -1;
  }
  engine->stills->request(ch, flag, cb);
  return 0;
}

int32_t ravel_set_jpeg_dstntimeimg(ravel_t *engine, int32_t ch, uint32_t dstn, uint32_t timeimg) {
  if (engine == nullptr || !engine->port_ok(ch)) return -1;
  engine->jpeg[ch].dstn = dstn;
  engine->jpeg[ch].timeimg = timeimg;
  return 0;
}

int32_t ravel_set_jpeg_timestamp(ravel_t *engine, int32_t port, uint32_t timestamp) {
  if (engine == nullptr || !engine->port_ok(port)) return -1;
  engine->jpeg[port].timestamp = timestamp;
  return 0;
}

int32_t ravel_pause_frame(ravel_t *engine, int32_t port) {
  if (engine == nullptr || !engine->port_ok(port)) return -1;
  // The port's current picture serves the requests that wait on it; with
  // none waiting there is nothing to do.
  engine->stills->serve_now(port);
  return 0;
}

int32_t ravel_print_statistics(ravel_t *engine, int32_t, int32_t) {
  if (engine == nullptr) return -1;
  engine->stats.print();
  return 0;
}

}  // extern "C"
