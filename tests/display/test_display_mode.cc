// Mode selection (first configuration and start of the engine) and the
// decode table.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <fstream>
#include <iterator>
#include <thread>

#include "display_fixture.hh"
#include "eventually.hh"

namespace {

using namespace display_test;

const names kDefaults = {"ravel_init_dec_config_param", "ravel_init_enc_config_param",
                         "ravel_change_pipe_config"};
const names kSixRecords = {"ravel_change_pipe_config"};

// Calls made after creation.
names engine_names_after_new() {
  names out = fake_engine::names();
  out.erase(std::remove(out.begin(), out.end(), "ravel_new"), out.end());
  return out;
}

// The first selection of a process: the mode, the engine call that refuses
// (or none), the calls made, the result and the answer.  A refusal stops the
// configuration there, reports "ret >= 0", leaves the mode unrecorded and
// never starts; either way any later selection records the mode only.
struct first_case {
  const char *label;
  int mode;
  const char *refusing;
  names calls;
  int result, answer;
  bool through_mode_change = false;
};
void PrintTo(const first_case &c, std::ostream *os) { *os << c.label; }

class FirstSelection : public ::testing::TestWithParam<first_case> {};

TEST_P(FirstSelection, ConfiguresOnceOrReportsTheRefusal) {
  const first_case &p = GetParam();
  log_capture log;
  orlo_display_t *h = make_display(0, 12);
  if (*p.refusing) fake_engine::script_result(p.refusing, -1);
  int need_start = -5;
  EXPECT_EQ(p.through_mode_change ? orlo_display_mode_change(h, p.mode)
                                  : orlo_display_set_user_config(h, p.mode, &need_start),
            p.result);
  EXPECT_EQ(need_start, p.answer);
  EXPECT_EQ(h->config_mode, p.result == 0 ? p.mode : 0);
  EXPECT_EQ(engine_names_after_new(), p.calls);
  EXPECT_EQ(h->engine_started, 0);  // starting is the caller's part
  EXPECT_EQ(log.texts(G_LOG_LEVEL_MESSAGE),
            names{"orlo_display_set_user_config: prev_mode = 0, cur_mode = " +
                  std::to_string(p.mode) + "\n"});
  EXPECT_EQ(
      log.texts(G_LOG_LEVEL_CRITICAL),
      p.result == 0 ? names{} : names{"orlo_display_set_user_config: assertion 'ret >= 0' failed"});
  const auto cfg = fake_engine::calls("ravel_change_pipe_config");
  if (p.result == 0 && p.calls == kDefaults) {  // one block pair, filled by the engine
    const auto dec = fake_engine::calls("ravel_init_dec_config_param").at(0);
    const auto enc = fake_engine::calls("ravel_init_enc_config_param").at(0);
    EXPECT_EQ(dec.args, with_engine({dec.args[1]}));
    EXPECT_EQ(enc.args, with_engine({enc.args[1]}));
    EXPECT_EQ(cfg.at(0).args, with_engine({dec.args[1], 0, enc.args[1], 12}));
  } else if (p.result == 0 && p.calls == kSixRecords) {  // six decoder records laid out here
    EXPECT_EQ(cfg.at(0).args, with_engine({cfg[0].args[1], 6, cfg[0].args[3], 0}));
    for (int i = 0; i < 6; i++) {
      std::array<int32_t, 9> r{};
      std::memcpy(r.data(), cfg[0].record.data() + 36 * i, sizeof r);
      r[7] = 0;  // the engine's word
      EXPECT_EQ(r, (std::array<int32_t, 9>{i, i / 2, 1920, 1080, i / 2, -1, -1, 0, -1})) << i;
    }
  }
  fake_engine::reset();
  for (int later : {p.mode, 100, 3}) {
    need_start = -5;
    EXPECT_EQ(orlo_display_set_user_config(h, later, &need_start), 0);
    EXPECT_EQ(need_start, 0);
    EXPECT_EQ(orlo_display_mode_change(h, later), 0);
    EXPECT_EQ(h->config_mode, later);
  }
  EXPECT_TRUE(fake_engine::calls().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, FirstSelection,
    ::testing::Values(
        first_case{"mode0", 0, "", {}, 0, 0}, first_case{"mode100", 100, "", kSixRecords, 0, 1},
        first_case{"mode101", 101, "", kSixRecords, 0, 1},
        first_case{"mode1", 1, "", kDefaults, 0, 1},
        first_case{"dec", 1, "ravel_init_dec_config_param", {kDefaults[0]}, -1, 0},
        first_case{"enc", 1, "ravel_init_enc_config_param", {kDefaults[0], kDefaults[1]}, -1, 0},
        first_case{"pipe", 7, "ravel_change_pipe_config", kDefaults, -1, -5, true},
        first_case{"pipe_six", 101, "ravel_change_pipe_config", kSixRecords, -1, 0}),
    [](const auto &info) { return std::string(info.param.label); });

TEST(ModeSelection, FirstStartsTheEngineLaterOnlyRecord) {
  orlo_display_t *h = make_display();
  EXPECT_EQ(orlo_display_mode_change(h, 1), 0);
  names expected = kDefaults;
  expected.push_back("ravel_start");
  EXPECT_EQ(engine_names_after_new(), expected);
  EXPECT_EQ(fake_engine::calls("ravel_start").at(0).args, with_engine({}));
  EXPECT_EQ(h->engine_started, 1);
  EXPECT_EQ(orlo_display_mode_start(h, 9), 0);
  EXPECT_EQ(h->config_mode, 9);
  // A stopped engine stays stopped.
  printed_by([&] { orlo_display_stop(h); });
  fake_engine::reset();
  EXPECT_EQ(orlo_display_mode_start(h, 100), 0);
  EXPECT_EQ(h->config_mode, 100);
  EXPECT_EQ(h->engine_started, 0);
  EXPECT_TRUE(fake_engine::calls().empty());
}

TEST(ModeSelection, RefusedStartIsReportedNotRecordedAsRunning) {
  log_capture log;
  orlo_display_t *h = make_display();
  fake_engine::script_result("ravel_start", -3);
  EXPECT_EQ(orlo_display_mode_start(h, 3), -1);
  EXPECT_EQ(h->engine_started, 0);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_CRITICAL),
            names{"orlo_display_mode_start: assertion 'ret == 0' failed"});
  // Never started, so the gated calls stay closed.
  EXPECT_EQ(orlo_display_check_processor(h, 0, 0), 0);
  EXPECT_TRUE(fake_engine::calls("ravel_check_alive_m3").empty());
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
}

// ---- the decode table ----

void first_cb_a(int) {}

TEST(DecodeChange, CopiesFourWordsPerSlotAndDerivesTheWaits) {
  log_capture log;
  orlo_display_t *h = make_display();
  std::vector<orlo_decode_cfg_t> table(ORLO_MAX_SLOT);
  // An enabled slot must name a port of the engine; an idle one may not.
  for (int bad_port : {-1, 18}) {
    table[7] = orlo_decode_cfg_t{bad_port, 0, 2, nullptr, {}};
    EXPECT_EQ(orlo_display_decode_change(h, table.data()), -1);
  }
  EXPECT_EQ(log.texts(G_LOG_LEVEL_CRITICAL).size(), 2u);
  EXPECT_EQ(h->ch_enable[7], 0);
  for (int i = 0; i < ORLO_MAX_SLOT; i++)
    table[i] = orlo_decode_cfg_t{i % 18, i % 2, i % 3, i % 5 == 0 ? &first_cb_a : nullptr, {}};
  table[0].port = 40;  // off: not looked at
  h->ch_jpeg_live[4] = 9;
  ASSERT_EQ(orlo_display_decode_change(h, table.data()), 0);
  for (int i = 0; i < ORLO_MAX_SLOT; i++) {
    SCOPED_TRACE(i);
    EXPECT_EQ((std::array<int, 5>{h->ch_port[i], h->ch_sync[i], h->ch_wait_sync[i], h->ch_enable[i],
                                  h->ch_wait_first[i]}),
              (std::array<int, 5>{i == 0 ? 40 : i % 18, i % 2, i % 2, i % 3, i % 3 == 1}));
    EXPECT_EQ(h->ch_first_cb[i], i % 5 == 0 ? &first_cb_a : nullptr);
  }
  EXPECT_EQ(h->ch_jpeg_live[4], 9);
  EXPECT_EQ(fake_engine::calls().size(), 1u);  // ravel_new only
}

// The writer waits for a render pass that holds the lock: it either finishes
// (the fault) or goes to sleep on the lock, as /proc shows.
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
  auto asleep = [&] {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    const std::string all((std::istreambuf_iterator<char>(stat)), {});
    return all.size() > all.rfind(')') + 2 && all[all.rfind(')') + 2] == 'S';
  };
  EXPECT_TRUE(testing_support::eventually([&] { return done || (tid != 0 && asleep()); }));
  EXPECT_FALSE(done.load());
  EXPECT_EQ(h->ch_port[83], 0);
  g_mutex_unlock(h->mutex);
  t.join();
  EXPECT_EQ(h->ch_port[83], 2);
}

}  // namespace
