// Mode selection (first configuration and start of the engine) and the
// decode table.
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "display_fixture.hh"
#include "eventually.hh"

namespace {

using namespace display_test;

const std::string kDec = "ravel_init_dec_config_param", kEnc = "ravel_init_enc_config_param",
                  kPipe = "ravel_change_pipe_config", kStart = "ravel_start";

// The first selection of a process, through orlo_display_set_user_config or
// through orlo_display_mode_start, which also starts the engine.  A refusal
// reports `failed` and stops there; a refused configuration leaves the mode
// unrecorded.  Any later selection records the mode only.
struct first_case {
  const char *label;
  int mode;
  std::string refusing;  // the engine call that answers -1
  bool start;
  names calls;  // after ravel_new
  std::string failed;
};

class FirstSelection : public ::testing::TestWithParam<first_case> {};

TEST_P(FirstSelection, ConfiguresOnceOrReportsTheRefusal) {
  const first_case &p = GetParam();
  log_capture log;
  orlo_display_t *h = make_display(0, 12);
  if (!p.refusing.empty()) fake_engine::script_result(p.refusing, -1);
  int answer = -5;
  const int result = p.start ? orlo_display_mode_start(h, p.mode)
                             : orlo_display_set_user_config(h, p.mode, &answer);
  const bool configured = p.failed != "ret >= 0", ok = p.failed.empty();
  EXPECT_EQ(result, ok ? 0 : -1);
  EXPECT_EQ(answer, p.start ? -5 : ok && !p.calls.empty());
  EXPECT_EQ(h->config_mode, configured ? p.mode : 0);
  EXPECT_EQ(h->engine_started, p.start && ok);
  names seen = fake_engine::names();
  seen.erase(seen.begin());  // ravel_new
  EXPECT_EQ(seen, p.calls);
  EXPECT_EQ(log.texts(G_LOG_LEVEL_MESSAGE),
            names{"orlo_display_set_user_config: prev_mode = 0, cur_mode = " +
                  std::to_string(p.mode) + "\n"});
  const std::string fn = configured ? "orlo_display_mode_start" : "orlo_display_set_user_config";
  EXPECT_EQ(log.texts(G_LOG_LEVEL_CRITICAL),
            ok ? names{} : names{fn + ": assertion '" + p.failed + "' failed"});
  const auto cfg = fake_engine::calls(kPipe);
  // One block pair filled by the engine, or six decoder records laid out here.
  if (configured && !p.calls.empty() && p.calls[0] == kDec) {
    const int64_t dec = fake_engine::calls(kDec).at(0).args[1];
    const int64_t enc = fake_engine::calls(kEnc).at(0).args[1];
    EXPECT_EQ(cfg.at(0).args, with_engine({dec, 0, enc, 12}));
  } else if (configured && !cfg.empty()) {
    EXPECT_EQ(cfg[0].args, with_engine({cfg[0].args[1], 6, cfg[0].args[3], 0}));
    for (int i = 0; i < 6; i++) {
      std::array<int32_t, 9> r{};
      std::memcpy(r.data(), cfg[0].record.data() + 36 * i, sizeof r);
      r[7] = 0;  // the engine's word
      EXPECT_EQ(r, (std::array<int32_t, 9>{i, i / 2, 1920, 1080, i / 2, -1, -1, 0, -1})) << i;
    }
  }
  fake_engine::reset();
  for (int later : {p.mode, 100, 3}) {
    answer = -5;
    EXPECT_EQ(orlo_display_set_user_config(h, later, &answer), 0);
    EXPECT_EQ(answer, 0);
    EXPECT_EQ(orlo_display_mode_change(h, later), 0);
    EXPECT_EQ(h->config_mode, later);
  }
  EXPECT_TRUE(fake_engine::calls().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, FirstSelection,
    ::testing::Values(first_case{"mode0", 0, "", false, {}, ""},
                      first_case{"mode100", 100, "", false, {kPipe}, ""},
                      first_case{"mode101", 101, "", true, {kPipe, kStart}, ""},
                      first_case{"mode7", 7, "", false, {kDec, kEnc, kPipe}, ""},
                      first_case{"mode1", 1, "", true, {kDec, kEnc, kPipe, kStart}, ""},
                      first_case{"dec", 1, kDec, false, {kDec}, "ret >= 0"},
                      first_case{"enc", 1, kEnc, false, {kDec, kEnc}, "ret >= 0"},
                      first_case{"pipe", 7, kPipe, true, {kDec, kEnc, kPipe}, "ret >= 0"},
                      first_case{"pipe_six", 101, kPipe, false, {kPipe}, "ret >= 0"},
                      first_case{
                          "start", 3, kStart, true, {kDec, kEnc, kPipe, kStart}, "ret == 0"}),
    [](const auto &info) { return std::string(info.param.label); });

TEST(SetUserConfig, NullAnswerLeavesTheFirstSelectionForTheNextCall) {
  log_capture log;
  orlo_display_t *h = make_display();
  EXPECT_EQ(orlo_display_set_user_config(h, 2, nullptr), -1);
  EXPECT_TRUE(log.texts(G_LOG_LEVEL_MESSAGE).empty());
  EXPECT_EQ(log.texts(G_LOG_LEVEL_CRITICAL),
            names{"orlo_display_set_user_config: assertion 'need_start != NULL' failed"});
  EXPECT_EQ(orlo_display_mode_start(h, 2), 0);
  EXPECT_EQ(h->engine_started, 1);
}

void first_cb_a(int) {}

TEST(DecodeChange, CopiesFourWordsPerSlotAndDerivesTheWaits) {
  orlo_display_t *h = make_display();
  std::vector<orlo_decode_cfg_t> table(ORLO_MAX_SLOT);
  // An enabled slot must name a port of the engine; an idle one may not.
  for (int bad_port : {-1, 18}) {
    table[7] = orlo_decode_cfg_t{bad_port, 0, 2, nullptr, {}};
    EXPECT_EQ(orlo_display_decode_change(h, table.data()), -1);
    EXPECT_EQ(h->ch_enable[7], 0);
  }
  for (int i = 0; i < ORLO_MAX_SLOT; i++)
    table[i] = orlo_decode_cfg_t{i % 18, i % 2, i % 3, i % 5 == 0 ? &first_cb_a : nullptr, {}};
  table[0].port = 40;  // off: not looked at
  h->ch_jpeg_live[4] = 9;
  ASSERT_EQ(orlo_display_decode_change(h, table.data()), 0);
  for (int i = 0; i < ORLO_MAX_SLOT; i++) {
    EXPECT_EQ((std::array<int, 5>{h->ch_port[i], h->ch_sync[i], h->ch_wait_sync[i], h->ch_enable[i],
                                  h->ch_wait_first[i]}),
              (std::array<int, 5>{i == 0 ? 40 : i % 18, i % 2, i % 2, i % 3, i % 3 == 1}))
        << i;
    EXPECT_EQ(h->ch_first_cb[i], i % 5 == 0 ? &first_cb_a : nullptr) << i;
  }
  EXPECT_EQ(h->ch_jpeg_live[4], 9);
}

// A render pass holds the lock: the writer goes to sleep on it (as /proc
// shows) before it writes anything.
TEST(DecodeChange, WaitsForTheRenderLock) {
  orlo_display_t *h = make_display();
  std::vector<orlo_decode_cfg_t> table(ORLO_MAX_SLOT, orlo_decode_cfg_t{2, 0, 1, nullptr, {}});
  g_mutex_lock(h->mutex);
  std::atomic<pid_t> tid{0};
  std::thread t([&] {
    tid = gettid();
    orlo_display_decode_change(h, table.data());
  });
  EXPECT_TRUE(testing_support::eventually([&] {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    const std::string all((std::istreambuf_iterator<char>(stat)), {});
    return tid != 0 && all.size() > all.rfind(')') + 2 && all[all.rfind(')') + 2] == 'S';
  }));
  EXPECT_EQ(h->ch_port[83], 0);
  g_mutex_unlock(h->mutex);
  t.join();
  EXPECT_EQ(h->ch_port[83], 2);
}

}  // namespace
