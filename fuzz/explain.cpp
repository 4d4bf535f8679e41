// Logs of any bytes through reader, models and printers of post-explain.
#include <algorithm>
#include <string_view>

#include "fuzz/fuzz.h"
#include "lab/explain/print.h"

namespace {

// Each fault that a group gives as an example is one of its faults, and the headline names it.
void check(const lab::finding &found) {
  MUST_HOLD(!found.headline().empty());
  for (const auto &group : found.faults) {
    for (const bool last : {false, true}) {
      const auto fault = lab::parse_fault_text(group.one(last));
      MUST_HOLD(group.holds(fault) && found.lists(fault) && found.headline_on(fault) != lab::headline_says::leaves_out);
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto log = lab::parse_run_log(std::string_view(reinterpret_cast<const char *>(data), size));
  lab::explained_file file{"log", {}, &log, {}};
  for (const auto &run : log.runs) {
    file.runs.push_back({file.runs.size() + 1, &run, lab::explain_run(&run)});
    MUST_HOLD(run.completed || !file.runs.back().what.findings.empty());
    std::ranges::for_each(file.runs.back().what.findings, check);
  }
  MUST_HOLD(!lab::explanations_text({file}, true).empty());
  (void)lab::explanations_json({file});  // for what the sanitizers see
  return 0;
}
