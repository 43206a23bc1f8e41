// The header reader on a hand-made unit: what x264 never writes in our small
// streams, but cameras do.
#include <gtest/gtest.h>

#include "h264_nal.hh"

namespace {

TEST(h264_headers, HighProfileParameterSetsGiveTheSlicesFrameNum) {
  // High profile (4:2:0, no scaling lists) at level 0, so that an emulation
  // prevention byte follows; log2_max_frame_num 8; then its PPS, and a P
  // slice with frame_num 90.
  const uint8_t params[] = {0, 0, 1, 0x67, 0x64, 0, 0, 3, 0xac, 0x2b, 0x48, 0, 0, 1, 0x68, 0xe0};
  const uint8_t slice[] = {0, 0, 1, 0x41, 0x9a, 0xb5};
  ravel_soft::stream_reader r;
  EXPECT_TRUE(r.inspect(params, sizeof params).has_params);
  auto au = r.inspect(slice, sizeof slice);
  EXPECT_EQ(au.max_frame_num * 1000 + au.frame_num, 256u * 1000 + 90);
  EXPECT_TRUE(r.inspect(slice, sizeof slice - 1).cut) << "frame_num cut short";
  // The same, with one scaling list (deltas to 0 after the first) in its SPS.
  const uint8_t scaled[] = {0,    0,    1,    0x67, 0x64, 0, 0x1e, 0xad, 0x84,
                            0x40, 0x15, 0xa4, 0,    0,    1, 0x68, 0xe0};
  r.inspect(scaled, sizeof scaled);
  EXPECT_EQ(r.inspect(slice, sizeof slice).max_frame_num, 256u) << "with a scaling list";
  // Two scaling lists that end early, by a delta to 0 from below (-8) and
  // from above (+100, +127, +21), to a reader that knows nothing yet.
  const uint8_t ended[] = {0,    0,    1,    0x67, 0x64, 0,    0x1e, 0xad, 0x84, 0x60, 0x32, 0,
                           0x7f, 0x02, 0xa0, 0x0a, 0xd0, 0x51, 0xb2, 0,    0,    1,    0x68, 0xe0};
  ravel_soft::stream_reader fresh;
  fresh.inspect(ended, sizeof ended);
  EXPECT_EQ(fresh.inspect(slice, sizeof slice).max_frame_num, 256u) << "lists that end early";
}

}  // namespace
