// The graphics plane's alpha through the framebuffer driver, with the
// driver's stand-in answering or refusing each step.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "fb_stub.h"
#include "log_capture.hh"
#include "orlo_display.h"

namespace {

using testing_support::log_capture;
using texts = std::vector<std::string>;

constexpr unsigned long kGet = 0x80304E03UL;
constexpr unsigned long kSet = 0x40304E02UL;

struct alpha_case {
  const char *label;
  fbstub_behaviour behaviour;
  int result;
  std::vector<unsigned long> requests;
  int closes;
  texts warnings;
};
void PrintTo(const alpha_case &c, std::ostream *os) { *os << c.label; }

class GraphicsAlpha : public ::testing::TestWithParam<alpha_case> {};

TEST_P(GraphicsAlpha, StepsResultAndClose) {
  const alpha_case &p = GetParam();
  log_capture log;
  fbstub_reset(p.behaviour);
  EXPECT_EQ(orlo_display_grpx_set_alpha(0x5a), p.result);
  EXPECT_EQ(fbstub_opens(), 1);
  EXPECT_EQ(fbstub_open_flags() & O_ACCMODE, O_RDWR);
  ASSERT_EQ(fbstub_request_count(), static_cast<int>(p.requests.size()));
  for (size_t i = 0; i < p.requests.size(); i++)
    EXPECT_EQ(fbstub_request(static_cast<int>(i)), p.requests[i]) << i;
  EXPECT_EQ(fbstub_closes(), p.closes);
  EXPECT_FALSE(fbstub_is_open());
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING), p.warnings);
}

INSTANTIATE_TEST_SUITE_P(
    Driver, GraphicsAlpha,
    ::testing::Values(
        alpha_case{"accepts", FBSTUB_OK, 0, {kGet, kSet}, 1, {}},
        alpha_case{"no_device", FBSTUB_OPEN_FAILS, -1, {}, 0, {"failed to open display\n"}},
        alpha_case{"read_refused", FBSTUB_GET_FAILS, -1, {kGet}, 1, {"TIFB_GET_PARAMS fail\n"}},
        alpha_case{
            "write_refused", FBSTUB_SET_FAILS, -1, {kGet, kSet}, 1, {"TIFB_SET_PARAMS fail\n"}}),
    [](const auto &info) { return std::string(info.param.label); });

// Two fields change; every other byte goes back as the driver gave it, and
// each call opens the device anew.
TEST(GraphicsAlpha, WritesAlphaByteAndEnableWordOnly) {
  for (int alpha : {0x5a, 0, 255, 0x1ab}) {
    SCOPED_TRACE(alpha);
    fbstub_reset(FBSTUB_OK);
    ASSERT_EQ(orlo_display_grpx_set_alpha(alpha), 0);
    EXPECT_EQ(fbstub_opens(), 1);
    EXPECT_EQ(fbstub_closes(), 1);
    const unsigned char *p = fbstub_set_params();
    for (int i = 0; i < FBSTUB_PARAMS_SIZE; i++)
      if (i != 45 && (i < 32 || i >= 36)) {
        EXPECT_EQ(p[i], 0x10 + i) << i;
      }
    EXPECT_EQ(p[45], alpha & 0xff);
    int32_t enable;
    std::memcpy(&enable, p + 32, sizeof enable);
    EXPECT_EQ(enable, 1);
  }
}

}  // namespace
