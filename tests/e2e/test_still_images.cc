// Still images over the software engine: a JPEG snapshot of a live channel
// decodes to that channel's picture, and a thumbnail of its intra frame has
// its colour.
#include <gtest/gtest.h>
#include <jpeglib.h>

#include <cstdio>
#include <cstdlib>
#include <thread>
#include <utility>

#include "mosaic_harness.hh"

namespace {

using e2e::mosaic;

// Decodes a JPEG with libjpeg-turbo into RGB24; false when it isn't one.
bool decode_jpeg(const void *data, size_t size, e2e::picture *out) {
  jpeg_decompress_struct info{};
  jpeg_error_mgr err{};
  info.err = jpeg_std_error(&err);
  // A broken stream would end the process through the default handler; the
  // test only feeds what the engine made, and a failure there is the finding.
  jpeg_create_decompress(&info);
  jpeg_mem_src(&info, static_cast<const unsigned char *>(data), static_cast<unsigned long>(size));
  if (jpeg_read_header(&info, TRUE) != JPEG_HEADER_OK) {
    jpeg_destroy_decompress(&info);
    return false;
  }
  info.out_color_space = JCS_RGB;
  jpeg_start_decompress(&info);
  out->width = static_cast<int>(info.output_width);
  out->height = static_cast<int>(info.output_height);
  out->data.resize(static_cast<size_t>(out->width) * out->height * 3);
  while (info.output_scanline < info.output_height) {
    unsigned char *row = &out->data[static_cast<size_t>(info.output_scanline) * out->width * 3];
    jpeg_read_scanlines(&info, &row, 1);
  }
  jpeg_finish_decompress(&info);
  jpeg_destroy_decompress(&info);
  return true;
}

// Four cameras on ports 0..3 in the four-tile mode, running.
void bring_up(mosaic &m) {
  ASSERT_NE(m.display(), nullptr);
  ASSERT_EQ(m.show(2, {0, 1, 2, 3}), 0);
  auto table = e2e::live_table({0, 1, 2, 3});
  ASSERT_EQ(orlo_display_decode_change(m.display(), table.data()), 0);
  m.start_live(4);
}

TEST(EndToEnd, SnapshotJpegDecodesToTheChannelsPicture) {
  mosaic m;
  bring_up(m);
  const int ch = 2;
  void *buf = nullptr;
  uint32_t size = 0, width = 0, height = 0, stamp = 0;
  int ret = -1;
  // Until the port has its first picture the engine refuses the request.
  const auto end = std::chrono::steady_clock::now() + e2e::kDeadline;
  while (ret != 0 && std::chrono::steady_clock::now() < end) {
    ret = orlo_display_get_jpeg_snapshot(m.display(), ch, 0, 2, 0, 0, &buf, &size, &width, &height,
                                         &stamp);
    if (ret != 0) std::this_thread::sleep_for(std::chrono::milliseconds(200));
  }
  ASSERT_EQ(ret, 0);
  ASSERT_NE(buf, nullptr);
  e2e::picture p;
  const bool decoded = decode_jpeg(buf, size, &p);
  free(buf);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(p.width, mosaic::kCamWidth);
  EXPECT_EQ(p.height, mosaic::kCamHeight);
  EXPECT_EQ(static_cast<int>(width), p.width);
  EXPECT_EQ(static_cast<int>(height), p.height);
  const e2e::rgb seen = p.median(0, 0, p.width, p.height);
  EXPECT_TRUE(e2e::near(seen, e2e::camera_colour(ch)))
      << "saw " << e2e::describe(seen) << ", camera " << ch << " is "
      << e2e::describe(e2e::camera_colour(ch));
}

TEST(EndToEnd, ThumbnailOfAnIntraFrameHasTheChannelsColour) {
  mosaic m;
  bring_up(m);
  // Channel 0's own intra frame: port 0 is channel 0's port, so its stream
  // is not disturbed by the thumbnail's push there.
  const int ch = 0;
  GstBuffer *iframe = nullptr;
  const auto end = std::chrono::steady_clock::now() + e2e::kDeadline;
  while ((iframe = m.last_intra(ch)) == nullptr && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  ASSERT_NE(iframe, nullptr);

  e2e::picture p;
  p.width = mosaic::kCamWidth;
  p.height = mosaic::kCamHeight;
  p.data.assign(static_cast<size_t>(p.width) * p.height * 3, 0);
  int ret = orlo_display_decode_image(m.display(), iframe, p.width, p.height, 0, p.data.data());
  // Under load the engine may be slower than the thumbnail's one second:
  // a second intra frame gets a second chance.
  if (ret != 0) {
    GstBuffer *again = m.last_intra(ch);
    ret = orlo_display_decode_image(m.display(), again, p.width, p.height, 0, p.data.data());
  }
  ASSERT_EQ(ret, 0);
  // The library's RGB24 is stored blue first.
  for (size_t i = 0; i + 2 < p.data.size(); i += 3) std::swap(p.data[i], p.data[i + 2]);
  const e2e::rgb seen = p.median(0, 0, p.width, p.height);
  EXPECT_TRUE(e2e::near(seen, e2e::camera_colour(ch)))
      << "saw " << e2e::describe(seen) << ", camera " << ch << " is "
      << e2e::describe(e2e::camera_colour(ch));
}

}  // namespace
