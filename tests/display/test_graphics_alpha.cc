// The graphics plane's alpha through the framebuffer driver, with the
// driver's stand-in answering or refusing each step.
#include <dlfcn.h>
#include <fcntl.h>

#include <cerrno>
#include <cstdarg>

#include "display_fixture.hh"

namespace {

constexpr unsigned long kGet = 0x80304E03UL, kSet = 0x40304E02UL;
enum behaviour { OK, OPEN_FAILS, GET_FAILS, SET_FAILS };

// What the driver saw.  Its descriptor is a real one on /dev/null, so that
// no other open in the process is given the same number; TIFB_GET_PARAMS
// reads the bytes 0x10, 0x11, ...
struct {
  behaviour answer;
  int opens, open_flags, fd = -1;
  std::vector<unsigned long> requests;
  std::vector<uint8_t> set_params;
} fb;

}  // namespace

// The stand-in takes the calls for "/dev/fb0" and passes every other on.
extern "C" __attribute__((visibility("default"))) int open(const char *path, int flags, ...) {
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(ap, mode_t) : 0;
  va_end(ap);
  auto next = reinterpret_cast<int (*)(const char *, int, ...)>(dlsym(RTLD_NEXT, "open"));
  if (std::strcmp(path, "/dev/fb0") != 0) return next(path, flags, mode);
  fb.opens++;
  fb.open_flags = flags;
  if (fb.answer == OPEN_FAILS) return errno = ENODEV, -1;
  return fb.fd = next("/dev/null", O_RDWR | O_CLOEXEC);
}

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  auto *arg = static_cast<uint8_t *>(va_arg(ap, void *));
  va_end(ap);
  if (fd < 0 || fd != fb.fd)
    return reinterpret_cast<int (*)(int, unsigned long, ...)>(dlsym(RTLD_NEXT, "ioctl"))(
        fd, request, arg);
  fb.requests.push_back(request);
  if (request == kGet) {
    for (int i = 0; i < 48; i++) arg[i] = static_cast<uint8_t>(0x10 + i);
    return fb.answer == GET_FAILS ? (errno = EIO, -1) : 0;
  }
  fb.set_params.assign(arg, arg + 48);
  return fb.answer == SET_FAILS ? (errno = EINVAL, -1) : 0;
}

namespace {

// Each call opens the device anew and closes it on every way out; two fields
// change, every other byte goes back as the driver gave it.
TEST(GraphicsAlpha, StepsResultCloseAndWrittenFields) {
  const struct {
    behaviour answer;
    int alpha, result;
    std::vector<unsigned long> seen;
    const char *warning;
  } cases[] = {
      {OK, 0x1ab, 0, {kGet, kSet}, nullptr},
      {OPEN_FAILS, 0, -1, {}, "failed to open display\n"},
      {GET_FAILS, 0, -1, {kGet}, "TIFB_GET_PARAMS fail\n"},
      {SET_FAILS, 0, -1, {kGet, kSet}, "TIFB_SET_PARAMS fail\n"},
  };
  for (const auto &p : cases) {
    SCOPED_TRACE(p.answer);
    display_test::log_capture log;
    fb.answer = p.answer;
    fb.opens = 0, fb.fd = -1;
    fb.requests.clear();
    EXPECT_EQ(orlo_display_grpx_set_alpha(p.alpha), p.result);
    EXPECT_EQ(fb.opens, 1);
    EXPECT_EQ(fb.open_flags & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fb.requests, p.seen);
    EXPECT_TRUE(fb.fd < 0 || fcntl(fb.fd, F_GETFD) == -1);  // closed
    EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING),
              p.warning ? display_test::names{p.warning} : display_test::names{});
    if (p.result != 0) continue;
    std::vector<uint8_t> expected(48);
    for (int i = 0; i < 48; i++) expected[i] = static_cast<uint8_t>(0x10 + i);
    const int32_t enable = 1;
    std::memcpy(expected.data() + 32, &enable, 4);
    expected[45] = 0xab;
    EXPECT_EQ(fb.set_params, expected);
  }
}

}  // namespace
