// The engine's other calls: set values are kept and read back, statistics
// are printed.
#include <cstring>

#include "engine_harness.hh"

namespace engine_test {
namespace {

class engine_calls : public engine_harness {};

TEST_F(engine_calls, SettingsAreKeptAndAnsweredAsOnTheDevice) {
  start(0);
  EXPECT_EQ(ravel_set_encode_bitrate(engine_, 3, 1, 2048), 0);
  int32_t bitrate = -1;
  EXPECT_EQ(ravel_get_encode_bitrate(engine_, 3, 1, &bitrate), 0);
  EXPECT_EQ(bitrate, 2048);
  EXPECT_EQ(ravel_get_encode_bitrate(engine_, 4, 1, &bitrate), 0);
  EXPECT_EQ(bitrate, 0);
  ravel_mask_t mask{};
  mask.count = 5;
  EXPECT_EQ(ravel_set_mask(engine_, &mask), -1) << "room for four entries";
  mask.count = 2;
  EXPECT_EQ(ravel_set_mask(engine_, &mask), 0);
  ravel_ip_osd_t osd{};
  std::memset(osd.text, 'x', sizeof osd.text);  // not terminated: kept safely all the same
  EXPECT_EQ(ravel_set_ip_osd_enable(engine_, &osd), 0);
  EXPECT_EQ(ravel_set_sys_time_init(5), 0);
  EXPECT_EQ(ravel_set_sys_time_sync(6), 0);
  EXPECT_EQ(ravel_set_time(engine_, 1, 123456789ULL, 2), 0);
  EXPECT_EQ(ravel_check_alive_m3(engine_, 0, 0), 1);
  EXPECT_NE(ravel_get_hostcomm_addr(engine_, 0, 0), 0u);
  EXPECT_EQ(ravel_get_hostcomm_addr(nullptr, 0, 0), 0u);
  EXPECT_EQ(ravel_set_display_enable(engine_, 0, 0), 0);
  EXPECT_EQ(ravel_set_mirror(engine_, nullptr), -1);
}

TEST_F(engine_calls, StatisticsArePrintedPerPort) {
  start(0);
  push_all(9, stream({100, 100, 100}, 3));
  ASSERT_TRUE(handled(9, 3));
  ::testing::internal::CaptureStdout();
  EXPECT_EQ(ravel_print_statistics(engine_, 0, 0), 0);
  std::string out = ::testing::internal::GetCapturedStdout();
  EXPECT_NE(out.find("ravel statistics"), std::string::npos) << out;
  EXPECT_NE(out.find("   9         3        0         3"), std::string::npos) << out;
  EXPECT_EQ(out.find("\n   8 "), std::string::npos) << "idle ports are left out: " << out;
}

}  // namespace
}  // namespace engine_test
