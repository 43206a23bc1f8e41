// Creation of the display handle over the engine, and the engine's stop.
#include "display_fixture.hh"
#include "display_format.hh"

namespace {

using namespace display_test;

// The display list and the block as ravel_new saw them.
std::vector<int32_t> ids_and_block(const fake_engine::call &c) {
  std::vector<int32_t> v(8);
  std::memcpy(v.data(), c.record.data(), 32);
  return v;
}

// Without a configuration: zero ids, word six and a zero block.  With one: a
// wrong display id becomes HDMI and the words go to the engine.
TEST(DisplayNew, EngineArgumentsWithAndWithoutConfig) {
  const int32_t formats17[] = {17};
  orlo_display_t *h = orlo_display_new(formats17, 123, 16, 99, 1, -1, nullptr);
  ASSERT_NE(h, nullptr);
  auto c = fake_engine::calls("ravel_new").at(0);
  EXPECT_NE(c.args[5], 0);  // the release function
  c.args[5] = 0;
  EXPECT_EQ(args_t(c.args.begin(), c.args.begin() + 12),
            (args_t{reinterpret_cast<intptr_t>(formats17), 123, 16, 1, 0, 0, 0, 0, 0, 24,
                    c.args[10], 6}));
  EXPECT_EQ(ids_and_block(c), std::vector<int32_t>(8, 0));
  EXPECT_EQ((std::vector<int>{h->disp_width, h->disp_height, h->main_port, h->h_audio, h->audio_ch,
                              h->audio_all, h->config_mode, h->engine_started, h->ch_count}),
            (std::vector<int>{800, 600, -1, 0, -1, 0, 0, 0, 16}));
  // A display is never freed: the first stays reachable for the leak checker.
  static orlo_display_t *first = h;
  (void)first;

  log_capture log;
  const int32_t formats[] = {0};
  // The fourth id lies beyond n_display_ids; the record ends a page, so
  // nothing past it may be read.
  orlo_display_cfg_t &cfg = *at_page_end<orlo_display_cfg_t>();
  cfg = orlo_display_cfg_t{{2, 7, -1, 3}, 41, {1, 0, 0, 4}};
  h = orlo_display_new(formats, 0, 4, 0, 3, 5, &cfg);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_MESSAGE),
            (names{"display id:2.", "wrong display id:7! default to HDMI.", "display id:0.",
                   "wrong display id:-1! default to HDMI.", "display id:0."}));
  c = fake_engine::calls("ravel_new").at(1);
  EXPECT_EQ(ids_and_block(c), (std::vector<int32_t>{2, 0, 0, 0, 1, 0, 0, 4}));
  EXPECT_EQ(c.args[11], 41);
  EXPECT_NE(c.args[12], reinterpret_cast<intptr_t>(cfg.engine_block));  // a private copy
  EXPECT_EQ(h->h_audio, 5);
}

TEST(DisplayNew, FormatsAndRefusals) {
  // Width and height by format number, 0 for none.
  const int w[20] = {1920, 1920, 0, 1280, 1280, 0,    800, 720, 720, 1920,
                     1280, 1920, 0, 1280, 0,    1280, 0,   800, 640, 640};
  const int h[20] = {1080, 1080, 0, 720,  1024, 0,   600, 576, 480, 1080,
                     720,  1080, 0, 1024, 0,    720, 0,   600, 480, 480};
  for (int f = 0; f < 20; f++)
    EXPECT_EQ(std::pair(orlo::size_of_format(f).width, orlo::size_of_format(f).height),
              std::pair(w[f], h[f]))
        << f;
  log_capture log;
  const int32_t formats[] = {16};
  orlo_display_cfg_t cfg{};
  EXPECT_EQ(orlo_display_new(formats, 0, 4, 0, 1, 0, nullptr), nullptr);  // h_audio 0
  EXPECT_EQ(orlo_display_new(formats, 0, 4, 0, 5, -1, &cfg), nullptr);    // five display ids
  EXPECT_TRUE(fake_engine::calls("ravel_new").empty());
  EXPECT_EQ(log.texts(G_LOG_LEVEL_CRITICAL),
            (names{"orlo_display_new: assertion 'h_display->h_audio != 0' failed",
                   "orlo_display_new: assertion 'n_display_ids <= 4' failed"}));
  // A format outside the table is judged after the engine stands.
  EXPECT_EQ(orlo_display_new(formats, 0, 4, 0, 4, -1, &cfg), nullptr);
  EXPECT_EQ(fake_engine::calls("ravel_new").size(), 1u);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING, "not supported display format:16\n"));
  fake_engine::script_result("ravel_new", 0);
  const int32_t good[] = {0};
  EXPECT_EQ(orlo_display_new(good, 0, 4, 0, 1, -1, nullptr), nullptr);
}

// Check and statistics are silent until the first start, and open from then
// on, even after a stop.
TEST(DisplayStopStart, StopWithOrWithoutHandleGatedCallsAndStartCopiesOnly) {
  log_capture log;
  orlo_display_t *h = make_display(0, 4);
  fake_engine::script_result("ravel_check_alive_m3", 11);
  fake_engine::script_result("ravel_print_statistics", 12);
  EXPECT_EQ(orlo_display_check_processor(h, 1, 2) + orlo_display_print_statistics(h, 1, 2), 0);
  ASSERT_EQ(orlo_display_mode_start(h, 1), 0);
  const std::string out = printed_by([&] {
    EXPECT_EQ(orlo_display_stop(nullptr), 0);
    EXPECT_EQ(h->engine_started, 1);
    EXPECT_EQ(orlo_display_stop(h), 0);
  });
  EXPECT_EQ(h->engine_started, 0);
  EXPECT_EQ(fake_engine::calls("ravel_stop").size(), 2u);
  EXPECT_EQ(fake_engine::calls("ravel_stop").at(1).args, with_engine({}));
  EXPECT_TRUE(std::regex_match(out, std::regex("(orlo_display_stop:[0-9]+\n){2}"))) << out;
  EXPECT_EQ(orlo_display_check_processor(h, 1, 2), 11);
  EXPECT_EQ(orlo_display_print_statistics(h, 3, 4), 12);
  EXPECT_EQ(fake_engine::calls("ravel_check_alive_m3").at(0).args, with_engine({1, 2}));
  EXPECT_EQ(fake_engine::calls("ravel_print_statistics").at(0).args, with_engine({3, 4}));

  orlo_vr_t vr[ORLO_MAX_VR];
  for (int i = 0; i < ORLO_MAX_VR; i++) vr[i] = R(i, 1, 2, 3, 4);
  fake_engine::reset();
  orlo_display_start(h, vr);
  EXPECT_EQ(std::memcmp(h->vr, vr, sizeof vr), 0);
  EXPECT_TRUE(fake_engine::calls().empty());
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING),
            names{"====================== change geometry ==================\n"});
}

}  // namespace
