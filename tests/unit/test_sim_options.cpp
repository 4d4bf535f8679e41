// The fault table as data, and what the command line makes of right and wrong arguments.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "sim/board/options.h"

namespace {

using strings = std::vector<std::string>;

// A parameter of the table taken apart a second way.
struct parm {
  std::string key, low, high;
  bool optional, has_default;
};

parm parm_of(std::string text) {
  const bool optional = text[0] == '[', has_default = text.find(':') != std::string::npos;
  if (optional) text = text.substr(1, text.size() - 2);
  const auto values = text.substr(text.find('=') + 1, text.find(':') - text.find('=') - 1);
  return {text.substr(0, text.find('=')), values.substr(0, values.find_first_of(".|")),
          values.substr(values.find_last_of(".|") + 1), optional, has_default};
}

TEST(sim_faults, accept_what_the_table_prints_and_nothing_beyond) {
  for (const auto &row : sim::fault_table()) {
    SCOPED_TRACE(row.name);
    std::string error, least = row.name, lowest = row.name, highest = row.name;
    std::vector<parm> parms;
    std::istringstream words(row.parms + std::string(" ") + sim::fault_parms(row.when));
    for (std::string word; words >> word;) {
      auto p = parm_of(word);
      if (p.key == "other" || p.key == "victim") std::swap(p.low, p.high);  // nothing is coupled with itself
      parms.push_back(p);
      if (!p.optional || p.key == "vendor") least += " " + p.key + "=" + p.low;
      lowest += " " + p.key + "=" + p.low;
      highest += " " + p.key + "=" + p.high;
    }
    const auto f = sim::fault_parse(least, &error);
    ASSERT_TRUE(f) << error;
    EXPECT_TRUE(sim::fault_parse(lowest, &error)) << error;
    EXPECT_TRUE(sim::fault_parse(highest, &error)) << error;
    for (const auto &p : parms) {
      EXPECT_EQ(f->has(p.key), !p.optional || p.has_default || p.key == "vendor") << p.key;
      auto without = lowest;
      without.erase(without.find(" " + p.key + "="), p.key.size() + p.low.size() + 2);
      EXPECT_EQ(sim::fault_parse(without, &error).has_value(), p.optional && p.key != "p") << p.key;  // the seed stays
      EXPECT_FALSE(sim::fault_parse(without + " " + p.key + "=999999999999999", &error)) << p.key;
    }
  }
}

// The occasions that a fault takes, as digits.
std::string taken(const std::string &how, size_t occasions) {
  std::string error, digits;
  const auto f = sim::fault_parse("flash-silent " + how, &error).value();
  while (digits.size() < occasions)
    digits += f.acts() ? '1' : '0';
  return digits;
}

TEST(sim_faults, act_on_the_occasions_asked_for) {
  const std::pair<const char *, const char *> cases[] = {
      {"", "11111111"},        {"nth=3", "00111111"},     {"nth=3 times=2", "00110000"},
      {"times=1", "10000000"}, {"p=1000000", "11111111"}, {"nth=8 times=1", "00000001"},
  };
  for (const auto &[how, digits] : cases)
    EXPECT_EQ(taken(how, 8), digits) << how;
  const auto tenth = taken("p=100000 seed=1", 10000);
  EXPECT_EQ(tenth, taken("p=100000 seed=1", 10000));
  EXPECT_NE(tenth, taken("p=100000 seed=2", 10000));
  EXPECT_NEAR(static_cast<double>(std::ranges::count(tenth, '1')), 1000, 100);
  EXPECT_EQ(taken("p=100000 seed=1 nth=9001 times=999", 10000).find('1') / 1000, 9U);
}

TEST(sim_options, tell_what_is_wrong) {
  const std::pair<strings, std::string> cases[] = {
      // clang-format off
      {{"--frob"},                  "unknown option '--frob'"},
      {{"-s"},                      "unknown option '-s'"},
      {{"post"},                    "unexpected argument 'post' (a program stands after --)"},
      {{"--card"},                  "option '--card' needs a value"},
      {{"--trace-limit=0"},         "bad value '0' of option '--trace-limit'"},
      {{"--card", "65536"},         "bad value '65536' of option '--card'"},
      {{"--card="},                 "bad value '' of option '--card'"},
      {{"--card", "11062x"},        "bad value '11062x' of option '--card'"},
      {{"--revision", "P2"},        "bad value 'P2' of option '--revision'"},
      {{"--change-bits", "0x10000000000000000"}, "bad value '0x10000000000000000' of option '--change-bits'"},
      {{"--family=velto"},          "bad value 'velto' of option '--family'"},
      {{"--busy", "long"},          "bad value 'long' of option '--busy'"},
      {{"--state", "a\nb"},         "bad value 'a\nb' of option '--state'"},
      {{"--estimate", "--", "cat"}, "--estimate knows the times of post alone"},
      {{"--real-times=1"},          "option '--real-times' takes no value"},
      {{"--fault", ""},             "empty fault (--list-faults lists them)"},
      {{"--fault", "rust"},         "unknown fault 'rust' (--list-faults lists them)"},
      {{"--fault", "straps"},       "fault 'straps': parameter 'value' is missing (--list-faults lists them)"},
      {{"--fault", "straps value"}, "fault 'straps': parameter 'value' is not of the form key=value (--list-faults lists them)"},
      {{"--fault", "straps a=1"},   "fault 'straps': no parameter 'a' (--list-faults lists them)"},
      {{"--fault", "straps value=1 value=1"}, "fault 'straps': parameter 'value' is given twice (--list-faults lists them)"},
      {{"--fault", "straps value=1", "--fault", "straps  value=1"}, "fault 'straps value=1' is given twice"},
      {{"--fault", "nvram-data-short instance=0 line=3 other=3"}, "fault 'nvram-data-short': a line is not shorted to itself (--list-faults lists them)"},
      {{"--fault", "flash-addr-short line=3 other=3"}, "fault 'flash-addr-short': a line is not shorted to itself (--list-faults lists them)"},
      {{"--fault", "flash-cell-coupled offset=7 bit=1 victim=7 vbit=1"}, "fault 'flash-cell-coupled': a cell is not coupled with itself (--list-faults lists them)"},
      {{"--fault", "pci-wrong-id bus=0 dev=0 func=0"}, "fault 'pci-wrong-id': neither vendor nor device is given (--list-faults lists them)"},
      {{"--fault", "flash-silent seed=1"}, "fault 'flash-silent': a seed does nothing without a chance p (--list-faults lists them)"},
      {{"--fault", "straps value=1x"}, "fault 'straps': bad value in 'value=1x', allowed is 0..3 (--list-faults lists them)"},
      // clang-format on
  };
  for (const auto &[args, why] : cases) {
    std::string error;
    EXPECT_FALSE(sim::command_parse(args, &error)) << why;
    EXPECT_EQ(error, why);
  }
}

TEST(sim_options, choose_card_program_and_arguments) {
  const std::tuple<strings, uint32_t, const char *, strings> cases[] = {
      {{}, 11062, "", {}},
      {{"--family", "pellin"}, 11003, "", {}},
      {{"--family", "tosk", "--"}, 11004, "", {}},
      {{"--card", "0x2B35", "--family", "tosk", "--", "-s"}, 0x2B35, "", {"-s"}},
      {{"--", "cat", "--help", "--", "-s"}, 11062, "cat", {"--help", "--", "-s"}},
  };
  for (const auto &[args, card, program, arguments] : cases) {
    std::string error;
    const auto cmd = sim::command_parse(args, &error).value();
    EXPECT_EQ(cmd.opts.card, card);
    EXPECT_EQ(cmd.program, program);
    EXPECT_EQ(cmd.arguments, arguments);
    EXPECT_EQ(cmd.action, sim::action::run);
  }
}

// Numbers are in C notation; a fault's text loses its extra blanks.
TEST(sim_options, travel_as_lines_without_loss) {
  const std::string lines =
      "--family=tosk\n--card=77\n--change-bits=1311768467463790320\n--state=/a "
      "b/'\n--trace=/t=r\n--trace-limit=99\n--busy=time\n"
      "--real-times\n--fault=ethtool-fail port=eth2 test=loopback\n--fault=i2c-fail bus=0x11 addr=0122";
  std::string error;
  const auto opts = sim::options_parse_lines(lines + " \t nth=7 ", &error).value();
  EXPECT_EQ(sim::options_format(opts), lines + " nth=7");
  EXPECT_EQ(opts.change_bits, 0x123456789abcdef0U);
  EXPECT_EQ(opts.find(sim::fault_id::ethtool_fail)->word("test"), "loopback");
  const auto *const f = opts.find(sim::fault_id::i2c_fail);
  EXPECT_EQ(f->get("bus") << 8 | f->get("addr"), 0x1152U);
  EXPECT_EQ(f->get("nth") << 8 | f->get("times"), 0x0701U);
}

}  // namespace
