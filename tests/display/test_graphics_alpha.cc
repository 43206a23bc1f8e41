// The graphics plane's alpha through the framebuffer driver, with the
// driver's stand-in answering or refusing each step.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fb_stub.h"
#include "log_capture.hh"
#include "orlo_display.h"

namespace {

using requests = std::vector<unsigned long>;
constexpr unsigned long kGet = 0x80304E03UL, kSet = 0x40304E02UL;

// Each call opens the device anew and closes it on every way out; two fields
// change, every other byte goes back as the driver gave it.
TEST(GraphicsAlpha, StepsResultCloseAndWrittenFields) {
  const struct {
    fbstub_behaviour behaviour;
    int alpha, result;
    requests seen;
    std::vector<std::string> warnings;
  } cases[] = {
      {FBSTUB_OK, 0x5a, 0, {kGet, kSet}, {}},
      {FBSTUB_OK, 0x1ab, 0, {kGet, kSet}, {}},
      {FBSTUB_OPEN_FAILS, 0, -1, {}, {"failed to open display\n"}},
      {FBSTUB_GET_FAILS, 0, -1, {kGet}, {"TIFB_GET_PARAMS fail\n"}},
      {FBSTUB_SET_FAILS, 0, -1, {kGet, kSet}, {"TIFB_SET_PARAMS fail\n"}},
  };
  for (const auto &p : cases) {
    SCOPED_TRACE(p.behaviour);
    testing_support::log_capture log;
    fbstub = {};
    fbstub.fd = -1;
    fbstub.behaviour = p.behaviour;
    EXPECT_EQ(orlo_display_grpx_set_alpha(p.alpha), p.result);
    EXPECT_EQ(fbstub.opens, 1);
    EXPECT_EQ(fbstub.open_flags & O_ACCMODE, O_RDWR);
    EXPECT_EQ(requests(fbstub.requests, fbstub.requests + fbstub.n_requests), p.seen);
    EXPECT_EQ(fbstub.closes, p.behaviour == FBSTUB_OPEN_FAILS ? 0 : 1);
    EXPECT_EQ(fbstub.fd, -1);
    EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING), p.warnings);
    if (p.result != 0) continue;
    std::vector<uint8_t> expected(48);
    for (int i = 0; i < 48; i++) expected[i] = static_cast<uint8_t>(0x10 + i);
    const int32_t enable = 1;
    std::memcpy(expected.data() + 32, &enable, 4);
    expected[45] = static_cast<uint8_t>(p.alpha);
    EXPECT_EQ(std::vector<uint8_t>(fbstub.set_params, fbstub.set_params + 48), expected);
  }
}

}  // namespace
