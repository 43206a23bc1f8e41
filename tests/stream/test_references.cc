// Every frame buffer and every list buffer is freed exactly once, whatever
// became of its frames: accepted, refused, foreign, gated or played.
#include <fcntl.h>
#include <unistd.h>

#include "stream_support.hh"

namespace {

using namespace stream_test;

TEST(References, EveryBufferIsFreedExactlyOnce) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  fcntl(fds[0], F_SETFL, O_NONBLOCK);
  orlo_display_t *h = make_display(fds[1]);
  direct_sink sink;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, sink.element(), 0), 0);
  // Channel 0 to port 4 with a copy to main_port 9; channel 1 to port 5;
  // channel 2 to port 6, which refuses everything; channel 17 shares port 4.
  decode_change(h, {{16, 4, 1, 1}, {17, 5, 1}, {18, 6, 1}, {33, 4, 1}});
  h->main_port = 9;
  orlo_display_audio_change(h, -1, 1);
  fake_engine::script("ravel_put_decode_stream", [](const fake_engine::call &c) -> int64_t {
    return c.args[1] == 6 ? -1 : 0;
  });
  fake_engine::hold_frames(true);

  free_counter frames, lists;
  auto f = [&](uint8_t ch, uint8_t type, const char *payload) {
    return frames.watch(make_frame(ch, type, payload));
  };
  const std::vector<std::vector<GstBuffer *>> passes = {
      // accepted (and copied), accepted, refused 21 times, played
      {f(0, 1, "A0i"), f(1, 1, "B0i"), f(2, 1, "C0i"), f(0, 10, "pcm0")},
      // channel 17's intra frame takes port 4, so channel 0's inter frame is
      // foreign there; its copy is accepted; port 6 is gated; channel 3 is off
      {f(0, 0, "A1"), f(1, 0, "B1"), f(2, 0, "C1"), f(17, 1, "E0i"), f(3, 1, "D0i"),
       f(5, 10, "pcm5")},
      // a replaced frame, a non-frame, an empty list
      {f(1, 0, "B2"), f(1, 0, "B3"), frames.watch(gst_buffer_new_allocate(nullptr, 8, nullptr))},
      {},
  };
  for (const auto &members : passes) {
    GstBuffer *list = gst_kel_list_buffer_new();
    for (GstBuffer *m : members) gst_kel_list_buffer_append(list, m);
    sink.render(lists.watch(list));
  }
  EXPECT_EQ(lists.freed.load(), 4);

  // What the engine took: A0i twice (port and copy), B0i, E0i, A1's copy, B1
  // and B3; port 6 saw C0i 21 times and nothing after.
  const auto puts = fake_engine::calls("ravel_put_decode_stream");
  EXPECT_EQ(puts.size(), 28u);
  // The engine still holds the six frames it accepted; every other frame is
  // gone with its list or with the push that gave it up.
  EXPECT_EQ(frames.freed.load(), frames.watched.load() - 6);
  EXPECT_EQ(fake_engine::release_held(), 7);
  EXPECT_EQ(frames.freed.load(), frames.watched.load());

  char played[32] = {};
  EXPECT_EQ(read(fds[0], played, sizeof played), 8);
  EXPECT_STREQ(played, "pcm0pcm5");
}

}  // namespace
