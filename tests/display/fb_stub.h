/* A stand-in for the framebuffer driver, for tests: a shared library linked
 * into the test program ahead of libc, whose open, ioctl and close take the
 * calls for "/dev/fb0" and pass every other call on to libc. */
#ifndef FB_STUB_H
#define FB_STUB_H

#ifdef __cplusplus
extern "C" {
#endif

enum fbstub_behaviour {
  FBSTUB_OK = 0,
  FBSTUB_OPEN_FAILS,
  FBSTUB_GET_FAILS,
  FBSTUB_SET_FAILS,
};

#define FBSTUB_PARAMS_SIZE 48
#define FBSTUB_MAX_REQUESTS 8

/* Forgets what was seen and answers from now on as `behaviour` says.  The
 * parameters that TIFB_GET_PARAMS reads are bytes 0x10, 0x11, ... */
void fbstub_reset(enum fbstub_behaviour behaviour);

int fbstub_opens(void);      /* open calls for the device, failed ones too */
int fbstub_open_flags(void); /* flags of the last such open */
int fbstub_closes(void);     /* close calls for the device's descriptor */
int fbstub_is_open(void);
int fbstub_request_count(void);
unsigned long fbstub_request(int i); /* ioctl numbers, in order */
/* What TIFB_SET_PARAMS was given, FBSTUB_PARAMS_SIZE bytes. */
const unsigned char *fbstub_set_params(void);

#ifdef __cplusplus
}
#endif

#endif /* FB_STUB_H */
