// The tree as docs/architecture.md and docs/howto.md describe it: includes, and where the cards are named.
#include "post/dorvan/cards.h"
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

// A folder of the table lets its own headers in; one without a row, all below it.
bool may_include(const rules_t &rules, const std::string &folder, const std::string &header) {
  return std::ranges::any_of(rules.at(folder), [&](const std::string &allowed) {
    if (allowed == header || allowed == folder_of(rules, header)) return true;
    return allowed.ends_with('/') && !rules.contains(allowed) && header.starts_with(allowed);
  });
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

bool has_word(const std::string &text, const std::string &word) {
  const auto is_inside = [&](size_t at) { return at < text.size() && isalnum(static_cast<unsigned char>(text[at])); };
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
    if (!is_inside(at - 1) && !is_inside(at + word.size())) return true;
  return false;
}

// The files of programs, libraries and manuals that name a card.
std::set<std::string> files_naming(const std::string &card) {
  std::set<std::string> files;
  for (const char *const top :
       {"docs", "faults", "include", "lab", "locate", "models", "platform", "post", "sim", "sprom", "tools/completion"})
    for (const auto &entry : fs::recursive_directory_iterator(root / top)) {
      const std::string file = entry.path().lexically_relative(root);
      const bool is_manual = entry.path().extension() == ".1";
      if (!entry.is_regular_file() || (file.starts_with("docs/") && !is_manual)) continue;
      if (has_word(read_file(entry.path()), card)) files.insert(file);
    }
  return files;
}

TEST(cards, are_named_where_add_a_card_says) {
  const auto allowed = files_of_section("Add a card");
  for (const dorvan_card_t &row : dorvan_cards) {
    const std::string card = std::to_string(row.card_index);
    SCOPED_TRACE(card);
    const auto named = files_naming(card);
    for (const char *const file : {"post/dorvan/cards.h", "sim/board/pci_list.cpp", "docs/board-sim.1"})
      EXPECT_TRUE(named.contains(file)) << file;
    EXPECT_TRUE(!(row.nvram_instances < 3 || !row.untested_ports.empty()) || named.contains("docs/post.1"));
    if (card == "11062" || card == "11079") continue;  // the default, and the card of examples
    for (const std::string &file : named)
      EXPECT_TRUE(allowed.contains(file)) << file;
  }
}

}  // namespace
