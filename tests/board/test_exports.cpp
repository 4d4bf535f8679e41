// Everything that the objects of post define stands in its dynamic symbol table under its plain name: backtraces name
// functions from it, and programs that load post look functions and tables up in it.
#include "tests/support/run.h"
#include "tests/support/text.h"

namespace {

// Names that no test uses and that could be lost or misspelled unseen.
constexpr char unused[] =
    "main dorvan_post tgt_data tree_loc image_name memory_error obfl_sector_setup obfl_sector_cleanup "
    "pci_dev_tbl_dorvan_a pci_dev_tbl_dorvan_b pci_dev_tbl_dorvan_b_p1 pci_dev_tbl_dorvan_c pci_dev_tbl_dorvan_d "
    "mmap_pci_map mmap_pci_map_cat1 mmap_is_cat1 _pci_scan_devices_file _pci_find_cb_vendor_device _mmap_init "
    "_mmap_wr_lk_acq _mmap_rd8 _mmap_rd32 _mmap_rd64 _mmap_wr8 _mmap_wr32 _mmap_wr64 _obfl_wr _obfl_rd "
    "_init_libtimer dorvan_sup_dev dorvan_bp_dev velto_dorvan_sprom_we velto_dorvan_sprom_wd sprom_verify_sup "
    "sprom_verify_bp sprom_verify_lc sprom_verify_ps sprom_verify_fan sprom_init_pellin sprom_get_slot_sup_pellin "
    "sprom_get_slot_bp_pellin sprom_get_slot_chassis_pellin velto_or_sprom_we velto_or_sprom_wd "
    "velto_mt_varnholm_gem_sprom_we velto_mt_varnholm_gem_sprom_wd velto_mt_mirn_gem_sprom_we "
    "velto_mt_mirn_gem_sprom_wd sprom_init_tosk sprom_get_slot_sup_tosk sprom_get_slot_bp_tosk "
    "sprom_get_slot_chassis_tosk sprom_we_tosk sprom_wd_tosk";

struct symbol_t {
  char type;    // as nm has it
  size_t size;  // 0 where there is none
};

std::map<std::string, symbol_t> symbols_of(const std::string &arguments) {
  std::map<std::string, symbol_t> symbols;
  for (const std::string &line : lines_of(run_shell("/", "nm -S --defined-only " + arguments).out)) {
    std::istringstream words(line);
    const std::vector<std::string> column{std::istream_iterator<std::string>(words), {}};
    if (column.size() < 3) continue;
    const size_t size = column.size() == 4 ? std::stoul(column[1], nullptr, 16) : 0;
    symbols[column.back()] = {column[column.size() - 2][0], size};
  }
  return symbols;
}

// A declaration that lost its C linkage exports another name; steps inside the SPROM library have C++ linkage.
TEST(exports, hold_all_that_the_objects_define) {
  static const std::regex plain("[a-z_][a-z0-9_]*"), inner("_Z[0-9]+sprom_(family|pin|port)_.*"),
      foreign("(DW|__odr|__x86).*");
  const auto exported = symbols_of("-D " + shell_word(POST_BIN_DIR "/post"));
  size_t defined = 0;
  for (const auto &[name, symbol] : symbols_of("-g " POST_OBJECTS)) {
    const bool is_template = strchr("TDRB", symbol.type) == nullptr;
    if (is_template || std::regex_match(name, inner) || std::regex_match(name, foreign)) continue;
    EXPECT_TRUE(std::regex_match(name, plain) && exported.contains(name)) << name;
    ++defined;
  }
  EXPECT_GT(defined, 230U);
  for (const std::string &name : lines_of(unused, ' '))
    EXPECT_TRUE(exported.contains(name)) << name;
}

// Inlined into its own module's functions, an exported one is in no backtrace and cannot be stopped at by its name.
TEST(exports, are_called_by_their_names_within_their_modules_too) {
  const temp_dir dir;
  const auto called = run_shell(dir.path(), "readelf -rW " POST_OBJECTS
                                            " | sed -nE 's/.*_PLT32 +[0-9a-f]+ +([^ ]+).*/<\\1>/p' | sort -u")
                          .out;
  for (const std::string name : {"pci_scan_devices", "obfl_sector_test", "_obfl_wr", "mmap_is_cat1", "timer_start",
                                 "dlq_enqueue_elem", "diag_sprom_rd", "sprom_verify_sup", "sprom_init_pellin"})
    EXPECT_NE(called.find("<" + name + ">\n"), std::string::npos) << name;
}

TEST(exports, hold_the_build_stamps) {
  constexpr size_t stamp_size = 200;
  const std::string image = read_file(POST_BIN_DIR "/post");
  auto symbols = symbols_of("-D " + shell_word(POST_BIN_DIR "/post"));
  for (const auto &[name, prefix] :
       {std::pair{"tgt_data", "@@TGT@@"}, {"tree_loc", "@@TREE@@"}, {"image_name", "@@IMAGE@@"}}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(symbols[name].size, stamp_size);
    const size_t at = image.find(prefix);
    ASSERT_NE(at, std::string::npos);
    const std::string stamp = image.substr(at, stamp_size), text = stamp.substr(0, stamp.find('\0'));
    EXPECT_GT(text.size(), strlen(prefix));
    EXPECT_EQ(stamp, text + std::string(stamp_size - text.size(), '\0'));
  }
}

}  // namespace
