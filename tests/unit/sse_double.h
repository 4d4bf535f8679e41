// sse_double.h: a recording I2C service with EEPROMs and expanders behind it, in place of libutils.so.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

struct sse_double {
  // One line for each transaction, and whatever else a test adds to see the order:
  //   "w 7:0.1 12 34 56"  operation (r or w), device kind:unit.instance, command byte (-- for none), data bytes
  // A failed transaction ends in " !".
  std::vector<std::string> log;

  size_t fail_at = SIZE_MAX;  // number of the transaction that fails, from 0
  int32_t fail_result = -6;
  int32_t ok_result = 0;
  size_t calls = 0;

  // Device contents by (device kind, unit, instance); a missing device fails with -6.
  using identity = std::array<uint32_t, 3>;
  struct eeprom {
    std::vector<uint8_t> bytes = std::vector<uint8_t>(0x10000, 0xFF);
    uint16_t counter = 0;
  };
  std::map<identity, eeprom> eeproms;                   // kind 7
  std::map<identity, std::array<uint8_t, 8>> pca9539s;  // kind 15: registers
  std::map<identity, std::array<uint8_t, 2>> pca8575s;  // kind 16: ports
};

// The service that sse_call meets. Assign a new one to begin a test.
extern sse_double sse;
