// Control operations: what reaches the engine, what is copied, what is
// logged and what comes back.
#include <functional>
#include <numeric>

#include "display_fixture.hh"

namespace {

using namespace display_test;
using H = orlo_display_t *;

void *P(intptr_t v) { return reinterpret_cast<void *>(v); }
const int32_t *I(const void *r) { return static_cast<const int32_t *>(r); }
int32_t g_bitrate;

struct control_case {
  std::function<int64_t(H)> op;
  const char *engine_call;
  args_t args;          // after the engine handle
  const char *failure;  // logged when the engine answers -3
  int64_t result_on_7, result_on_m3;
};

// Operations that refuse before creation and report an engine's refusal.
// clang-format off
const std::vector<control_case> kGuarded = {
    {[](H h) { return orlo_capture_start(h, 3); }, "ravel_capture_drv_start", {3},
     "fail to start capture! ch:3\n", 0, -1},
    {[](H h) { return orlo_capture_stop(h, 4); }, "ravel_capture_drv_stop", {4},
     "fail to stop capture! ch:4/ret:-3\n", 0, -1},
    {[](H h) { return orlo_display_register_get_encode_stream(h, P(16), P(32)); },
     "ravel_register_get_encode_stream", {16, 32}, "fail to register encoding callback!\n", 0, -1},
    {[](H h) { return orlo_display_register_captmode_change(h, P(16), P(32)); },
     "ravel_register_captmode_change", {16, 32}, "fail to register captmode_change callback!\n", 0, -1},
    {[](H h) { return orlo_display_register_get_encode_mosaic_stream(h, P(16), P(32), 3); },
     "ravel_register_encode_mosaic_stream", {16, 32, 3, 0}, "fail to register encoding callback!\n", 0, -1},
    {[](H h) { return orlo_display_encode_change(h, 1, 2, P(48)); }, "ravel_encode_change",
     {1, 2, 48}, "fail to change encoder param!\n", 7, -3},
    {[](H h) { return orlo_display_set_encode_bitrate(h, 1, 2, 4000); }, "ravel_set_encode_bitrate",
     {1, 2, 4000}, "fail to change encoder param!\n", 0, -1},
    {[](H h) { return orlo_display_get_encode_bitrate(h, 1, 2, &g_bitrate); }, "ravel_get_encode_bitrate",
     {1, 2, reinterpret_cast<intptr_t>(&g_bitrate)}, "fail to change encoder param!\n", 0, -1},
    {[](H h) { return orlo_display_md_set_param(h, 5, P(64), 12); }, "ravel_motion_detect_config_param",
     {5, 64, 12}, "fail to set md param!\n", 0, -1},
    {[](H h) { return orlo_display_set_time(h, 0x123456789ULL, 9); }, "ravel_set_time",
     {9, 0x123456789LL, 9}, "fail to set M3 time!\n", 7, -1},
    {[](H h) { return int64_t(intptr_t(orlo_display_get_hostcomm_addr(h, 1, 2))); }, "ravel_get_hostcomm_addr",
     {1, 2}, nullptr, 7, -3},
    {[](H) { return orlo_display_sys_time_init(0x1122334455ULL); }, "ravel_set_sys_time_init",
     {0x1122334455LL}, nullptr, 7, -3},
    {[](H) { return orlo_display_sys_time_sync(0x1122334455ULL); }, "ravel_set_sys_time_sync",
     {0x1122334455LL}, nullptr, 7, -3},
};

// Plain forwards: no test for the engine, nothing logged, the answer as it comes.
const std::vector<control_case> kForwards = {
    {[](H h) { return orlo_display_push_dec_frame_buffer(h, 5); }, "ravel_pause_frame", {5}, nullptr, 7, -3},
    // The display is always the first, whatever the second argument says.
    {[](H h) { return orlo_display_set_enable(h, 99, 1); }, "ravel_set_display_enable", {0, 1}, nullptr, 7, -3},
    {[](H h) { return orlo_display_set_embedded_osd_option(h, 4, 5, 6); }, "ravel_set_osd_option",
     {4, 5, 6}, nullptr, 7, -3},
};
// clang-format on

TEST(EngineControl, GuardedAndPlainForwards) {
  log_capture log;
  // Before creation: the guarded ones refuse, the plain ones call with no handle.
  for (const auto &p : kGuarded)
    EXPECT_EQ(p.op(nullptr), p.engine_call == std::string("ravel_get_hostcomm_addr") ? 0 : -1);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING),
            names(kGuarded.size(), "ravel has not been created!\n"));
  for (const auto &p : kForwards) EXPECT_EQ(p.op(nullptr), 0);
  for (const auto &c : fake_engine::calls()) EXPECT_EQ(c.args[0], 0) << c.name;
  EXPECT_EQ(fake_engine::calls().size(), kForwards.size());

  orlo_display_t *h = make_display();
  for (const auto *table : {&kGuarded, &kForwards})
    for (const auto &p : *table) {
      SCOPED_TRACE(p.engine_call);
      fake_engine::reset();
      log.clear();
      fake_engine::script_result(p.engine_call, 7);
      EXPECT_EQ(p.op(h), p.result_on_7);
      const auto calls = fake_engine::calls();
      ASSERT_EQ(calls.size(), 1u);
      EXPECT_EQ(calls[0].name, p.engine_call);
      const bool handle_less = calls[0].name.rfind("ravel_set_sys_time", 0) == 0;
      EXPECT_EQ(calls[0].args, handle_less ? p.args : with_engine(p.args));
      fake_engine::script_result(p.engine_call, -3);
      EXPECT_EQ(p.op(h), p.result_on_m3);
      EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING), p.failure ? names(1, p.failure) : names{});
    }

  // The two odd ones: an address of 0 is the failure, and a time of 0 is refused.
  log.clear();
  fake_engine::script_result("ravel_get_hostcomm_addr", 0);
  EXPECT_EQ(orlo_display_get_hostcomm_addr(h, 1, 2), 0u);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING), names{"fail to get hostcomm address!\n"});
  fake_engine::reset();
  EXPECT_EQ(orlo_display_sys_time_init(0), -1);
  EXPECT_EQ(orlo_display_sys_time_sync(0), -1);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_MESSAGE), names(2, "[orlo] set time value error\n"));
  EXPECT_TRUE(fake_engine::calls().empty());
}

// The record the engine's last `engine_call` saw, which must not be the caller's.
std::vector<uint8_t> seen_copy(const char *engine_call, const void *caller) {
  const auto calls = fake_engine::calls(engine_call);
  if (calls.empty()) return {};
  EXPECT_EQ(calls.back().args[0], with_engine({})[0]);
  EXPECT_NE(calls.back().args[1], reinterpret_cast<intptr_t>(caller));
  return calls.back().record;
}

template <typename T>
std::vector<uint8_t> bytes_of(const T &v) {
  const auto *b = reinterpret_cast<const uint8_t *>(&v);
  return std::vector<uint8_t>(b, b + sizeof v);
}

TEST(RecordCopy, MaskCountEntriesFixedSizeRecordsAndIpOsdText) {
  log_capture log;
  orlo_display_t *h = make_display();
  struct {
    int32_t word0, count, entry[4][7];
  } m;
  m.word0 = 0x7777;
  std::iota(&m.entry[0][0], &m.entry[0][0] + 28, 100);
  fake_engine::script_result("ravel_set_mask", 6);
  // Word 0 is not read; entries beyond the count stay zero.
  for (int count : {-2, 3, 4}) {
    m.count = count;
    EXPECT_EQ(orlo_display_set_mask(h, &m), 6);
    ravel_mask_t expected{};
    expected.count = count;
    std::memcpy(expected.entry, m.entry, sizeof expected.entry[0] * std::clamp(count, 0, 4));
    EXPECT_EQ(seen_copy("ravel_set_mask", &m), bytes_of(expected)) << count;
  }
  m.count = 5;
  EXPECT_EQ(orlo_display_set_mask(h, &m), -1);
  EXPECT_EQ(fake_engine::calls("ravel_set_mask").size(), 3u);

  // Records of a fixed size, copied whole.
  using rec_fn = int (*)(H, const void *);
  // clang-format off
  const std::vector<std::tuple<size_t, rec_fn, const char *>> records = {
      {212, [](H h, const void *r) { return orlo_display_set_roi(h, r); }, "ravel_set_ROI_coordinate"},
      {20, [](H h, const void *r) { return orlo_display_set_dnr(h, r); }, "ravel_set_dnr"},
      {4, [](H h, const void *r) { return orlo_display_set_mirror(h, I(r)); }, "ravel_set_mirror"},
      {4, [](H h, const void *r) { return orlo_display_set_rotate(h, I(r)); }, "ravel_set_rotate"},
      {8, [](H h, const void *r) { return orlo_display_set_datetime_format(h, r); },
       "ravel_set_datetime_format"},
  };
  // clang-format on
  for (const auto &[size, op, engine_call] : records) {
    fake_engine::script_result(engine_call, 2);
    std::vector<uint8_t> rec(size);
    for (size_t i = 0; i < size; i++) rec[i] = static_cast<uint8_t>(i * 7 + 1);
    EXPECT_EQ(op(h, rec.data()), 2) << engine_call;
    EXPECT_EQ(seen_copy(engine_call, rec.data()), rec) << engine_call;
  }

  // The ip osd record: a word and a text of up to 43 characters.
  for (size_t len : {15u, 43u}) {
    std::vector<char> rec(4 + len + 1, 0);
    rec[0] = 4, rec[1] = 3, rec[2] = 2, rec[3] = 1;
    for (size_t i = 0; i < len; i++) rec[4 + i] = static_cast<char>('a' + i % 26);
    EXPECT_EQ(orlo_display_set_embedded_ip_osd_enable(h, rec.data()), 0);
    ravel_ip_osd_t expected{};
    std::memcpy(&expected, rec.data(), rec.size());
    EXPECT_EQ(seen_copy("ravel_set_ip_osd_enable", rec.data()), bytes_of(expected)) << len;
  }
  // 4 + 44 bytes with no terminator, at the end of a page: nothing beyond may
  // be read.
  auto *rec = at_page_end<std::array<char, 48>>();
  rec->fill('x');
  EXPECT_EQ(orlo_display_set_embedded_ip_osd_enable(h, rec->data()), -1);
  EXPECT_EQ(fake_engine::calls("ravel_set_ip_osd_enable").size(), 2u);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_WARNING).size(), 2u);  // both refusals are reported
}

}  // namespace
