// at_once: runs commands at the same time, each after a pause that the seed draws, and prints their exit statuses.
//   at_once SEED COMMAND... [-- COMMAND...]...
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <string_view>
#include <vector>

int main(int argc, char **argv) {
  std::vector<std::vector<char *>> commands(1);
  for (int i = 2; i < argc; ++i) {
    if (std::string_view{argv[i]} == "--")
      commands.emplace_back();
    else
      commands.back().push_back(argv[i]);
  }
  std::minstd_rand random(argc > 1 ? static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)) : 1U);
  std::vector<pid_t> children;
  for (auto &command : commands) {
    (void)usleep(static_cast<useconds_t>(random() % 12'000));
    (void)setenv("SSE_PAUSES", std::to_string(random()).c_str(), 1);
    command.push_back(nullptr);
    pid_t child = -1;
    if (posix_spawnp(&child, command[0], nullptr, nullptr, command.data(), environ) != 0) child = -1;
    children.push_back(child);
  }
  for (const pid_t child : children) {
    int status = -1;
    (void)waitpid(child, &status, 0);
    (void)std::printf("%d ", child > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  }
  (void)std::printf("\n");
  return 0;
}
