// The calls that only set or report: each takes its settings from a running
// engine and refuses a missing engine or record.
#include <functional>

#include "engine_harness.hh"

namespace engine_test {
namespace {

class control : public engine_harness {};

TEST_F(control, SettingsAreTakenAndAMissingEngineOrRecordIsRefused) {
  start(0);
  ravel_mask_t mask{};
  ravel_roi_t roi{};
  ravel_dnr_t dnr{};
  ravel_datetime_format_t format{};
  ravel_ip_osd_t osd{1, "10.0.0.1"};
  int32_t word = 1, rate = 0;
  const std::function<int32_t(ravel_t *, bool)> calls[] = {
      [](ravel_t *e, bool) { return ravel_capture_drv_start(e, 3); },
      [](ravel_t *e, bool) { return ravel_capture_drv_stop(e, 3); },
      [](ravel_t *e, bool) { return ravel_encode_change(e, 3, 0, nullptr); },
      [](ravel_t *e, bool) { return ravel_set_osd_enable(e, 3, 1, 1); },
      [](ravel_t *e, bool) { return ravel_set_time(e, 0, 1234, 0); },
      [&](ravel_t *e, bool r) { return ravel_set_mask(e, r ? &mask : nullptr); },
      [&](ravel_t *e, bool r) { return ravel_set_ROI_coordinate(e, r ? &roi : nullptr); },
      [&](ravel_t *e, bool r) { return ravel_set_dnr(e, r ? &dnr : nullptr); },
      [&](ravel_t *e, bool r) { return ravel_set_mirror(e, r ? &word : nullptr); },
      [&](ravel_t *e, bool r) { return ravel_set_datetime_format(e, r ? &format : nullptr); },
      [&](ravel_t *e, bool r) { return ravel_set_ip_osd_enable(e, r ? &osd : nullptr); },
      [&](ravel_t *e, bool r) { return ravel_set_encode_bitrate(e, 3, 1, r ? 512 : -1); },
      [&](ravel_t *e, bool r) { return ravel_get_encode_bitrate(e, 3, 1, r ? &rate : nullptr); },
      [](ravel_t *e, bool r) { return ravel_set_display_enable(e, r ? 3 : 4, 1); },
      [](ravel_t *e, bool r) { return ravel_motion_detect_config_param(e, 3, nullptr, r ? 0 : 4); },
  };
  for (size_t i = 0; i < std::size(calls); i++) {
    EXPECT_EQ(calls[i](engine_, true), 0) << "call " << i;
    EXPECT_EQ(calls[i](nullptr, true), -1) << "call " << i;
    EXPECT_EQ(calls[i](engine_, false), i < 5 ? 0 : -1) << "call " << i;
  }
  EXPECT_EQ(rate, 512);
  EXPECT_EQ(ravel_check_alive_m3(engine_, 0, 0), 1);
}

}  // namespace
}  // namespace engine_test
