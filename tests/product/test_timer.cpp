// The timer service: a plain model beside it under random operations, and what chance does not come by. The linker
// hands calloc and free to this file.
#include "platform/mfgd/cmn_lib/diag_util/timer.h"
#include "tests/support/host.h"

static bool allocator_fails;
static std::set<void *> &blocks = *new std::set<void *>;  // allocated and not released
static uint32_t freed_state;                              // of the last block, if it was a timer

extern "C" {
void *__real_calloc(size_t count, size_t size), *__wrap_calloc(size_t count, size_t size);
void __real_free(void *block), __wrap_free(void *block);

void *__wrap_calloc(size_t count, size_t size) {
  return allocator_fails ? nullptr : *blocks.insert(__real_calloc(count, size)).first;
}
void __wrap_free(void *block) {
  if (blocks.erase(block) != 0) freed_state = static_cast<diag_timer_t *>(block)->state;
  __real_free(block);
}
}

namespace {

std::string fired;  // the names of timers are their callback parameters
std::function<void(char)> on_fire;

void callback(uint32_t param) {
  fired += static_cast<char>(param);
  if (on_fire) on_fire(fired.back());
}

diag_timer_t *make(char name, uint32_t period, uint32_t type = TIMER_ONE_SHOT) {
  return timer_new(period, type, callback, static_cast<uint32_t>(name));
}

diag_timer_t *start(char name, uint32_t period) {
  diag_timer_t *const timer = make(name, period);
  EXPECT_EQ(timer_start(timer), 1U);
  return timer;
}

std::string tick(uint32_t count = 1) {
  fired.clear();
  while (count-- > 0)
    timer_one_tick_elapsed();
  return fired;
}

// Sets the clock of polled mode. One millisecond takes seconds meanwhile.
void set_clock(uint64_t msec) {
  cpu_khz = UINT32_MAX;
  start_cycles = timer_get_cycles() - msec * cpu_khz;
}

// The timers of a bucket, each entry in brackets.
std::string draw(uint32_t bucket) {
  std::string names;
  const auto *entry = static_cast<const timer_exp_entry_t *>(peek_head(&timer_get_timer_tbl()[bucket]));
  for (; entry != nullptr; entry = entry->next, names += ']') {
    names += '[';
    const auto *timer = static_cast<const diag_timer_t *>(peek_head(&entry->timers));
    for (; timer != nullptr; timer = timer->next)
      names += static_cast<char>(timer->callback_param);
  }
  return names;
}

// Starts from the module as it is at the start of a process.
void init(uint32_t size, uint32_t period = 0) {
  allocator_fails = false;
  for (void *block : std::exchange(blocks, {}))
    __real_free(block);
  fired.clear();
  on_fire = nullptr;
  system_time_period = chk_system_time = wrap_flag = last_elapsed_ticks = 0;
  current_time = start_cycles = 0;
  EXPECT_EQ(timer_module_init(size, period), 1U);
}

TEST(timer, the_wheel_is_the_largest_power_of_two_not_above_the_hint) {
  const uint32_t sizes[][2] = {{0, 1}, {1, 1}, {2, 2}, {3, 2}, {1000, 512}, {1023, 512}, {1024, 1024}};
  for (const auto &[hint, size] : sizes) {
    init(hint);
    EXPECT_EQ(timer_tbl_size, size);
    EXPECT_EQ(timer_get_hash_idx(UINT32_MAX), size - 1);
    EXPECT_EQ(draw(size - 1), "");
  }
  allocator_fails = true;
  EXPECT_EQ(timer_module_init(9, 0), 0U);
  EXPECT_EQ(timer_get_timer_tbl(), nullptr);
  const uint32_t logs[][2] = {{0, 0}, {1, 0}, {2, 1}, {4095, 11}, {4096, 12}, {UINT32_MAX, 31}};
  for (const auto &[x, log] : logs)
    EXPECT_EQ(log_base2(x), log);
  EXPECT_EQ(power(2, 0), 1U);
  EXPECT_EQ(power(3, 21), 1870418611U) << "modulo 2^32";
}

TEST(timer, null_timers_and_bad_arguments_give_zero) {
  init(1);
  diag_timer_t *const timer = make('a', UINT32_MAX, TIMER_ONE_SHOT_FREE);
  const auto other = [](uint32_t) {};
  for (diag_timer_t *none : {make('a', 0), make('a', 1, 3), timer_new(1, TIMER_ONE_SHOT, nullptr, 1)})
    EXPECT_EQ(none, nullptr);
  EXPECT_EQ(blocks.size(), 2U);  // the wheel and the timer
  for (uint32_t result : {timer_start(nullptr), timer_stop(nullptr), timer_restart(nullptr, 0), timer_free(nullptr),
                          timer_update_period(nullptr, 1), timer_is_active(nullptr), timer_get_callback_param(nullptr),
                          timer_update_callback_func(nullptr, other, 1), timer_update_callback_func(timer, nullptr, 1)})
    EXPECT_EQ(result, 0U);
  EXPECT_TRUE(timer->callback_func == callback && timer_get_callback_param(timer) == 'a');
  EXPECT_EQ(timer_update_callback_func(timer, other, UINT32_MAX), 1U);
  EXPECT_TRUE(timer->callback_func == other && timer_get_callback_param(timer) == UINT32_MAX);
}

TEST(timer, what_is_out_of_step_does_no_harm) {
  init(8);
  diag_timer_t *const a = start('a', 2);
  diag_timer_t *const b = make('b', 2);
  EXPECT_EQ(timer_update_period(b, 0), 1U) << "only stored";
  b->state = TIMER_ACTIVE;
  b->exp_entry = a->exp_entry;
  EXPECT_EQ(timer_stop(b), 1U);
  EXPECT_TRUE(b->state == TIMER_INACTIVE && b->exp_entry == a->exp_entry) << "was not found";
  a->state = TIMER_INACTIVE;
  EXPECT_EQ(tick(2), "");
  queue_t other[8]{};
  timer_set_timer_tbl(other);
  EXPECT_EQ(timer_get_timer_tbl(), other);
  EXPECT_EQ(blocks.size(), 3U) << "the former wheel and both timers are the caller's";
}

// Ticks count in 64 bits; beyond them begins the other epoch, whose entries go before those of this one.
TEST(timer, epochs_that_meet_in_a_bucket_are_placed_by_flag_first) {
  init(4);
  current_time = UINT64_MAX - 7;
  uint64_t exp = 0;
  EXPECT_TRUE(timer_calc_exp_time(7, &exp) == 0 && exp == UINT64_MAX);
  EXPECT_TRUE(timer_calc_exp_time(8, &exp) == 1 && exp == 0);
  const std::pair<uint32_t, const char *> starts[] = {
      {6, "[a]"},          {14, "[b][a]"},         {18, "[b][c][a]"},           // ticks -2, 6', 10'
      {2, "[d][b][c][a]"}, {6, "[d][e][b][c][a]"}, {10, "[f][d][e][b][c][a]"},  // ticks -6, -2, 2'
  };
  char name = 'a';
  for (const auto &[period, drawn] : starts) {
    (void)start(name++, period);
    EXPECT_EQ(draw(2), drawn);
  }
  EXPECT_EQ(tick(2), "") << "looked past the first entry";

  init(4);  // a callback puts the other epoch before the due entry
  current_time = UINT64_MAX - 2;
  (void)start('g', 1);
  on_fire = [](char fires) {
    if (fires == 'g') (void)start('h', 4);
  };
  EXPECT_EQ(tick(), "g");
  EXPECT_EQ(draw(2), "[h]");
  EXPECT_EQ(tick(4), "h");
}

TEST(timer, now_is_the_clock_once_there_was_polled_mode) {
  init(8, 10);
  for (const auto &[msec, ticks] : {std::pair{9U, 0U}, {35U, 3U}, {39U, 0U}}) {
    set_clock(msec);
    EXPECT_EQ(timer_some_time_elapsed(), ticks);
  }
  wrap_flag = 1;
  for (const uint32_t period : {10U, 0U}) {
    EXPECT_EQ(timer_module_init(8, period), 1U);
    EXPECT_LE(timer_get_cycles() - start_cycles, uint64_t{1} << 32);
    EXPECT_TRUE(chk_system_time == (period != 0) && system_time_period == 10);
    EXPECT_TRUE(current_time == 3 && wrap_flag == 1 && last_elapsed_ticks == 3);
  }
  set_clock(50);
  (void)start('t', 1);
  set_clock(10);  // behind the ticks reported
  on_fire = [](char fires) {
    if (fires == 't') (void)start('u', 5);
  };
  EXPECT_EQ(tick(3), "tu") << "joins the due entry";
  chk_system_time = 1;
  last_elapsed_ticks = UINT32_MAX;
  EXPECT_EQ(timer_some_time_elapsed(), 2U) << "modulo 2^32";
  cpu_khz = 0;
  uint64_t exp = 0;
  EXPECT_TRUE(timer_calc_exp_time(1, &exp) == 0 && exp == UINT64_MAX / 10 + 1);
}

TEST(timer, misuse_ends_the_process) {
  init(4);
  diag_timer_t *const t = make('t', 1);
  uint64_t exp = 0;
  const char gone[] = "timer->state != TIMER_DELETED", late[] = "time_diff != GTIME_IS_LATER_IN_TIME";
  // clang-format off
  const struct { const char *op, *text; uint32_t state; std::function<void()> body; } cases[] = {
      {"timer_start",             gone,                      2, [&] { (void)timer_start(t); }},
      {"timer_stop",              gone,                      2, [&] { (void)timer_stop(t); }},
      {"timer_stop",              gone,                      2, [&] { (void)timer_free(t); }},
      {"timer_restart",           gone,                      2, [&] { (void)timer_restart(t, 1); }},
      {"timer_restart",           "period",                  2, [&] { (void)timer_restart(t, 0); }},
      {"timer_update_period",     gone,                      2, [&] { (void)timer_update_period(t, 1); }},
      {"timer_calc_exp_time",     "period != 0",             0, [&] { (void)timer_calc_exp_time(0, &exp); }},
      {"timer_calc_exp_time",     "period != 0",             0, [&] { t->period = 0; (void)timer_start(t); }},
      {"timer_some_time_elapsed", "chk_system_time == 1",    0, [&] { (void)timer_some_time_elapsed(); }},
      {"timer_some_time_elapsed", "system_time_period != 0", 0,
       [&] { chk_system_time = 1; (void)timer_some_time_elapsed(); }},
      {"timer_one_tick_elapsed",  late,                      0, [&] { (void)timer_start(t); current_time = 4; tick(); }},
      {"timer_invoke_callback",   "0",                       0, [&] { (void)timer_start(t); t->type = 3; tick(); }},
  };
  // clang-format on
  for (const auto &c : cases) {
    t->state = c.state;
    expect_assertion(c.body, "diag_util/timer.cpp", c.op, c.text);
  }
}

struct setting_t {
  uint32_t size, max_period;  // of the wheel; ticks
  uint64_t base;              // tick at the start
  bool polled;
};

// The service and a model without a wheel, which counts ticks from the start of the run, do the same side by side.
struct pair_t {
  struct timer_t {
    diag_timer_t *real;  // null: none
    uint32_t period, type;
  };
  const setting_t set;
  std::mt19937 source;
  uint64_t clock = 0;
  std::map<char, timer_t> by_name{};
  std::map<uint64_t, std::string> entries{};  // by tick: the timers in start order
  std::string printed{};                      // by the service

  uint32_t random(uint32_t limit) { return static_cast<uint32_t>(source()) % limit; }

  uint32_t stop(char name) {
    for (auto &[tick, names] : entries)
      std::erase(names, name);
    return 1;
  }

  uint32_t start(char name) {
    stop(name);
    const uint64_t expiry = (set.polled ? clock : current_time - set.base) + by_name[name].period;
    if (!entries.contains(expiry) && allocator_fails) return 0;
    entries[expiry] += name;
    return 1;
  }

  void expire(char name) {
    std::string &due = entries[current_time - set.base];
    EXPECT_EQ(due.substr(0, 1), std::string(1, name));
    due.erase(0, 1);
    timer_t &timer = by_name[name];
    if (timer.type == TIMER_ONE_SHOT_FREE) timer.real = nullptr;
    if (timer.type == TIMER_PERIODIC && start(name) == 0) printed += "timer insertion failed\n";
    EXPECT_TRUE(!set.polled || timer_some_time_elapsed() == 0);
    compare(current_time - set.base);
    for (uint32_t operations = random(4); operations > 1; operations--)
      operate();
  }

  void operate() {
    allocator_fails = random(8) == 0;
    const auto name = static_cast<char>('a' + random(12));
    timer_t &timer = by_name[name];
    const uint32_t period = 1 + random(random(2) != 0 ? set.max_period : 4), what = random(8);
    if (timer.real == nullptr) {
      timer = {make(name, period, what % 3), period, what % 3};
      EXPECT_EQ(timer.real == nullptr, allocator_fails);
    } else if (what == 0) {
      stop(name);
      EXPECT_EQ(timer_free(std::exchange(timer.real, nullptr)), 1U);
      EXPECT_EQ(freed_state, TIMER_DELETED);
    } else if (what == 1) {
      EXPECT_EQ(timer_stop(timer.real), stop(name));
    } else if (what == 2) {
      timer.period = period;
      EXPECT_EQ(timer_restart(timer.real, period), start(name));
    } else if (what == 3) {
      timer.period = period;
      const uint32_t expected = timer_is_active(timer.real) != 0 ? start(name) : 1;
      EXPECT_EQ(timer_update_period(timer.real, period), expected);
    } else {
      EXPECT_EQ(timer_start(timer.real), start(name));
    }
  }

  // Some ticks; in polled mode they may wait for a later poll.
  void advance() {
    const uint32_t ticks = random(random(8) != 0 ? 4 : set.max_period + 1);
    clock += ticks;
    set_clock((set.base + clock) * 10 + 5);
    if (set.polled && random(2) != 0) return;
    const auto due = static_cast<uint32_t>(clock - current_time);
    EXPECT_TRUE(!set.polled || timer_some_time_elapsed() == due);
    if (!set.polled) tick(ticks);
    EXPECT_EQ(current_time, set.base + clock);
  }

  // Entries before tick `from` must be done with.
  void compare(uint64_t from) {
    for (; !entries.empty() && entries.begin()->first < from; entries.erase(entries.begin()))
      EXPECT_EQ(entries.begin()->second, "");
    size_t expected = 1 + entries.size();
    for (const auto &[name, timer] : by_name) {
      if (timer.real == nullptr) continue;
      ++expected;
      const auto holds = [&, n = name](const auto &entry) { return entry.second.find(n) != std::string::npos; };
      const bool active = std::ranges::any_of(entries, holds);
      EXPECT_TRUE(timer.real->state == active && timer_is_active(timer.real) == active);
      EXPECT_TRUE((timer.real->exp_entry != nullptr) == active && timer.real->period == timer.period);
    }
    EXPECT_EQ(blocks.size(), expected);
  }
};

TEST(timer, agrees_with_a_plain_model_under_random_operations) {
  // clang-format off
  const setting_t settings[] = {
      {1,  12, 0,                   false}, {2,   9,    0, false},
      {8,  40, UINT32_MAX - 300ULL, false}, {64,  80,   0, false},
      {64, 63, UINT64_MAX - 300,    false}, {256, 2000, 0, false},
      {1,  12, 0,                   true},  {16,  40,   0, true},
  };
  // clang-format on
  for (const auto &set : settings) {
    for (uint32_t seed = 1; seed <= 10 && !testing::Test::HasFailure(); ++seed) {
      SCOPED_TRACE(testing::Message() << set.size << " buckets from " << set.base << ", seed " << seed);
      init(set.size, set.polled ? 10 : 0);
      current_time = set.base;
      wrap_flag = seed % 2;
      pair_t pair{set, std::mt19937(seed)};
      on_fire = [&](char name) { pair.expire(name); };
      const std::string printed = stdout_of([&] {
        for (int step = 0; step < 500 && !testing::Test::HasFailure(); ++step) {
          pair.random(3) != 0 ? pair.operate() : pair.advance();
          pair.compare(current_time - set.base + 1);
        }
      });
      EXPECT_EQ(printed, pair.printed);
    }
  }
}

}  // namespace
