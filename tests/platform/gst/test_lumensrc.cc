// The live source element on its own: what its channels deliver, the
// requests by property, and how it refuses or reports bad input.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "lumen_harness.hh"

using live_test::count_of;
using live_test::frame;
using live_test::lumen_harness;
using live_test::of_channel;
using namespace std::chrono_literals;

namespace {

using frames_t = std::vector<frame>;

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
  h.collect_for(200ms);  // what was under way when the request came
  auto paused = h.collect_for(1s);
  EXPECT_EQ(of_channel(paused, 16).size(), 0u);
  EXPECT_GT(of_channel(paused, 0).size(), 10u) << "the main stream goes on";

  // An intra frame comes every 2 s on its own; resume must not wait for it.
  g_object_set(h.src(), "channel", 0, "stream", 1, "resume", 1, nullptr);
  auto sub = of_channel(
      h.collect([](const frames_t &f) { return of_channel(f, 16).size() >= 5; }, 5s), 16);
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

  GstElement *other = gst_element_factory_make("fakesrc", nullptr);
  EXPECT_EQ(gst_lumen_src_open_ch(src, 5, 0), -1);
  EXPECT_EQ(gst_lumen_src_open_ch(src, 16, 0), -1);
  EXPECT_EQ(gst_lumen_src_open_ch(src, -1, 0), -1);
  EXPECT_EQ(gst_lumen_src_close_ch(src, 6, 0), -1);
  EXPECT_EQ(gst_lumen_src_close_ch(src, 99, 0), -1);
  EXPECT_EQ(gst_lumen_src_open_ch(other, 0, 0), -1);
  EXPECT_EQ(gst_lumen_src_set_cmd_callback(other, nullptr, nullptr), -1);
  EXPECT_EQ(gst_lumen_src_send_audio(src, 7, "abcd", 4), -1);
  EXPECT_EQ(gst_lumen_src_set_dev_mac(nullptr, 6), -1);
  gst_object_unref(other);
  g_object_set(src, "channel", 9, "stream", 0, "pause", 1, nullptr);
  g_object_set(src, "ionlych", 30, nullptr);
  for (const char *w : {"open: camera 5 is already open", "open: no camera 16 (cameras are 0..15)",
                        "close: camera 6 is not open", "pause: channel 9 is not open",
                        "ionlych: channel 30 is not open"})
    EXPECT_TRUE(said.has(-1, w)) << w;
  EXPECT_EQ(gst_lumen_src_send_audio(src, 5, "abcd", 4), 4);
  EXPECT_EQ(gst_lumen_src_set_dev_mac("\x00\x11\x22\x33\x44\x55", 6), 0);

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
  gst_init(nullptr, nullptr);
  gchar *path = g_build_filename(g_get_tmp_dir(), "lumensrc-test-XXXXXX.mkv", nullptr);
  int fd = g_mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  ASSERT_TRUE(live_test::run_to_eos(
      std::string("videotestsrc num-buffers=15 ! video/x-raw,width=160,height=96 ! x264enc ! "
                  "matroskamux ! filesink location=") +
      path));

  heard ev;
  lumen_harness h("loop=false");
  h.play();
  gst_lumen_src_set_cmd_callback(h.src(), &heard::record, &ev);
  gchar *uri = g_filename_to_uri(path, nullptr, nullptr);
  g_object_set(h.src(), "channel", 0, "stream", 0, "uri", uri, nullptr);
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
  g_free(uri);
  unlink(path);
  g_free(path);
}
