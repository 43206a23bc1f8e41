// The header reader on hand-made units: what x264 never writes in our small
// streams, but cameras do.
#include <gtest/gtest.h>

#include <vector>

#include "h264_nal.hh"

namespace {

TEST(h264_headers, AHighProfileSpsWithAnEscapedByteGivesTheSlicesFrameNum) {
  // High profile (chroma 4:2:0, no scaling lists), level 0, so that an
  // emulation prevention byte follows; log2_max_frame_num 8.
  const std::vector<uint8_t> params = {0,    0,    0,    1, 0x67, 0x64, 0, 0,    3,
                                       0xac, 0x2b, 0x48, 0, 0,    0,    1, 0x68, 0xe0};
  const std::vector<uint8_t> slice = {0, 0, 0, 1, 0x41, 0x9a, 0xb5};  // P slice, frame_num 90
  ravel_soft::stream_reader r;
  EXPECT_TRUE(r.inspect(params.data(), static_cast<int32_t>(params.size())).has_params);
  auto au = r.inspect(slice.data(), static_cast<int32_t>(slice.size()));
  EXPECT_TRUE(au.params_known);
  EXPECT_FALSE(au.cut);
  EXPECT_EQ(au.frame_num, 90u);
  EXPECT_EQ(au.max_frame_num, 256u);
}

}  // namespace
