#include "sim/bus/code_memory.h"

#include <cpuid.h>
#include <sys/mman.h>
#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <string_view>

#include "sim/base/real.h"
#include "sim/bus/trampoline.h"

namespace sim {

namespace {

// --- Files of /proc -------------------------------------------------------------------------------------------------

// Calls visit(line) for the first bytes of each line until that returns false. Returns false if the file cannot be
// read.
template <class Visit>
bool for_each_line(const char *path, Visit visit) {
  const file from{sys::open(path, O_RDONLY | O_CLOEXEC)};
  std::array<char, 1024> piece{};
  std::array<char, 128> line{};
  size_t length = 0;
  ssize_t got = 0;
  while (from.is_open() && (got = ::syscall(SYS_read, from.fd(), piece.data(), piece.size())) > 0) {
    for (const char c : std::string_view(piece.data(), static_cast<size_t>(got))) {
      if (c != '\n' && length < line.size()) line[length++] = c;
      if (c != '\n') continue;
      if (!visit(std::string_view(line.data(), length))) return true;
      length = 0;
    }
  }
  return from.is_open() && got == 0;
}

// Takes a hexadecimal number off the text's front.
uint64_t take_number(std::string_view *text) {
  uint64_t value = 0;
  for (; !text->empty(); text->remove_prefix(1)) {
    const char c = text->front();
    const bool is_digit = c >= '0' && c <= '9';
    if (!is_digit && (c < 'a' || c > 'f')) break;
    value = value << 4 | static_cast<uint64_t>(is_digit ? c - '0' : c - 'a' + 10);
  }
  return value;
}

struct memory_map {
  uint64_t begin, end;
  std::string_view rest;  // "r-xp ..."
};

template <class Visit>
bool for_each_map(Visit visit) {
  return for_each_line("/proc/self/maps", [&](std::string_view line) {
    const uint64_t begin = take_number(&line);
    line.remove_prefix(std::min<size_t>(line.size(), 1));
    const uint64_t end = take_number(&line);
    line.remove_prefix(std::min<size_t>(line.size(), 1));
    return visit(memory_map{begin, end, line});
  });
}

// --- Room for code --------------------------------------------------------------------------------------------------

struct region {
  uint64_t begin, end;
  [[nodiscard]] bool meets(uint64_t from, uint64_t to) const { return from < end && begin < to; }
};

// Pages that find_code_room() mapped, and how much of them is used.
constinit std::array<uintptr_t, 1024> pages{};
constinit size_t page_count = 0;
constinit std::array<region, 1024> rooms{};
constinit size_t room_count = 0;

constexpr uint32_t mebibyte = 0x100000;

// What stays free: the lowest addresses, so that null pointers fault; where the stack grows; and some room for the
// heap, which goes on elsewhere in the C library if it must.
std::array<region, 3> kept_free() {
  uint64_t stack_end = 0;
  (void)for_each_map([&](const memory_map &map) {
    if (map.rest.ends_with("[stack]")) stack_end = map.end;
    return stack_end == 0;
  });
  rlimit limit{};
  (void)getrlimit(RLIMIT_STACK, &limit);
  const uint64_t stack_bytes = std::clamp<uint64_t>(limit.rlim_cur, 8 * mebibyte, 1024 * mebibyte);
  const auto heap_end = reinterpret_cast<uintptr_t>(::sbrk(0));
  return {region{0, mebibyte}, region{stack_end - std::min(stack_end, stack_bytes), stack_end},
          region{heap_end, heap_end + 4 * mebibyte}};
}

bool has_page(uintptr_t page) {
  return std::find(pages.begin(), pages.begin() + static_cast<std::ptrdiff_t>(page_count), page) !=
         pages.begin() + static_cast<std::ptrdiff_t>(page_count);
}

// Kernels before 4.17 take the address for a wish.
bool map_page(uintptr_t page) {
  if (has_page(page)) return true;
  if (page_count == pages.size()) return false;
  void *const at = reinterpret_cast<void *>(page);
  constexpr int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE;
  void *const got = sys::mmap(at, page_size, PROT_READ | PROT_EXEC, flags, -1, 0);
  if (got != at && got != MAP_FAILED) (void)sys::munmap(got, page_size);
  if (got == at) pages[page_count++] = page;
  return got == at;
}

uintptr_t page_of(uintptr_t address) {
  return address & ~uintptr_t{page_size - 1};
}

bool take_room(uintptr_t begin, size_t bytes) {
  const auto used = std::any_of(rooms.begin(), rooms.begin() + static_cast<std::ptrdiff_t>(room_count),
                                [&](const region &room) { return room.meets(begin, begin + bytes); });
  if (used || !map_page(page_of(begin)) || !map_page(page_of(begin + bytes - 1))) return false;
  rooms[room_count++] = {begin, begin + bytes};
  return true;
}

// The places that a jump reaches: [first, first + count), to be tried in steps. After a page that is not to be had, the
// search goes on at the next of `stride`.
struct reach {
  uintptr_t first;
  uint64_t count;
  uintptr_t step;
  uintptr_t stride;
};

// The distance's high byte is the jump's last one. Where it can be chosen, the room is below the code if there is any:
// the heap grows above.
std::array<reach, 2> reach_of(uintptr_t ip, size_t jump_chosen) {
  const size_t chosen = jump_chosen - 1;
  if (chosen == 4)
    return {reach{ip - 1024 * mebibyte, 1008 * mebibyte, 16, mebibyte},
            reach{ip + 256 * mebibyte, 768 * mebibyte, 16, mebibyte}};
  uint32_t fixed = 0;
  memcpy(&fixed, reinterpret_cast<const void *>(ip + 1), sizeof fixed);
  fixed &= ~uint32_t{0} << (8 * chosen);
  const auto distance = static_cast<std::intptr_t>(static_cast<int32_t>(fixed));
  return {reach{ip + jump_bytes + static_cast<uintptr_t>(distance), uint64_t{1} << (8 * chosen), chosen == 1 ? 1U : 16U,
                page_size},
          reach{}};
}

uintptr_t find_in(const reach &from, std::span<const region> free, size_t bytes) {
  for (uint64_t offset = 0; offset < from.count;) {
    const uintptr_t begin = from.first + static_cast<uintptr_t>(offset);
    const bool kept =
        std::ranges::any_of(free, [&](const region &r) { return r.meets(begin, uint64_t{begin} + bytes); });
    if (!kept && begin + bytes > begin && take_room(begin, bytes)) return begin;
    const bool is_ours = has_page(page_of(begin)) && has_page(page_of(begin + bytes - 1));
    offset += is_ours ? from.step : from.stride - begin % from.stride;
  }
  return 0;
}

}  // namespace

uintptr_t find_code_room(uintptr_t ip, size_t jump_chosen, size_t bytes) {
  if (room_count == rooms.size()) return 0;
  const auto free = kept_free();
  const auto reaches = reach_of(ip, jump_chosen);
  const uintptr_t found = find_in(reaches[0], free, bytes);
  return found != 0 ? found : find_in(reaches[1], free, bytes);
}

bool is_code_room(uintptr_t address) {
  return has_page(page_of(address));
}

// --- Code -----------------------------------------------------------------------------------------------------------

bool is_alone() {
  bool untraced = false, single = false;
  (void)for_each_line("/proc/self/status", [&](std::string_view line) {
    untraced |= line == "TracerPid:\t0";
    single |= line == "Threads:\t1";
    return true;
  });
  return untraced && single;
}

bool is_constant_code(uintptr_t begin, size_t length) {
  bool found = false;
  (void)for_each_map([&](const memory_map &map) {
    if (begin < map.begin || begin >= map.end) return true;
    found = length <= map.end - begin && map.rest.starts_with("r-xp");
    return false;
  });
  return found;
}

bool memory_holds(uintptr_t at, const uint8_t *bytes, size_t count) {
  const file memory{sys::open("/proc/self/mem", O_RDONLY | O_CLOEXEC)};
  std::array<uint8_t, 64> found{};
  for (size_t done = 0; done < count; done += found.size()) {
    const size_t piece = std::min(found.size(), count - done);
    if (!memory.is_open() ||
        ::pread64(memory.fd(), found.data(), piece, static_cast<off64_t>(at + done)) != static_cast<ssize_t>(piece))
      return false;
    if (memcmp(found.data(), bytes + done, piece) != 0) return false;
  }
  return true;
}

poke_result poke(uintptr_t at, const uint8_t *bytes, size_t count) {
  const file memory{sys::open("/proc/self/mem", O_RDWR | O_CLOEXEC)};
  if (!memory.is_open()) return poke_result::unopened;
  std::array<uint8_t, 256> before{};
  if (count > before.size()) return poke_result::refused;
  const auto place = static_cast<off64_t>(at);
  if (::pread64(memory.fd(), before.data(), count, place) != static_cast<ssize_t>(count)) return poke_result::refused;
  const ssize_t done = ::pwrite64(memory.fd(), bytes, count, place);
  if (done == static_cast<ssize_t>(count) && memcmp(reinterpret_cast<const void *>(at), bytes, count) == 0)
    return poke_result::done;
  if (done > 0) (void)!::pwrite64(memory.fd(), before.data(), static_cast<size_t>(done), place);
  return poke_result::refused;
}

// Of the instructions that do so, the one that every processor has.
void discard_prefetched_code() {
  unsigned a = 0, b = 0, c = 0, d = 0;
  __cpuid(0, a, b, c, d);
}

}  // namespace sim
