#include "fake_engine.hh"

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace fake_engine {
namespace {

struct {
  std::mutex lock;
  std::vector<call> log;
  std::map<std::string, answer> scripts;
  std::atomic<bool> hold = false;
  std::vector<void *> held;
  std::atomic<ravel_release_fn> release = nullptr;
} st;

int fake_handle_storage;

// An argument as a word: integers widened, pointers (functions too) by address.
template <typename T>
int64_t word(T v) {
  return (int64_t)v;  // a pointer of any kind or an integer
}

// `to` with a copy of the `n` bytes at `p` (none for NULL) appended.
std::vector<uint8_t> bytes(const void *p, size_t n, std::vector<uint8_t> to = {}) {
  const auto *b = static_cast<const uint8_t *>(p);
  if (b != nullptr) to.insert(to.end(), b, b + n);
  return to;
}

// The callbacks passed are kept as such, for tests that answer through them.
void keep(call &c, ravel_jpeg_cb cb) { c.jpeg_cb = cb; }
void keep(call &c, ravel_image_cb cb) { c.image_cb = cb; }
template <typename T>
void keep(call &, T) {}

// Records a call of `name` with its argument words and a copy of a record, and
// gives its scripted answer.
template <typename... A>
int64_t rec(const char *name, std::vector<uint8_t> copy, A... a) {
  call c{name, {word(a)...}, std::move(copy)};
  (keep(c, a), ...);
  std::unique_lock g(st.lock);
  st.log.push_back(c);
  const auto it = st.scripts.find(c.name);
  const answer fn = it != st.scripts.end() ? it->second : answer();
  g.unlock();
  return fn ? fn(c) : c.name == "ravel_new" ? word(handle()) : 0;
}

}  // namespace

void reset() {
  hold_frames(false);
  release_held();
  std::lock_guard g(st.lock);
  st.log.clear();
  st.scripts.clear();
}

std::vector<call> calls(const std::string &name) {
  std::unique_lock g(st.lock);
  std::vector<call> out = st.log;
  g.unlock();
  if (!name.empty()) std::erase_if(out, [&](const call &c) { return c.name != name; });
  return out;
}

std::vector<std::string> names() {
  std::vector<std::string> out;
  for (auto &c : calls()) out.push_back(c.name);
  return out;
}

void script(const std::string &name, answer fn) {
  std::lock_guard g(st.lock);
  st.scripts[name] = std::move(fn);
}

void script_result(const std::string &name, int64_t result) {
  script(name, [result](const call &) { return result; });
}

void script_sequence(const std::string &name, std::vector<int64_t> results) {
  auto next = std::make_shared<std::atomic<size_t>>(0);
  script(name, [results, next](const call &) {
    return results[std::min(next->fetch_add(1), results.size() - 1)];
  });
}

void hold_frames(bool hold) { st.hold = hold; }

int release_held() {
  std::unique_lock g(st.lock);
  const std::vector<void *> held = std::exchange(st.held, {});
  g.unlock();
  const ravel_release_fn release = st.release;
  for (void *b : held)
    if (release != nullptr) release(b);
  return static_cast<int>(held.size());
}

ravel_t *handle() { return reinterpret_cast<ravel_t *>(&fake_handle_storage); }

}  // namespace fake_engine

using fake_engine::bytes;
using fake_engine::rec;

// Calls recorded with their argument words alone, or also with a copy of the
// record passed last.
#define PASS(name, params, ...) \
  int32_t name params { return rec(#name, {}, __VA_ARGS__); }
#define WITH_RECORD(name, type) \
  int32_t name(ravel_t *e, const type *r) { return rec(#name, bytes(r, sizeof(type)), e, r); }

extern "C" {

ravel_t *ravel_new(const int32_t *formats, int32_t engine_opt, int32_t ch_count,
                   int32_t n_display_ids, int32_t r0, ravel_release_fn release, int32_t r1,
                   int32_t r2, int32_t r3, int32_t w24, const int32_t *display_ids,
                   int32_t engine_word, const int32_t *engine_block) {
  fake_engine::st.release = release;
  // The record holds the display ids, then the block, then the format word.
  return reinterpret_cast<ravel_t *>(
      rec(__func__, bytes(formats, 4, bytes(engine_block, 16, bytes(display_ids, 16))), formats,
          engine_opt, ch_count, n_display_ids, r0, release, r1, r2, r3, w24, display_ids,
          engine_word, engine_block));
}

PASS(ravel_init_dec_config_param, (ravel_t * e, ravel_dec_config_t *dec), e, dec)
PASS(ravel_init_enc_config_param, (ravel_t * e, void *enc), e, enc)
int32_t ravel_change_pipe_config(ravel_t *e, ravel_dec_config_t *dec, int32_t count, void *enc,
                                 int32_t ch_count) {
  return rec(__func__, bytes(dec, sizeof(ravel_dec_config_t) * RAVEL_DEC_CONFIG_COUNT), e, dec,
             count, enc, ch_count);
}
PASS(ravel_start, (ravel_t * e), e)
PASS(ravel_stop, (ravel_t * e), e)
int32_t ravel_change_geometry(ravel_t *e, const ravel_region_t *regions, int32_t count,
                              int32_t display, int32_t playback) {
  return rec(__func__, bytes(regions, sizeof(ravel_region_t) * 37), e, regions, count, display,
             playback);
}

// An accepted frame goes back through the release function at once, or when
// the test lets the held ones go.
int32_t ravel_put_decode_stream(ravel_t *e, int32_t port, void *buffer, const uint8_t *data,
                                int32_t size, int32_t r0, ravel_jpeg_cb jpeg_cb,
                                ravel_image_cb image_cb, int32_t r1, int32_t r2) {
  const auto r = static_cast<int32_t>(rec(__func__, bytes(data, size > 0 ? size_t(size) : 0), e,
                                          port, buffer, data, size, r0, jpeg_cb, image_cb, r1, r2));
  if (r < 0 || buffer == nullptr) return r;
  {
    std::lock_guard g(fake_engine::st.lock);
    fake_engine::st.held.push_back(buffer);
  }
  if (!fake_engine::st.hold) fake_engine::release_held();
  return r;
}

PASS(ravel_jpeg_enc, (ravel_t * e, int32_t ch, int32_t flag, ravel_jpeg_cb cb), e, ch, flag, cb)
PASS(ravel_set_jpeg_dstntimeimg, (ravel_t * e, int32_t ch, uint32_t d, uint32_t t), e, ch, d, t)
PASS(ravel_set_jpeg_timestamp, (ravel_t * e, int32_t port, uint32_t ts), e, port, ts)
PASS(ravel_pause_frame, (ravel_t * e, int32_t port), e, port)
PASS(ravel_capture_drv_start, (ravel_t * e, int32_t ch), e, ch)
PASS(ravel_capture_drv_stop, (ravel_t * e, int32_t ch), e, ch)
PASS(ravel_register_get_encode_stream, (ravel_t * e, void *cb, void *user), e, cb, user)
PASS(ravel_register_captmode_change, (ravel_t * e, void *cb, void *user), e, cb, user)
PASS(ravel_register_encode_mosaic_stream, (ravel_t * e, void *cb, void *u, int32_t s, int32_t r), e,
     cb, u, s, r)
PASS(ravel_encode_change, (ravel_t * e, int32_t ch, int32_t s, void *param), e, ch, s, param)
PASS(ravel_set_encode_bitrate, (ravel_t * e, int32_t ch, int32_t s, int32_t rate), e, ch, s, rate)
PASS(ravel_get_encode_bitrate, (ravel_t * e, int32_t ch, int32_t s, int32_t *rate), e, ch, s, rate)
PASS(ravel_motion_detect_config_param, (ravel_t * e, int32_t ch, void *p, int32_t n), e, ch, p, n)
PASS(ravel_set_time, (ravel_t * e, int32_t w, uint64_t time, int32_t w2), e, w, time, w2)
PASS(ravel_set_sys_time_init, (uint64_t time), time)
PASS(ravel_set_sys_time_sync, (uint64_t time), time)
PASS(ravel_set_display_enable, (ravel_t * e, int32_t display, int32_t on), e, display, on)
PASS(ravel_set_osd_enable, (ravel_t * e, int32_t a, int32_t b, int32_t c), e, a, b, c)
PASS(ravel_set_osd_option, (ravel_t * e, int32_t a, int32_t b, int32_t c), e, a, b, c)
PASS(ravel_check_alive_m3, (ravel_t * e, int32_t a, int32_t b), e, a, b)
PASS(ravel_print_statistics, (ravel_t * e, int32_t a, int32_t b), e, a, b)
WITH_RECORD(ravel_set_mask, ravel_mask_t)
WITH_RECORD(ravel_set_ROI_coordinate, ravel_roi_t)
WITH_RECORD(ravel_set_dnr, ravel_dnr_t)
WITH_RECORD(ravel_set_mirror, int32_t)
WITH_RECORD(ravel_set_rotate, int32_t)
WITH_RECORD(ravel_set_datetime_format, ravel_datetime_format_t)
WITH_RECORD(ravel_set_ip_osd_enable, ravel_ip_osd_t)
uintptr_t ravel_get_hostcomm_addr(ravel_t *e, int32_t which, int32_t size) {
  return rec(__func__, {}, e, which, size);
}

}  // extern "C"
