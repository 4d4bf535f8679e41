// qemu.h: a machine of QEMU, whose devices are used by its test protocol. Every failure of it ends this process with a
// message; it ends with this process.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

class qemu {
 public:
  // Starts `program` with these arguments. The machine's time is stopped until run().
  qemu(const std::string &program, const std::vector<std::string> &args);
  qemu(const qemu &) = delete;
  qemu &operator=(const qemu &) = delete;
  ~qemu();

  // One bus cycle of 'b', 'w' or 'l': 8, 16 or 32 bits. They take place in their order.
  uint32_t read(char width, uint32_t address);
  void write(char width, uint32_t address, uint32_t value);

  // Several bytes, as the processor would read them.
  std::vector<uint8_t> read_bytes(uint32_t address, size_t count);

  // Let the machine's time run, and stop it again.
  void run() { command("cont"); }
  void stop() { command("stop"); }

 private:
  // A connection whose other end the machine has.
  class line {
   public:
    explicit line(int fd) : m_fd(fd) {}
    void send(const std::string &text);
    std::string receive();

   private:
    int m_fd;
    std::string m_received;
  };

  // Answers to writes are not waited for one by one.
  static constexpr unsigned most_unanswered = 64;

  std::string ask(const std::string &text);
  std::string answer();
  void take_answers();
  void command(const std::string &name);

  pid_t m_child = -1;
  line m_test{-1};
  line m_control{-1};
  unsigned m_unanswered = 0;
};

// Ends this process with a message.
[[noreturn]] void give_up(const std::string &why);
