// Audio output: which frames are heard, what reaches the device, and the
// device's failures.
#include <fcntl.h>
#include <unistd.h>

#include "log_capture.hh"
#include "stream_support.hh"

namespace {

using namespace stream_test;
using testing_support::log_capture;

std::string drain(int fd) {
  std::string out;
  char buf[256];
  ssize_t n;
  while ((n = read(fd, buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
  return out;
}

class Audio : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe(fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    h = make_display(fds[1]);
    ASSERT_EQ(h->h_audio, fds[1]);
    ASSERT_EQ(orlo_display_bind_src_pipe(h, sink.element(), 0), 0);
  }
  // Renders audio of channels 1 and 2 around a video frame, and gives what
  // the device got.
  std::string heard() {
    sink.render(make_list(
        {make_frame(1, 10, "one;"), make_frame(0, 1, "video"), make_frame(2, 10, "two;")}));
    return drain(fds[0]);
  }
  int fds[2] = {-1, -1};
  orlo_display_t *h = nullptr;
  direct_sink sink;
};

TEST_F(Audio, ChoiceOfChannelAndAll) {
  EXPECT_EQ(h->audio_ch, -1);
  EXPECT_EQ(heard(), "");  // nothing at creation
  const struct {
    int ch, all;
    const char *heard;
  } cases[] = {{-1, 1, "one;two;"}, {-1, 2, ""}, {5, 2, "one;two;"},
               {2, 0, "two;"},      {7, 0, ""},  {-1, 0, ""}};
  for (const auto &c : cases) {
    EXPECT_EQ(orlo_display_audio_change(h, c.ch, c.all), 0);
    EXPECT_EQ(heard(), c.heard) << "audio_ch " << c.ch << ", audio_all " << c.all;
  }
  // Every slot is off: the video frame went nowhere, the audio played.
  EXPECT_TRUE(fake_engine::calls("ravel_put_decode_stream").empty());
}

TEST_F(Audio, PlayedFramesGiveTheirReferenceBack) {
  orlo_display_audio_change(h, -1, 1);
  free_counter fc;
  sink.render(make_list({fc.watch(make_frame(4, 10, "pcm")), fc.watch(make_frame(4, 10, ""))}));
  EXPECT_EQ(drain(fds[0]), "pcm");
  EXPECT_EQ(fc.freed.load(), 2);
}

TEST(AudioDevice, WithoutADeviceEachSelectedFrameLogsItsLoss) {
  log_capture log;
  orlo_display_t *h = make_display(-1);
  EXPECT_EQ(h->h_audio, 0);
  direct_sink sink;
  ASSERT_EQ(orlo_display_bind_src_pipe(h, sink.element(), 0), 0);
  orlo_display_audio_change(h, 3, 0);
  sink.render(
      make_list({make_frame(3, 10, "abcd"), make_frame(3, 10, ""), make_frame(4, 10, "x")}));
  const auto warnings = log.texts(G_LOG_LEVEL_WARNING);
  ASSERT_EQ(warnings.size(), 1u);  // the empty frame logs nothing
  EXPECT_TRUE(
      g_regex_match_simple("^\\[ravel_put_audio_stream:[0-9]+\\] stream_size=4, written_size=:0$",
                           warnings[0].c_str(), G_REGEX_DEFAULT, G_REGEX_MATCH_DEFAULT))
      << warnings[0];
}

TEST(AudioDevice, FullNonBlockingDeviceLosesTheFrameAndSaysSo) {
  log_capture log;
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  fcntl(fds[1], F_SETFL, O_NONBLOCK);
  std::vector<char> fill(4096, 'f');
  while (write(fds[1], fill.data(), fill.size()) > 0) {
  }
  free_counter fc;
  GstBuffer *frame = fc.watch(make_frame(0, 10, "late"));
  const uint8_t *payload = gst_kel_buddy_buffer_get_meta(frame)->data + 24;
  EXPECT_EQ(ravel_put_audio_stream(fds[1], frame, payload, 4), -1);
  EXPECT_EQ(fc.freed.load(), 1);
  const auto warnings = log.texts(G_LOG_LEVEL_WARNING);
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_NE(warnings[0].find("stream_size=4, written_size=:-1"), std::string::npos);
  close(fds[0]);
  close(fds[1]);
}

TEST(AudioDevice, MissingSoundDeviceGivesZero) {
  if (access("/dev/dsp", F_OK) == 0) GTEST_SKIP() << "this host has a /dev/dsp";
  log_capture log;
  EXPECT_EQ(ravel_audio_new(0), 0);
  EXPECT_EQ(ravel_audio_new(1), 0);
  EXPECT_EQ(log.count("ravel_audio_new: cannot open audio device\n"), 2);
}

}  // namespace
