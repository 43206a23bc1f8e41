// The live source element in a small pipeline of its own: what its channels
// deliver, the requests by property, how it refuses or reports bad input,
// and files that nobody here encoded, played as a camera would send them.
#include <gst/app/gstappsink.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "channel_label.hh"
#include "element_checks.hh"
#include "eventually.hh"
#include "kel_buffers.h"
#include "lumen_src.h"
#include "ref_ptr.hh"

namespace {

struct frame {
  int ch, type;
  uint32_t size, stamp, seq;
  GstClockTime list_pts;
  bool header_ok;  // the header's size agrees with the buffer's
};
using frames_t = std::vector<frame>;

frames_t of_channel(const frames_t &frames, int ch) {
  frames_t out;
  for (const auto &f : frames)
    if (f.ch == ch) out.push_back(f);
  return out;
}

size_t count_of(const frames_t &frames, int ch, int type) {
  size_t n = 0;
  for (const auto &f : frames) n += f.ch == ch && f.type == type;
  return n;
}

auto has_intra(int ch, size_t n) {
  return [ch, n](const frames_t &f) { return count_of(f, ch, 1) >= n; };
}

// A folder of H.264 files by FFmpeg's x264, removed with them.
struct file_folder {
  std::string path = [] {
    gchar *p = g_dir_make_tmp("lumensrc-XXXXXX", nullptr);
    std::string s(p);
    g_free(p);
    return s;
  }();
  ~file_folder() { std::filesystem::remove_all(path); }
  // The URI of file `name` made with these output options.
  std::string make(const std::string &name, const std::string &options) const {
    const std::string cmd = "ffmpeg -v error -y -f lavfi -i testsrc2=s=320x180:r=25 " + options +
                            " -c:v libx264 -pix_fmt yuv420p " + path + "/" + name;
    return std::system(cmd.c_str()) == 0 ? "file://" + path + "/" + name : "";
  }
};

class lumen_harness {
 public:
  // Small pictures and a short intra interval keep the tests quick.
  explicit lumen_harness(const std::string &extra = "", const std::string &sink = "") {
    gst_init(nullptr, nullptr);
    const std::string d = "lumensrc name=src width=160 height=96 key-interval=5 " + extra +
                          " ! appsink name=out sync=false caps=video/x-h264 " + sink;
    pipeline_ = orlo::adopt_floating(gst_parse_launch(d.c_str(), nullptr));
    src_ = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipeline_.get()), "src"));
    out_ = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipeline_.get()), "out"));
    // A live pipeline completes its change to PLAYING only with a first
    // frame, so nothing waits for it here.
    gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
  }
  ~lumen_harness() { gst_element_set_state(pipeline_.get(), GST_STATE_NULL); }
  GstElement *src() const { return src_.get(); }

  // Pulls deliveries until `done` says so or `limit` passes; gives every frame.
  frames_t collect(const std::function<bool(const frames_t &)> &done, int limit_s = 20) {
    frames_t frames;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(limit_s);
    while (std::chrono::steady_clock::now() < end && !done(frames)) {
      GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(out_.get()), GST_SECOND / 10);
      if (sample == nullptr) continue;
      GstBuffer *list = gst_sample_get_buffer(sample);
      for (GList *l = gst_kel_list_buffer_get_meta(list)->list; l != nullptr; l = l->next) {
        GstKelBuddyMeta *b = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(l->data));
        frame f{b->data[0], b->data[8], 0, 0, 0, GST_BUFFER_PTS(list), false};
        memcpy(&f.size, b->data + 4, 4), memcpy(&f.stamp, b->data + 12, 4);
        memcpy(&f.seq, b->data + 16, 4);
        f.header_ok = b->size == 24 + static_cast<gsize>(f.size);
        frames.push_back(f);
      }
      gst_sample_unref(sample);
    }
    return frames;
  }

 private:
  orlo::ref_ptr<GstElement> pipeline_, src_, out_;
};

// What the element says: the callbacks' texts by channel, and its warnings
// (own log domain) as channel -1, one "channel:text" line each.
struct heard {
  std::mutex lock;
  std::string lines;
  guint handler = g_log_set_handler(
      "lumensrc", G_LOG_LEVEL_WARNING,
      [](const gchar *, GLogLevelFlags, const gchar *m, gpointer self) {
        static_cast<heard *>(self)->add(-1, m);
      },
      this);

  ~heard() { g_log_remove_handler("lumensrc", handler); }
  void add(int ch, const std::string &text) {
    std::lock_guard<std::mutex> g(lock);
    lines += std::to_string(ch) + ":" + text + "\n";
  }
  static void record(gint ch, gpointer data, gint size, gpointer self) {
    static_cast<heard *>(self)->add(ch, std::string(static_cast<const char *>(data), size));
  }
  // A line of the channel that starts with `text` and holds `part`.
  bool has(int ch, const std::string &text, const std::string &part = "") {
    std::lock_guard<std::mutex> g(lock);
    const std::string all = "\n" + lines, head = "\n" + std::to_string(ch) + ":" + text;
    for (size_t at = all.find(head); at != std::string::npos; at = all.find(head, at + 1))
      if (all.substr(at, all.find('\n', at + 1) - at).find(part) != std::string::npos) return true;
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
  // The handoff callback sees each frame with its header.
  gst_lumen_src_set_handoff_callback(
      h.src(),
      [](gint ch, gpointer data, gint size, gpointer self) {
        const auto *p = static_cast<const uint8_t *>(data);
        uint32_t payload;
        memcpy(&payload, p + 4, 4);
        static_cast<seen *>(self)->bad += p[0] != ch || static_cast<uint32_t>(size) != 24 + payload;
        ++static_cast<seen *>(self)->frames;
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
      EXPECT_TRUE(mine[i].header_ok && mine[i].size > 0 && mine[i].stamp != 0);
      EXPECT_EQ(mine[i].seq, mine[0].seq + i);
    }
    // The sub stream at half the size.
    EXPECT_TRUE(s.caps.has(ch, "video/x-h264", ch == 2 ? "width=(int)160" : "width=(int)80"));
  }
  EXPECT_GE(count_of(frames, 1, 10), 5u);
  for (const auto &f : frames) {
    EXPECT_TRUE(f.ch == 1 || f.ch == 2 || f.ch == 18 || f.ch == 20) << f.ch;
    EXPECT_TRUE(GST_CLOCK_TIME_IS_VALID(f.list_pts));
    // Audio: 40 ms of 8 kHz 16-bit mono.
    EXPECT_TRUE(f.type != 10 || (f.size == 640 && f.ch == 1));
  }
  EXPECT_GE(s.frames.load(), static_cast<int>(frames.size()));
  EXPECT_EQ(s.bad.load(), 0);
  gst_lumen_src_set_handoff_callback(h.src(), nullptr, nullptr);
}

TEST(LumenSrc, PauseStopsAChannelAndResumeRestartsItAtAnIntraFrame) {
  lumen_harness h("key-interval=50");
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
  auto sub =
      of_channel(h.collect([](const frames_t &f) { return of_channel(f, 16).size() >= 5; }, 5), 16);
  ASSERT_GE(sub.size(), 5u);
  EXPECT_EQ(sub[0].type, 1);
  EXPECT_EQ(sub[1].type, 0);
}

TEST(LumenSrc, BadRequestsAreRefusedWithAWarningAndOthersGoOn) {
  expect_element_basics("lumensrc", 15, {"pause", "resume", "ionlych", "uri"});
  heard said;
  lumen_harness h;
  GstElement *src = h.src();
  gst_lumen_src_set_cmd_callback(src, &heard::record, &said);
  ASSERT_EQ(gst_lumen_src_open_ch(src, 5, LUMEN_SRC_OPEN_MAIN), 0);
  EXPECT_TRUE(said.has(5, "opened"));

  auto other = orlo::adopt_floating(gst_element_factory_make("fakesrc", nullptr));
  const gint answers[][2] = {
      {gst_lumen_src_open_ch(src, 5, 0), -1},
      {gst_lumen_src_open_ch(src, 16, 0), -1},
      {gst_lumen_src_open_ch(src, -1, 0), -1},
      {gst_lumen_src_close_ch(src, 6, 0), -1},
      {gst_lumen_src_close_ch(src, 99, 0), -1},
      {gst_lumen_src_open_ch(other.get(), 0, 0), -1},
      {gst_lumen_src_set_cmd_callback(other.get(), nullptr, nullptr), -1},
      {gst_lumen_src_send_audio(src, 7, "abcd", 4), -1},
      {gst_lumen_src_set_dev_mac(nullptr, 6), -1},
      {gst_lumen_src_set_live_audio_ch(16), -1},
      {gst_lumen_src_set_live_audio_ch(-1), 0},
      {gst_lumen_src_send_audio(src, 5, "abcd", 4), 4},
      {gst_lumen_src_set_dev_mac("\x00\x11\x22\x33\x44\x55", 6), 0},
  };
  for (size_t i = 0; i < std::size(answers); i++) EXPECT_EQ(answers[i][0], answers[i][1]) << i;
  g_object_set(src, "channel", 9, "stream", 0, "pause", 1, nullptr);
  g_object_set(src, "ionlych", 30, nullptr);
  g_object_set(src, "channel", 20, "stream", 1, "uri", "file:///x", nullptr);
  for (const char *w : {"open: camera 5 is already open", "open: no camera 16 (cameras are 0..15)",
                        "close: camera 6 is not open", "pause: channel 9 is not open",
                        "ionlych: channel 30 is not open", "uri: no channel 36"})
    EXPECT_TRUE(said.has(-1, std::string(w) + "\n")) << w;

  // Addresses that can never be opened: the camera stays closed.  A file
  // that isn't there yet opens the camera without a signal, to be tried
  // again; the camera can be given another source after a close.
  for (const char *uri : {"nosuchscheme://camera", "not a uri"}) {
    g_object_set(src, "channel", 7, "stream", 0, "uri", uri, nullptr);
    EXPECT_EQ(gst_lumen_src_open_ch(src, 7, LUMEN_SRC_OPEN_MAIN), -1) << uri;
  }
  EXPECT_EQ(gst_lumen_src_close_ch(src, 7, 0), -1);
  const file_folder folder;
  const std::string late = "file://" + folder.path + "/late.mkv";
  g_object_set(src, "channel", 7, "stream", 0, "uri", late.c_str(), nullptr);
  EXPECT_EQ(gst_lumen_src_open_ch(src, 7, LUMEN_SRC_OPEN_MAIN), 0);
  EXPECT_TRUE(said.has(7, "lost: no such file: " + late));
  guint no_signal = 0;
  g_object_get(src, "no-signal", &no_signal, nullptr);
  EXPECT_EQ(no_signal, 1u << 7);
  // The file arrives whole: a later try plays it, and the camera is back.
  ASSERT_FALSE(folder.make("copying.mkv", "-frames:v 25").empty());
  std::filesystem::rename(folder.path + "/copying.mkv", folder.path + "/late.mkv");
  EXPECT_TRUE(testing_support::eventually([&] { return said.has(7, "resumed"); }));
  g_object_get(src, "no-signal", &no_signal, nullptr);
  EXPECT_EQ(no_signal, 0u);
  EXPECT_EQ(gst_lumen_src_close_ch(src, 7, 0), 0);
  g_object_set(src, "channel", 7, "stream", 0, "uri", "", nullptr);
  EXPECT_EQ(gst_lumen_src_open_ch(src, 7, LUMEN_SRC_OPEN_MAIN), 0);

  auto frames =
      h.collect([](const frames_t &f) { return has_intra(5, 2)(f) && has_intra(7, 2)(f); });
  EXPECT_GE(count_of(frames, 5, 1), 2u) << "camera 5 went on through it all";
  EXPECT_GE(count_of(frames, 7, 1), 2u);
  EXPECT_EQ(gst_lumen_src_close_ch(src, 5, 0), 0);
  EXPECT_TRUE(said.has(5, "closed"));
}

// A consumer that stops taking frames costs a channel its oldest inter
// frames up to its next intra frame: no frame goes out whose reference was
// dropped, and it is said once.
TEST(LumenSrc, ASlowConsumerLosesRunsOfInterFramesUpToAnIntraFrame) {
  heard said;
  std::atomic<int> made{0};  // frames the cameras gave, taken or not
  lumen_harness h("framerate=120 key-interval=20", "max-buffers=1");
  gst_lumen_src_set_handoff_callback(
      h.src(), [](gint, gpointer, gint, gpointer n) { ++*static_cast<std::atomic<int> *>(n); },
      &made);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 0, 0), 0);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 1, 0), 0);
  ASSERT_TRUE(testing_support::eventually([&] { return said.has(-1, "frames are not taken; "); }));
  // Many more drops before anything is taken.
  const int at_first_drop = made;
  ASSERT_TRUE(testing_support::eventually([&] { return made >= at_first_drop + 200; }));
  const auto frames = h.collect([](const frames_t &f) { return f.size() >= 400; });
  size_t gaps = 0;
  for (int ch : {0, 1, 16, 17}) {
    const auto mine = of_channel(frames, ch);
    for (size_t i = 1; i < mine.size(); i++) {
      if (mine[i].seq == mine[i - 1].seq + 1) continue;
      gaps++;
      EXPECT_EQ(mine[i].type, 1) << "channel " << ch << " frame " << mine[i].seq;
    }
  }
  EXPECT_GT(gaps, 0u);
  std::lock_guard<std::mutex> g(said.lock);
  EXPECT_EQ(said.lines.find("frames are not taken"), said.lines.rfind("frames are not taken"));
}

// A camera on a file plays it at its own rate and again from its start; with
// looping off its end stops that camera alone, as does a network camera that
// doesn't answer; each is reported, and the camera can be opened again.
TEST(LumenSrc, FilesLoopAtTheirRateAndFailingSourcesStopOnlyTheirCamera) {
  const file_folder folder;
  const std::string uri = folder.make("short.mkv", "-frames:v 15 -profile:v high -bf 3");
  ASSERT_FALSE(uri.empty());
  heard ev;
  // Under load a file may stall past the default silence limit: only its
  // end may take it away here.
  lumen_harness h("silence-timeout=600000");
  gst_lumen_src_set_cmd_callback(h.src(), &heard::record, &ev);
  g_object_set(h.src(), "channel", 0, "stream", 0, "uri", uri.c_str(), nullptr);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 0, LUMEN_SRC_OPEN_MAIN), 0);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 1, LUMEN_SRC_OPEN_MAIN), 0);
  // Two plays and a frame; the first paced at 25 frames a second, not as fast as
  // the file decodes (the bound is loose for a loaded machine).
  const auto looped =
      of_channel(h.collect([](const frames_t &f) { return of_channel(f, 0).size() >= 31; }), 0);
  ASSERT_GE(looped.size(), 31u);
  EXPECT_GE(looped[15].list_pts - looped[0].list_pts, 15 * GST_SECOND / 25 / 2);
  g_object_set(h.src(), "loop", FALSE, nullptr);
  h.collect([&](const frames_t &) { return ev.has(0, "lost: "); });
  EXPECT_TRUE(ev.has(0, "lost: end of stream") && ev.has(-1, "camera 0 lost: end of stream\n"));
  EXPECT_GE(count_of(h.collect(has_intra(1, 2)), 1, 1), 2u) << "camera 1 goes on";
  EXPECT_EQ(gst_lumen_src_close_ch(h.src(), 0, 0), -1);
  EXPECT_EQ(gst_lumen_src_open_ch(h.src(), 0, LUMEN_SRC_OPEN_MAIN), 0);
  EXPECT_GE(count_of(h.collect(has_intra(0, 1)), 0, 1), 1u);

  g_object_set(h.src(), "channel", 4, "stream", 0, "uri", "rtsp://127.0.0.1:1/none", nullptr);
  ASSERT_EQ(gst_lumen_src_open_ch(h.src(), 4, LUMEN_SRC_OPEN_MAIN), 0);
  h.collect([&](const frames_t &) { return ev.has(4, "lost: "); });
  EXPECT_TRUE(ev.has(4, "lost: ", " (")) << "with the reason from the error's details";
  EXPECT_EQ(gst_lumen_src_close_ch(h.src(), 4, 0), 0);
  g_object_set(h.src(), "channel", 4, "stream", 0, "uri", nullptr, nullptr);
  EXPECT_EQ(gst_lumen_src_open_ch(h.src(), 4, LUMEN_SRC_OPEN_MAIN), 0);
  EXPECT_GE(count_of(h.collect(has_intra(4, 1)), 4, 1), 1u);
}

// A synthetic camera shows its number in a 3x5 block font.
TEST(LumenSrc, SyntheticPicturesCarryTheCameraNumber) {
  gst_init(nullptr, nullptr);
  GstVideoInfo info;
  gst_video_info_set_format(&info, GST_VIDEO_FORMAT_I420, 96, 24);  // font pixels of 2x2
  std::vector<guint8> bytes(info.size, 128);
  GstVideoFrame f;
  auto buffer = orlo::adopt(gst_buffer_new_wrapped_full(
      GstMemoryFlags{}, bytes.data(), bytes.size(), 0, bytes.size(), nullptr, nullptr));
  ASSERT_TRUE(gst_video_frame_map(&f, &info, buffer.get(), GST_MAP_WRITE));
  lumen::draw_channel_label(&f, 1234567890);
  gst_video_frame_unmap(&f);
  std::string seen;  // '#' ink, '.' the dark box, a font pixel each
  for (int y = 4; y < 14; y += 2, seen += '\n')
    for (int x = 4; x < 84; x += 2)
      seen += bytes[y * 96 + x] == 235 ? '#' : ".?"[bytes[y * 96 + x] != 16];
  EXPECT_EQ(seen,
            ".#..###.###.#.#.###.###.###.###.###.###.\n"
            "##....#...#.#.#.#...#.....#.#.#.#.#.#.#.\n"
            ".#..###.###.###.###.###...#.###.###.#.#.\n"
            ".#..#.....#...#...#.#.#...#.#.#...#.#.#.\n"
            "###.###.###...#.###.###...#.###.###.###.\n");
}
