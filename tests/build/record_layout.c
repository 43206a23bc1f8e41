// The exported records as the interface lays them out: sizes and field
// offsets on the 32-bit device (left number) and on a 64-bit build machine
// (right number).  On the device every field is one 32-bit word (pointers
// included) or an aligned 64-bit value; a record that drifts breaks every
// application built against it, so the build stops here.  Every public
// header is included, so each of them compiles as C.  A first field is at
// offset 0 by the language.
#include <stddef.h>

#include "colorspace.h"
#include "orlo_display.h"
#include "orlo_lumen_pipe.h"
#include "orlo_sst_pipe.h"
#include "shell.h"

#define PER_TARGET(on32, on64) (sizeof(void *) == 4 ? (on32) : (on64))
#define SIZE(type, on32, on64) _Static_assert(sizeof(type) == PER_TARGET(on32, on64), #type)
#define AT(type, field, on32, on64) \
  _Static_assert(offsetof(type, field) == PER_TARGET(on32, on64), #type "." #field)

// 11 signed words; a region list is 37 of them (the handle's first field).
SIZE(orlo_vr_t, 44, 44);
AT(orlo_vr_t, layer, 20, 20);
AT(orlo_vr_t, crop_x, 24, 24);
AT(orlo_vr_t, crop_height, 36, 36);
AT(orlo_vr_t, flag, 40, 40);

// 11 words, the fourth a function pointer.
SIZE(orlo_decode_cfg_t, 44, 56);
AT(orlo_decode_cfg_t, sync, 4, 4);
AT(orlo_decode_cfg_t, enable, 8, 8);
AT(orlo_decode_cfg_t, first_cb, 12, 16);

// Seconds and microseconds, as GTimeVal has them on the device.
SIZE(orlo_timeval_t, 8, 8);
AT(orlo_timeval_t, tv_usec, 4, 4);

// Six 32-bit words on the device; the section walk steps by this size.
SIZE(shell_cmd_t, 24, 48);
AT(shell_cmd_t, name, 4, 8);
AT(shell_cmd_t, help, 8, 16);
AT(shell_cmd_t, usage, 12, 24);
AT(shell_cmd_t, handler, 16, 32);
AT(shell_cmd_t, next, 20, 40);

SIZE(orlo_lumen_pipe_t, 20, 40);
AT(orlo_lumen_pipe_t, src, 4, 8);
AT(orlo_lumen_pipe_t, kelappsink, 8, 16);
AT(orlo_lumen_pipe_t, pipeline, 12, 24);
AT(orlo_lumen_pipe_t, thread_ready, 16, 32);

// The 64-bit fields sit on 8-byte boundaries on both targets.
SIZE(orlo_sst_pipe_t, 72, 88);
AT(orlo_sst_pipe_t, pipeline, 12, 24);
AT(orlo_sst_pipe_t, thread_ready, 16, 32);
AT(orlo_sst_pipe_t, eos_mask, 24, 40);
AT(orlo_sst_pipe_t, overlapped_mask, 32, 48);
AT(orlo_sst_pipe_t, norecord_mask, 40, 56);
AT(orlo_sst_pipe_t, direction, 48, 64);
AT(orlo_sst_pipe_t, last_timestamp, 56, 72);
AT(orlo_sst_pipe_t, base_time, 64, 80);

// The display handle: all 32-bit words on the device.
SIZE(orlo_display_t, 4296, 4696);
AT(orlo_display_t, audio_all, 1628, 1628);
AT(orlo_display_t, h_audio, 1636, 1636);
AT(orlo_display_t, sinks, 1640, 1640);
AT(orlo_display_t, ch_port, 1672, 1704);
AT(orlo_display_t, ch_enable, 2008, 2040);
AT(orlo_display_t, ch_wait_first, 2344, 2376);
AT(orlo_display_t, ch_sync, 2680, 2712);
AT(orlo_display_t, ch_wait_sync, 3016, 3048);
AT(orlo_display_t, ch_jpeg_live, 3352, 3384);
AT(orlo_display_t, ch_first_cb, 3688, 3720);
AT(orlo_display_t, jpeg_live_arg, 4024, 4392);
AT(orlo_display_t, mutex, 4028, 4400);
AT(orlo_display_t, cond_image, 4032, 4408);
AT(orlo_display_t, mutex_image, 4036, 4416);
AT(orlo_display_t, config_mode, 4040, 4424);
AT(orlo_display_t, engine_started, 4044, 4428);
AT(orlo_display_t, channels, 4048, 4432);
AT(orlo_display_t, disp_width, 4196, 4580);
AT(orlo_display_t, ch_count, 4204, 4588);
AT(orlo_display_t, main_port, 4208, 4592);
AT(orlo_display_t, port_state, 4212, 4596);
AT(orlo_display_t, mutex_jpegsnap, 4284, 4672);
AT(orlo_display_t, mutex_jpeg, 4288, 4680);
AT(orlo_display_t, cond_jpeg, 4292, 4688);
