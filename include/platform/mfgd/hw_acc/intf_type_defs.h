// intf_type_defs.h: the kinds of links between two devices.
//
// Built as the hardware types are. A link's name is its two ends, at times with the link kind.
#pragma once

#include <stdint.h>

// clang-format off
#define INTF_TYPE_CATALOGUE(ROW)                                            \
  ROW(INTF_TYPE_NULL,                   "NULL INTF")                        \
  ROW(INTF_TYPE_ALL,                    "All Interface types")              \
  ROW(INTF_TYPE_CPU_DIMM_DDR,           "CPU to Memory Module DDR")         \
  ROW(INTF_TYPE_CPU_PLX_PCI,            "CPU to PLX PCI Bridge")            \
  ROW(INTF_TYPE_CPU_MAC_PCIE,           "CPU to Ethernet MAC PCIe")         \
  ROW(INTF_TYPE_PLX_NVRAM,              "PLX PCI Bridge to RTC NVRAM")      \
  ROW(INTF_TYPE_PLX_OBFL,               "PLX PCI Bridge to OBFL Flash")     \
  ROW(INTF_TYPE_PLX_TESSARYN_PCIE,      "PLX PCIe Bridge to Tessaryn PCIe") \
  ROW(INTF_TYPE_PLX_LORWEN_PCIE,        "PLX PCIe Bridge to Lorwen PCIe")   \
  ROW(INTF_TYPE_TESSARYN_LORWEN_SERDES, "Tessaryn to Lorwen SERDES")        \
  ROW(INTF_TYPE_LORWEN_LORWEN_SERDES,   "Lorwen to Lorwen SERDES")          \
  ROW(INTF_TYPE_LORWEN_HOLVIK_XFI,      "Lorwen to Holvik XFI")             \
  ROW(INTF_TYPE_MAC_HOLVIK_SGMII,       "Ethernet MAC to Holvik SGMII")     \
  ROW(INTF_TYPE_RESERVED_13,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_14,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_15,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_16,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_17,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_18,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_19,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_20,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_21,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_22,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_23,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_24,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_25,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_26,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_27,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_28,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_29,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_30,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_31,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_32,            "Reserved")                         \
  ROW(INTF_TYPE_FP_SFP,                 "Front Panel Port to SFP")          \
  ROW(INTF_TYPE_HOLVIK_FP_SGMII,        "Holvik to Front Panel Port SGMII") \
  ROW(INTF_TYPE_HOLVIK_SFP_SERDES,      "Holvik to SFP SERDES")             \
  ROW(INTF_TYPE_SMBUS_SPROM,            "SMBus Controller to SPROM")        \
  ROW(INTF_TYPE_SMBUS_EXPANDER,         "SMBus Controller to I/O Expander") \
  ROW(INTF_TYPE_SUP_BACKPLANE,          "Supervisor to Backplane")          \
  ROW(INTF_TYPE_BACKPLANE_LC,           "Backplane to Line Card")           \
  ROW(INTF_TYPE_RESERVED_40,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_41,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_42,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_43,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_44,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_45,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_46,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_47,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_48,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_49,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_50,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_51,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_52,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_53,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_54,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_55,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_56,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_57,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_58,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_59,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_60,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_61,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_62,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_63,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_64,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_65,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_66,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_67,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_68,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_69,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_70,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_71,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_72,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_73,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_74,            "Reserved")                         \
  ROW(INTF_TYPE_RESERVED_75,            "Reserved")
// clang-format on

enum : uint32_t {
#define INTF_TYPE_ENUM(name, desc) name,
  INTF_TYPE_CATALOGUE(INTF_TYPE_ENUM)
#undef INTF_TYPE_ENUM
};

struct intf_type_row_t {
  const char *m_name;
  const char *m_desc;
};

// Row i is value i.
inline constexpr intf_type_row_t intf_type_rows[] = {
#define INTF_TYPE_ROW(name, desc) {#name, desc},
    INTF_TYPE_CATALOGUE(INTF_TYPE_ROW)
#undef INTF_TYPE_ROW
};

// Where a value without a row is missing, for the assertion.
inline constexpr char intf_type_rows_file[] = __FILE__;
inline constexpr unsigned intf_type_rows_line = __LINE__;

extern "C" {
// Number of rows, one more than the last value.
[[gnu::used]] inline constexpr uint32_t __n_intf_type_entries = sizeof intf_type_rows / sizeof intf_type_rows[0];

// The constant's own spelling, and the description. A value without a row fails a standard assertion.
[[nodiscard]] const char *intf_type_to_str(uint32_t id);
[[nodiscard]] const char *intf_type_desc(uint32_t id);
}

static_assert(INTF_TYPE_FP_SFP == 33 && __n_intf_type_entries == 76);
