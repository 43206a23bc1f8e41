// Mode selection (first configuration and start of the engine) and the
// decode table.
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <ostream>
#include <thread>

#include "display_fixture.hh"

namespace {

using display_test::engine_word;
using display_test::make_display;
using testing_support::log_capture;

using display_test::names;

const names kDefaults = {"ravel_init_dec_config_param", "ravel_init_enc_config_param",
                         "ravel_change_pipe_config"};
const names kSixRecords = {"ravel_change_pipe_config"};

// Calls made after creation.
names engine_names_after_new() {
  names all = fake_engine::names();
  names out;
  for (auto &n : all)
    if (n != "ravel_new") out.push_back(n);
  return out;
}

std::array<int32_t, 9> dec_record(const fake_engine::call &c, int i) {
  std::array<int32_t, 9> r{};
  std::memcpy(r.data(), c.record.data() + 36 * i, sizeof r);
  return r;
}

// One row of the first-selection table: the mode selected first, the engine
// calls it makes, the mode recorded and the answer.
struct first_case {
  const char *label;
  int mode;
  names calls;
  int answer;
};
void PrintTo(const first_case &c, std::ostream *os) { *os << c.label; }

class FirstSelection : public ::testing::TestWithParam<first_case> {};

TEST_P(FirstSelection, ConfiguresOnceAndAnswers) {
  const first_case &p = GetParam();
  log_capture log;
  orlo_display_t *h = make_display(0, 12);
  int need_start = -5;
  EXPECT_EQ(orlo_display_set_user_config(h, p.mode, &need_start), 0);
  EXPECT_EQ(need_start, p.answer);
  EXPECT_EQ(h->config_mode, p.mode);
  EXPECT_EQ(engine_names_after_new(), p.calls);
  EXPECT_EQ(h->engine_started, 0);  // starting is the caller's part
  EXPECT_EQ(log.texts(G_LOG_LEVEL_MESSAGE),
            names{"orlo_display_set_user_config: prev_mode = 0, cur_mode = " +
                  std::to_string(p.mode) + "\n"});

  if (p.calls == kDefaults) {  // one block pair, filled by the engine
    auto dec = fake_engine::calls("ravel_init_dec_config_param").at(0);
    auto enc = fake_engine::calls("ravel_init_enc_config_param").at(0);
    auto cfg = fake_engine::calls("ravel_change_pipe_config").at(0);
    EXPECT_EQ(dec.args[0], engine_word());
    EXPECT_EQ(enc.args[0], engine_word());
    EXPECT_EQ(cfg.args, (std::vector<int64_t>{engine_word(), dec.args[1], 0, enc.args[1], 12}));
  } else if (p.calls == kSixRecords) {  // six decoder records laid out here
    auto cfg = fake_engine::calls("ravel_change_pipe_config").at(0);
    EXPECT_EQ(cfg.args[0], engine_word());
    EXPECT_EQ(cfg.args[2], 6);
    EXPECT_NE(cfg.args[3], 0);  // an encoder block, left to the engine
    EXPECT_EQ(cfg.args[4], 0);
    for (int i = 0; i < 6; i++) {
      auto r = dec_record(cfg, i);
      EXPECT_EQ((std::array<int32_t, 7>{r[0], r[1], r[2], r[3], r[4], r[5], r[6]}),
                (std::array<int32_t, 7>{i, i / 2, 1920, 1080, i / 2, -1, -1}))
          << i;
      EXPECT_EQ(r[8], -1) << i;
    }
  }

  // The flag is gone: any later selection records the mode only, and the
  // engine is never started without the caller's start.
  fake_engine::reset();
  for (int later : {p.mode, 100, 3}) {
    need_start = -5;
    EXPECT_EQ(orlo_display_set_user_config(h, later, &need_start), 0);
    EXPECT_EQ(need_start, 0);
    EXPECT_EQ(orlo_display_mode_change(h, later), 0);
    EXPECT_EQ(h->config_mode, later);
  }
  EXPECT_TRUE(fake_engine::calls().empty());
  EXPECT_EQ(log.texts(G_LOG_LEVEL_MESSAGE).back(),
            "orlo_display_set_user_config: prev_mode = 3, cur_mode = 3\n");
}

INSTANTIATE_TEST_SUITE_P(Table, FirstSelection,
                         ::testing::Values(first_case{"mode0", 0, {}, 0},
                                           first_case{"mode100", 100, kSixRecords, 1},
                                           first_case{"mode101", 101, kSixRecords, 1},
                                           first_case{"mode1", 1, kDefaults, 1},
                                           first_case{"mode22", 22, kDefaults, 1},
                                           first_case{"unlisted_mode4", 4, kDefaults, 1}),
                         display_test::by_label);

// The two public names of a selection behave alike.
struct select_name {
  int (*fn)(orlo_display_t *, int);
  const char *label;
  int operator()(orlo_display_t *h, int mode) const { return fn(h, mode); }
};
void PrintTo(const select_name &s, std::ostream *os) { *os << s.label; }
class ModeSelection : public ::testing::TestWithParam<select_name> {};

TEST_P(ModeSelection, FirstStartsTheEngineLaterOnlyRecord) {
  orlo_display_t *h = make_display();
  EXPECT_EQ(GetParam()(h, 1), 0);
  names expected = kDefaults;
  expected.push_back("ravel_start");
  EXPECT_EQ(engine_names_after_new(), expected);
  EXPECT_EQ(fake_engine::calls("ravel_start").at(0).args[0], engine_word());
  EXPECT_EQ(h->engine_started, 1);
  // The first start also opens the gate of the statistics calls.
  EXPECT_EQ(orlo_display_print_statistics(h, 0, 0), 0);
  EXPECT_EQ(fake_engine::calls("ravel_print_statistics").size(), 1u);

  fake_engine::reset();
  EXPECT_EQ(GetParam()(h, 9), 0);
  EXPECT_EQ(h->config_mode, 9);
  // A stopped engine stays stopped.
  testing::internal::CaptureStdout();
  orlo_display_stop(h);
  testing::internal::GetCapturedStdout();
  fake_engine::reset();
  EXPECT_EQ(GetParam()(h, 100), 0);
  EXPECT_EQ(h->config_mode, 100);
  EXPECT_EQ(h->engine_started, 0);
  EXPECT_TRUE(fake_engine::calls().empty());
}

TEST_P(ModeSelection, RefusedStartIsReportedNotRecordedAsRunning) {
  log_capture log;
  orlo_display_t *h = make_display();
  fake_engine::script_result("ravel_start", -3);
  EXPECT_EQ(GetParam()(h, 3), -1);
  EXPECT_EQ(h->engine_started, 0);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_CRITICAL),
            names{std::string(GetParam().label) + ": assertion 'ret == 0' failed"});
  // Never started, so the gated calls stay closed.
  EXPECT_EQ(orlo_display_check_processor(h, 0, 0), 0);
  EXPECT_TRUE(fake_engine::calls("ravel_check_alive_m3").empty());
}

INSTANTIATE_TEST_SUITE_P(
    Names, ModeSelection,
    ::testing::Values(select_name{&orlo_display_mode_change, "orlo_display_mode_change"},
                      select_name{&orlo_display_mode_start, "orlo_display_mode_start"}),
    display_test::by_label);

// Each engine call of the configuration may refuse; the selection then
// stops there, reports "ret >= 0", leaves the mode unrecorded and never starts.
struct refusal_case {
  const char *label;
  int mode;
  const char *refusing;
  names calls;
};
void PrintTo(const refusal_case &c, std::ostream *os) { *os << c.label; }

class ConfigRefused : public ::testing::TestWithParam<refusal_case> {};

TEST_P(ConfigRefused, SelectionGivesMinusOne) {
  const refusal_case &p = GetParam();
  log_capture log;
  orlo_display_t *h = make_display();
  fake_engine::script_result(p.refusing, -1);
  int need_start = -5;
  EXPECT_EQ(orlo_display_set_user_config(h, p.mode, &need_start), -1);
  EXPECT_EQ(need_start, 0);
  EXPECT_EQ(h->config_mode, 0);
  EXPECT_EQ(engine_names_after_new(), p.calls);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_CRITICAL),
            names{"orlo_display_set_user_config: assertion 'ret >= 0' failed"});
}

INSTANTIATE_TEST_SUITE_P(
    Calls, ConfigRefused,
    ::testing::Values(
        refusal_case{"dec", 1, "ravel_init_dec_config_param", {"ravel_init_dec_config_param"}},
        refusal_case{"enc", 1, "ravel_init_enc_config_param", {kDefaults[0], kDefaults[1]}},
        refusal_case{"pipe", 1, "ravel_change_pipe_config", kDefaults},
        refusal_case{"pipe_six", 101, "ravel_change_pipe_config", kSixRecords}),
    display_test::by_label);

TEST(ModeChange, RefusedConfigurationIsNotStarted) {
  orlo_display_t *h = make_display();
  fake_engine::script_result("ravel_change_pipe_config", -2);
  EXPECT_EQ(orlo_display_mode_change(h, 7), -1);
  EXPECT_TRUE(fake_engine::calls("ravel_start").empty());
  EXPECT_EQ(h->engine_started, 0);
}

TEST(SetUserConfig, NullAnswerLeavesTheFirstSelectionForTheNextCall) {
  log_capture log;
  orlo_display_t *h = make_display();
  EXPECT_EQ(orlo_display_set_user_config(h, 2, nullptr), -1);
  EXPECT_EQ(h->config_mode, 0);
  EXPECT_TRUE(log.texts(G_LOG_LEVEL_MESSAGE).empty());
  EXPECT_EQ(log.texts(G_LOG_LEVEL_CRITICAL),
            names{"orlo_display_set_user_config: assertion 'need_start != NULL' failed"});
  EXPECT_EQ(engine_names_after_new(), names{});
  EXPECT_EQ(orlo_display_mode_start(h, 2), 0);
  EXPECT_EQ(h->engine_started, 1);
  EXPECT_EQ(fake_engine::calls("ravel_start").size(), 1u);
}

// ---- the decode table ----

void first_cb_a(int) {}

TEST(DecodeChange, CopiesFourWordsPerSlotAndDerivesTheWaits) {
  log_capture log;
  orlo_display_t *h = make_display();
  EXPECT_EQ(orlo_display_decode_change(h, nullptr), -1);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_CRITICAL).size(), 1u);
  std::vector<orlo_decode_cfg_t> table(ORLO_MAX_SLOT);
  for (int i = 0; i < ORLO_MAX_SLOT; i++)
    table[i] = orlo_decode_cfg_t{i % 18, i % 2, i % 3, i % 5 == 0 ? &first_cb_a : nullptr, {}};
  h->ch_jpeg_live[4] = 9;
  EXPECT_EQ(orlo_display_decode_change(h, table.data()), 0);
  for (int i = 0; i < ORLO_MAX_SLOT; i++) {
    SCOPED_TRACE(i);
    EXPECT_EQ(h->ch_port[i], i % 18);
    EXPECT_EQ(h->ch_sync[i], i % 2);
    EXPECT_EQ(h->ch_wait_sync[i], i % 2);
    EXPECT_EQ(h->ch_enable[i], i % 3);
    EXPECT_EQ(h->ch_wait_first[i], i % 3 == 1 ? 1 : 0);  // enable 2 does not wait
    EXPECT_EQ(h->ch_first_cb[i], i % 5 == 0 ? &first_cb_a : nullptr);
  }
  EXPECT_EQ(h->ch_jpeg_live[4], 9);
  EXPECT_TRUE(fake_engine::calls("ravel_put_decode_stream").empty());

  // A zero table turns every slot off.
  std::vector<orlo_decode_cfg_t> off(ORLO_MAX_SLOT);
  ASSERT_EQ(orlo_display_decode_change(h, off.data()), 0);
  for (int i = 0; i < ORLO_MAX_SLOT; i++) {
    EXPECT_EQ(
        h->ch_enable[i] | h->ch_wait_first[i] | h->ch_port[i] | h->ch_sync[i] | h->ch_wait_sync[i],
        0)
        << i;
    EXPECT_EQ(h->ch_first_cb[i], nullptr);
  }
}

// Whether thread `tid` of this process is asleep (in a lock's wait).
bool asleep(pid_t tid) {
  std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
  std::string all((std::istreambuf_iterator<char>(stat)), {});
  const size_t at = all.rfind(')');
  return at != std::string::npos && at + 2 < all.size() && all[at + 2] == 'S';
}

TEST(DecodeChange, WaitsForTheRenderLock) {
  orlo_display_t *h = make_display();
  std::vector<orlo_decode_cfg_t> table(ORLO_MAX_SLOT, orlo_decode_cfg_t{2, 0, 1, nullptr, {}});
  g_mutex_lock(h->mutex);
  std::atomic<bool> done{false};
  std::atomic<pid_t> tid{0};
  std::thread t([&] {
    tid = gettid();
    orlo_display_decode_change(h, table.data());
    done = true;
  });
  // The writer either finishes (the fault) or goes to sleep on the lock.
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!done && !(tid != 0 && asleep(tid)) && std::chrono::steady_clock::now() < end)
    std::this_thread::yield();
  EXPECT_FALSE(done.load());
  EXPECT_EQ(h->ch_port[83], 0);
  g_mutex_unlock(h->mutex);
  t.join();
  EXPECT_TRUE(done.load());
  EXPECT_EQ(h->ch_port[83], 2);
}

}  // namespace
