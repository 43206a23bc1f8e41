// The live source element in a small pipeline of its own: what its channels
// deliver, the requests by property, how it refuses bad input, a consumer
// that falls behind, and real sources (files nobody here encoded, network
// cameras) that end, fail or come late, each reported.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>

#include "channel_label.hh"
#include "element_checks.hh"
#include "lumen_src.h"

namespace {

using testing_support::eventually;

struct frame {
  int ch, type;
  uint32_t size, stamp, seq;  // stamp: monotonic ms
  bool header_ok;             // the header's size agrees with the buffer's
};
using frames_t = std::vector<frame>;

// Frames of `ch` of `type` (-1: of any type).
frames_t of(const frames_t &frames, int ch, int type = -1) {
  frames_t out;
  std::ranges::copy_if(frames, std::back_inserter(out),
                       [&](const frame &f) { return f.ch == ch && (type < 0 || f.type == type); });
  return out;
}

auto at_least(size_t n, int ch, int type = 1) {
  return [=](const frames_t &f) { return of(f, ch, type).size() >= n; };
}

// A folder with a short H.264 file by FFmpeg's x264: 15 frames at 25 a
// second, B-frames and all.
struct file_folder : temp_dir {
  const std::string file = path + "/short.mkv";
  const std::string make =
      "ffmpeg -v error -f lavfi -i testsrc2=s=320x180:r=25 -bf 3 -frames:v 15 "
      "-profile:v high -c:v libx264 -pix_fmt yuv420p " +
      file;
  const int made = std::system(make.c_str());
};

struct lumen_harness {
  // Small pictures and a short intra interval keep the tests quick.
  explicit lumen_harness(const std::string &extra = "", const std::string &sink = "") {
    gst_init(nullptr, nullptr);
    const std::string d = "lumensrc name=src width=160 height=96 key-interval=5 " + extra +
                          " ! appsink name=out sync=false caps=video/x-h264 " + sink;
    pipeline = orlo::adopt_floating(gst_parse_launch(d.c_str(), nullptr));
    src = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipeline.get()), "src")).get();  // the bin's
    out = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipeline.get()), "out"));
    // A live pipeline completes its change to PLAYING only with a first
    // frame, so nothing waits for it here.
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
  }
  ~lumen_harness() { gst_element_set_state(pipeline.get(), GST_STATE_NULL); }

  // Pulls deliveries until `done` says so, which it must within `limit_s`.
  frames_t collect(const std::function<bool(const frames_t &)> &done, int limit_s = 20) {
    frames_t frames;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(limit_s);
    while (!done(frames) && std::chrono::steady_clock::now() < end) {
      GstSample *sample = gst_app_sink_try_pull_sample(GST_APP_SINK(out.get()), GST_SECOND / 10);
      if (sample == nullptr) continue;
      GstBuffer *list = gst_sample_get_buffer(sample);
      for (GList *l = gst_kel_list_buffer_get_meta(list)->list; l != nullptr; l = l->next) {
        GstKelBuddyMeta *b = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(l->data));
        const auto at = [b](int offset) { return GST_READ_UINT32_LE(b->data + offset); };
        frames.push_back({b->data[0], b->data[8], at(4), at(12), at(16), b->size == 24 + at(4)});
      }
      gst_sample_unref(sample);
    }
    EXPECT_TRUE(done(frames)) << "still waiting after " << limit_s << " s";
    return frames;
  }

  orlo::ref_ptr<GstElement> pipeline, out;
  GstElement *src;
};

// What the element says: the callbacks' texts and its signal by camera or
// channel, and its warnings and messages (own log domain) as channel -1, one
// "channel:text\n" line each.
struct heard {
  std::mutex lock;
  std::multimap<int, std::string> lines;
  guint handler = g_log_set_handler(
      "lumensrc", static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_MESSAGE), &log,
      this);

  ~heard() { g_log_remove_handler("lumensrc", handler); }
  static void record(gint ch, gpointer data, gint size, gpointer self) {
    auto *h = static_cast<heard *>(self);
    std::lock_guard<std::mutex> g(h->lock);
    h->lines.emplace(ch, std::string(static_cast<char *>(data), size) + "\n");
  }
  static void log(const gchar *, GLogLevelFlags, const gchar *m, gpointer self) {
    record(-1, const_cast<gchar *>(m), static_cast<gint>(strlen(m)), self);
  }
  static void signal(GstElement *, gint camera, gboolean present, gpointer self) {
    record(camera, const_cast<char *>(present ? "signal back" : "signal lost"), 11, self);
  }
  // Lines of the channel that hold `text`.
  size_t count(int ch, const std::string &text) {
    std::lock_guard<std::mutex> g(lock);
    const auto [from, to] = lines.equal_range(ch);
    return std::count_if(from, to,
                         [&](const auto &l) { return l.second.find(text) != std::string::npos; });
  }
};

}  // namespace

// The streams asked for, each from an intra frame, with the audio of the
// camera asked for; a channel paused and resumed; bad requests refused with a
// warning, while the open cameras go on.
TEST(LumenSrc, DeliversWhatIsAskedForPausesAndRefusesBadRequestsWithAWarning) {
  expect_element_basics("lumensrc", 15, {"pause", "resume", "ionlych", "uri"});
  heard said;  // outlives the element, which calls into it
  auto h = std::make_unique<lumen_harness>();
  GstElement *src = h->src;
  gst_lumen_src_set_header_x_callback(src, &heard::record, &said);
  gst_lumen_src_set_cmd_callback(src, &heard::record, &said);
  const auto open = [&](int camera, int flags) {
    return gst_lumen_src_open_ch(src, camera, flags);
  };
  // Camera 2 with both streams, 2 and 18; camera 3 an intra frame each 2 s.
  ASSERT_TRUE(open(2, 0) == 0 && open(1, LUMEN_SRC_OPEN_MAIN) == 0 &&
              open(4, LUMEN_SRC_OPEN_SUB) == 0);
  g_object_set(src, "key-interval", 50, nullptr);
  ASSERT_EQ(open(3, 0), 0);
  EXPECT_TRUE(said.count(2, "opened"));

  auto other = orlo::adopt_floating(gst_element_factory_make("fakesrc", nullptr));
  const auto audio = [&](int camera) { return gst_lumen_src_send_audio(src, camera, "abcd", 4); };
  // (Camera 4 has no main stream to send audio to.)
  EXPECT_EQ((std::vector<gint>{
                open(2, 0), open(16, 0), open(-1, 0), open(6, 4), gst_lumen_src_close_ch(src, 6, 0),
                gst_lumen_src_open_ch(other.get(), 0, 0), audio(7), audio(4),
                gst_lumen_src_set_dev_mac(nullptr, 6), gst_lumen_src_set_live_audio_ch(16)}),
            std::vector<gint>(10, -1));
  EXPECT_TRUE(gst_lumen_src_set_live_audio_ch(-1) == 0 && gst_lumen_src_set_live_audio_ch(1) == 0);
  g_object_set(src, "channel", 9, "stream", 0, "pause", 1, nullptr);
  g_object_set(src, "ionlych", 30, nullptr);
  g_object_set(src, "channel", 20, "stream", 1, "uri", "file:///x", nullptr);
  for (const char *w :
       {"open: camera 2 is already open", "open: no camera 16 (cameras are 0..15)",
        "open: camera 6 asked for no stream", "close: camera 6 is not open",
        "pause: channel 9 is not open", "ionlych: channel 30 is not open", "uri: no channel 36"})
    EXPECT_TRUE(said.count(-1, std::string(w) + "\n")) << w;
  // Addresses that can never be opened: the camera stays closed.
  for (const char *uri : {"nosuchscheme://camera", "not a uri"}) {
    g_object_set(src, "channel", 7, "stream", 0, "uri", uri, nullptr);
    EXPECT_EQ(open(7, LUMEN_SRC_OPEN_MAIN), -1) << uri;
  }
  EXPECT_EQ(gst_lumen_src_close_ch(src, 7, 0), -1);

  const auto frames = h->collect([](const frames_t &f) {
    return of(f, 2, 1).size() >= 3 && of(f, 18, 1).size() >= 3 && of(f, 1, 10).size() >= 5 &&
           of(f, 20, 1).size() >= 2 && of(f, 1, 1).size() >= 2 && of(f, 19).size() >= 8;
  });
  for (int ch : {2, 18}) {
    const auto mine = of(frames, ch);
    // key-interval 5: an intra frame first, then four inter frames, over and over.
    for (size_t i = 0; i < mine.size(); ++i) {
      EXPECT_EQ(mine[i].type, i % 5 == 0 ? 1 : 0) << "channel " << ch << " frame " << i;
      EXPECT_TRUE(mine[i].header_ok && mine[i].size > 0 && mine[i].stamp != 0);
      EXPECT_EQ(mine[i].seq, mine[0].seq + i);
    }
    // The sub stream at half the size.
    EXPECT_TRUE(said.count(ch, ch == 2 ? "width=(int)160" : "width=(int)80"));
  }
  for (const auto &f : frames) {
    EXPECT_TRUE(f.ch <= 3 || f.ch == 18 || f.ch == 19 || f.ch == 20) << f.ch;
    // Audio: 40 ms of 8 kHz 16-bit mono.
    EXPECT_TRUE(f.type != 10 || (f.size == 640 && f.ch == 1));
  }
  g_object_set(src, "channel", 3, "stream", 1, "pause", 1, nullptr);
  h->collect(at_least(10, 3, -1));  // what was under way when the request came
  EXPECT_TRUE(of(h->collect(at_least(25, 3, -1)), 19).empty());
  // Camera 3's next intra frame may be far: resume must not wait for it.
  g_object_set(src, "channel", 3, "stream", 1, "resume", 1, nullptr);
  const auto sub = of(h->collect(at_least(5, 19, -1), 5), 19);
  EXPECT_TRUE(sub.size() >= 2 && sub[0].type == 1 && sub[1].type == 0);
  EXPECT_EQ(gst_lumen_src_close_ch(src, 2, 0), 0);
  EXPECT_TRUE(said.count(2, "closed"));
  h.reset();  // the element's own thread ends with it
  for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream comm(task.path() / "comm");
    std::string name;
    EXPECT_NE((std::getline(comm, name), name), "lumensrc-watch");
  }
}

// A consumer that stops taking frames costs a channel its oldest inter
// frames up to its next intra frame: no frame goes out whose reference was
// dropped, and it is said once.  A camera may close meanwhile, and a stop
// lets go of what waits.
TEST(LumenSrc, ASlowConsumerLosesRunsOfInterFramesUpToAnIntraFrame) {
  heard said;
  std::atomic<int> made{0};  // frames the cameras gave, taken or not
  lumen_harness h("framerate=120 key-interval=20", "max-buffers=1");
  gst_lumen_src_set_handoff_callback(
      h.src, [](gint, gpointer, gint, gpointer n) { ++*static_cast<std::atomic<int> *>(n); },
      &made);
  ASSERT_TRUE(gst_lumen_src_open_ch(h.src, 0, 0) == 0 && gst_lumen_src_open_ch(h.src, 1, 0) == 0);
  ASSERT_TRUE(eventually([&] { return said.count(-1, "frames are not taken; "); }));
  // Many more drops before anything is taken, some of a closed camera's frames.
  const auto more = [&](int n) {
    const int at = made;
    return eventually([&] { return made >= at + n; });
  };
  ASSERT_TRUE(more(200));
  EXPECT_EQ(gst_lumen_src_close_ch(h.src, 1, 0), 0);
  ASSERT_TRUE(more(200));
  const auto frames = h.collect([](const frames_t &f) { return f.size() >= 400; });
  std::map<int, uint32_t> next;  // each channel's next frame without a gap
  size_t gaps = 0;
  for (const auto &f : frames) {
    const bool gap = next.count(f.ch) != 0 && f.seq != next[f.ch];
    gaps += gap;
    EXPECT_TRUE(!gap || f.type == 1) << "channel " << f.ch << " frame " << f.seq;
    next[f.ch] = f.seq + 1;
  }
  EXPECT_GT(gaps, 0u);
  EXPECT_EQ(said.count(-1, "frames are not taken"), 1u);
  // Full again, then stopped: the hundreds of frames that waited are not
  // delivered after the restart, only the few already on their way to the sink.
  ASSERT_TRUE(more(400));
  gst_element_set_state(h.pipeline.get(), GST_STATE_PAUSED);
  const auto stopped = static_cast<uint32_t>(g_get_monotonic_time() / 1000);
  gst_element_set_state(h.pipeline.get(), GST_STATE_PLAYING);
  const auto after = h.collect([](const frames_t &f) { return f.size() >= 64; });
  ASSERT_GE(after.size(), 64u);
  EXPECT_GE(static_cast<int32_t>(after[63].stamp - stopped), 0);
}

// A camera on a file plays it at its own rate and again from its start; with
// looping off its end stops that camera alone, as does a network camera that
// doesn't answer; each is reported, and the camera can be opened again.  A
// file that isn't there yet opens its camera without a signal, to be tried
// again until it comes.
TEST(LumenSrc, FilesLoopAtTheirRateAndFailingSourcesStopOnlyTheirCamera) {
  const file_folder folder;
  ASSERT_EQ(folder.made, 0);
  const std::string file = folder.file, late = folder.path + "/late.mkv";
  heard ev;
  // Under load a file may stall past the default silence limit: only its
  // end may take it away here.
  lumen_harness h("silence-timeout=600000");
  gst_lumen_src_set_cmd_callback(h.src, &heard::record, &ev);
  g_signal_connect(h.src, "signal-changed", G_CALLBACK(&heard::signal), &ev);
  const auto open = [&](int camera, int stream, const std::string &uri) {
    g_object_set(h.src, "channel", camera, "stream", stream, "uri", uri.c_str(), nullptr);
    return gst_lumen_src_open_ch(h.src, camera, stream + 1);
  };
  ASSERT_EQ(open(0, 1, "file://" + file), 0);
  ASSERT_EQ(open(1, 0, ""), 0);
  ASSERT_EQ(open(7, 0, "file://" + late), 0);
  const auto no_signal = [&] {
    guint cameras = 0;
    return g_object_get(h.src, "no-signal", &cameras, nullptr), cameras;
  };
  const guint at_open = no_signal();
  // The file arrives whole: the first try plays it, and the camera is back.
  std::filesystem::create_hard_link(file, late);
  EXPECT_EQ(at_open, 1u << 7);
  EXPECT_TRUE(ev.count(7, "lost: no such file: file://" + late) && ev.count(7, "signal lost"));
  // Two plays and a frame; the first paced at 25 frames a second, not as fast as
  // the file decodes (the bound is loose for a loaded machine).
  const auto looped = of(h.collect(at_least(31, 16, -1)), 16);
  ASSERT_GE(looped.size(), 31u);
  EXPECT_GE(looped[15].stamp - looped[0].stamp, 15u * 1000 / 25 / 2);
  EXPECT_FALSE(ev.count(0, "lost: "));
  ASSERT_TRUE(eventually([&] { return ev.count(7, "signal back"); }));
  EXPECT_TRUE(ev.count(7, "resumed") && ev.count(-1, "camera 7: signal back after 1 try\n"));
  EXPECT_EQ(no_signal(), 0u);

  g_object_set(h.src, "loop", FALSE, nullptr);
  h.collect([&](const frames_t &) { return ev.count(0, "lost: "); });
  EXPECT_TRUE(ev.count(0, "lost: end of stream\n") &&
              ev.count(-1, "camera 0 lost: end of stream\n"));
  h.collect(at_least(2, 1));  // camera 1 goes on
  EXPECT_EQ(gst_lumen_src_close_ch(h.src, 0, 0), -1) << "no longer open";

  ASSERT_EQ(open(4, 1, "rtsp://127.0.0.1:1/none"), 0);
  // Refused at once or soon after, with the reason from the error's details
  // (said by the report, or, when the refusal came first, by the next try).
  EXPECT_TRUE(
      eventually([&] { return ev.count(4, "lost: ") && ev.count(-1, "(Failed to connect."); }));
  EXPECT_EQ(gst_lumen_src_close_ch(h.src, 4, 0), 0);
  ASSERT_EQ(open(4, 1, ""), 0);
  h.collect(at_least(1, 20));
}

// A synthetic camera shows its number in a 3x5 block font.
TEST(LumenSrc, SyntheticPicturesCarryTheCameraNumber) {
  GstVideoFrame f{};
  gst_video_info_set_format(&f.info, GST_VIDEO_FORMAT_I420, 96, 24);  // font pixels of 2x2
  std::vector<guint8> bytes(96 * 24, 128);                            // its luma plane
  f.data[0] = bytes.data();
  lumen::draw_channel_label(&f, 1234567890);
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
