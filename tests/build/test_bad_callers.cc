// Every export called with a NULL handle or pointer, or an integer outside its
// range, each in a child process of its own: none may crash or hang, each
// gives its family's failure answer and logs one line that says why.
#include <glib.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "colorspace.h"
#include "orlo_display.h"
#include "orlo_lumen_pipe.h"
#include "orlo_sst_pipe.h"
#include "shell.h"

namespace {

int warnings = 0;  // lines at warning level or worse, in the child

void count_line(const gchar *, GLogLevelFlags level, const gchar *message, gpointer) {
  if (level & (G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) ++warnings;
  fprintf(stderr, "  log: %s%s", message, g_str_has_suffix(message, "\n") ? "" : "\n");
}

// A display over the recording engine, for the rows that need a good handle.
orlo_display_t *display() {
  const int32_t formats[] = {0};
  return orlo_display_new(formats, 0, 16, 0, 1, -1, nullptr);
}

const orlo_timeval_t zero_time{0, 0};

// A picture plane of 64 kB for the converters' rows.
uint8_t *plane() {
  static std::vector<std::vector<uint8_t>> planes;
  planes.emplace_back(65536);
  return planes.back().data();
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

const std::vector<row> &rows() {
  static const std::vector<row> table = {
      // The display family: -1, NULL or nothing.
      {"orlo_display_new",
       [] { return orlo_display_new(nullptr, 0, 16, 0, 1, -1, nullptr) == nullptr; }},
      {"orlo_display_stop", [] { return orlo_display_stop(nullptr) == 0; }, stated},
      {"orlo_display_start", [] { return orlo_display_start(nullptr, nullptr) == -1; }},
      {"orlo_display_get_user_vr",
       [] {
         return orlo_display_get_user_vr(nullptr, 9, 0, 0, 1920, 1080, nullptr, nullptr, nullptr) ==
                -1;
       }},
      {"orlo_display_get_incrop_position",
       [] {
         orlo_display_get_incrop_position(nullptr, nullptr, nullptr, nullptr, 640, 360, 1920, 1080,
                                          0, 0, 0, 0, 0);
         return true;
       }},
      {"orlo_display_change", [] { return orlo_display_change(nullptr, nullptr, 0, 9) == -1; }},
      {"orlo_display_set_user_config",
       [] { return orlo_display_set_user_config(nullptr, 9, nullptr) == -1; }},
      {"orlo_display_mode_change", [] { return orlo_display_mode_change(nullptr, 9) == -1; }},
      {"orlo_display_mode_start", [] { return orlo_display_mode_start(nullptr, 9) == -1; }},
      {"orlo_display_decode_change",
       [] { return orlo_display_decode_change(nullptr, nullptr) == -1; }},
      {"orlo_capture_start", [] { return orlo_capture_start(nullptr, 0) == -1; }},
      {"orlo_capture_stop", [] { return orlo_capture_stop(nullptr, 0) == -1; }},
      {"orlo_display_register_get_encode_stream",
       [] { return orlo_display_register_get_encode_stream(nullptr, nullptr, nullptr) == -1; }},
      {"orlo_display_register_captmode_change",
       [] { return orlo_display_register_captmode_change(nullptr, nullptr, nullptr) == -1; }},
      {"orlo_display_register_get_encode_mosaic_stream",
       [] {
         return orlo_display_register_get_encode_mosaic_stream(nullptr, nullptr, nullptr, 0) == -1;
       }},
      {"orlo_display_encode_change",
       [] { return orlo_display_encode_change(nullptr, 0, 0, nullptr) == -1; }},
      {"orlo_display_set_encode_bitrate",
       [] { return orlo_display_set_encode_bitrate(nullptr, 0, 0, 0) == -1; }},
      {"orlo_display_get_encode_bitrate",
       [] { return orlo_display_get_encode_bitrate(nullptr, 0, 0, nullptr) == -1; }},
      {"orlo_display_md_set_param",
       [] { return orlo_display_md_set_param(nullptr, 0, nullptr, 16) == -1; }},
      {"orlo_display_set_time", [] { return orlo_display_set_time(nullptr, 0, 0) == -1; }},
      {"orlo_display_get_hostcomm_addr",
       [] { return orlo_display_get_hostcomm_addr(nullptr, 0, 0) == 0; }},
      {"orlo_display_push_dec_frame_buffer",
       [] { return orlo_display_push_dec_frame_buffer(nullptr, 0) == 0; }, stated},
      {"orlo_display_set_enable",
       [] {
         orlo_display_set_enable(nullptr, 0, 0);
         return true;
       },
       stated},
      {"orlo_display_set_embedded_osd_enable",
       [] { return orlo_display_set_embedded_osd_enable(nullptr, 0, 0, 0) == 0; }, stated},
      {"orlo_display_set_embedded_osd_option",
       [] { return orlo_display_set_embedded_osd_option(nullptr, 0, 0, 0) == 0; }, stated},
      {"orlo_display_set_mask", [] { return orlo_display_set_mask(nullptr, nullptr) == -1; }},
      {"orlo_display_set_roi", [] { return orlo_display_set_roi(nullptr, nullptr) == -1; }},
      {"orlo_display_set_dnr", [] { return orlo_display_set_dnr(nullptr, nullptr) == -1; }},
      {"orlo_display_set_mirror", [] { return orlo_display_set_mirror(nullptr, nullptr) == -1; }},
      {"orlo_display_set_rotate", [] { return orlo_display_set_rotate(nullptr, nullptr) == -1; }},
      {"orlo_display_set_datetime_format",
       [] { return orlo_display_set_datetime_format(nullptr, nullptr) == -1; }},
      {"orlo_display_set_embedded_ip_osd_enable",
       [] { return orlo_display_set_embedded_ip_osd_enable(nullptr, nullptr) == -1; }},
      {"orlo_display_check_processor",
       [] { return orlo_display_check_processor(nullptr, 0, 0) == 0; }, stated},
      {"orlo_display_print_statistics",
       [] { return orlo_display_print_statistics(nullptr, 0, 0) == 0; }, stated},
      {"orlo_display_bind_src_pipe",
       [] { return orlo_display_bind_src_pipe(nullptr, nullptr, 0) == -1; }},
      {"orlo_display_audio_change", [] { return orlo_display_audio_change(nullptr, 0, 0) == 0; }},
      {"orlo_display_decode_image",
       [] { return orlo_display_decode_image(nullptr, nullptr, 64, 64, 0, nullptr) == -1; }},
      {"orlo_display_get_jpeg_snapshot",
       [] {
         return orlo_display_get_jpeg_snapshot(nullptr, 0, 0, 9, 0, 0, nullptr, nullptr, nullptr,
                                               nullptr, nullptr) == -1;
       }},
      {"orlo_display_jpeg_live_stream_start",
       [] { return orlo_display_jpeg_live_stream_start(nullptr, nullptr, 0) == -1; }},
      {"orlo_display_jpeg_live_stream_change",
       [] { return orlo_display_jpeg_live_stream_change(nullptr, nullptr) == -1; }},
      {"orlo_display_jpeg_live_stream_all_stop",
       [] { return orlo_display_jpeg_live_stream_all_stop(nullptr) == -1; }},
      {"ravel_put_audio_stream",
       [] { return ravel_put_audio_stream(-1, nullptr, nullptr, 64) == -1; }},
      // Integers outside their range, with a good handle.
      {"orlo_get_pb_timestamp(-1)", [] { return orlo_get_pb_timestamp(-1) == 0; }},
      {"orlo_set_pb_timestamp(-1)",
       [] {
         orlo_set_pb_timestamp(-1, 1);
         return true;
       }},
      {"orlo_get_pb_timestamp(32)", [] { return orlo_get_pb_timestamp(32) == 0; }, stated},
      {"orlo_display_push_dec_frame_buffer(port 18)",
       [] { return orlo_display_push_dec_frame_buffer(display(), 18) == 0; }, stated},
      {"orlo_display_audio_change(channel 64)",
       [] { return orlo_display_audio_change(display(), 64, 0) == 0; }, stated},
      {"orlo_display_bind_src_pipe(index 8)",
       [] { return orlo_display_bind_src_pipe(display(), nullptr, 8) == -1; }},
      {"orlo_display_get_jpeg_snapshot(channel 99)",
       [] {
         void *buf = nullptr;
         uint32_t a = 0, b = 0, c = 0, d = 0;
         return orlo_display_get_jpeg_snapshot(display(), 99, 0, 9, 0, 0, &buf, &a, &b, &c, &d) ==
                -1;
       }},
      {"orlo_display_decode_change(port 99)",
       [] {
         orlo_decode_cfg_t table[ORLO_MAX_SLOT] = {};
         table[16].port = 99;
         table[16].enable = 1;
         return orlo_display_decode_change(display(), table) == -1;
       }},
      // The playback pipe: -1, NULL, 0 or nothing.
      {"orlo_sst_pipe_get_src", [] { return orlo_sst_pipe_get_src(nullptr) == nullptr; }},
      {"orlo_sst_pipe_get_kelappsink",
       [] { return orlo_sst_pipe_get_kelappsink(nullptr) == nullptr; }},
      {"orlo_sst_pipe_get_eos_mask", [] { return orlo_sst_pipe_get_eos_mask(nullptr) == 0; }},
      {"orlo_sst_pipe_get_overlapped_mask",
       [] { return orlo_sst_pipe_get_overlapped_mask(nullptr) == 0; }},
      {"orlo_sst_pipe_get_norecord_mask",
       [] { return orlo_sst_pipe_get_norecord_mask(nullptr) == 0; }},
      {"orlo_sst_pipe_set_param",
       [] {
         return orlo_sst_pipe_set_param(nullptr, 1, 0, 0, 0, zero_time, zero_time, zero_time, 0,
                                        1) == -1;
       }},
      {"orlo_sst_pipe_start", [] { return orlo_sst_pipe_start(nullptr) == -1; }},
      {"orlo_sst_pipe_stop", [] { return orlo_sst_pipe_stop(nullptr) == -1; }},
      {"orlo_sst_pipe_pause", [] { return orlo_sst_pipe_pause(nullptr) == -1; }},
      {"orlo_sst_pipe_next", [] { return orlo_sst_pipe_next(nullptr) == -1; }},
      {"orlo_sst_pipe_clear_status",
       [] {
         orlo_sst_pipe_clear_status(nullptr);
         return true;
       }},
      {"orlo_sst_pipe_delete",
       [] {
         orlo_sst_pipe_delete(nullptr);
         return true;
       }},
      {"orlo_sst_pipe_get_timestamp", [] { return orlo_sst_pipe_get_timestamp(nullptr) == 0; }},
      {"orlo_sst_pipe_get_last_timestamp",
       [] { return orlo_sst_pipe_get_last_timestamp(nullptr) == 0; }},
      {"orlo_sst_pipe_get_iframe",
       [] { return orlo_sst_pipe_get_iframe(nullptr, 0, 0, zero_time, zero_time) == nullptr; }},
      // The live pipe: -1, NULL or nothing.
      {"orlo_lumen_pipe_start", [] { return orlo_lumen_pipe_start(nullptr) == -1; }},
      {"orlo_lumen_pipe_stop", [] { return orlo_lumen_pipe_stop(nullptr) == -1; }},
      {"orlo_lumen_pipe_delete",
       [] {
         orlo_lumen_pipe_delete(nullptr);
         return true;
       }},
      {"orlo_lumen_pipe_get_src", [] { return orlo_lumen_pipe_get_src(nullptr) == nullptr; }},
      {"orlo_lumen_pipe_get_kelappsink",
       [] { return orlo_lumen_pipe_get_kelappsink(nullptr) == nullptr; }},
      {"orlo_lumen_pipe_open_ch", [] { return orlo_lumen_pipe_open_ch(nullptr, 0) == -1; }},
      {"orlo_lumen_pipe_close_ch", [] { return orlo_lumen_pipe_close_ch(nullptr, 0) == -1; }},
      {"orlo_lumen_pipe_set_cmd_callback",
       [] { return orlo_lumen_pipe_set_cmd_callback(nullptr, nullptr, nullptr) == -1; }},
      {"orlo_lumen_pipe_set_motion_callback",
       [] { return orlo_lumen_pipe_set_motion_callback(nullptr, nullptr, nullptr) == -1; }},
      {"orlo_lumen_pipe_set_alarm_callback",
       [] { return orlo_lumen_pipe_set_alarm_callback(nullptr, nullptr, nullptr) == -1; }},
      {"orlo_lumen_pipe_set_src_handoff",
       [] { return orlo_lumen_pipe_set_src_handoff(nullptr, nullptr, nullptr) == -1; }},
      {"orlo_lumen_pipe_set_header_x_callback",
       [] { return orlo_lumen_pipe_set_header_x_callback(nullptr, nullptr, nullptr) == -1; }},
      {"orlo_lumen_pipe_set_onvif_meta_callback",
       [] { return orlo_lumen_pipe_set_onvif_meta_callback(nullptr, nullptr, nullptr) == -1; }},
      {"orlo_lumen_pipe_send_audio",
       [] { return orlo_lumen_pipe_send_audio(nullptr, 0, nullptr, 64) == -1; }},
      {"orlo_lumen_pipe_set_dev_mac",
       [] { return orlo_lumen_pipe_set_dev_mac(nullptr, nullptr, 6) == -1; }},
      {"orlo_lumen_pipe_pause_ch",
       [] {
         orlo_lumen_pipe_pause_ch(nullptr, 0, 0);
         return true;
       }},
      {"orlo_lumen_pipe_resume_ch",
       [] {
         orlo_lumen_pipe_resume_ch(nullptr, 0, 0);
         return true;
       }},
      {"orlo_lumen_pipe_i_only_req",
       [] {
         orlo_lumen_pipe_i_only_req(nullptr, 0);
         return true;
       }},
      // Converters: a width of 0 or below, or a height of 0, writes nothing
      // and logs nothing, as the converters log nothing at all.
      {"rgb24_to_yv12_c(width -64)",
       [] {
         rgb24_to_yv12_c(plane(), plane(), plane(), plane(), -64, 4, 192);
         return true;
       },
       stated},
      {"yv12_to_rgb24_c(width -4)",
       [] {
         yv12_to_rgb24_c(plane(), 64, plane(), plane(), plane(), 64, 32, -4, 4);
         return true;
       },
       stated},
      {"yv12_to_rgb24_c(height 0)",
       [] {
         yv12_to_rgb24_c(plane(), 64, plane(), plane(), plane(), 64, 32, 64, 0);
         return true;
       },
       stated},
      // The shell.
      {"shell_add_commands", [] { return shell_add_commands(nullptr) == -1; }},
      {"do_shell_cmd", [] { return do_shell_cmd(1, nullptr) == SHELL_ERR_NOT_FOUND; }},
      {"zeb_printf",
       [] {
         int (*print)(const char *, ...) = zeb_printf;
         return print(nullptr) == -1;
       }},
      {"zebshell(port -5)",
       [] {
         zebshell(-5);  // returns: nothing can listen there
         return true;
       }},
  };
  return table;
}

// What one row's child process gave.
enum class outcome { ok, wrong_answer, wrong_log, crashed };

outcome run_in_child(const row &r) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);  // a hang ends the child by a signal, as a crash does
    g_log_set_default_handler(count_line, nullptr);
    const bool failed = r.failed();
    _exit(!failed ? 3 : r.lines != stated && warnings != r.lines ? 4 : 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (!WIFEXITED(status)) return outcome::crashed;
  switch (WEXITSTATUS(status)) {
    case 0:
      return outcome::ok;
    case 3:
      return outcome::wrong_answer;
    default:
      return outcome::wrong_log;
  }
}

TEST(bad_callers, NoExportCrashesAndEachGivesItsFailureAnswerWithOneLine) {
  int crashes = 0;
  for (const row &r : rows()) {
    const outcome o = run_in_child(r);
    if (o == outcome::crashed) ++crashes;
    if (o != outcome::ok)
      ADD_FAILURE() << r.name
                    << (o == outcome::crashed        ? ": crashed or hung"
                        : o == outcome::wrong_answer ? ": not the failure answer"
                                                     : ": not one warning line");
  }
  EXPECT_EQ(crashes, 0) << "of " << rows().size() << " calls";
}

}  // namespace
