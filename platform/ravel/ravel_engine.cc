// The software media engine: answers every engine call of liborlo.
//
// This first cut keeps the engine's state and answers as the device does;
// decoding, composing and JPEG encoding come later.  Frames that it accepts
// go back through the release function, exactly once each, from the engine's
// own thread.
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "ravel.h"

struct ravel {
  ravel_release_fn release = nullptr;
  int32_t ch_count = 0;
  bool started = false;
  std::mutex lock;
  std::condition_variable wake;
  std::deque<void *> done;
  bool quit = false;
  std::thread releaser;

  ~ravel() {
    {
      std::lock_guard<std::mutex> g(lock);
      quit = true;
    }
    wake.notify_all();
    if (releaser.joinable()) releaser.join();
  }

  void run_releaser() {
    std::unique_lock<std::mutex> g(lock);
    for (;;) {
      wake.wait(g, [this] { return quit || !done.empty(); });
      while (!done.empty()) {
        void *b = done.front();
        done.pop_front();
        g.unlock();
        release(b);
        g.lock();
      }
      if (quit) return;
    }
  }
};

namespace {
constexpr int32_t kPorts = 18;
// One engine per process; it lives to the end of the process.
std::unique_ptr<ravel> the_engine;
}  // namespace

extern "C" {

ravel_t *ravel_new(const int32_t *formats, int32_t, int32_t ch_count, int32_t, int32_t,
                   ravel_release_fn release, int32_t, int32_t, int32_t, int32_t, const int32_t *,
                   int32_t, const int32_t *) {
  if (formats == nullptr || release == nullptr) return nullptr;
  if (the_engine) return the_engine.get();
  the_engine = std::make_unique<ravel>();
  the_engine->release = release;
  the_engine->ch_count = ch_count;
  ravel *e = the_engine.get();
  e->releaser = std::thread([e] { e->run_releaser(); });
  return e;
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
                                 void *, int32_t) {
  if (engine == nullptr || dec_block == nullptr || count < 0 || count > RAVEL_DEC_CONFIG_COUNT)
    return -1;
  return 0;
}

int32_t ravel_start(ravel_t *engine) {
  if (engine == nullptr) return -1;
  engine->started = true;
  return 0;
}

int32_t ravel_stop(ravel_t *engine) {
  if (engine == nullptr) return -1;
  engine->started = false;
  return 0;
}

int32_t ravel_change_geometry(ravel_t *engine, const ravel_region_t *regions, int32_t count,
                              int32_t display, int32_t) {
  if (engine == nullptr || (count > 0 && regions == nullptr) || count < 0 || count > 37) return -1;
  if (display != 0 && display != 2) return -1;
  return 0;
}

int32_t ravel_put_decode_stream(ravel_t *engine, int32_t port, void *buffer, const uint8_t *data,
                                int32_t size, int32_t, ravel_jpeg_cb, ravel_image_cb, int32_t,
                                int32_t) {
  if (engine == nullptr || port < 0 || port >= kPorts || buffer == nullptr || data == nullptr ||
      size < 0)
    return -1;
  {
    std::lock_guard<std::mutex> g(engine->lock);
    engine->done.push_back(buffer);
  }
  engine->wake.notify_one();
  return 0;
}

int32_t ravel_jpeg_enc(ravel_t *engine, int32_t, int32_t, ravel_jpeg_cb cb) {
  return engine == nullptr || cb == nullptr ? -1 : -1;
}
int32_t ravel_set_jpeg_dstntimeimg(ravel_t *engine, int32_t, uint32_t, uint32_t) {
  return engine == nullptr ? -1 : 0;
}
int32_t ravel_set_jpeg_timestamp(ravel_t *engine, int32_t, uint32_t) {
  return engine == nullptr ? -1 : 0;
}
int32_t ravel_pause_frame(ravel_t *engine, int32_t port) {
  return engine == nullptr || port < 0 || port >= kPorts ? -1 : 0;
}

int32_t ravel_capture_drv_start(ravel_t *engine, int32_t) { return engine ? 0 : -1; }
int32_t ravel_capture_drv_stop(ravel_t *engine, int32_t) { return engine ? 0 : -1; }
int32_t ravel_register_get_encode_stream(ravel_t *engine, void *, void *) {
  return engine ? 0 : -1;
}
int32_t ravel_register_captmode_change(ravel_t *engine, void *, void *) { return engine ? 0 : -1; }
int32_t ravel_register_encode_mosaic_stream(ravel_t *engine, void *, void *, int32_t, int32_t) {
  return engine ? 0 : -1;
}
int32_t ravel_encode_change(ravel_t *engine, int32_t, int32_t, void *) { return engine ? 0 : -1; }
int32_t ravel_set_encode_bitrate(ravel_t *engine, int32_t, int32_t, int32_t) {
  return engine ? 0 : -1;
}
int32_t ravel_get_encode_bitrate(ravel_t *engine, int32_t, int32_t, int32_t *bitrate) {
  if (engine == nullptr || bitrate == nullptr) return -1;
  *bitrate = 0;
  return 0;
}
int32_t ravel_motion_detect_config_param(ravel_t *engine, int32_t, void *, int32_t) {
  return engine ? 0 : -1;
}
int32_t ravel_set_time(ravel_t *engine, int32_t, uint64_t, int32_t) { return engine ? 0 : -1; }
int32_t ravel_set_sys_time_init(uint64_t) { return 0; }
int32_t ravel_set_sys_time_sync(uint64_t) { return 0; }
uintptr_t ravel_get_hostcomm_addr(ravel_t *engine, int32_t, int32_t) {
  return engine ? reinterpret_cast<uintptr_t>(engine) : 0;
}
int32_t ravel_set_display_enable(ravel_t *engine, int32_t, int32_t) { return engine ? 0 : -1; }
int32_t ravel_set_osd_enable(ravel_t *engine, int32_t, int32_t, int32_t) {
  return engine ? 0 : -1;
}
int32_t ravel_set_osd_option(ravel_t *engine, int32_t, int32_t, int32_t) {
  return engine ? 0 : -1;
}
int32_t ravel_set_mask(ravel_t *engine, const ravel_mask_t *m) { return engine && m ? 0 : -1; }
int32_t ravel_set_ROI_coordinate(ravel_t *engine, const ravel_roi_t *r) {
  return engine && r ? 0 : -1;
}
int32_t ravel_set_dnr(ravel_t *engine, const ravel_dnr_t *d) { return engine && d ? 0 : -1; }
int32_t ravel_set_mirror(ravel_t *engine, const int32_t *m) { return engine && m ? 0 : -1; }
int32_t ravel_set_rotate(ravel_t *engine, const int32_t *r) { return engine && r ? 0 : -1; }
int32_t ravel_set_datetime_format(ravel_t *engine, const ravel_datetime_format_t *f) {
  return engine && f ? 0 : -1;
}
int32_t ravel_set_ip_osd_enable(ravel_t *engine, const ravel_ip_osd_t *o) {
  return engine && o ? 0 : -1;
}
int32_t ravel_check_alive_m3(ravel_t *engine, int32_t, int32_t) { return engine ? 1 : -1; }
int32_t ravel_print_statistics(ravel_t *engine, int32_t, int32_t) { return engine ? 0 : -1; }

}  // extern "C"
