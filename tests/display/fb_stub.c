/* See fb_stub.h.  The device's descriptor is a real one on /dev/null, so
 * that no other open in the process can be given the same number. */
#undef _FORTIFY_SOURCE
#define _GNU_SOURCE
#include "fb_stub.h"

#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#define TIFB_GET_PARAMS 0x80304E03UL
#define TIFB_SET_PARAMS 0x40304E02UL

/* Written by the test thread between calls; other threads only compare
 * descriptors, through atomic loads. */
struct fbstub fbstub = {.fd = -1};

typedef int (*open_fn)(const char *, int, ...);
typedef int (*ioctl_fn)(int, unsigned long, ...);
typedef int (*close_fn)(int);

static int is_device_fd(int fd) {
  return fd >= 0 && fd == __atomic_load_n(&fbstub.fd, __ATOMIC_SEQ_CST);
}

int open(const char *path, int flags, ...) {
  open_fn next = (open_fn)dlsym(RTLD_NEXT, "open");
  if (strcmp(path, "/dev/fb0") == 0) {
    fbstub.opens++;
    fbstub.open_flags = flags;
    if (fbstub.behaviour == FBSTUB_OPEN_FAILS) return errno = ENODEV, -1;
    __atomic_store_n(&fbstub.fd, next("/dev/null", O_RDWR | O_CLOEXEC), __ATOMIC_SEQ_CST);
    return fbstub.fd;
  }
  mode_t mode = 0;
  if (flags & (O_CREAT | O_TMPFILE)) {
    va_list ap;
    va_start(ap, flags);
    mode = va_arg(ap, mode_t);
    va_end(ap);
  }
  return next(path, flags, mode);
}

int ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  unsigned char *arg = va_arg(ap, void *);
  va_end(ap);
  if (!is_device_fd(fd)) return ((ioctl_fn)dlsym(RTLD_NEXT, "ioctl"))(fd, request, arg);
  if (fbstub.n_requests < 8) fbstub.requests[fbstub.n_requests] = request;
  fbstub.n_requests++;
  if (request == TIFB_GET_PARAMS) {
    if (fbstub.behaviour == FBSTUB_GET_FAILS) return errno = EIO, -1;
    for (int i = 0; i < 48; i++) arg[i] = (unsigned char)(0x10 + i);
    return 0;
  }
  if (request != TIFB_SET_PARAMS) return errno = ENOTTY, -1;
  memcpy(fbstub.set_params, arg, 48);
  return fbstub.behaviour == FBSTUB_SET_FAILS ? (errno = EINVAL, -1) : 0;
}

int close(int fd) {
  if (is_device_fd(fd)) {
    fbstub.closes++;
    __atomic_store_n(&fbstub.fd, -1, __ATOMIC_SEQ_CST);
  }
  return ((close_fn)dlsym(RTLD_NEXT, "close"))(fd);
}
