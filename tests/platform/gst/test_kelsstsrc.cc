// The playback source and the recorder beside it: recordings written here
// byte by byte in their on-disk form, played into an appsink; the lists,
// positions, segment, status event and warnings of each kind of play.
#include "element_checks.hh"
#include "kelsstsrc.h"
#include "log_capture.hh"

namespace {

constexpr gint64 kT0 = 1700000000LL * GST_SECOND;  // recorder time of frame 0
constexpr gint64 kFrame = 40 * GST_MSECOND;

// A frame's SEI (version, channel, type, size, time; emulation prevention)
// under the UUID "kelsst-frame-v1.", then its access unit.
void append_frame(std::string &out, int ch, bool intra, gint64 time, bool three_byte = false,
                  std::string au = {}) {
  if (au.empty()) au = std::string("\0\0\1", 3) + (intra ? "\x65idr" : "\x41p");
  guint8 d[17] = {1, static_cast<guint8>(ch), intra, 0};
  for (int i = 0; i < 4; i++) d[4 + i] = static_cast<guint8>(au.size() >> 8 * i);
  for (int i = 0; i < 8; i++) d[8 + i] = static_cast<guint8>(static_cast<guint64>(time) >> 8 * i);
  d[16] = 0x80;
  out += std::string("\0\0\0\1", 4).substr(three_byte ? 1 : 0) + "\x06\x05\x20kelsst-frame-v1.";
  int zeros = 0;
  for (guint8 b : d) {
    if (zeros >= 2 && b <= 3) out += '\3', zeros = 0;
    out += static_cast<char>(b);
    zeros = b == 0 ? zeros + 1 : 0;
  }
  out += au;
}

// A recordings folder, removed with its files, with channel 0's: six frames
// 40 ms apart, intra at 0 and 3.
struct folder : temp_dir {
  explicit folder(bool three_byte_start = false) {  // start codes 00 00 01, as a recorder may write
    std::string bytes;
    for (int i = 0; i < 6; i++)
      append_frame(bytes, 0, i % 3 == 0, kT0 + i * kFrame, three_byte_start);
    g_file_set_contents((path + "/ch00.h264").c_str(), bytes.data(),
                        static_cast<gssize>(bytes.size()), nullptr);
  }
};

// One list as "position:channel@time[*]..." (ms from kT0, * intra, ? when the
// header's size or millisecond field disagrees), lists apart by spaces.
std::string describe(GstBuffer *list) {
  std::string s = std::to_string(GST_BUFFER_PTS(list) / GST_MSECOND) + ":";
  for (GList *l = gst_kel_list_buffer_get_meta(list)->list; l != nullptr; l = l->next) {
    const GstKelBuddyMeta *m = gst_kel_buddy_buffer_get_meta(static_cast<GstBuffer *>(l->data));
    const gint64 t = GST_READ_UINT64_LE(m->data + 16);
    const bool ok = GST_READ_UINT32_LE(m->data + 4) + 24 == m->size &&
                    GST_READ_UINT32_LE(m->data + 12) == static_cast<guint32>(t / GST_MSECOND);
    s += std::string(l->prev != nullptr ? "," : "") + std::to_string(m->data[0]) + "@" +
         std::to_string((t - kT0) / GST_MSECOND) + (m->data[8] ? "*" : "") + (ok ? "" : "?");
  }
  return s;
}

// What a play showed: its lists, then "| eos norecord base(ms) direction" of
// the last KELPlayInfo, and "x<rate>" when the segment's rate is not 1.
struct outcome {
  std::string play, info, warnings;  // warnings one a line, the folder as F
};

outcome play(const folder &f, const std::string &props) {
  testing_support::log_capture log;
  outcome o;
  auto pipe = orlo::adopt_floating(gst_parse_launch(
      ("kelsstsrc open-rate=0 location=" + f.path + " " + props + " ! appsink name=out sync=false")
          .c_str(),
      nullptr));
  auto out = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipe.get()), "out"));
  auto pad = orlo::adopt(gst_element_get_static_pad(out.get(), "sink"));
  gst_pad_add_probe(
      pad.get(), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
      [](GstPad *, GstPadProbeInfo *info, gpointer data) {
        const GstStructure *s = gst_event_get_structure(GST_PAD_PROBE_INFO_EVENT(info));
        guint64 eos, norecord, base;
        gint dir;
        if (s != nullptr &&
            gst_structure_get(s, "eos-status", G_TYPE_UINT64, &eos, "norecord-status",
                              G_TYPE_UINT64, &norecord, "base-time", G_TYPE_UINT64, &base,
                              "direction", G_TYPE_INT, &dir, nullptr))
          static_cast<outcome *>(data)->info =
              " | " + std::to_string(eos) + " " + std::to_string(norecord) + " " +
              std::to_string((static_cast<gint64>(base) - kT0) / GST_MSECOND) + " " +
              std::to_string(dir);
        return GST_PAD_PROBE_OK;
      },
      &o, nullptr);
  gst_element_set_state(pipe.get(), GST_STATE_PLAYING);
  // NULL at the end of the stream; the deadline only bounds a hang.
  while (GstSample *s = gst_app_sink_try_pull_sample(GST_APP_SINK(out.get()), 20 * GST_SECOND)) {
    const double rate = gst_sample_get_segment(s)->rate;
    if (o.play.empty() && rate != 1) o.play = "x" + std::to_string(static_cast<int>(rate)) + " ";
    o.play += describe(gst_sample_get_buffer(s)) + " ";
    gst_sample_unref(s);
  }
  EXPECT_TRUE(gst_app_sink_is_eos(GST_APP_SINK(out.get())));
  gst_element_set_state(pipe.get(), GST_STATE_NULL);
  if (!o.play.empty()) o.play.pop_back();
  for (std::string w : log.texts(G_LOG_LEVEL_WARNING)) {
    if (size_t at = w.find(f.path); at != std::string::npos) w.replace(at, f.path.size(), "F");
    o.warnings += w + "\n";
  }
  return o;
}

std::string ns(gint64 ms) { return std::to_string(kT0 + ms * GST_MSECOND); }

TEST(KelSstSrc, PlaysEachKindOfRecordingAndRequest) {
  gst_init(nullptr, nullptr);
  struct row {
    const char *name;
    bool three_byte_start;
    std::string props, play, warnings;
  } rows[] = {
      {"a search before the span starts at its begin; channels missing or beyond ch-num", false,
       "ch-mask=37 begin-time=" + ns(120) + " search-time=" + ns(-1000),
       "0:0@120* 40:0@160 80:0@200 | 5 4 120 0",
       "kelsstsrc: channel 2 has no readable recording at F/ch02.h264\n"
       "kelsstsrc: ch-mask names channel 5, beyond ch-num 4\n"
       "kelsstsrc: search-time " +
           ns(-1000) + " lies outside the span; clamped\n"},
      {"backward by intra frames from the last frame", false, "ch-mask=1 dir=1",
       "80:0@120* 200:0@0* | 1 0 200 1", ""},
      {"twice the speed with intra frames only", false, "ch-mask=1 rate=2 rate-control=1",
       "x2 0:0@0* 120:0@120* | 1 0 0 0", ""},
      {"hide=0 starts at the intra frame before the search time, at position 0", true,
       "ch-mask=1 hide=0 search-time=" + ns(160), "0:0@120* 0:0@160 40:0@200 | 1 0 160 0", ""},
  };
  for (const row &r : rows) {
    const folder f(r.three_byte_start);
    const outcome o = play(f, r.props);
    EXPECT_EQ(o.play + o.info, r.play) << r.name;
    EXPECT_EQ(o.warnings, r.warnings) << r.name;
  }
}

// The first intra frame of a span, from its very begin; none in a span
// without one, none of a channel beyond the last.
TEST(KelSstSrc, FirstIntraFrameOfASpan) {
  gst_init(nullptr, nullptr);
  const folder f;
  testing_support::log_capture log;
  struct {
    int ch;
    gint64 begin, end;
    const char *found;
  } rows[] = {{0, kT0 + 3 * kFrame, 0, "0:0@120*"},
              {0, kT0 + 1, kT0 + 100 * GST_MSECOND, "0:"},
              {64, 0, 0, "0:"}};
  for (const auto &r : rows) {
    auto list = orlo::adopt(gst_kel_list_buffer_new());
    GST_BUFFER_PTS(list.get()) = 0;
    if (GstBuffer *b = gst_kelsstsrc_get_first_iframe(f.path.c_str(), r.ch, 0, r.begin, r.end))
      gst_kel_list_buffer_append(list.get(), b);
    EXPECT_EQ(describe(list.get()), r.found) << r.ch;
  }
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING), std::vector<std::string>{"kelsstsrc: no channel 64"});
}

// The recorder drops access unit delimiters, puts its SEI in front, and
// cuts the file past its size limit at the next intra frame.
TEST(KelSstSrc, RecorderWritesEachAccessUnitBehindItsFrameSeiAndBothElementsHoldTheirProperties) {
  expect_element_basics("kelsstsrc", 18);
  expect_element_basics("kelsstrec", 6);
  const folder f;
  const std::string aud("\0\0\0\1\x09\xf0", 6), sps("\0\0\0\1\x67sps", 7), idr("\0\0\1\x65idr", 7),
      p("\0\0\0\1\x41p", 6);
  auto pipe = orlo::adopt_floating(gst_parse_launch(
      ("appsrc name=in format=time caps=video/x-h264,stream-format=byte-stream,alignment=au ! "
       "kelsstrec ch=9 max-size=60 location=" +
       f.path + " start-time=" + ns(0))
          .c_str(),
      nullptr));
  auto in = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipe.get()), "in"));
  gst_element_set_state(pipe.get(), GST_STATE_PLAYING);
  gint64 pts = 0;
  for (const std::string &au : {aud + sps + idr, aud + p, idr}) {
    GstBuffer *b = gst_buffer_new_memdup(au.data(), au.size());
    GST_BUFFER_PTS(b) = std::exchange(pts, pts + kFrame);
    gst_app_src_push_buffer(GST_APP_SRC(in.get()), b);
  }
  gst_app_src_end_of_stream(GST_APP_SRC(in.get()));
  auto bus = orlo::adopt(gst_element_get_bus(pipe.get()));
  ASSERT_TRUE(orlo::adopt(gst_bus_timed_pop_filtered(bus.get(), 20 * GST_SECOND, GST_MESSAGE_EOS)));
  gst_element_set_state(pipe.get(), GST_STATE_NULL);
  std::string first, second;
  append_frame(first, 9, true, kT0, false, sps + idr);
  append_frame(first, 9, false, kT0 + kFrame, false, p);
  append_frame(second, 9, true, kT0 + 2 * kFrame, false, idr);
  for (const auto &[name, expected] :
       {std::pair{"/ch09.h264", first}, {"/ch09-0001.h264", second}}) {
    std::ifstream in(f.path + name, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), expected) << name;
  }
}

}  // namespace
