// The render worker: binding, the walk over a list, the live and playback
// dispatch tables, the copies to main_port, what never reaches the engine,
// and the audio of a pass.
#include <dlfcn.h>

#include <cstdarg>
#include <cstdlib>
#include <regex>
#include <thread>

#include "stream_support.hh"

namespace {

using namespace stream_test;

std::vector<int> first_cb_slots;
void on_first(int slot) { first_cb_slots.push_back(slot); }

struct frame_spec {
  uint8_t channel, type;
  const char *payload;
};

// One render pass: the table first if it changes, the list, what the pass
// pushed, the sink (by index) that renders it and main_port.  Payloads end
// in i for an intra frame; a frame's timestamp is 100 + its channel.
struct pass {
  std::vector<slot_cfg> table;
  std::vector<frame_spec> frames;
  port_payloads_t pushed;
  int sink = 0;
  int main_port = -1;
};
struct scenario {
  const char *name;
  std::vector<pass> passes;
  std::vector<int> first_cbs;
  std::vector<std::pair<int, uint32_t>> pb_timestamps = {};  // port, timestamp
};

const scenario kScenarios[] = {
    // List order is not push order: stage A (second slots) runs before
    // stage B (first slots), each in ascending pairs.
    {"SlotOrder",
     {{{{16, 4, 1, 0, on_first}, {17, 5, 1}, {34, 6, 1}},
       {{1, 1, "B0i"}, {0, 1, "A0i"}, {18, 1, "C0i"}},
       {{6, "C0i"}, {4, "A0i"}, {5, "B0i"}}},
      {{}, {{0, 0, "A1"}, {1, 0, "B1"}, {18, 0, "C1"}}, {{6, "C1"}, {4, "A1"}, {5, "B1"}}}},
     {16}},
    // A slot starts with a type 1 intra frame only.  Two frames of one slot
    // in one list both update the flags in order; only the later is pushed.
    {"WaitsForTypeOneIntra",
     {{{{16, 4, 1, 0, on_first}}, {{0, 0, "A0"}, {0, 5, "A1i5"}}, {}},
      {{}, {{0, 1, "A2i"}, {0, 0, "A3"}}, {{4, "A3"}}}},
     {16}},
    // Channel 1 leaves port 6 to channel 17, which has not started: the pass
    // that brings channel 17's intra frame switches the port and turns
    // channel 1 off.
    {"StageABringsThePartnersIntra",
     {{{{17, 4, 1}}, {{1, 1, "A0i"}}, {{4, "A0i"}}},
      {{{17, 4, 2}, {33, 6, 1}}, {{1, 1, "A1i"}, {17, 0, "B1"}}, {{6, "A1i"}}},
      {{}, {{1, 0, "A2"}, {17, 1, "B2i"}}, {{6, "B2i"}}},
      {{}, {{1, 0, "A3"}, {17, 0, "B3"}}, {{6, "B3"}}}},
     {}},
    {"StageBBringsThePartnersIntra",
     {{{{34, 6, 1}}, {{18, 1, "B0i"}}, {{6, "B0i"}}},
      {{{18, 4, 1}, {34, 6, 2}}, {{2, 0, "A1"}, {18, 1, "B1i"}}, {{4, "B1i"}}},
      {{}, {{2, 1, "A2i"}, {18, 0, "B2"}}, {{4, "A2i"}}},
      {{}, {{2, 0, "A3"}, {18, 0, "B3"}}, {{4, "A3"}}}},
     {}},
    // Both slots leaving: stage A clears the first slot; stage B then finds
    // it at 0, clears the second and pushes nothing; both stay off.
    {"BothSlotsLeaving",
     {{{{16, 4, 1}, {32, 6, 1}}, {{0, 1, "A0i"}, {16, 1, "B0i"}}, {{6, "B0i"}, {4, "A0i"}}},
      {{{16, 4, 2}, {32, 6, 2}}, {{0, 0, "A1"}, {16, 0, "B1"}}, {{6, "B1"}}},
      {{}, {{0, 1, "A2i"}, {16, 1, "B2i"}}, {}}},
     {}},
    // Copies to main_port follow each pair's port push, none while it is
    // -1; channel 1's inter frame meets channel 0's intra frame at port 9.
    {"CopiesToMainPortOnceItIsSet",
     {{{{16, 4, 1, 1}, {17, 5, 1, 1}}, {{0, 1, "A0i"}, {1, 1, "B0i"}}, {{4, "A0i"}, {5, "B0i"}}},
      {{}, {{0, 1, "A1i"}, {1, 0, "B1"}}, {{4, "A1i"}, {9, "A1i"}, {5, "B1"}}, 0, 9}},
     {}},
    // Playback: channel 16 on sink 1 folds onto slot 48; channel 48 lands on
    // slot 80, past the dispatched ones.  The live sink reaches slots 48..63
    // only through channels 32..47 and never dispatches them; a playback slot
    // that is on but has not started pushes nothing.
    {"PlaybackChannelSixteenFoldsOntoSlotFortyEight",
     {{{{48, 7, 1, 1, on_first}, {49, 8, 1}, {80, 10, 1}},
       {{16, 1, "P0i"}, {1, 1, "Q0i"}, {48, 1, "S0i"}},
       {{7, "P0i"}, {9, "P0i"}, {8, "Q0i"}},
       1,
       9},
      {{}, {{32, 0, "L0"}}, {}, 0, 9},
      {{{48, 7, 1}, {50, 8, 1}}, {{2, 0, "R0"}}, {}, 1, 9}},
     {48},
     {{7, 116}, {8, 101}, {9, 0}, {10, 0}}},  // the copy is an ordinary push
    // Sink index 2 advances the tables but pushes no video: its channel 0
    // is slot 0 + 80, above 63, less 16.
    {"SinkIndexTwoPushesNoVideo", {{{{64, 4, 1, 0, on_first}}, {{0, 1, "V0i"}}, {}, 2}}, {64}},
};

void PrintTo(const scenario &s, std::ostream *os) { *os << s.name; }

class DispatchTables : public display_test, public ::testing::WithParamInterface<scenario> {};

TEST_P(DispatchTables, PushesWhatTheTablesSay) {
  direct_sink playback, third;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, playback.element(), 1), 0);
  ASSERT_EQ(orlo_display_bind_src_pipe(h, third.element(), 2), 0);
  direct_sink *sinks[] = {&sink, &playback, &third};
  const std::vector<pass> &passes = GetParam().passes;
  for (size_t i = 0; i < passes.size(); i++) {
    if (!passes[i].table.empty()) decode_change(h, passes[i].table);
    h->main_port = passes[i].main_port;
    const size_t before = port_payloads().size();
    std::vector<GstBuffer *> frames;
    for (const frame_spec &f : passes[i].frames)
      frames.push_back(make_frame(f.channel, f.type, f.payload, 100 + f.channel));
    sinks[passes[i].sink]->render(make_list(frames));
    EXPECT_EQ(port_payloads(before), passes[i].pushed) << "pass " << i;
  }
  EXPECT_EQ(first_cb_slots, GetParam().first_cbs);
  for (const auto &[port, ts] : GetParam().pb_timestamps)
    EXPECT_EQ(orlo_get_pb_timestamp(port), ts) << "port " << port;
}

INSTANTIATE_TEST_SUITE_P(Scenarios, DispatchTables, ::testing::ValuesIn(kScenarios),
                         [](const auto &info) { return std::string(info.param.name); });

using Dispatch = display_test;

TEST_F(Dispatch, BindKeepsTheFirstSinkOfAnIndex) {
  log_capture log;
  direct_sink b, c;
  orlo::ref_ptr<GstElement> other =
      orlo::adopt_floating(gst_element_factory_make("fakesink", nullptr));
  EXPECT_EQ(orlo_display_bind_src_pipe(h, b.element(), 1), 0);
  const std::pair<GstElement *, int> refused[] = {
      {c.element(), 0}, {c.element(), 8}, {c.element(), -1}, {other.get(), 3}, {nullptr, 3}};
  for (const auto &[element, idx] : refused)
    EXPECT_EQ(orlo_display_bind_src_pipe(h, element, idx), -1) << idx;
  EXPECT_EQ(std::vector<GstElement *>(h->sinks, h->sinks + 3),
            (std::vector<GstElement *>{sink.element(), b.element(), nullptr}));
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING),
            (std::vector<std::string>{"App idx 0 is aleady used.\n", "Invalid kelappsink_idx\n",
                                      "Invalid kelappsink_idx\n"}));
  EXPECT_EQ(
      log.texts(G_LOG_LEVEL_CRITICAL),
      (std::vector<std::string>{
          "orlo_display_bind_src_pipe: assertion 'GST_IS_KELAPP_SINK(sink)' failed",
          "orlo_display_bind_src_pipe: assertion 'h_display != NULL && sink != NULL' failed"}));
}

TEST_F(Dispatch, MalformedMembersAndStrayFramesNeverReachTheEngine) {
  log_capture log;
  decode_change(h, {{16, 4, 1}, {17, 5, 1}});
  orlo_display_audio_change(h, -1, 1);
  sink.render(make_list({make_frame(1, 1, "B0i")}));
  GstBuffer *overlong = make_frame(0, 1, "12345"), *overlong_audio = make_frame(0, 10, "pcm");
  gst_kel_buddy_buffer_get_meta(overlong)->data[4] = 100;  // claims 100 bytes, holds 5
  gst_kel_buddy_buffer_get_meta(overlong_audio)->data[4] = 200;
  // Channel 0's good frame comes first: nothing after it may stand in its place.
  sink.render(make_list({make_frame(0, 1, "A1i"),
                         gst_kel_buddy_buffer_new(10),  // shorter than a header
                         overlong, overlong_audio,
                         gst_buffer_new_allocate(nullptr, 64, nullptr),  // no frame at all
                         make_frame(200, 1, "far"),    // slot 200: outside every table
                         make_frame(84, 1, "edge"),    // slot 84: one past the last
                         make_frame(1, 7, "B1t7")}));  // type 7 on a started slot
  EXPECT_EQ(port_payloads(), (port_payloads_t{{5, "B0i"}, {4, "A1i"}}));
  EXPECT_EQ(heard(), "");
  const std::vector<std::string> warnings = log.texts(G_LOG_LEVEL_WARNING);
  const char *said[] = {"shorter than its header",
                        "claims 100 payload bytes, the buffer holds 5",
                        "claims 200 payload bytes, the buffer holds 3",
                        "channel 200",
                        "channel 84",
                        "Invalid Frame Type = 7\n"};
  ASSERT_EQ(warnings.size(), 6u);
  for (size_t i = 0; i < 6; i++) EXPECT_NE(warnings[i].find(said[i]), std::string::npos) << i;
}

// A mode-2 snapshot arms a playback port: the next push there carries the
// engine's JPEG callback with its first attempt only, after the port's last
// timestamp.  Ports past the playback tables keep no timestamp.
TEST_F(Dispatch, PlaybackSnapshotGoesWithTheFirstAttemptOfTheNextPush) {
  direct_sink playback;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, playback.element(), 1), 0);
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
    playback.render(make_list({make_frame(3, 1, "P", 4321)}));
    return answered.load();
  }));
  snap.join();
  std::free(buf);
  EXPECT_EQ((std::vector<int64_t>{result, w[1]}), (std::vector<int64_t>{0, 3}));
  const auto puts = fake_engine::calls("ravel_put_decode_stream");
  std::vector<bool> carried, expected(puts.size(), false);
  for (const auto &p : puts) carried.push_back(p.jpeg_cb != nullptr);
  expected.at(puts.size() - 3) = true;  // of three attempts, the first
  EXPECT_EQ(carried, expected);
  const auto ts = fake_engine::calls("ravel_set_jpeg_timestamp");
  ASSERT_EQ(ts.size(), 1u);
  EXPECT_EQ(ts[0].args, (std::vector<int64_t>{ts[0].args[0], 3, 4321}));
  for (int port : {32, -1}) orlo_set_pb_timestamp(port, 7);
  EXPECT_EQ(orlo_get_pb_timestamp(32) + orlo_get_pb_timestamp(-1), 0u);
}

// Audio: which frames are heard, from any sink, whatever the slots say; an
// empty frame writes nothing and is no loss.
TEST_F(Dispatch, AudioChoiceOfChannelAndAll) {
  log_capture log;
  direct_sink third;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, third.element(), 2), 0);
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
    c.sink->render(make_list({make_frame(1, 10, "one;"), make_frame(0, 1, "video"),
                              make_frame(2, 10, "two;"), make_frame(2, 10, "")}));
    EXPECT_EQ(heard(), c.heard) << "audio_ch " << c.ch << ", audio_all " << c.all;
  }
  EXPECT_TRUE(fake_engine::calls("ravel_put_decode_stream").empty());  // every slot is off
  EXPECT_TRUE(log.texts(G_LOG_LEVEL_WARNING).empty());
}

// The sound device as the library sees it: "/dev/dsp" answers with the
// descriptor set here, and its open flags are kept.
int dsp_answer = -1, dsp_flags = -1;

}  // namespace

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

TEST(AudioDevice, OpensWriteOnlyAndAFrameNotWrittenWholeIsLogged) {
  log_capture log;
  const int fd = dup(2);
  dsp_answer = fd;
  EXPECT_EQ(ravel_audio_new(0), fd);
  EXPECT_EQ(dsp_flags, O_WRONLY);
  EXPECT_EQ(ravel_audio_new(3), fd);
  EXPECT_EQ(dsp_flags, O_WRONLY | O_NONBLOCK);
  // A failed open and a descriptor of 0 both mean no device; the 0 is closed.
  const int saved_stdin = dup(0);
  dup2(fd, 0);
  close(fd);
  for (int answer : {-1, 0}) {
    dsp_answer = answer;
    EXPECT_EQ(ravel_audio_new(0), 0);
  }
  EXPECT_EQ(fcntl(0, F_GETFD), -1);
  dup2(saved_stdin, 0);
  close(saved_stdin);
  EXPECT_EQ(log.count("ravel_audio_new: cannot open audio device\n"), 2);
  // Without a device a frame with a payload is lost, and says so.
  log.clear();
  EXPECT_EQ(ravel_put_audio_stream(0, nullptr, "abcd", 4), 0);
  EXPECT_EQ(ravel_put_audio_stream(0, nullptr, "", 0), 0);
  const auto warnings = log.texts(G_LOG_LEVEL_WARNING);
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_TRUE(std::regex_match(
      warnings[0],
      std::regex(R"(\[ravel_put_audio_stream:[0-9]+\] stream_size=4, written_size=:0)")))
      << warnings[0];
}

}  // namespace
