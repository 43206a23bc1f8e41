// Creation of the display handle over the engine, and the engine's stop.
#include <cstring>

#include "display_fixture.hh"

namespace {

using testing_support::log_capture;

struct engine_view {
  int32_t ids[4];
  int32_t block[4];
};

engine_view view_of(const fake_engine::call &c) {
  engine_view v{};
  std::memcpy(&v, c.record.data(), sizeof v);
  return v;
}

TEST(DisplayNew, NoConfigGivesZeroIdsWordSixAndZeroBlock) {
  const int32_t formats[] = {0, 77};
  orlo_display_t *h = orlo_display_new(formats, 123, 16, 99, 1, -1, nullptr);
  ASSERT_NE(h, nullptr);
  auto calls = fake_engine::calls("ravel_new");
  ASSERT_EQ(calls.size(), 1u);
  const auto &a = calls[0].args;
  EXPECT_EQ(a[0], reinterpret_cast<intptr_t>(formats));  // the pointer goes on as given
  const int64_t words[] = {123, 16, 1, 0};
  for (int i = 0; i < 4; i++) EXPECT_EQ(a[1 + i], words[i]) << i;
  EXPECT_NE(a[5], 0);  // the release function
  EXPECT_EQ(std::vector<int64_t>(a.begin() + 6, a.begin() + 10),
            (std::vector<int64_t>{0, 0, 0, 24}));
  EXPECT_EQ(a[11], 6);
  engine_view v = view_of(calls[0]);
  for (int i = 0; i < 4; i++) EXPECT_EQ(v.ids[i] | v.block[i], 0) << i;
  EXPECT_EQ(h->disp_width, 1920);
  EXPECT_EQ(h->disp_height, 1080);
  EXPECT_EQ(h->main_port, -1);
  EXPECT_EQ(h->h_audio, 0);  // -1: no audio
  EXPECT_EQ(h->audio_ch, -1);
}

TEST(DisplayNew, WrongDisplayIdBecomesHdmiAndConfigWordsGoToEngine) {
  log_capture log;
  const int32_t formats[] = {3};
  orlo_display_cfg_t cfg{};
  cfg.display_ids[0] = 2;
  cfg.display_ids[1] = 7;
  cfg.display_ids[2] = -1;
  cfg.display_ids[3] = 3;  // beyond n_display_ids: never read
  cfg.engine_word = 41;
  cfg.engine_block[0] = 1;
  cfg.engine_block[3] = 4;
  orlo_display_t *h = orlo_display_new(formats, 0, 4, 0, 3, -1, &cfg);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_MESSAGE),
            (std::vector<std::string>{"display id:2.", "wrong display id:7! default to HDMI.",
                                      "display id:0.", "wrong display id:-1! default to HDMI.",
                                      "display id:0."}));
  auto c = fake_engine::calls("ravel_new").at(0);
  engine_view v = view_of(c);
  EXPECT_EQ(std::vector<int32_t>(v.ids, v.ids + 4), (std::vector<int32_t>{2, 0, 0, 0}));
  EXPECT_EQ(c.args[11], 41);
  EXPECT_EQ(v.block[0], 1);
  EXPECT_EQ(v.block[3], 4);
  // The block goes by address as a private copy, never the caller's record.
  EXPECT_NE(c.args[12], reinterpret_cast<intptr_t>(cfg.engine_block));
  EXPECT_EQ(h->disp_width, 1280);
  EXPECT_EQ(h->disp_height, 720);
}

// Formats 0..19 by their size; 0 x 0 marks a refused format.
struct format_case {
  int32_t format;
  int width, height;
};

class DisplayFormat : public ::testing::TestWithParam<format_case> {};

TEST_P(DisplayFormat, SizeOfFirstDisplayOrRefusal) {
  const format_case &p = GetParam();
  log_capture log;
  const int32_t formats[] = {p.format};
  orlo_display_t *h = orlo_display_new(formats, 0, 4, 0, 1, -1, nullptr);
  EXPECT_EQ(fake_engine::calls("ravel_new").size(), 1u);
  if (p.width == 0) {
    EXPECT_EQ(h, nullptr);
    EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING,
                        "not supported display format:" + std::to_string(p.format) + "\n"));
    return;
  }
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->disp_width, p.width);
  EXPECT_EQ(h->disp_height, p.height);
}

INSTANTIATE_TEST_SUITE_P(Table, DisplayFormat,
                         ::testing::Values(format_case{0, 1920, 1080}, format_case{1, 1920, 1080},
                                           format_case{9, 1920, 1080}, format_case{11, 1920, 1080},
                                           format_case{3, 1280, 720}, format_case{10, 1280, 720},
                                           format_case{15, 1280, 720}, format_case{4, 1280, 1024},
                                           format_case{13, 1280, 1024}, format_case{6, 800, 600},
                                           format_case{17, 800, 600}, format_case{18, 640, 480},
                                           format_case{19, 640, 480}, format_case{7, 720, 576},
                                           format_case{8, 720, 480}, format_case{5, 0, 0},
                                           format_case{12, 0, 0}, format_case{20, 0, 0},
                                           format_case{-1, 0, 0}),
                         [](const auto &info) {
                           int f = info.param.format;
                           return (f < 0 ? "format_minus_" : "format_") +
                                  std::to_string(f < 0 ? -f : f);
                         });

TEST(DisplayNew, BadArgumentsAreRefusedBeforeTheEngine) {
  log_capture log;
  const int32_t formats[] = {0};
  orlo_display_cfg_t cfg{};
  EXPECT_EQ(orlo_display_new(formats, 0, 4, 0, 1, 0, nullptr), nullptr);  // h_audio 0
  EXPECT_EQ(orlo_display_new(formats, 0, 4, 0, 5, -1, &cfg), nullptr);    // five display ids
  EXPECT_EQ(orlo_display_new(nullptr, 0, 4, 0, 1, -1, nullptr), nullptr);
  EXPECT_TRUE(fake_engine::calls("ravel_new").empty());
  auto crit = log.texts(G_LOG_LEVEL_CRITICAL);
  ASSERT_EQ(crit.size(), 3u);
  EXPECT_EQ(crit[0], "orlo_display_new: assertion 'h_display->h_audio != 0' failed");
}

TEST(DisplayNew, EngineRefusalGivesNoHandle) {
  fake_engine::script_result("ravel_new", 0);
  const int32_t formats[] = {0};
  EXPECT_EQ(orlo_display_new(formats, 0, 4, 0, 1, -1, nullptr), nullptr);
}

TEST(DisplayStopStart, StopWithOrWithoutHandleAndStartCopiesOnly) {
  log_capture log;
  orlo_display_t *h = display_test::make_display(0, 4);
  h->engine_started = 1;
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(orlo_display_stop(nullptr), 0);
  EXPECT_EQ(h->engine_started, 1);
  EXPECT_EQ(orlo_display_stop(h), 0);
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(h->engine_started, 0);
  auto stops = fake_engine::calls("ravel_stop");
  ASSERT_EQ(stops.size(), 2u);
  EXPECT_EQ(stops[0].args[0], display_test::engine_word());
  EXPECT_EQ(out.rfind("orlo_display_stop:", 0), 0u) << out;

  orlo_vr_t vr[ORLO_MAX_VR];
  for (int i = 0; i < ORLO_MAX_VR; i++) vr[i] = orlo_vr_t{i, 1, 2, 3, 4, 1, -1, -1, -1, -1, 0};
  size_t before = fake_engine::calls().size();
  orlo_display_start(h, vr);
  EXPECT_EQ(std::memcmp(h->vr, vr, sizeof vr), 0);
  EXPECT_EQ(fake_engine::calls().size(), before);
  EXPECT_TRUE(
      log.has(G_LOG_LEVEL_WARNING, "====================== change geometry ==================\n"));
}

}  // namespace
