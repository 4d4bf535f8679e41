#include "platform/mfgd/uspace/utils/sprom/tool/protect.h"

#include <stdio.h>

#include <nlohmann/json.hpp>

#include "platform/mfgd/uspace/utils/sprom/tool/chip_lock.h"
#include "platform/mfgd/uspace/utils/sprom/tool/service.h"
#include "platform/mfgd/uspace/utils/sprom/tool/signals.h"
#include "platform/mfgd/uspace/utils/sprom/tool/target.h"

namespace tool {
namespace {

struct protect_row_t {
  entry_t entry;
  protection_t now;
};

const char *state_word(protect_state state) {
  switch (state) {
    case protect_state::none:
      return "none";
    case protect_state::on:
      return "on";
    case protect_state::off:
      return "off";
    case protect_state::absent:
      return "absent";
    case protect_state::unknown:
      break;
  }
  return "unknown";
}

void warn_of_confusion(const entry_t &entry) {
  std::string others;
  if (service_has_routing() || wiring_of(entry).by != sprom_wiring_t::PIN ||
      expander_hazard(entry, others) == hazard::none)
    return;
  complain(
      "%s: this libutils.so cannot be told the device, and knows the expander of %s by the same identity: the "
      "protection may be another's",
      label_of(entry).c_str(), others.c_str());
}

protect_row_t look_at(const entry_t &entry) {
  warn_of_confusion(entry);
  return {entry, protection_of(entry)};
}

void print_rows(const std::vector<protect_row_t> &rows) {
  (void)printf("%-12s %-10s  BY\n", "NAME", "PROTECTION");
  for (const auto &[entry, now] : rows) {
    std::string by = protector_text(entry);
    if (now.error < 0) by += ": " + error_text(now.error);
    (void)printf("%-12s %-10s  %s\n", entry.sprom->name, state_word(now.state), by.empty() ? "-" : by.c_str());
  }
}

void print_rows_json(const std::vector<protect_row_t> &rows) {
  json_t sproms = json_t::array();
  for (const auto &[entry, now] : rows) {
    const std::string by = protector_text(entry);
    sproms.push_back({{"name", entry.sprom->name},
                      {"protection", state_word(now.state)},
                      {"by", by.empty() ? json_t(nullptr) : json_t(by)},
                      {"errno", now.error == 0 ? json_t(nullptr) : json_t(-now.error)}});
  }
  (void)print_json({{"sproms", sproms}}, EXIT_OK);
}

exit_code status_of(const std::vector<protect_row_t> &rows) {
  exit_code code = EXIT_OK;
  for (const protect_row_t &row : rows) {
    if (row.now.state == protect_state::off || row.now.state == protect_state::unknown) code = EXIT_FAILED;
  }
  return rows.size() == 1 && rows.front().now.state == protect_state::absent ? EXIT_EMPTY : code;
}

exit_code switch_on(const options_t &options, const entry_t &entry) {
  const std::string label = label_of(entry);
  if (wiring_of(entry).by == sprom_wiring_t::NONE) {
    complain("%s: has no write protection", label.c_str());
    return EXIT_FAILED;
  }
  std::string others;
  if (!options.has(OPT_FORCE) && !service_has_routing() && expander_hazard(entry, others) != hazard::none) {
    complain(
        "%s: not switched on: this libutils.so cannot be told the device, and knows the expander of %s by the same "
        "identity; --force does it all the same",
        label.c_str(), others.c_str());
    return EXIT_FAILED;
  }
  const chip_lock_t lock{entry};
  if (lock.is_busy()) {
    complain("%s: not switched on: %s", label.c_str(), lock.refusal().c_str());
    return EXIT_FAILED;
  }
  const signal_hold_t hold;
  if (!restore_protection(entry)) return EXIT_FAILED;
  (void)printf("%s: protected\n", label.c_str());
  return EXIT_OK;
}

exit_code find_entries(const options_t &options, std::vector<entry_t> &entries) {
  const family_t *family = find_family(options);
  if (family == nullptr) return EXIT_FAILED;
  entries = family_sproms(*family);
  if (options.args.empty()) return EXIT_OK;
  const auto entry = find_sprom(*family, options.args.front());
  if (!entry) {
    complain("%s: the %s boards have no such SPROM (see 'sprom list')", shown(options.args.front()).c_str(),
             family_name(*family));
    return EXIT_FAILED;
  }
  entries = {*entry};
  return EXIT_OK;
}

}  // namespace

exit_code run_protect(const options_t &options) {
  if (options.has(OPT_ON) && options.args.empty()) return complain_usage("--on needs the SPROM to protect");
  std::vector<entry_t> entries;
  if (const exit_code code = find_entries(options, entries); code != EXIT_OK) return code;
  if (options.has(OPT_ON)) return switch_on(options, entries.front());
  std::vector<protect_row_t> rows;
  rows.reserve(entries.size());
  for (const entry_t &entry : entries)
    rows.push_back(look_at(entry));
  if (options.has(OPT_JSON)) {
    print_rows_json(rows);
  } else {
    print_rows(rows);
  }
  return status_of(rows);
}

}  // namespace tool
