#include "still_images.hh"

#include <glib.h>
#include <libyuv/convert_argb.h>
#include <libyuv/convert_from.h>
#include <pthread.h>

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <vector>

// clang-format off
#include <jpeglib.h>  // after <cstdio>: it uses FILE without including it
// clang-format on

#include "log_domain.hh"

namespace ravel_soft {
namespace {

struct jpeg_error_jump {
  jpeg_error_mgr mgr;
  std::jmp_buf jump;
  unsigned char *out;  // in memory, so that it survives the jump
};

void jpeg_error_exit(j_common_ptr cinfo) {
  auto *err = reinterpret_cast<jpeg_error_jump *>(cinfo->err);
  char text[JMSG_LENGTH_MAX];
  (*cinfo->err->format_message)(cinfo, text);
  g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "JPEG encoder: %s", text);
  std::longjmp(err->jump, 1);
}

// Kept free of objects with destructors: libjpeg reports errors by longjmp.
uint8_t *compress_rgb(const uint8_t *rgb, int width, int height, int quality, unsigned long *size) {
  jpeg_compress_struct cinfo;
  jpeg_error_jump err;
  err.out = nullptr;
  *size = 0;
  cinfo.err = jpeg_std_error(&err.mgr);
  err.mgr.error_exit = jpeg_error_exit;
  if (setjmp(err.jump)) {
    jpeg_destroy_compress(&cinfo);
    std::free(err.out);
    *size = 0;
    return nullptr;
  }
  jpeg_create_compress(&cinfo);
  jpeg_mem_dest(&cinfo, &err.out, size);
  cinfo.image_width = static_cast<JDIMENSION>(width);
  cinfo.image_height = static_cast<JDIMENSION>(height);
  cinfo.input_components = 3;
  cinfo.in_color_space = JCS_RGB;
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, quality, TRUE);
  jpeg_start_compress(&cinfo, TRUE);
  while (cinfo.next_scanline < cinfo.image_height) {
    JSAMPROW row = const_cast<JSAMPROW>(rgb + static_cast<size_t>(cinfo.next_scanline) * width * 3);
    jpeg_write_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  return err.out;
}

}  // namespace

uint8_t *encode_jpeg(const picture &pic, int quality, unsigned long *size) {
  int w = pic.width(), h = pic.height();
  std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
  // libyuv's "RAW" is R, G, B in memory order, the order libjpeg reads.
  libyuv::I420ToRAW(pic.plane(0), pic.stride(0), pic.plane(1), pic.stride(1), pic.plane(2),
                    pic.stride(2), rgb.data(), w * 3, w, h);
  return compress_rgb(rgb.data(), w, h, quality, size);
}

void deliver_jpeg(ravel_jpeg_cb cb, int port, const picture *pic, uint32_t timestamp,
                  statistics &stats) {
  void *buf = nullptr;
  unsigned long size = 0;
  uint32_t width = 0, height = 0;
  if (pic != nullptr) {
    buf = encode_jpeg(*pic, 85, &size);
    if (buf != nullptr) {
      width = static_cast<uint32_t>(pic->width());
      height = static_cast<uint32_t>(pic->height());
      stats.jpegs++;
    }
  }
  if (buf == nullptr) {
    size = 0;
    g_log(RAVEL_LOG_DOMAIN, G_LOG_LEVEL_WARNING, "port %d: no JPEG (%s)", port,
          pic == nullptr ? "no picture" : "encoder failed");
  }
  cb(&buf, static_cast<uint32_t>(port), static_cast<uint32_t>(size), width, height, timestamp);
}

void deliver_yvyu(ravel_image_cb cb, const picture *pic) {
  void *image = nullptr;
  if (pic != nullptr) {
    int w = pic->width(), h = pic->height();
    auto *out = static_cast<uint8_t *>(g_malloc(static_cast<size_t>(w) * h * 2));
    // libyuv writes Y U Y V; handing it the planes swapped gives Y V Y U.
    libyuv::I420ToYUY2(pic->plane(0), pic->stride(0), pic->plane(2), pic->stride(2), pic->plane(1),
                       pic->stride(1), out, w * 2, w, h);
    image = out;
  }
  cb(&image);
}

still_requests::still_requests(picture_of pictures, timestamp_of timestamps, statistics &stats)
    : pictures_(std::move(pictures)), timestamps_(std::move(timestamps)), stats_(stats) {
  thread_ = std::thread([this] {
    pthread_setname_np(pthread_self(), "ravel-jpeg");
    run();
  });
}

still_requests::~still_requests() { shutdown(); }

void still_requests::request(int port, int32_t flag, ravel_jpeg_cb cb) {
  {
    std::lock_guard<std::mutex> g(lock_);
    queue_.push_back({port, flag, cb, std::chrono::steady_clock::now() + kSettle});
  }
  wake_.notify_all();
}

bool still_requests::serve_now(int port) {
  bool any = false;
  {
    std::lock_guard<std::mutex> g(lock_);
    for (pending &p : queue_) {
      if (p.port == port) {
        p.due = std::chrono::steady_clock::time_point::min();
        any = true;
      }
    }
  }
  if (any) wake_.notify_all();
  return any;
}

void still_requests::shutdown() {
  {
    std::lock_guard<std::mutex> g(lock_);
    quit_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void still_requests::run() {
  std::unique_lock<std::mutex> g(lock_);
  while (!quit_) {
    if (queue_.empty()) {
      wake_.wait(g);
      continue;
    }
    // The earliest due request goes first.
    auto next = queue_.begin();
    for (auto it = queue_.begin(); it != queue_.end(); ++it)
      if (it->due < next->due) next = it;
    if (next->due > std::chrono::steady_clock::now()) {
      wake_.wait_until(g, next->due);
      continue;
    }
    pending p = *next;
    queue_.erase(next);
    g.unlock();
    picture_ptr pic = pictures_(p.port);
    deliver_jpeg(p.cb, p.port, pic.get(), timestamps_(p.port), stats_);
    g.lock();
  }
}

}  // namespace ravel_soft
