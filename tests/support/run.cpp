#include "tests/support/host.h"

temp_dir::temp_dir() {
  std::string name = (std::filesystem::temp_directory_path() / "post-test-XXXXXX").string();
  m_path = mkdtemp(name.data());
}

temp_dir::~temp_dir() {
  std::error_code ignored;
  std::filesystem::remove_all(m_path, ignored);
}

namespace {

// Runs a program to its end.
outcome run(std::vector<std::string> words) {
  return run_child([&] {
    std::vector<char *> argv;
    for (auto &word : words)
      argv.push_back(word.data());
    argv.push_back(nullptr);
#ifdef __SANITIZE_ADDRESS__
    // dlopen() is the sanitizer's there, for which a program's run path does not count.
    (void)setenv("LD_LIBRARY_PATH", POST_BIN_DIR "/../lib", 0);
#endif
    execv(argv[0], argv.data());
    _exit(127);
  });
}

}  // namespace

outcome run_program(const std::string &program, const std::vector<std::string> &args) {
  std::vector<std::string> words{std::string(POST_BIN_DIR) + "/" + program};
  words.insert(words.end(), args.begin(), args.end());
  return run(words);
}

outcome run_shell(const std::filesystem::path &dir, const std::string &command) {
  const std::string script = "cd \"$0\" && PATH=\"$1:$PATH\" && exec </dev/null\n" + command;
  outcome result = run({"/bin/sh", "-c", script, dir.string(), POST_BIN_DIR});
  result.command = command;
  return result;
}

outcome run_board(const std::filesystem::path &state, const std::vector<std::string> &args) {
  std::vector<std::string> all{"--state", state.string()};
  all.insert(all.end(), args.begin(), args.end());
  outcome result = run_program("board-sim", all);
  result.records = read_file(state / "post" / "result");
  return result;
}

void expect_run(const outcome &run, int status, const testing::Matcher<std::string> &out,
                const testing::Matcher<std::string> &err) {
  SCOPED_TRACE(run.command);
  EXPECT_EQ(run.status, status) << run.out << run.err;
  EXPECT_THAT(run.out, out);
  EXPECT_THAT(run.err, err);
}

void in_directory::save(const std::string &name, const std::string &text) const {
  EXPECT_TRUE((std::ofstream(path(name), std::ios::binary) << text).flush()) << name;
}

void in_directory::expect_endings(const std::string &program,
                                  std::initializer_list<std::tuple<std::string, int, std::string>> endings) const {
  for (const auto &[args, status, err] : endings) {
    using text = testing::Matcher<std::string>;
    expect_run(sh(program + " " + args), status, status == 2 ? text("") : text(Not("")),
               status == 2 ? text(HasSubstr(err)) : text(""));
  }
}

size_t number_from(const char *variable, size_t otherwise) {
  const char *const text = std::getenv(variable);
  return text == nullptr ? otherwise : std::strtoul(text, nullptr, 0);
}

std::string memory_limit([[maybe_unused]] unsigned kib) {
#ifdef __SANITIZE_ADDRESS__
  return "";
#else
  return "ulimit -v " + std::to_string(kib) + "; ";
#endif
}

std::string shell_word(const std::string &word) {
  return "'" + std::regex_replace(word, std::regex("'"), R"('\'')") + "'";
}

std::string read_file(const std::filesystem::path &file) {
  const std::ifstream in(file, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string format(const char *fmt, ...) {
  std::array<char, 512> text{};
  va_list args;
  va_start(args, fmt);
  (void)vsnprintf(text.data(), text.size(), fmt, args);
  va_end(args);
  return text.data();
}

std::string steady(std::string text) {
  static const std::regex seconds(R"(done \(\d+ seconds\))");
  static const std::regex mapped(R"(-->0x[0-9a-f]+)");
  static const std::regex descriptor(R"(devmemfd:0x[0-9a-f]+)");
  text = std::regex_replace(text, seconds, "done (N seconds)");
  text = std::regex_replace(text, mapped, "-->0xADDR");
  return std::regex_replace(text, descriptor, "devmemfd:0xN");
}
