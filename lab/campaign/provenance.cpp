#include "lab/campaign/provenance.h"

#include <sys/utsname.h>

#include <algorithm>
#include <ctime>
#include <filesystem>

#include "lab/base/files.h"
#include "lab/base/text.h"

namespace lab {
namespace {

// Of an ELF file; 0 for any other.
unsigned word_bits_of(std::string_view program) {
  constexpr std::string_view elf(
      "\x7F"
      "ELF");
  if (!program.starts_with(elf) || program.size() == elf.size()) return 0;
  return program[elf.size()] == 1 ? 32 : 64;
}

}  // namespace

std::vector<std::pair<std::string, std::string>> provenance::properties() const {
  return {{"tool", tool},
          {"program", program},
          {"word size", word_bits == 0 ? "" : std::to_string(word_bits) + " bits"},
          {"commit", commit},
          {"machine", machine},
          {"date", date},
          {"command", command}};
}

std::string provenance::text(bool with_machine) const {
  std::string list;
  for (const auto &[name, value] : properties())
    if (!value.empty() && (with_machine || name != "machine")) list += (list.empty() ? "" : ", ") + name + ": " + value;
  return list.empty() ? "not known" : list;
}

provenance provenance_now(const std::string &tool, const std::string &commit, const std::string &program,
                          std::string_view program_bytes) {
  utsname machine{};
  (void)uname(&machine);
  return {tool,          std::filesystem::path(program).filename().string(),    word_bits_of(program_bytes),
          commit,        std::string(machine.nodename) + " " + machine.machine, now_text(),
          command_line()};
}

std::string command_line() {
  auto words = read_whole("/proc/self/cmdline").value_or("");
  while (!words.empty() && words.back() == '\0')
    words.pop_back();
  std::ranges::replace(words, '\0', ' ');
  return printable(words);
}

std::string now_text() {
  const std::time_t now = std::time(nullptr);
  std::tm fields{};
  char text[32] = "";
  if (gmtime_r(&now, &fields) != nullptr) (void)std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &fields);
  return text;
}

}  // namespace lab
