/* liborlo: the playback pipe, recorded channels from `kelsstsrc` into a
 * `kelappsink`.  Plain C; include it from C or C++.
 *
 * A pipe runs its pipeline on a thread of its own, which lasts to the end of
 * the process.  The functions below are for application threads; none takes
 * a lock, and the masks and time stamps are written by the sink's streaming
 * thread as events arrive.  A NULL handle is refused with a g_return_if_fail
 * warning (and 0 or nothing as the result). */
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

/* The pipe's record; read it through the functions below. */
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

/* Builds the pipeline on a new thread and returns once it stands.  Result:
 * the handle, which the application owns until orlo_sst_pipe_delete, or
 * NULL. */
ORLO_API orlo_sst_pipe_t *orlo_sst_pipe_new(void);
/* The source and the sink elements.  The references stay the record's: the
 * caller takes its own (gst_object_ref) to keep one beyond the pipe. */
ORLO_API GstElement *orlo_sst_pipe_get_src(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API GstElement *orlo_sst_pipe_get_kelappsink(orlo_sst_pipe_t *h_sst_pipe);
/* Channel bit masks from the source's play-info events: end of stream,
 * overlapped recording, no recording. */
ORLO_API uint64_t orlo_sst_pipe_get_eos_mask(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API uint64_t orlo_sst_pipe_get_overlapped_mask(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API uint64_t orlo_sst_pipe_get_norecord_mask(orlo_sst_pipe_t *h_sst_pipe);

/* Writes the playback parameters to the source in one go; times are turned
 * into nanoseconds.  The pipeline's state does not change.  Result 0. */
ORLO_API int orlo_sst_pipe_set_param(orlo_sst_pipe_t *h_sst_pipe, int rate, int dir,
                                     int rate_control, int hide, orlo_timeval_t begin,
                                     orlo_timeval_t end, orlo_timeval_t search, int ch_num,
                                     uint32_t ch_mask);
/* Play, stop, pause, and one frame forward (next).  Start, stop and next
 * wait up to 10 s for the state change; pause does not wait.  Result 0
 * whatever GStreamer answers. */
ORLO_API int orlo_sst_pipe_start(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API int orlo_sst_pipe_stop(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API int orlo_sst_pipe_pause(orlo_sst_pipe_t *h_sst_pipe);
ORLO_API int orlo_sst_pipe_next(orlo_sst_pipe_t *h_sst_pipe);
/* Clears the three masks (the next play-info event writes them again). */
ORLO_API void orlo_sst_pipe_clear_status(orlo_sst_pipe_t *h_sst_pipe);
/* Drops the record's element references and frees the record; the pipeline
 * and its thread stay as they are.  A sink bound to the display stays
 * bound, so a bound pipe is better kept than deleted. */
ORLO_API void orlo_sst_pipe_delete(orlo_sst_pipe_t *h_sst_pipe);
/* The stream time now in nanoseconds, or 0 when the position is unknown. */
ORLO_API uint64_t orlo_sst_pipe_get_timestamp(orlo_sst_pipe_t *h_sst_pipe);
/* The stream time of the last render report. */
ORLO_API uint64_t orlo_sst_pipe_get_last_timestamp(orlo_sst_pipe_t *h_sst_pipe);
/* The first intra frame of the span begin..end on channel `ch` of the
 * recording at `location`, from the source element (the three leading
 * arguments go to it unchanged; no pipe is needed).  Result: a buffer whose
 * reference passes to the caller (orlo_display_decode_image takes it over),
 * or NULL. */
ORLO_API GstBuffer *orlo_sst_pipe_get_iframe(const gchar *location, int ch, int flags,
                                             orlo_timeval_t begin, orlo_timeval_t end);

#ifdef __cplusplus
}
#endif

#endif /* ORLO_SST_PIPE_H */
