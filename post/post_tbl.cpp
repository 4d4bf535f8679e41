#include <stddef.h>

#include "post/gige.h"
#include "post/nvram.h"
#include "post/obfl.h"
#include "post/pcie.h"
#include "post/post_tbl.h"
#include "post/seeprom.h"

// clang-format off
const PostTestEntry dorvan_post[5] = {
    // id, first, end, name,                       entry
    {   4,     0,   3, "Mod 1 1 SEEPROM Test",     dorvan_brd_seeprom_test},
    {   5,     0,   4, "Mod 1 1 GigE Port Test",   dorvan_nic_lpback_test},
    {   8,     0,   1, "Mod 1 1 NVRAM Test",       dorvan_nvram_test},
    {  10,     0,   1, "Mod 1 1 OBFL Test",        dorvan_obfl_test},
    {  12,     0,   7, "Mod 1 1 PCIE Test",        dorvan_pcie_test},
};
// clang-format on

int32_t short_test = 0;
