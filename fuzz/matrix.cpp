// Stored matrices of campaigns in any shape, into every form.
#include <string>

#include "fuzz/fuzz.h"
#include "lab/report/coverage.h"
#include "lab/report/html.h"
#include "lab/report/junit_matrix.h"
#include "lab/report/table.h"

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
  return 0;
}
