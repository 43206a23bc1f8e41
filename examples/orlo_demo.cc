// orlo-demo: a live mosaic of synthetic (or real) channels over the software
// engine.  It walks the library's road of a run: display, first mode, mosaic,
// stream slots, live pipe, sink binding; then it switches display modes,
// takes a JPEG snapshot and a thumbnail, writes the composed displays as
// pictures, prints the engine's statistics and ends.  A debug shell with the
// demo's own commands runs beside it.
#include <glib.h>
#include <gst/gst.h>
#include <orlo/orlo_display.h>
#include <orlo/orlo_lumen_pipe.h>
#include <orlo/shell.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kel_buffers.h"
#include "ravel_soft.h"

namespace {

constexpr int kMaxChannels = 16;   // cameras of the live source element
constexpr int kLiveSlotBase = 16;  // live sink, channel j: stream slot 16 + j
constexpr int kHeaderSize = 24;
constexpr int kTypeIntra = 1;

struct options {
  int channels = 16;
  int mode = 9;
  int duration = 12;  // seconds; 0 runs until interrupted
  std::string out = "orlo-demo-out";
  int shell_port = 2323;  // 0: no shell
  int snapshot_ch = 0;
  int width = 640;
  int height = 360;
  bool window = false;
  std::vector<std::pair<int, std::string>> sources;
};

// Everything the timeline and the shell commands share.
struct demo {
  options opt;
  orlo_display_t *h_display = nullptr;
  orlo_lumen_pipe_t *h_lumen_pipe = nullptr;
  std::mutex mode_lock;  // one layout change at a time (timeline and shell)
  std::atomic<int> mode{0};
  std::mutex intra_lock;
  GstBuffer *last_intra[kMaxChannels] = {};  // latest intra frame of each channel
  std::atomic<int> snapshots{0};
  std::atomic<int> thumbnails{0};
  std::atomic<int> mode_changes{0};
  int audio_ch = -1;
  std::chrono::steady_clock::time_point started;
};

demo g_demo;
std::atomic<bool> g_interrupted{false};
// True on the thread of the shell, whose handlers print to the client.
thread_local bool t_in_shell = false;

// One line of the demo's report: to the shell's client from a command, to
// standard output from the timeline.
__attribute__((format(printf, 1, 2))) void report(const char *format, ...) {
  char line[512];
  va_list args;
  va_start(args, format);
  vsnprintf(line, sizeof line, format, args);
  va_end(args);
  if (t_in_shell)
    shell_printf("%s\r\n", line);
  else
    printf("%s\n", line);
}

void on_signal(int) { g_interrupted.store(true); }

// ---- environment -------------------------------------------------------------

// The stand-in elements live in the build's plugin folder beside bin/.  It
// goes in front of a user's own GST_PLUGIN_PATH, whose folders would else
// hide it (the library cannot run without these elements); an unset
// registry is filled, so that scripts and users can point elsewhere.
void set_plugin_path() {
  char exe[4096];
  const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
  std::string build = ORLO_BUILD_DIR;
  if (n > 0) {
    exe[n] = '\0';
    gchar *bin = g_path_get_dirname(exe);
    gchar *dir = g_path_get_dirname(bin);
    gchar *plugins = g_build_filename(dir, "gst-plugins", nullptr);
    if (g_file_test(plugins, G_FILE_TEST_IS_DIR)) build = dir;
    g_free(plugins);
    g_free(dir);
    g_free(bin);
  }
  const std::string plugins = build + "/gst-plugins";
  const std::string registry = build + "/gst-registry.bin";
  const char *user = getenv("GST_PLUGIN_PATH");
  const std::string path =
      user != nullptr && *user != '\0' ? plugins + G_SEARCHPATH_SEPARATOR_S + user : plugins;
  setenv("GST_PLUGIN_PATH", path.c_str(), 1);
  setenv("GST_REGISTRY_1_0", registry.c_str(), 0);
}

// ---- options -----------------------------------------------------------------

// Takes the --source values, N=URI each.
bool add_sources(gchar **sources, options &opt) {
  bool ok = true;
  for (gchar **s = sources; s != nullptr && *s != nullptr; ++s) {
    char *eq = strchr(*s, '=');
    char *end = nullptr;
    const long ch = eq != nullptr ? strtol(*s, &end, 10) : -1;
    if (eq == nullptr || end != eq || ch < 0 || ch >= kMaxChannels || eq[1] == '\0') {
      fprintf(stderr, "orlo-demo: --source wants N=URI with N in 0..15, not '%s'\n", *s);
      ok = false;
      continue;
    }
    opt.sources.emplace_back(static_cast<int>(ch), std::string(eq + 1));
  }
  return ok;
}

// Every complaint is told, not only the first.
bool options_usable(const options &opt) {
  bool ok = true;
  if (opt.channels < 1 || opt.channels > kMaxChannels) {
    fprintf(stderr, "orlo-demo: --channels must be 1..16\n");
    ok = false;
  }
  if (opt.duration < 0 || opt.snapshot_ch < 0 || opt.snapshot_ch >= opt.channels) {
    fprintf(stderr, "orlo-demo: --duration must be >= 0 and --snapshot-ch an open channel\n");
    ok = false;
  }
  if (opt.width < 16 || opt.height < 16 || (opt.width & 1) || (opt.height & 1)) {
    fprintf(stderr, "orlo-demo: --width and --height must be even and at least 16\n");
    ok = false;
  }
  return ok;
}

bool parse_options(int argc, char **argv, options &opt) {
  gchar *out = nullptr;
  gchar **sources = nullptr;
  gboolean forever = FALSE;
  gboolean window = FALSE;
  GOptionEntry entries[] = {
      {"channels", 'n', 0, G_OPTION_ARG_INT, &opt.channels, "Live channels to open (1..16)", "N"},
      {"mode", 'm', 0, G_OPTION_ARG_INT, &opt.mode,
       "Display mode to start in (1, 2, 3, 5, 7, 8, 9, 10, 100)", "MODE"},
      {"duration", 'd', 0, G_OPTION_ARG_INT, &opt.duration,
       "Seconds to run (default 12; 0 runs until interrupted, as --forever)", "S"},
      {"forever", 'f', 0, G_OPTION_ARG_NONE, &forever, "Run until interrupted", nullptr},
      {"out", 'o', 0, G_OPTION_ARG_FILENAME, &out, "Output folder (default ./orlo-demo-out)",
       "DIR"},
      {"shell-port", 'p', 0, G_OPTION_ARG_INT, &opt.shell_port,
       "TCP port of the debug shell (default 2323, 0 for none)", "PORT"},
      {"snapshot-ch", 's', 0, G_OPTION_ARG_INT, &opt.snapshot_ch,
       "Channel of the snapshot and the thumbnail (default 0)", "CH"},
      {"source", 0, 0, G_OPTION_ARG_STRING_ARRAY, &sources,
       "A real source for a channel, e.g. 3=rtsp://camera/stream (repeatable)", "N=URI"},
      {"width", 0, 0, G_OPTION_ARG_INT, &opt.width, "Picture width of the channels", "W"},
      {"height", 0, 0, G_OPTION_ARG_INT, &opt.height, "Picture height of the channels", "H"},
      {"window", 'w', 0, G_OPTION_ARG_NONE, &window,
       "Also show display 0 in a window when a graphical display is there", nullptr},
      {nullptr, 0, 0, G_OPTION_ARG_NONE, nullptr, nullptr, nullptr}};
  GOptionContext *context = g_option_context_new("- a live mosaic over liborlo");
  g_option_context_add_main_entries(context, entries, nullptr);
  GError *error = nullptr;
  const bool parsed = g_option_context_parse(context, &argc, &argv, &error);
  g_option_context_free(context);
  bool ok = parsed;
  if (!parsed) {
    fprintf(stderr, "orlo-demo: %s\n", error->message);
    g_error_free(error);
  }
  if (out != nullptr) opt.out = out;
  g_free(out);
  if (forever) opt.duration = 0;
  opt.window = window;
  if (!add_sources(sources, opt)) ok = false;
  g_strfreev(sources);
  return options_usable(opt) && ok;
}

// A source for a channel that is not opened would be announced and never
// shown: refused.
bool sources_within_channels(const options &opt) {
  for (const auto &s : opt.sources) {
    if (s.first < opt.channels) continue;
    fprintf(stderr,
            "orlo-demo: --source %d=%s names channel %d, but only channels 0..%d are open "
            "(--channels %d)\n",
            s.first, s.second.c_str(), s.first, opt.channels - 1, opt.channels);
    return false;
  }
  return true;
}

// ---- the mosaic --------------------------------------------------------------

bool is_live_mode(int mode) {
  switch (mode) {
    case 1:
    case 2:
    case 3:
    case 5:
    case 7:
    case 8:
    case 9:
    case 10:
    case 100:
      return true;
    default:
      return false;
  }
}

// Region i shows engine port i; live channel j is decoded on port j.  Every
// open channel keeps decoding whatever the mode, so that a mode change shows
// current pictures at once.
int show_mode(demo &d, int mode) {
  if (!is_live_mode(mode)) return -1;
  std::lock_guard<std::mutex> lock(d.mode_lock);
  int channels[ORLO_MAX_VR];
  int flags[ORLO_MAX_VR] = {};
  for (int i = 0; i < ORLO_MAX_VR; ++i) channels[i] = i < d.opt.channels ? i : -1;
  orlo_vr_t vr[ORLO_MAX_VR];
  if (orlo_display_mode_start(d.h_display, mode) != 0) return -1;
  if (orlo_display_get_user_vr(d.h_display, mode, 0, 0, 1920, 1080, channels, flags, vr) != 0)
    return -1;
  if (orlo_display_change(d.h_display, vr, 0, mode) != 0) return -1;
  d.mode.store(mode);
  d.mode_changes.fetch_add(1);
  return 0;
}

void decode_all_channels(demo &d) {
  std::vector<orlo_decode_cfg_t> table(ORLO_MAX_SLOT);
  for (int j = 0; j < d.opt.channels; ++j) {
    table[kLiveSlotBase + j].port = j;
    table[kLiveSlotBase + j].enable = 1;
  }
  orlo_display_decode_change(d.h_display, table.data());
}

// ---- the live pipe -----------------------------------------------------------

// Keeps each channel's latest intra frame for thumbnails; runs on the
// element's encoding threads.
void on_handoff(int ch, void *data, int size, void *) {
  if (ch < 0 || ch >= kMaxChannels || size <= kHeaderSize) return;
  if (static_cast<const uint8_t *>(data)[8] != kTypeIntra) return;
  GstBuffer *copy = gst_kel_buddy_buffer_new_copy(data, static_cast<gsize>(size));
  std::lock_guard<std::mutex> lock(g_demo.intra_lock);
  if (g_demo.last_intra[ch] != nullptr) gst_buffer_unref(g_demo.last_intra[ch]);
  g_demo.last_intra[ch] = copy;
}

void on_channel_event(int ch, void *data, int, void *) {
  printf("orlo-demo: channel %d %s\n", ch, static_cast<const char *>(data));
}

// A camera's source went or came back (on the source's own thread).
// The engine shows NO SIGNAL in the tiles of the channel's port (channel j
// decodes on port j) until the source is back.
void on_signal_changed(GstElement *, gint camera, gboolean present, gpointer) {
  printf("orlo-demo: channel %d: %s\n", camera, present ? "signal back" : "no signal");
  ravel_soft_set_port_signal(ravel_soft_engine(), camera, present ? 1 : 0);
}

bool start_live_pipe(demo &d) {
  d.h_lumen_pipe = orlo_lumen_pipe_new(0);
  if (d.h_lumen_pipe == nullptr) return false;
  GstElement *src = orlo_lumen_pipe_get_src(d.h_lumen_pipe);
  // The main streams alone: the sub streams would cost encoding time and are
  // shown nowhere here.
  g_object_set(src, "width", d.opt.width, "height", d.opt.height, "streams", 1, nullptr);
  for (const auto &s : d.opt.sources)
    g_object_set(src, "channel", s.first, "stream", 0, "uri", s.second.c_str(), nullptr);
  orlo_lumen_pipe_set_src_handoff(d.h_lumen_pipe, on_handoff, nullptr);
  orlo_lumen_pipe_set_cmd_callback(d.h_lumen_pipe, on_channel_event, nullptr);
  g_signal_connect(src, "signal-changed", G_CALLBACK(on_signal_changed), nullptr);
  orlo_lumen_pipe_start(d.h_lumen_pipe);
  if (orlo_display_bind_src_pipe(d.h_display, orlo_lumen_pipe_get_kelappsink(d.h_lumen_pipe), 0) !=
      0)
    return false;
  for (int j = 0; j < d.opt.channels; ++j)
    if (orlo_lumen_pipe_open_ch(d.h_lumen_pipe, j) != 0)
      fprintf(stderr, "orlo-demo: channel %d could not be opened\n", j);
  return true;
}

// ---- pictures ----------------------------------------------------------------

std::string out_path(const demo &d, const std::string &name) { return d.opt.out + "/" + name; }

bool write_file(const std::string &path, const void *data, size_t size, const char *head = "") {
  FILE *f = fopen(path.c_str(), "wb");
  if (f == nullptr) return false;
  const bool ok = fputs(head, f) >= 0 && fwrite(data, 1, size, f) == size;
  return fclose(f) == 0 && ok;
}

int write_display(demo &d, int display, const std::string &name) {
  ravel_t *engine = ravel_soft_engine();
  ravel_soft_wait_compose(engine, 2000);
  const std::string path = out_path(d, name);
  const int ret = ravel_soft_write_display(engine, display, path.c_str());
  report("orlo-demo: display %d -> %s%s", display, path.c_str(), ret == 0 ? "" : " FAILED");
  return ret;
}

// A JPEG of the channel's current picture, made by the engine.
int take_snapshot(demo &d, int ch) {
  void *buf = nullptr;
  uint32_t size = 0, width = 0, height = 0, stamp = 0;
  const int ret = orlo_display_get_jpeg_snapshot(d.h_display, ch, 0, d.mode.load(), 0, 0, &buf,
                                                 &size, &width, &height, &stamp);
  if (ret != 0) {
    report("orlo-demo: snapshot of channel %d failed (%d)", ch, ret);
    return ret;
  }
  char name[64];
  snprintf(name, sizeof name, "snapshot-ch%d.jpg", ch);
  const std::string path = out_path(d, name);
  const bool ok = write_file(path, buf, size);
  free(buf);
  report("orlo-demo: snapshot of channel %d, %ux%u, %u bytes -> %s%s", ch, width, height, size,
         path.c_str(), ok ? "" : " (write FAILED)");
  if (ok) d.snapshots.fetch_add(1);
  return ok ? 0 : -1;
}

// The channel's latest intra frame decoded into RGB24, written as PPM.
int take_thumbnail(demo &d, int ch) {
  GstBuffer *iframe = nullptr;
  {
    std::lock_guard<std::mutex> lock(d.intra_lock);
    if (ch >= 0 && ch < kMaxChannels && d.last_intra[ch] != nullptr)
      iframe = gst_buffer_ref(d.last_intra[ch]);
  }
  if (iframe == nullptr) {
    report("orlo-demo: no intra frame of channel %d yet", ch);
    return -1;
  }
  const int w = d.opt.width, h = d.opt.height;
  std::vector<uint8_t> rgb(static_cast<size_t>(w) * h * 3);
  // The operation takes over the reference.
  if (orlo_display_decode_image(d.h_display, iframe, w, h, 0, rgb.data()) != 0) {
    report("orlo-demo: thumbnail of channel %d failed", ch);
    return -1;
  }
  // The library's RGB24 is stored blue first; PPM wants red first.
  for (size_t i = 0; i + 2 < rgb.size(); i += 3) std::swap(rgb[i], rgb[i + 2]);
  char name[64], head[64];
  snprintf(name, sizeof name, "thumbnail-ch%d.ppm", ch);
  snprintf(head, sizeof head, "P6\n%d %d\n255\n", w, h);
  const std::string path = out_path(d, name);
  const bool ok = write_file(path, rgb.data(), rgb.size(), head);
  report("orlo-demo: thumbnail of channel %d, %dx%d RGB24 -> %s%s", ch, w, h, path.c_str(),
         ok ? "" : " (write FAILED)");
  if (ok) d.thumbnails.fetch_add(1);
  return ok ? 0 : -1;
}

// ---- statistics --------------------------------------------------------------

double cpu_seconds() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return static_cast<double>(u.ru_utime.tv_sec + u.ru_stime.tv_sec) +
         static_cast<double>(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

void print_statistics(demo &d) {
  ravel_t *engine = ravel_soft_engine();
  const double wall =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - d.started).count();
  const double cpu = cpu_seconds();
  report(
      "orlo-demo: %.1f s running, mode %d, %d channels of %dx%d, %d mode changes, "
      "%d snapshots, %d thumbnails",
      wall, d.mode.load(), d.opt.channels, d.opt.width, d.opt.height, d.mode_changes.load(),
      d.snapshots.load(), d.thumbnails.load());
  // Every accepted frame stands in exactly one of decoded, errors, skipped,
  // flushed and queued (read at one instant), so each row's sum can be
  // checked by eye; pictures and shown count what left the decoder and what
  // reached a display, refused what never got in.
  report(
      "orlo-demo: port accepted = decoded + errors + skipped + flushed + queued | pictures "
      "  shown refused  dec/s");
  uint64_t decoded = 0;
  for (int port = 0; port < RAVEL_SOFT_PORTS; ++port) {
    ravel_soft_port_stats_t s{};
    if (ravel_soft_port_stats(engine, port, &s) != 0 || s.accepted + s.refused == 0) continue;
    decoded += s.decoded;
    auto u = [](uint64_t v) { return static_cast<unsigned long long>(v); };
    report("orlo-demo: %4d %8llu = %7llu + %6llu + %7llu + %7llu + %6llu | %8llu %7llu %7llu %6.1f",
           port, u(s.accepted), u(s.decoded), u(s.decode_errors), u(s.skipped), u(s.flushed),
           u(s.queued), u(s.pictures), u(s.shown), u(s.refused), s.decoded / wall);
  }
  report(
      "orlo-demo: %.1f pictures decoded a second in all, %llu compose passes "
      "(%.1f/s), process CPU %.1f s = %.0f%% of one core (sources' encoders "
      "included)",
      decoded / wall, static_cast<unsigned long long>(ravel_soft_compose_passes(engine)),
      ravel_soft_compose_passes(engine) / wall, cpu, 100.0 * cpu / wall);
}

// ---- the demo's shell commands -----------------------------------------------

int cmd_mode(int argc, char **argv) {
  if (argc != 2) {
    shell_printf("usage: mode <1|2|3|5|7|8|9|10|100>\r\n");
    return -22;
  }
  const int mode = atoi(argv[1]);
  if (show_mode(g_demo, mode) != 0) {
    shell_printf("mode %d refused\r\n", mode);
    return -22;
  }
  shell_printf("display mode %d\r\n", mode);
  return 0;
}

int cmd_snapshot(int argc, char **argv) {
  const int ch = argc > 1 ? atoi(argv[1]) : g_demo.opt.snapshot_ch;
  if (ch < 0 || ch >= g_demo.opt.channels) {
    shell_printf("no channel %d\r\n", ch);
    return -22;
  }
  const int a = take_snapshot(g_demo, ch);
  const int b = take_thumbnail(g_demo, ch);
  return a == 0 && b == 0 ? 0 : -1;
}

int cmd_audio(int argc, char **argv) {
  const int ch = argc > 1 ? atoi(argv[1]) : -1;
  if (ch < -1 || ch >= g_demo.opt.channels) {
    shell_printf("usage: audio <channel|-1>\r\n");
    return -22;
  }
  orlo_lumen_pipe_set_live_audio_ch(g_demo.h_lumen_pipe, ch);
  orlo_display_audio_change(g_demo.h_display, ch, 0);
  g_demo.audio_ch = ch;
  shell_printf("audio channel %d%s\r\n", ch,
               g_demo.h_display->h_audio == 0 ? " (no sound device: nothing is played)" : "");
  return 0;
}

int cmd_stats(int, char **) {
  print_statistics(g_demo);
  return 0;
}

int cmd_pictures(int, char **) {
  const int a = write_display(g_demo, 0, "display0.png");
  const int b = write_display(g_demo, 2, "display2.png");
  return a == 0 && b == 0 ? 0 : -1;
}

}  // namespace

// The demo's records in its own `.commandlist` section; cmd_demo_mode names
// the section to the shell.
extern "C" {
SHELL_CMD(cmd_demo_mode, "mode", "Change the display mode",
          "mode <n>\r\nShows the mosaic of "
          "display mode n (1, 2, 3, 5, 7, 8, 9, 10 or 100).",
          cmd_mode);
SHELL_CMD(cmd_demo_snapshot, "snapshot", "JPEG snapshot and thumbnail of a channel",
          "snapshot [ch]\r\nWrites snapshot-chN.jpg and thumbnail-chN.ppm to the output folder.",
          cmd_snapshot);
SHELL_CMD(cmd_demo_audio, "audio", "Pick the audio channel",
          "audio <ch|-1>\r\nPlays the audio of one live channel, -1 for none.", cmd_audio);
SHELL_CMD(cmd_demo_stats, "stats", "Print the engine's statistics",
          "stats\r\nPer port: frames accepted, and where each went (decoded, errors, skipped, "
          "flushed, queued); pictures decoded and shown; frames refused; CPU time.",
          cmd_stats);
SHELL_CMD(cmd_demo_pictures, "pictures", "Write the composed displays",
          "pictures\r\nWrites display0.png and display2.png to the output folder.", cmd_pictures);
}

namespace {

bool sleep_unless_interrupted(double seconds) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < end) {
    if (g_interrupted.load()) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return !g_interrupted.load();
}

void start_shell(int port) {
  if (port <= 0) return;
  shell_add_commands(&cmd_demo_mode);
  std::thread([port] {
    t_in_shell = true;
    zebshell(port);
    fprintf(stderr, "orlo-demo: the debug shell could not listen on port %d\n", port);
  }).detach();
  // The shell ends a line with CR and drops LF: telnet and socat's crlf send
  // CR, nc sends a bare LF that the shell never takes as an end of line.
  printf(
      "orlo-demo: debug shell on TCP port %d (try: telnet localhost %d, or socat -,crlf "
      "TCP:localhost:%d, then 'help')\n",
      port, port, port);
}

// The display, its first mode, the channels' slots and the live pipe; then
// the window and the shell.  False when the demo cannot go on.
bool bring_up(demo &d) {
  const options &opt = d.opt;
  const int32_t formats[1] = {0};  // 1920 x 1080
  const int fd = ravel_audio_new(1);
  d.h_display = orlo_display_new(formats, 0, opt.channels, 0, 1, fd > 0 ? fd : -1, nullptr);
  if (d.h_display == nullptr) {
    fprintf(stderr, "orlo-demo: the display could not be created\n");
    return false;
  }
  d.started = std::chrono::steady_clock::now();
  if (show_mode(d, opt.mode) != 0) {
    fprintf(stderr, "orlo-demo: display mode %d can't be shown\n", opt.mode);
    return false;
  }
  decode_all_channels(d);
  if (!start_live_pipe(d)) {
    fprintf(stderr, "orlo-demo: the live pipe could not be started\n");
    return false;
  }
  if (opt.window && ravel_soft_show_window(ravel_soft_engine(), 0) != 0)
    fprintf(stderr, "orlo-demo: no window (no graphical display); running headless\n");
  printf(
      "orlo-demo: display 1920x1080 over the software engine, %d live channels of %dx%d "
      "in mode %d, pictures to %s/\n",
      opt.channels, opt.width, opt.height, opt.mode, opt.out.c_str());
  for (const auto &s : opt.sources)
    printf("orlo-demo: channel %d from %s\n", s.first, s.second.c_str());
  start_shell(opt.shell_port);
  return true;
}

// The timeline: the start mode, then 2, 7 and 1, back to the start mode,
// with a picture of display 0 at the end of each stage.
void play_timeline(demo &d) {
  const options &opt = d.opt;
  const int sequence[] = {opt.mode, 2, 7, 1, opt.mode};
  const int stages = static_cast<int>(sizeof sequence / sizeof sequence[0]);
  const double stage = opt.duration > 0 ? opt.duration / static_cast<double>(stages) : 3.0;
  bool running = true;
  for (int i = 0; i < stages && running; ++i) {
    if (i > 0 && show_mode(d, sequence[i]) == 0)
      printf("orlo-demo: display mode %d\n", sequence[i]);
    running = sleep_unless_interrupted(stage);
    char name[64];
    snprintf(name, sizeof name, "display0-%d-mode%d.png", i + 1, sequence[i]);
    write_display(d, 0, name);
    if (i == 0) {
      take_snapshot(d, opt.snapshot_ch);
      take_thumbnail(d, opt.snapshot_ch);
    }
  }
  if (opt.duration == 0) {
    printf("orlo-demo: running until interrupted (Ctrl-C)\n");
    while (sleep_unless_interrupted(1.0)) {
    }
  }
}

int run(demo &d) {
  const options &opt = d.opt;
  if (g_mkdir_with_parents(opt.out.c_str(), 0755) != 0) {
    fprintf(stderr, "orlo-demo: cannot make the output folder %s\n", opt.out.c_str());
    return 1;
  }
  if (!bring_up(d)) return 1;
  play_timeline(d);
  write_display(d, 0, "display0.png");
  write_display(d, 2, "display2.png");
  print_statistics(d);
  orlo_display_print_statistics(d.h_display, 0, 0);
  printf("orlo-demo: done; pictures in %s/\n", opt.out.c_str());
  return d.snapshots.load() > 0 && d.thumbnails.load() > 0 ? 0 : 2;
}

// Stops what runs and lets go of what the demo holds: the live pipe's
// pipeline goes to NULL (the source's threads end) and its record is freed,
// the engine stops, and the kept intra frames are released.  The pipe's
// parked thread, the display handle and the shell's thread are the library's
// to the end of the process.
void shut_down(demo &d) {
  if (d.h_lumen_pipe != nullptr) {
    orlo_lumen_pipe_stop(d.h_lumen_pipe);
    orlo_lumen_pipe_delete(d.h_lumen_pipe);
    d.h_lumen_pipe = nullptr;
  }
  if (d.h_display != nullptr) orlo_display_stop(d.h_display);
  std::lock_guard<std::mutex> lock(d.intra_lock);
  for (GstBuffer *&frame : d.last_intra) {
    if (frame != nullptr) gst_buffer_unref(frame);
    frame = nullptr;
  }
}

}  // namespace

int main(int argc, char **argv) {
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (!parse_options(argc, argv, g_demo.opt)) return 64;
  if (!sources_within_channels(g_demo.opt)) return 2;
  set_plugin_path();
  std::signal(SIGINT, on_signal);
  std::signal(SIGTERM, on_signal);
  const int status = run(g_demo);
  shut_down(g_demo);
  return status;
}
