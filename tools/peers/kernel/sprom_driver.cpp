// Preloaded, answers for the kernel driver behind /dev/sprom, which no stock kernel has, with the card index and change
// bits that the environment names. The record is the driver's, in 32 bits.
#include <dlfcn.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

namespace {

constexpr unsigned long get_card_index = 0x80044314;
constexpr unsigned long get_hw_changes = 0x80044317;
constexpr size_t answer_at = 12;

uint16_t value(const char *name) {
  const char *const text = getenv(name);
  return static_cast<uint16_t>(text != nullptr ? atoi(text) : 0);
}

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept;
extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list args;
  va_start(args, request);
  void *const arg = va_arg(args, void *);
  va_end(args);
  if (request == get_card_index || request == get_hw_changes) {
    uint16_t *answer = nullptr;
    memcpy(&answer, static_cast<char *>(arg) + answer_at, sizeof answer);
    *answer = value(request == get_card_index ? "CARD_INDEX" : "HW_CHANGES");
    return 0;
  }
  static const auto real = reinterpret_cast<int (*)(int, unsigned long, ...)>(dlsym(RTLD_NEXT, "ioctl"));
  return real(fd, request, arg);
}
