// Recordings as a recorder leaves them: cut short by a power loss anywhere,
// damaged by a recorder time that jumps or by random bytes.  Play never stalls or crashes, and
// every channel's data ends in its EOS bit.
#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "pipes_fixture.hh"

using namespace pipes_test;

namespace {

constexpr int kFrames = 50;
constexpr guint64 kBothChannels = 3;

struct play_result {
  bool eos = false;
  guint64 eos_status = 0;
  size_t frames[2] = {};
  // Played to the end, and both channels' data ended in their EOS bits.
  bool through() const { return eos && eos_status == kBothChannels; }
};

// Plays channels 0 and 1 of `folder` paced at eight times their speed, to
// the end; what the sink saw.
play_result play(const std::string &folder) {
  auto p = orlo::adopt_floating(
      gst_parse_launch(("kelsstsrc location=\"" + folder +
                        "\" ch-num=2 ch-mask=3 open-rate=0 rate=8 ! kelappsink name=sink sync=true")
                           .c_str(),
                       nullptr));
  play_result r;
  auto sink = orlo::adopt(gst_bin_get_by_name(GST_BIN(p.get()), "sink"));
  collector seen(sink.get());
  auto pad = orlo::adopt(gst_element_get_static_pad(sink.get(), "sink"));
  gst_pad_add_probe(
      pad.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
      [](GstPad *, GstPadProbeInfo *info, gpointer out) {
        const GstStructure *s = gst_event_get_structure(GST_PAD_PROBE_INFO_EVENT(info));
        if (s != nullptr && gst_structure_has_name(s, "KELPlayInfo"))
          gst_structure_get_uint64(s, "eos-status", static_cast<guint64 *>(out));
        return GST_PAD_PROBE_OK;
      },
      &r.eos_status, nullptr);
  r.eos = run_to_eos(p.get());
  for (const frame_seen &f : seen.frames())
    if (f.ch == 0 || f.ch == 1) r.frames[f.ch]++;
  return r;
}

// Both channels recorded into the folder, whose files the tests then rewrite.
class SstRecordings : public ::testing::Test {
 protected:
  void SetUp() override {
    gst_init(nullptr, nullptr);
    for (int ch = 0; ch < 2; ch++) {
      ASSERT_TRUE(record_channel(folder_.path, ch, kFrames));
      std::ifstream in(path(ch), std::ios::binary);
      original_[ch].assign(std::istreambuf_iterator<char>(in), {});
      ASSERT_FALSE(original_[ch].empty());
    }
  }
  std::string path(int ch) const { return folder_.path + "/ch0" + std::to_string(ch) + ".h264"; }
  void write(int ch, const std::string &bytes) {
    ASSERT_TRUE(g_file_set_contents(path(ch).c_str(), bytes.data(),
                                    static_cast<gssize>(bytes.size()), nullptr));
  }
  temp_dir folder_;
  std::string original_[2];
};

// A power loss cuts the file anywhere: what was whole before the cut plays.
// The cut file's recorder time also jumps forward at frame 10 (one more in
// bit 40: about 18 minutes on), and the other channel plays whole beside it.
TEST_F(SstRecordings, ARecordingCutAnywherePlaysItsWholeFrames) {
  const uint64_t t = kStart + 10 * kFrameNs;
  std::string bytes = original_[0];
  const size_t at = bytes.find(std::string(reinterpret_cast<const char *>(&t), 8));  // LE target
  ASSERT_NE(at, std::string::npos);
  bytes[at + 5]++;
  size_t before = 0;
  write(1, original_[1]);
  for (size_t k = 1; k <= 20; k++) {
    const size_t cut = bytes.size() * k / 20;
    write(0, bytes.substr(0, cut));
    const play_result r = play(folder_.path);
    ASSERT_TRUE(r.through()) << "cut at " << cut;
    EXPECT_GE(r.frames[0], before) << "cut at " << cut;
    EXPECT_EQ(r.frames[1], static_cast<size_t>(kFrames)) << "cut at " << cut;
    before = r.frames[0];
  }
  EXPECT_EQ(before, static_cast<size_t>(kFrames));
}

TEST_F(SstRecordings, RandomBytesChangedAnywhereNeverStallPlay) {
  std::mt19937 random(20261124);
  for (int run = 0; run < 40; run++) {
    for (int ch = 0; ch < 2; ch++) {
      std::string bytes = original_[ch];
      const int flips = 1 + static_cast<int>(random() % 8);
      for (int i = 0; i < flips; i++) bytes[random() % bytes.size()] ^= 1 + random() % 255;
      write(ch, bytes);
    }
    ASSERT_TRUE(play(folder_.path).through()) << "run " << run;
  }
}

}  // namespace
