// The timer service: drawn wheels, a plain model under random operations, and an allocator that fails on request. The
// linker hands malloc, calloc and free to this file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "platform/mfgd/cmn_lib/diag_util/timer.h"

namespace {

// Counts what the code under test allocates and fails what the test wants to fail.
struct allocator_t {
  bool counting;
  int calls;    // since counting began
  int fail_at;  // number of the call that fails, from 1; 0 for none
  std::set<void *> blocks;
  void (*on_free)(void *block);

  int live() const { return static_cast<int>(blocks.size()); }
} allocator;

void *allocate(const auto &get) {
  if (!allocator.counting) return get();
  if (++allocator.calls == allocator.fail_at) return nullptr;
  return *allocator.blocks.insert(get()).first;
}

}  // namespace

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void __real_free(void *block);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t count, size_t size);
void __wrap_free(void *block);

void *__wrap_malloc(size_t size) {
  return allocate([=] { return __real_malloc(size); });
}
void *__wrap_calloc(size_t count, size_t size) {
  return allocate([=] { return __real_calloc(count, size); });
}
void __wrap_free(void *block) {
  if (allocator.counting && allocator.blocks.erase(block) != 0 && allocator.on_free != nullptr)
    allocator.on_free(block);
  __real_free(block);
}
}

namespace {

std::vector<uint32_t> fired;
std::map<uint32_t, std::function<void()>> on_fire;  // by callback parameter

void callback(uint32_t param) {
  fired.push_back(param);
  const auto action = on_fire.find(param);
  if (action != on_fire.end()) action->second();
}

// The module as it is at the start of a process, and an allocator that begins to count. Blocks that are not released
// at the end of a test fail it, but for the wheel and the entries still in it.
class timer_test : public testing::Test {
 protected:
  void SetUp() override {
    timer_tbl = nullptr;
    timer_tbl_size = system_time_period = chk_system_time = wrap_flag = last_elapsed_ticks = 0;
    current_time = start_cycles = 0;
    cpu_khz = 1000000;
    fired.clear();
    on_fire.clear();
    allocator = {.counting = true, .calls = 0, .fail_at = 0, .blocks = {}, .on_free = nullptr};
  }

  void TearDown() override {
    allocator.fail_at = 0;
    drop_wheel();
    EXPECT_EQ(allocator.live(), 0) << "not released";
    allocator.counting = false;
  }

  void init(uint32_t size, uint32_t period = 0) {
    drop_wheel();
    ASSERT_EQ(timer_module_init(size, period), 1U);
  }

  static void drop_wheel() {
    queue_t *const wheel = timer_get_timer_tbl();
    for (uint32_t i = 0; wheel != nullptr && i < timer_tbl_size; i++) {
      while (void *const entry = dequeue_head(&wheel[i]))
        __wrap_free(entry);
    }
    __wrap_free(wheel);
    timer_set_timer_tbl(nullptr);
  }

  static diag_timer_t *make(uint32_t period, uint32_t type, uint32_t param) {
    diag_timer_t *const timer = timer_new(period, type, callback, param);
    EXPECT_NE(timer, nullptr);
    return timer;
  }

  static diag_timer_t *start(uint32_t period, uint32_t type, uint32_t param) {
    diag_timer_t *const timer = make(period, type, param);
    EXPECT_EQ(timer_start(timer), 1U);
    return timer;
  }

  static void tick(uint64_t count = 1) {
    while (count-- > 0)
      timer_one_tick_elapsed();
  }

  // The wheel as "bucket:[tick: params]...", empty buckets left out; "'" marks the other epoch.
  static std::string draw() {
    std::string drawn;
    for (uint32_t i = 0; i < timer_tbl_size; i++) {
      const queue_t &bucket = timer_tbl[i];
      if (bucket.head == nullptr) continue;
      drawn += (drawn.empty() ? "" : " ") + std::to_string(i) + ":";
      int32_t entries = 0;
      const auto *entry = static_cast<const timer_exp_entry_t *>(peek_head(&bucket));
      for (; entry != nullptr; entry = entry->next, entries++) {
        EXPECT_EQ(timer_get_hash_idx(static_cast<uint32_t>(entry->exp_time)), i);
        drawn += "[" + std::to_string(entry->exp_time) + (entry->wrap_flag != wrap_flag ? "':" : ":");
        const auto *timer = static_cast<const diag_timer_t *>(peek_head(&entry->timers));
        int32_t timers = 0;
        for (; timer != nullptr; timer = timer->next, timers++) {
          EXPECT_EQ(timer->exp_entry, entry);
          EXPECT_EQ(timer->state, TIMER_ACTIVE);
          drawn += " " + std::to_string(timer->callback_param);
        }
        EXPECT_EQ(entry->timers.count, timers);
        drawn += "]";
      }
      EXPECT_EQ(bucket.count, entries);
    }
    return drawn;
  }

  // Sets the clock of polled mode: `msec` since initialisation. One millisecond takes seconds meanwhile.
  static void set_clock(uint64_t msec, uint32_t khz = UINT32_MAX) {
    cpu_khz = khz;
    start_cycles = timer_get_cycles() - msec * cpu_khz;
  }
};

#define EXPECT_IDLE(timer)                     \
  do {                                         \
    EXPECT_EQ((timer)->state, TIMER_INACTIVE); \
    EXPECT_EQ((timer)->exp_entry, nullptr);    \
  } while (0)

TEST_F(timer_test, the_wheel_is_the_largest_power_of_two_not_above_the_hint) {
  for (const auto &[hint, size] : std::map<uint32_t, uint32_t>{
           {0, 1}, {1, 1}, {2, 2}, {3, 2}, {4, 4}, {1000, 512}, {1023, 512}, {1024, 1024}, {65535, 32768}}) {
    SCOPED_TRACE(hint);
    init(hint);
    EXPECT_EQ(timer_tbl_size, size);
    EXPECT_EQ(timer_get_hash_idx(UINT32_MAX), size - 1);
    EXPECT_EQ(timer_get_hash_idx(size), 0U);
    EXPECT_EQ(draw(), "");
  }
  EXPECT_EQ(log_base2(0), 0U);
  EXPECT_EQ(log_base2(1), 0U);
  EXPECT_EQ(log_base2(4095), 11U);
  EXPECT_EQ(log_base2(4096), 12U);
  EXPECT_EQ(log_base2(UINT32_MAX), 31U);
  EXPECT_EQ(power(2, 0), 1U);
  EXPECT_EQ(power(0, 0), 1U);
  EXPECT_EQ(power(2, 31), 0x80000000U);
  EXPECT_EQ(power(2, 32), 0U);
  EXPECT_EQ(power(3, 21), 1870418611U);
}

TEST_F(timer_test, initialisation_sets_the_mode_and_leaves_time_alone) {
  init(4, 25);
  EXPECT_EQ(chk_system_time, 1U);
  EXPECT_EQ(system_time_period, 25U);
  EXPECT_LE(timer_get_cycles() - start_cycles, uint64_t{1} << 32);
  current_time = 5;
  wrap_flag = 1;
  last_elapsed_ticks = 7;
  const uint64_t cycles = start_cycles;
  init(4);
  EXPECT_EQ(chk_system_time, 0U);
  EXPECT_EQ(system_time_period, 25U);
  EXPECT_EQ(start_cycles, cycles);
  EXPECT_EQ(current_time, 5U);
  EXPECT_EQ(wrap_flag, 1U);
  EXPECT_EQ(last_elapsed_ticks, 7U);
}

TEST_F(timer_test, bad_arguments_make_no_timer_and_allocate_nothing) {
  EXPECT_EQ(timer_new(0, TIMER_ONE_SHOT, callback, 1), nullptr);
  EXPECT_EQ(timer_new(1, 3, callback, 1), nullptr);
  EXPECT_EQ(timer_new(1, TIMER_ONE_SHOT, nullptr, 1), nullptr);
  EXPECT_EQ(allocator.live(), 0);
  EXPECT_EQ(timer_start(nullptr), 0U);
  EXPECT_EQ(timer_stop(nullptr), 0U);
  EXPECT_EQ(timer_restart(nullptr, 0), 0U);
  EXPECT_EQ(timer_update_period(nullptr, 1), 0U);
  EXPECT_EQ(timer_free(nullptr), 0U);
  EXPECT_EQ(timer_is_active(nullptr), 0U);
  EXPECT_EQ(timer_update_callback_func(nullptr, callback, 1), 0U);
  EXPECT_EQ(timer_get_callback_param(nullptr), 0U);
}

TEST_F(timer_test, a_new_timer_is_inactive_and_takes_another_callback) {
  diag_timer_t *const timer = make(UINT32_MAX, TIMER_ONE_SHOT_FREE, UINT32_MAX);
  EXPECT_EQ(timer->next, nullptr);
  EXPECT_IDLE(timer);
  EXPECT_EQ(timer->period, UINT32_MAX);
  EXPECT_EQ(timer->type, TIMER_ONE_SHOT_FREE);
  EXPECT_EQ(timer->callback_func, callback);
  EXPECT_EQ(timer_get_callback_param(timer), UINT32_MAX);
  EXPECT_EQ(timer_is_active(timer), 0U);
  EXPECT_EQ(timer_update_callback_func(timer, nullptr, 1), 0U);
  EXPECT_EQ(timer_get_callback_param(timer), UINT32_MAX);
  const auto other = [](uint32_t) {};
  EXPECT_EQ(timer_update_callback_func(timer, other, 2), 1U);
  EXPECT_EQ(timer->callback_func, +other);
  EXPECT_EQ(timer_get_callback_param(timer), 2U);
  EXPECT_EQ(timer_free(timer), 1U);
}

TEST_F(timer_test, buckets_are_sorted_and_entries_are_in_start_order) {
  init(8);
  std::vector<diag_timer_t *> timers;
  for (uint32_t period : {11U, 3U, 19U, 11U, 27U, 3U, 4U, 19U, UINT32_MAX}) {
    timers.push_back(start(period, TIMER_ONE_SHOT, static_cast<uint32_t>(timers.size())));
  }
  EXPECT_EQ(draw(), "3:[3: 1 5][11: 0 3][19: 2 7][27: 4] 4:[4: 6] 7:[4294967295: 8]");
  tick(2);
  EXPECT_THAT(fired, testing::IsEmpty());
  tick();
  EXPECT_THAT(fired, testing::ElementsAre(1, 5));
  EXPECT_EQ(draw(), "3:[11: 0 3][19: 2 7][27: 4] 4:[4: 6] 7:[4294967295: 8]");
  EXPECT_EQ(timer_start(timers[5]), 1U);  // from now
  EXPECT_EQ(timer_start(timers[0]), 1U);  // again, from now
  EXPECT_EQ(timer_restart(timers[2], 8), 1U);
  EXPECT_EQ(timer_update_period(timers[6], 16), 1U);
  EXPECT_EQ(draw(), "3:[11: 3 2][19: 7 6][27: 4] 4:[4:] 6:[6: 5][14: 0] 7:[4294967295: 8]");
  tick(24);
  EXPECT_THAT(fired, testing::ElementsAre(1, 5, 5, 3, 2, 0, 7, 6, 4));
  EXPECT_EQ(draw(), "7:[4294967295: 8]");
  for (auto *timer : timers) {
    EXPECT_EQ(timer_is_active(timer), timer == timers[8] ? 1U : 0U);
    EXPECT_EQ(timer->exp_entry == nullptr, timer != timers[8]);
    EXPECT_EQ(timer_free(timer), 1U);
  }
  EXPECT_EQ(draw(), "7:[4294967295:]");
}

TEST_F(timer_test, a_stopped_timers_entry_stays_until_its_tick) {
  init(4);
  diag_timer_t *const a = start(6, TIMER_ONE_SHOT, 0);
  diag_timer_t *const b = start(6, TIMER_ONE_SHOT, 1);
  diag_timer_t *const c = start(6, TIMER_ONE_SHOT, 2);
  EXPECT_EQ(timer_stop(b), 1U);
  EXPECT_IDLE(b);
  EXPECT_EQ(timer_stop(b), 1U);
  EXPECT_EQ(draw(), "2:[6: 0 2]");
  EXPECT_EQ(timer_stop(c), 1U);
  EXPECT_EQ(draw(), "2:[6: 0]");
  EXPECT_EQ(timer_stop(a), 1U);
  const int live = allocator.live();
  tick(5);
  EXPECT_EQ(draw(), "2:[6:]");
  tick();
  EXPECT_EQ(draw(), "");
  EXPECT_EQ(allocator.live(), live - 1);
  EXPECT_THAT(fired, testing::IsEmpty());
  for (auto *timer : {a, b, c})
    (void)timer_free(timer);
}

TEST_F(timer_test, an_inactive_timer_only_stores_a_period) {
  init(4);
  diag_timer_t *const timer = make(1, TIMER_ONE_SHOT, 0);
  EXPECT_EQ(timer_update_period(timer, 0), 1U);
  EXPECT_EQ(timer->period, 0U);
  EXPECT_EQ(timer_update_period(timer, 2), 1U);
  EXPECT_EQ(draw(), "");
  EXPECT_EQ(timer_restart(timer, 3), 1U);
  EXPECT_EQ(draw(), "3:[3: 0]");
  (void)timer_free(timer);
}

TEST_F(timer_test, a_periodic_timer_of_one_tick_fires_on_every_tick) {
  for (uint32_t size : {1U, 2U, 8U}) {
    init(size);
    fired.clear();
    diag_timer_t *const timer = start(1, TIMER_PERIODIC, 6);
    tick(20);
    EXPECT_EQ(fired, std::vector<uint32_t>(20, 6));
    (void)timer_free(timer);
    tick();
  }
}

// What a timer finds when its callback runs, by kind.
TEST_F(timer_test, one_shots_are_done_and_periodic_timers_armed_before_their_callbacks) {
  init(4);
  diag_timer_t *const once = start(1, TIMER_ONE_SHOT, 0);
  diag_timer_t *const ever = start(1, TIMER_PERIODIC, 1);
  (void)start(1, TIMER_ONE_SHOT_FREE, 2);
  const int live = allocator.live();
  on_fire[0] = [&] {
    EXPECT_IDLE(once);
    EXPECT_EQ(timer_start(once), 1U);
    EXPECT_EQ(draw(), "1:[1: 1 2] 2:[2: 0]");  // the due entry is still there
  };
  on_fire[1] = [&] {
    EXPECT_EQ(timer_is_active(ever), 1U);
    EXPECT_EQ(draw(), "1:[1: 2] 2:[2: 0 1]");
  };
  on_fire[2] = [&] {
    EXPECT_EQ(draw(), "1:[1:] 2:[2: 0 1]");
    EXPECT_EQ(allocator.live(), live);  // one entry more, one timer less
  };
  tick();
  EXPECT_THAT(fired, testing::ElementsAre(0, 1, 2));
  EXPECT_EQ(draw(), "2:[2: 0 1]");
  (void)timer_free(once);
  (void)timer_free(ever);
}

TEST_F(timer_test, callbacks_stop_restart_and_free_timers_of_the_same_tick) {
  init(4);
  diag_timer_t *timers[6];
  for (uint32_t i = 0; i < 6; i++)
    timers[i] = start(2, i == 5 ? TIMER_PERIODIC : TIMER_ONE_SHOT, i);
  on_fire[0] = [&] {
    EXPECT_EQ(timer_stop(timers[1]), 1U);
    EXPECT_IDLE(timers[1]);
    EXPECT_EQ(timer_free(timers[2]), 1U);
    EXPECT_EQ(timer_restart(timers[3], 4), 1U);  // to the due entry's bucket
    EXPECT_EQ(draw(), "2:[2: 4 5][6: 3]");
    EXPECT_EQ(timer_free(timers[0]), 1U);  // itself
  };
  on_fire[5] = [&] { EXPECT_EQ(timer_free(timers[5]), 1U); };  // itself, though armed again
  tick(2);
  EXPECT_THAT(fired, testing::ElementsAre(0, 4, 5));
  EXPECT_EQ(draw(), "0:[4:] 2:[6: 3]");
  for (uint32_t i : {1U, 3U, 4U})
    (void)timer_free(timers[i]);
}

TEST_F(timer_test, a_timer_that_is_not_active_is_dropped_without_its_callback) {
  init(4);
  diag_timer_t *const timer = start(2, TIMER_ONE_SHOT, 0);
  timer->state = TIMER_INACTIVE;
  tick(2);
  EXPECT_THAT(fired, testing::IsEmpty());
  EXPECT_IDLE(timer);
  (void)timer_free(timer);
}

TEST_F(timer_test, a_timer_missing_from_its_entry_keeps_the_entry) {
  init(4);
  diag_timer_t *const timer = start(2, TIMER_ONE_SHOT, 0);
  timer_exp_entry_t *const entry = timer->exp_entry;
  (void)dequeue_head(&entry->timers);
  EXPECT_EQ(timer_stop(timer), 1U);
  EXPECT_EQ(timer->state, TIMER_INACTIVE);
  EXPECT_EQ(timer->exp_entry, entry);
  (void)timer_free(timer);
}

uint32_t freed_state;

TEST_F(timer_test, a_freed_timer_is_marked_deleted) {
  init(4);
  diag_timer_t *const timer = start(2, TIMER_ONE_SHOT, 0);
  freed_state = 99;
  allocator.on_free = [](void *block) { freed_state = static_cast<diag_timer_t *>(block)->state; };
  EXPECT_EQ(timer_free(timer), 1U);
  allocator.on_free = nullptr;
  EXPECT_EQ(freed_state, TIMER_DELETED);
  EXPECT_EQ(draw(), "2:[2:]");
}

TEST_F(timer_test, a_failed_allocation_leaves_the_timer_on_no_list) {
  const auto fail_next = [] { allocator.fail_at = allocator.calls + 1; };
  fail_next();
  EXPECT_EQ(timer_module_init(8, 0), 0U);
  EXPECT_EQ(timer_tbl, nullptr);
  EXPECT_EQ(timer_tbl_size, 8U);
  init(4);
  fail_next();
  EXPECT_EQ(timer_new(1, TIMER_ONE_SHOT, callback, 0), nullptr);

  diag_timer_t *const timer = make(3, TIMER_ONE_SHOT, 0);
  struct operation_t {
    const char *name;
    bool active;  // before
    std::function<uint32_t()> run;
  };
  const operation_t operations[] = {
      {"start", false, [&] { return timer_start(timer); }},
      {"start an active one", true, [&] { return timer_start(timer); }},
      {"restart", false, [&] { return timer_restart(timer, 5); }},
      {"restart an active one", true, [&] { return timer_restart(timer, 5); }},
      {"another period", true, [&] { return timer_update_period(timer, 6); }},
  };
  for (const auto &c : operations) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.active ? timer_start(timer) : timer_stop(timer), 1U);
    tick();  // so that the operation needs a new entry
    fail_next();
    EXPECT_EQ(c.run(), 0U);
    EXPECT_IDLE(timer);
    EXPECT_EQ(timer_is_active(timer), 0U);
    EXPECT_EQ(timer_start(timer), 1U);
    EXPECT_EQ(timer_is_active(timer), 1U);
    EXPECT_EQ(timer_stop(timer), 1U);
    tick(10);
    EXPECT_EQ(draw(), "");
  }
  (void)timer_free(timer);
}

TEST_F(timer_test, a_periodic_timer_that_cannot_be_armed_says_so_and_is_inactive_in_its_callback) {
  init(4);
  diag_timer_t *const timer = start(2, TIMER_PERIODIC, 0);
  tick();
  on_fire[0] = [&] { EXPECT_IDLE(timer); };
  allocator.fail_at = allocator.calls + 1;
  testing::internal::CaptureStdout();
  tick();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "timer insertion failed\n");
  EXPECT_THAT(fired, testing::ElementsAre(0));
  EXPECT_EQ(timer_stop(timer), 1U);
  EXPECT_IDLE(timer);
  EXPECT_EQ(draw(), "");
  on_fire.clear();
  EXPECT_EQ(timer_start(timer), 1U);
  tick(2);
  EXPECT_THAT(fired, testing::ElementsAre(0, 0));
  (void)timer_free(timer);
}

TEST_F(timer_test, the_table_can_be_replaced) {
  init(2);
  diag_timer_t *const a = start(1, TIMER_ONE_SHOT, 0);
  queue_t *const former = timer_get_timer_tbl();
  queue_t other[2]{};
  timer_set_timer_tbl(other);
  diag_timer_t *const b = start(1, TIMER_ONE_SHOT, 1);
  EXPECT_EQ(draw(), "1:[1: 1]");
  EXPECT_EQ(timer_stop(a), 1U);
  tick();
  EXPECT_THAT(fired, testing::ElementsAre(1));
  timer_set_timer_tbl(former);
  EXPECT_EQ(draw(), "1:[1:]");
  for (auto *timer : {a, b})
    (void)timer_free(timer);
}

// Ticks count in 64 bits; beyond them begins the other epoch.
TEST_F(timer_test, expiries_past_the_end_of_time_belong_to_the_other_epoch) {
  init(8);
  current_time = UINT64_MAX - 3;
  uint64_t exp = 0;
  EXPECT_EQ(timer_calc_exp_time(3, &exp), 0U);
  EXPECT_EQ(exp, UINT64_MAX);
  EXPECT_EQ(timer_calc_exp_time(4, &exp), 1U);
  EXPECT_EQ(exp, 0U);
  diag_timer_t *const a = start(3, TIMER_ONE_SHOT, 0);
  diag_timer_t *const b = start(4, TIMER_ONE_SHOT, 1);
  diag_timer_t *const c = start(6, TIMER_PERIODIC, 2);
  diag_timer_t *const d = start(14, TIMER_ONE_SHOT, 3);
  EXPECT_EQ(draw(), "0:[0': 1] 2:[2': 2][10': 3] 7:[18446744073709551615: 0]");
  tick(4);
  EXPECT_EQ(current_time, 0U);
  EXPECT_EQ(wrap_flag, 1U);
  EXPECT_THAT(fired, testing::ElementsAre(0, 1));
  EXPECT_EQ(draw(), "2:[2: 2][10: 3]");
  tick(10);
  EXPECT_THAT(fired, testing::ElementsAre(0, 1, 2, 2, 3));  // at 2, 8 and 10
  current_time = UINT64_MAX;
  (void)timer_stop(c);
  tick();
  EXPECT_EQ(wrap_flag, 0U);
  for (auto *timer : {a, b, c, d})
    (void)timer_free(timer);
}

// An entry goes before the first one of the other epoch, and before later ticks of its own.
TEST_F(timer_test, epochs_that_meet_in_a_bucket_are_placed_by_flag_first) {
  init(4);
  current_time = UINT64_MAX - 7;
  diag_timer_t *timers[6];
  timers[0] = start(6, TIMER_ONE_SHOT, 0);
  EXPECT_EQ(draw(), "2:[18446744073709551614: 0]");
  timers[1] = start(14, TIMER_ONE_SHOT, 1);
  EXPECT_EQ(draw(), "2:[6': 1][18446744073709551614: 0]");
  timers[2] = start(18, TIMER_ONE_SHOT, 2);  // 10: past 6, before the other epoch
  EXPECT_EQ(draw(), "2:[6': 1][10': 2][18446744073709551614: 0]");
  timers[3] = start(2, TIMER_ONE_SHOT, 3);
  EXPECT_EQ(draw(), "2:[18446744073709551610: 3][6': 1][10': 2][18446744073709551614: 0]");
  timers[4] = start(6, TIMER_ONE_SHOT, 4);  // does not find its tick's entry behind the other epoch
  EXPECT_EQ(draw(), "2:[18446744073709551610: 3][18446744073709551614: 4][6': 1][10': 2][18446744073709551614: 0]");
  timers[5] = start(10, TIMER_ONE_SHOT, 5);
  EXPECT_EQ(draw(),
            "2:[2': 5][18446744073709551610: 3][18446744073709551614: 4][6': 1][10': 2][18446744073709551614: 0]");
  tick(2);  // only the first entry is looked at
  EXPECT_THAT(fired, testing::IsEmpty());
  for (auto *timer : timers)
    (void)timer_free(timer);
}

TEST_F(timer_test, a_callback_may_put_the_next_epoch_before_the_due_entry) {
  init(4);
  current_time = UINT64_MAX - 2;
  diag_timer_t *const a = start(1, TIMER_ONE_SHOT, 0);
  diag_timer_t *const b = start(1, TIMER_ONE_SHOT, 1);
  diag_timer_t *const c = make(4, TIMER_ONE_SHOT, 2);
  diag_timer_t *const d = make(8, TIMER_ONE_SHOT, 3);
  on_fire[0] = [&] {
    EXPECT_EQ(timer_start(d), 1U);
    EXPECT_EQ(timer_start(c), 1U);
    EXPECT_EQ(draw(), "2:[2': 2][6': 3][18446744073709551614: 1]");
  };
  tick();
  EXPECT_THAT(fired, testing::ElementsAre(0, 1));
  EXPECT_EQ(draw(), "2:[2': 2][6': 3]");
  tick(8);
  EXPECT_THAT(fired, testing::ElementsAre(0, 1, 2, 3));
  for (auto *timer : {a, b, c, d})
    (void)timer_free(timer);
}

TEST_F(timer_test, polling_catches_up_with_the_clock) {
  init(8, 10);
  set_clock(0);
  diag_timer_t *const once = start(2, TIMER_ONE_SHOT, 0);
  diag_timer_t *const ever = start(1, TIMER_PERIODIC, 1);
  EXPECT_EQ(timer_some_time_elapsed(), 0U);
  set_clock(9);
  EXPECT_EQ(timer_some_time_elapsed(), 0U);
  set_clock(35);
  EXPECT_EQ(timer_some_time_elapsed(), 3U);
  EXPECT_EQ(current_time, 3U);
  EXPECT_EQ(last_elapsed_ticks, 3U);
  EXPECT_THAT(fired, testing::ElementsAre(1, 0));  // armed again from the clock, once
  EXPECT_EQ(draw(), "4:[4: 1]");
  EXPECT_EQ(timer_some_time_elapsed(), 0U);
  EXPECT_EQ(timer_restart(once, 3), 1U);
  set_clock(45);  // from the clock, not from the last poll
  diag_timer_t *const late = start(3, TIMER_ONE_SHOT, 2);
  EXPECT_EQ(draw(), "4:[4: 1] 6:[6: 0] 7:[7: 2]");
  set_clock(69);
  EXPECT_EQ(timer_some_time_elapsed(), 3U);
  EXPECT_THAT(fired, testing::ElementsAre(1, 0, 1, 0));
  set_clock(70);
  EXPECT_EQ(timer_some_time_elapsed(), 1U);
  EXPECT_THAT(fired, testing::ElementsAre(1, 0, 1, 0, 2, 1));
  for (auto *timer : {once, ever, late})
    (void)timer_free(timer);
}

TEST_F(timer_test, elapsed_ticks_are_compared_in_32_bits) {
  init(1, 1);
  last_elapsed_ticks = UINT32_MAX - 1;
  set_clock((uint64_t{1} << 32) + 1, 1000000000);
  EXPECT_EQ(timer_some_time_elapsed(), 3U);
  EXPECT_EQ(last_elapsed_ticks, 1U);
  EXPECT_EQ(current_time, 3U);
}

TEST_F(timer_test, a_poll_inside_a_callback_does_not_repeat_ticks) {
  init(8, 10);
  set_clock(0);
  diag_timer_t *const timer = start(1, TIMER_ONE_SHOT, 0);
  uint32_t inner = 99;
  on_fire[0] = [&] { inner = timer_some_time_elapsed(); };
  set_clock(20);
  EXPECT_EQ(timer_some_time_elapsed(), 2U);
  EXPECT_EQ(inner, 0U);
  EXPECT_EQ(current_time, 2U);
  (void)timer_free(timer);
}

TEST_F(timer_test, a_callback_can_join_the_due_entry_when_time_processed_is_ahead_of_the_clock) {
  init(4, 10);
  set_clock(0);
  current_time = 0;
  diag_timer_t *const a = start(2, TIMER_ONE_SHOT, 0);
  diag_timer_t *const b = make(2, TIMER_ONE_SHOT, 1);
  on_fire[0] = [&] { EXPECT_EQ(timer_start(b), 1U); };
  tick(2);
  EXPECT_THAT(fired, testing::ElementsAre(0, 1));
  EXPECT_EQ(draw(), "");
  for (auto *timer : {a, b})
    (void)timer_free(timer);
}

TEST_F(timer_test, tick_mode_after_polled_mode_still_counts_from_the_clock) {
  init(8, 10);
  set_clock(30);
  EXPECT_EQ(timer_some_time_elapsed(), 3U);
  init(8);
  set_clock(50);
  diag_timer_t *const timer = start(1, TIMER_ONE_SHOT, 0);
  EXPECT_EQ(draw(), "6:[6: 0]");
  tick(2);
  EXPECT_THAT(fired, testing::IsEmpty());
  tick();
  EXPECT_THAT(fired, testing::ElementsAre(0));
  (void)timer_free(timer);
}

TEST_F(timer_test, without_a_clock_rate_time_stands_at_its_end) {
  init(4, 10);
  cpu_khz = 0;
  uint64_t exp = 0;
  EXPECT_EQ(timer_calc_exp_time(1, &exp), 0U);
  EXPECT_EQ(exp, UINT64_MAX / 10 + 1);
}

// Programming errors end the process, with the standard line.
TEST_F(timer_test, misuse_names_the_operation_and_the_condition) {
  init(4);
  diag_timer_t *const timer = make(1, TIMER_ONE_SHOT, 0);
  uint64_t exp = 0;
  const auto deleted = [timer](auto operation) {
    return [timer, operation] {
      timer->state = TIMER_DELETED;
      operation();
    };
  };
  struct death_t {
    const char *function;
    const char *condition;
    std::function<void()> misuse;
  };
  const char gone[] = "timer->state != TIMER_DELETED";
  // clang-format off
  const death_t deaths[] = {
      {"timer_start",             gone,                       deleted([&] { (void)timer_start(timer); })},
      {"timer_stop",              gone,                       deleted([&] { (void)timer_stop(timer); })},
      {"timer_restart",           gone,                       deleted([&] { (void)timer_restart(timer, 1); })},
      {"timer_restart",           "period",                   deleted([&] { (void)timer_restart(timer, 0); })},
      {"timer_update_period",     gone,                       deleted([&] { (void)timer_update_period(timer, 1); })},
      {"timer_stop",              gone,                       deleted([&] { (void)timer_free(timer); })},
      {"timer_restart",           "period",                   [&] { (void)timer_restart(timer, 0); }},
      {"timer_calc_exp_time",     "period != 0",              [&] { (void)timer_calc_exp_time(0, &exp); }},
      {"timer_calc_exp_time",     "period != 0",
       [&] { (void)timer_update_period(timer, 0); (void)timer_start(timer); }},
      {"timer_calc_exp_time",     "period != 0",
       [&] { (void)timer_start(timer); (void)timer_update_period(timer, 0); }},
      {"timer_some_time_elapsed", "chk_system_time == 1",     [&] { (void)timer_some_time_elapsed(); }},
      {"timer_some_time_elapsed", "system_time_period != 0",
       [&] { chk_system_time = 1; (void)timer_some_time_elapsed(); }},
      {"timer_one_tick_elapsed",  "time_diff != GTIME_IS_LATER_IN_TIME",
       [&] { (void)timer_start(timer); current_time = 4; tick(); }},
      {"timer_invoke_callback",   "0",
       [&] { (void)timer_start(timer); timer->type = 3; tick(); }},
  };
  // clang-format on
  for (const auto &c : deaths) {
    SCOPED_TRACE(testing::Message() << c.function << " " << c.condition);
    EXPECT_EXIT(c.misuse(), testing::KilledBySignal(SIGABRT),
                std::string{"^test_timer: platform/mfgd/cmn_lib/diag_util/timer\\.cpp:[0-9]+: "} + c.function +
                    ": Assertion `" + c.condition + "' failed\\.\n$");
  }
  (void)timer_free(timer);
}

// One random program runs twice, on the service and on a plain model of it; both must leave the same log.
constexpr uint32_t slots = 12;

struct setting_t {
  const char *name;
  uint32_t size;        // of the wheel
  uint32_t max_period;  // ticks
  uint64_t base;        // tick at the start
  bool polled;
};

// What the service promises, without a wheel: ticks count from the start of the run and are searched one by one.
class model_t {
 public:
  explicit model_t(const setting_t &setting) : m_polled(setting.polled) {}

  std::function<void(uint32_t slot)> on_fire;
  int unarmed = 0;  // lines "timer insertion failed"

  // Makes the n-th allocation from now fail; 0 for none.
  void arm(int allocation) { m_fail_at = allocation; }
  bool exists(uint32_t slot) const { return m_timers[slot].exists; }

  uint32_t make(uint32_t slot, uint32_t period, uint32_t type) {
    if (!allocate()) return 0;
    m_timers[slot] = {.exists = true, .active = false, .period = period, .type = type, .expiry = 0, .order = 0};
    return 1;
  }

  uint32_t start(uint32_t slot) {
    model_timer_t &timer = m_timers[slot];
    timer.active = false;
    const uint64_t expiry = (m_polled ? m_clock : m_tick) + timer.period;
    if (!m_entries.contains(expiry) && !allocate()) return 0;
    m_entries.insert(expiry);
    timer.expiry = expiry;
    timer.order = ++m_starts;
    timer.active = true;
    return 1;
  }

  uint32_t stop(uint32_t slot) {
    m_timers[slot].active = false;
    return 1;
  }

  uint32_t restart(uint32_t slot, uint32_t period) {
    m_timers[slot].period = period;
    return start(slot);
  }

  uint32_t update_period(uint32_t slot, uint32_t period) {
    m_timers[slot].period = period;
    return m_timers[slot].active ? start(slot) : 1;
  }

  uint32_t free(uint32_t slot) {
    m_timers[slot] = {};
    return 1;
  }

  void advance_clock(uint32_t ticks) { m_clock += ticks; }

  uint32_t poll() {
    const auto ticks = static_cast<uint32_t>(m_clock - m_tick);
    while (m_tick < m_clock)
      one_tick();
    return ticks;
  }

  void one_tick() {
    m_tick++;
    while (model_timer_t *const timer = first_due()) {
      timer->active = false;
      const auto slot = static_cast<uint32_t>(timer - m_timers);
      if (timer->type == TIMER_ONE_SHOT_FREE) timer->exists = false;
      if (timer->type == TIMER_PERIODIC && start(slot) == 0) unarmed++;
      on_fire(slot);
    }
    m_entries.erase(m_tick);
  }

  // Active, period and ticks to go.
  std::vector<uint64_t> state(uint32_t slot) const {
    const model_timer_t &timer = m_timers[slot];
    if (!timer.exists) return {};
    if (!timer.active) return {0, timer.period};
    return {1, timer.period, timer.expiry - m_tick};
  }

  int blocks() const {
    return static_cast<int>(m_entries.size()) +
           static_cast<int>(std::ranges::count_if(m_timers, [](const model_timer_t &t) { return t.exists; }));
  }

 private:
  struct model_timer_t {
    bool exists, active;
    uint32_t period, type;
    uint64_t expiry, order;
  };

  model_timer_t *first_due() {
    model_timer_t *first = nullptr;
    for (auto &timer : m_timers) {
      if (!timer.exists || !timer.active || timer.expiry != m_tick) continue;
      if (first == nullptr || timer.order < first->order) first = &timer;
    }
    return first;
  }

  bool allocate() { return m_fail_at == 0 || --m_fail_at != 0; }

  const bool m_polled;
  int m_fail_at = 0;
  uint64_t m_tick = 0;
  uint64_t m_clock = 0;
  uint64_t m_starts = 0;
  model_timer_t m_timers[slots]{};
  std::set<uint64_t> m_entries;  // ticks for which something was started
};

// The service itself behind the same operations.
class service_t {
 public:
  explicit service_t(const setting_t &setting) : m_polled(setting.polled), m_clock(setting.base) {
    self = this;
    current_time = setting.base;
    last_elapsed_ticks = static_cast<uint32_t>(setting.base);
    EXPECT_EQ(timer_module_init(setting.size, setting.polled ? 10 : 0), 1U);
    advance_clock(0);
  }

  std::function<void(uint32_t slot)> on_fire;

  void arm(int allocation) { allocator.fail_at = allocation != 0 ? allocator.calls + allocation : 0; }
  bool exists(uint32_t slot) const { return m_timers[slot] != nullptr; }

  uint32_t make(uint32_t slot, uint32_t period, uint32_t type) {
    m_types[slot] = type;
    m_timers[slot] = timer_new(period, type, expired, slot);
    return m_timers[slot] != nullptr ? 1 : 0;
  }

  uint32_t start(uint32_t slot) { return timer_start(m_timers[slot]); }
  uint32_t stop(uint32_t slot) { return timer_stop(m_timers[slot]); }
  uint32_t restart(uint32_t slot, uint32_t period) { return timer_restart(m_timers[slot], period); }
  uint32_t update_period(uint32_t slot, uint32_t period) { return timer_update_period(m_timers[slot], period); }
  uint32_t free(uint32_t slot) { return timer_free(std::exchange(m_timers[slot], nullptr)); }

  // A tick of the clock takes ten seconds or so: only this call moves it.
  void advance_clock(uint32_t ticks) {
    if (!m_polled) return;
    m_clock += ticks;
    cpu_khz = UINT32_MAX;
    start_cycles = timer_get_cycles() - (m_clock * 10 + 5) * cpu_khz;
  }

  uint32_t poll() { return timer_some_time_elapsed(); }
  void one_tick() { timer_one_tick_elapsed(); }

  std::vector<uint64_t> state(uint32_t slot) const {
    const diag_timer_t *const timer = m_timers[slot];
    if (timer == nullptr) return {};
    EXPECT_EQ(timer->exp_entry != nullptr, timer->state == TIMER_ACTIVE);
    if (timer_is_active(timer) == 0) return {timer->state, timer->period};
    return {timer->state, timer->period, timer->exp_entry->exp_time - current_time};
  }

  int blocks() const { return allocator.live() - 1; }  // without the wheel

 private:
  static void expired(uint32_t slot) {
    if (self->m_types[slot] == TIMER_ONE_SHOT_FREE) self->m_timers[slot] = nullptr;
    self->on_fire(slot);
  }

  static inline service_t *self;
  const bool m_polled;
  uint64_t m_clock;
  uint32_t m_types[slots]{};
  diag_timer_t *m_timers[slots]{};
};

// What each step returned, fired and left behind.
using log_t = std::vector<std::vector<uint64_t>>;

template <typename subject_t>
log_t run_program(subject_t &subject, const setting_t &setting, uint32_t seed) {
  std::mt19937 random{seed};
  log_t log;
  const auto period = [&]() -> uint32_t {
    const uint32_t most = random() % 2 == 0 ? std::min(4U, setting.max_period) : setting.max_period;
    return 1 + static_cast<uint32_t>(random()) % most;
  };
  const auto operate = [&] {
    const auto slot = static_cast<uint32_t>(random()) % slots;
    const auto what = random() % 8;
    uint32_t result = 0;
    if (!subject.exists(slot)) {
      const uint32_t ticks = period();
      result = subject.make(slot, ticks, static_cast<uint32_t>(random()) % 3);
    } else if (what < 4) {
      result = subject.start(slot);
    } else if (what == 4) {
      result = subject.restart(slot, period());
    } else if (what == 5) {
      result = subject.update_period(slot, period());
    } else if (what == 6) {
      result = subject.stop(slot);
    } else {
      result = subject.free(slot);
    }
    log.back().push_back(result);
  };
  subject.on_fire = [&](uint32_t slot) {
    log.back().push_back(1000 + slot);
    for (auto operations = random() % 4; operations > 1; operations--)
      operate();
  };
  for (int step = 0; step < 1500; step++) {
    log.emplace_back();
    if (random() % 8 == 0) subject.arm(1 + static_cast<int>(random() % 3));
    if (random() % 3 != 0) {
      operate();
    } else {
      const auto ticks = static_cast<uint32_t>(random()) % (random() % 8 != 0 ? 4 : setting.max_period + 1);
      subject.advance_clock(ticks);
      if (!setting.polled) {
        for (uint32_t i = 0; i < ticks; i++)
          subject.one_tick();
      } else if (random() % 2 == 0) {
        log.back().push_back(subject.poll());
      }
    }
    subject.arm(0);
    log.back().push_back(static_cast<uint64_t>(subject.blocks()));
    for (uint32_t slot = 0; slot < slots; slot++) {
      const auto state = subject.state(slot);
      log.back().insert(log.back().end(), state.begin(), state.end());
      log.back().push_back(2000);
    }
  }
  for (uint32_t slot = 0; slot < slots; slot++) {
    if (subject.exists(slot)) subject.free(slot);
  }
  return log;
}

TEST_F(timer_test, agrees_with_a_plain_model_under_random_operations) {
  // clang-format off
  const setting_t settings[] = {
      // name                   size  max_period  base                 polled
      {"one bucket",            1,    12,         0,                   false},
      {"two buckets",           2,    9,          0,                   false},
      {"beyond the wheel",      8,    40,         0,                   false},
      {"mostly in the wheel",   64,   80,         0,                   false},
      {"large wheel",           4096, 9000,       0,                   false},
      {"past 32 bits of ticks", 8,    40,         UINT32_MAX - 300ULL, false},
      {"past the end of time",  64,   63,         UINT64_MAX - 500,    false},
      {"polled, one bucket",    1,    12,         0,                   true},
      {"polled",                16,   40,         0,                   true},
  };
  // clang-format on
  for (const auto &setting : settings) {
    for (uint32_t seed = 1; seed <= 20; seed++) {
      SCOPED_TRACE(testing::Message() << setting.name << ", seed " << seed);
      model_t model{setting};
      const log_t expected = run_program(model, setting, seed);
      TearDown();
      SetUp();
      testing::internal::CaptureStdout();
      service_t service{setting};
      const log_t actual = run_program(service, setting, seed);
      const std::string printed = testing::internal::GetCapturedStdout();
      for (size_t step = 0; step < expected.size(); step++)
        ASSERT_EQ(actual[step], expected[step]) << "step " << step;
      std::string unarmed;
      for (int i = 0; i < model.unarmed; i++)
        unarmed += "timer insertion failed\n";
      EXPECT_EQ(printed, unarmed);
      EXPECT_EQ(wrap_flag, setting.base > UINT64_MAX / 2 ? 1U : 0U);
    }
  }
}

}  // namespace
