// Creation of the display handle over the engine, and the engine's stop.
#include <gtest/gtest.h>

#include <cstring>

#include "fake_engine.hh"
#include "log_capture.hh"
#include "orlo_display.h"

namespace {

using testing_support::log_capture;

struct engine_view {
  int32_t ids[4];
  int32_t block[4];
  int32_t format;
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
  EXPECT_EQ(a[1], 123);
  EXPECT_EQ(a[2], 16);
  EXPECT_EQ(a[3], 1);
  EXPECT_EQ(a[4], 0);
  EXPECT_NE(a[5], 0);  // the release function
  EXPECT_EQ(a[6], 0);
  EXPECT_EQ(a[7], 0);
  EXPECT_EQ(a[8], 0);
  EXPECT_EQ(a[9], 24);
  EXPECT_EQ(a[11], 6);
  engine_view v = view_of(calls[0]);
  for (int i = 0; i < 4; i++) {
    EXPECT_EQ(v.ids[i], 0);
    EXPECT_EQ(v.block[i], 0);
  }

  EXPECT_EQ(h->ch_count, 16);
  EXPECT_EQ(h->disp_width, 1920);
  EXPECT_EQ(h->disp_height, 1080);
  EXPECT_EQ(h->main_port, -1);
  EXPECT_EQ(h->config_mode, 0);
  EXPECT_EQ(h->engine_started, 0);
  EXPECT_EQ(h->jpeg_live_arg, 0);
  EXPECT_EQ(h->h_audio, 0);
  EXPECT_EQ(h->audio_ch, -1);
  EXPECT_EQ(h->audio_all, 0);
  for (GMutex *m : {h->mutex, h->mutex_image, h->mutex_jpeg, h->mutex_jpegsnap})
    EXPECT_NE(m, nullptr);
  EXPECT_NE(h->cond_image, nullptr);
  EXPECT_NE(h->cond_jpeg, nullptr);
  for (int i = 0; i < ORLO_MAX_SLOT; i++) {
    EXPECT_EQ(h->ch_enable[i], 0);
    EXPECT_EQ(h->ch_first_cb[i], nullptr);
  }
  for (int i = 0; i < ORLO_MAX_SINK; i++) EXPECT_EQ(h->sinks[i], nullptr);
  for (int i = 0; i < ORLO_MAX_PORT; i++) EXPECT_EQ(h->port_state[i], 0);
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

  std::vector<std::string> expected = {"display id:2.", "wrong display id:7! default to HDMI.",
                                       "display id:0.", "wrong display id:-1! default to HDMI.",
                                       "display id:0."};
  EXPECT_EQ(log.texts(G_LOG_LEVEL_MESSAGE), expected);

  auto c = fake_engine::calls("ravel_new").at(0);
  engine_view v = view_of(c);
  EXPECT_EQ(v.ids[0], 2);
  EXPECT_EQ(v.ids[1], 0);
  EXPECT_EQ(v.ids[2], 0);
  EXPECT_EQ(v.ids[3], 0);
  EXPECT_EQ(c.args[11], 41);
  EXPECT_EQ(v.block[0], 1);
  EXPECT_EQ(v.block[3], 4);
  // The block goes by address as a private copy, never the caller's record.
  EXPECT_NE(c.args[12], reinterpret_cast<intptr_t>(cfg.engine_block));
  EXPECT_EQ(h->disp_width, 1280);
  EXPECT_EQ(h->disp_height, 720);
}

TEST(DisplayNew, NoIdsStillTakesWordAndBlock) {
  log_capture log;
  const int32_t formats[] = {0};
  orlo_display_cfg_t cfg{};
  cfg.display_ids[0] = 9;
  cfg.engine_word = 5;
  cfg.engine_block[1] = 8;
  ASSERT_NE(orlo_display_new(formats, 0, 4, 0, 0, -1, &cfg), nullptr);
  EXPECT_TRUE(log.texts(G_LOG_LEVEL_MESSAGE).empty());
  auto c = fake_engine::calls("ravel_new").at(0);
  EXPECT_EQ(c.args[11], 5);
  EXPECT_EQ(view_of(c).block[1], 8);
  EXPECT_EQ(view_of(c).ids[0], 0);
}

struct format_case {
  int32_t format;
  int width;
  int height;
};

class DisplayFormat : public ::testing::TestWithParam<format_case> {};

TEST_P(DisplayFormat, SizeOfFirstDisplay) {
  const int32_t formats[] = {GetParam().format};
  orlo_display_t *h = orlo_display_new(formats, 0, 4, 0, 1, -1, nullptr);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->disp_width, GetParam().width);
  EXPECT_EQ(h->disp_height, GetParam().height);
}

INSTANTIATE_TEST_SUITE_P(
    Table, DisplayFormat,
    ::testing::Values(format_case{0, 1920, 1080}, format_case{1, 1920, 1080},
                      format_case{9, 1920, 1080}, format_case{11, 1920, 1080},
                      format_case{3, 1280, 720}, format_case{10, 1280, 720},
                      format_case{15, 1280, 720}, format_case{4, 1280, 1024},
                      format_case{13, 1280, 1024}, format_case{6, 800, 600},
                      format_case{17, 800, 600}, format_case{18, 640, 480},
                      format_case{19, 640, 480}, format_case{7, 720, 576},
                      format_case{8, 720, 480}),
    [](const auto &info) { return "format_" + std::to_string(info.param.format); });

class DisplayFormatRefused : public ::testing::TestWithParam<int32_t> {};

TEST_P(DisplayFormatRefused, NoHandleAndAWarningAfterTheEngineRan) {
  log_capture log;
  const int32_t formats[] = {GetParam()};
  EXPECT_EQ(orlo_display_new(formats, 0, 4, 0, 1, -1, nullptr), nullptr);
  EXPECT_EQ(fake_engine::calls("ravel_new").size(), 1u);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING,
                      "not supported display format:" + std::to_string(GetParam()) + "\n"));
}

INSTANTIATE_TEST_SUITE_P(Outside, DisplayFormatRefused, ::testing::Values(5, 16, 2, 12, 20, -1));

TEST(DisplayNew, AudioDescriptorIsKeptAndMinusOneMeansNone) {
  const int32_t formats[] = {0};
  orlo_display_t *h = orlo_display_new(formats, 0, 4, 0, 1, 7, nullptr);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->h_audio, 7);
  EXPECT_EQ(h->audio_ch, -1);
}

TEST(DisplayNew, AudioDescriptorZeroIsRefusedBeforeTheEngine) {
  log_capture log;
  const int32_t formats[] = {0};
  EXPECT_EQ(orlo_display_new(formats, 0, 4, 0, 1, 0, nullptr), nullptr);
  EXPECT_TRUE(fake_engine::calls("ravel_new").empty());
  EXPECT_TRUE(log.has(G_LOG_LEVEL_CRITICAL,
                      "orlo_display_new: assertion 'h_display->h_audio != 0' failed"));
}

TEST(DisplayNew, MoreThanFourDisplayIdsAndNullFormatsAreRefused) {
  log_capture log;
  const int32_t formats[] = {0};
  orlo_display_cfg_t cfg{};
  EXPECT_EQ(orlo_display_new(formats, 0, 4, 0, 5, -1, &cfg), nullptr);
  EXPECT_EQ(orlo_display_new(nullptr, 0, 4, 0, 1, -1, nullptr), nullptr);
  EXPECT_TRUE(fake_engine::calls("ravel_new").empty());
  EXPECT_EQ(log.texts(G_LOG_LEVEL_CRITICAL).size(), 2u);
}

TEST(DisplayNew, EngineRefusalGivesNoHandle) {
  fake_engine::script_result("ravel_new", 0);
  const int32_t formats[] = {0};
  EXPECT_EQ(orlo_display_new(formats, 0, 4, 0, 1, -1, nullptr), nullptr);
}

TEST(DisplayStop, StopsTheEngineWithOrWithoutHandle) {
  const int32_t formats[] = {0};
  orlo_display_t *h = orlo_display_new(formats, 0, 4, 0, 1, -1, nullptr);
  ASSERT_NE(h, nullptr);
  h->engine_started = 1;
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(orlo_display_stop(nullptr), 0);
  EXPECT_EQ(h->engine_started, 1);
  EXPECT_EQ(orlo_display_stop(h), 0);
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_EQ(h->engine_started, 0);
  auto stops = fake_engine::calls("ravel_stop");
  ASSERT_EQ(stops.size(), 2u);
  EXPECT_EQ(stops[0].args[0], reinterpret_cast<intptr_t>(fake_engine::handle()));
  EXPECT_EQ(out.rfind("orlo_display_stop:", 0), 0u) << out;
}

TEST(DisplayStart, CopiesTheListAndLogsOnly) {
  log_capture log;
  const int32_t formats[] = {0};
  orlo_display_t *h = orlo_display_new(formats, 0, 4, 0, 1, -1, nullptr);
  ASSERT_NE(h, nullptr);
  orlo_vr_t vr[ORLO_MAX_VR];
  for (int i = 0; i < ORLO_MAX_VR; i++) vr[i] = orlo_vr_t{i, 1, 2, 3, 4, 1, -1, -1, -1, -1, 0};
  size_t before = fake_engine::calls().size();
  orlo_display_start(h, vr);
  EXPECT_EQ(std::memcmp(h->vr, vr, sizeof vr), 0);
  EXPECT_EQ(fake_engine::calls().size(), before);
  EXPECT_TRUE(log.has(G_LOG_LEVEL_WARNING,
                      "====================== change geometry ==================\n"));
}

}  // namespace
