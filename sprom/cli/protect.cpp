#include "sprom/cli/protect.h"

#include <stdio.h>

#include <nlohmann/json.hpp>

#include "platform/mfgd/cmn_lib/diag_util/signal_hold.h"
#include "sprom/board/change_bits.h"
#include "sprom/board/service.h"
#include "sprom/board/target.h"

namespace tool {
namespace {

struct protect_row_t {
  entry_t entry;
  protection_t now;
  std::string by;
  exit_code code;
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
      "%s: this libutils.so takes no device address, and knows the expander of %s by the same identity: the "
      "protection may be another's",
      label_of(entry).c_str(), others.c_str());
}

exit_code code_of(protect_state state) {
  return state == protect_state::off || state == protect_state::unknown ? EXIT_FAILED : EXIT_OK;
}

protect_row_t look_at(const options_t &options, const entry_t &entry) {
  warn_of_confusion(entry);
  std::string doubt;
  const exit_code settled = settle_protect_pin(options, entry, doubt);
  const protection_t now = protection_of(entry);
  protect_row_t row{entry, now, protector_text(entry), code_of(now.state)};
  if (settled == EXIT_OK || now.error < 0) return row;
  complain("%s: %s", label_of(entry).c_str(), doubt.c_str());
  if (settled == EXIT_FAILED && options.has(OPT_FORCE)) return row;
  return {entry, {protect_state::unknown, 0}, "a pin of " + device_text(*wiring_of(entry).expander->dev), settled};
}

void print_rows(const std::vector<protect_row_t> &rows) {
  (void)printf("%-12s %-10s  BY\n", "NAME", "PROTECTION");
  for (const auto &[entry, now, by, code] : rows) {
    const std::string error = now.error < 0 ? ": " + error_text(now.error) : "";
    (void)printf("%-12s %-10s  %s%s\n", entry.sprom->name, state_word(now.state), by.empty() ? "-" : by.c_str(),
                 error.c_str());
  }
}

void print_rows_json(const std::vector<protect_row_t> &rows) {
  json_t sproms = json_t::array();
  for (const auto &[entry, now, by, code] : rows) {
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
    if (row.code == EXIT_FAILED || code == EXIT_OK) code = row.code;
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
        "%s: not switched on: this libutils.so takes no device address, and knows the expander of %s by the same "
        "identity; --force does it all the same",
        label.c_str(), others.c_str());
    return EXIT_FAILED;
  }
  std::optional<chip_lock_t> lock;
  const target_t target{.kind = kind_by_type(entry.sprom->type), .entry = entry};
  exit_code code = check_protect_pin(options, entry, "not switched on");
  if (code == EXIT_OK) code = lock_writing(options, target, "not switched on", lock);
  if (code != EXIT_OK) return code;
  const signal_hold::scope hold;
  if (!restore_protection(entry)) return EXIT_FAILED;
  say("%s: protected", label.c_str());
  return EXIT_OK;
}

exit_code find_entries(const options_t &options, std::vector<entry_t> &entries) {
  const family_t *family = nullptr;
  if (const exit_code code = find_family(options, family); code != EXIT_OK) return code;
  entries = family_sproms(*family);
  if (options.args.empty()) return EXIT_OK;
  const auto entry = find_sprom(*family, options.args.front());
  if (!entry) return complain_no_sprom(*family, options.args.front());
  entries = {*entry};
  return EXIT_OK;
}

}  // namespace

exit_code run_protect(const options_t &options) {
  if (options.has(OPT_ON) && options.args.empty()) return complain_usage("--on needs the SPROM to protect");
  std::vector<entry_t> entries;
  if (const exit_code code = find_entries(options, entries); code != EXIT_OK) return code;
  if (options.has(OPT_ON)) {
    if (options.has(OPT_JSON)) say_on(nullptr);
    const exit_code code = switch_on(options, entries.front());
    if (options.has(OPT_JSON)) print_rows_json({look_at(options, entries.front())});
    return code;
  }
  std::vector<protect_row_t> rows;
  rows.reserve(entries.size());
  for (const entry_t &entry : entries)
    rows.push_back(look_at(options, entry));
  if (options.has(OPT_JSON)) {
    print_rows_json(rows);
  } else {
    print_rows(rows);
  }
  return status_of(rows);
}

}  // namespace tool
