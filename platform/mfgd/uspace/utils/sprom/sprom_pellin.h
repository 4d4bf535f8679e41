// sprom_pellin.h: the SPROMs of the `pellin` board family: descriptors, probe and write protection.
#pragma once

#include "platform/mfgd/uspace/utils/sprom/sprom.h"

extern "C" {
extern const smb_dev_t pellin_bp_dev;  // device of the backplane SPROM

// The expanders with the write-protect pins of the modules in slots 2 and 3 and of the mezzanine.
extern const smb_acc_t pca9539_gem_acc[2];
extern const smb_acc_t pca9539_mezz_acc;

// The power supplies and DIMMs have no write protection. The DIMM descriptors share one cache, and are reached through
// their table only.
extern sprom_t pellin_sprom_bp;
extern sprom_t pellin_sprom_sup;
extern sprom_t pellin_sprom_lc[3];    // mezzanine "DC 1", modules "LC 2" and "LC 3"; no cache
extern sprom_t pellin_sprom_ps[2];    // "PS1", "PS2"
extern sprom_t pellin_sprom_dimm[2];  // "DIMM0", "DIMM1"

// The descriptor at an SPROM address, or null if there is none. Slot 0 is the chassis, slot 1 the supervisor's own;
// in the module slots 2 and 3 any index does.
[[nodiscard]] sprom_t *sprom_init_pellin(uint32_t slot, uint32_t index);

// Store the address of the family's supervisor, backplane or chassis SPROM. Return 0.
int32_t sprom_get_slot_sup_pellin(uint32_t *slot, uint32_t *index);
int32_t sprom_get_slot_bp_pellin(uint32_t *slot, uint32_t *index);
int32_t sprom_get_slot_chassis_pellin(uint32_t *slot, uint32_t *index);

// Tells whether the board belongs to the family: by its identification straps or, where these do not say so, by the
// card index in the supervisor's SPROM, which is read (once, into the descriptor's cache) and verified for it. Returns
// 0        it does
//          -EINVAL  it does not, or the supervisor image is bad; the verifier's lines are printed
//          <  0     a device's negative result
[[nodiscard]] int32_t sprom_platform_probe_pellin(void);

// Write protection of the supervisor's and the backplane's SPROM: bit 27 of I/O port 0x50C, 1 protects. Needs the right
// to raise the I/O privilege level, without which nothing is done; the level is dropped to 0 afterwards. Return 0.
int32_t velto_or_sprom_we(void);
int32_t velto_or_sprom_wd(void);

// Write protection of the mezzanine and of the modules in slots 2 and 3: a pin of an I/O expander, high protects; we
// makes the pin an output if it is an input. The mezzanine's pin depends on the environment variable
// DIAG_HW_CHANGE_BITS, which is read at each call. Return the last expander result; the first negative one ends the
// hook.
int32_t velto_mt_varnholm_sprom_we(void);
int32_t velto_mt_varnholm_sprom_wd(void);
int32_t velto_mt_varnholm_gem_sprom_we(void);
int32_t velto_mt_varnholm_gem_sprom_wd(void);
int32_t velto_mt_mirn_gem_sprom_we(void);
int32_t velto_mt_mirn_gem_sprom_wd(void);
}
