// The render worker: binding, the walk over a list, the live and playback
// dispatch tables, the copies to main_port, and what never reaches the
// engine.
#include <fcntl.h>
#include <unistd.h>

#include <mutex>

#include "log_capture.hh"
#include "stream_support.hh"

namespace {

using namespace stream_test;
using testing_support::log_capture;
using port_payload = std::pair<int64_t, std::string>;
using port_payloads_t = std::vector<port_payload>;

std::vector<int> first_cb_slots;
void on_first(int slot) { first_cb_slots.push_back(slot); }

// The pushes after the first `skip`.
port_payloads_t pushes_after(size_t skip) {
  port_payloads_t all = port_payloads();
  return port_payloads_t(all.begin() + static_cast<std::ptrdiff_t>(std::min(skip, all.size())),
                         all.end());
}

TEST(Bind, IndexRulesKeepTheFirstSink) {
  log_capture log;
  orlo_display_t *h = make_display();
  direct_sink a, b, c;
  EXPECT_EQ(orlo_display_bind_src_pipe(h, b.element(), 1), 0);  // 1 before 0
  EXPECT_EQ(orlo_display_bind_src_pipe(h, a.element(), 0), 0);
  EXPECT_EQ(orlo_display_bind_src_pipe(h, c.element(), 0), -1);
  EXPECT_EQ(orlo_display_bind_src_pipe(h, c.element(), 8), -1);
  EXPECT_EQ(orlo_display_bind_src_pipe(h, c.element(), -1), -1);
  EXPECT_EQ(h->sinks[0], a.element());
  EXPECT_EQ(h->sinks[1], b.element());
  for (int i = 2; i < ORLO_MAX_SINK; i++) EXPECT_EQ(h->sinks[i], nullptr);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING),
            (std::vector<std::string>{"App idx 0 is aleady used.\n", "Invalid kelappsink_idx\n",
                                      "Invalid kelappsink_idx\n"}));

  orlo::ref_ptr<GstElement> other =
      orlo::adopt(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("fakesink", nullptr))));
  EXPECT_EQ(orlo_display_bind_src_pipe(h, other.get(), 3), -1);
  EXPECT_EQ(h->sinks[3], nullptr);
}

TEST(LiveDispatch, FirstSlotsGoToTheirPortsInSlotOrder) {
  orlo_display_t *h = make_display();
  direct_sink s;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, s.element(), 0), 0);
  decode_change(h, {{16, 4, 1, 0, on_first}, {17, 5, 1}, {32 + 2, 6, 1}});
  // List order is not push order: stage A (second slots) runs before stage B
  // (first slots), each in ascending pairs.
  s.render(make_list({make_frame(1, 1, "B0i"), make_frame(0, 1, "A0i"), make_frame(18, 1, "C0i")}));
  s.render(make_list({make_frame(0, 0, "A1"), make_frame(1, 0, "B1"), make_frame(18, 0, "C1")}));
  EXPECT_EQ(port_payloads(),
            (port_payloads_t{{6, "C0i"}, {4, "A0i"}, {5, "B0i"}, {6, "C1"}, {4, "A1"}, {5, "B1"}}));
  EXPECT_EQ(first_cb_slots, std::vector<int>{16});
}

TEST(LiveDispatch, SlotWaitsForATypeOneIntraFrame) {
  orlo_display_t *h = make_display();
  direct_sink s;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, s.element(), 0), 0);
  decode_change(h, {{16, 4, 1, 0, on_first}});
  s.render(make_list({make_frame(0, 0, "A0"), make_frame(0, 5, "A1i5")}));
  EXPECT_TRUE(port_payloads().empty());
  EXPECT_EQ(h->ch_wait_first[16], 1);
  // Two frames of one slot in one list: both update the flags in order, only
  // the later one is pushed.
  s.render(make_list({make_frame(0, 1, "A2i"), make_frame(0, 0, "A3")}));
  EXPECT_EQ(port_payloads(), (port_payloads_t{{4, "A3"}}));
  EXPECT_EQ(h->ch_wait_first[16], 0);
  EXPECT_EQ(first_cb_slots, std::vector<int>{16});
}

TEST(LiveDispatch, StageAPassBringsTheSecondSlotsIntraFrame) {
  orlo_display_t *h = make_display();
  direct_sink s;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, s.element(), 0), 0);
  decode_change(h, {{16, 4, 1}});
  s.render(make_list({make_frame(0, 1, "A0i")}));
  // Channel 0 leaves port 6 to channel 16, which has not started yet.
  decode_change(h, {{16, 4, 2}, {32, 6, 1}});
  const size_t before = port_payloads().size();
  s.render(make_list({make_frame(0, 0, "A1"), make_frame(16, 0, "B1")}));
  EXPECT_EQ(pushes_after(before), (port_payloads_t{{6, "A1"}}));
  EXPECT_EQ(h->ch_enable[16], 2);
  // The pass that brings channel 16's intra frame puts it on port 6 and
  // turns channel 0 off.
  s.render(make_list({make_frame(0, 0, "A2"), make_frame(16, 1, "B2i")}));
  EXPECT_EQ(pushes_after(before), (port_payloads_t{{6, "A1"}, {6, "B2i"}}));
  EXPECT_EQ(h->ch_enable[16], 0);
  s.render(make_list({make_frame(0, 0, "A3"), make_frame(16, 0, "B3")}));
  EXPECT_EQ(pushes_after(before), (port_payloads_t{{6, "A1"}, {6, "B2i"}, {6, "B3"}}));
}

TEST(LiveDispatch, StageBPassBringsTheFirstSlotsIntraFrame) {
  orlo_display_t *h = make_display();
  direct_sink s;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, s.element(), 0), 0);
  decode_change(h, {{32, 6, 1}});
  s.render(make_list({make_frame(16, 1, "B0i")}));
  decode_change(h, {{16, 4, 1}, {32, 6, 2}});
  const size_t before = port_payloads().size();
  s.render(make_list({make_frame(0, 0, "A1"), make_frame(16, 1, "B1i")}));
  EXPECT_EQ(pushes_after(before), (port_payloads_t{{4, "B1i"}}));
  s.render(make_list({make_frame(0, 1, "A2i"), make_frame(16, 0, "B2")}));
  EXPECT_EQ(pushes_after(before), (port_payloads_t{{4, "B1i"}, {4, "A2i"}}));
  EXPECT_EQ(h->ch_enable[32], 0);
}

TEST(LiveDispatch, BothSlotsLeavingHandOverWithoutAFrameForTheFirstPort) {
  orlo_display_t *h = make_display();
  direct_sink s;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, s.element(), 0), 0);
  decode_change(h, {{16, 4, 1}, {32, 6, 1}});
  s.render(make_list({make_frame(0, 1, "A0i"), make_frame(16, 1, "B0i")}));
  decode_change(h, {{16, 4, 2}, {32, 6, 2}});
  const size_t before = port_payloads().size();
  // Stage A clears the first slot; stage B then finds it at 0, clears the
  // second and pushes nothing.
  s.render(make_list({make_frame(0, 0, "A1"), make_frame(16, 0, "B1")}));
  EXPECT_EQ(pushes_after(before), (port_payloads_t{{6, "B1"}}));
  EXPECT_EQ(h->ch_enable[16], 0);
  EXPECT_EQ(h->ch_enable[32], 0);
}

TEST(LiveDispatch, CopiesToMainPortOnlyOnceItIsSet) {
  orlo_display_t *h = make_display();
  direct_sink s;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, s.element(), 0), 0);
  decode_change(h, {{16, 4, 1, 1}, {17, 5, 1, 1}});
  s.render(make_list({make_frame(0, 1, "A0i"), make_frame(1, 1, "B0i")}));
  EXPECT_EQ(port_payloads(), (port_payloads_t{{4, "A0i"}, {5, "B0i"}}));  // main_port -1
  h->main_port = 9;
  fake_engine::hold_frames(true);
  free_counter fc;
  GstBuffer *a = fc.watch(make_frame(0, 1, "A1i"));
  s.render(make_list({a, make_frame(1, 0, "B1")}));
  // Each pair's port push, then its copy; channel 1's inter frame meets
  // channel 0's intra frame at port 9.
  EXPECT_EQ(pushes_after(2), (port_payloads_t{{4, "A1i"}, {9, "A1i"}, {5, "B1"}}));
  EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(a), 2);  // one reference per accepted push
  fake_engine::release_held();
  EXPECT_EQ(fc.freed.load(), 1);
}

TEST(PlaybackDispatch, ChannelSixteenOnSinkOneFoldsOntoSlotFortyEight) {
  orlo_display_t *h = make_display();
  direct_sink live, playback;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, live.element(), 0), 0);
  ASSERT_EQ(orlo_display_bind_src_pipe(h, playback.element(), 1), 0);
  decode_change(h, {{48, 7, 1, 1, on_first}, {49, 8, 1}});
  h->main_port = 9;
  playback.render(make_list({make_frame(16, 1, "P0i", 1234), make_frame(1, 1, "Q0i", 99)}));
  EXPECT_EQ(port_payloads(), (port_payloads_t{{7, "P0i"}, {9, "P0i"}, {8, "Q0i"}}));
  EXPECT_EQ(first_cb_slots, std::vector<int>{48});
  EXPECT_EQ(orlo_get_pb_timestamp(7), 1234u);
  EXPECT_EQ(orlo_get_pb_timestamp(8), 99u);
  EXPECT_EQ(orlo_get_pb_timestamp(9), 0u);  // the copy is an ordinary push
  // The live sink reaches slots 48..63 only through channels 32..47, and
  // never dispatches them.
  live.render(make_list({make_frame(32, 0, "L0")}));
  EXPECT_EQ(port_payloads().size(), 3u);
  // A playback slot that is on but has not started pushes nothing.
  decode_change(h, {{48, 7, 1}, {50, 8, 1}});
  playback.render(make_list({make_frame(2, 0, "R0")}));
  EXPECT_EQ(port_payloads().size(), 3u);
}

TEST(OtherSinks, IndexTwoPlaysAudioAndAdvancesTablesButPushesNoVideo) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  orlo_display_t *h = make_display(fds[1]);
  direct_sink s;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, s.element(), 2), 0);
  // Channel 0 of a sink past index 1: 0 + 80, above 63, less 16.
  decode_change(h, {{64, 4, 1, 0, on_first}});
  orlo_display_audio_change(h, 3, 0);
  s.render(make_list({make_frame(0, 1, "V0i"), make_frame(3, 10, "pcm3")}));
  EXPECT_TRUE(port_payloads().empty());
  EXPECT_EQ(first_cb_slots, std::vector<int>{64});
  char got[16] = {};
  EXPECT_EQ(read(fds[0], got, sizeof got), 4);
  EXPECT_STREQ(got, "pcm3");
}

TEST(BadInput, MalformedMembersAndStrayFramesNeverReachTheEngine) {
  log_capture log;
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  orlo_display_t *h = make_display(fds[1]);
  direct_sink s;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, s.element(), 0), 0);
  decode_change(h, {{16, 4, 1}, {17, 5, 1}});
  orlo_display_audio_change(h, -1, 1);
  s.render(make_list({make_frame(1, 1, "B0i")}));

  GstBuffer *short_frame = gst_kel_buddy_buffer_new(10);
  GstBuffer *overlong = make_frame(0, 1, "12345");
  gst_kel_buddy_buffer_get_meta(overlong)->data[4] = 100;  // claims 100 bytes, holds 5
  GstBuffer *overlong_audio = make_frame(0, 10, "pcm");
  gst_kel_buddy_buffer_get_meta(overlong_audio)->data[4] = 200;
  GstBuffer *plain = gst_buffer_new_allocate(nullptr, 64, nullptr);  // no frame at all
  s.render(make_list({short_frame, overlong, overlong_audio, plain,
                      make_frame(200, 1, "far"),  // slot 200: outside every table
                      make_frame(1, 7, "B1t7"),   // type 7 on a started slot
                      make_frame(0, 1, "A1i")}));
  EXPECT_EQ(port_payloads(), (port_payloads_t{{5, "B0i"}, {4, "A1i"}}));
  std::string pending;
  char c;
  fcntl(fds[0], F_SETFL, O_NONBLOCK);
  while (read(fds[0], &c, 1) == 1) pending += c;
  EXPECT_EQ(pending, "");
  const std::vector<std::string> warnings = log.texts(G_LOG_LEVEL_WARNING);
  ASSERT_EQ(warnings.size(), 5u);
  EXPECT_NE(warnings[0].find("shorter than its header"), std::string::npos);
  EXPECT_NE(warnings[1].find("claims 100 payload bytes"), std::string::npos);
  EXPECT_NE(warnings[2].find("claims 200 payload bytes"), std::string::npos);
  EXPECT_NE(warnings[3].find("channel 200"), std::string::npos);
  EXPECT_EQ(warnings[4], "Invalid Frame Type = 7\n");
}

TEST(BadInput, EmptyListsAndForeignBuffersAreReleasedUntouched) {
  orlo_display_t *h = make_display();
  direct_sink s;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, s.element(), 0), 0);
  decode_change(h, {{16, 4, 1}});
  free_counter fc;
  EXPECT_EQ(s.render(fc.watch(make_list({}))), GST_FLOW_OK);
  EXPECT_EQ(s.render(fc.watch(gst_buffer_new_allocate(nullptr, 24, nullptr))), GST_FLOW_OK);
  EXPECT_EQ(fc.freed.load(), 2);
  EXPECT_TRUE(fake_engine::calls("ravel_put_decode_stream").empty());
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
  orlo::ref_ptr<GstElement> pipe = orlo::adopt(gst_parse_launch(
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
  ASSERT_TRUE(wait_for([] { return port_payloads().size() >= 5; }));
  gst_element_set_state(pipe.get(), GST_STATE_NULL);
  EXPECT_EQ(port_payloads(),
            (port_payloads_t{{4, "A0i"}, {5, "B0i"}, {4, "A1"}, {5, "B1"}, {4, "A2"}}));
  std::lock_guard<std::mutex> g(lock);
  EXPECT_EQ(engine_threads.size(), 1u);
  EXPECT_EQ(engine_threads.count(std::this_thread::get_id()), 0u);
}

}  // namespace
