// Every export called with a NULL handle or pointer, or an integer outside its
// range, each in a child process of its own: none may crash or hang, each
// gives its family's failure answer and logs one line that says why.
#include <glib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <vector>

#include "colorspace.h"
#include "orlo_display.h"
#include "orlo_lumen_pipe.h"
#include "orlo_sst_pipe.h"
#include "shell.h"

namespace {

// A display over the recording engine, for the rows that need a good handle.
orlo_display_t *display() {
  const int32_t formats[] = {0};
  return orlo_display_new(formats, 0, 16, 0, 1, -1, nullptr);
}

void *jpeg = nullptr;
uint32_t u = 0;
uint8_t plane[65536];  // a picture plane for the converters' rows

// Live channel 0 decoding on `port`.
int decode_port(orlo_display_t *h, int port) {
  orlo_decode_cfg_t slots[ORLO_MAX_SLOT] = {};
  slots[16].port = port;
  slots[16].enable = 1;
  return orlo_display_decode_change(h, slots);
}

struct row {
  const char *name;
  std::function<bool()> failed;  // true when the call gave the failure answer
  int lines = 1;                 // lines at warning level or worse; -1: not counted
};

// A stated answer for the input, logged or not: plain forwards hand a NULL
// engine on and give the engine's answer (the recording engine's 0), the
// gated ones give 0 before the first start, and some values are not tested.
constexpr int stated = -1;

// A row is the call's text, the call and its failure answer (or nothing).
// clang-format off
#define GIVES(call, answer) {#call, [] { return (call) == (answer); }}
#define GIVES_STATED(call, answer) {#call, [] { return (call) == (answer); }, stated}
#define RUNS(call) {#call, [] { return (call), true; }}
#define RUNS_STATED(call) {#call, [] { return (call), true; }, stated}
// clang-format on

const std::vector<row> &rows() {
  static const std::vector<row> table = {
      // The display family: -1, NULL or nothing.
      GIVES(orlo_display_new(nullptr, 0, 16, 0, 1, -1, nullptr), nullptr),
      GIVES_STATED(orlo_display_stop(nullptr), 0), GIVES(orlo_display_start(nullptr, nullptr), -1),
      GIVES(orlo_display_get_user_vr(nullptr, 9, 0, 0, 1920, 1080, nullptr, nullptr, nullptr), -1),
      RUNS(orlo_display_get_incrop_position(nullptr, nullptr, nullptr, nullptr, 640, 360, 1920,
                                            1080, 0, 0, 0, 0, 0)),
      GIVES(orlo_display_change(nullptr, nullptr, 0, 9), -1),
      GIVES(orlo_display_set_user_config(nullptr, 9, nullptr), -1),
      GIVES(orlo_display_mode_change(nullptr, 9), -1),
      GIVES(orlo_display_mode_start(nullptr, 9), -1),
      GIVES(orlo_display_decode_change(nullptr, nullptr), -1),
      GIVES(orlo_capture_start(nullptr, 0), -1), GIVES(orlo_capture_stop(nullptr, 0), -1),
      GIVES(orlo_display_register_get_encode_stream(nullptr, nullptr, nullptr), -1),
      GIVES(orlo_display_register_captmode_change(nullptr, nullptr, nullptr), -1),
      GIVES(orlo_display_register_get_encode_mosaic_stream(nullptr, nullptr, nullptr, 0), -1),
      GIVES(orlo_display_encode_change(nullptr, 0, 0, nullptr), -1),
      GIVES(orlo_display_set_encode_bitrate(nullptr, 0, 0, 0), -1),
      GIVES(orlo_display_get_encode_bitrate(nullptr, 0, 0, nullptr), -1),
      GIVES(orlo_display_md_set_param(nullptr, 0, nullptr, 16), -1),
      GIVES(orlo_display_set_time(nullptr, 0, 0), -1),
      GIVES(orlo_display_get_hostcomm_addr(nullptr, 0, 0), 0),
      GIVES_STATED(orlo_display_push_dec_frame_buffer(nullptr, 0), 0),
      RUNS_STATED(orlo_display_set_enable(nullptr, 0, 0)),
      GIVES_STATED(orlo_display_set_embedded_osd_enable(nullptr, 0, 0, 0), 0),
      GIVES_STATED(orlo_display_set_embedded_osd_option(nullptr, 0, 0, 0), 0),
      GIVES(orlo_display_set_mask(nullptr, nullptr), -1),
      GIVES(orlo_display_set_roi(nullptr, nullptr), -1),
      GIVES(orlo_display_set_dnr(nullptr, nullptr), -1),
      GIVES(orlo_display_set_mirror(nullptr, nullptr), -1),
      GIVES(orlo_display_set_rotate(nullptr, nullptr), -1),
      GIVES(orlo_display_set_datetime_format(nullptr, nullptr), -1),
      GIVES(orlo_display_set_embedded_ip_osd_enable(nullptr, nullptr), -1),
      GIVES_STATED(orlo_display_check_processor(nullptr, 0, 0), 0),
      GIVES_STATED(orlo_display_print_statistics(nullptr, 0, 0), 0),
      GIVES(orlo_display_bind_src_pipe(nullptr, nullptr, 0), -1),
      GIVES(orlo_display_audio_change(nullptr, 0, 0), 0),
      GIVES(orlo_display_decode_image(nullptr, nullptr, 64, 64, 0, nullptr), -1),
      GIVES(orlo_display_get_jpeg_snapshot(nullptr, 0, 0, 9, 0, 0, nullptr, nullptr, nullptr,
                                           nullptr, nullptr),
            -1),
      GIVES(orlo_display_jpeg_live_stream_start(nullptr, nullptr, 0), -1),
      GIVES(orlo_display_jpeg_live_stream_change(nullptr, nullptr), -1),
      GIVES(orlo_display_jpeg_live_stream_all_stop(nullptr), -1),
      GIVES(ravel_put_audio_stream(-1, nullptr, nullptr, 64), -1),
      // Integers outside their range, with a good handle.
      GIVES(orlo_get_pb_timestamp(-1), 0), RUNS(orlo_set_pb_timestamp(-1, 1)),
      GIVES_STATED(orlo_get_pb_timestamp(32), 0),
      GIVES(orlo_display_get_jpeg_snapshot(display(), 99, 0, 9, 0, 0, &jpeg, &u, &u, &u, &u), -1),
      GIVES(decode_port(display(), 99), -1),
      // The playback pipe: -1, NULL, 0 or nothing.
      GIVES(orlo_sst_pipe_get_src(nullptr), nullptr),
      GIVES(orlo_sst_pipe_get_kelappsink(nullptr), nullptr),
      GIVES(orlo_sst_pipe_get_eos_mask(nullptr), 0),
      GIVES(orlo_sst_pipe_get_overlapped_mask(nullptr), 0),
      GIVES(orlo_sst_pipe_get_norecord_mask(nullptr), 0),
      GIVES(orlo_sst_pipe_set_param(nullptr, 1, 0, 0, 0, {}, {}, {}, 0, 1), -1),
      GIVES(orlo_sst_pipe_start(nullptr), -1), GIVES(orlo_sst_pipe_stop(nullptr), -1),
      GIVES(orlo_sst_pipe_pause(nullptr), -1), GIVES(orlo_sst_pipe_next(nullptr), -1),
      RUNS(orlo_sst_pipe_clear_status(nullptr)), RUNS(orlo_sst_pipe_delete(nullptr)),
      GIVES(orlo_sst_pipe_get_timestamp(nullptr), 0),
      GIVES(orlo_sst_pipe_get_last_timestamp(nullptr), 0),
      GIVES(orlo_sst_pipe_get_iframe(nullptr, 0, 0, {}, {}), nullptr),
      // The live pipe: -1, NULL or nothing.
      GIVES(orlo_lumen_pipe_start(nullptr), -1), GIVES(orlo_lumen_pipe_stop(nullptr), -1),
      RUNS(orlo_lumen_pipe_delete(nullptr)), GIVES(orlo_lumen_pipe_get_src(nullptr), nullptr),
      GIVES(orlo_lumen_pipe_get_kelappsink(nullptr), nullptr),
      GIVES(orlo_lumen_pipe_open_ch(nullptr, 0), -1),
      GIVES(orlo_lumen_pipe_close_ch(nullptr, 0), -1),
      GIVES(orlo_lumen_pipe_set_cmd_callback(nullptr, nullptr, nullptr), -1),
      GIVES(orlo_lumen_pipe_set_motion_callback(nullptr, nullptr, nullptr), -1),
      GIVES(orlo_lumen_pipe_set_alarm_callback(nullptr, nullptr, nullptr), -1),
      GIVES(orlo_lumen_pipe_set_src_handoff(nullptr, nullptr, nullptr), -1),
      GIVES(orlo_lumen_pipe_set_header_x_callback(nullptr, nullptr, nullptr), -1),
      GIVES(orlo_lumen_pipe_set_onvif_meta_callback(nullptr, nullptr, nullptr), -1),
      GIVES(orlo_lumen_pipe_send_audio(nullptr, 0, nullptr, 64), -1),
      GIVES(orlo_lumen_pipe_set_dev_mac(nullptr, nullptr, 6), -1),
      RUNS(orlo_lumen_pipe_pause_ch(nullptr, 0, 0)), RUNS(orlo_lumen_pipe_resume_ch(nullptr, 0, 0)),
      RUNS(orlo_lumen_pipe_i_only_req(nullptr, 0)),
      // Converters: a width of 0 or below, or a height of 0, writes nothing
      // and logs nothing, as the converters log nothing at all.
      RUNS_STATED(rgb24_to_yv12_c(plane, plane, plane, plane, -64, 4, 192)),
      RUNS_STATED(yv12_to_rgb24_c(plane, 64, plane, plane, plane, 64, 32, -4, 4)),
      RUNS_STATED(yv12_to_rgb24_c(plane, 64, plane, plane, plane, 64, 32, 64, 0)),
      // The shell.
      GIVES(shell_add_commands(nullptr), -1), GIVES(do_shell_cmd(1, nullptr), SHELL_ERR_NOT_FOUND),
      GIVES((+zeb_printf)(nullptr), -1),
      RUNS(zebshell(-5)),  // returns: nothing can listen there
  };
  return table;
}

// Runs one row in a child process, where a hang ends by a signal as a crash
// does; a wrong answer or line count says so on standard error.
void run(const row &r) {
  alarm(20);
  static int warnings = 0;  // lines at warning level or worse
  g_log_set_default_handler(
      [](const gchar *, GLogLevelFlags level, const gchar *message, gpointer) {
        warnings += (level & (G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) != 0;
        fprintf(stderr, "  log: %s\n", message);
      },
      nullptr);
  if (!r.failed()) fprintf(stderr, "not the failure answer\n"), _exit(1);
  if (r.lines != stated && warnings != r.lines) fprintf(stderr, "not one warning line\n"), _exit(1);
  _exit(0);
}

TEST(bad_callers, NoExportCrashesAndEachGivesItsFailureAnswerWithOneLine) {
  for (const row &r : rows()) EXPECT_EXIT(run(r), testing::ExitedWithCode(0), "") << r.name;
}

}  // namespace
