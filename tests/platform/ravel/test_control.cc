// The calls that only set or report: each takes its settings from a running
// engine and refuses a missing engine, record or port.
#include <functional>

#include "engine_harness.hh"

namespace engine_test {
namespace {

class control : public engine_harness {};

TEST_F(control, SettingsAreTakenAndAMissingEngineRecordOrPortIsRefused) {
  start(0);
  ravel_mask_t mask{};
  ravel_roi_t roi{};
  ravel_dnr_t dnr{};
  ravel_datetime_format_t format{};
  ravel_ip_osd_t osd{1, "10.0.0.1"};
  ravel_soft_port_stats_t s{};
  int32_t word = 1, rate = 0;
  using call = std::function<int32_t(ravel_t *, bool)>;
  // The first five take anything from a running engine.
  const call calls[] = {
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
      [](ravel_t *e, bool r) { return ravel_pause_frame(e, r ? 3 : 18); },
      [](ravel_t *e, bool r) { return ravel_set_jpeg_dstntimeimg(e, r ? 3 : 18, 1, 2); },
      [](ravel_t *e, bool r) { return ravel_set_jpeg_timestamp(e, r ? 3 : -1, 1); },
      [&](ravel_t *e, bool r) { return ravel_soft_port_stats(e, 3, r ? &s : nullptr); },
      [](ravel_t *e, bool r) { return ravel_soft_set_port_signal(e, r ? 3 : 18, 1); },
      [](ravel_t *e, bool r) { return ravel_soft_set_signal_timeout(e, r ? 0 : -1); },
      [](ravel_t *e, bool r) { return ravel_soft_set_compose_rate(e, r ? 0 : -1); },
      [](ravel_t *e, bool r) { return ravel_soft_hold_port(e, r ? 0 : 18, 0); },
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
