// post_result.h: the machine-readable result records, one line "%d:%d:%d:%d\n" for each tested device.
#pragma once

#include <stdint.h>
#include <stdio.h>

extern "C" {
// Appends one record to /post/result. The file is opened and closed for each record, so that a run that dies part-way
// leaves the records of the devices already done. A file that cannot be opened costs the record and two message lines.
//   field1    0
//   test_id   number of the test
//   device    device number within the row
//   result    POST_RESULT_PASS or POST_RESULT_FAIL
void post_result_write(int32_t field1, int32_t test_id, int32_t device, int32_t result);

// Writes one record to an open stream; nothing when the stream is null.
void post_fd_write(FILE *stream, int32_t field1, int32_t test_id, int32_t device, int32_t result);
}
