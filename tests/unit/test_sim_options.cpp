// The fault table as data, and what the command line makes of right and wrong arguments.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "sim/fault.h"
#include "sim/options.h"

namespace {

using strings = std::vector<std::string>;

strings words_of(const std::string &text) {
  std::istringstream in(text);
  strings words;
  for (std::string word; in >> word;)
    words.push_back(word);
  return words;
}

// A parameter of the table taken apart a second way.
struct parm {
  std::string key, low, high, beyond;
  bool optional, has_default;
};

parm parm_of(std::string text) {
  parm p{};
  p.optional = text[0] == '[';
  if (p.optional) text = text.substr(1, text.size() - 2);
  p.key = text.substr(0, text.find('='));
  auto values = text.substr(text.find('=') + 1);
  if (const auto dots = values.find(".."); dots != std::string::npos) {
    p.has_default = values.find(':') != std::string::npos;
    values = values.substr(0, values.find(':'));
    p.low = values.substr(0, dots);
    p.high = values.substr(dots + 2);
    p.beyond = std::to_string(std::stoull(p.high, nullptr, 0) + 1);
    return p;
  }
  p.low = values.substr(0, values.find('|'));
  p.high = values.substr(values.rfind('|') + 1);
  p.beyond = "0";
  return p;
}

std::string with(const std::string &name, const std::vector<parm> &parms, std::string parm::*value, bool all) {
  std::string text = name;
  for (const auto &p : parms)
    if (all || !p.optional) text += " " + p.key + "=" + p.*value;
  return text;
}

TEST(sim_fault_table, has_one_well_formed_row_a_fault) {
  std::set<std::string> names;
  for (const auto &row : sim::fault_table()) {
    SCOPED_TRACE(row.name);
    EXPECT_TRUE(names.insert(row.name).second);
    EXPECT_TRUE(std::all_of(row.name, row.name + std::string(row.name).size(), [](char c) {
      return std::islower(static_cast<unsigned char>(c)) != 0 || std::isdigit(static_cast<unsigned char>(c)) != 0 ||
             c == '-';
    }));
    EXPECT_NE(std::string(row.what), "");
    std::set<std::string> keys;
    for (const auto &word : words_of(row.parms))
      EXPECT_TRUE(keys.insert(parm_of(word).key).second) << word;
  }
}

TEST(sim_fault_table, accepts_what_it_prints_and_nothing_beyond) {
  for (const auto &row : sim::fault_table()) {
    SCOPED_TRACE(row.name);
    std::vector<parm> parms;
    for (const auto &word : words_of(row.parms))
      parms.push_back(parm_of(word));
    std::string error;
    const auto least = sim::fault_parse(with(row.name, parms, &parm::low, false), &error);
    ASSERT_TRUE(least) << error;
    for (const auto &p : parms)
      EXPECT_EQ(least->has(p.key), !p.optional || p.has_default) << p.key;
    EXPECT_TRUE(sim::fault_parse(with(row.name, parms, &parm::low, true), &error)) << error;
    EXPECT_TRUE(sim::fault_parse(with(row.name, parms, &parm::high, true), &error)) << error;
    for (const auto &p : parms) {
      auto others = parms;
      std::erase_if(others, [&](const parm &o) { return o.key == p.key; });
      const auto rest = with(row.name, others, &parm::low, true);
      EXPECT_FALSE(sim::fault_parse(rest + " " + p.key + "=" + p.beyond, &error)) << p.key;
      EXPECT_EQ(sim::fault_parse(rest, &error).has_value(), p.optional) << p.key;
    }
  }
}

TEST(sim_fault_parse, tells_what_is_wrong) {
  const struct {
    const char *text, *error;
  } cases[] = {
      {"", "empty fault"},
      {"rust", "unknown fault 'rust'"},
      {"i2c-absent bus=1", "fault 'i2c-absent': parameter 'addr' is missing"},
      {"i2c-absent bus=1 addr", "fault 'i2c-absent': parameter 'addr' is not of the form key=value"},
      {"i2c-absent bus=1 address=0x52", "fault 'i2c-absent': no parameter 'address'"},
      {"i2c-absent bus=1 addr=0x52 bus=2", "fault 'i2c-absent': parameter 'bus' is given twice"},
      {"i2c-absent bus=256 addr=0x52", "fault 'i2c-absent': bad value in 'bus=256', allowed is 0..255"},
      {"i2c-absent bus= addr=0x52", "fault 'i2c-absent': bad value in 'bus=', allowed is 0..255"},
      {"i2c-absent bus=1 addr=0x52x", "fault 'i2c-absent': bad value in 'addr=0x52x', allowed is 0x03..0x77"},
      {"i2c-absent bus=-1 addr=0x52", "fault 'i2c-absent': bad value in 'bus=-1', allowed is 0..255"},
      {"ethtool-silent port=eth3", "fault 'ethtool-silent': bad value in 'port=eth3', allowed is eth0|eth1|eth2|eth5"},
      {"sprom-absent now=1", "fault 'sprom-absent': no parameter 'now'"},
  };
  for (const auto &c : cases) {
    std::string error;
    EXPECT_FALSE(sim::fault_parse(c.text, &error)) << c.text;
    EXPECT_EQ(error, c.error);
  }
}

TEST(sim_fault_parse, reads_numbers_in_c_notation_and_words_by_their_place) {
  std::string error;
  const auto f = sim::fault_parse("  i2c-fail\tbus=0x11   addr=0122 nth=7\n", &error);
  ASSERT_TRUE(f) << error;
  EXPECT_EQ(f->text, "i2c-fail bus=0x11 addr=0122 nth=7");
  EXPECT_EQ(f->get("bus"), 17u);
  EXPECT_EQ(f->get("addr"), 0x52u);
  EXPECT_EQ(f->get("nth"), 7u);
  EXPECT_EQ(f->get("times"), 1u);
  EXPECT_EQ(f->get("errno"), 5u);
  EXPECT_EQ(sim::fault_parse("ethtool-silent port=eth5", &error)->get("port"), 3u);
  EXPECT_FALSE(sim::fault_parse("ethtool-silent", &error)->has("port"));
}

TEST(sim_options, are_the_healthy_default_board_without_arguments) {
  std::string error;
  const auto cmd = sim::command_parse({}, &error);
  ASSERT_TRUE(cmd) << error;
  EXPECT_EQ(cmd->action, sim::action::run);
  EXPECT_EQ(cmd->opts.family, sim::family::dorvan);
  EXPECT_EQ(cmd->opts.card, 11062u);
  EXPECT_EQ(cmd->opts.change_bits, 1u);
  EXPECT_EQ(cmd->opts.busy, sim::busy::polls);
  EXPECT_TRUE(cmd->opts.faults.empty());
  EXPECT_TRUE(cmd->program.empty());
}

TEST(sim_options, tell_what_is_wrong) {
  const struct {
    strings args;
    const char *error;
  } cases[] = {
      {{"--frob"}, "unknown option '--frob'"},
      {{"-s"}, "unknown option '-s'"},
      {{"post"}, "unexpected argument 'post' (a program stands after --)"},
      {{"--card"}, "option '--card' needs a value"},
      {{"--card", "65536"}, "bad value '65536' of option '--card'"},
      {{"--card="}, "bad value '' of option '--card'"},
      {{"--card", "11062x"}, "bad value '11062x' of option '--card'"},
      {{"--revision", "P2"}, "bad value 'P2' of option '--revision'"},
      {{"--change-bits", "0x10000000000000000"}, "bad value '0x10000000000000000' of option '--change-bits'"},
      {{"--family=velto"}, "bad value 'velto' of option '--family'"},
      {{"--busy", "long"}, "bad value 'long' of option '--busy'"},
      {{"--state", ""}, "bad value '' of option '--state'"},
      {{"--state", "a\nb"}, "bad value 'a\nb' of option '--state'"},
      {{"--real-times=1"}, "option '--real-times' takes no value"},
      {{"--fault", "rust"}, "unknown fault 'rust' (--list-faults lists them)"},
      {{"--fault", "straps"}, "fault 'straps': parameter 'value' is missing (--list-faults lists them)"},
  };
  for (const auto &c : cases) {
    std::string error;
    EXPECT_FALSE(sim::command_parse(c.args, &error)) << c.error;
    EXPECT_EQ(error, c.error);
  }
}

TEST(sim_options, choose_the_card_of_the_family_unless_one_is_given) {
  const struct {
    strings args;
    uint32_t card;
  } cases[] = {
      {{"--family", "pellin"}, 11003},
      {{"--family", "tosk"}, 11004},
      {{"--family", "tosk", "--card", "11062"}, 11062},
      {{"--card", "0x2B35", "--family", "pellin"}, 0x2B35},
  };
  for (const auto &c : cases) {
    std::string error;
    const auto opts = sim::options_parse(c.args, &error);
    ASSERT_TRUE(opts) << error;
    EXPECT_EQ(opts->card, c.card);
  }
}

TEST(sim_options, take_what_follows_the_dashes_as_the_program_or_its_arguments) {
  const struct {
    strings args;
    const char *program;
    strings arguments;
  } cases[] = {
      {{"--"}, "", {}},
      {{"--", "-s"}, "", {"-s"}},
      {{"--", "-x", "cat"}, "", {"-x", "cat"}},
      {{"--", "cat", "--help", "--", "-s"}, "cat", {"--help", "--", "-s"}},
  };
  for (const auto &c : cases) {
    std::string error;
    const auto cmd = sim::command_parse(c.args, &error);
    ASSERT_TRUE(cmd) << error;
    EXPECT_EQ(cmd->program, c.program);
    EXPECT_EQ(cmd->arguments, c.arguments);
    EXPECT_EQ(cmd->action, sim::action::run);
  }
}

TEST(sim_options, travel_as_lines_without_loss) {
  const strings args = {"--family=tosk",  "--card=77",    "--change-bits=0x123456789abcdef0",
                        "--state=/a b/'", "--trace=/t=r", "--busy=time",
                        "--real-times",   "--fault",      "ethtool-fail port=eth2 test=loopback code=13",
                        "--fault",        "sprom-absent"};
  std::string error;
  const auto sent = sim::options_parse(args, &error);
  ASSERT_TRUE(sent) << error;
  const auto got = sim::options_parse_lines(sim::options_format(*sent), &error);
  ASSERT_TRUE(got) << error;
  EXPECT_EQ(got->family, sim::family::tosk);
  EXPECT_EQ(got->card, 77u);
  EXPECT_EQ(got->change_bits, 0x123456789abcdef0u);
  EXPECT_EQ(got->state, "/a b/'");
  EXPECT_EQ(got->trace, "/t=r");
  EXPECT_EQ(got->busy, sim::busy::time);
  EXPECT_TRUE(got->real_times);
  ASSERT_EQ(got->faults.size(), 2u);
  EXPECT_EQ(got->find("ethtool-fail")->get("test"), 3u);
  EXPECT_EQ(got->find("ethtool-fail")->get("code"), 13u);
  EXPECT_EQ(got->find("sprom-refuse"), nullptr);
  EXPECT_NE(got->find("sprom-absent"), nullptr);
}

}  // namespace
