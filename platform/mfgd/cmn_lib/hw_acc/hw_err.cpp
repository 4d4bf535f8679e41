#include "platform/mfgd/cmn_lib/hw_acc/hw_err.h"

#include <algorithm>
#include <array>

namespace {

struct hw_err_t {
  uint32_t m_code;
  const char *m_name;
  const char *m_desc;
};

constexpr std::array hw_err_tbl = {
#define HW_ERR_ROW(name, code, desc) hw_err_t{code, #name, desc},
    HW_ERR_CATALOGUE(HW_ERR_ROW)
#undef HW_ERR_ROW
        hw_err_t{0, "", ""},  // terminator: what a search that finds nothing ends at
};

static_assert(std::is_sorted(hw_err_tbl.begin(), hw_err_tbl.end() - 2,
                             [](const hw_err_t &a, const hw_err_t &b) { return a.m_code < b.m_code; }));

const hw_err_t &find(uint32_t code) {
  const auto last = hw_err_tbl.end() - 1;
  return *std::find_if(hw_err_tbl.begin(), last, [code](const hw_err_t &row) { return row.m_code == code; });
}

}  // namespace

extern "C" {

const char *hw_err_to_str(uint32_t code) {
  return find(code).m_name;
}

const char *hw_err_get_desc(uint32_t code) {
  return find(code).m_desc;
}

}  // extern "C"
