#include "sim/devices/sprom_driver.h"

#include <cerrno>
#include <cstddef>
#include <cstring>

#include "sim/base/real.h"
#include "sim/bus/trace.h"

namespace sim {

namespace {

enum : unsigned long { get_card_index = 0x80044314, get_hw_changes = 0x80044317 };

// The record of both requests. Its layout is that of 32-bit x86; elsewhere the pointer has its natural place.
struct request_record {
  uint32_t command;
  uint8_t fixed_8[2];
  uint16_t fixed_16;
  uint16_t length;
  uint8_t more_8[2];
  uint16_t *answer;
  uint32_t flags;
};
static_assert(sizeof(void *) != 4 || sizeof(request_record) == 20);
static_assert(sizeof(void *) != 4 || offsetof(request_record, answer) == 12);

bool is_well_formed(const request_record &r) {
  return r.command == 3 && r.fixed_8[0] == 0 && r.fixed_8[1] == 0 && r.fixed_16 == 0 && r.length == 4 &&
         r.more_8[0] == 0 && r.more_8[1] == 0 && r.flags == 0;
}

}  // namespace

int sprom_driver::ioctl(unsigned long request, void *arg) {
  ++m_requests;
  const auto *const refused = m_opts.find(fault_id::sprom_refuse);
  if (refused != nullptr && m_requests > refused->get(parm::after) && refused->strikes()) return fail(refused->error());
  return answer(request, arg);
}

int sprom_driver::answer(unsigned long request, void *arg) const {
  request &= 0xFFFFFFFF;
  if (request != get_card_index && request != get_hw_changes) return fail(ENOTTY);
  if (arg == nullptr) return fail(EFAULT);
  request_record record{};
  std::memcpy(&record, arg, sizeof(record));
  if (!is_well_formed(record)) return fail(EINVAL);
  if (record.answer == nullptr) return fail(EFAULT);
  const auto value = static_cast<uint16_t>(request == get_card_index ? m_opts.card : m_opts.change_bits);
  std::memcpy(record.answer, &value, sizeof(value));
  bus_passed({"sprom", 'r', 16, request, value});
  return 0;
}

}  // namespace sim
