// Stream delivery: the binding of sinks, the render worker's walk and
// dispatch tables, the push of frames to engine ports and the audio.
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdlib>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "eventually.hh"
#include "fake_engine.hh"
#include "frames.hh"
#include "kel_buffers.h"
#include "kelapp_sink.h"
#include "log_capture.hh"
#include "orlo_display.h"
#include "ref_ptr.hh"

namespace {

using namespace testing_support;
using strings = std::vector<std::string>;

// What reached the engine and the sleeps between, in order.  usleep is taken
// over for the whole process: the push's sleeps are counted, not slept.
strings events;
// The sound device as the library sees it: "/dev/dsp" answers with the
// descriptor set here, and its open flags are kept.
int dsp_answer = -1, dsp_flags = -1;

}  // namespace

extern "C" __attribute__((visibility("default"))) int usleep(useconds_t us) {
  events.push_back("sleep " + std::to_string(us));
  return 0;
}

extern "C" __attribute__((visibility("default"))) int open(const char *path, int flags, ...) {
  if (std::strcmp(path, "/dev/dsp") == 0) {
    dsp_flags = flags;
    return dsp_answer;
  }
  va_list ap;
  va_start(ap, flags);
  const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(ap, mode_t) : 0;
  va_end(ap);
  static auto real = reinterpret_cast<int (*)(const char *, int, ...)>(dlsym(RTLD_NEXT, "open"));
  return real(path, flags, mode);
}

namespace {

// A list buffer of the frames written in `frames`, "channel:payload" each, whose
// type the payload's end tells: "i" an intra frame (1), "5" one of type 5,
// ";" audio (10), anything else an inter frame (0).  A frame's timestamp is
// 100 + its channel.  Each frame is watched by `fc` if given.
GstBuffer *list(const std::string &frames, free_counter *fc = nullptr) {
  GstBuffer *out = gst_kel_list_buffer_new();
  std::istringstream in(frames);
  for (std::string w; in >> w;) {
    const std::string payload = w.substr(w.find(':') + 1);
    static const std::map<char, uint8_t> types = {{'i', 1}, {'5', 5}, {';', 10}};
    const auto type = types.find(payload.back());
    const int ch = std::stoi(w);
    GstBuffer *f =
        make_frame(uint8_t(ch), type != types.end() ? type->second : 0, payload, 100 + ch);
    gst_kel_list_buffer_append(out, fc != nullptr ? fc->watch(f) : f);
  }
  return out;
}

// One slot's entry of a decode table.
struct slot_cfg {
  int slot, port, enable, sync = 0;
  orlo_first_cb_t first_cb = nullptr;
};

void decode_change(orlo_display_t *h, const std::vector<slot_cfg> &slots) {
  orlo_decode_cfg_t table[ORLO_MAX_SLOT] = {};
  for (const slot_cfg &s : slots) table[s.slot] = {s.port, s.sync, s.enable, s.first_cb, {}};
  ASSERT_EQ(orlo_display_decode_change(h, table), 0);
}

// A kelappsink rendering on the test's thread: each render() is one call of
// the render callback, and takes over the caller's reference.
struct direct_sink {
  orlo::ref_ptr<GstElement> element =
      (gst_init(nullptr, nullptr),
       orlo::adopt_floating(gst_element_factory_make("kelappsink", nullptr)));
  orlo::ref_ptr<GstPad> pad = orlo::adopt(gst_element_get_static_pad(element.get(), "sink"));
  direct_sink() {
    g_object_set(element.get(), "sync", FALSE, nullptr);
    gst_element_set_state(element.get(), GST_STATE_PLAYING);
    gst_pad_send_event(pad.get(), gst_event_new_stream_start("stream"));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_send_event(pad.get(), gst_event_new_segment(&segment));
  }
  ~direct_sink() { gst_element_set_state(element.get(), GST_STATE_NULL); }
  void render(GstBuffer *buffer) { gst_pad_chain(pad.get(), buffer); }
  void render(const std::string &frames) { render(list(frames)); }
};

// Port and payload of each push from the `skip`-th on, "port:payload".
std::string pushes(size_t skip = 0) {
  std::string out;
  const auto puts = fake_engine::calls("ravel_put_decode_stream");
  for (size_t i = skip; i < puts.size(); i++)
    out += (out.empty() ? "" : " ") + std::to_string(puts[i].args[1]) + ":" +
           std::string(puts[i].record.begin(), puts[i].record.end());
  return out;
}

// A display over the recording engine whose sound device is a pipe, with
// `sink`, `playback` and `third` bound at indices 0, 1 and 2.
class display_test : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe(fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    const int32_t formats[] = {0};
    h = orlo_display_new(formats, 0, 16, 0, 1, fds[1], nullptr);
    ASSERT_NE(h, nullptr);
    for (int i = 0; i < 3; i++)
      ASSERT_EQ(orlo_display_bind_src_pipe(h, sinks[i]->element.get(), i), 0);
  }
  // What the sound device got since the last call.
  std::string heard() {
    std::string out;
    char buf[256];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
      out.append(buf, static_cast<size_t>(n));
    return out;
  }
  int fds[2] = {-1, -1};
  orlo_display_t *h = nullptr;
  direct_sink sink, playback, third;
  direct_sink *sinks[3] = {&sink, &playback, &third};
};

std::vector<int> first_cb_slots;
void on_first(int slot) { first_cb_slots.push_back(slot); }

// One render pass: the table first if it changes, the list, what the pass
// pushed, the sink (by index) that renders it and main_port.
struct pass {
  std::vector<slot_cfg> table;
  const char *frames, *pushed;
  int sink = 0, main_port = -1;
};
struct scenario {
  const char *name;
  std::vector<pass> passes;
  std::vector<int> first_cbs = {};
};

const scenario kScenarios[] = {
    // List order is not push order: stage A (second slots) runs before
    // stage B (first slots), each in ascending pairs.
    {"SlotOrder",
     {{{{16, 4, 1, 0, on_first}, {17, 5, 1}, {34, 6, 1}},
       "1:B0i 0:A0i 18:C0i",
       "6:C0i 4:A0i 5:B0i"},
      {{}, "0:A1 1:B1 18:C1", "6:C1 4:A1 5:B1"}},
     {16}},
    // A slot starts with a type 1 intra frame only.  Two frames of one slot
    // in one list both update the flags in order; only the later is pushed.
    {"WaitsForTypeOneIntra",
     {{{{16, 4, 1, 0, on_first}}, "0:A0 0:A1i5", ""}, {{}, "0:A2i 0:A3", "4:A3"}},
     {16}},
    // Channel 1 leaves port 6 to channel 17, which has not started: the pass
    // that brings channel 17's intra frame switches the port and turns
    // channel 1 off.
    {"StageABringsThePartnersIntra",
     {{{{17, 4, 1}}, "1:A0i", "4:A0i"},
      {{{17, 4, 2}, {33, 6, 1}}, "1:A1i 17:B1", "6:A1i"},
      {{}, "1:A2 17:B2i", "6:B2i"},
      {{}, "1:A3 17:B3", "6:B3"}}},
    {"StageBBringsThePartnersIntra",
     {{{{34, 6, 1}}, "18:B0i", "6:B0i"},
      {{{18, 4, 1}, {34, 6, 2}}, "2:A1 18:B1i", "4:B1i"},
      {{}, "2:A2i 18:B2", "4:A2i"},
      {{}, "2:A3 18:B3", "4:A3"}}},
    // Copies to main_port follow each pair's port push, none while it is
    // -1; channel 1's inter frame meets channel 0's intra frame at port 9.
    {"CopiesToMainPortOnceItIsSet",
     {{{{16, 4, 1, 1}, {17, 5, 1, 1}}, "0:A0i 1:B0i", "4:A0i 5:B0i"},
      {{}, "0:A1i 1:B1", "4:A1i 9:A1i 5:B1", 0, 9}}},
    // Playback: channel 16 on sink 1 folds onto slot 48; channel 48 lands on
    // slot 80, past the dispatched ones.  The live sink reaches slots 48..63
    // only through channels 32..47 and never dispatches them; a playback slot
    // that is on but has not started pushes nothing.
    {"PlaybackChannelSixteenFoldsOntoSlotFortyEight",
     {{{{48, 7, 1, 1, on_first}, {49, 8, 1}, {80, 10, 1}},
       "16:P0i 1:Q0i 48:S0i",
       "7:P0i 9:P0i 8:Q0i",
       1,
       9},
      {{}, "32:L0", "", 0, 9},
      {{{48, 7, 1}, {50, 8, 1}}, "2:R0", "", 1, 9}},
     {48}},
    // Sink index 2 advances the tables but pushes no video: its channel 0
    // is slot 0 + 80, above 63, less 16.
    {"SinkIndexTwoPushesNoVideo", {{{{64, 4, 1, 0, on_first}}, "0:V0i", "", 2}}, {64}},
};

class DispatchTables : public display_test, public ::testing::WithParamInterface<scenario> {};

TEST_P(DispatchTables, PushesWhatTheTablesSay) {
  size_t n = 0;
  for (const pass &p : GetParam().passes) {
    if (!p.table.empty()) decode_change(h, p.table);
    h->main_port = p.main_port;
    const size_t before = fake_engine::calls("ravel_put_decode_stream").size();
    sinks[p.sink]->render(p.frames);
    EXPECT_EQ(pushes(before), p.pushed) << "pass " << n++;
  }
  EXPECT_EQ(first_cb_slots, GetParam().first_cbs);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, DispatchTables, ::testing::ValuesIn(kScenarios),
                         [](const auto &info) { return std::string(info.param.name); });

using Dispatch = display_test;

TEST_F(Dispatch, BindKeepsTheFirstSinkOfAnIndex) {
  log_capture log;
  direct_sink c;
  auto other = orlo::adopt_floating(gst_element_factory_make("fakesink", nullptr));
  const std::pair<GstElement *, int> refused[] = {{c.element.get(), 0},
                                                  {c.element.get(), 8},
                                                  {c.element.get(), -1},
                                                  {other.get(), 3},
                                                  {nullptr, 3}};
  for (const auto &[element, idx] : refused)
    EXPECT_EQ(orlo_display_bind_src_pipe(h, element, idx), -1) << idx;
  EXPECT_EQ(std::vector<GstElement *>(h->sinks, h->sinks + 4),
            (std::vector<GstElement *>{sink.element.get(), playback.element.get(),
                                       third.element.get(), nullptr}));
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING),
            (strings{"App idx 0 is aleady used.\n", "Invalid kelappsink_idx\n",
                     "Invalid kelappsink_idx\n"}));
  // A missing sink is refused as missing, not as a sink of the wrong kind.
  EXPECT_EQ(log.texts(G_LOG_LEVEL_CRITICAL),
            (strings{"orlo_display_bind_src_pipe: assertion 'GST_IS_KELAPP_SINK(sink)' failed",
                     "orlo_display_bind_src_pipe: assertion 'h_display != NULL && sink != NULL' "
                     "failed"}));
}

// Members that are no frame, or no frame of a slot, never reach the engine,
// and say why.
TEST_F(Dispatch, MalformedMembersAndStrayFramesNeverReachTheEngine) {
  log_capture log;
  decode_change(h, {{16, 4, 1}, {17, 5, 1}});
  sink.render("1:B0i");
  GstBuffer *overlong = make_frame(0, 1, "12345");
  gst_kel_buddy_buffer_get_meta(overlong)->data[4] = 6;  // claims one byte too many
  // Channel 0's good frame comes first: nothing after it may stand in its
  // place.  Type 7 comes on a started slot.
  GstBuffer *l = list("0:A1i 84:edgei");
  for (GstBuffer *m : {overlong, make_frame(1, 7, "B1t7"), gst_kel_buddy_buffer_new(10),
                       gst_buffer_new_allocate(nullptr, 64, nullptr)})
    gst_kel_list_buffer_append(l, m);
  sink.render(l);
  EXPECT_EQ(pushes(), "5:B0i 4:A1i");
  const strings warnings = log.texts(G_LOG_LEVEL_WARNING);
  const char *said[] = {"channel 84", "claims 6 payload bytes, the buffer holds 5\n",
                        "shorter than its header", "Invalid Frame Type = 7\n"};
  ASSERT_EQ(warnings.size(), 4u);
  for (size_t i = 0; i < 4; i++) EXPECT_NE(warnings[i].find(said[i]), std::string::npos) << i;
}

// A mode-2 snapshot arms a playback port: the next push there carries the
// engine's JPEG callback with its first attempt only, after the frame's
// timestamp; a refusal consumes it.
TEST_F(Dispatch, PlaybackSnapshotGoesWithTheFirstAttemptOfTheNextPush) {
  decode_change(h, {{51, 3, 1}});  // channel 3 of sink 1
  std::atomic<bool> answered{false};
  int refusals = 0;  // the answering attempt and the next are refused
  fake_engine::script("ravel_put_decode_stream", [&](const fake_engine::call &c) -> int64_t {
    if (c.jpeg_cb != nullptr) {
      void *jpeg = std::malloc(8);
      c.jpeg_cb(&jpeg, 1, 2, 3, 4, 5);
      answered = true;
    }
    return answered && refusals++ < 2 ? -1 : 0;
  });
  int result = 99;
  void *buf = nullptr;
  uint32_t w[4];
  std::thread snap([&] {  // channel 7 in display mode 13 is port 3
    result = orlo_display_get_jpeg_snapshot(h, 7, 2, 13, 0, 0, &buf, &w[0], &w[1], &w[2], &w[3]);
  });
  // The other thread arms the port at a moment of its own: push until it has.
  EXPECT_TRUE(eventually([&] {
    playback.render("3:Pi");
    return answered.load();
  }));
  snap.join();
  std::free(buf);
  EXPECT_EQ((std::vector<int64_t>{result, w[1]}), (std::vector<int64_t>{0, 3}));
  playback.render("3:Qi");  // no callback any more
  const auto puts = fake_engine::calls("ravel_put_decode_stream");
  ASSERT_GE(puts.size(), 4u);
  EXPECT_NE(puts[puts.size() - 4].jpeg_cb, nullptr);
  EXPECT_EQ(std::count_if(puts.begin(), puts.end(), [](auto &p) { return p.jpeg_cb != nullptr; }),
            1);
  const auto ts = fake_engine::calls("ravel_set_jpeg_timestamp");
  ASSERT_EQ(ts.size(), 1u);
  EXPECT_EQ((std::vector<int64_t>{ts[0].args[1], ts[0].args[2]}), (std::vector<int64_t>{3, 103}));
  EXPECT_EQ(orlo_get_pb_timestamp(3), 103u);
}

// Audio: which frames are heard, from any sink, whatever the slots say; an
// empty frame writes nothing and is no loss.
TEST_F(Dispatch, AudioChoiceOfChannelAndAll) {
  log_capture log;
  const struct {
    int ch, all;
    direct_sink *sink;
    const char *heard;
  } cases[] = {{-2, -2, &sink, ""},  // as created: nothing
               {-1, 1, &sink, "one;two;"}, {-1, 1, &third, "one;two;"}, {-1, 2, &sink, ""},
               {5, 2, &sink, "one;two;"},  {2, 0, &sink, "two;"},       {2, 0, &third, "two;"},
               {7, 0, &sink, ""},          {-1, 0, &sink, ""}};
  for (const auto &c : cases) {
    if (c.ch != -2) orlo_display_audio_change(h, c.ch, c.all);
    GstBuffer *l = list("1:one; 0:videoi 2:two;");
    gst_kel_list_buffer_append(l, make_frame(2, 10, ""));
    c.sink->render(l);
    EXPECT_EQ(heard(), c.heard) << "audio_ch " << c.ch << ", audio_all " << c.all;
  }
  EXPECT_EQ(pushes(), "");  // every slot is off
  EXPECT_TRUE(log.texts(G_LOG_LEVEL_WARNING).empty());
}

TEST(AudioDevice, OpensWriteOnlyAndAFrameNotWrittenWholeIsLogged) {
  log_capture log;
  dsp_answer = 42;
  EXPECT_EQ(ravel_audio_new(0), 42);
  EXPECT_EQ(dsp_flags, O_WRONLY);
  EXPECT_EQ(ravel_audio_new(3), 42);
  EXPECT_EQ(dsp_flags, O_WRONLY | O_NONBLOCK);
  // A failed open and a descriptor of 0 both mean no device; the 0 is closed.
  const int saved_stdin = dup(0);
  dup2(2, 0);
  for (int answer : {-1, 0}) {
    dsp_answer = answer;
    EXPECT_EQ(ravel_audio_new(0), 0);
  }
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  dup2(saved_stdin, 0);
  EXPECT_EQ(log.count("ravel_audio_new: cannot open audio device\n"), 2);
  // Without a device a frame with a payload is lost, and says so.
  log.clear();
  EXPECT_EQ(
      ravel_put_audio_stream(0, nullptr, "abcd", 4) + ravel_put_audio_stream(0, nullptr, "", 0), 0);
  ASSERT_EQ(log.texts(G_LOG_LEVEL_WARNING).size(), 1u);
  EXPECT_TRUE(std::regex_match(
      log.texts(G_LOG_LEVEL_WARNING)[0],
      std::regex(R"(\[ravel_put_audio_stream:[0-9]+\] stream_size=4, written_size=:0)")));
}

// The engine answers `result` and records each attempt as "put <port> <payload>".
void record_puts(int64_t result) {
  fake_engine::script("ravel_put_decode_stream", [result](const fake_engine::call &c) {
    events.push_back("put " + std::to_string(c.args[1]) + " " +
                     std::string(c.record.begin(), c.record.end()));
    return result;
  });
}

using Push = display_test;

TEST_F(Push, RefusedFrameGetsTwentyOneAttemptsThenOneInStateOne) {
  log_capture log;
  decode_change(h, {{16, 4, 1}});
  record_puts(-1);
  sink.render("0:A0i");
  strings expected;
  for (int i = 0; i < 21; i++) expected.insert(expected.end(), {"put 4 A0i", "sleep 1000"});
  EXPECT_EQ(events, expected);
  // In state 1 the port takes intra frames only, with one attempt each, and
  // drops inter frames at the gate, silently.
  events.clear();
  sink.render("0:A1i");
  sink.render("0:A2");
  // An accepted intra frame (type 5 as well) puts the port back in step.
  record_puts(0);
  sink.render("0:A3i5");
  sink.render("0:A4");
  EXPECT_EQ(events, (strings{"put 4 A1i", "sleep 1000", "put 4 A3i5", "put 4 A4"}));
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING), strings(2, "ravel push failed at port 4\n"));
}

// Every frame buffer and every list buffer is freed exactly once, whatever
// became of its frames: accepted (and copied), refused, foreign, gated,
// replaced, played or off.  A foreign frame costs no attempt and no sleep.
TEST_F(Push, EveryBufferIsFreedExactlyOnce) {
  log_capture log;
  // Channel 0 to port 4 with a copy to main_port 9; channel 2 to port 6,
  // which refuses everything; channel 17 shares port 4; channel 3 is off.
  decode_change(h, {{16, 4, 1, 1}, {18, 6, 1}, {33, 4, 1}});
  h->main_port = 9;
  orlo_display_audio_change(h, -1, 1);
  fake_engine::script("ravel_put_decode_stream", [](const fake_engine::call &c) -> int64_t {
    return c.args[1] == 6 ? -1 : 0;
  });
  fake_engine::hold_frames(true);
  free_counter frames, lists;
  // In the second list channel 17's intra frame takes port 4 (stage A), so
  // A2 is foreign there (stage B) while its copy goes on.
  for (const char *members : {"0:A0i 2:C0i 0:pcm0;", "0:A1 2:C1 17:E0i 0:A2 3:D0i 5:pcm5;", ""})
    sink.render(lists.watch(list(members, &frames)));
  EXPECT_EQ(lists.freed.load(), 3);
  EXPECT_EQ(pushes(23), "4:E0i 9:A2");
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING),
            (strings{"ravel push failed at port 6\n",
                     "previous ch(17) is not matched with current ch(0)\n"}));
  // The engine still holds the three frames it accepted, A0i twice; every
  // other frame is gone with its list or with the push that gave it up.
  EXPECT_EQ(frames.freed.load(), frames.watched.load() - 3);
  EXPECT_EQ(fake_engine::release_held(), 4);
  EXPECT_EQ(frames.freed.load(), frames.watched.load());
  EXPECT_EQ(heard(), "pcm0;pcm5;");
}

}  // namespace
