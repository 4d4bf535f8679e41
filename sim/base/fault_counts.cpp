#include "sim/base/fault_counts.h"

#include <new>

#include "sim/base/files.h"
#include "sim/base/real.h"

namespace sim {

namespace {

using counter = std::atomic<uint64_t>;
static_assert(counter::is_always_lock_free && sizeof(counter) == 8, "processes share it");

std::string counts_path(const options &opts) {
  return opts.state + "/faults";
}

}  // namespace

fault_counts::~fault_counts() {
  if (!m_mapped.empty()) (void)sys::munmap(m_mapped.data(), m_mapped.size());
}

bool fault_counts::open(options *opts, std::string *error) {
  if (opts->faults.empty()) return true;
  const size_t size = opts->faults.size() * sizeof(counter);
  const auto path = counts_path(*opts);
  const file counts{sys::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC)};
  void *at = MAP_FAILED;
  if (counts.is_open() && ::ftruncate(counts.fd(), static_cast<off_t>(size)) == 0)
    at = sys::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, counts.fd(), 0);
  if (at == MAP_FAILED) {
    *error = os_error(path);
    return false;
  }
  m_mapped = {static_cast<std::byte *>(at), size};
  for (size_t i = 0; i < opts->faults.size(); ++i)
    opts->faults[i].count = std::launder(reinterpret_cast<counter *>(at)) + i;
  return true;
}

void fault_counts::forget(const options &opts) {
  (void)sys::unlink(counts_path(opts).c_str());
}

std::string fault_report(const options &opts) {
  std::string lines;
  for (const auto &f : opts.faults)
    lines += std::to_string(f.count == nullptr ? 0 : f.count->load()) + "\t" + f.text + "\n";
  return lines;
}

std::string occasions_report(const options &opts, const std::string &row) {
  std::string lines;
  for (const auto &f : opts.faults)
    if (const auto number = f.trigger.occasions(); number != 0)
      lines += row + "\t" + std::to_string(number) + "\t" + f.text + "\n";
  return lines;
}

}  // namespace sim
