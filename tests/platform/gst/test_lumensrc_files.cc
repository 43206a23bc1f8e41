// Files nobody here encoded, played by the live source as a camera would
// send them: FFmpeg's x264 in High profile with B-frames and in Baseline, in
// MP4 and MPEG-TS, each at its own rate and again from its start.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "lumen_harness.hh"

using live_test::frame;
using live_test::lumen_harness;
using live_test::of_channel;

namespace {

constexpr int kSeconds = 4, kFps = 25;

struct file_case {
  const char *name;
  const char *options;
};

const file_case kFiles[] = {
    {"high-bframes.mp4", "-profile:v high -bf 3"},
    {"high-bframes.ts", "-profile:v high -bf 3"},
    {"baseline.mp4", "-profile:v baseline"},
    {"baseline.ts", "-profile:v baseline"},
};

// Makes a 4 s file of 25 frames a second; its URI, or "" when FFmpeg failed.
std::string make_file(const std::string &folder, const file_case &c) {
  const std::string path = folder + "/" + c.name;
  const std::string cmd =
      "ffmpeg -v error -y -f lavfi -i testsrc2=s=320x180:r=" + std::to_string(kFps) + " -t " +
      std::to_string(kSeconds) + " -c:v libx264 -pix_fmt yuv420p " + c.options + " " + path;
  if (std::system(cmd.c_str()) != 0) return {};
  gchar *uri = g_filename_to_uri(path.c_str(), nullptr, nullptr);
  std::string s(uri);
  g_free(uri);
  return s;
}

TEST(LumenSrcFiles, H264FilesPlayAtTheirOwnRateAndLoop) {
  gchar *folder = g_dir_make_tmp("lumensrc-files-XXXXXX", nullptr);
  ASSERT_NE(folder, nullptr);
  lumen_harness h("framerate=25");
  h.play();
  const int n = static_cast<int>(std::size(kFiles));
  for (int cam = 0; cam < n; cam++) {
    const std::string uri = make_file(folder, kFiles[cam]);
    ASSERT_FALSE(uri.empty()) << kFiles[cam].name;
    g_object_set(h.src(), "channel", cam, "stream", 0, "uri", uri.c_str(), nullptr);
    ASSERT_EQ(gst_lumen_src_open_ch(h.src(), cam, LUMEN_SRC_OPEN_MAIN), 0);
  }
  // Two plays and a frame of each file: the second play proves the loop, the
  // span of both the rate.
  const size_t wanted = 2 * kSeconds * kFps + 1;
  const auto frames = h.collect(
      [&](const std::vector<frame> &f) {
        for (int cam = 0; cam < n; cam++)
          if (of_channel(f, cam).size() < wanted) return false;
        return true;
      },
      std::chrono::seconds(60));
  for (int cam = 0; cam < n; cam++) {
    const auto mine = of_channel(frames, cam);
    ASSERT_GE(mine.size(), wanted) << kFiles[cam].name << " did not play twice";
    const double span =
        static_cast<double>(mine[wanted - 1].list_pts - mine[0].list_pts) / GST_SECOND;
    RecordProperty(kFiles[cam].name, std::to_string(span));
    // A 4 s file takes 4 s (+/- 10 %), twice.
    EXPECT_NEAR(span, 2.0 * kSeconds, 0.2 * kSeconds) << kFiles[cam].name;
  }
  for (const file_case &c : kFiles) unlink((std::string(folder) + "/" + c.name).c_str());
  rmdir(folder);
  g_free(folder);
}

}  // namespace
