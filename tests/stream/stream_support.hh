// Shared set-up of the stream delivery tests: list buffers, a sink driven
// from the test thread, slot tables and a display whose sound is a pipe.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "eventually.hh"
#include "fake_engine.hh"
#include "frames.hh"
#include "kel_buffers.h"
#include "kelapp_sink.h"
#include "log_capture.hh"
#include "orlo_display.h"
#include "ref_ptr.hh"

namespace stream_test {

using testing_support::eventually;
using testing_support::free_counter;
using testing_support::log_capture;
using testing_support::make_frame;

// A list buffer taking over the members' references.
inline GstBuffer *make_list(const std::vector<GstBuffer *> &members) {
  GstBuffer *list = gst_kel_list_buffer_new();
  for (GstBuffer *m : members) gst_kel_list_buffer_append(list, m);
  return list;
}

// One slot's entry of a decode table.
struct slot_cfg {
  int slot, port, enable, sync = 0;
  orlo_first_cb_t first_cb = nullptr;
};

inline void decode_change(orlo_display_t *h, const std::vector<slot_cfg> &slots) {
  orlo_decode_cfg_t table[ORLO_MAX_SLOT] = {};
  for (const slot_cfg &s : slots) table[s.slot] = {s.port, s.sync, s.enable, s.first_cb, {}};
  ASSERT_EQ(orlo_display_decode_change(h, table), 0);
}

// A kelappsink rendering on the test's thread: each render() is one call of
// the render callback, and takes over the caller's reference.
class direct_sink {
 public:
  direct_sink() {
    gst_init(nullptr, nullptr);
    sink_ = orlo::adopt_floating(gst_element_factory_make("kelappsink", nullptr));
    g_object_set(sink_.get(), "sync", FALSE, nullptr);
    pad_ = orlo::adopt(gst_element_get_static_pad(sink_.get(), "sink"));
    gst_element_set_state(sink_.get(), GST_STATE_PLAYING);
    gst_pad_send_event(pad_.get(), gst_event_new_stream_start("stream"));
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_send_event(pad_.get(), gst_event_new_segment(&segment));
  }
  ~direct_sink() { gst_element_set_state(sink_.get(), GST_STATE_NULL); }
  direct_sink(const direct_sink &) = delete;
  direct_sink &operator=(const direct_sink &) = delete;
  GstElement *element() const { return sink_.get(); }
  void render(GstBuffer *buffer) { gst_pad_chain(pad_.get(), buffer); }

 private:
  orlo::ref_ptr<GstElement> sink_;
  orlo::ref_ptr<GstPad> pad_;
};

// Port and payload of each push from the `skip`-th on: what the tables decide.
using port_payloads_t = std::vector<std::pair<int64_t, std::string>>;
inline port_payloads_t port_payloads(size_t skip = 0) {
  port_payloads_t out;
  const auto puts = fake_engine::calls("ravel_put_decode_stream");
  for (size_t i = skip; i < puts.size(); i++)
    out.emplace_back(puts[i].args[1], std::string(puts[i].record.begin(), puts[i].record.end()));
  return out;
}

// A display over the recording engine whose sound device is a pipe, with
// `sink` bound at index 0.
class display_test : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe(fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    const int32_t formats[] = {0};
    h = orlo_display_new(formats, 0, 16, 0, 1, fds[1], nullptr);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(orlo_display_bind_src_pipe(h, sink.element(), 0), 0);
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
  direct_sink sink;
};

}  // namespace stream_test
