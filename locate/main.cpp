// post-locate: measures which line, pair of lines or cell of the board is broken, and keeps the contents.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>

#include "faults/arguments.h"
#include "faults/text.h"
#include "locate/parts.h"
#include "locate/report.h"

namespace locate {
namespace {

constexpr char program[] = "post-locate";
constexpr char about[] = "Measures which line, pair of lines or cell of the board is broken, and keeps the contents.";
constexpr char footer[] = R"(Parts: nvram0 nvram1 nvram2 flash sproms ethernet pci system. All by default.
Exit status: 0 nothing found; 1 something found; 2 a wrong command line, a file that cannot be read or written, words
of an earlier run that could not be restored, or nothing found and not all tested that was asked for.

Examples:
  post-locate
  post-locate --cells nvram1
  post-locate --json - | jq -r '.parts[].findings[].sentence'
  board-sim --fault "nvram-addr-short instance=0 line=9 other=10" -- post-locate nvram0)";

struct options {
  std::vector<std::string> parts;
  std::string names;
  std::string json;
  settings how;
  uint32_t wait = 10;  // seconds
};

int complain(const std::string &what) {
  std::cerr << program << ": " << what << "\n";
  return EXIT_TROUBLE;
}

void add_options(CLI::App *app, options *chosen) {
  std::vector<std::string> names;
  names.reserve(all_parts.size());
  for (const auto &part : all_parts)
    names.emplace_back(part.name);
  app->add_option("PART", chosen->parts, "parts to look at")->check(CLI::IsMember(names));
  app->add_option("--repeat", chosen->how.rounds, "measure the lines N times, for faults that come and go")
      ->type_name("N")
      ->check(CLI::Range(1, 1000))
      ->capture_default_str();
  app->add_flag("--cells", chosen->how.cells, "every cell of the NVRAM, too: takes longer");
  app->add_flag("--write", chosen->how.write, "allow two sectors of the flash to be erased, written and restored");
  app->add_option("--names", chosen->names, "the board's own names of parts and nets")->type_name("FILE");
  app->add_option("--json", chosen->json, "write the results as JSON; - is standard output")->type_name("FILE");
  app->add_option("--state", chosen->how.state, "the directory of the journals")
      ->type_name("DIR")
      ->capture_default_str();
  app->add_option("--wait", chosen->wait, "how long to wait for another process, in seconds")
      ->type_name("SECONDS")
      ->check(CLI::Range(86400))
      ->capture_default_str();
  app->footer(footer);
  app->set_version_flag("--version,-V", "post-locate " LOCATE_VERSION);
}

bool is_asked_for(const options &chosen, std::string_view part) {
  return chosen.parts.empty() || std::ranges::find(chosen.parts, part) != chosen.parts.end();
}

// Reads the table of names, if there is one. Returns what is wrong with it, "" for nothing.
std::string read_names(const std::string &path, board_names *names) {
  if (path.empty()) return "";
  errno = 0;
  std::ifstream file(path);
  std::string text;
  for (std::string line; std::getline(file, line);)
    text += line + "\n";
  if (!file.eof()) return os_error(path);
  std::string error;
  auto parsed = parse_names(text, &error);
  if (!parsed) return path + ": " + error;
  *names = std::move(*parsed);
  return "";
}

// Returns what went wrong, "" for nothing.
std::string write_json(const std::string &path, const std::string &text) {
  if (path.empty() || path == "-") return "";
  errno = 0;
  std::ofstream file(path, std::ios::trunc);
  return file << text << std::flush ? "" : os_error(path);
}

int run(options chosen) {
  board_names names;
  if (const auto wrong = read_names(chosen.names, &names); !wrong.empty()) return complain(wrong);
  chosen.how.wait_ms = chosen.wait * 1000;
  chosen.how.progress = sim::can_rewrite_a_line();
  std::string did;
  const bool restored = restore_interrupted(chosen.how, &did);
  std::cerr << did;
  std::vector<part_result> results;
  results.reserve(all_parts.size());
  for (const auto &part : all_parts) {
    if (!is_asked_for(chosen, part.name)) continue;
    results.push_back(part.probe(chosen.how));
    results.back().part = part.name;
  }
  const auto json = report_json(results);
  std::cout << (chosen.json == "-" ? json : report_text(results, names)) << std::flush;
  const auto unprinted = std::cout ? "" : os_error("standard output");
  for (const auto &wrong : {unprinted, write_json(chosen.json, json)})
    if (!wrong.empty()) return complain(wrong);
  return restored ? exit_code_of(results) : EXIT_TROUBLE;
}

int parse_and_run(int argc, char **argv) try {
  CLI::App app{about, program};
  options chosen;
  add_options(&app, &chosen);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &stop) {
    if (stop.get_exit_code() == 0) {
      (void)app.exit(stop);
      return std::cout << std::flush ? EXIT_NOTHING : complain(os_error("standard output"));
    }
    return complain(sim::defect_of(app, stop) + "\nTry 'post-locate --help' for more information.");
  }
  return run(std::move(chosen));
} catch (const std::exception &wrong) {
  return complain(wrong.what());
}

}  // namespace
}  // namespace locate

int main(int argc, char **argv) {
  sim::open_standard_streams();
  for (const int number : {SIGPIPE, SIGXFSZ})
    (void)std::signal(number, SIG_IGN);
  return locate::parse_and_run(argc, argv);
}
