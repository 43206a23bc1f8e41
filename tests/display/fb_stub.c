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

static const char device_path[] = "/dev/fb0";

/* Written by the test thread between calls; other threads only compare
 * descriptors, through atomic loads. */
static int behaviour;
static int fake_fd = -1;
static int opens;
static int open_flags;
static int closes;
static int n_requests;
static unsigned long requests[FBSTUB_MAX_REQUESTS];
static unsigned char set_params[FBSTUB_PARAMS_SIZE];

typedef int (*open_fn)(const char *, int, ...);
typedef int (*ioctl_fn)(int, unsigned long, ...);
typedef int (*close_fn)(int);

static void *next(const char *name) { return dlsym(RTLD_NEXT, name); }

static int is_device_fd(int fd) {
  return fd >= 0 && fd == __atomic_load_n(&fake_fd, __ATOMIC_SEQ_CST);
}

static int open_device(int flags) {
  opens++;
  open_flags = flags;
  if (behaviour == FBSTUB_OPEN_FAILS) {
    errno = ENODEV;
    return -1;
  }
  int fd = ((open_fn)next("open"))("/dev/null", O_RDWR | O_CLOEXEC);
  __atomic_store_n(&fake_fd, fd, __ATOMIC_SEQ_CST);
  return fd;
}

int open(const char *path, int flags, ...) {
  if (strcmp(path, device_path) == 0) return open_device(flags);
  mode_t mode = 0;
  if (flags & (O_CREAT | O_TMPFILE)) {
    va_list ap;
    va_start(ap, flags);
    mode = va_arg(ap, mode_t);
    va_end(ap);
  }
  return ((open_fn)next("open"))(path, flags, mode);
}

int ioctl(int fd, unsigned long request, ...) {
  va_list ap;
  va_start(ap, request);
  void *arg = va_arg(ap, void *);
  va_end(ap);
  if (!is_device_fd(fd)) return ((ioctl_fn)next("ioctl"))(fd, request, arg);

  if (n_requests < FBSTUB_MAX_REQUESTS) requests[n_requests] = request;
  n_requests++;
  if (request == TIFB_GET_PARAMS) {
    if (behaviour == FBSTUB_GET_FAILS) {
      errno = EIO;
      return -1;
    }
    unsigned char *p = arg;
    for (int i = 0; i < FBSTUB_PARAMS_SIZE; i++) p[i] = (unsigned char)(0x10 + i);
    return 0;
  }
  if (request == TIFB_SET_PARAMS) {
    memcpy(set_params, arg, FBSTUB_PARAMS_SIZE);
    if (behaviour == FBSTUB_SET_FAILS) {
      errno = EINVAL;
      return -1;
    }
    return 0;
  }
  errno = ENOTTY;
  return -1;
}

int close(int fd) {
  if (is_device_fd(fd)) {
    closes++;
    __atomic_store_n(&fake_fd, -1, __ATOMIC_SEQ_CST);
  }
  return ((close_fn)next("close"))(fd);
}

void fbstub_reset(enum fbstub_behaviour b) {
  behaviour = b;
  opens = 0;
  open_flags = 0;
  closes = 0;
  n_requests = 0;
  memset(requests, 0, sizeof requests);
  memset(set_params, 0, sizeof set_params);
}

int fbstub_opens(void) { return opens; }
int fbstub_open_flags(void) { return open_flags; }
int fbstub_closes(void) { return closes; }
int fbstub_is_open(void) { return __atomic_load_n(&fake_fd, __ATOMIC_SEQ_CST) >= 0; }
int fbstub_request_count(void) { return n_requests; }
unsigned long fbstub_request(int i) { return i >= 0 && i < FBSTUB_MAX_REQUESTS ? requests[i] : 0; }
const unsigned char *fbstub_set_params(void) { return set_params; }
