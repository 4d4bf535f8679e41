// hw_err.h: the status codes of the hardware access library.
//
// A family of codes owns a block from its base upwards. Catalogue order is ascending, except for HW_ERR_UNKNOWN, the
// last.
#pragma once

#include <stdint.h>

// clang-format off
#define HW_ERR_CATALOGUE(ROW)                                                                                    \
  ROW(HW_SUCCESS,                        0, "Success")                                                           \
  ROW(HW_ERR_BASE,                     400, "Base of HW_ACC Library error codes")                                \
  ROW(HW_ERR_READ_LOCK_ACQ,            401, "Acquiring read lock failed")                                        \
  ROW(HW_ERR_READ_LOCK_REL,            402, "Releasing read lock failed")                                        \
  ROW(HW_ERR_WRITE_LOCK_ACQ,           403, "Acquiring write lock failed")                                       \
  ROW(HW_ERR_WRITE_LOCK_REL,           404, "Releasing write lock failed")                                       \
  ROW(HW_ERR_LOCK_CREATE,              405, "Creating lock failed")                                              \
  ROW(HW_ERR_MALLOC,                   406, "malloc() failed")                                                   \
  ROW(HW_ERR_MEM_ALIGNMENT,            407, "Unknown memory access alignment")                                   \
  ROW(HW_ERR_FILE_IO,                  408, "File I/O error")                                                    \
  ROW(HW_ERR_FEATURE_NOT_IMPLEMENTED,  409, "Feature not implemented")                                           \
  ROW(HW_ERR_TIMEOUT,                  410, "HW access timed out")                                               \
  ROW(HW_ERR_INV_PARAM,                411, "HW access Invalid Parameter")                                       \
  ROW(HW_ERR_ACC_CMP_VALUE,            412, "Accessibility Test failure -- compare value incorrect")             \
  ROW(HW_ERR_SW_ERROR,                 413, "Diag software error")                                               \
  ROW(HW_ERR_INTR_ERROR,               414, "Interrupt error")                                                   \
  ROW(HW_ERR_CALL_BACK_NOT_PROVIDED,   415, "Call back function not provided - SW programming error")            \
  ROW(HW_ERR_READ_PARITY_ERROR,        416, "Detect parity error when read")                                     \
  ROW(MMAP_ERR_BASE,                   600, "Base of MMAP error codes")                                          \
  ROW(MMAP_ERR_DEV_MEM,                601, "open(/dev/mem) failed")                                             \
  ROW(MMAP_ERR_MMAP,                   602, "mmap() failed")                                                     \
  ROW(MMAP_ERR_MUNMAP,                 603, "munmap() failed")                                                   \
  ROW(MMAP_ERR_HWTYPE_NOT_FOUND,       604, "Unable to located requested hardware type")                         \
  ROW(MMAP_ERR_INST_NOT_FOUND,         605, "Requested  instance of the MMAP device not found")                  \
  ROW(COSIM_ERR_WRONG_MSG_TYPE,        606, "Wrong mesage type")                                                 \
  ROW(COSIM_ERR_WRONG_CLIENT_NUM,      607, "Wrong client number")                                               \
  ROW(COSIM_ERR_GET_MSG_FAIL,          608, "Error receiving message from socket")                               \
  ROW(COSIM_ERR_SEND_MSG_FAIL,         609, "Error sending message to the socket")                               \
  ROW(COSIM_ERR_SERVER_BIND_FAIL,      610, "Error binding to the server")                                       \
  ROW(COSIM_ERR_SERVER_CONNECT_FAIL,   611, "Error connecting to the server")                                    \
  ROW(PCI_ERR_BASE,                   3900, "Base of PCI error codes")                                           \
  ROW(PCI_ERR_DEVICE_NOT_FOUND,       3901, "Requested PCI device not found")                                    \
  ROW(PCI_ERR_INST_NOT_FOUND,         3902, "Requested instance of the PCI device not found")                    \
  ROW(PCI_ERR_64_BIT_MEMORY_SPACE,    3903, "PCI BAR is a 64-bit memory space")                                  \
  ROW(PCI_ERR_UNKNOWN_PCI_DEVICE,     3904, "Requested device is not a known PCI device")                        \
  ROW(HW_ERR_UNKNOWN,                  200, "Unknown Error Code")
// clang-format on

enum : uint32_t {
#define HW_ERR_ENUM(name, code, desc) name = code,
  HW_ERR_CATALOGUE(HW_ERR_ENUM)
#undef HW_ERR_ENUM
};

extern "C" {
// The symbolic name of a status code, as the constant is spelled: a constant string, "" for a code that is not in the
// catalogue. The first row with the code wins.
[[nodiscard]] const char *hw_err_to_str(uint32_t code);

// The one-line description of a status code; otherwise as hw_err_to_str.
[[nodiscard]] const char *hw_err_get_desc(uint32_t code);
}
