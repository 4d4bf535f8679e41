#include "post/dorvan/pcie_tbl.h"

#include <stddef.h>

#include "platform/mfgd/hw_acc/switch_asic.h"

namespace {

// clang-format off
constexpr uint32_t intel   = 0x8086;
constexpr uint32_t plx     = 0x10B5;
constexpr uint32_t marvell = 0x11AB;
constexpr uint32_t asic    = SWITCH_ASIC_VENDOR_ID;

constexpr char intel_gige[]           = "Intel Gigabit Ethernet Controller";
constexpr char lorwen_switch[]        = "Lorwen ASIC - Velto Switch ASIC";
constexpr char tessaryn_fabric[]      = "Tessaryn ASIC - Velto Switch Central Switch Fabric ASIC";
constexpr char marvell_holvik[]       = "Marvell Holvik ASIC";
constexpr char marvel_holvik[]        = "Marvel Holvik ASIC";
constexpr char intel_82575eb[]        = "Intel 82575EB Gigabit Ethernet Controller";
constexpr char plx8608[]              = "PLX8608 PCIe/PCIe bridge: PLX Technology, Inc.";
constexpr char plx8618[]              = "PLX8618 PCIe/PCIe bridge: PLX Technology, Inc.";
constexpr char lorwen_fabric[]        = "Lorwen ASIC - Velto Switch Central Switch Fabric ASIC";
constexpr char intel_82575eb_inband[] = "Intel 82575EB Inband Gigabit Ethernet Controller";
constexpr char plx9030[]              = "PLX9030 PCIe/PCIe bridge: PLX Technology, Inc.";
constexpr char intel_82576eb[]        = "Intel 82576EB Gigabit Ethernet Controller";
constexpr char intel_82576eb_inband[] = "Intel 82576EB Inband Gigabit Ethernet Controller";
constexpr char plx8112[]              = "PLX8112 PCIe/PCIe bridge: PLX Technology, Inc.";
// clang-format on

constexpr pci_dev_tbl_entry row(uint8_t bus, uint8_t dev, uint8_t func, uint32_t vendor, uint32_t device,
                                const char *description) {
  pci_dev_tbl_entry entry{bus, dev, func, vendor, device, {}};
  for (size_t i = 0; description[i] != '\0'; ++i)
    entry.description[i] = description[i];
  return entry;
}

}  // namespace

// clang-format off
constexpr std::array<pci_dev_tbl_entry, 15> pci_dev_tbl_dorvan_a = {
    //  bus   dev func vendor   device  description
    row(0x02,  0, 0, intel,   0x1521, intel_gige),
    row(0x02,  0, 1, intel,   0x1521, intel_gige),
    row(0x01,  0, 1, intel,   0x0438, intel_gige),
    row(0x01,  0, 2, intel,   0x0438, intel_gige),
    row(0x01,  0, 3, intel,   0x0436, intel_gige),
    row(0x01,  0, 4, intel,   0x0436, intel_gige),
    row(0x1A,  0, 0, asic,    0x00BE, lorwen_switch),
    row(0x1B,  0, 0, asic,    0x0078, tessaryn_fabric),
    row(0x1C,  0, 0, asic,    0x00BE, lorwen_switch),
    row(0x1D,  0, 0, asic,    0x00BE, lorwen_switch),
    row(0x1E,  0, 0, asic,    0x00BE, lorwen_switch),
    row(0x1F,  0, 0, asic,    0x00BE, lorwen_switch),
    row(0x20,  0, 0, asic,    0x00BE, lorwen_switch),
    row(0x17,  0, 0, marvell, 0x8000, marvell_holvik),
    row(0x21,  0, 0, marvell, 0x8000, marvel_holvik),
};

constexpr std::array<pci_dev_tbl_entry, 20> pci_dev_tbl_dorvan_b = {
    //  bus   dev func vendor   device  description
    row(0x02,  0, 0, intel,   0x10A7, intel_82575eb),
    row(0x03,  0, 0, plx,     0x8608, plx8608),
    row(0x04,  1, 0, plx,     0x8608, plx8608),
    row(0x05,  0, 0, asic,    0x0078, tessaryn_fabric),
    row(0x06,  0, 0, plx,     0x8618, plx8618),
    row(0x07,  1, 0, plx,     0x8618, plx8618),
    row(0x17,  0, 0, asic,    0x0078, tessaryn_fabric),
    row(0x18,  0, 0, plx,     0x8618, plx8618),
    row(0x19,  1, 0, plx,     0x8618, plx8618),
    row(0x29,  0, 0, asic,    0x0078, tessaryn_fabric),
    row(0x2A,  0, 0, asic,    0x0078, tessaryn_fabric),
    row(0x2B,  0, 0, asic,    0x0077, lorwen_fabric),
    row(0x2C,  0, 0, intel,   0x10A9, intel_82575eb_inband),
    row(0x2E,  0, 0, plx,     0x9030, plx9030),
    row(0x2F,  0, 0, plx,     0x8618, plx8618),
    row(0x30,  1, 0, plx,     0x8618, plx8618),
    row(0x40,  0, 0, plx,     0x8618, plx8618),
    row(0x41,  1, 0, plx,     0x8618, plx8618),
    row(0x51,  0, 0, plx,     0x8618, plx8618),
    row(0x52,  1, 0, plx,     0x8618, plx8618),
};

constexpr std::array<pci_dev_tbl_entry, 11> pci_dev_tbl_dorvan_c = {
    //  bus   dev func vendor   device  description
    row(0x02,  0, 0, intel,   0x1521, intel_82576eb),
    row(0x04,  0, 0, intel,   0x1523, intel_82576eb_inband),
    row(0x06,  0, 0, plx,     0x9030, plx9030),
    row(0x07,  0, 0, plx,     0x8608, plx8608),
    row(0x08,  1, 0, plx,     0x8608, plx8608),
    row(0x09,  0, 0, asic,    0x0077, lorwen_fabric),
    row(0x0A,  0, 0, asic,    0x0078, tessaryn_fabric),
    row(0x0B,  0, 0, asic,    0x0077, lorwen_fabric),
    row(0x0C,  0, 0, asic,    0x0077, lorwen_fabric),
    row(0x0D,  0, 0, asic,    0x0077, lorwen_fabric),
    row(0x0E,  0, 0, asic,    0x0077, lorwen_fabric),
};

constexpr std::array<pci_dev_tbl_entry, 14> pci_dev_tbl_dorvan_d = {
    //  bus   dev func vendor   device  description
    row(0x02,  0, 0, intel,   0x1521, intel_82576eb),
    row(0x03,  0, 0, asic,    0x00BE, lorwen_fabric),
    row(0x04,  0, 0, intel,   0x1523, intel_82576eb_inband),
    row(0x05,  0, 0, plx,     0x8112, plx8112),
    row(0x06,  0, 0, plx,     0x9030, plx9030),
    row(0x07,  0, 0, plx,     0x8608, plx8608),
    row(0x08,  1, 0, plx,     0x8608, plx8608),
    row(0x09,  0, 0, asic,    0x00BE, lorwen_fabric),
    row(0x0A,  0, 0, asic,    0x0078, tessaryn_fabric),
    row(0x0B,  0, 0, asic,    0x00BE, lorwen_fabric),
    row(0x0C,  0, 0, asic,    0x00BE, lorwen_fabric),
    row(0x0D,  0, 0, asic,    0x00BE, lorwen_fabric),
    row(0x0E,  0, 0, asic,    0x00BE, lorwen_fabric),
    row(0x0F,  0, 0, asic,    0x00BE, lorwen_fabric),
};
// clang-format on

// Revision P1 carries other Ethernet controllers.
constexpr std::array<pci_dev_tbl_entry, 20> pci_dev_tbl_dorvan_b_p1 = [] {
  auto table = pci_dev_tbl_dorvan_b;
  table[0] = row(0x02, 0, 0, intel, 0x1521, intel_82576eb);
  table[12] = row(0x2C, 0, 0, intel, 0x1523, intel_82576eb_inband);
  return table;
}();
