/* A stand-in for the framebuffer driver, for tests: a shared library linked
 * into the test program ahead of libc, whose open, ioctl and close take the
 * calls for "/dev/fb0" and pass every other call on to libc. */
#ifndef FB_STUB_H
#define FB_STUB_H

#ifdef __cplusplus
extern "C" {
#endif

enum fbstub_behaviour { FBSTUB_OK = 0, FBSTUB_OPEN_FAILS, FBSTUB_GET_FAILS, FBSTUB_SET_FAILS };

/* What the driver saw.  The test sets `behaviour` (after clearing the rest);
 * TIFB_GET_PARAMS reads the bytes 0x10, 0x11, ... */
struct fbstub {
  int behaviour;
  int opens, open_flags, closes, fd; /* fd: the device's, -1 when closed */
  int n_requests;
  unsigned long requests[8];    /* ioctl numbers, in order */
  unsigned char set_params[48]; /* what TIFB_SET_PARAMS was given */
};
extern struct fbstub fbstub;

#ifdef __cplusplus
}
#endif

#endif /* FB_STUB_H */
