// The timers are in a hashed wheel: a table of buckets, indexed by the expiry tick modulo the table's size. A bucket
// is a queue of expiry entries, in ascending order of their ticks; an entry is a queue of the timers of one tick, in
// start order. With 8 buckets, at tick 0:
//
//   started with periods 3, 11, 3, 4      bucket 3: [3: first, third] [11: second]     bucket 4: [4: fourth]
//   tick 3 looks at bucket 3              first and third expire; [11: second] is left
//   tick 4 looks at bucket 4              fourth expires
//   tick 11 looks at bucket 3 again       second expires
//
// What operations cost, with b buckets:
//
//   start    a walk of the bucket's entries up to the timer's tick: with n different ticks ahead, n/b of them on
//            average, and all n where every period is a multiple of b; an allocation where the tick is a new one
//   stop     a walk of the timers of the same tick, as links run one way; an entry that lost its last timer is left to
//            its tick, so that stopping touches no bucket and releases nothing
//   tick     a look at the first entry of one bucket; besides, the timers that are due
//   poll     as many ticks as have passed since the last one
//
// Ticks count in 64 bits and begin again at 0 in another epoch, of which a flag tells two. What expires beyond the wrap
// carries the other flag and goes before the entries of this epoch, as their ticks do not compare. A tick looks at
// first entries alone: what stands behind an entry of the other epoch is passed over.
#include "platform/mfgd/cmn_lib/diag_util/timer.h"

#include <stdio.h>
#include <stdlib.h>
#include <x86intrin.h>

#include <bit>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/cmn_lib/diag_util/spin.h"

extern "C" {

constinit uint32_t cpu_khz = 0;

void _init_libtimer() {
  ptu_parms_t ptu;
  get_ptu_parms(&ptu);
  cpu_khz = ptu.cpu_hz / 1000;
}

uint64_t timer_get_cycles() {
  return __rdtsc();
}

uint32_t timer_get_cpu_khz() {
  return cpu_khz;
}

uint64_t timer_diff_cycle_in_msec(uint64_t later, uint64_t earlier) {
  if (cpu_khz == 0) return UINT64_MAX;
  return (later - earlier) / cpu_khz;
}

uint64_t timer_diff_cycle_in_usec(uint64_t later, uint64_t earlier) {
  if (cpu_khz == 0) return UINT64_MAX;
  return (later - earlier) * 1000 / cpu_khz;
}

constinit queue_t *timer_tbl = nullptr;
constinit uint32_t timer_tbl_size = 0;
constinit uint32_t system_time_period = 0;
constinit uint32_t chk_system_time = 0;
constinit uint64_t current_time = 0;
constinit uint32_t wrap_flag = 0;
constinit uint32_t last_elapsed_ticks = 0;
constinit uint64_t start_cycles = 0;

}  // extern "C"

namespace {

enum gtime_order_t { GTIME_IS_EARLIER_IN_TIME, GTIME_IS_SAME_IN_TIME, GTIME_IS_LATER_IN_TIME };

gtime_order_t compare_gtime(uint64_t time, uint64_t other) {
  if (time == other) return GTIME_IS_SAME_IN_TIME;
  return time < other ? GTIME_IS_EARLIER_IN_TIME : GTIME_IS_LATER_IN_TIME;
}

uint64_t clock_ticks() {
  return timer_diff_cycle_in_msec(timer_get_cycles(), start_cycles) / system_time_period;
}

uint64_t now() {
  return system_time_period != 0 ? clock_ticks() : current_time;
}

queue_t *bucket_of(uint64_t time) {
  return &timer_tbl[timer_get_hash_idx(static_cast<uint32_t>(time))];
}

// Not by peek_head: its call would make an empty tick a third dearer.
void *first_of(const queue_t *queue) {
  return queue->head;
}

timer_exp_entry_t *first_entry(const queue_t *bucket) {
  return static_cast<timer_exp_entry_t *>(first_of(bucket));
}

diag_timer_t *first_timer(const queue_t *timers) {
  return static_cast<diag_timer_t *>(first_of(timers));
}

// The entry of a bucket for one tick and epoch, made where it is missing; null when no memory is left.
timer_exp_entry_t *get_entry(queue_t *bucket, uint64_t exp_time, uint32_t flag) {
  timer_exp_entry_t *prev = nullptr;
  for (timer_exp_entry_t *entry = first_entry(bucket); entry != nullptr; prev = entry, entry = entry->next) {
    if (entry->wrap_flag != flag || entry->exp_time > exp_time) break;
    if (entry->exp_time == exp_time) return entry;
  }
  auto *const added = static_cast<timer_exp_entry_t *>(calloc(1, sizeof(timer_exp_entry_t)));
  if (added == nullptr) return nullptr;
  added->exp_time = exp_time;
  added->wrap_flag = flag;
  enqueue_elem(bucket, prev, added);
  return added;
}

// False when no memory is left: the timer is on no list then.
[[nodiscard]] bool insert_timer(diag_timer_t *timer) {
  uint64_t exp_time;
  const uint32_t flag = wrap_flag ^ timer_calc_exp_time(timer->period, &exp_time);
  timer_exp_entry_t *const entry = get_entry(bucket_of(exp_time), exp_time, flag);
  if (entry == nullptr) return false;
  timer->exp_entry = entry;
  enqueue_tail(&entry->timers, timer);
  return true;
}

// Takes a due entry out of its bucket. It is the first one, unless a callback put an entry of the next epoch before it.
void remove_entry(queue_t *bucket, timer_exp_entry_t *entry) {
  if (first_entry(bucket) == entry) {
    (void)dequeue_head(bucket);
    return;
  }
  timer_exp_entry_t *prev = first_entry(bucket);
  while (prev->next != entry)
    prev = prev->next;
  dequeue_elem(bucket, prev, entry);
}

// Takes a timer off its entry's queue, whose links run one way only. One that is not there keeps its entry; one that
// is just expiring has none any more.
void take_off_entry(diag_timer_t *timer) {
  if (timer->exp_entry == nullptr) return;
  queue_t *const timers = &timer->exp_entry->timers;
  diag_timer_t *prev = nullptr;
  for (diag_timer_t *each = first_timer(timers); each != nullptr; prev = each, each = each->next) {
    if (each != timer) continue;
    dequeue_elem(timers, prev, timer);
    timer->exp_entry = nullptr;
    return;
  }
}

void rearm(diag_timer_t *timer) {
  if (insert_timer(timer)) return;
  timer->state = TIMER_INACTIVE;
  printf("timer insertion failed\n");
}

}  // namespace

extern "C" {

uint32_t timer_module_init(uint32_t size, uint32_t period) {
  if (period == 0) {
    chk_system_time = 0;
  } else {
    system_time_period = period;
    chk_system_time = 1;
    start_cycles = timer_get_cycles();
  }
  timer_tbl_size = power(2, log_base2(size));
  timer_tbl = static_cast<queue_t *>(calloc(timer_tbl_size, sizeof(queue_t)));
  return timer_tbl != nullptr ? 1 : 0;
}

diag_timer_t *timer_new(uint32_t period, uint32_t type, timer_callback_t callback_func, uint32_t callback_param) {
  if (period == 0 || type > TIMER_ONE_SHOT_FREE || callback_func == nullptr) return nullptr;
  auto *const timer = static_cast<diag_timer_t *>(calloc(1, sizeof(diag_timer_t)));
  if (timer == nullptr) return nullptr;
  timer->period = period;
  timer->type = type;
  timer->callback_func = callback_func;
  timer->callback_param = callback_param;
  return timer;
}

uint32_t timer_start(diag_timer_t *timer) {
  if (timer == nullptr) return 0;
  assert(timer->state != TIMER_DELETED);
  (void)timer_stop(timer);
  if (!insert_timer(timer)) return 0;
  timer->state = TIMER_ACTIVE;
  return 1;
}

uint32_t timer_stop(diag_timer_t *timer) {
  if (timer == nullptr) return 0;
  assert(timer->state != TIMER_DELETED);
  if (timer->state != TIMER_ACTIVE) return 1;
  timer->state = TIMER_INACTIVE;
  take_off_entry(timer);
  return 1;
}

uint32_t timer_restart(diag_timer_t *timer, uint32_t period) {
  if (timer == nullptr) return 0;
  assert(period);
  assert(timer->state != TIMER_DELETED);
  (void)timer_stop(timer);
  timer->period = period;
  return timer_start(timer);
}

uint32_t timer_update_period(diag_timer_t *timer, uint32_t period) {
  if (timer == nullptr) return 0;
  assert(timer->state != TIMER_DELETED);
  const bool active = timer->state == TIMER_ACTIVE;
  (void)timer_stop(timer);
  timer->period = period;
  return active ? timer_start(timer) : 1;
}

uint32_t timer_free(diag_timer_t *timer) {
  if (timer == nullptr) return 0;
  (void)timer_stop(timer);
  // Volatile: the store is for code that still holds the pointer, so it must not be dropped.
  *const_cast<volatile uint32_t *>(&timer->state) = TIMER_DELETED;
  free(timer);
  return 1;
}

void timer_one_tick_elapsed() {
  if (++current_time == 0) wrap_flag ^= 1;
  queue_t *const bucket = bucket_of(current_time);
  timer_exp_entry_t *const entry = first_entry(bucket);
  if (entry == nullptr || entry->wrap_flag != wrap_flag) return;
  const gtime_order_t time_diff = compare_gtime(current_time, entry->exp_time);
  if (time_diff == GTIME_IS_EARLIER_IN_TIME) return;
  assert(time_diff != GTIME_IS_LATER_IN_TIME);
  timer_invoke_callback(bucket, entry);
}

uint32_t timer_some_time_elapsed() {
  assert(chk_system_time == 1);
  assert(system_time_period != 0);
  const auto elapsed = static_cast<uint32_t>(clock_ticks());
  const uint32_t delta = elapsed - last_elapsed_ticks;
  if (delta == 0) return 0;
  last_elapsed_ticks = elapsed;
  for (uint32_t tick = 0; tick < delta; ++tick)
    timer_one_tick_elapsed();
  return delta;
}

void timer_invoke_callback(queue_t *bucket, timer_exp_entry_t *entry) {
  while (auto *const timer = static_cast<diag_timer_t *>(dequeue_head(&entry->timers))) {
    timer->exp_entry = nullptr;
    if (timer->state != TIMER_ACTIVE) continue;
    // The timer may be gone when its callback runs.
    const timer_callback_t callback_func = timer->callback_func;
    const uint32_t callback_param = timer->callback_param;
    switch (timer->type) {
      case TIMER_PERIODIC:
        rearm(timer);
        break;
      case TIMER_ONE_SHOT:
        timer->state = TIMER_INACTIVE;
        break;
      case TIMER_ONE_SHOT_FREE:
        (void)timer_free(timer);
        break;
      default:
        assert(0);
    }
    callback_func(callback_param);
  }
  remove_entry(bucket, entry);
  free(entry);
}

uint32_t timer_calc_exp_time(uint32_t period, uint64_t *exp) {
  assert(period != 0);
  const uint64_t from = now();
  *exp = from + period;
  return *exp < from ? 1 : 0;
}

uint32_t timer_is_active(const diag_timer_t *timer) {
  return timer != nullptr && timer->state == TIMER_ACTIVE ? 1 : 0;
}

uint32_t timer_update_callback_func(diag_timer_t *timer, timer_callback_t callback_func, uint32_t callback_param) {
  if (timer == nullptr || callback_func == nullptr) return 0;
  timer->callback_func = callback_func;
  timer->callback_param = callback_param;
  return 1;
}

uint32_t timer_get_callback_param(const diag_timer_t *timer) {
  return timer != nullptr ? timer->callback_param : 0;
}

uint32_t timer_get_hash_idx(uint32_t time) {
  return time & (timer_tbl_size - 1);
}

queue_t *timer_get_timer_tbl() {
  return timer_tbl;
}

void timer_set_timer_tbl(queue_t *tbl) {
  timer_tbl = tbl;
}

uint32_t log_base2(uint32_t x) {
  return static_cast<uint32_t>(std::bit_width(x | 1)) - 1;
}

uint32_t power(uint32_t base, uint32_t exponent) {
  uint32_t result = 1;
  while (exponent-- > 0)
    result *= base;
  return result;
}

}  // extern "C"
