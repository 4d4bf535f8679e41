#include "post/post_result.h"

#include "platform/mfgd/cmn_lib/diag_util/owner.h"

namespace {
constexpr char result_file[] = "/post/result";
}

void post_result_write(int32_t field1, int32_t test_id, int32_t device, int32_t result) {
  const file_ptr file(fopen(result_file, "a"));
  if (!file) {
    puts("Could not open file post_results.txt");
    printf("ERROR: Failed to open %s (%d)\n", result_file, 0);
    return;
  }
  post_fd_write(file.get(), field1, test_id, device, result);
}

void post_fd_write(FILE *stream, int32_t field1, int32_t test_id, int32_t device, int32_t result) {
  if (stream == nullptr) return;
  (void)fprintf(stream, "%d:%d:%d:%d\n", field1, test_id, device, result);
}
