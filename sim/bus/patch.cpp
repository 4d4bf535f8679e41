#include "sim/bus/patch.h"

#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <span>

#include "sim/base/real.h"
#include "sim/bus/code_memory.h"
#include "sim/bus/trampoline.h"

namespace sim {

namespace {

constexpr unsigned reg_sp = 4;

// After a refusal that may not last: signals before the next look, which costs as much as several.
constexpr unsigned signals_between_looks = 64;

enum class state : uint8_t {
  patched,
  refused,
  gone,  // other code is at its address
};

struct known_move {
  jump_site site;
  state is;
};

// Trampolines refer to their entries, which stay.
constinit std::array<known_move, 1024> moves{};
constinit size_t move_count = 0;
constinit vector_state vectors{};
constinit bool may_patch = false;
constinit std::atomic<unsigned> signals_to_wait = 0;

std::span<known_move> known() {
  return std::span(moves).first(move_count);
}

class no_signals {
 public:
  no_signals() {
    sigset_t all{};
    (void)sigfillset(&all);
    (void)pthread_sigmask(SIG_BLOCK, &all, &m_before);
  }
  no_signals(const no_signals &) = delete;
  no_signals &operator=(const no_signals &) = delete;
  ~no_signals() { (void)pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

 private:
  sigset_t m_before{};
};

// The bytes of a patched move that the jump has taken.
size_t changed_bytes(const jump_site &site) {
  return std::min<size_t>(site.move.length, jump_bytes);
}

std::array<uint8_t, jump_bytes> jump_of(const jump_site &site) {
  std::array<uint8_t, jump_bytes> jump{};
  make_jump(site.ip, site.begin, jump);
  return jump;
}

// Looks at no byte after one that differs: other code may end there.
bool is_code_at(uintptr_t ip, const uint8_t *code, size_t length) {
  const auto *const at = reinterpret_cast<const volatile uint8_t *>(ip);
  size_t same = 0;
  while (same < length && at[same] == code[same])
    ++same;
  return same == length;
}

// The move known at `ip`, whose code is still there, patched or not; or null. The page at `ip` is mapped.
known_move *find_move(uintptr_t ip) {
  for (auto &m : known()) {
    if (m.is == state::gone || m.site.ip != ip) continue;
    const auto jump = jump_of(m.site);
    const bool same = m.is == state::patched ? is_code_at(ip, jump.data(), changed_bytes(m.site))
                                             : is_code_at(ip, m.site.code.data(), m.site.move.length);
    if (same) return &m;
  }
  return nullptr;
}

// Forgets moves whose code is gone, as after dlclose(), where that matters to a new one at `ip`. Returns whether that
// one's jump meets none that is left.
bool is_apart(uintptr_t ip) {
  bool apart = true;
  for (auto &m : known()) {
    if (m.is != state::patched || ip >= m.site.ip + jump_bytes || m.site.ip >= ip + jump_bytes) continue;
    const auto jump = jump_of(m.site);
    if (memory_holds(m.site.ip, jump.data(), changed_bytes(m.site)))
      apart = false;
    else
      m.is = state::gone;
  }
  return apart;
}

bool has_known_form(const insn &move) {
  const bool loads_sp = !move.store && move.reg == reg_sp && !move.high;
  return !move.io && !loads_sp && !move.memory.relative && !move.memory.cut;
}

// Makes the trampoline and the jump to it. On failure nothing is changed that anyone meets.
bool place(jump_site *site) {
  std::array<uint8_t, 256> code{};
  const size_t bytes = trampoline_bytes(site->move.length);
  if (bytes > code.size()) return false;
  const size_t chosen = changed_bytes(*site);
  site->begin = find_code_room(site->ip, chosen, bytes);
  if (site->begin == 0) return false;
  site->copy = site->begin + trampoline_copy_offset();
  trampoline_make(*site, code);
  const auto jump = jump_of(*site);
  if (poke(site->begin, code.data(), bytes) == poke_result::done &&
      poke(site->ip, jump.data(), chosen) == poke_result::done)
    return true;
  may_patch = false;
  return false;
}

// Whether this is a time to patch. Where it is not, it may be later.
bool is_time() {
  const unsigned left = signals_to_wait.load(std::memory_order_relaxed);
  signals_to_wait.store(left - std::min(left, 1U), std::memory_order_relaxed);
  if (left > 0) return false;
  const file memory{sys::open("/proc/self/mem", O_RDWR | O_CLOEXEC)};
  if (memory.is_open() && is_alone()) return true;
  signals_to_wait = signals_between_looks;
  return false;
}

bool patch(uintptr_t ip, const insn &move) {
  const no_signals blocked;
  // A handler that came in between may have been here.
  if (find_move(ip) != nullptr || is_code_room(ip) || move_count == moves.size() || !is_time()) return false;
  auto &to = moves[move_count];
  to = {{&vectors, ip, move, {}, ip, ip}, state::refused};
  memcpy(to.site.code.data(), reinterpret_cast<const void *>(ip), move.length);
  const bool done = has_known_form(move) && is_apart(ip) &&
                    is_constant_code(ip, std::max<size_t>(move.length, jump_bytes)) && place(&to.site);
  if (done) to.is = state::patched;
  ++move_count;
  if (done) discard_prefetched_code();
  return done;
}

}  // namespace

bool patch_saves(save_way way) {
  return find_vector_state(this_processor, way, &vectors);
}

void patch_start(cpu_bus *bus, bool allowed) {
  trampoline_bus(bus);
  if (bus == nullptr) trampoline_ranges({});
  static const bool can_save = find_vector_state(this_processor, &vectors);
  may_patch = allowed && can_save;
}

bool try_patch(uintptr_t ip, const insn &move) {
  return may_patch && find_move(ip) == nullptr && patch(ip, move);
}

const uint8_t *code_of_move(uintptr_t ip) {
  const auto *const m = find_move(ip);
  return m != nullptr ? m->site.code.data() : reinterpret_cast<const uint8_t *>(ip);
}

uintptr_t patched_origin(uintptr_t ip) {
  const auto found =
      std::ranges::find_if(known(), [&](const known_move &m) { return m.is != state::refused && m.site.copy == ip; });
  return found == known().end() ? ip : found->site.ip;
}

void patch_undo(uintptr_t ip) {
  const no_signals blocked;
  auto *const m = find_move(ip);
  if (m == nullptr || m->is != state::patched) return;
  if (poke(ip, m->site.code.data(), changed_bytes(m->site)) == poke_result::done) m->is = state::refused;
  discard_prefetched_code();
}

}  // namespace sim
