// Stored matrices of campaigns in any shape, merged and into every form.
#include <algorithm>
#include <iterator>
#include <numeric>
#include <string>

#include "fuzz/fuzz.h"
#include "lab/campaign/matrix_file.h"
#include "lab/campaign/shards.h"
#include "lab/report/coverage.h"
#include "lab/report/html.h"
#include "lab/report/junit_matrix.h"
#include "lab/report/table.h"

namespace {

// A matrix as the only shard, and with itself again. Without a shard of its own it becomes the only one.
void check_merge(lab::matrix all) {
  const bool is_part = all.part.has_value();
  if (!is_part) {
    std::vector<lab::run_item> items;
    std::ranges::transform(all.runs, std::back_inserter(items), &lab::run_result::what);
    all.part = {1, 1, lab::plan_identity(items, {}), all.runs.size(), std::vector<size_t>(all.runs.size())};
    std::iota(all.part->positions.begin(), all.part->positions.end(), size_t{0});
  }
  std::string error;
  const bool is_whole = all.part->all_runs == all.runs.size();
  const auto merged = lab::merge({{"one", all}}, &error);
  MUST_HOLD(merged.has_value() == error.empty() && (is_whole || !merged) && (is_part || merged));
  if (merged) MUST_HOLD(!merged->part && merged->runs.size() == all.runs.size());
  error.clear();
  const bool twice = lab::merge({{"one", all}, {"other", all}}, &error).has_value();
  MUST_HOLD(!twice && !error.empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string_view text(reinterpret_cast<const char *>(data), size);
  std::string error;
  const auto all = lab::matrix_from_json(text, &error);
  MUST_HOLD(all.has_value() == error.empty());
  if (!all) return 0;
  const auto stored = lab::matrix_to_json(*all);
  const auto again = lab::matrix_from_json(stored, &error);
  MUST_HOLD(again && lab::matrix_to_json(*again) == stored);
  const auto page = lab::matrix_to_html(*all);
  MUST_HOLD(page.find("<script>") == page.rfind("<script>"));
  for (const auto &form : {page, lab::matrix_to_junit(*all), lab::matrix_to_coverage(*all),
                           lab::matrix_table(*all, 80, false), lab::matrix_summary(*all, true)})
    MUST_HOLD(!form.empty() && form.find_first_of(std::string_view("\0\x1b", 2)) == std::string::npos);
  check_merge(*all);
  return 0;
}
