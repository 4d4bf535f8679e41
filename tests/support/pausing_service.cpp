// An I2C service that pauses before some transactions, as SSE_PAUSES draws them: programs meet at each of them.
#include <unistd.h>

#include <cstdlib>
#include <random>

#define sse_call sse_call_at_once
#include "platform/libutils/sse_call.cpp"  // NOLINT(bugprone-suspicious-include): its function gets another name
#undef sse_call

extern "C" {

[[gnu::visibility("default")]] int32_t sse_call(uint32_t op, sse_req_t *req);

int32_t sse_call(uint32_t op, sse_req_t *req) {
  static std::minstd_rand random([] {
    const char *seed = std::getenv("SSE_PAUSES");
    return seed == nullptr ? 1U : static_cast<unsigned>(std::strtoul(seed, nullptr, 10));
  }());
  if (random() % 8 == 0) (void)usleep(static_cast<useconds_t>(random() % 200));
  return sse_call_at_once(op, req);
}

}  // extern "C"
