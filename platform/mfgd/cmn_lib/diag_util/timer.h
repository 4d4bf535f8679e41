// timer.h: the cycle counter and its conversions; the timer service.
//
// The timer service calls back after a number of ticks. The caller drives it in one of two modes:
//   tick mode    timer_one_tick_elapsed reports each tick; "now" is the number of ticks reported
//   polled mode  timer_some_time_elapsed, called at will, reads the time-stamp counter and catches up on every tick
//                since the last poll; "now" is the number of ticks on the clock since timer_module_init
// Callbacks run inside those two calls. They may start, stop, restart and free timers, also others of the same tick
// and, unless it is of kind TIMER_ONE_SHOT_FREE, the timer that they belong to. They must not report ticks or poll: the
// expiry that is at work is in its bucket until its last callback has returned, and a later tick that finds it there
// fails an assertion. Nothing is locked: one thread.
//
// A null timer gives 0 everywhere. A timer that was freed, by timer_free or by itself, must not be passed again; the
// assertion "timer->state != TIMER_DELETED" catches it where the memory still shows it.
#pragma once

#include <stdint.h>

#include "platform/mfgd/cmn_lib/diag_util/queue.h"

extern "C" {
extern uint32_t cpu_khz;  // CPU clock in kHz; 0 until _init_libtimer

// Sets cpu_khz from the CPU clock record, which _init_ptu must have filled.
void _init_libtimer();

// The time-stamp counter, 64 bits.
[[nodiscard]] uint64_t timer_get_cycles();

// cpu_khz.
[[nodiscard]] uint32_t timer_get_cpu_khz();

// The time between two cycle counts, rounded down, in milliseconds or microseconds; all ones while cpu_khz is 0.
//   later, earlier  counts of timer_get_cycles; the difference is taken modulo 2^64, so a reversed pair gives a huge
//                   value. Microseconds are right up to (2^64 - 1) / 1000 cycles: a larger product loses its high bits.
[[nodiscard]] uint64_t timer_diff_cycle_in_msec(uint64_t later, uint64_t earlier);
[[nodiscard]] uint64_t timer_diff_cycle_in_usec(uint64_t later, uint64_t earlier);

enum timer_kind_t : uint32_t {
  TIMER_ONE_SHOT = 0,       // inactive from its expiry on
  TIMER_PERIODIC = 1,       // started again at each expiry, before its callback
  TIMER_ONE_SHOT_FREE = 2,  // freed at its expiry, before its callback
};

enum timer_state_t : uint32_t {
  TIMER_INACTIVE = 0,  // on no list
  TIMER_ACTIVE = 1,    // in the queue of its expiry entry
  TIMER_DELETED = 2,   // freed
};

using timer_callback_t = void (*)(uint32_t param);

struct timer_exp_entry_t;

struct diag_timer_t {
  diag_timer_t *next;            // link in its expiry entry's queue
  timer_exp_entry_t *exp_entry;  // null when on no list
  uint32_t period;               // ticks; not 0 when started
  uint32_t type;                 // timer_kind_t
  uint32_t state;                // timer_state_t
  timer_callback_t callback_func;
  uint32_t callback_param;  // 32 bits in every word size
};

static_assert(sizeof(diag_timer_t) == (sizeof(void *) == 4 ? 28 : 48));

// All timers of one expiry tick.
struct timer_exp_entry_t {
  timer_exp_entry_t *next;  // link in its bucket's queue
  queue_t timers;           // in start order
  uint64_t exp_time;        // tick
  uint32_t wrap_flag;       // epoch of exp_time, 0 or 1
};

static_assert(sizeof(timer_exp_entry_t) == (sizeof(void *) == 4 ? 28 : 48));

// State of the module, for reading. Zero at start.
extern queue_t *timer_tbl;           // the wheel: timer_tbl_size buckets of expiry entries
extern uint32_t timer_tbl_size;      // a power of two
extern uint32_t system_time_period;  // milliseconds per tick in polled mode
extern uint32_t chk_system_time;     // 1 in polled mode, 0 in tick mode
extern uint64_t current_time;        // ticks processed
extern uint32_t wrap_flag;           // epoch: flips each time current_time wraps to 0
extern uint32_t last_elapsed_ticks;  // clock ticks, low 32 bits, at the last poll that found time passed
extern uint64_t start_cycles;        // cycle count at initialisation in polled mode

// Sets the mode and allocates the wheel. Comes before every start and tick.
//   size    wanted number of buckets; the largest power of two not above it is taken, 1 for 0
//   period  milliseconds per tick; 0 selects tick mode
// Returns 1, or 0 when the wheel cannot be allocated (timer_tbl is null then).
// Meant to be called once. A second call starts with an empty wheel: the former one and its entries are the caller's
// (timer_get_timer_tbl), and current_time, wrap_flag and last_elapsed_ticks stay as they are. So does, with period 0,
// system_time_period, which alone decides what "now" is: expiries still follow the clock then. In polled mode the clock
// starts again at 0 while the next poll counts on from last_elapsed_ticks, modulo 2^32.
[[nodiscard]] uint32_t timer_module_init(uint32_t size, uint32_t period);

// Makes a timer, inactive.
//   period          ticks, not 0
//   type            timer_kind_t
//   callback_func   not null
//   callback_param  its argument
// Returns null when an argument is bad or no memory is left. timer_free releases it.
[[nodiscard]] diag_timer_t *timer_new(uint32_t period, uint32_t type, timer_callback_t callback_func,
                                      uint32_t callback_param);

// Starts a timer, or restarts an active one, to expire its period from now; timers of one tick expire in start order.
// Returns 1, or 0 when no memory is left: the timer is inactive then. A period of 0 is an assertion.
uint32_t timer_start(diag_timer_t *timer);

// Stops a timer; nothing to do for an inactive one. Returns 1. Walks the timers of the same tick.
uint32_t timer_stop(diag_timer_t *timer);

// Stops a timer and starts it with another period, in ticks, not 0 (an assertion). Returns as timer_start.
uint32_t timer_restart(diag_timer_t *timer, uint32_t period);

// Stores another period, in ticks; an active timer is restarted with it. Returns as timer_start, 1 for an inactive
// timer, which takes even a period of 0 but cannot be started with it.
uint32_t timer_update_period(diag_timer_t *timer, uint32_t period);

// Stops and releases a timer. Returns 1.
uint32_t timer_free(diag_timer_t *timer);

// Reports one tick: runs the callbacks of the timers due at it. An expiry tick that was passed over is an assertion.
void timer_one_tick_elapsed();

// Polled mode only (an assertion): processes every tick since the last poll that found time passed.
// Returns their number, 0 when no tick has passed.
uint32_t timer_some_time_elapsed();

// Runs the callbacks of the timers of a due expiry entry and releases it.
//   bucket  the queue of the wheel that holds it
//   entry   the entry; it stays in the bucket until its last callback has returned
void timer_invoke_callback(queue_t *bucket, timer_exp_entry_t *entry);

// The tick that lies `period` ticks from now; a period of 0 is an assertion.
//   exp  receives it
// Returns 1 if it wrapped past 2^64, else 0.
uint32_t timer_calc_exp_time(uint32_t period, uint64_t *exp);

// 1 for an active timer, else 0.
[[nodiscard]] uint32_t timer_is_active(const diag_timer_t *timer);

// Stores another callback with its argument. Returns 1, or 0, with nothing stored, for a null function.
uint32_t timer_update_callback_func(diag_timer_t *timer, timer_callback_t callback_func, uint32_t callback_param);

// The argument of the timer's callback.
[[nodiscard]] uint32_t timer_get_callback_param(const diag_timer_t *timer);

// The bucket of an expiry tick, whose low 32 bits are `time`.
[[nodiscard]] uint32_t timer_get_hash_idx(uint32_t time);

// The wheel. A replacement must have timer_tbl_size buckets; the former one is the caller's.
[[nodiscard]] queue_t *timer_get_timer_tbl();
void timer_set_timer_tbl(queue_t *tbl);

// Position of the highest set bit: floor(log2 x); 0 for 0.
[[nodiscard]] uint32_t log_base2(uint32_t x);

// base to the exponent, modulo 2^32; 1 for exponent 0.
[[nodiscard]] uint32_t power(uint32_t base, uint32_t exponent);
}
