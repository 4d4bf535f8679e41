#include "sim/devices/flash.h"

#include <signal.h>
#include <unistd.h>

#include <array>

#include "sim/base/real.h"
#include "sim/devices/cut_audit.h"

namespace sim {

namespace {

const models::flash_times &times_of(const options &opts) {
  return opts.real_times ? models::flash_times_real : models::flash_times_scaled;
}

bool has_other_word(const options &opts, const fault &f) {
  return models::flash_query_word(times_of(opts), static_cast<uint32_t>(f.get(parm::word))) != f.get(parm::value);
}

bool has_other_times(const options &opts, const fault &f) {
  return f.get(parm::program) != models::flash_program_polls || f.get(parm::erase) != models::flash_erase_polls ||
         opts.busy != busy::polls;
}

constexpr std::array flash_need_rows{std::to_array<need_row>({
    {fault_need::other_word, has_other_word, "the word has this value anyway"},
    {fault_need::other_times, has_other_times, "these are the usual numbers"},
})};

}  // namespace

std::span<const need_row> flash_needs() {
  return flash_need_rows;
}

void flash_model::start(std::span<uint8_t> contents, const options &opts, cut_audit *audit) {
  std::vector<models::chip_fault> faults;
  for (const auto &f : opts.faults)
    if (f.row().part == fault_part::flash) faults.push_back(models::chip_fault_of(f));
  m_chip = models::nor_flash(models::memory(contents), faults,
                             {.times = times_of(opts),
                              .now = opts.busy == busy::time ? monotonic_nsec : nullptr,
                              .watcher = audit != nullptr ? this : nullptr});
  m_power_cut = opts.find(fault_id::flash_power_cut);
  m_audit = audit;
}

void flash_model::write(uint32_t offset, uint16_t data) {
  const bool cut = m_power_cut != nullptr && m_power_cut->acts();
  if (m_audit != nullptr) m_audit->cycle();
  if (cut)
    m_chip.write_torn(offset, data, m_power_cut->get(parm::seed));
  else
    m_chip.write(offset, data);
  if (m_audit != nullptr && m_chip.is_idle()) m_audit->settle("other commands");
  if (!cut) return;
  m_power_cut->fired();
  kill(getpid(), SIGKILL);
}

void flash_model::programs(std::span<const models::word_write> words) {
  static_assert(models::flash_times_real.word_us == models::flash_times_real.buffer_us);
  const auto what = "sector " + std::to_string(words.front().at / models::flash_sector_bytes) + " program";
  m_audit->tears(what, words, 1U << models::flash_times_real.buffer_us);
}

void flash_model::erases(const std::bitset<models::flash_sectors> &sectors) {
  uint32_t first = 0;
  while (!sectors[first])
    ++first;
  uint32_t last = models::flash_sectors - 1;
  while (!sectors[last])
    last--;
  m_audit->tears("sector " + std::to_string(first) + " erase", first * models::flash_sector_bytes,
                 (last - first + 1) * models::flash_sector_bytes,
                 sectors.count() * 1000 << models::flash_times_real.erase_ms);
}

void flash_model::done() {
  m_audit->done();
}

}  // namespace sim
