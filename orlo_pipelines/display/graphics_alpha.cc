// Global alpha of the graphics plane, set through the framebuffer driver's
// parameter ioctls.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "orlo_display.h"

namespace orlo {
namespace {

// The driver's parameter record: 48 bytes; we touch two fields only.
struct fb_params {
  uint8_t bytes[48];
};
constexpr size_t kAlphaEnableOffset = 32;
constexpr size_t kAlphaOffset = 45;

constexpr unsigned long kTifbGetParams = _IOR('N', 3, fb_params);
constexpr unsigned long kTifbSetParams = _IOW('N', 2, fb_params);
static_assert(kTifbGetParams == 0x80304E03UL);
static_assert(kTifbSetParams == 0x40304E02UL);

// Closes the device on every way out.
class device {
 public:
  explicit device(const char *path) : fd_(::open(path, O_RDWR)) {}
  ~device() {
    if (fd_ >= 0) ::close(fd_);
  }
  device(const device &) = delete;
  device &operator=(const device &) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

}  // namespace
}  // namespace orlo

extern "C" ORLO_API int orlo_display_grpx_set_alpha(int alpha) {
  // Opened anew each time: the driver is the only keeper of the state.
  orlo::device fb("/dev/fb0");
  if (fb.fd() < 0) {
    g_warning("failed to open display\n");
    return -1;
  }
  orlo::fb_params params{};
  if (ioctl(fb.fd(), orlo::kTifbGetParams, &params) < 0) {
    g_warning("TIFB_GET_PARAMS fail\n");
    return -1;
  }
  params.bytes[orlo::kAlphaOffset] = static_cast<uint8_t>(alpha);
  const int32_t enable = 1;
  std::memcpy(params.bytes + orlo::kAlphaEnableOffset, &enable, sizeof enable);
  if (ioctl(fb.fd(), orlo::kTifbSetParams, &params) < 0) {
    g_warning("TIFB_SET_PARAMS fail\n");
    return -1;
  }
  return 0;
}
