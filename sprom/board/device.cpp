#include "sprom/board/device.h"

#include <errno.h>
#include <stdio.h>
#include <unistd.h>

#include "platform/mfgd/uspace/utils/sprom/sprom_dev.h"
#include "sprom/base/output.h"
#include "sprom/board/service.h"
#include "sprom/image/plan.h"

namespace tool {
namespace {

// The write in hand. The access record has no room for a context of its own.
struct progress_t {
  const entry_t *entry;
  uint32_t base;
  std::span<const write_step_t> steps;
  writing_t writing;
  bool is_shown;
};
constinit progress_t progress{};

// The driver reads in one go, a transaction for the address and one a byte: the successful ones show how far it came.
template <typename F>
transfer_t watched_read(F read) {
  const uint32_t before = service_done();
  const int32_t result = read();
  const uint32_t done = service_done() - before;
  tell_step("%u bytes read", done == 0 ? 0 : done - 1);
  return {result, result >= 0 || done == 0 ? 0 : done - 1};
}

void show_progress() {
  if (!progress.is_shown) return;
  (void)fprintf(stderr, "\r%s: %zu of %zu bytes written", progress.entry->sprom->name, progress.writing.done,
                progress.writing.planned);
  (void)fflush(stderr);
}

// Takes the place of the driver's write: the same transactions, one a byte, in the order of the plan.
int32_t write_steps(const smb_dev_t *dev, uint32_t, uint32_t, const void *) {
  if (progress.writing.before.state == protect_state::on) return -EROFS;
  show_progress();
  for (const write_step_t &step : progress.steps) {
    const int32_t result = progress.entry->sprom->smb_acc->smb_wr(dev, progress.base + step.offset, 1, &step.value);
    progress.writing.transfer = {result, step.offset};
    if (result < 0) return result;
    ++progress.writing.done;
    show_progress();
  }
  return 0;
}

int32_t lift_watched() {
  const entry_t &entry = *progress.entry;
  tell_step("%s: switching the write protection off: %s", entry.sprom->name, protector_text(entry).c_str());
  progress.writing.lifted = entry.sprom->we();
  progress.writing.before = protection_of(entry);
  return progress.writing.lifted;
}

int32_t restore_watched() {
  const entry_t &entry = *progress.entry;
  tell_step("%s: switching the write protection on: %s", entry.sprom->name, protector_text(entry).c_str());
  progress.writing.restored = entry.sprom->wd();
  progress.writing.after = protection_of(entry);
  return progress.writing.restored;
}

// Whether the SPROM's own board or module is there, even if its EEPROM does not answer.
bool has_home(const entry_t &entry) {
  if (is_unit(entry)) return false;
  if (entry.sprom->type == SPROM_TYPE_SUP || entry.sprom->type == SPROM_TYPE_BP) return true;
  const sprom_wiring_t wiring = wiring_of(entry);
  return wiring.by == sprom_wiring_t::PIN && sprom_is_protected(&wiring) >= 0;
}

}  // namespace

uint32_t chip_size(const entry_t &entry) {
  return entry.dev().addr_len == 1 ? 0x100 : 0x10000;
}

transfer_t read_image(const entry_t &entry, std::span<uint8_t> image) {
  tell_step("%s: reading %zu bytes of %s from 0x%04x", entry.sprom->name, image.size(),
            device_text(entry.dev()).c_str(), entry.dev().base);
  return watched_read([&] { return diag_sprom_rd(entry.sprom, 0, static_cast<uint32_t>(image.size()), image.data()); });
}

transfer_t read_chip(const entry_t &entry, std::span<uint8_t> bytes) {
  const smb_acc_t &acc = *entry.sprom->smb_acc;
  tell_step("%s: reading %zu bytes of %s", entry.sprom->name, bytes.size(), device_text(*acc.dev).c_str());
  return watched_read([&] { return acc.smb_rd(acc.dev, 0, static_cast<uint32_t>(bytes.size()), bytes.data()); });
}

bool is_no_answer(int32_t result) {
  return result == -ENXIO || result == -EREMOTEIO || result == -ENOENT || result == -ENODEV;
}

const char *presence_word(presence what) {
  switch (what) {
    case presence::present:
      return "present";
    case presence::absent:
      return "absent";
    case presence::dead:
      return "dead";
    case presence::busy:
      return "busy";
    case presence::unknown:
      break;
  }
  return "unknown";
}

presence presence_of(const entry_t &entry, const transfer_t &read) {
  if (read.result >= 0) return presence::present;
  if (read.result == -EACCES || read.result == -EPERM || read.result == -ELIBACC) return presence::unknown;
  if (!is_no_answer(read.result) || read.byte != 0 || has_home(entry)) return presence::dead;
  return presence::absent;
}

writing_t write_bytes(const entry_t &entry, uint32_t base, std::span<const image_place_t> images,
                      std::span<const uint8_t> from, std::span<const uint8_t> to) {
  const std::vector<write_step_t> steps = plan_write(images, from, to);
  progress = {.entry = &entry, .base = base, .steps = steps, .writing = {}, .is_shown = isatty(STDERR_FILENO) != 0};
  progress.writing.planned = steps.size();
  sprom_t &sprom = *entry.sprom;
  const smb_acc_t watched = {.dev = sprom.smb_acc->dev, .smb_rd = sprom.smb_acc->smb_rd, .smb_wr = write_steps};
  sprom_t copy = sprom;
  copy.smb_acc = &watched;
  if (sprom.we != nullptr) copy.we = lift_watched;
  if (sprom.wd != nullptr) copy.wd = restore_watched;
  progress.writing.transfer.result = diag_sprom_wr(&copy, 0, static_cast<uint32_t>(to.size()), to.data());
  sprom.valid = 0;  // a cached image is an old one now, however far the write came
  if (progress.is_shown) (void)fputc('\n', stderr);
  return progress.writing;
}

}  // namespace tool
