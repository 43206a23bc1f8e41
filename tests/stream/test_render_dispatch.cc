// The render worker: binding, the walk over a list, the live and playback
// dispatch tables, the copies to main_port, audio, and what never reaches
// the engine.
#include <cstdlib>
#include <mutex>

#include "log_capture.hh"
#include "stream_support.hh"

namespace {

using namespace stream_test;
using testing_support::log_capture;

std::vector<int> first_cb_slots;
void on_first(int slot) { first_cb_slots.push_back(slot); }

struct frame_spec {
  uint8_t channel, type;
  const char *payload;
};

GstBuffer *list_of(const std::vector<frame_spec> &frames) {
  GstBuffer *list = gst_kel_list_buffer_new();
  for (const frame_spec &f : frames)
    gst_kel_list_buffer_append(list, make_frame(f.channel, f.type, f.payload, 100 + f.channel));
  return list;
}

// One render pass: the table first if it changes, the list, what the pass
// pushed, the sink (by index) that renders it and main_port.  Payloads name
// the channel (A = 0, B = 16 or 1, C = 18) and end in i for an intra frame.
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
  std::vector<std::pair<int, uint32_t>> pb_timestamps = {};  // port, 100 + channel
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
    // Channel 0 leaves port 6 to channel 16, which has not started: the pass
    // that brings channel 16's intra frame switches the port and turns
    // channel 0 off.
    {"StageABringsThePartnersIntra",
     {{{{16, 4, 1}}, {{0, 1, "A0i"}}, {{4, "A0i"}}},
      {{{16, 4, 2}, {32, 6, 1}}, {{0, 0, "A1"}, {16, 0, "B1"}}, {{6, "A1"}}},
      {{}, {{0, 0, "A2"}, {16, 1, "B2i"}}, {{6, "B2i"}}},
      {{}, {{0, 0, "A3"}, {16, 0, "B3"}}, {{6, "B3"}}}},
     {}},
    {"StageBBringsThePartnersIntra",
     {{{{32, 6, 1}}, {{16, 1, "B0i"}}, {{6, "B0i"}}},
      {{{16, 4, 1}, {32, 6, 2}}, {{0, 0, "A1"}, {16, 1, "B1i"}}, {{4, "B1i"}}},
      {{}, {{0, 1, "A2i"}, {16, 0, "B2"}}, {{4, "A2i"}}},
      {{}, {{0, 0, "A3"}, {16, 0, "B3"}}, {{4, "A3"}}}},
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
    // Playback: channel 16 on sink 1 folds onto slot 48.  The live sink
    // reaches slots 48..63 only through channels 32..47 and never dispatches
    // them; a playback slot that is on but has not started pushes nothing.
    {"PlaybackChannelSixteenFoldsOntoSlotFortyEight",
     {{{{48, 7, 1, 1, on_first}, {49, 8, 1}},
       {{16, 1, "P0i"}, {1, 1, "Q0i"}},
       {{7, "P0i"}, {9, "P0i"}, {8, "Q0i"}},
       1,
       9},
      {{}, {{32, 0, "L0"}}, {}, 0, 9},
      {{{48, 7, 1}, {50, 8, 1}}, {{2, 0, "R0"}}, {}, 1, 9}},
     {48},
     {{7, 116}, {8, 101}, {9, 0}}},  // the copy is an ordinary push
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
    sinks[passes[i].sink]->render(list_of(passes[i].frames));
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
  EXPECT_EQ(orlo_display_bind_src_pipe(h, b.element(), 1), 0);
  EXPECT_EQ(orlo_display_bind_src_pipe(h, c.element(), 0), -1);
  EXPECT_EQ(orlo_display_bind_src_pipe(h, c.element(), 8), -1);
  EXPECT_EQ(orlo_display_bind_src_pipe(h, c.element(), -1), -1);
  orlo::ref_ptr<GstElement> other =
      orlo::adopt_floating(gst_element_factory_make("fakesink", nullptr));
  EXPECT_EQ(orlo_display_bind_src_pipe(h, other.get(), 3), -1);
  EXPECT_EQ(orlo_display_bind_src_pipe(h, nullptr, 3), -1);
  EXPECT_EQ(orlo_display_bind_src_pipe(nullptr, c.element(), 3), -1);
  EXPECT_EQ(h->sinks[0], sink.element());
  EXPECT_EQ(h->sinks[1], b.element());
  for (int i = 2; i < ORLO_MAX_SINK; i++) EXPECT_EQ(h->sinks[i], nullptr);
  const auto warnings = log.texts(G_LOG_LEVEL_WARNING);
  ASSERT_GE(warnings.size(), 3u);
  EXPECT_EQ(std::vector<std::string>(warnings.begin(), warnings.begin() + 3),
            (std::vector<std::string>{"App idx 0 is aleady used.\n", "Invalid kelappsink_idx\n",
                                      "Invalid kelappsink_idx\n"}));
  const auto refused = log.texts(G_LOG_LEVEL_CRITICAL);
  ASSERT_EQ(refused.size(), 3u);
  EXPECT_NE(refused[0].find("GST_IS_KELAPP_SINK"), std::string::npos);
  for (size_t i = 1; i < 3; i++)
    EXPECT_EQ(refused[i],
              "orlo_display_bind_src_pipe: assertion 'h_display != NULL && sink != "
              "NULL' failed");
}

TEST_F(Dispatch, MalformedMembersAndStrayFramesNeverReachTheEngine) {
  log_capture log;
  decode_change(h, {{16, 4, 1}, {17, 5, 1}});
  orlo_display_audio_change(h, -1, 1);
  sink.render(make_list({make_frame(1, 1, "B0i")}));
  GstBuffer *overlong = make_frame(0, 1, "12345");
  gst_kel_buddy_buffer_get_meta(overlong)->data[4] = 100;  // claims 100 bytes, holds 5
  GstBuffer *overlong_audio = make_frame(0, 10, "pcm");
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
  const char *said[] = {"shorter than its header", "claims 100 payload bytes, the buffer holds 5",
                        "claims 200 payload bytes, the buffer holds 3", "channel 200",
                        "channel 84"};
  ASSERT_EQ(warnings.size(), 6u);
  for (size_t i = 0; i < 5; i++) EXPECT_NE(warnings[i].find(said[i]), std::string::npos) << i;
  EXPECT_EQ(warnings[5], "Invalid Frame Type = 7\n");
}

// A mode-2 snapshot arms a playback port: the next push there carries the
// engine's JPEG callback with its first attempt only, after the port's last
// timestamp.
TEST_F(Dispatch, PlaybackSnapshotGoesWithTheFirstAttemptOfTheNextPush) {
  direct_sink playback;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, playback.element(), 1), 0);
  decode_change(h, {{51, 3, 1}});  // channel 3 of sink 1
  std::atomic<bool> answered{false};
  int since_answer = -1;
  fake_engine::script("ravel_put_decode_stream", [&](const fake_engine::call &c) -> int64_t {
    if (c.jpeg_cb != nullptr) {
      void *jpeg = std::malloc(8);
      c.jpeg_cb(&jpeg, 1, 2, 3, 4, 5);
      answered = true;
      since_answer = 0;
    }
    return since_answer >= 0 && since_answer++ < 2 ? -1 : 0;
  });
  int result = 99;
  void *buf = nullptr;
  uint32_t w[4];
  std::thread snap([&] {  // channel 7 in display mode 13 is port 3
    result = orlo_display_get_jpeg_snapshot(h, 7, 2, 13, 0, 0, &buf, &w[0], &w[1], &w[2], &w[3]);
  });
  // The other thread arms the port at a moment of its own: push until it has.
  const bool armed = eventually([&] {
    playback.render(make_list({make_frame(3, 1, "P", 4321)}));
    return answered.load();
  });
  snap.join();
  ASSERT_TRUE(armed);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(w[1], 3u);
  std::free(buf);
  const auto puts = fake_engine::calls("ravel_put_decode_stream");
  ASSERT_GE(puts.size(), 3u);
  std::vector<bool> carried, expected(puts.size(), false);
  for (const auto &p : puts) carried.push_back(p.jpeg_cb != nullptr);
  expected[puts.size() - 3] = true;  // of three attempts, the first
  EXPECT_EQ(carried, expected);
  const auto ts = fake_engine::calls("ravel_set_jpeg_timestamp");
  ASSERT_EQ(ts.size(), 1u);
  EXPECT_EQ(ts[0].args[1], 3);
  EXPECT_EQ(ts[0].args[2], 4321);
  // Ports past the playback tables keep no timestamp.
  for (int port : {32, -1}) {
    orlo_set_pb_timestamp(port, 7);
    EXPECT_EQ(orlo_get_pb_timestamp(port), 0u);
  }
}

// The real road: appsrc delivers list buffers, the sink's streaming thread
// runs the worker.
TEST(Pipeline, ListBuffersReachTheEngineOnTheStreamingThread) {
  orlo_display_t *h = make_display();
  std::mutex lock;
  std::set<std::thread::id> engine_threads;
  fake_engine::script("ravel_put_decode_stream", [&](const fake_engine::call &) -> int64_t {
    std::lock_guard<std::mutex> g(lock);
    engine_threads.insert(std::this_thread::get_id());
    return 0;
  });
  GError *err = nullptr;
  orlo::ref_ptr<GstElement> pipe = orlo::adopt_floating(gst_parse_launch(
      "appsrc name=src format=time ! kelappsink name=sink sync=false drop=true max-buffers=3",
      &err));
  ASSERT_EQ(err, nullptr);
  orlo::ref_ptr<GstElement> src = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipe.get()), "src"));
  orlo::ref_ptr<GstElement> sink = orlo::adopt(gst_bin_get_by_name(GST_BIN(pipe.get()), "sink"));
  ASSERT_EQ(orlo_display_bind_src_pipe(h, sink.get(), 0), 0);
  decode_change(h, {{16, 4, 1}, {17, 5, 1}});
  gst_element_set_state(pipe.get(), GST_STATE_PLAYING);
  // appsrc queues what it is given and pushes it in order on its own
  // thread, so no list is dropped by the sink's bound.
  GstBuffer *lists[] = {make_list({make_frame(0, 1, "A0i"), make_frame(1, 1, "B0i")}),
                        make_list({make_frame(1, 0, "B1"), make_frame(0, 0, "A1")}),
                        make_list({make_frame(0, 0, "A2")})};
  for (GstBuffer *l : lists) {
    GstFlowReturn ret;
    g_signal_emit_by_name(src.get(), "push-buffer", l, &ret);
    gst_buffer_unref(l);
  }
  ASSERT_TRUE(eventually([] { return port_payloads().size() >= 5; }));
  gst_element_set_state(pipe.get(), GST_STATE_NULL);
  EXPECT_EQ(port_payloads(),
            (port_payloads_t{{4, "A0i"}, {5, "B0i"}, {4, "A1"}, {5, "B1"}, {4, "A2"}}));
  std::lock_guard<std::mutex> g(lock);
  EXPECT_EQ(engine_threads.size(), 1u);
  EXPECT_EQ(engine_threads.count(std::this_thread::get_id()), 0u);
}

// Audio: which frames are heard, what reaches the device, and the device's
// failures.
using Audio = display_test;

TEST_F(Audio, ChoiceOfChannelAndAll) {
  // Audio of channels 1 and 2 around a video frame, in every setting; sink
  // index 2 plays audio as sink 0 does.
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
    if (c.ch != -2) {
      EXPECT_EQ(orlo_display_audio_change(h, c.ch, c.all), 0);
    }
    c.sink->render(make_list(
        {make_frame(1, 10, "one;"), make_frame(0, 1, "video"), make_frame(2, 10, "two;")}));
    EXPECT_EQ(heard(), c.heard) << "audio_ch " << c.ch << ", audio_all " << c.all;
  }
  // Every slot is off: the video frame went nowhere, the audio played.
  EXPECT_TRUE(fake_engine::calls("ravel_put_decode_stream").empty());
  // An empty frame writes nothing and is no loss.
  log_capture log;
  orlo_display_audio_change(h, -1, 1);
  sink.render(make_list({make_frame(1, 10, "")}));
  EXPECT_EQ(heard(), "");
  EXPECT_TRUE(log.texts(G_LOG_LEVEL_WARNING).empty());
}

TEST(AudioDevice, WithoutADeviceEachSelectedFrameLogsItsLoss) {
  log_capture log;
  // Without a device: each selected frame with a payload logs its loss.
  orlo_display_t *h = make_display(-1);
  EXPECT_EQ(h->h_audio, 0);
  direct_sink sink;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, sink.element(), 0), 0);
  orlo_display_audio_change(h, 3, 0);
  sink.render(
      make_list({make_frame(3, 10, "abcd"), make_frame(3, 10, ""), make_frame(4, 10, "x")}));
  auto warnings = log.texts(G_LOG_LEVEL_WARNING);
  ASSERT_EQ(warnings.size(), 1u);  // the empty frame logs nothing
  EXPECT_TRUE(
      g_regex_match_simple("^\\[ravel_put_audio_stream:[0-9]+\\] stream_size=4, written_size=:0$",
                           warnings[0].c_str(), G_REGEX_DEFAULT, G_REGEX_MATCH_DEFAULT))
      << warnings[0];

  if (access("/dev/dsp", F_OK) != 0) {  // a host without a sound device
    EXPECT_EQ(ravel_audio_new(0), 0);
    EXPECT_EQ(log.count("ravel_audio_new: cannot open audio device\n"), 1);
  }
}

}  // namespace
