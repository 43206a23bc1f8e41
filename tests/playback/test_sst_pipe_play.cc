// Playback end to end: channels recorded in the test, played through a
// playback pipe into its kelappsink.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <set>
#include <thread>

#include "collector.hh"
#include "log_capture.hh"
#include "orlo_sst_pipe.h"
#include "recordings.hh"

namespace {

using namespace playback_test;
using testing_support::log_capture;
using clock_type = std::chrono::steady_clock;

constexpr int kFrames = 50;  // 2 s at 25 fps

orlo_timeval_t tv(int64_t ns) {
  return orlo_timeval_t{static_cast<int32_t>(ns / 1000000000),
                        static_cast<int32_t>(ns % 1000000000 / 1000)};
}

class SstPlay : public ::testing::Test {
 protected:
  void SetUp() override {
    gst_init(nullptr, nullptr);
    ASSERT_FALSE(folder.path().empty());
    for (int ch = 0; ch < channels(); ch++) ASSERT_TRUE(record_channel(folder.path(), ch, kFrames));
    h = orlo_sst_pipe_new();
    ASSERT_NE(h, nullptr);
    g_object_set(h->src, "location", folder.path().c_str(), nullptr);
    sink = std::make_unique<collector>(h->kelappsink);
  }
  void TearDown() override {
    if (h == nullptr) return;
    orlo_sst_pipe_stop(h);
    orlo_sst_pipe_delete(h);
  }
  virtual int channels() const { return 4; }

  void set_param(int dir, int64_t search, int rate = 1, uint32_t mask = 15) {
    orlo_sst_pipe_set_param(h, rate, dir, 0, 1, tv(0), tv(0), tv(search), 4, mask);
  }

  bool wait_eos(uint64_t mask, double seconds = 20) {
    const auto until = clock_type::now() + std::chrono::duration<double>(seconds);
    while (clock_type::now() < until) {
      if (orlo_sst_pipe_get_eos_mask(h) == mask) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }

  static std::map<int, std::vector<frame_seen>> by_channel(const std::vector<list_seen> &lists) {
    std::map<int, std::vector<frame_seen>> out;
    for (const auto &l : lists)
      for (const auto &f : l.frames) out[f.ch].push_back(f);
    return out;
  }

  temp_folder folder;
  orlo_sst_pipe_t *h = nullptr;
  std::unique_ptr<collector> sink;
};

TEST_F(SstPlay, ForwardPlayIsOrderedPacedAndEndsWithTheEosBits) {
  set_param(0, kStart);
  orlo_sst_pipe_start(h);
  ASSERT_TRUE(wait_eos(15));
  ASSERT_TRUE(sink->wait_for([](size_t n) { return n >= kFrames; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const auto lists = sink->lists();
  for (const auto &l : lists) {
    std::set<int> chs;
    for (const auto &f : l.frames)
      EXPECT_TRUE(chs.insert(f.ch).second) << "two frames of a channel in one list";
  }
  const auto chans = by_channel(lists);
  ASSERT_EQ(chans.size(), 4u);
  for (const auto &[ch, frames] : chans) {
    ASSERT_EQ(frames.size(), static_cast<size_t>(kFrames)) << "channel " << ch;
    EXPECT_EQ(frames.front().type, 1);
    EXPECT_EQ(frames.front().time, kStart);
    for (size_t i = 1; i < frames.size(); i++) {
      EXPECT_EQ(frames[i].time - frames[i - 1].time, kFrameNs);
      EXPECT_EQ(frames[i].type, i % kIntraEvery == 0 ? 1 : 0);
      EXPECT_EQ(frames[i].ms, static_cast<uint32_t>(frames[i].time / 1000000));
    }
  }
  // Paced by the clock: the last frame comes no sooner than the recording
  // took (a loaded machine can only make it later).
  const auto span = lists.back().at - lists.front().at;
  EXPECT_GE(std::chrono::duration<double>(span).count(), (kFrames - 1) * 0.04 * 0.9);
  EXPECT_EQ(h->base_time, static_cast<uint64_t>(kStart));
  EXPECT_EQ(h->direction, 0);
  EXPECT_EQ(orlo_sst_pipe_get_norecord_mask(h), 0u);
  EXPECT_GE(orlo_sst_pipe_get_timestamp(h), static_cast<uint64_t>(kStart));
}

TEST_F(SstPlay, PauseHoldsNextStepsWithTheRenderReportStartResumes) {
  set_param(0, kStart);
  orlo_sst_pipe_start(h);
  ASSERT_TRUE(sink->wait_for([](size_t n) { return n >= 8; }));
  orlo_sst_pipe_pause(h);
  gst_element_get_state(h->pipeline, nullptr, nullptr, 5 * GST_SECOND);
  const size_t held = sink->count();
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  EXPECT_EQ(sink->count(), held);

  // The stream time is the base time plus the sink's position.
  gint64 position = -1;
  ASSERT_TRUE(gst_element_query_position(h->kelappsink, GST_FORMAT_TIME, &position));
  EXPECT_EQ(orlo_sst_pipe_get_timestamp(h), static_cast<uint64_t>(kStart + position));

  // Each next gives one stepped list and its render report.
  uint64_t last = 0, previous = 0;
  for (int step = 1; step <= 3; step++) {
    testing::internal::CaptureStdout();
    orlo_sst_pipe_next(h);
    const auto until = clock_type::now() + std::chrono::seconds(10);
    while ((sink->steps() < static_cast<size_t>(step) ||
            orlo_sst_pipe_get_last_timestamp(h) == last) &&
           clock_type::now() < until)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(sink->steps(), static_cast<size_t>(step));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(orlo_sst_pipe_get_last_timestamp(h), last);
    last = orlo_sst_pipe_get_last_timestamp(h);
    EXPECT_GT(last, static_cast<uint64_t>(kStart));
    if (step > 1) {
      EXPECT_EQ(last - previous, static_cast<uint64_t>(kFrameNs));  // one frame per step
    }
    previous = last;
    EXPECT_NE(out.find("last render time 472222:13:"), std::string::npos) << out;
  }
  const size_t stepped = sink->count();
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(sink->count(), stepped);  // no step asked, nothing comes
  const auto lists = sink->lists();
  EXPECT_TRUE(lists.back().step);
  EXPECT_TRUE(lists[lists.size() - 2].step);

  orlo_sst_pipe_start(h);
  ASSERT_TRUE(sink->wait_for([&](size_t n) { return n >= stepped + 10; }));
  for (const auto &[ch, frames] : by_channel(sink->lists())) {
    for (size_t i = 1; i < frames.size(); i++) EXPECT_GT(frames[i].time, frames[i - 1].time);
  }
}

TEST_F(SstPlay, BackwardRunDeliversIntraFramesInDecreasingTime) {
  const int64_t search = kStart + 45 * kFrameNs;
  set_param(1, search);
  orlo_sst_pipe_start(h);
  ASSERT_TRUE(wait_eos(15));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const auto chans = by_channel(sink->lists());
  ASSERT_EQ(chans.size(), 4u);
  for (const auto &[ch, frames] : chans) {
    ASSERT_EQ(frames.size(), 5u) << "channel " << ch;  // frames 40, 30, 20, 10, 0
    EXPECT_EQ(frames.front().time, kStart + 40 * kFrameNs);
    for (size_t i = 0; i < frames.size(); i++) {
      EXPECT_EQ(frames[i].type, 1);
      if (i > 0) {
        EXPECT_LT(frames[i].time, frames[i - 1].time);
      }
    }
  }
  EXPECT_EQ(h->direction, 1);
  EXPECT_EQ(h->base_time, static_cast<uint64_t>(search));
  // Backward, the stream time is the base time less the position.
  orlo_sst_pipe_pause(h);
  gint64 position = -1;
  if (gst_element_query_position(h->kelappsink, GST_FORMAT_TIME, &position)) {
    EXPECT_EQ(orlo_sst_pipe_get_timestamp(h), static_cast<uint64_t>(search - position));
  }
}

TEST_F(SstPlay, RateIsASpeedFactor) {
  set_param(0, kStart, 4);
  const auto t0 = clock_type::now();
  orlo_sst_pipe_start(h);
  ASSERT_TRUE(wait_eos(15));
  ASSERT_TRUE(sink->wait_for([](size_t n) { return n >= kFrames; }));
  const auto lists = sink->lists();
  EXPECT_EQ(by_channel(lists)[2].size(), static_cast<size_t>(kFrames));
  // Four times as fast: well under the two seconds of the recording, yet
  // still paced (not all at once).
  const double span = std::chrono::duration<double>(lists.back().at - lists.front().at).count();
  EXPECT_GE(span, (kFrames - 1) * 0.04 / 4 * 0.9);
  (void)t0;
}

TEST_F(SstPlay, HideChoosesTheIntraFrameAroundTheSearchTimeAndEndTimeBoundsThePlay) {
  const int64_t search = kStart + 15 * kFrameNs, end = kStart + 20 * kFrameNs;
  // hide 0: from the intra frame before the search time, to the end time.
  orlo_sst_pipe_set_param(h, 1, 0, 0, 0, tv(0), tv(end), tv(search), 4, 15);
  orlo_sst_pipe_start(h);
  ASSERT_TRUE(wait_eos(15));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  for (const auto &[ch, frames] : by_channel(sink->lists())) {
    ASSERT_EQ(frames.size(), 11u) << "channel " << ch;
    EXPECT_EQ(frames.front().time, kStart + 10 * kFrameNs);
    EXPECT_EQ(frames.back().time, end);
  }
  EXPECT_EQ(h->base_time, static_cast<uint64_t>(search));

  // hide 1: from the first intra frame at or after it.
  orlo_sst_pipe_stop(h);
  const size_t before = sink->count();
  orlo_sst_pipe_set_param(h, 1, 0, 0, 1, tv(0), tv(end), tv(search), 4, 1);
  orlo_sst_pipe_start(h);
  ASSERT_TRUE(sink->wait_for([&](size_t n) { return n > before; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  const auto lists = sink->lists();
  ASSERT_EQ(lists.size(), before + 1);
  ASSERT_EQ(lists.back().frames.size(), 1u);
  EXPECT_EQ(lists.back().frames[0].time, end);
  EXPECT_EQ(lists.back().frames[0].ch, 0);
}

class SstPlayMissing : public SstPlay {
 protected:
  int channels() const override { return 3; }
};

TEST_F(SstPlayMissing, BadInputIsReportedAndThePipeCanBeDrivenAgain) {
  log_capture logs;
  // Channel 3 was never recorded.
  set_param(0, kStart);
  orlo_sst_pipe_start(h);
  ASSERT_TRUE(wait_eos(15));
  EXPECT_EQ(orlo_sst_pipe_get_norecord_mask(h), 8u);
  ASSERT_TRUE(sink->wait_for([](size_t n) { return n >= kFrames; }));
  EXPECT_EQ(by_channel(sink->lists()).size(), 3u);
  bool warned = false;
  for (const auto &t : logs.texts(G_LOG_LEVEL_WARNING))
    warned |= t.find("channel 3 has no readable recording") != std::string::npos;
  EXPECT_TRUE(warned);

  // A search time past the recordings: every channel ends at once.
  orlo_sst_pipe_stop(h);
  orlo_sst_pipe_clear_status(h);
  set_param(0, kStart + 100 * GST_SECOND);
  const size_t before = sink->count();
  orlo_sst_pipe_start(h);
  ASSERT_TRUE(wait_eos(15));
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_EQ(sink->count(), before);

  // And again from the start: it plays.
  orlo_sst_pipe_stop(h);
  set_param(0, kStart, 1, 7);
  orlo_sst_pipe_start(h);
  ASSERT_TRUE(sink->wait_for([&](size_t n) { return n >= before + 10; }));
}

TEST_F(SstPlay, FirstIntraFrameOfASpan) {
  GstBuffer *b =
      orlo_sst_pipe_get_iframe(folder.path().c_str(), 2, 0, tv(kStart + 5 * kFrameNs), tv(0));
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
  EXPECT_EQ(orlo_sst_pipe_get_iframe(folder.path().c_str(), 2, 0, tv(kStart + 41 * kFrameNs),
                                     tv(kStart + 49 * kFrameNs)),
            nullptr);
  EXPECT_EQ(orlo_sst_pipe_get_iframe(folder.path().c_str(), 9, 0, tv(0), tv(0)), nullptr);
}

}  // namespace
