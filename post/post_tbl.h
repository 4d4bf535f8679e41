// post_tbl.h: the POST test table and what every test entry has in common.
#pragma once

#include <stdint.h>

// What a test entry has to say about one device.
enum : uint32_t {
  POST_RESULT_NONE = 0,  // nothing to record
  POST_RESULT_PASS = 1,
  POST_RESULT_FAIL = 2,
};

extern "C" {
// Tests one device.
//   reserved  0
//   result    set to a POST_RESULT_* value
//   device    device number within the row
//   scratch   a word of the sequencer's that no test uses
// Returns 0 when the test ran without error, else a status of the test's own.
typedef uint32_t (*PostTestFn)(uint32_t reserved, uint32_t *result, uint32_t device, uint32_t *scratch);

struct PostTestEntry {
  uint8_t test_id;        // names the test in error lines and result records
  uint32_t first_device;  // first device number
  uint32_t end_device;    // one past the last device number
  const char *name;       // title in the progress line
  PostTestFn entry;
};

extern const PostTestEntry dorvan_post[5];

// 1 when the run skips the NVRAM and OBFL rows and the GigE row tests online; set by main.
extern int32_t short_test;
}

// The result value of an entry that passes exactly when its status is 0.
constexpr uint32_t post_result_of(uint32_t status) {
  return status != 0 ? POST_RESULT_FAIL : POST_RESULT_PASS;
}
