// The recording files: standard H.264 that a decoder plays, and robust to a
// write cut short, to damage and to growth while playing.
#include <glib/gstdio.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

#include "collector.hh"
#include "log_capture.hh"
#include "orlo_sst_pipe.h"
#include "recordings.hh"

namespace {

using namespace playback_test;
using testing_support::log_capture;

constexpr int kFrames = 30;

std::vector<uint8_t> read_all(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {});
}

// Offset of the last frame's SEI (start code 00 00 01 06 05 20).
size_t last_sei(const std::vector<uint8_t> &d) {
  for (size_t i = d.size() - 6; i > 0; i--) {
    if (d[i] == 0 && d[i + 1] == 0 && d[i + 2] == 1 && d[i + 3] == 6 && d[i + 4] == 5 &&
        d[i + 5] == 32)
      return i;
  }
  return 0;
}

class Recording : public ::testing::Test {
 protected:
  void SetUp() override {
    gst_init(nullptr, nullptr);
    ASSERT_TRUE(record_channel(folder.path(), 0, kFrames));
    path = channel_file(folder.path(), 0);
  }

  // Plays channel 0 to its end through a playback pipe; the frames seen.
  std::vector<frame_seen> play(int open_rate = 0) {
    orlo_sst_pipe_t *h = orlo_sst_pipe_new();
    g_object_set(h->src, "location", folder.path().c_str(), nullptr);
    collector sink(h->kelappsink);
    orlo_sst_pipe_set_param(h, 4, 0, 0, 1, {0, 0}, {0, 0}, {0, 0}, 4, 1);
    g_object_set(h->src, "open-rate", open_rate, nullptr);
    orlo_sst_pipe_start(h);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (orlo_sst_pipe_get_eos_mask(h) != 1 && std::chrono::steady_clock::now() < until)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(orlo_sst_pipe_get_eos_mask(h), 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    orlo_sst_pipe_stop(h);
    orlo_sst_pipe_delete(h);
    std::vector<frame_seen> out;
    for (const auto &l : sink.lists()) out.insert(out.end(), l.frames.begin(), l.frames.end());
    return out;
  }

  static bool warned(const log_capture &logs, const char *what) {
    for (const auto &t : logs.texts(G_LOG_LEVEL_WARNING))
      if (t.find(what) != std::string::npos) return true;
    return false;
  }

  temp_folder folder;
  std::string path;
};

TEST_F(Recording, AStandardDecoderPlaysTheFile) {
  gchar *launch = g_strdup_printf(
      "filesrc location=\"%s\" ! h264parse ! avdec_h264 ! fakesink name=out signal-handoffs=true",
      path.c_str());
  GstElement *p = gst_parse_launch(launch, nullptr);
  g_free(launch);
  ASSERT_NE(p, nullptr);
  int decoded = 0;
  GstElement *out = gst_bin_get_by_name(GST_BIN(p), "out");
  g_signal_connect(out, "handoff", G_CALLBACK(+[](GstElement *, GstBuffer *, GstPad *, gpointer n) {
                     ++*static_cast<int *>(n);
                   }),
                   &decoded);
  gst_element_set_state(p, GST_STATE_PLAYING);
  GstBus *bus = gst_element_get_bus(p);
  GstMessage *m = gst_bus_timed_pop_filtered(
      bus, 20 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(GST_MESSAGE_TYPE(m), GST_MESSAGE_EOS);
  gst_message_unref(m);
  gst_object_unref(bus);
  gst_element_set_state(p, GST_STATE_NULL);
  gst_object_unref(out);
  gst_object_unref(p);
  EXPECT_EQ(decoded, kFrames);
}

TEST_F(Recording, AWriteCutShortPlaysUpToTheCut) {
  const auto data = read_all(path);
  const size_t sei = last_sei(data);
  ASSERT_GT(sei, 0u);
  for (size_t cut : {sei + 10, sei + 45}) {  // inside the SEI, inside the picture
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(cut)), 0);
    log_capture logs;
    const auto frames = play();
    ASSERT_EQ(frames.size(), static_cast<size_t>(kFrames - 1)) << "cut at " << cut;
    EXPECT_EQ(frames.back().time, kStart + (kFrames - 2) * kFrameNs);
    EXPECT_TRUE(warned(logs, "ends in a cut frame"));
  }
}

TEST_F(Recording, ADamagedFrameHeaderCostsThatFrameOnly) {
  auto data = read_all(path);
  // Zeros over one frame's SEI in the middle, as a lost block would leave.
  const auto half =
      std::vector<uint8_t>(data.begin(), data.begin() + static_cast<long>(data.size() / 2));
  const size_t sei = last_sei(half);
  ASSERT_GT(sei, 0u);
  std::fill(data.begin() + static_cast<long>(sei), data.begin() + static_cast<long>(sei + 20), 0);
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char *>(data.data()),
             static_cast<std::streamsize>(data.size()));
  const auto frames = play();
  EXPECT_EQ(frames.size(), static_cast<size_t>(kFrames - 1));
  for (size_t i = 1; i < frames.size(); i++) EXPECT_GT(frames[i].time, frames[i - 1].time);
}

TEST_F(Recording, AGrowingRecordingPlaysOnWithOpenRate) {
  orlo_sst_pipe_t *h = orlo_sst_pipe_new();
  g_object_set(h->src, "location", folder.path().c_str(), nullptr);
  collector sink(h->kelappsink);
  orlo_sst_pipe_set_param(h, 4, 0, 0, 1, {0, 0}, {0, 0}, {0, 0}, 4, 1);
  g_object_set(h->src, "open-rate", 20, nullptr);
  orlo_sst_pipe_start(h);
  ASSERT_TRUE(sink.wait_for([](size_t n) { return n >= static_cast<size_t>(kFrames); }));
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (orlo_sst_pipe_get_eos_mask(h) != 1 && std::chrono::steady_clock::now() < until)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(orlo_sst_pipe_get_eos_mask(h), 1u);
  // The recorder goes on: the player follows.
  ASSERT_TRUE(record_channel(folder.path(), 0, 10, kStart + kFrames * kFrameNs));
  ASSERT_TRUE(sink.wait_for([](size_t n) { return n >= static_cast<size_t>(kFrames + 10); }));
  int64_t last = 0;
  for (const auto &l : sink.lists())
    for (const auto &f : l.frames) {
      EXPECT_GT(f.time, last);
      last = f.time;
    }
  EXPECT_EQ(last, kStart + (kFrames + 9) * kFrameNs);
  orlo_sst_pipe_stop(h);
  orlo_sst_pipe_delete(h);
}

}  // namespace
