// What runs POST at boot, on the simulated board: its verdict, and what it keeps.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>

#include "tests/support/run.h"

namespace {

namespace fs = std::filesystem;

const std::string script = POST_SOURCE_DIR "/post/boot/post-boot";

// Runs it with options of board-sim; `before` is a command that comes first.
outcome boot(const fs::path &dir, const std::string &options, const std::string &before = "true") {
  return run_shell(dir, before + "\nexport LOGS_DIRECTORY=\"$PWD/logs\"\nboard-sim --state board " + options + " -- " +
                            shell_word(script) + " -s");
}

TEST(post_boot, ends_as_the_board_does) {
  // clang-format off
  const std::tuple<const char *, const char *, int, size_t> cases[] = {
      {"a sound board",                "",                                     0, 13},
      {"a device fails",               "--fault 'i2c-absent bus=1 addr=0x52'", 1, 13},
      {"POST ends before its verdict", "--fault pci-list-unreadable",          1, 0},
  };
  // clang-format on
  for (const auto &[what, options, status, count] : cases) {
    SCOPED_TRACE(what);
    const temp_dir dir;
    const auto run = boot(dir.path(), options);
    EXPECT_EQ(run.status, status) << run.err;
    EXPECT_FALSE(run.out.empty());
    EXPECT_EQ(read_file(dir.path() / "logs/last/output"), run.out);
    const auto records = read_file(dir.path() / "logs/last/result");
    EXPECT_EQ(static_cast<size_t>(std::ranges::count(records, '\n')), count);
  }
}

// A mkdir that puts a full disk in the place of what a run is to keep.
TEST(post_boot, tells_the_verdict_though_the_disk_is_full) {
  const std::string full_disk =
      "mkdir bin && cat >bin/mkdir <<'END'\n#!/bin/sh\n/bin/mkdir \"$@\" || exit\n"
      "case $1 in */logs/*) ln -s /dev/full \"$1/output\" && ln -s /dev/full \"$1/result\" ;; esac\nEND\n"
      "chmod +x bin/mkdir && export PATH=\"$PWD/bin:$PATH\"";
  for (const std::string fault : {"", "i2c-absent bus=1 addr=0x52"}) {
    const temp_dir dir;
    const auto run = boot(dir.path(), fault.empty() ? "" : "--fault '" + fault + "'", full_disk);
    EXPECT_EQ(run.status, fault.empty() ? 0 : 1) << run.err;
    EXPECT_TRUE(run.out.ends_with("POST is completed\n")) << run.out;
    EXPECT_NE(run.err.find("No space left on device"), std::string::npos) << run.err;
  }
}

TEST(post_boot, keeps_each_run_apart) {
  const temp_dir dir;
  ASSERT_EQ(boot(dir.path(), "", "mkdir -p board/post && echo earlier >board/post/result").status, 0);
  EXPECT_EQ(read_file(dir.path() / "logs/last/result-before"), "earlier\n");
  const auto first = fs::read_symlink(dir.path() / "logs/last").string();
  EXPECT_EQ(first + "\n", read_file("/proc/sys/kernel/random/boot_id"));
  ASSERT_EQ(boot(dir.path(), "--fault sprom-absent").status, 1);
  EXPECT_EQ(fs::read_symlink(dir.path() / "logs/last").string(), first + ".2");
  EXPECT_EQ(read_file(dir.path() / "logs" / first / "result"), read_file(dir.path() / "logs/last/result-before"));
}

TEST(post_boot, forgets_the_oldest_of_more_than_a_hundred_runs_and_nothing_else) {
  const temp_dir dir;
  const auto run = boot(dir.path(), "",
                        "mkdir -p logs/other\n"
                        "for n in $(seq 100 200); do mkdir -p logs/01234567-89ab-cdef-0123-000000000$n; done\n"
                        "touch -d 2020-01-01 logs/*-*150\ntouch -d 2021-01-01 logs/*-*160");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path() / "logs"), {}), 100 + 2);
  EXPECT_FALSE(fs::exists(dir.path() / "logs/01234567-89ab-cdef-0123-000000000150"));
  EXPECT_FALSE(fs::exists(dir.path() / "logs/01234567-89ab-cdef-0123-000000000160"));
}

}  // namespace
