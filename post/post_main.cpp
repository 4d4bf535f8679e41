// post_main.cpp: the POST sequencer.
#include <stdint.h>
#include <stdio.h>
#include <sys/time.h>

#include <span>

#include "post/hw_change_bits.h"
#include "post/post_result.h"
#include "post/post_tbl.h"

namespace {

// State of one run.
struct post_run {
  bool failed = false;
  uint32_t result = POST_RESULT_NONE;
  uint32_t scratch = 0;
};

void read_flag(std::span<char *> args) {
  short_test = 0;
  if (args.size() < 2 || args[1][0] != '-') return;
  const char flag = args[1][1];
  if (flag == 'S' || flag == 's') {
    short_test = 1;
  } else {
    printf("Warning: Unsupported flag \"-%c\"! Ignoring it\n", flag);
  }
}

// The NVRAM and OBFL tests.
bool is_long_test(const PostTestEntry &row) {
  return row.test_id == 8 || row.test_id == 10;
}

void test_device(const PostTestEntry &row, uint32_t device, post_run *run) {
  putchar('.');
  fflush(stdout);
  run->result = POST_RESULT_NONE;
  if (row.entry(0, &run->result, device, &run->scratch) != 0) {
    printf("\n ERROR: Executing %d on dev %d\n", row.test_id, static_cast<int>(device));
    run->failed = true;
  }
  if (run->result != POST_RESULT_NONE) {
    post_result_write(0, row.test_id, static_cast<int32_t>(device), static_cast<int32_t>(run->result));
  }
}

void test_row(const PostTestEntry &row, post_run *run) {
  timeval start{};
  timeval end{};
  gettimeofday(&start, nullptr);
  if (short_test == 1 && is_long_test(row)) return;

  printf("  Executing %s: \n", row.name);
  fflush(stdout);
  for (uint32_t device = row.first_device; device < row.end_device; ++device)
    test_device(row, device, run);
  gettimeofday(&end, nullptr);
  printf("done (%d seconds)\n",
         static_cast<int>(static_cast<uint32_t>(end.tv_sec) - static_cast<uint32_t>(start.tv_sec)));
}

}  // namespace

// Runs the POST. Always returns 0; the verdict is the second last line of the output.
int main(int argc, char **argv) {
  read_flag({argv, static_cast<size_t>(argc)});
  puts("Starting system POST.....");
  post_read_hw_change_bits();
  printf("P(0x%llx) board\n", static_cast<unsigned long long>(dorvan_post_hw_change_bits_get()));

  post_run run;
  for (const PostTestEntry &row : dorvan_post)
    test_row(row, &run);

  printf("  Mod 1 1 Post %s\n", run.failed ? "Failed" : "Completed Successfully");
  puts("POST is completed");
  return 0;
}
