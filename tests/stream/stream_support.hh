// Shared set-up of the stream delivery tests: frames in the source's format,
// list buffers, sinks driven from the test thread, slot tables, and a count
// of freed buffers.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "eventually.hh"
#include "fake_engine.hh"
#include "kel_buffers.h"
#include "kelapp_sink.h"
#include "orlo_display.h"
#include "ref_ptr.hh"

namespace stream_test {

// A frame in the source's format: the 24-byte header, then `payload`.
inline GstBuffer *make_frame(uint8_t channel, uint8_t type, const std::string &payload,
                             uint32_t timestamp = 0) {
  std::vector<uint8_t> bytes(24 + payload.size(), 0xEE);  // unread header bytes are junk
  const uint32_t size = static_cast<uint32_t>(payload.size());
  bytes[0] = channel;
  std::memcpy(&bytes[4], &size, 4);
  bytes[8] = type;
  std::memcpy(&bytes[12], &timestamp, 4);
  std::memcpy(bytes.data() + 24, payload.data(), payload.size());
  return gst_kel_buddy_buffer_new_copy(bytes.data(), bytes.size());
}

// A list buffer taking over the members' references.
inline GstBuffer *make_list(std::initializer_list<GstBuffer *> members) {
  GstBuffer *list = gst_kel_list_buffer_new();
  for (GstBuffer *m : members) gst_kel_list_buffer_append(list, m);
  return list;
}

// Counts finalized buffers; a buffer finalized twice would show as a count
// above the number watched.
struct free_counter {
  std::atomic<int> watched{0};
  std::atomic<int> freed{0};
  GstBuffer *watch(GstBuffer *b) {
    watched++;
    gst_mini_object_weak_ref(GST_MINI_OBJECT_CAST(b), on_free, this);
    return b;
  }
  static void on_free(gpointer self, GstMiniObject *) {
    static_cast<free_counter *>(self)->freed++;
  }
};

// A display over the recording engine: 1920 x 1080, 16 channels.
inline orlo_display_t *make_display(int32_t h_audio = -1) {
  const int32_t formats[] = {0};
  orlo_display_t *h = orlo_display_new(formats, 0, 16, 0, 1, h_audio, nullptr);
  EXPECT_NE(h, nullptr);
  return h;
}

// One slot's entry of a decode table.
struct slot_cfg {
  int slot;
  int port;
  int enable;
  int sync = 0;
  orlo_first_cb_t first_cb = nullptr;
};

inline void decode_change(orlo_display_t *h, const std::vector<slot_cfg> &slots) {
  orlo_decode_cfg_t table[ORLO_MAX_SLOT] = {};
  for (const slot_cfg &s : slots) {
    table[s.slot].port = s.port;
    table[s.slot].enable = s.enable;
    table[s.slot].sync = s.sync;
    table[s.slot].first_cb = s.first_cb;
  }
  ASSERT_EQ(orlo_display_decode_change(h, table), 0);
}

// A kelappsink on its own, rendering what the test hands it on the test's
// thread: each render() is one call of the render callback.
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
  // Renders `buffer`, taking over the caller's reference.
  GstFlowReturn render(GstBuffer *buffer) { return gst_pad_chain(pad_.get(), buffer); }

 private:
  orlo::ref_ptr<GstElement> sink_;
  orlo::ref_ptr<GstPad> pad_;
};

// Ports and payloads only: what the tables decide.
using port_payloads_t = std::vector<std::pair<int64_t, std::string>>;
inline port_payloads_t port_payloads(size_t skip = 0) {
  port_payloads_t out;
  for (const auto &c : fake_engine::calls("ravel_put_decode_stream"))
    if (skip > 0)
      skip--;
    else
      out.emplace_back(c.args[1], std::string(c.record.begin(), c.record.end()));
  return out;
}

using testing_support::eventually;

// A display whose sound device is a pipe, with `sink` bound at index 0.
class display_test : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(pipe(fds), 0);
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    h = make_display(fds[1]);
    ASSERT_EQ(orlo_display_bind_src_pipe(h, sink.element(), 0), 0);
  }
  // What the sound device got since the last call.
  std::string heard() {
    std::string out;
    char buf[256];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
    return out;
  }
  int fds[2] = {-1, -1};
  orlo_display_t *h = nullptr;
  direct_sink sink;
};

}  // namespace stream_test
