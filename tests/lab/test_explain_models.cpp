// The loop of post-explain: a fault is drawn, run on the simulated board and explained; what was named is injected and
// prints the same. POST_DRAWS and POST_SEED in the environment draw more of them, and others.
#include "lab/explain/explain.h"
#include "post/dorvan/cards.h"
#include "tests/lab/lab_texts.h"
#include "tests/support/run.h"

using sim::fault_part;
using sim::parm;

namespace {

// Draws faults that POST can meet on a card. Those of the flash are left to campaigns: a run takes seconds.
class drawer {
 public:
  drawer(const dorvan_card_t &card, uint64_t seed) : m_card(card), m_random(seed) {}

  // A fault of any kind of these parts, permanent or one that comes and goes.
  std::string draw(std::initializer_list<fault_part> parts, bool lasts) {
    std::vector<const sim::fault_row *> kinds;
    for (const auto &row : sim::fault_table())
      if (std::ranges::find(parts, row.part) != parts.end() && can_meet(row, lasts)) kinds.push_back(&row);
    const auto &kind = *kinds[static_cast<size_t>(pick(0, kinds.size() - 1))];
    std::string text = kind.name;
    for (const auto &row : kind.parms())
      if (row.given == sim::parm_row::given::always || pick(0, 1) == 1) text += value_text(kind, row);
    if (!lasts) text += " p=" + std::to_string(pick(1, 20) * 50000) + " seed=" + std::to_string(pick(1, 1000));
    return text;
  }

 private:
  static bool can_meet(const sim::fault_row &row, bool lasts) {
    constexpr std::string_view never[] = {"lock-held", "-power-cut", "eeprom-",     "straps",
                                          "pin-stuck", "port-stuck", "iopl-refused"};
    const std::string_view name = row.name;
    const auto is_part = [&](std::string_view part) { return name.find(part) != std::string_view::npos; };
    if (name == "eeprom-corrupt") return lasts;
    return std::ranges::none_of(never, is_part) && (lasts || row.when == sim::fault_when::lasting);
  }

  std::string value_text(const sim::fault_row &kind, const sim::parm_row &row) {
    const bool pci = kind.find(parm::func) != nullptr;
    const auto &at = m_card.pci_p1[static_cast<size_t>(m_function % m_card.pci_p1.size())];
    auto value = pick(row.low, row.highest());
    if (row.key == parm::bus) value = pci ? at.bus : 1;
    if (row.key == parm::dev) value = at.dev;
    if (row.key == parm::func) value = at.func;
    if (row.key == parm::bus) m_function = pick(0, 99);
    if (row.key == parm::addr) value = 0x52;
    if (row.key == parm::instance) value = pick(0, m_card.nvram_instances - 1);
    if (row.key == parm::image) value = pick(0, 1);
    if (row.key == parm::block) value = pick(0, 1);
    if (row.key == parm::offset && kind.part == fault_part::eeprom)
      value = kind.find(parm::image) != nullptr ? pick(0, 38) : pick(0, 333);
    return " " + std::string(sim::parm_name(row.key)) + "=" + row.print(value);
  }

  uint64_t pick(uint64_t low, uint64_t high) { return low + m_random() % (high - low + 1); }

  const dorvan_card_t &m_card;
  std::mt19937_64 m_random;
  uint64_t m_function = 0;
};

// A run that ends its flash row in the first sector.
std::string run_with(const std::string &card, const std::vector<std::string> &faults) {
  const temp_dir state;
  std::vector<std::string> args{"--card", card, "--waits", "short"};
  for (const auto &fault : faults)
    args.insert(args.end(), {"--fault", fault});
  args.insert(args.end(), {"--fault", "flash-erase-hangs sector=6"});
  const auto ran = run_board(state.path(), args);
  EXPECT_NE(ran.status, 2) << testing::PrintToString(faults) << ran.err;
  return ran.out + ran.err;
}

// The lines without what differs from run to run; a trace of calls has addresses.
std::string steady_lines(const std::string &text) {
  std::string all;
  for (const std::string &line : lines_of(steady(text)))
    if (!line.starts_with("## BT:")) all += line + "\n";
  return all;
}

// What is explained beside the flash row.
lab::explanation explain(const std::string &text) {
  const auto log = lab::parse_run_log(text);
  if (log.runs.empty()) return {};
  auto what = lab::explain_run(&log.runs.back());
  std::erase_if(what.findings, [](const auto &found) { return found.device.starts_with("obfl"); });
  return what;
}

// Whether a device of one of these tests failed, or the run was not completed. The flash row always fails.
bool has_failed(const std::string &text, std::initializer_list<int64_t> tests = {4, 5, 8, 12}) {
  const auto log = lab::parse_run_log(text);
  if (log.runs.empty() || !log.runs.back().completed) return true;
  return std::ranges::any_of(tests, [&](int64_t test) {
    const auto row = *lab::row_of_test(test);
    const auto devices = std::span(log.runs.back().devices).subspan(lab::first_case(row), lab::rows[row].parts.size());
    return std::ranges::any_of(devices, &lab::device_log::failed);
  });
}

bool lists(const lab::explanation &what, const std::string &fault, bool headline) {
  const auto parsed = lab::parse_fault_text(fault);
  return std::ranges::any_of(what.findings, [&](const auto &found) {
    return found.lists(parsed) && (!headline || found.headline_on(parsed) != lab::headline_says::leaves_out);
  });
}

// Whether the fault gives the lines in any case.
bool is_sure(const lab::explanation &what, const std::string &fault) {
  const auto parsed = lab::parse_fault_text(fault);
  const auto holds = [&](const auto &group) { return !group.may_differ && group.holds(parsed); };
  return std::ranges::any_of(what.findings,
                             [&](const auto &found) { return std::ranges::any_of(found.faults, holds); });
}

// Devices, each with candidates: the first and the last of a group, of up to 64 groups of each list.
std::vector<std::pair<std::string, std::string>> examples_of(const lab::explanation &what) {
  std::vector<std::pair<std::string, std::string>> examples;
  for (const auto &found : what.findings)
    for (const auto *const groups : {&found.faults, &found.now_and_then})
      for (size_t i = 0; i < groups->size(); i += 1 + groups->size() / 64)
        for (const bool last : {false, true})
          examples.emplace_back(found.device, (*groups)[i].one(last));
  return examples;
}

std::optional<std::string> draw_candidate(const lab::explanation &what, uint64_t seed) {
  std::vector<std::string> sure;
  for (const auto &found : what.findings)
    for (const auto &group : found.faults)
      if (!group.may_differ) sure.push_back(group.one(seed % 2 == 0));
  if (sure.empty()) return std::nullopt;
  return sure[static_cast<size_t>(seed % sure.size())];
}

TEST(explain_models, list_a_drawn_fault_and_name_what_prints_the_same) {
  const auto seed = number_from("POST_SEED", 1);
  const auto draws = number_from("POST_DRAWS", 20);
  const std::initializer_list<fault_part> others = {fault_part::service, fault_part::ethernet, fault_part::i2c,
                                                    fault_part::eeprom};
  size_t found = 0;
  for (uint64_t i = 0; i < draws; ++i) {
    const auto &card = dorvan_cards[(seed + i) % std::size(dorvan_cards)];
    drawer draw(card, seed * 1000003 + i);
    // One of the NVRAM, one that comes and goes, one of another part, or one in each of two devices.
    std::vector<std::string> faults{i % 4 == 2 ? draw.draw(others, true) : draw.draw({fault_part::nvram}, i % 4 != 1)};
    if (i % 4 == 3) faults.push_back(draw.draw({fault_part::ethernet}, true));
    SCOPED_TRACE("card " + std::to_string(card.card_index) + ": " + testing::PrintToString(faults));
    const auto text = run_with(std::to_string(card.card_index), faults);
    if (!has_failed(text)) continue;
    ++found;
    const auto what = explain(text);
    EXPECT_FALSE(what.findings.empty()) << text;
    // Only one of two may have acted.
    for (const auto &fault : faults)
      EXPECT_TRUE(lists(what, fault, true) || (faults.size() > 1 && !has_failed(text, {fault[0] == 'n' ? 8 : 5})))
          << fault << "\n"
          << what.in_short() << "\n"
          << text;
    const auto candidate = draw_candidate(what, seed + i);
    if (faults.size() > 1 || !candidate) continue;
    EXPECT_EQ(steady_lines(run_with(std::to_string(card.card_index), {*candidate})), steady_lines(text)) << *candidate;
  }
  EXPECT_GE(found, draws / 3);
}

// Cases that were wrong before: the fault, and what the headline must have.
TEST(explain_models, allow_for_the_true_fault_in_the_headline) {
  const std::pair<std::string, std::string> cases[] = {
      // clang-format off
      {"nvram-data-floating instance=0 line=9 p=300000 seed=1", "if it comes and goes, also data line D9"},
      {"nvram-addr-short instance=0 line=10 other=9",           "address lines A9 and one of A10..A14"},
      {"eeprom-corrupt bus=1 addr=0x52 offset=0xA5 xor=1",      "a byte of this block, or of its checksum"},
      {"sprom-corrupt image=sup block=main offset=40 xor=4",    "a byte of this block, or of its checksum"},
      {"bar-64bit bar=3 high=1554792931",                       "local-bus bridge"},
      {"i2c-fail bus=1 addr=0x52 nth=400",                      "could not be read"},
      // clang-format on
  };
  for (const auto &[fault, headline] : cases) {
    const auto what = explain(run_with("11062", {fault}));
    EXPECT_THAT(what.in_short(), HasSubstr(headline)) << fault;
    EXPECT_TRUE(lists(what, fault, true)) << fault;
  }
}

TEST(explain_models, take_a_misread_revision_and_its_missing_functions_for_one_fault) {
  for (const std::string fault : {"i2c-absent bus=1 addr=0x52", "i2c-fail bus=1 addr=0x52 nth=1"}) {
    const temp_dir state;
    const auto text = run_board(state.path(), {"--revision", "P0", "--fault", fault, "--", "-s"}).out;
    const auto what = explain(text);
    ASSERT_EQ(what.findings.size(), 1U) << what.in_short();
    EXPECT_TRUE(lists(what, fault, true));
    EXPECT_THAT(what.in_short(), HasSubstr("functions of another revision are reported missing: 02:00.0 2c:00.0"));
  }
}

// Less evidence never gives fewer candidates, nor surer ones: every prefix of a log lists what the whole one lists, or
// names nothing.
TEST(explain_models, never_name_less_from_a_log_that_was_cut) {
  const temp_dir state;
  const std::string logs[] = {
      run_with("11062", {"nvram-cell-stuck instance=1 offset=0x1236 bit=2 level=0"}),
      run_with("11079", {"nvram-data-short instance=0 line=0 other=10"}),
      run_with("11079", {"nvram-addr-short instance=0 line=7 other=8", "ethtool-fail port=eth2 test=loopback code=12"}),
      run_with("11062", {"sprom-corrupt image=bp block=wwn offset=1", "pci-missing bus=0x2A dev=0 func=0"}),
      run_with("11062", {"i2c-absent bus=1 addr=0x52"}),
      run_with("11061", {"ethtool-missing"}),
      run_with("11061", {"lock-dir-missing"}),
      run_board(state.path(), {"--revision", "P0", "--fault", "i2c-fail bus=1 addr=0x52", "--", "-s"}).out,
      run_with("11062", {"mem-mmap-refused errno=12 nth=2"}),
      edited(full_log, {{"OBFL Test: \n.",
                         "OBFL Test: \n.## Error: Addr 0x000c0006, data 0x00000008 : failed\n"
                         "Read 0x00000000, failed bits 0x00000008\n\n ERROR: Executing 10 on dev 0\n"}}),
      edited(full_log, {{"OBFL Test: \n.",
                         "OBFL Test: \n.Reached the max timeout and DQ5 bit is set\n"
                         "## Error:obfl_wr_array failed\n\n ERROR: Executing 10 on dev 0\n"}}),
  };
  for (const auto &text : logs) {
    const auto whole = lab::parse_run_log(text);
    const auto all = lab::explain_run(&whole.runs.at(0));
    EXPECT_FALSE(all.findings.empty()) << text;
    std::string before;
    for (size_t length = 0; length < text.size(); ++length) {
      const auto log = lab::parse_run_log(std::string_view(text).substr(0, length));
      if (log.runs.empty()) continue;  // which post-explain says
      const auto part = lab::explain_run(&log.runs[0]);
      ASSERT_TRUE(log.runs[0].completed || !part.findings.empty()) << text.substr(0, length);
      if (std::exchange(before, part.in_short()) == part.in_short()) continue;
      std::set<std::string> named;  // devices that the answer names
      for (const auto &one : part.findings)
        if (one.part != "the run" && !(one.faults.empty() && one.now_and_then.empty())) named.insert(one.device);
      for (const auto &[device, fault] : examples_of(all))
        if (named.contains(device)) {
          ASSERT_TRUE(lists(part, fault, false)) << fault << "\n" << text.substr(0, length);
        }
      for (const auto &[device, fault] : examples_of(part))
        ASSERT_LE(is_sure(part, fault), is_sure(all, fault)) << fault << "\n" << text.substr(0, length);
    }
  }
}

// Nor from one without any of its lines.
TEST(explain_models, list_the_fault_where_a_line_is_lost) {
  for (const std::string fault : {"ethtool-silent", "mem-mmap-refused errno=12 nth=3", "i2c-bus-absent bus=1",
                                  "eeprom-corrupt bus=1 addr=0x52 offset=0x11CE xor=0x90",
                                  "sprom-corrupt image=sup block=sensor offset=1 xor=8"}) {
    const auto lines = lines_of(run_with("11062", {fault}));
    for (size_t lost = 0; lost < lines.size(); ++lost) {
      std::string text;
      for (size_t i = 0; i < lines.size(); ++i)
        if (i != lost) text += lines[i] + "\n";
      const auto what = explain(text);
      EXPECT_TRUE(examples_of(what).empty() || lists(what, fault, true)) << lines[lost] << "\n" << what.in_short();
    }
  }
}

TEST(candidates, hold_the_faults_that_they_name) {
  // clang-format off
  const struct { std::string group, fault; bool holds; } cases[] = {
      {"nvram-addr-short instance=0 line=9 other=10 wins=0",     "nvram-addr-short instance=0 line=10 other=9",        true},
      {"nvram-addr-short instance=0 line=9 other=10..12 wins=0", "nvram-addr-short instance=0 line=13 other=9",        false},
      {"flash-erase-ignored sector=*",                           "flash-erase-ignored",                                true},
      {"flash-erase-ignored sector=*",                           "flash-erase-ignored sector=64 p=1000 seed=3",        true},
      {"pci-wrong-id bus=2 dev=0 func=0 vendor=0..5 device=*",   "pci-wrong-id bus=2 dev=0 func=0 device=3",           false},
      {"nvram-cell-stuck instance=0 offset=0x10..0x16/2+0x40*3 bit=1 level=0", "nvram-cell-stuck instance=0 offset=0x54 bit=1 level=0", true},
      {"nvram-cell-stuck instance=0 offset=0x10..0x16/2+0x40*3 bit=1 level=0", "nvram-cell-stuck instance=0 offset=0xD0 bit=1 level=0", false},
  };
  // clang-format on
  for (const auto &[group, fault, held] : cases)
    EXPECT_EQ(lab::group_of(group).holds(lab::parse_fault_text(fault)), held) << group << " | " << fault;
  const auto some = lab::group_of("nvram-cell-stuck instance=0 offset=0x10..0x16/2+0x40*3 bit=1,3 level=0");
  EXPECT_EQ(some.count(), 24U);
  EXPECT_EQ(some.one(true), "nvram-cell-stuck instance=0 offset=0x96 bit=3 level=0");
}

}  // namespace
