// board-sim as a program: what it runs, what it says, what it leaves behind. The program on the board is this one, so
// that both word sizes are the same.
#include <link.h>
#include <linux/i2c-dev.h>
#include <sys/file.h>

#include "platform/mfgd/cmn_lib/diag_util/owner.h"
#include "tests/support/run.h"

namespace {

namespace fs = std::filesystem;
using strings = std::vector<std::string>;

const std::string &own_path() {
  static const auto path = fs::read_symlink("/proc/self/exe").string();
  return path;
}

// --- What this program does on the board ----------------------------------------------------------------------------

int show(const strings &args) {
  return printf("%s", read_file(args[0]).c_str()) < 0 ? 1 : 0;
}

int shell(const strings &args) {
  return WEXITSTATUS(system(args[0].c_str()));
}

// Holds a lock, by which the test sees how long it runs.
int stay(const strings &args) {
  (void)flock(open("/post/running", O_RDWR | O_CREAT, 0600), LOCK_EX);
  if (!args.empty()) (void)kill(getppid(), stoi(args[0]));
  if (args.size() > 1) (void)kill(stoi(args[1]), SIGUSR1);
  (void)sleep(3);
  return creat("/post/survived", 0600);
}

// Ends before a process that it has started.
int leave(const strings &) {
  sigset_t ready;
  (void)sigemptyset(&ready);
  (void)sigaddset(&ready, SIGUSR1);
  (void)sigprocmask(SIG_BLOCK, &ready, nullptr);
  const auto parent = std::to_string(getpid());
  if (fork() == 0 && setsid() > 0) _exit(stay({"0", parent}));
  int signal = 0;
  return sigwait(&ready, &signal);
}

int signals(const strings &) {
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGPIPE}) {
    struct sigaction act {};
    (void)sigaction(signal, nullptr, &act);
    (void)printf("%c", act.sa_handler == SIG_IGN ? 'i' : act.sa_handler == SIG_DFL ? 'd' : '?');
  }
  return 0;
}

int second_board(const strings &args) {
  (void)printf("board-sim: %s: in use by another board-sim, process %d\n", args[0].c_str(), getppid());
  (void)fflush(stdout);
  return shell({shell_word(POST_BIN_DIR "/board-sim") + " --state " + shell_word(args[0])});
}

// Four bytes of the supervisor's identity over a descriptor; its address may have been chosen over another one.
void read_identity(const char *how, int fd) {
  const char offset[] = {0, 0x22};
  char text[5] = "";
  const bool sent = write(fd, offset, sizeof offset) == sizeof offset;
  (void)printf("%s %d %zd '%s'\n", how, sent, read(fd, text, 4), text);
  (void)fflush(stdout);
}

// The ways to a device descriptor. Given one, reads over it.
int device(const strings &args) {
  if (!args.empty()) return read_identity("inherited", stoi(args[0])), 0;
  const int fd = open("/dev/i2c-1", O_RDWR);
  (void)ioctl(fd, I2C_SLAVE, 0x52);
  read_identity("opened", fd);
  read_identity("dup", dup(fd));
  read_identity("dup2", dup2(fd, 40));
  read_identity("fcntl", fcntl(fd, F_DUPFD_CLOEXEC, 50));
  (void)close(fd);
  FILE *const stream = fopen("/dev/i2c-1", "r+");
  const bool chosen = ioctl(fileno(stream), I2C_SLAVE, 0x52) == 0;
  (void)printf("stdio %d\n", chosen && fputs("x", stream) < 0);
  read_identity("fopen", fileno(stream));
  (void)printf("sprom %d\n", read(open("/dev/sprom", O_RDWR), nullptr, 0) < 0 && errno == EINVAL);
  (void)fflush(stdout);
  return execl(own_path().c_str(), "x", "--part", "device", "40", nullptr);
}

int wait_and_show(int error, pid_t pid) {
  int status = 0;
  if (error != 0) return errno = error, -1;
  return waitpid(pid, &status, 0) == pid ? WEXITSTATUS(status) : -1;
}

// Starts a program: its words come after the form's name. Forms that take an environment get an empty one.
int start(const strings &args) {
  std::vector<char *> v;
  std::string line;
  for (size_t i = 1; i < args.size(); ++i) {
    v.push_back(const_cast<char *>(args[i].c_str()));
    line += "'" + args[i] + "' ";
  }
  v.resize(5, nullptr);
  char *none[] = {nullptr};
  pid_t pid = 0;
  const std::map<std::string, std::function<int()>> forms{
      // clang-format off
      {"execv",        [&] { return execv(v[0], v.data()); }},
      {"execve",       [&] { return execve(v[0], v.data(), none); }},
      {"execvp",       [&] { return execvp(v[0], v.data()); }},
      {"execvpe",      [&] { return execvpe(v[0], v.data(), none); }},
      {"execl",        [&] { return execl(v[0], v[0], v[1], v[2], v[3], nullptr); }},
      {"execlp",       [&] { return execlp(v[0], v[0], v[1], v[2], v[3], nullptr); }},
      {"execle",       [&] { return execle(v[0], v[0], v[1], v[2], v[3], nullptr, none); }},
      {"posix_spawn",  [&] { return wait_and_show(posix_spawn(&pid, v[0], nullptr, nullptr, v.data(), none), pid); }},
      {"posix_spawnp", [&] { return wait_and_show(posix_spawnp(&pid, v[0], nullptr, nullptr, v.data(), environ), pid); }},
      {"popen",        [&] { return pclose(popen(line.c_str(), "w")); }},
      {"system",       [&] { return WEXITSTATUS(system(line.c_str())); }},
      // clang-format on
  };
  const int status = forms.at(args[0])();
  return status < 0 ? errno : status;
}

const std::map<std::string, int (*)(const strings &)> parts{
    {"show", show},       {"system", shell},        {"stay", stay},     {"leave", leave},
    {"signals", signals}, {"second", second_board}, {"device", device}, {"start", start},
};

// --- The tests ------------------------------------------------------------------------------------------------------

// Runs board-sim, with a part of this program if one is named.
outcome run(strings args, const strings &part = {}) {
  if (!part.empty()) args.insert(args.end(), {"--", own_path(), "--part"});
  args.insert(args.end(), part.begin(), part.end());
  return run_program("board-sim", args);
}

strings entries(const fs::path &path) {
  strings names;
  for (const auto &entry : fs::directory_iterator(path))
    names.push_back(entry.path().filename().string());
  return names;
}

// Its shell has a function "part", which runs "$SIM" on a part of this program.
class launcher : public in_directory {
 protected:
  launcher() : in_directory("SIM=board-sim; part() { \"$SIM\" -- " + shell_word(own_path()) + " --part \"$@\"; }\n") {
    (void)setenv("TMPDIR", path("").c_str(), 1);
  }
  ~launcher() override {
    (void)unsetenv("TMPDIR");
    fs::current_path(from);
  }
  [[nodiscard]] std::string path(const std::string &name) const { return in_directory::path(name).string(); }

  void write_program(const std::string &name, const std::string &bytes) const {
    save(name, bytes);
    fs::permissions(path(name), fs::perms::owner_all);
  }

  // A copy of this program, with its ELF header and the entry that names its loader changed.
  void make_program(const std::string &name, void (*change)(ElfW(Ehdr) *, ElfW(Phdr) *)) const {
    std::string bytes = read_file(own_path());
    auto *const header = reinterpret_cast<ElfW(Ehdr) *>(bytes.data());
    auto *const table = reinterpret_cast<ElfW(Phdr) *>(&bytes[header->e_phoff]);
    change(header, std::find_if(table, table + header->e_phnum, [](auto &entry) { return entry.p_type == PT_INTERP; }));
    write_program(name, bytes);
  }

  const fs::path from = fs::current_path();
};

TEST_F(launcher, tells_wrong_arguments_and_unusable_boards_and_ends_with_2) {
  ASSERT_EQ(run({"--state", path("cut")}, {"system", "exit 0"}).status, 0);
  fs::resize_file(path("cut/eeprom-1-52"), 100);
  fs::create_directories(path("odd/nvram0"));
  const std::string hint = "\nTry 'board-sim --help' for more information.\n";
  const std::string colon = "the path of a state directory cannot have a colon or a newline: '";
  const std::pair<strings, std::string> cases[] = {
      {{"--frob"}, "unknown option '--frob'" + hint},
      {{"--", ""}, "the program's name is empty" + hint},
      {{"--fault=i2c-absent bus=1 addr=0x50"},
       "fault 'i2c-absent bus=1 addr=0x50': the board has no such I2C device\n"},
      {{"--state", "/proc/none"}, "/proc/none: No such file or directory\n"},
      {{"--state", "/proc/cpuinfo"}, "/proc/cpuinfo: Not a directory\n"},
      {{"--state", path("a:b")}, colon + path("a:b") + "'\n"},
      {{"--trace", "/proc/none/trace"}, "/proc/none/trace: No such file or directory\n"},
      {{"--state", path("cut")}, path("cut/eeprom-1-52") + ": size is not 65536 bytes\n"},
      {{"--state", path("odd")}, path("odd/nvram0") + ": Is a directory\n"},
  };
  for (const auto &[args, error] : cases)
    expect_run(run(args, {"system", "echo it runs"}), 2, "", "board-sim: " + error);
  EXPECT_THAT(sh("board-sim --state /proc").err, MatchesRegex("board-sim: /proc/lock: (No such file|Permission).*\n"));
  EXPECT_EQ(sh("TMPDIR=/a:b board-sim").err, "board-sim: " + colon + "/a:b'\n");
}

TEST_F(launcher, helps) {
  EXPECT_THAT(run({"--help"}).out, HasSubstr("\n  --fault \"NAME key=value ...\"  inject a fault"));
  for (const auto *const usage : {"flash-erase-hangs [sector=0..511] [dq5=0..1:0] [WHEN]\n    erase n",
                                  "eeprom-power-cut bus=0..255 addr=0x03..0x77 nth=1..1000000 [torn=0..0xFF:0x0F]\n",
                                  "ethtool-silent [port=eth0|eth1|eth2|eth5]\n"})
    EXPECT_THAT(run({"--list-faults"}).out, HasSubstr("\n" + std::string(usage)));
  EXPECT_EQ(run({"--card", "11097"}, {"system", "true"}).err,
            "board-sim: card 11097 is not known (did you mean '11096'?)\n");
  EXPECT_THAT(run({"--version"}).out, MatchesRegex("board-sim [0-9.]+\n"));
  EXPECT_EQ(run({"-h"}).out, run({"--help"}).out);
  EXPECT_EQ(run({"-V"}).out, run({"--version"}).out);
  const auto result = "--show-result -- '" + own_path() + "' --part system 'echo x >/post/result'";
  for (const std::string &option : {std::string("--help"), std::string("--list-faults"), result})
    expect_run(sh("board-sim " + option + " >/dev/full"), 2, "",
               "board-sim: standard output: No space left on device\n");
}

TEST_F(launcher, reports_programs_that_cannot_run) {
  fs::current_path(path(""));  // its own path can have a blank, which ends an interpreter's name
  write_program("loop", "#!./loop\n");
  write_program("text", "echo it runs\n");
  // clang-format off
  const struct { std::string program; int status; std::string error; } cases[] = {
      {"/no/such",        127, "/no/such: No such file or directory\n"},
      {"no-such-command", 127, "no-such-command: not found in PATH\n"},
      {"/etc/passwd",     126, "/etc/passwd: Permission denied\n"},
      {path("loop"),      126, path("loop: Too many levels of symbolic links\n")},
      {path("text"),      126, path("text: Exec format error\n")},
  };
  // clang-format on
  for (const auto &[program, status, error] : cases)
    expect_run(run({"--", program}), status, "", "board-sim: " + error);
}

TEST_F(launcher, refuses_programs_that_the_library_does_not_get_into) {
  make_program("short", [](auto *header, auto *) { header->e_ident[EI_CLASS] ^= ELFCLASS32 ^ ELFCLASS64; });
  make_program("arm", [](auto *header, auto *) { header->e_machine = EM_ARM; });
  make_program("static", [](auto *, auto *loader) { loader->p_type = PT_NULL; });
  make_program("loader", [](auto *, auto *loader) { loader->p_filesz -= 2; });
  fs::current_path(path(""));
  write_program("script", "#! ./static -x\n");
  std::map<std::string, std::string> cases{
      {"short", "this board runs (64|32)-bit x86 programs only"},
      {"arm", "this board runs (64|32)-bit x86 programs only"},
      {"static", "statically linked, the board's library cannot get into it"},
      {"loader", "it has another loader than the board's library, which cannot get into it"},
      {"script", "./static: statically linked, the board's library cannot get into it"},
  };
  if (getuid() == 0) {  // nobody else can give a program away
    make_program("owned", [](auto *, auto *) {});
    ASSERT_EQ(chown(path("owned").c_str(), 65534, 0), 0);
    fs::permissions(path("owned"), fs::perms::set_uid | fs::perms::others_exec | fs::perms::others_read);
    cases["owned"] = "it has a user, group or capabilities of its own, the board's library cannot get into it";
  }
  for (const auto &[name, error] : cases) {
    const auto r = run({"--", path(name), "--part", "system", "echo it runs"});
    expect_run(r, 2, "", MatchesRegex("board-sim: " + path(name) + ": " + error + "\n"));
    // Nor does a program on the board start it.
    const auto child = run({}, {"start", "posix_spawnp", path(name), "--part", "system", "echo it runs"});
    expect_run(child, EACCES, "", r.err);
  }
}

// The loader splits what it is told of at blanks and colons and replaces what begins with a dollar sign.
TEST_F(launcher, is_on_the_board_wherever_it_is_installed) {
  const fs::path build = fs::path(POST_BIN_DIR).parent_path();
  for (const std::string name : {"plain", "a b", "a:b", "a$LIB"}) {
    for (const auto *const part : {"bin/board-sim", "lib/libboard_sim.so"}) {
      fs::create_directories(path(name + "/" + part));
      fs::remove(path(name + "/" + part));
      fs::copy_file(build / part, path(name + "/" + part));
    }
    const std::string command = "mkdir -p 't p'; export TMPDIR='t p'; SIM='" + name + "/bin/board-sim'; part ";
    EXPECT_THAT(sh(command + "show /proc/cpuinfo").out, HasSubstr("\ncpu family\t: 6\nmodel\t\t: 23\n")) << name;
    EXPECT_THAT(sh(command + "system 'ethtool -t eth0'").out, HasSubstr("The test result is PASS"));
    std::ofstream(path(name + "/lib/libboard_sim.so")) << "no library\n";
    expect_run(sh(command + "show /proc/cpuinfo"), 2, "",
               MatchesRegex("board-sim: " + own_path() + ": the loader does not load [^ ]*/libboard_sim.so into it\n"));
    EXPECT_THAT(entries(path("t p")), IsEmpty());
  }
}

TEST_F(launcher, has_every_child_of_the_program_on_the_board) {
  const strings state{"--state", path("state")};
  const std::pair<const char *, const char *> cases[] = {
      // clang-format off
      {"execv", "/sbin/ethtool"}, {"execve", "/bin/ethtool"}, {"execl", "/usr/sbin/ethtool"}, {"execle", "/usr/bin/ethtool"},
      {"execvp", "ethtool"}, {"execvpe", "ethtool"}, {"execlp", "ethtool"}, {"popen", "ethtool"}, {"system", "/sbin/ethtool"},
      {"posix_spawn", "/usr/local/sbin/ethtool"}, {"posix_spawnp", "ethtool"},
      // clang-format on
  };
  for (const auto &[form, ethtool] : cases) {
    const auto shown = run(state, {"start", form, own_path(), "--part", "show", "/proc/cpuinfo"});
    EXPECT_EQ(shown.out, read_file(path("state/proc/cpuinfo"))) << form;
    EXPECT_THAT(run(state, {"start", form, ethtool, "-t", "eth0"}).out, HasSubstr("The test result is PASS")) << form;
    strings missing = state;
    missing.insert(missing.end(), {"--fault", "ethtool-missing"});
    EXPECT_THAT(run(missing, {"start", form, ethtool, "-t", "eth0"}).out, "") << form;
  }
  // What is no program to the kernel is one of the shell's, if the library gets into that.
  write_program("text", "echo it runs\n");
  const auto text = run(state, {"start", "execvp", path("text")});
  EXPECT_TRUE(text.out == "it runs\n" || text.err.starts_with("board-sim: /bin/sh: this board runs")) << text.err;
}

TEST_F(launcher, gives_a_device_to_every_copy_of_its_descriptor) {
  std::string expected;
  for (const auto *const how : {"opened", "dup", "dup2", "fcntl", "stdio 1\nfopen", "sprom 1\ninherited"})
    expected += how + std::string(" 1 4 'SUP-'\n");
  EXPECT_EQ(run({}, {"device"}).out, expected);
}

TEST_F(launcher, gives_the_status_of_the_program_and_names_its_signal) {
  EXPECT_EQ(run({}, {"system", "exit 17"}).status, 17);
  expect_run(run({}, {"system", "kill -9 $PPID"}), 128 + SIGKILL, "",
             "board-sim: " + own_path() + " was ended by signal 9 (Killed)\n");
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGALRM, SIGUSR1, SIGXCPU, SIGRTMAX})
    EXPECT_EQ(run({}, {"stay", std::to_string(signal)}).status, 128 + signal) << "handed on";
  EXPECT_EQ(sh("part signals").out, "ddddd");
  EXPECT_EQ(sh("trap '' HUP INT PIPE; part signals").out, "iiddi") << "as they were";
  EXPECT_THAT(entries(path("")), IsEmpty()) << "the state directories were temporary";
}

TEST_F(launcher, takes_the_programs_along_when_it_ends) {
  const std::pair<strings, int> cases[] = {{{"stay", std::to_string(SIGKILL)}, 128 + SIGKILL}, {{"leave"}, 0}};
  for (const auto &[part, status] : cases) {
    EXPECT_EQ(run({"--state", path("state")}, part).status, status) << part[0];
    EXPECT_EQ(flock(unique_fd(open(path("state/post/running").c_str(), O_RDWR | O_CLOEXEC)).get(), LOCK_EX), 0);
    EXPECT_FALSE(fs::exists(path("state/post/survived"))) << part[0];
  }
}

TEST_F(launcher, keeps_a_state_directory_and_writes_nowhere_else) {
  const auto outside = [] { return std::pair{fs::exists("/post"), fs::exists("/var/lock/a.lock")}; };
  const auto before = outside();
  fs::current_path(path(""));
  const strings args{"--state", "new/state", "--show-result"};
  const std::string command = "echo 0:4:0:1 >>/post/result; echo x >/var/lock/a.lock";
  EXPECT_EQ(run(args, {"system", command}).out, "0:4:0:1\n");
  EXPECT_EQ(run(args, {"system", command}).out, "0:4:0:1\n0:4:0:1\n");
  EXPECT_EQ(run({"--show-result"}, {"system", command}).out, "0:4:0:1\n");
  fs::current_path("/");
  EXPECT_THAT(entries(path("")), ElementsAre("new"));
  EXPECT_EQ(read_file(path("new/state/var/lock/a.lock")), "x\n");
  EXPECT_EQ(outside(), before);
}

TEST_F(launcher, shares_a_state_directory_with_no_other) {
  const auto r = run({"--state", path("state")}, {"second", path("state")});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, r.out);
}

TEST_F(launcher, clears_away_what_a_killed_run_left_half_made) {
  const strings left{"flash.4711", "nvram0.4711", "eeprom-1-52.4711", "proc/cpuinfo.4711", "proc/bus/pci/devices.4711"};
  const strings kept{"flash.old", "post/flash.4711", "log.1"};
  ASSERT_EQ(run({"--state", path("state")}, {"system", "exit 0"}).status, 0);
  for (const auto &names : {left, kept})
    for (const auto &name : names)
      std::ofstream(path("state/" + name)) << "x";
  EXPECT_EQ(run({"--state", path("state")}, {"system", "exit 0"}).status, 0);
  for (const auto &name : left)
    EXPECT_FALSE(fs::exists(path("state/" + name))) << name;
  for (const auto &name : kept)
    EXPECT_EQ(read_file(path("state/" + name)), "x") << name;
}

}  // namespace

int main(int argc, char **argv) {
  const strings args(argv + 1, argv + argc);
  if (args.size() > 1 && args[0] == "--part") return parts.at(args[1])({args.begin() + 2, args.end()});
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
