#include "platform/mfgd/uspace/utils/sprom/tool/target.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/uspace/utils/sprom/sprom_dev.h"
#include "platform/mfgd/uspace/utils/sprom/tool/file.h"
#include "platform/mfgd/uspace/utils/sprom/tool/output.h"

namespace tool {
namespace {

// Longer than every image, so that one read tells an over-long file.
constexpr size_t file_limit = 65537;

// The write of a SPROM, byte by byte. The access record has no room for a context of its own.
struct progress_t {
  const sprom_t *sprom;
  uint32_t size;   // bytes to write
  uint32_t done;   // bytes that the driver has accepted
  int32_t lifted;  // results of the hooks that lift and restore the write protection
  int32_t restored;
  bool is_shown;
};
constinit progress_t progress{};

constinit volatile sig_atomic_t is_interrupted = 0;

void interrupt(int) {
  is_interrupted = 1;
}

// While it lives, what would end or stop the process waits for the end of the current byte: the write protection is
// off until the write returns.
class signal_guard_t {
 public:
  signal_guard_t() {
    is_interrupted = 0;
    struct sigaction action {};
    action.sa_flags = SA_RESTART;
    for (size_t i = 0; i < signals.size(); ++i) {
      action.sa_handler = signals[i].is_interrupt ? interrupt : SIG_IGN;
      (void)sigaction(signals[i].number, nullptr, &m_old[i]);
      // What the caller has chosen to ignore, as nohup does, stays ignored.
      if (m_old[i].sa_handler != SIG_IGN) (void)sigaction(signals[i].number, &action, nullptr);
    }
  }
  ~signal_guard_t() {
    for (size_t i = 0; i < signals.size(); ++i)
      (void)sigaction(signals[i].number, &m_old[i], nullptr);
  }
  signal_guard_t(const signal_guard_t &) = delete;
  signal_guard_t &operator=(const signal_guard_t &) = delete;

 private:
  struct row_t {
    int number;
    bool is_interrupt;
  };
  static constexpr std::array<row_t, 6> signals{
      {{SIGINT, true}, {SIGTERM, true}, {SIGHUP, true}, {SIGQUIT, true}, {SIGPIPE, false}, {SIGTSTP, false}}};

  std::array<struct sigaction, signals.size()> m_old{};
};

void show_progress() {
  if (!progress.is_shown) return;
  (void)fprintf(stderr, "\r%s: %u of %u bytes written", progress.sprom->name, progress.done, progress.size);
  (void)fflush(stderr);
}

// As the driver writes, so are the transactions: one a byte.
int32_t write_watched(const smb_dev_t *dev, uint32_t offset, uint32_t length, const void *buf) {
  const std::span bytes{static_cast<const uint8_t *>(buf), length};
  for (uint32_t i = 0; i < length; ++i) {
    if (is_interrupted != 0) return -EINTR;
    const int32_t result = progress.sprom->smb_acc->smb_wr(dev, offset + i, 1, &bytes[i]);
    if (result < 0) return result;
    ++progress.done;
    show_progress();
  }
  return 0;
}

int32_t lift_watched() {
  return progress.lifted = progress.sprom->we();
}

int32_t restore_watched() {
  return progress.restored = progress.sprom->wd();
}

int32_t write_sprom(sprom_t &sprom, const image_t &image) {
  progress = {.sprom = &sprom,
              .size = static_cast<uint32_t>(image.size()),
              .done = 0,
              .lifted = 0,
              .restored = 0,
              .is_shown = isatty(STDERR_FILENO) != 0};
  const smb_acc_t watched = {.dev = sprom.smb_acc->dev, .smb_rd = sprom.smb_acc->smb_rd, .smb_wr = write_watched};
  sprom_t copy = sprom;
  copy.smb_acc = &watched;
  if (sprom.we != nullptr) copy.we = lift_watched;
  if (sprom.wd != nullptr) copy.wd = restore_watched;
  show_progress();
  const int32_t result = diag_sprom_wr(&copy, 0, progress.size, image.data());
  sprom.valid = 0;  // a cached image is an old one now, however far the write came
  if (progress.is_shown) (void)fputc('\n', stderr);
  return result;
}

bool read_sprom(const target_t &target, image_t &image) {
  const sprom_t &sprom = *target.entry->sprom;
  assert(sprom_get_size(&sprom) == static_cast<int32_t>(target.kind->size));
  image.resize(target.kind->size);
  const int32_t result = diag_sprom_rd(&sprom, 0, target.kind->size, image.data());
  if (result < 0) complain("%s: cannot read: %s", target.name.c_str(), result_text(result));
  return result >= 0;
}

bool is_sprom_written(const target_t &target, const image_t &image) {
  const int32_t result = [&] {
    const signal_guard_t guard;
    return write_sprom(*target.entry->sprom, image);
  }();
  if (progress.lifted < 0)
    complain("%s: the write protection cannot be lifted: %s", target.name.c_str(), result_text(progress.lifted));
  if (progress.restored < 0)
    complain("%s: the write protection cannot be restored: %s", target.name.c_str(), result_text(progress.restored));
  if (result >= 0) return true;
  const uint32_t address = target.entry->sprom->smb_acc->dev->base + progress.done;
  const char *reason = result == -EINTR ? "interrupted" : result_text(result);
  complain("%s: write stopped at byte %u of %zu (EEPROM offset 0x%04x): %s", target.name.c_str(), progress.done,
           image.size(), address, reason);
  return false;
}

bool is_file_written(const target_t &target, const image_t &image) {
  const int error = write_file(target.name, image);
  if (error != 0) complain("%s: cannot write: %s", target.name.c_str(), strerror(error));
  return error == 0;
}

bool is_read_back(const target_t &target, const image_t &before, const image_t &image, bool is_written) {
  image_t now;
  const bool is_read = target.entry ? read_sprom(target, now) : load_image(target.name, target.kind, now) != nullptr;
  if (!is_read) {
    complain("%s: what it holds now is not known", target.name.c_str());
    return false;
  }
  const auto [count, first] = difference(image, now);
  if (count == 0) return true;
  complain("%s: reads back with %zu of %zu bytes different from the image, the first at byte %zu", target.name.c_str(),
           count, image.size(), first);
  const char *reason = is_written ? "; it may be write-protected" : "";
  if (now == before) complain("%s: nothing has changed%s", target.name.c_str(), reason);
  return false;
}

}  // namespace

const kind_t *load_image(const std::string &path, const kind_t *wanted, image_t &image) {
  const int error = read_file(path, file_limit, image);
  if (error != 0) {
    complain("%s: cannot read: %s", path.c_str(), strerror(error));
    return nullptr;
  }
  const kind_t *const by_size = kind_by_size(image.size());
  const kind_t *kind = wanted != nullptr ? wanted : by_size != nullptr ? by_size : kind_by_signature(image);
  if (kind != nullptr && kind == by_size) return kind;

  const std::string size = (image.size() == file_limit ? "more than " : "") +
                           std::to_string(std::min(image.size(), file_limit - 1)) + " bytes";
  if (kind == nullptr) {
    complain("%s: %s: no kind of image has this size", path.c_str(), size.c_str());
  } else if (by_size != nullptr) {
    complain("%s: %s: this is a %s image, not a %s image", path.c_str(), size.c_str(), by_size->title, kind->title);
  } else {
    complain("%s: %s, but a %s image has %u: the file is %s", path.c_str(), size.c_str(), kind->title, kind->size,
             image.size() < kind->size ? "truncated" : "too long");
  }
  return nullptr;
}

bool read_target(const target_t &target, image_t &image) {
  if (target.entry) return read_sprom(target, image);
  image = target.loaded;
  return true;
}

bool write_target(const target_t &target, const image_t &before, const image_t &image) {
  if (!target.entry) return is_file_written(target, image) && is_read_back(target, before, image, true);
  const bool is_written = is_sprom_written(target, image);
  if (!is_read_back(target, before, image, is_written)) return false;
  const bool is_protected = progress.restored >= 0;
  if (!is_written || !is_protected)
    complain("%s: it reads back as the image, although the %s failed", target.name.c_str(),
             is_written ? "write protection" : "write");
  return is_written && is_protected;
}

}  // namespace tool
