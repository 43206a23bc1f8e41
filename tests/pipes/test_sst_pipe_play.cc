// Playback through a pipe into its own kelappsink: speed, the span and the
// search rules, bad input, and recordings that are cut, damaged or growing.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>

#include "kel_buffers.h"
#include "log_capture.hh"
#include "playback.hh"

namespace {

using namespace playback_test;
using testing_support::log_capture;

constexpr int kFrames = 50;

bool warned(const log_capture &logs, const char *what) {
  for (const auto &t : logs.texts(G_LOG_LEVEL_WARNING))
    if (t.find(what) != std::string::npos) return true;
  return false;
}

class SstPlay : public ::testing::Test {
 protected:
  void SetUp() override { gst_init(nullptr, nullptr); }
  void TearDown() override { close(); }

  // Records channels 0..channels-1 of `frames` frames.
  bool record(int channels, int frames = kFrames) {
    for (int ch = 0; ch < channels; ch++)
      if (!record_channel(folder.path(), ch, frames)) return false;
    return true;
  }
  void open(int open_rate = 1) {
    h = orlo_sst_pipe_new();
    ASSERT_NE(h, nullptr);
    g_object_set(h->src, "location", folder.path().c_str(), nullptr);
    sink = std::make_unique<collector>(h->kelappsink);
    g_object_set(h->src, "open-rate", open_rate, nullptr);
  }
  void close() {
    if (h == nullptr) return;
    orlo_sst_pipe_stop(h);
    orlo_sst_pipe_delete(h);
    h = nullptr;
  }
  void play(int64_t search, uint32_t mask = 15, int rate = 1, int hide = 1, int64_t end = 0) {
    orlo_sst_pipe_set_param(h, rate, 0, 0, hide, tv(0), tv(end), tv(search), 4, mask);
    orlo_sst_pipe_start(h);
  }
  bool wait_eos(uint64_t mask) {
    return eventually([&] { return orlo_sst_pipe_get_eos_mask(h) == mask; });
  }
  std::map<int, std::vector<frame_seen>> by_channel() {
    std::map<int, std::vector<frame_seen>> out;
    for (const auto &f : sink->frames()) out[f.ch].push_back(f);
    return out;
  }
  // Channel 0 played to its end on a fresh pipe: what came.
  std::vector<frame_seen> play_channel_0(int open_rate = 0) {
    open(open_rate);
    play(0, 1, 4);
    EXPECT_TRUE(wait_eos(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    auto frames = sink->frames();
    close();
    return frames;
  }

  temp_folder folder;
  orlo_sst_pipe_t *h = nullptr;
  std::unique_ptr<collector> sink;
};

TEST_F(SstPlay, HideChoosesTheIntraFrameAroundTheSearchTimeAndEndTimeBoundsThePlay) {
  ASSERT_TRUE(record(4));
  open();
  const int64_t search = kStart + 15 * kFrameNs, end = kStart + 20 * kFrameNs;
  // hide 0: from the intra frame before the search time, to the end time.
  play(search, 15, 1, 0, end);
  ASSERT_TRUE(wait_eos(15));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  for (const auto &[ch, frames] : by_channel()) {
    ASSERT_EQ(frames.size(), 11u) << "channel " << ch;
    EXPECT_EQ(frames.front().time, kStart + 10 * kFrameNs);
    EXPECT_EQ(frames.back().time, end);
  }
  EXPECT_EQ(h->base_time, static_cast<uint64_t>(search));

  // hide 1: from the first intra frame at or after it.
  orlo_sst_pipe_stop(h);
  const size_t before = sink->count();
  play(search, 1, 1, 1, end);
  ASSERT_TRUE(eventually([&] { return sink->count() > before; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto lists = sink->lists();
  ASSERT_EQ(lists.size(), before + 1);
  ASSERT_EQ(lists.back().frames.size(), 1u);
  EXPECT_EQ(lists.back().frames[0].time, end);
  EXPECT_EQ(lists.back().frames[0].ch, 0);
}

TEST_F(SstPlay, BadInputIsReportedAndThePipeCanBeDrivenAgain) {
  ASSERT_TRUE(record(3));  // channel 3 was never recorded
  open();
  log_capture logs;
  play(kStart);
  ASSERT_TRUE(wait_eos(15));
  EXPECT_EQ(orlo_sst_pipe_get_norecord_mask(h), 8u);
  ASSERT_TRUE(eventually([&] { return sink->count() >= kFrames; }));
  EXPECT_EQ(by_channel().size(), 3u);
  EXPECT_TRUE(warned(logs, "channel 3 has no readable recording"));

  // A search time past the recordings: every channel ends at once.
  orlo_sst_pipe_stop(h);
  orlo_sst_pipe_clear_status(h);
  const size_t before = sink->count();
  play(kStart + 100 * GST_SECOND);
  ASSERT_TRUE(wait_eos(15));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(sink->count(), before);

  // And again from the start, four times as fast: it plays, still paced.
  orlo_sst_pipe_stop(h);
  play(kStart, 7, 4);
  ASSERT_TRUE(wait_eos(7));
  ASSERT_TRUE(eventually([&] { return sink->count() >= before + kFrames; }));
  const auto lists = sink->lists();
  const double span = std::chrono::duration<double>(lists.back().at - lists[before].at).count();
  EXPECT_GE(span, (kFrames - 1) * 0.04 / 4 * 0.9);
}

TEST_F(SstPlay, FirstIntraFrameOfASpan) {
  ASSERT_TRUE(record(3));
  const std::string dir = folder.path();
  GstBuffer *b = orlo_sst_pipe_get_iframe(dir.c_str(), 2, 0, tv(kStart + 5 * kFrameNs), tv(0));
  ASSERT_NE(b, nullptr);
  GstKelBuddyMeta *m = gst_kel_buddy_buffer_get_meta(b);
  ASSERT_NE(m, nullptr);
  const frame_seen f = read_header(m->data);
  EXPECT_EQ(f.ch, 2);
  EXPECT_EQ(f.type, 1);
  EXPECT_EQ(f.time, kStart + 10 * kFrameNs);
  EXPECT_EQ(m->size, 24 + f.size);
  EXPECT_EQ(m->data[24 + 2], 0);  // an Annex B start code opens the payload
  EXPECT_EQ(m->data[24 + 3], 1);
  gst_buffer_unref(b);
  // A span without an intra frame, and a channel never recorded.
  EXPECT_EQ(orlo_sst_pipe_get_iframe(dir.c_str(), 2, 0, tv(kStart + 41 * kFrameNs),
                                     tv(kStart + 49 * kFrameNs)),
            nullptr);
  EXPECT_EQ(orlo_sst_pipe_get_iframe(dir.c_str(), 9, 0, tv(0), tv(0)), nullptr);
}

// The recording files: standard H.264 that a decoder plays, robust to a
// write cut short, to damage and to growth while playing.
constexpr int kShort = 30;

std::vector<uint8_t> read_all(const std::string &path) {
  std::ifstream f(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), {});
}

// Offset of the last frame's SEI (start code 00 00 01 06 05 20) before `end`.
size_t last_sei(const std::vector<uint8_t> &d, size_t end) {
  static const uint8_t sei[] = {0, 0, 1, 6, 5, 32};
  for (size_t i = end - sizeof sei; i > 0; i--)
    if (std::equal(std::begin(sei), std::end(sei), d.begin() + static_cast<long>(i))) return i;
  return 0;
}

TEST_F(SstPlay, ARecordingIsStandardH264AndADamagedOrCutFrameCostsThatFrameOnly) {
  ASSERT_TRUE(record(1, kShort));
  const std::string path = folder.path() + "/ch00.h264";
  int decoded = 0;
  ASSERT_TRUE(run_to_eos("filesrc location=\"" + path +
                             "\" ! h264parse ! avdec_h264 ! fakesink name=out signal-handoffs=true",
                         &decoded));
  EXPECT_EQ(decoded, kShort);

  // Zeros over one frame's SEI in the middle, as a lost block would leave.
  auto data = read_all(path);
  const size_t middle = last_sei(data, data.size() / 2);
  ASSERT_GT(middle, 0u);
  std::fill_n(data.begin() + static_cast<long>(middle), 20, 0);
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char *>(data.data()),
             static_cast<std::streamsize>(data.size()));
  auto frames = play_channel_0();
  EXPECT_EQ(frames.size(), static_cast<size_t>(kShort - 1));
  for (size_t i = 1; i < frames.size(); i++) EXPECT_GT(frames[i].time, frames[i - 1].time);

  // A write cut short, inside the last SEI or inside the last picture.
  const size_t sei = last_sei(data, data.size());
  ASSERT_GT(sei, middle);
  for (size_t cut : {sei + 10, sei + 45}) {
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(cut)), 0);
    log_capture logs;
    frames = play_channel_0();
    ASSERT_EQ(frames.size(), static_cast<size_t>(kShort - 2)) << "cut at " << cut;
    EXPECT_EQ(frames.back().time, kStart + (kShort - 2) * kFrameNs);
    EXPECT_TRUE(warned(logs, "ends in a cut frame"));
  }
}

TEST_F(SstPlay, AGrowingRecordingPlaysOnWithOpenRate) {
  ASSERT_TRUE(record(1, kShort));
  open(20);
  play(0, 1, 4);
  ASSERT_TRUE(eventually([&] { return sink->count() >= kShort; }));
  EXPECT_TRUE(wait_eos(1));
  // The recorder goes on: the player follows.
  ASSERT_TRUE(record_channel(folder.path(), 0, 10, kStart + kShort * kFrameNs));
  ASSERT_TRUE(eventually([&] { return sink->count() >= kShort + 10; }));
  int64_t last = 0;
  for (const auto &f : sink->frames()) {
    EXPECT_GT(f.time, last);
    last = f.time;
  }
  EXPECT_EQ(last, kStart + (kShort + 9) * kFrameNs);
}

}  // namespace
