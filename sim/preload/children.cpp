#include "sim/preload/children.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "sim/board/paths.h"
#include "sim/preload/programs.h"

namespace sim {

namespace {

constexpr std::string_view preload_variable = "LD_PRELOAD";
constexpr std::string_view library_name = "/libboard_sim.so";

// Never destroyed: handlers at the program's exit may start programs.
constinit const std::string *preload_list_here = nullptr;

bool is_named(std::string_view entry, std::string_view name) {
  return entry.starts_with(name) && entry.substr(name.size()).starts_with('=');
}

std::string_view value_of(char *const *entries, std::string_view name) {
  for (; entries != nullptr && *entries != nullptr; ++entries)
    if (is_named(*entries, name)) return *entries + name.size() + 1;
  return "";
}

// The loader splits the list at blanks and colons.
bool lists_library(std::string_view list) {
  while (!list.empty()) {
    const auto end = std::min(list.find_first_of(" :"), list.size());
    if (list.substr(0, end).ends_with(library_name)) return true;
    list.remove_prefix(std::min(end + 1, list.size()));
  }
  return false;
}

}  // namespace

environment::environment(char *const *entries) {
  for (; entries != nullptr && *entries != nullptr; ++entries)
    m_entries.emplace_back(*entries);
}

void environment::unset(std::string_view name) {
  std::erase_if(m_entries, [&](const auto &entry) { return is_named(entry, name); });
}

void environment::set(std::string_view name, std::string_view value) {
  unset(name);
  m_entries.push_back(std::string(name) + "=" + std::string(value));
}

char **environment::pointers() {
  m_pointers.clear();
  for (auto &entry : m_entries)
    m_pointers.push_back(entry.data());
  m_pointers.push_back(nullptr);
  return m_pointers.data();
}

environment shell_environment(const options &opts) {
  environment env(environ);
  env.unset(preload_variable);
  env.set("PATH", command_directory(opts));
  env.set(options_variable, options_format(opts));
  return env;
}

std::string find_program(const options &opts, const std::string &name) {
  if (name.find('/') != std::string::npos) return board_place(opts, name);
  const char *const path = std::getenv("PATH");
  std::string_view rest = path == nullptr ? "/bin:/usr/bin" : path;
  while (!name.empty() && !rest.empty()) {
    const auto end = std::min(rest.find(':'), rest.size());
    const auto directory = end == 0 ? std::string_view(".") : rest.substr(0, end);
    auto candidate = board_place(opts, std::string(directory) + "/" + name);
    if (execution_error(candidate) == 0) return candidate;
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return "";
}

void guard_programs(const std::string &preload_list) {
  preload_list_here = new std::string(preload_list);
}

int program_error(const std::string &path) {
  if (preload_list_here == nullptr) return 0;
  const auto check = check_program(path);
  if (check.refusal.empty()) return check.error;
  (void)std::fprintf(stderr, "board-sim: %s\n", check.refusal.c_str());
  return EACCES;
}

bool brings_board(char *const *entries) {
  if (preload_list_here == nullptr) return true;
  return lists_library(value_of(entries, preload_variable)) && !value_of(entries, options_variable).empty();
}

environment with_board(char *const *entries, const options &opts) {
  environment env(entries);
  const auto list = value_of(entries, preload_variable);
  if (!lists_library(list))
    env.set(preload_variable, *preload_list_here + (list.empty() ? "" : ":") + std::string(list));
  if (value_of(entries, options_variable).empty()) env.set(options_variable, options_format(opts));
  return env;
}

}  // namespace sim
