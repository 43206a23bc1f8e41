// Frames into the ports: back-pressure, buffers given back exactly once,
// damaged frames, and the engine's running state.
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "engine_harness.hh"

namespace engine_test {
namespace {

const rgb kRed = {210, 30, 30};
const rgb kBlue = {30, 40, 220};

class streams : public engine_harness {};

TEST_F(streams, AFullQueueRefusesAndEveryBufferComesBackOnce) {
  start(0);
  auto frames = stream(kRed, 20);
  ASSERT_EQ(ravel_soft_hold_port(engine_, 3, 1), 0);
  size_t accepted = 0;
  for (test_frame *f : frames) {
    int32_t r = put(3, f);
    if (r != 0) {
      EXPECT_EQ(r, -1);
      break;
    }
    accepted++;
  }
  EXPECT_EQ(accepted, static_cast<size_t>(RAVEL_SOFT_QUEUE_DEPTH));
  EXPECT_EQ(stats(3).refused, 1u);
  EXPECT_EQ(stats(3).released, 0u);
  // Other ports are not held back by a full one.
  ASSERT_EQ(push(4, frames[0]), 0);
  ASSERT_EQ(ravel_soft_hold_port(engine_, 3, 0), 0);
  for (size_t i = accepted; i < frames.size(); i++) ASSERT_EQ(push(3, frames[i]), 0);
  ASSERT_TRUE(handled(3, frames.size()));
  ASSERT_TRUE(handled(4, 1));
  for (size_t i = 0; i < frames.size(); i++)
    EXPECT_EQ(frames[i]->releases.load(), i == 0 ? 2 : 1) << "frame " << i;
  auto s = stats(3);
  EXPECT_EQ(s.accepted, frames.size());
  EXPECT_EQ(s.decoded, frames.size());
  EXPECT_EQ(s.decode_errors, 0u);
  EXPECT_EQ(s.width, 160);
  EXPECT_EQ(s.height, 96);
}

TEST_F(streams, DamagedFramesAreSkippedAndThePortRecoversAtTheNextIntraFrame) {
  start(0);
  auto red = stream(kRed, 6, 10);
  auto blue = stream(kBlue, 3, 10);
  regions(0, {region(5, 0, 0, 1920, 1080)});
  push_all(5, {red[0], red[1], red[2]});
  ASSERT_TRUE(handled(5, 3));
  // A frame cut short; the inter frames behind it need what it held.
  test_frame cut;
  cut.data.assign(red[3]->data.begin(), red[3]->data.begin() + red[3]->data.size() / 2);
  ASSERT_EQ(push(5, &cut), 0);
  push_all(5, {red[4], red[5]});
  ASSERT_TRUE(handled(5, 6));
  auto s = stats(5);
  EXPECT_EQ(s.decode_errors, 1u);
  EXPECT_EQ(s.skipped, 2u) << "the port skips, it does not decode, until an intra frame";
  EXPECT_EQ(s.decoded, 3u);
  EXPECT_TRUE(shows(0, kRed)) << "the last good picture stays";

  // The next intra frame (here of another stream) starts the port again.
  push_all(5, {blue[0], blue[1]});
  ASSERT_TRUE(handled(5, 8));
  EXPECT_EQ(stats(5).decoded, 5u);
  EXPECT_TRUE(shows(0, kBlue));

  // A frame whose slice data is overwritten.
  test_frame garbled;
  garbled.data = blue[2]->data;
  for (size_t i = garbled.data.size() / 3; i < garbled.data.size(); i++)
    garbled.data[i] = static_cast<uint8_t>(i * 37);
  ASSERT_EQ(push(5, &garbled), 0);
  ASSERT_TRUE(handled(5, 9));
  EXPECT_EQ(stats(5).decode_errors, 2u);
  EXPECT_EQ(stats(5).decoded, 5u);
  EXPECT_TRUE(shows(0, kBlue));
  EXPECT_EQ(cut.releases.load(), 1);
  EXPECT_EQ(garbled.releases.load(), 1);
}

TEST_F(streams, GarbledDataAtAFreshPortCostsNothingButTheFrame) {
  start(0);
  test_frame noise;
  noise.data = {0, 0, 1, 0x65};  // an IDR start code, so that the decoder really reads the noise
  for (size_t i = 4; i < 4000; i++) noise.data.push_back(static_cast<uint8_t>(i * 131 + 7));
  ASSERT_EQ(push(6, &noise), 0);
  ASSERT_TRUE(handled(6, 1));
  auto s = stats(6);
  EXPECT_EQ(s.decoded, 0u);
  EXPECT_EQ(s.decode_errors + s.skipped, 1u);
  push_all(6, stream(kBlue, 2));
  ASSERT_TRUE(handled(6, 3));
  EXPECT_EQ(stats(6).decoded, 2u);
}

TEST_F(streams, FramesAreTakenOnlyWhileTheEngineRuns) {
  create(0);
  auto frames = stream(kRed, 6);
  // Before ravel_start: refused.
  EXPECT_EQ(put(0, frames[0]), -1);
  ASSERT_EQ(ravel_start(engine_), 0);
  ASSERT_EQ(push(0, frames[0]), 0);
  ASSERT_TRUE(handled(0, 1));
  // Frames queued at a stop go back undecoded.
  ASSERT_EQ(ravel_soft_hold_port(engine_, 0, 1), 0);
  push_all(0, {frames[1], frames[2]});
  ASSERT_EQ(ravel_stop(engine_), 0);
  ASSERT_TRUE(handled(0, 3));
  EXPECT_EQ(stats(0).decoded, 1u);
  EXPECT_EQ(put(0, frames[3]), -1);
  EXPECT_EQ(ravel_soft_wait_compose(engine_, 100), -1) << "a stopped engine composes nothing";
  for (int i = 0; i < 3; i++) EXPECT_EQ(frames[i]->releases.load(), 1);
  EXPECT_EQ(frames[3]->releases.load(), 0);
}

// Leaves three frames queued at a held port and exits: the engine's threads
// must end and hand the buffers back on the way out.
void exit_with_frames_queued() {
  static std::atomic<int> gone{0};
  int32_t formats[1] = {0};
  ravel_t *e = ravel_new(
      formats, 0, 16, 0, 0,
      [](void *) {
        if (++gone == 3) std::fprintf(stderr, "three buffers back\n");
      },
      0, 0, 0, 24, nullptr, 6, nullptr);
  ravel_start(e);
  ravel_soft_hold_port(e, 1, 1);
  static uint8_t bytes[3][8] = {{0, 0, 0, 1, 0x65, 1, 2, 3}};
  for (auto &b : bytes)
    if (ravel_put_decode_stream(e, 1, b, b, 8, 0, nullptr, nullptr, 0, 0) != 0) std::abort();
  std::exit(0);
}

TEST_F(streams, AtExitTheThreadsEndAndQueuedBuffersGoBack) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(exit_with_frames_queued(), ::testing::ExitedWithCode(0), "three buffers back");
}

TEST_F(streams, BadArgumentsAreRefused) {
  start(0);
  auto frames = stream(kRed, 1);
  test_frame *f = frames[0];
  auto size = static_cast<int32_t>(f->data.size());
  const uint8_t *data = f->data.data();
  const struct {
    ravel_t *engine;
    int32_t port;
    test_frame *buffer;
    const uint8_t *data;
    int32_t size;
  } bad[] = {{engine_, -1, f, data, size},   {engine_, 18, f, data, size},
             {engine_, 0, f, nullptr, size}, {engine_, 0, nullptr, data, size},
             {engine_, 0, f, data, 0},       {nullptr, 0, f, data, size}};
  for (const auto &b : bad)
    EXPECT_EQ(ravel_put_decode_stream(b.engine, b.port, b.buffer, b.data, b.size, 0, nullptr,
                                      nullptr, 0, 0),
              -1)
        << "port " << b.port;
  EXPECT_EQ(stats(0).refused, 3u);
  EXPECT_EQ(f->releases.load(), 0);
}

}  // namespace
}  // namespace engine_test
