/* liborlo: the playback pipe, recorded channels from `kelsstsrc` into a
 * `kelappsink`.  Plain C; include it from C or C++. */
#ifndef ORLO_SST_PIPE_H
#define ORLO_SST_PIPE_H

#include <glib.h>
#include <gst/gst.h>
#include <stdint.h>

#include "orlo_api.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Time values at the playback interfaces: seconds and microseconds, passed by
 * value (the layout of the old GTimeVal). */
typedef struct orlo_timeval {
  int32_t tv_sec;
  int32_t tv_usec;
} orlo_timeval_t;

typedef struct orlo_sst_pipe {
  GThread *h_thread;
  GstElement *src;
  GstElement *kelappsink;
  GstElement *pipeline;
  int32_t thread_ready;
  uint64_t eos_mask;
  uint64_t overlapped_mask;
  uint64_t norecord_mask;
  int32_t direction;
  uint64_t last_timestamp;
  uint64_t base_time;
} orlo_sst_pipe_t;

ORLO_API orlo_sst_pipe_t *orlo_sst_pipe_new(void);
ORLO_API GstElement *orlo_sst_pipe_get_src(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API GstElement *orlo_sst_pipe_get_kelappsink(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API uint64_t orlo_sst_pipe_get_eos_mask(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API uint64_t orlo_sst_pipe_get_overlapped_mask(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API uint64_t orlo_sst_pipe_get_norecord_mask(orlo_sst_pipe_t *h_sst_pipe);

ORLO_API int orlo_sst_pipe_set_param(orlo_sst_pipe_t *h_sst_pipe, int rate, int dir,
                                     int rate_control, int hide, orlo_timeval_t begin,
                                     orlo_timeval_t end, orlo_timeval_t search, int ch_num,
                                     uint32_t ch_mask);
ORLO_API int orlo_sst_pipe_start(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API int orlo_sst_pipe_stop(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API int orlo_sst_pipe_pause(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API int orlo_sst_pipe_next(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API void orlo_sst_pipe_clear_status(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API void orlo_sst_pipe_delete(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API uint64_t orlo_sst_pipe_get_timestamp(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API uint64_t orlo_sst_pipe_get_last_timestamp(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API GstBuffer *orlo_sst_pipe_get_iframe(const gchar *location, int ch, int flags,
                                             orlo_timeval_t begin, orlo_timeval_t end);

#ifdef __cplusplus
}
#endif

#endif /* ORLO_SST_PIPE_H */
