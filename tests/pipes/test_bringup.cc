// The bring-up routine: the display over the recording engine, its stream
// slots, and a real live pipe, playing and bound at sink index 0.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "orlo_display.h"
#include "orlo_lumen_pipe.h"
#include "pipes_fixture.hh"
#include "plug_and_detect.h"

namespace {

using namespace pipes_test;

// What the routine keeps to itself, caught on the way.
std::atomic<orlo_display_t *> seen_display{nullptr};
std::atomic<orlo_lumen_pipe_t *> seen_pipe{nullptr};
std::atomic<int> seen_count{-1};
std::vector<int64_t> seen_new_args;  // engine_opt .. h_audio, then cfg

// Runs the test in a folder of its own, where the hardware's signal file
// may come.
void enter(const temp_dir &dir) { ASSERT_EQ(chdir(dir.path.c_str()), 0); }
void signal_ready() { g_file_set_contents("zebstart", "", 0, nullptr); }

}  // namespace

// Spies that stand between the routine and the library: each records what it
// sees and hands on to the real function.
extern "C" orlo_display_t *orlo_display_new(const int32_t *formats, int32_t engine_opt,
                                            int32_t ch_count, int32_t reserved,
                                            int32_t n_display_ids, int32_t h_audio,
                                            const orlo_display_cfg_t *cfg) {
  static auto real =
      reinterpret_cast<decltype(&orlo_display_new)>(dlsym(RTLD_NEXT, "orlo_display_new"));
  orlo_display_t *h = real(formats, engine_opt, ch_count, reserved, n_display_ids, h_audio, cfg);
  seen_display = h;
  seen_new_args = {engine_opt,    ch_count, reserved,
                   n_display_ids, h_audio,  reinterpret_cast<intptr_t>(cfg)};
  return h;
}

extern "C" int plug_and_detect_init(void *pipe, int count) {
  static auto real =
      reinterpret_cast<decltype(&plug_and_detect_init)>(dlsym(RTLD_NEXT, "plug_and_detect_init"));
  seen_pipe = static_cast<orlo_lumen_pipe_t *>(pipe);
  seen_count = count;
  return real(pipe, count);
}

TEST(BringUp, FourSyntheticCamerasReachPortZeroThroughTheRenderWorker) {
  temp_dir dir;
  enter(dir);
  signal_ready();

  testing::internal::CaptureStdout();
  test_orlo_display_new();
  fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "bind pipe to ravel\n")
      << "no wait line with the file present";

  orlo_display_t *h = seen_display;
  orlo_lumen_pipe_t *pipe = seen_pipe;
  ASSERT_NE(h, nullptr);
  ASSERT_NE(pipe, nullptr);
  EXPECT_EQ(seen_count, 4);
  EXPECT_EQ(seen_new_args, (std::vector<int64_t>{0, 4, 4, 1, -1, 0}));
  for (int i = 0; i < ORLO_MAX_VR; ++i) EXPECT_EQ(h->channels[i], i < 4 ? i : -1);
  EXPECT_EQ(h->disp_width, 1920) << "the field after the 37 channels";
  EXPECT_EQ(h->config_mode, 13);
  EXPECT_EQ(h->sinks[0], orlo_lumen_pipe_get_kelappsink(pipe));
  // Slots 32..35 on, on port 0, waiting for their first intra frame.
  for (int slot = 0; slot < ORLO_MAX_SLOT; ++slot) {
    const int on = slot >= 32 && slot <= 35 ? 1 : 0;
    EXPECT_EQ((std::vector<int>{h->ch_enable[slot], h->ch_port[slot], h->ch_wait_first[slot]}),
              (std::vector<int>{on, 0, on}))
        << slot;
  }
  EXPECT_EQ(GST_STATE(pipe->pipeline), GST_STATE_PLAYING);
  orlo_lumen_pipe_stop(pipe);
}

TEST(BringUp, WaitsForTheHardwareSignalFileOncePerSecond) {
  if (getenv("ORLO_TEST_EMULATED") != nullptr)
    GTEST_SKIP() << "left out under the emulator: under qemu-arm the routine's wait line "
                    "was never seen (not yet explained), and the hardware would never come";
  temp_dir dir;
  enter(dir);
  // Standard output into a pipe: the hardware comes up once the routine has
  // said twice that it waits.
  const std::string wait = "wait for vpss, ti81xxfb ... \n", bind = "bind pipe to ravel\n";
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
      if (out.size() >= 2 * wait.size()) signal_ready();
    }
  });
  test_orlo_display_new();
  fclose(stdout);  // the pipe's writer gone: the reader ends
  stdout = saved;
  reader.join();
  close(fds[0]);
  // The file is looked for at once and then once a second after each line:
  // a third line only when the file came late.
  EXPECT_TRUE(out == wait + wait + bind || out == wait + wait + wait + bind) << out;
  ASSERT_NE(seen_pipe.load(), nullptr);
  orlo_lumen_pipe_stop(seen_pipe);
}
