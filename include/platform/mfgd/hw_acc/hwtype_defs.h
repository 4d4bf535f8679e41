// hwtype_defs.h: the kinds of hardware that the diagnostic libraries address.
//
// One list gives the enumeration and the table; values are places in the list. The values of rows in use are fixed, as
// other programs know them by number: a new kind takes a reserved row.
#pragma once

#include <stdint.h>

// clang-format off
#define HWTYPE_CATALOGUE(ROW)                                          \
  ROW(HWTYPE_NULL,              "NULL HWTYPE")                         \
  ROW(HWTYPE_ALL,               "All Components")                      \
  ROW(HWTYPE_CPU,               "Supervisor CPU")                      \
  ROW(HWTYPE_DIMM,              "Memory Module")                       \
  ROW(HWTYPE_LOOKUP_START,      "LOOKUP_START")                        \
  ROW(HWTYPE_RESERVED_5,        "Reserved")                            \
  ROW(HWTYPE_RESERVED_6,        "Reserved")                            \
  ROW(HWTYPE_RESERVED_7,        "Reserved")                            \
  ROW(HWTYPE_RESERVED_8,        "Reserved")                            \
  ROW(HWTYPE_RESERVED_9,        "Reserved")                            \
  ROW(HWTYPE_LOOKUP_END,        "LOOKUP_END")                          \
  ROW(HWTYPE_DATAPATH_START,    "DATAPATH_START")                      \
  ROW(HWTYPE_TESSARYN,          "Tessaryn Central Switch Fabric ASIC") \
  ROW(HWTYPE_LORWEN,            "Lorwen Switch ASIC")                  \
  ROW(HWTYPE_LORWEN_FABRIC,     "Lorwen Central Switch Fabric ASIC")   \
  ROW(HWTYPE_HOLVIK,            "Marvell Holvik ASIC")                 \
  ROW(HWTYPE_RESERVED_16,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_17,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_18,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_19,       "Reserved")                            \
  ROW(HWTYPE_DATAPATH_END,      "DATAPATH_END")                        \
  ROW(HWTYPE_RESERVED_21,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_22,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_23,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_24,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_25,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_26,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_27,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_28,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_29,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_30,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_31,       "Reserved")                            \
  ROW(HWTYPE_RTC_NVRAM,         "RTC_NVRAM")                           \
  ROW(HWTYPE_OBFL_FLASH,        "OBFL_Flash")                          \
  ROW(HWTYPE_BOOT_FLASH,        "Boot Flash")                          \
  ROW(HWTYPE_SUP_SPROM,         "Supervisor SPROM")                    \
  ROW(HWTYPE_BP_SPROM,          "Backplane SPROM")                     \
  ROW(HWTYPE_LC_SPROM,          "Line Card SPROM")                     \
  ROW(HWTYPE_PS_SPROM,          "Power Supply SPROM")                  \
  ROW(HWTYPE_FAN_SPROM,         "Fan SPROM")                           \
  ROW(HWTYPE_INTEL_MAC_82571,   "Intel MAC 82571")                     \
  ROW(HWTYPE_INTEL_MAC_82575EB, "Intel MAC 82575EB")                   \
  ROW(HWTYPE_INTEL_MAC_82576EB, "Intel MAC 82576EB")                   \
  ROW(HWTYPE_RESERVED_43,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_44,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_45,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_46,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_47,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_48,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_49,       "Reserved")                            \
  ROW(HWTYPE_AT24C512,          "AT24C512 Serial EEPROM")              \
  ROW(HWTYPE_PCA9539,           "PCA9539 I2C I/O Expander")            \
  ROW(HWTYPE_PCA8575,           "PCA8575 I2C I/O Expander")            \
  ROW(HWTYPE_RESERVED_53,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_54,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_55,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_56,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_57,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_58,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_59,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_60,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_61,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_62,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_63,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_64,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_65,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_66,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_67,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_68,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_69,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_70,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_71,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_72,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_73,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_74,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_75,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_76,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_77,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_78,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_79,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_80,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_81,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_82,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_83,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_84,       "Reserved")                            \
  ROW(HWTYPE_SYS_WL_SMBUS,      "Whitmore Lake SMBus Controller")      \
  ROW(HWTYPE_RESERVED_86,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_87,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_88,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_89,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_90,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_91,       "Reserved")                            \
  ROW(HWTYPE_PLX_PCI,           "PLX Technology PCI Bridge")           \
  ROW(HWTYPE_PLX_8112,          "PLX 8112 PCIe Bridge")                \
  ROW(HWTYPE_PLX_8608,          "PLX 8608 PCIe Bridge")                \
  ROW(HWTYPE_PLX_8618,          "PLX 8618 PCIe Bridge")                \
  ROW(HWTYPE_RESERVED_96,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_97,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_98,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_99,       "Reserved")                            \
  ROW(HWTYPE_RESERVED_100,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_101,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_102,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_103,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_104,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_105,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_106,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_107,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_108,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_109,      "Reserved")                            \
  ROW(HWTYPE_DORVAN_SUP,        "Dorvan Supervisor")                   \
  ROW(HWTYPE_PELLIN_SUP,        "Pellin Supervisor")                   \
  ROW(HWTYPE_TOSK_SUP,          "Tosk Supervisor")                     \
  ROW(HWTYPE_VARNHOLM,          "Varnholm Mezzanine")                  \
  ROW(HWTYPE_VARNHOLM_GEM,      "Varnholm GEM Module")                 \
  ROW(HWTYPE_MIRN_GEM,          "Mirn GEM Module")                     \
  ROW(HWTYPE_QUELLRIM_GEM,      "Quellrim GEM Module")                 \
  ROW(HWTYPE_RESERVED_117,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_118,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_119,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_120,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_121,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_122,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_123,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_124,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_125,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_126,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_127,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_128,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_129,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_130,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_131,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_132,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_133,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_134,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_135,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_136,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_137,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_138,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_139,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_140,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_141,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_142,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_143,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_144,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_145,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_146,      "Reserved")                            \
  ROW(HWTYPE_RESERVED_147,      "Reserved")                            \
  ROW(HWTYPE_BACKPLANE,         "Backplane")                           \
  ROW(HWTYPE_POWER_SUPPLY,      "Power Supply")                        \
  ROW(HWTYPE_FAN,               "Fan")                                 \
  ROW(HWTYPE_CHASSIS,           "Generic Chassis Type")                \
  ROW(HWTYPE_EXAMPLE,           "Example")                             \
  ROW(HWTYPE_MAX,               "Maximum hardware type")
// clang-format on

enum : uint32_t {
#define HWTYPE_ENUM(name, desc) name,
  HWTYPE_CATALOGUE(HWTYPE_ENUM)
#undef HWTYPE_ENUM
};

struct hwtype_row_t {
  const char *m_name;
  const char *m_desc;
};

// Row i is value i.
inline constexpr hwtype_row_t hwtype_rows[] = {
#define HWTYPE_ROW(name, desc) {#name, desc},
    HWTYPE_CATALOGUE(HWTYPE_ROW)
#undef HWTYPE_ROW
};

// Where a value without a row is missing, for the assertion.
inline constexpr char hwtype_rows_file[] = __FILE__;
inline constexpr unsigned hwtype_rows_line = __LINE__;

extern "C" {
// Number of rows, one more than the last value.
[[gnu::used]] inline constexpr uint32_t __n_hwtype_entries = sizeof hwtype_rows / sizeof hwtype_rows[0];

// The constant's own spelling, and the description. A value without a row fails a standard assertion.
[[nodiscard]] const char *hwtype_to_str(uint32_t id);
[[nodiscard]] const char *hwtype_desc(uint32_t id);
}

static_assert(HWTYPE_LOOKUP_END == 10 && HWTYPE_DATAPATH_START == 11 && HWTYPE_DATAPATH_END == 20);
static_assert(HWTYPE_RTC_NVRAM == 32 && HWTYPE_OBFL_FLASH == 33 && HWTYPE_INTEL_MAC_82571 == 40);
static_assert(HWTYPE_SYS_WL_SMBUS == 85 && HWTYPE_PLX_PCI == 92 && HWTYPE_CHASSIS == 151);
static_assert(HWTYPE_MAX == 153 && __n_hwtype_entries == HWTYPE_MAX + 1);
