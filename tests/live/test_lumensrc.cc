// The live source element on its own: what its channels deliver, the
// requests by property, and how it refuses bad input.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "lumen_harness.hh"

using live_test::count_of;
using live_test::frame;
using live_test::lumen_harness;
using live_test::of_channel;
using namespace std::chrono_literals;

namespace {

// Enough of a channel to judge it: two intra frames and what lies between.
auto has_intra = [](int ch, size_t n) {
  return [ch, n](const std::vector<frame> &f) { return count_of(f, ch, 1) >= n; };
};

struct events {
  std::mutex lock;
  std::vector<std::pair<int, std::string>> seen;
  static void record(gint ch, gpointer data, gint size, gpointer self) {
    auto *e = static_cast<events *>(self);
    std::lock_guard<std::mutex> g(e->lock);
    e->seen.emplace_back(ch, std::string(static_cast<const char *>(data), size));
  }
  bool has(int ch, const std::string &prefix) {
    std::lock_guard<std::mutex> g(lock);
    for (auto &[c, t] : seen)
      if (c == ch && t.rfind(prefix, 0) == 0) return true;
    return false;
  }
};

// The element's warnings, which carry its own log domain.
class element_log {
 public:
  element_log() {
    id_ = g_log_set_handler("lumensrc", static_cast<GLogLevelFlags>(G_LOG_LEVEL_MASK), &handler,
                            this);
  }
  ~element_log() { g_log_remove_handler("lumensrc", id_); }
  bool has(const std::string &text) {
    std::lock_guard<std::mutex> g(lock_);
    for (auto &l : lines_)
      if (l == text) return true;
    return false;
  }

 private:
  static void handler(const gchar *, GLogLevelFlags level, const gchar *message, gpointer self) {
    auto *me = static_cast<element_log *>(self);
    if ((level & G_LOG_LEVEL_WARNING) == 0) return;
    std::lock_guard<std::mutex> g(me->lock_);
    me->lines_.emplace_back(message);
  }
  guint id_;
  std::mutex lock_;
  std::vector<std::string> lines_;
};

}  // namespace

TEST(LumenSrc, OpenCameraDeliversBothStreamsFromAnIntraFrameAtASteadyInterval) {
  lumen_harness h;
  h.play();
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 2, 0), 0);
  auto frames = h.collect([](const std::vector<frame> &f) {
    return count_of(f, 2, 1) >= 3 && count_of(f, 18, 1) >= 3;
  });
  for (int ch : {2, 18}) {
    auto mine = of_channel(frames, ch);
    ASSERT_GE(count_of(frames, ch, 1), 3u) << "channel " << ch;
    EXPECT_EQ(mine.front().type, 1) << "channel " << ch << " starts at an intra frame";
    // key-interval 5: an intra frame, then four inter frames, over and over.
    for (size_t i = 0; i < mine.size(); ++i) {
      EXPECT_EQ(mine[i].type, i % 5 == 0 ? 1 : 0) << "channel " << ch << " frame " << i;
      EXPECT_TRUE(mine[i].header_ok);
      EXPECT_GT(mine[i].size, 0u);
      if (i > 0) {
        EXPECT_EQ(mine[i].seq, mine[i - 1].seq + 1);
      }
    }
  }
  // Nothing of other cameras, no audio unless asked for, live timestamps.
  for (const auto &f : frames) {
    EXPECT_TRUE(f.ch == 2 || f.ch == 18);
    EXPECT_NE(f.type, 10);
    EXPECT_TRUE(GST_CLOCK_TIME_IS_VALID(f.list_pts));
  }
  EXPECT_EQ(gst_lumen_src_close_ch(h.src(), 2, 0), 0);
}

TEST(LumenSrc, StreamsFlagsAndAudioOfTheLiveAudioCamera) {
  lumen_harness h;
  h.play();
  ASSERT_EQ(gst_lumen_src_set_live_audio_ch(1), 0);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 1, LUMEN_SRC_OPEN_MAIN), 0);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 4, LUMEN_SRC_OPEN_SUB), 0);
  auto frames = h.collect([](const std::vector<frame> &f) {
    return count_of(f, 1, 10) >= 5 && count_of(f, 20, 1) >= 2 && count_of(f, 1, 1) >= 2;
  });
  EXPECT_GE(count_of(frames, 1, 10), 5u);
  for (const auto &f : frames) {
    EXPECT_TRUE(f.ch == 1 || f.ch == 20) << f.ch;
    if (f.type == 10) {
      EXPECT_EQ(f.size, 640u);  // 40 ms of 8 kHz 16-bit mono
      EXPECT_EQ(f.ch, 1);
    }
  }
  gst_lumen_src_set_live_audio_ch(-1);
  EXPECT_EQ(gst_lumen_src_set_live_audio_ch(16), -1);
}

TEST(LumenSrc, PauseStopsAChannelAndResumeRestartsItAtAnIntraFrame) {
  lumen_harness h("key-interval=50");
  h.play();
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 0, 0), 0);
  h.collect([](const std::vector<frame> &f) { return of_channel(f, 16).size() >= 8; });

  g_object_set(h.src(), "channel", 0, "stream", 1, "pause", 1, nullptr);
  h.collect_for(200ms);  // what was under way when the request came
  auto paused = h.collect_for(1s);
  EXPECT_EQ(of_channel(paused, 16).size(), 0u);
  EXPECT_GT(of_channel(paused, 0).size(), 10u) << "the main stream goes on";

  // An intra frame comes every 2 s on its own; resume must not wait for it.
  g_object_set(h.src(), "channel", 0, "stream", 1, "resume", 1, nullptr);
  auto resumed =
      h.collect([](const std::vector<frame> &f) { return of_channel(f, 16).size() >= 5; }, 5s);
  auto sub = of_channel(resumed, 16);
  ASSERT_GE(sub.size(), 5u);
  EXPECT_EQ(sub.front().type, 1);
  EXPECT_EQ(sub[1].type, 0);
}

TEST(LumenSrc, IntraOnlySendsOnlyIntraFramesUntilEnded) {
  lumen_harness h;
  h.play();
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 3, LUMEN_SRC_OPEN_MAIN), 0);
  h.collect(has_intra(3, 1));
  g_object_set(h.src(), "ionlych", 3, nullptr);
  h.collect_for(100ms);
  auto only = h.collect(has_intra(3, 4));
  EXPECT_GE(count_of(only, 3, 1), 4u);
  EXPECT_EQ(count_of(only, 3, 0), 0u);

  g_object_set(h.src(), "ionlych", -1, nullptr);
  auto normal = h.collect([](const std::vector<frame> &f) { return count_of(f, 3, 0) >= 4; });
  auto mine = of_channel(normal, 3);
  ASSERT_FALSE(mine.empty());
  EXPECT_EQ(mine.front().type, 1);
  EXPECT_GE(count_of(normal, 3, 0), 4u);
}

TEST(LumenSrc, BadRequestsAreRefusedWithAWarningAndOthersGoOn) {
  element_log log;
  lumen_harness h;
  h.play();
  events ev;
  gst_lumen_src_set_cmd_callback(h.src(), &events::record, &ev);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 5, LUMEN_SRC_OPEN_MAIN), 0);
  EXPECT_TRUE(ev.has(5, "opened"));

  EXPECT_EQ(gst_lumen_src_open_ch(h.src(), 5, 0), -1);
  EXPECT_TRUE(log.has("open: camera 5 is already open"));
  EXPECT_EQ(gst_lumen_src_open_ch(h.src(), 16, 0), -1);
  EXPECT_EQ(gst_lumen_src_open_ch(h.src(), -1, 0), -1);
  EXPECT_TRUE(log.has("open: no camera 16 (cameras are 0..15)"));
  EXPECT_EQ(gst_lumen_src_close_ch(h.src(), 6, 0), -1);
  EXPECT_TRUE(log.has("close: camera 6 is not open"));
  EXPECT_EQ(gst_lumen_src_close_ch(h.src(), 99, 0), -1);
  g_object_set(h.src(), "channel", 9, "stream", 0, "pause", 1, nullptr);
  EXPECT_TRUE(log.has("pause: channel 9 is not open"));
  g_object_set(h.src(), "ionlych", 30, nullptr);
  EXPECT_TRUE(log.has("ionlych: channel 30 is not open"));

  GstElement *other = gst_element_factory_make("fakesrc", nullptr);
  EXPECT_EQ(gst_lumen_src_open_ch(other, 0, 0), -1);
  EXPECT_EQ(gst_lumen_src_set_cmd_callback(other, nullptr, nullptr), -1);
  gst_object_unref(other);
  EXPECT_EQ(gst_lumen_src_send_audio(h.src(), 5, "abcd", 4), 4);
  EXPECT_EQ(gst_lumen_src_send_audio(h.src(), 7, "abcd", 4), -1);
  EXPECT_EQ(gst_lumen_src_set_dev_mac("\x00\x11\x22\x33\x44\x55", 6), 0);
  EXPECT_EQ(gst_lumen_src_set_dev_mac(nullptr, 6), -1);

  // Addresses that can't be opened: the camera stays closed and can be
  // given a working source again.
  for (const char *uri : {"file:///no/such/file.mkv", "nosuchscheme://camera", "not a uri"}) {
    g_object_set(h.src(), "channel", 7, "stream", 0, "uri", uri, nullptr);
    EXPECT_EQ(gst_lumen_src_open_ch(h.src(), 7, LUMEN_SRC_OPEN_MAIN), -1) << uri;
  }
  EXPECT_EQ(gst_lumen_src_close_ch(h.src(), 7, 0), -1);
  g_object_set(h.src(), "channel", 7, "stream", 0, "uri", "", nullptr);
  EXPECT_EQ(gst_lumen_src_open_ch(h.src(), 7, LUMEN_SRC_OPEN_MAIN), 0);

  auto frames = h.collect(
      [](const std::vector<frame> &f) { return count_of(f, 5, 1) >= 2 && count_of(f, 7, 1) >= 2; });
  EXPECT_GE(count_of(frames, 5, 1), 2u) << "camera 5 went on through it all";
  EXPECT_GE(count_of(frames, 7, 1), 2u);
  EXPECT_EQ(gst_lumen_src_close_ch(h.src(), 5, 0), 0);
  EXPECT_TRUE(ev.has(5, "closed"));
  EXPECT_EQ(gst_lumen_src_close_ch(h.src(), 5, 0), -1);
}

// A real source that ends while running (a file standing in for a camera
// that drops off) closes its camera alone, which reports it and can be
// opened again.
TEST(LumenSrc, ASourceFailingMidStreamStopsOnlyItsCamera) {
  gst_init(nullptr, nullptr);
  gchar *path = g_build_filename(g_get_tmp_dir(), "lumensrc-test-XXXXXX.mkv", nullptr);
  int fd = g_mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  std::string make = std::string(
                         "videotestsrc num-buffers=15 ! video/x-raw,width=160,height=96 ! "
                         "x264enc ! matroskamux ! filesink location=") +
                     path;
  GstElement *writer = gst_parse_launch(make.c_str(), nullptr);
  ASSERT_NE(writer, nullptr);
  gst_element_set_state(writer, GST_STATE_PLAYING);
  GstBus *bus = gst_element_get_bus(writer);
  GstMessage *m = gst_bus_timed_pop_filtered(
      bus, 20 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(GST_MESSAGE_TYPE(m), GST_MESSAGE_EOS);
  gst_message_unref(m);
  gst_object_unref(bus);
  gst_element_set_state(writer, GST_STATE_NULL);
  gst_object_unref(writer);

  lumen_harness h;
  h.play();
  events ev;
  gst_lumen_src_set_cmd_callback(h.src(), &events::record, &ev);
  gchar *uri = g_filename_to_uri(path, nullptr, nullptr);
  g_object_set(h.src(), "channel", 0, "stream", 0, "uri", uri, nullptr);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 0, LUMEN_SRC_OPEN_MAIN), 0);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 1, LUMEN_SRC_OPEN_MAIN), 0);
  // Frames delivered before the end stay delivered.
  auto first = h.collect(
      [&](const std::vector<frame> &f) { return ev.has(0, "lost: ") && count_of(f, 0, 1) >= 1; });
  EXPECT_TRUE(ev.has(0, "lost: end of stream"));
  EXPECT_GE(count_of(first, 0, 1), 1u) << "the file's pictures came through, re-encoded";

  // Camera 1 goes on; camera 0 is closed and opens again.
  auto later = h.collect(has_intra(1, 2));
  EXPECT_GE(count_of(later, 1, 1), 2u);
  EXPECT_EQ(gst_lumen_src_close_ch(h.src(), 0, 0), -1);
  EXPECT_EQ(gst_lumen_src_open_ch(h.src(), 0, LUMEN_SRC_OPEN_MAIN), 0);
  auto again = h.collect(has_intra(0, 1));
  EXPECT_GE(count_of(again, 0, 1), 1u);

  g_free(uri);
  unlink(path);
  g_free(path);
}

TEST(LumenSrc, CallbacksSeeFramesAndStreamCaps) {
  lumen_harness h;
  h.play();
  struct seen {
    std::atomic<int> frames{0};
    std::atomic<int> bad{0};
    events caps;
  } s;
  gst_lumen_src_set_handoff_callback(
      h.src(),
      [](gint ch, gpointer data, gint size, gpointer self) {
        auto *x = static_cast<seen *>(self);
        const auto *p = static_cast<const uint8_t *>(data);
        uint32_t payload;
        memcpy(&payload, p + 4, 4);
        if (p[0] != ch || static_cast<uint32_t>(size) != 24 + payload) ++x->bad;
        ++x->frames;
      },
      &s);
  gst_lumen_src_set_header_x_callback(h.src(), &events::record, &s.caps);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 8, 0), 0);
  auto frames = h.collect(has_intra(24, 2));
  EXPECT_GE(s.frames.load(), static_cast<int>(frames.size()));
  EXPECT_EQ(s.bad.load(), 0);
  EXPECT_TRUE(s.caps.has(8, "video/x-h264"));
  EXPECT_TRUE(s.caps.has(24, "video/x-h264"));
  gst_lumen_src_set_handoff_callback(h.src(), nullptr, nullptr);
}

// A network camera that doesn't answer: refused at once or lost soon after,
// either way reported, and the camera can be opened again.
TEST(LumenSrc, AnUnreachableNetworkCameraIsReportedAndCanBeOpenedAgain) {
  lumen_harness h;
  h.play();
  events ev;
  gst_lumen_src_set_cmd_callback(h.src(), &events::record, &ev);
  g_object_set(h.src(), "channel", 4, "stream", 0, "uri", "rtsp://127.0.0.1:1/none", nullptr);
  if (gst_lumen_src_open_ch(h.src(), 4, LUMEN_SRC_OPEN_MAIN) == 0) {
    h.collect([&](const std::vector<frame> &) { return ev.has(4, "lost: "); });
    EXPECT_TRUE(ev.has(4, "lost: "));
  }
  g_object_set(h.src(), "channel", 4, "stream", 0, "uri", nullptr, nullptr);
  EXPECT_EQ(gst_lumen_src_open_ch(h.src(), 4, LUMEN_SRC_OPEN_MAIN), 0);
  auto frames = h.collect(has_intra(4, 1));
  EXPECT_GE(count_of(frames, 4, 1), 1u);
}
