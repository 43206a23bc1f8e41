// The live source element on its own: what its channels deliver, the
// requests by property, how it refuses or reports bad input, and files that
// nobody here encoded played as a camera would send them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "lumen_harness.hh"

using namespace live_test;

namespace {

auto has_intra(int ch, size_t n) {
  return [ch, n](const frames_t &f) { return count_of(f, ch, 1) >= n; };
}

// What the element says: the command and header callbacks' texts by channel,
// and its warnings (own log domain) as channel -1.
struct heard {
  std::mutex lock;
  std::vector<std::pair<int, std::string>> lines;
  guint handler = 0;

  ~heard() {
    if (handler != 0) g_log_remove_handler("lumensrc", handler);
  }
  void add(int ch, std::string text) {
    std::lock_guard<std::mutex> g(lock);
    lines.emplace_back(ch, std::move(text));
  }
  static void record(gint ch, gpointer data, gint size, gpointer self) {
    static_cast<heard *>(self)->add(ch, std::string(static_cast<const char *>(data), size));
  }
  void listen_for_warnings() {
    handler = g_log_set_handler(
        "lumensrc", G_LOG_LEVEL_WARNING,
        [](const gchar *, GLogLevelFlags, const gchar *m, gpointer self) {
          static_cast<heard *>(self)->add(-1, m);
        },
        this);
  }
  // A channel's line starting with `prefix`; a warning word for word.
  bool has(int ch, const std::string &prefix) {
    std::lock_guard<std::mutex> g(lock);
    for (auto &[c, t] : lines)
      if (c == ch && (ch == -1 ? t == prefix : t.rfind(prefix, 0) == 0)) return true;
    return false;
  }
};

}  // namespace

TEST(LumenSrc, DeliversTheStreamsAskedForFromAnIntraFrameWithAudioAndCallbacks) {
  struct seen {
    std::atomic<int> frames{0}, bad{0};
    heard caps;
  } s;  // outlives the element, which calls into it
  lumen_harness h;
  h.play();
  // The handoff callback sees each frame with its header.
  gst_lumen_src_set_handoff_callback(
      h.src(),
      [](gint ch, gpointer data, gint size, gpointer self) {
        auto *x = static_cast<seen *>(self);
        const auto *p = static_cast<const uint8_t *>(data);
        uint32_t payload;
        memcpy(&payload, p + 4, 4);
        x->bad += p[0] != ch || static_cast<uint32_t>(size) != 24 + payload;
        ++x->frames;
      },
      &s);
  gst_lumen_src_set_header_x_callback(h.src(), &heard::record, &s.caps);
  ASSERT_EQ(gst_lumen_src_set_live_audio_ch(1), 0);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 2, 0), 0);  // both streams: 2 and 18
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 1, LUMEN_SRC_OPEN_MAIN), 0);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 4, LUMEN_SRC_OPEN_SUB), 0);
  auto frames = h.collect([](const frames_t &f) {
    return count_of(f, 2, 1) >= 3 && count_of(f, 18, 1) >= 3 && count_of(f, 1, 10) >= 5 &&
           count_of(f, 20, 1) >= 2 && count_of(f, 1, 1) >= 2;
  });
  for (int ch : {2, 18}) {
    auto mine = of_channel(frames, ch);
    ASSERT_GE(count_of(frames, ch, 1), 3u) << "channel " << ch;
    // key-interval 5: an intra frame first, then four inter frames, over and over.
    for (size_t i = 0; i < mine.size(); ++i) {
      EXPECT_EQ(mine[i].type, i % 5 == 0 ? 1 : 0) << "channel " << ch << " frame " << i;
      EXPECT_TRUE(mine[i].header_ok);
      EXPECT_GT(mine[i].size, 0u);
      if (i > 0) {
        EXPECT_EQ(mine[i].seq, mine[i - 1].seq + 1);
      }
    }
    EXPECT_TRUE(s.caps.has(ch, "video/x-h264"));
  }
  EXPECT_GE(count_of(frames, 1, 10), 5u);
  for (const auto &f : frames) {
    EXPECT_TRUE(f.ch == 1 || f.ch == 2 || f.ch == 18 || f.ch == 20) << f.ch;
    EXPECT_TRUE(GST_CLOCK_TIME_IS_VALID(f.list_pts));
    if (f.type == 10) {
      EXPECT_EQ(f.size, 640u);  // 40 ms of 8 kHz 16-bit mono
      EXPECT_EQ(f.ch, 1);
    }
  }
  EXPECT_GE(s.frames.load(), static_cast<int>(frames.size()));
  EXPECT_EQ(s.bad.load(), 0);
  gst_lumen_src_set_handoff_callback(h.src(), nullptr, nullptr);
  EXPECT_EQ(gst_lumen_src_close_ch(h.src(), 2, 0), 0);
  EXPECT_EQ(gst_lumen_src_set_live_audio_ch(-1), 0);
  EXPECT_EQ(gst_lumen_src_set_live_audio_ch(16), -1);
}

TEST(LumenSrc, PauseStopsAChannelAndResumeRestartsItAtAnIntraFrame) {
  lumen_harness h("key-interval=50");
  h.play();
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 0, 0), 0);
  h.collect([](const frames_t &f) { return of_channel(f, 16).size() >= 8; });

  g_object_set(h.src(), "channel", 0, "stream", 1, "pause", 1, nullptr);
  auto main_frames = [](size_t n) {
    return [n](const frames_t &f) { return of_channel(f, 0).size() >= n; };
  };
  h.collect(main_frames(10));  // what was under way when the request came
  auto paused = h.collect(main_frames(25));
  ASSERT_GE(of_channel(paused, 0).size(), 25u) << "the main stream goes on";
  EXPECT_EQ(of_channel(paused, 16).size(), 0u);

  // An intra frame comes every 2 s on its own; resume must not wait for it.
  g_object_set(h.src(), "channel", 0, "stream", 1, "resume", 1, nullptr);
  auto sub = of_channel(h.collect([](const frames_t &f) { return of_channel(f, 16).size() >= 5; },
                                  std::chrono::seconds(5)),
                        16);
  ASSERT_GE(sub.size(), 5u);
  EXPECT_EQ(sub[0].type, 1);
  EXPECT_EQ(sub[1].type, 0);
}

TEST(LumenSrc, BadRequestsAreRefusedWithAWarningAndOthersGoOn) {
  heard said;
  said.listen_for_warnings();
  lumen_harness h;
  h.play();
  GstElement *src = h.src();
  gst_lumen_src_set_cmd_callback(src, &heard::record, &said);
  ASSERT_EQ(gst_lumen_src_open_ch(src, 5, LUMEN_SRC_OPEN_MAIN), 0);
  EXPECT_TRUE(said.has(5, "opened"));

  auto other = orlo::adopt_floating(gst_element_factory_make("fakesrc", nullptr));
  const struct {
    gint got, want;
  } answers[] = {
      {gst_lumen_src_open_ch(src, 5, 0), -1},
      {gst_lumen_src_open_ch(src, 16, 0), -1},
      {gst_lumen_src_open_ch(src, -1, 0), -1},
      {gst_lumen_src_close_ch(src, 6, 0), -1},
      {gst_lumen_src_close_ch(src, 99, 0), -1},
      {gst_lumen_src_open_ch(other.get(), 0, 0), -1},
      {gst_lumen_src_set_cmd_callback(other.get(), nullptr, nullptr), -1},
      {gst_lumen_src_send_audio(src, 7, "abcd", 4), -1},
      {gst_lumen_src_set_dev_mac(nullptr, 6), -1},
      {gst_lumen_src_send_audio(src, 5, "abcd", 4), 4},
      {gst_lumen_src_set_dev_mac("\x00\x11\x22\x33\x44\x55", 6), 0},
  };
  for (size_t i = 0; i < std::size(answers); i++) EXPECT_EQ(answers[i].got, answers[i].want) << i;
  g_object_set(src, "channel", 9, "stream", 0, "pause", 1, nullptr);
  g_object_set(src, "ionlych", 30, nullptr);
  for (const char *w : {"open: camera 5 is already open", "open: no camera 16 (cameras are 0..15)",
                        "close: camera 6 is not open", "pause: channel 9 is not open",
                        "ionlych: channel 30 is not open"})
    EXPECT_TRUE(said.has(-1, w)) << w;

  // Addresses that can never be opened: the camera stays closed.  A file
  // that isn't there yet opens the camera without a signal, to be tried
  // again; it can be given a working source after a close.
  for (const char *uri : {"nosuchscheme://camera", "not a uri"}) {
    g_object_set(src, "channel", 7, "stream", 0, "uri", uri, nullptr);
    EXPECT_EQ(gst_lumen_src_open_ch(src, 7, LUMEN_SRC_OPEN_MAIN), -1) << uri;
  }
  EXPECT_EQ(gst_lumen_src_close_ch(src, 7, 0), -1);
  g_object_set(src, "channel", 7, "stream", 0, "uri", "file:///no/such/file.mkv", nullptr);
  EXPECT_EQ(gst_lumen_src_open_ch(src, 7, LUMEN_SRC_OPEN_MAIN), 0);
  EXPECT_TRUE(said.has(7, "lost: no such file: file:///no/such/file.mkv"));
  guint no_signal = 0;
  g_object_get(src, "no-signal", &no_signal, nullptr);
  EXPECT_EQ(no_signal, 1u << 7);
  EXPECT_EQ(gst_lumen_src_close_ch(src, 7, 0), 0);
  g_object_set(src, "channel", 7, "stream", 0, "uri", "", nullptr);
  EXPECT_EQ(gst_lumen_src_open_ch(src, 7, LUMEN_SRC_OPEN_MAIN), 0);

  auto frames =
      h.collect([](const frames_t &f) { return has_intra(5, 2)(f) && has_intra(7, 2)(f); });
  EXPECT_GE(count_of(frames, 5, 1), 2u) << "camera 5 went on through it all";
  EXPECT_GE(count_of(frames, 7, 1), 2u);
  EXPECT_EQ(gst_lumen_src_close_ch(src, 5, 0), 0);
  EXPECT_TRUE(said.has(5, "closed"));
  EXPECT_EQ(gst_lumen_src_close_ch(src, 5, 0), -1);
}

// A file that ends with looping off (a camera that drops off for good), and a
// network camera that doesn't answer: each stops its camera alone and reports
// it; the camera can be opened again.
TEST(LumenSrc, ASourceFailingMidStreamStopsOnlyItsCamera) {
  gchar *folder = g_dir_make_tmp("lumensrc-test-XXXXXX", nullptr);
  const std::string path = std::string(folder) + "/short.mkv";
  const std::string uri = make_file(path, "-frames:v 15");
  ASSERT_FALSE(uri.empty());

  heard ev;
  lumen_harness h("loop=false");
  h.play();
  gst_lumen_src_set_cmd_callback(h.src(), &heard::record, &ev);
  g_object_set(h.src(), "channel", 0, "stream", 0, "uri", uri.c_str(), nullptr);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 0, LUMEN_SRC_OPEN_MAIN), 0);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 1, LUMEN_SRC_OPEN_MAIN), 0);
  // Frames delivered before the end stay delivered.
  auto first =
      h.collect([&](const frames_t &f) { return ev.has(0, "lost: ") && has_intra(0, 1)(f); });
  EXPECT_TRUE(ev.has(0, "lost: end of stream"));
  EXPECT_GE(count_of(first, 0, 1), 1u) << "the file's pictures came through, re-encoded";

  // Camera 1 goes on; camera 0 is closed and opens again.
  EXPECT_GE(count_of(h.collect(has_intra(1, 2)), 1, 1), 2u);
  EXPECT_EQ(gst_lumen_src_close_ch(h.src(), 0, 0), -1);
  EXPECT_EQ(gst_lumen_src_open_ch(h.src(), 0, LUMEN_SRC_OPEN_MAIN), 0);
  EXPECT_GE(count_of(h.collect(has_intra(0, 1)), 0, 1), 1u);

  g_object_set(h.src(), "channel", 4, "stream", 0, "uri", "rtsp://127.0.0.1:1/none", nullptr);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 4, LUMEN_SRC_OPEN_MAIN), 0);
  h.collect([&](const frames_t &) { return ev.has(4, "lost: "); });
  EXPECT_TRUE(ev.has(4, "lost: "));
  EXPECT_EQ(gst_lumen_src_close_ch(h.src(), 4, 0), 0);
  g_object_set(h.src(), "channel", 4, "stream", 0, "uri", nullptr, nullptr);
  EXPECT_EQ(gst_lumen_src_open_ch(h.src(), 4, LUMEN_SRC_OPEN_MAIN), 0);
  EXPECT_GE(count_of(h.collect(has_intra(4, 1)), 4, 1), 1u);
  unlink(path.c_str());
  rmdir(folder);
  g_free(folder);
}

// FFmpeg's x264 in High profile with B-frames in MPEG-TS and in Baseline in
// MP4, each at its own rate and again from its start.
TEST(LumenSrc, H264FilesPlayAtTheirOwnRateAndLoop) {
  constexpr int kSeconds = 4, kFps = 25;
  const std::pair<const char *, const char *> files[] = {
      {"high-bframes.ts", "-t 4 -profile:v high -bf 3"},
      {"baseline.mp4", "-t 4 -profile:v baseline"},
  };
  gchar *folder = g_dir_make_tmp("lumensrc-files-XXXXXX", nullptr);
  lumen_harness h("framerate=25");
  h.play();
  const int n = static_cast<int>(std::size(files));
  for (int cam = 0; cam < n; cam++) {
    const std::string uri =
        make_file(std::string(folder) + "/" + files[cam].first, files[cam].second);
    ASSERT_FALSE(uri.empty()) << files[cam].first;
    g_object_set(h.src(), "channel", cam, "stream", 0, "uri", uri.c_str(), nullptr);
    ASSERT_EQ(gst_lumen_src_open_ch(h.src(), cam, LUMEN_SRC_OPEN_MAIN), 0);
  }
  // Two plays and a frame of each file: the second play proves the loop, the
  // span of both the rate.
  const size_t wanted = 2 * kSeconds * kFps + 1;
  const auto frames = h.collect(
      [&](const frames_t &f) {
        for (int cam = 0; cam < n; cam++)
          if (of_channel(f, cam).size() < wanted) return false;
        return true;
      },
      std::chrono::seconds(60));
  for (int cam = 0; cam < n; cam++) {
    const auto mine = of_channel(frames, cam);
    ASSERT_GE(mine.size(), wanted) << files[cam].first << " did not play twice";
    const double span =
        static_cast<double>(mine[wanted - 1].list_pts - mine[0].list_pts) / GST_SECOND;
    // A 4 s file takes 4 s (+/- 10 %), twice.
    EXPECT_NEAR(span, 2.0 * kSeconds, 0.2 * kSeconds) << files[cam].first;
  }
  for (const auto &f : files) unlink((std::string(folder) + "/" + f.first).c_str());
  rmdir(folder);
  g_free(folder);
}
