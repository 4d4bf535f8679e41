// Everything that the system names stands in post's dynamic symbol table: backtraces name functions from it, and
// programs that load post look functions and tables up in it.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/run.h"

namespace {

// clang-format off
constexpr const char *names[] = {
    // post/
    "main short_test dorvan_post tgt_data tree_loc image_name",
    "post_result_write post_fd_write",
    "pfm_get_card_index pfm_get_hw_changes_bits pfm_get_sprom_platform_type",
    "post_read_hw_change_bits dorvan_post_hw_change_bits_get",
    "dorvan_pcie_test pciscan_test pci_scan_devices pci_find_device pci_dump_devices",
    "pci_dev_tbl_dorvan_a pci_dev_tbl_dorvan_b pci_dev_tbl_dorvan_b_p1 pci_dev_tbl_dorvan_c pci_dev_tbl_dorvan_d",
    "dorvan_nic_lpback_test gige_test dorvan_brd_seeprom_test",
    "dorvan_nvram_test mem_test_nvram memory_error",
    "dorvan_obfl_test obfl_post_test obfl_sector_test obfl_sector_setup obfl_sector_cleanup",
    "dataline_test addressline_low_test addressline_high_test obfl_test",
    "cli_printf diag_dbg_print",
    // hw_acc
    "hw_err_to_str hw_err_get_desc hwtype_to_str hwtype_desc intf_type_to_str intf_type_desc",
    "__n_hwtype_entries __n_intf_type_entries",
    "mmap_pci_map mmap_pci_map_cat1 mmap_is_cat1 pci_find_by_vendor_device mmap_get_map_pci",
    "_pci_scan_devices_file _pci_find_cb_vendor_device _pci_find_cb_base_len _pci_get_vendor_device_id",
    "mmap_acc_sizeof mmap_acc_init mmap_map_addr mmap_get_virt_addr devmemfd",
    "_mmap_init _mmap_fini _mmap_rd_lk_acq _mmap_rd_lk_rel _mmap_wr_lk_acq _mmap_wr_lk_rel",
    "_mmap_rd8 _mmap_rd16 _mmap_rd32 _mmap_rd64 _mmap_wr8 _mmap_wr16 _mmap_wr32 _mmap_wr64",
    "nvram_libinit nvram_sw_init nvram_rd nvram_wr nvram_sw_finish _nvram_rd _nvram_wr",
    "obfl_libinit obfl_sw_init obfl_sw_finish get_timeout_val obfl_get_sector_addr",
    "obfl_sector_erase obfl_sector_wr obfl_sector_rd obfl_wr_array obfl_wr_word obfl_rd_array obfl_rd_word",
    "_obfl_wr _obfl_rd _obfl_wr_page _obfl_erase_wait _obfl_write_wait",
    // diag_util
    "lock_create lock_destroy lock_get_rd_lock lock_get_wr_lock lock_get_rd_lockw lock_get_wr_lockw",
    "lock_drop_rd_lock lock_drop_wr_lock lock_req",
    "libinit _init_ptu _init_libtimer get_ptu_parms diag_spin_usec ptu_parms cpu_khz",
    "timer_get_cycles timer_get_cpu_khz timer_diff_cycle_in_msec timer_diff_cycle_in_usec",
    "enqueue_head enqueue_tail enqueue_elem peek_head peek_tail queue_traverse dequeue_head dequeue_tail dequeue_elem",
    "search_and_dequeue_elem tinyq_enqueue tinyq_peek_head tinyq_dequeue tinyq_dequeue_elem",
    "dlq_enqueue_head dlq_enqueue_tail dlq_enqueue_elem dlq_peek_head dlq_peek_tail",
    "dlq_dequeue_head dlq_dequeue_tail dlq_dequeue_elem",
    "timer_module_init timer_new timer_start timer_stop timer_restart timer_update_period timer_free",
    "timer_one_tick_elapsed timer_some_time_elapsed timer_calc_exp_time timer_is_active timer_invoke_callback",
    "timer_update_callback_func timer_get_callback_param timer_get_hash_idx timer_get_timer_tbl timer_set_timer_tbl",
    "log_base2 power",
    // sprom
    "sprom_ntoh sprom_hton at24c512_rd at24c512_wr diag_sprom_rd diag_sprom_wr sprom_read sprom_write",
    "sprom_get_size sprom_get_name sprom_verify diag_sprom_compute_xsum sprom_verify_block",
    "sprom_verify_sup sprom_verify_bp sprom_verify_lc sprom_verify_ps sprom_verify_fan",
    "sprom_init sprom_get_platform sprom_get_slot_sup sprom_get_slot_bp sprom_get_slot_chassis",
    "sprom_get_pid sprom_get_sn sprom_get_hw_change sprom_get_card_index",
    "pca9539_rd pca9539_wr pca9539_write_reg pca9539_reg_rd pca9539_init pca8575_rd pca8575_wr",
    "sprom_init_dorvan dorvan_sprom_sup dorvan_sprom_bp dorvan_sup_dev dorvan_bp_dev",
    "velto_dorvan_sprom_we velto_dorvan_sprom_wd",
    "pellin_sprom_bp pellin_sprom_sup pellin_sprom_lc pellin_sprom_ps pellin_sprom_dimm pellin_bp_dev",
    "pca9539_gem_acc pca9539_mezz_acc",
    "sprom_init_pellin sprom_get_slot_sup_pellin sprom_get_slot_bp_pellin sprom_get_slot_chassis_pellin",
    "sprom_platform_probe_pellin velto_or_sprom_we velto_or_sprom_wd",
    "velto_mt_varnholm_sprom_we velto_mt_varnholm_sprom_wd velto_mt_varnholm_gem_sprom_we",
    "velto_mt_varnholm_gem_sprom_wd velto_mt_mirn_gem_sprom_we velto_mt_mirn_gem_sprom_wd",
    "tosk_sprom_bp tosk_sprom_sup tosk_sprom_lc tosk_sprom_ps tosk_sprom_dimm tosk_bp_dev",
    "sprom_init_tosk sprom_get_slot_sup_tosk sprom_get_slot_bp_tosk sprom_get_slot_chassis_tosk",
    "sprom_platform_probe_tosk sprom_we_tosk sprom_wd_tosk velto_quellrim_gem_sprom_we velto_quellrim_gem_sprom_wd",
};
// clang-format on

// The sizes by name, 0 where the symbol has none.
std::map<std::string, size_t> exported() {
  std::map<std::string, size_t> symbols;
  const std::unique_ptr<FILE, int (*)(FILE *)> nm(popen("nm -D -S --defined-only " POST_BIN_DIR "/post", "r"), pclose);
  char line[1024];
  while (nm && fgets(line, sizeof line, nm.get()) != nullptr) {
    std::istringstream words(line);
    const std::vector<std::string> column{std::istream_iterator<std::string>(words), {}};
    if (column.size() >= 3) symbols[column.back()] = column.size() == 4 ? std::stoul(column[1], nullptr, 16) : 0;
  }
  return symbols;
}

TEST(exports, hold_every_function_and_table) {
  const auto symbols = exported();
  for (const char *line : names) {
    std::istringstream words(line);
    for (std::string name; words >> name;)
      EXPECT_TRUE(symbols.contains(name)) << name;
  }
}

TEST(exports, hold_the_build_stamps) {
  constexpr size_t stamp_size = 200;
  const std::string image = read_file(POST_BIN_DIR "/post");
  auto symbols = exported();
  for (const auto &[name, prefix] :
       {std::pair{"tgt_data", "@@TGT@@"}, {"tree_loc", "@@TREE@@"}, {"image_name", "@@IMAGE@@"}}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(symbols[name], stamp_size);
    const size_t at = image.find(prefix);
    ASSERT_NE(at, std::string::npos);
    const std::string stamp = image.substr(at, stamp_size);
    const std::string text = stamp.c_str();
    EXPECT_GT(text.size(), strlen(prefix));
    EXPECT_EQ(stamp, text + std::string(stamp_size - text.size(), '\0'));
  }
}

}  // namespace
