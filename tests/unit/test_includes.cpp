// Directions: what each folder may include stands in the table of docs/architecture.md.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "tests/support/run.h"

namespace {

namespace fs = std::filesystem;

const fs::path root = POST_SOURCE_DIR;

// Folders with what they may include: folders of the table, and single headers.
using rules_t = std::map<std::string, std::set<std::string>>;

rules_t read_rules() {
  static const std::regex code("`([^`]+)`");
  rules_t rules;
  std::istringstream page(read_file(root / "docs/architecture.md"));
  for (std::string line; std::getline(page, line);) {
    if (!line.starts_with("| `") || line.find("/` |") == std::string::npos) continue;
    std::vector<std::string> paths;
    for (std::sregex_iterator at(line.begin(), line.end(), code), end; at != end; ++at)
      paths.push_back((*at)[1]);
    rules[paths[0]] = {paths.begin(), paths.end()};
  }
  return rules;
}

// The innermost folder of the table that holds a file, "" for none.
std::string folder_of(const rules_t &rules, const std::string &file) {
  std::string found;
  for (const auto &[folder, allowed] : rules)
    if (file.starts_with(folder) && folder.size() > found.size()) found = folder;
  return found;
}

// The file that an include means, from the top of the tree; "" for none.
std::string header_of(const std::string &text) {
  if (fs::exists(root / text)) return text;
  return fs::exists(root / "include" / text) ? "include/" + text : "";
}

// Every source and header, from the top of the tree. Builds are not looked into.
std::vector<std::string> sources() {
  std::vector<std::string> files;
  for (const auto &top : fs::directory_iterator(root)) {
    const std::string folder = top.path().filename();
    if (!top.is_directory() || folder.starts_with("build") || folder[0] == '.') continue;
    for (const auto &entry : fs::recursive_directory_iterator(top)) {
      const fs::path extension = entry.path().extension();
      if (extension == ".cpp" || extension == ".h") files.push_back(entry.path().lexically_relative(root));
    }
  }
  return files;
}

TEST(includes, go_the_ways_that_the_architecture_allows) {
  static const std::regex include(R"re(^\s*#\s*include\s*"([^"]*)")re", std::regex::multiline);
  const rules_t rules = read_rules();
  ASSERT_TRUE(rules.contains("post/") && rules.contains("platform/mfgd/cmn_lib/diag_util/"));
  size_t seen = 0;
  for (const std::string &file : sources()) {
    const std::string own = folder_of(rules, file);
    ASSERT_NE(own, "") << file << " lies in no folder of the table";
    const std::string text = read_file(root / file);
    for (std::sregex_iterator at(text.begin(), text.end(), include), end; at != end; ++at, ++seen) {
      const std::string header = header_of((*at)[1]);
      EXPECT_NE(header, "") << file << " includes " << (*at)[1] << ", which is no path from the top of the tree";
      const auto &allowed = rules.at(own);
      EXPECT_TRUE(allowed.contains(folder_of(rules, header)) || allowed.contains(header))
          << file << " includes " << header;
    }
  }
  EXPECT_GT(seen, 300U);
}

}  // namespace
