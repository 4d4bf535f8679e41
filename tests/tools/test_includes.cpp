// The tree as docs/architecture.md and docs/howto.md describe it: includes, and where the cards are named.
#include "post/dorvan/cards.h"
#include "tests/support/run.h"
#include "tests/support/text.h"

namespace {

namespace fs = std::filesystem;

const fs::path root = POST_SOURCE_DIR;

// Folders with what they may include: folders of the table, and single headers.
using rules_t = std::map<std::string, std::set<std::string>>;

rules_t read_rules() {
  static const std::regex code("`([^`]+)`");
  rules_t rules;
  for (const std::string &line : lines_of(read_file(root / "docs/architecture.md"))) {
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

// A folder of the table lets its own headers in; one without a row, all below it.
bool may_include(const rules_t &rules, const std::string &folder, const std::string &header) {
  return std::ranges::any_of(rules.at(folder), [&](const std::string &allowed) {
    if (allowed == header || allowed == folder_of(rules, header)) return true;
    return allowed.ends_with('/') && !rules.contains(allowed) && header.starts_with(allowed);
  });
}

// Builds are not looked into.
TEST(includes, go_the_ways_that_the_architecture_allows) {
  static const std::regex include(R"re(^\s*#\s*include\s*"([^"]*)")re", std::regex::multiline);
  const rules_t rules = read_rules();
  ASSERT_TRUE(rules.contains("post/") && rules.contains("platform/mfgd/cmn_lib/diag_util/"));
  size_t seen = 0;
  const std::string find = "find * -path 'build*' -prune -o -name '*.cpp' -print -o -name '*.h' -print";
  for (const std::string &file : lines_of(run_shell(root, find).out)) {
    const std::string own = folder_of(rules, file);
    ASSERT_NE(own, "") << file << " lies in no folder of the table";
    const std::string text = read_file(root / file);
    for (std::sregex_iterator at(text.begin(), text.end(), include), end; at != end; ++at, ++seen) {
      const std::string header = header_of((*at)[1]);
      EXPECT_NE(header, "") << file << " includes " << (*at)[1] << ", which is no path from the top of the tree";
      EXPECT_TRUE(may_include(rules, own, header)) << file << " includes " << header;
    }
  }
  EXPECT_GT(seen, 300U);
}

// The files that a section of docs/howto.md names.
std::set<std::string> files_of_section(const std::string &title) {
  static const std::regex code("`([^` ]+\\.[^` ]+)`");
  const std::string page = read_file(root / "docs/howto.md");
  const size_t begin = page.find("## " + title + "\n");
  EXPECT_NE(begin, std::string::npos);
  const std::string section = page.substr(begin, page.find("\n## ", begin) - begin);
  std::set<std::string> files;
  for (std::sregex_iterator at(section.begin(), section.end(), code), end; at != end; ++at)
    files.insert((*at)[1]);
  return files;
}

// The files of programs, libraries and manuals that name a card.
std::vector<std::string> files_naming(const std::string &card) {
  return lines_of(run_shell(root, "grep -rlw " + card +
                                      " docs/*.1 faults include lab locate models platform post sim sprom "
                                      "tools/completion")
                      .out);
}

TEST(cards, are_named_where_add_a_card_says) {
  const auto allowed = files_of_section("Add a card");
  for (const dorvan_card_t &row : dorvan_cards) {
    const std::string card = std::to_string(row.card_index);
    SCOPED_TRACE(card);
    const auto named = files_naming(card);
    EXPECT_THAT(named, testing::IsSupersetOf({"post/dorvan/cards.h", "sim/board/pci_list.cpp", "docs/board-sim.1"}));
    EXPECT_TRUE(!(row.nvram_instances < 3 || !row.untested_ports.empty()) ||
                testing::Value(named, Contains("docs/post.1")));
    if (card == "11062" || card == "11079") continue;  // the default, and the card of examples
    for (const std::string &file : named)
      EXPECT_TRUE(allowed.contains(file)) << file;
  }
}

}  // namespace
