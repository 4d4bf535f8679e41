#include "tools/peers/qemu.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

// A pair of connected sockets. The first is lost in the machine's process.
struct ends {
  int own;
  int peers;
};

ends connect() {
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) give_up("no sockets");
  if (fcntl(fds[0], F_SETFD, FD_CLOEXEC) != 0) give_up("no sockets");
  return {fds[0], fds[1]};
}

// What the machine says on its standard error, for when it ends.
const int said = memfd_create("qemu", 0);

[[noreturn]] void ended() {
  char text[4096];
  const ssize_t length = pread(said, text, sizeof text, 0);
  if (length > 0) (void)!::write(STDERR_FILENO, text, static_cast<size_t>(length));
  give_up("qemu has ended");
}

[[noreturn]] void become(std::vector<std::string> args) {
  // It must not outlive this process, however that ends.
  (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
  (void)dup2(said, STDERR_FILENO);
  std::vector<char *> argv;
  argv.reserve(args.size() + 1);
  for (std::string &arg : args)
    argv.push_back(arg.data());
  argv.push_back(nullptr);
  (void)execvp(argv[0], argv.data());
  (void)dprintf(STDERR_FILENO, "%s: %s\n", argv[0], std::strerror(errno));
  _exit(127);
}

}  // namespace

void give_up(const std::string &why) {
  (void)std::fprintf(stderr, "%s\n", why.c_str());
  std::exit(1);
}

void qemu::line::send(const std::string &text) {
  for (size_t sent = 0; sent < text.size();) {
    const ssize_t now = ::send(m_fd, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (now <= 0) ended();
    sent += static_cast<size_t>(now);
  }
}

std::string qemu::line::receive() {
  for (;;) {
    if (const size_t end = m_received.find('\n'); end != std::string::npos) {
      std::string text = m_received.substr(0, end);
      m_received.erase(0, end + 1);
      return text;
    }
    char bytes[0x10000];
    const ssize_t now = ::read(m_fd, bytes, sizeof bytes);
    if (now <= 0) ended();
    m_received.append(bytes, static_cast<size_t>(now));
  }
}

qemu::qemu(const std::string &program, const std::vector<std::string> &args) {
  const ends test = connect();
  const ends control = connect();
  const auto socket = [](const char *id, int fd) {
    return std::string("socket,id=") + id + ",fd=" + std::to_string(fd);
  };
  std::vector<std::string> all{program, "-S", "-display", "none", "-nodefaults"};
  all.insert(all.end(), {"-chardev", socket("test", test.peers), "-object", "qtest,id=asked,chardev=test,log=none"});
  all.insert(all.end(), {"-chardev", socket("control", control.peers), "-mon", "chardev=control,mode=control"});
  all.insert(all.end(), args.begin(), args.end());
  m_child = fork();
  if (m_child < 0) give_up("no process for qemu");
  if (m_child == 0) become(all);
  (void)close(test.peers);
  (void)close(control.peers);
  m_test = line(test.own);
  m_control = line(control.own);
  (void)m_control.receive();  // its greeting
  command("qmp_capabilities");
}

qemu::~qemu() {
  (void)kill(m_child, SIGKILL);
  (void)waitpid(m_child, nullptr, 0);
}

// Answers begin with OK; interrupts may be reported before.
std::string qemu::ask(const std::string &text) {
  m_test.send(text + "\n");
  take_answers();
  return answer();
}

void qemu::take_answers() {
  for (; m_unanswered != 0; m_unanswered--)
    (void)answer();
}

std::string qemu::answer() {
  std::string text = m_test.receive();
  while (text.starts_with("IRQ"))
    text = m_test.receive();
  if (!text.starts_with("OK")) give_up("qemu answers '" + text + "'");
  return text.size() > 3 ? text.substr(3) : "";
}

void qemu::command(const std::string &name) {
  take_answers();
  m_control.send("{\"execute\": \"" + name + "\"}\n");
  std::string answer;
  do
    answer = m_control.receive();
  while (answer.find("\"event\"") != std::string::npos);
  if (answer.find("\"return\"") == std::string::npos) give_up("qemu answers '" + answer + "' to '" + name + "'");
}

uint32_t qemu::read(char width, uint32_t address) {
  const std::string value = ask(std::string("read") + width + " " + std::to_string(address));
  return static_cast<uint32_t>(std::stoull(value, nullptr, 16));
}

void qemu::write(char width, uint32_t address, uint32_t value) {
  m_test.send(std::string("write") + width + " " + std::to_string(address) + " " + std::to_string(value) + "\n");
  if (++m_unanswered < most_unanswered) return;
  take_answers();
}

std::vector<uint8_t> qemu::read_bytes(uint32_t address, size_t count) {
  const std::string text = ask("read " + std::to_string(address) + " " + std::to_string(count));
  if (text.size() != 2 + 2 * count) give_up("qemu answers too little");
  std::vector<uint8_t> bytes;
  for (size_t i = 2; i < text.size(); i += 2)
    bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
  return bytes;
}
