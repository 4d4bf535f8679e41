// The look-ups of the hardware types and the interface types.
#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"
#include "platform/mfgd/hw_acc/hwtype_defs.h"
#include "platform/mfgd/hw_acc/intf_type_defs.h"

namespace {

const hwtype_row_t &hwtype_row(uint32_t id, const char *op) {
  if (id >= __n_hwtype_entries)
    diag_std_assert_fail("(id >= 0) && (id < __n_hwtype_entries)", hwtype_rows_file, hwtype_rows_line, op);
  return hwtype_rows[id];
}

const intf_type_row_t &intf_type_row(uint32_t id, const char *op) {
  if (id >= __n_intf_type_entries)
    diag_std_assert_fail("(id >= 0) && (id < __n_intf_type_entries)", intf_type_rows_file, intf_type_rows_line, op);
  return intf_type_rows[id];
}

}  // namespace

extern "C" {

const char *hwtype_to_str(uint32_t id) {
  return hwtype_row(id, __func__).m_name;
}

const char *hwtype_desc(uint32_t id) {
  return hwtype_row(id, __func__).m_desc;
}

const char *intf_type_to_str(uint32_t id) {
  return intf_type_row(id, __func__).m_name;
}

const char *intf_type_desc(uint32_t id) {
  return intf_type_row(id, __func__).m_desc;
}

}  // extern "C"
