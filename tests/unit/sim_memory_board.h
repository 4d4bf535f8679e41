// sim_memory_board.h: the memory side of a board alone, in a state directory of its own.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <span>
#include <string>
#include <vector>

#include "sim/devmem.h"
#include "sim/layout.h"
#include "sim/trace.h"

enum window_number : size_t { nvram0, nvram1, nvram2, flash };

class memory_board {
 public:
  // Starts a board with these faults; with a log if `traced`.
  explicit memory_board(std::initializer_list<const char *> faults = {}, bool traced = false) {
    char name[] = "/tmp/board-XXXXXX";
    opts.state = mkdtemp(name);
    for (const auto *text : faults) {
      std::string error;
      const auto f = sim::fault_parse(text, &error);
      if (!f) ADD_FAILURE() << error;
      if (f) opts.faults.push_back(*f);
    }
    if (traced) opts.trace = opts.state + "/trace";
  }
  memory_board(const memory_board &) = delete;
  memory_board &operator=(const memory_board &) = delete;
  ~memory_board() {
    sim::devmem_stop();
    (void)sim::trace_open("");
    for (const auto &bytes : files)
      if (!bytes.empty()) munmap(bytes.data(), bytes.size());
    std::filesystem::remove_all(opts.state);
  }

  // Later changes of `opts` count until here.
  void start() {
    ASSERT_TRUE(sim::trace_open(opts.trace));
    ASSERT_TRUE(sim::devmem_start(opts));
  }

  // Maps a window as drivers do.
  template <class T>
  volatile T *map(size_t window) {
    const auto &w = sim::windows[window];
    void *const address = sim::devmem_map(w.length, PROT_READ | PROT_WRITE, MAP_SHARED, w.base);
    EXPECT_NE(address, MAP_FAILED);
    return static_cast<volatile T *>(address);
  }

  // The contents of a device, in its file.
  std::span<uint8_t> contents(size_t window) {
    auto &bytes = files[window];
    if (bytes.empty()) {
      const int fd = open((opts.state + "/" + sim::windows[window].name).c_str(), O_RDWR | O_CLOEXEC);
      const size_t length = sim::windows[window].length;
      void *const address = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
      EXPECT_NE(address, MAP_FAILED);
      if (address != MAP_FAILED) bytes = {static_cast<uint8_t *>(address), length};
      close(fd);
    }
    return bytes;
  }

  // A copy, for comparisons.
  std::vector<uint8_t> snapshot(size_t window) {
    const auto bytes = contents(window);
    return {bytes.begin(), bytes.end()};
  }

  // The log without its times, since the last call.
  std::vector<std::string> log() {
    std::ifstream in(opts.trace);
    in.seekg(log_read);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) {
      log_read += static_cast<std::streamoff>(line.size() + 1);
      lines.push_back(line.substr(line.find(' ') + 1));
    }
    return lines;
  }

  sim::options opts;

 private:
  std::array<std::span<uint8_t>, sim::windows.size()> files{};
  std::streamoff log_read = 0;
};
