// The fault table as data, and what the command line makes of right and wrong arguments.
#include "faults/text.h"
#include "sim/base/options.h"
#include "sim/board/board.h"
#include "tests/support/text.h"

namespace {

using strings = std::vector<std::string>;

TEST(sim_faults, accept_what_the_table_prints_and_nothing_beyond) {
  using given = decltype(sim::parm_row::given);
  for (const auto &row : sim::fault_table()) {
    SCOPED_TRACE(row.name);
    std::vector<sim::parm_row> parms;
    for (const auto list : {row.parms(), row.trigger_parms()})
      parms.insert(parms.end(), list.begin(), list.end());
    // The fault with these parameters, each as "value" writes it.
    const auto parsed = [&](auto is_there, auto value) {
      std::string error, text = row.name;
      for (const auto &p : parms)
        if (is_there(p)) text += " " + std::string(sim::parm_name(p.key)) + "=" + value(p);
      return sim::fault_parse(text, &error);
    };
    const auto is_needed = [](const auto &p) { return p.given == given::always || p.key == sim::parm::vendor; };
    const auto all = [](const auto &) { return true; };
    // Nothing is coupled with itself.
    const auto is_second = [](const auto &p) { return p.key == sim::parm::other || p.key == sim::parm::victim; };
    const auto low = [&](const auto &p) { return p.print(is_second(p) ? p.highest() : p.low); };
    const auto f = parsed(is_needed, low);
    ASSERT_TRUE(f);
    EXPECT_TRUE(parsed(all, low));
    EXPECT_TRUE(parsed(all, [&](const auto &p) { return p.print(is_second(p) ? p.low : p.highest()); }));
    for (const auto &p : parms) {
      SCOPED_TRACE(sim::parm_name(p.key));
      const auto is_other = [&](const auto &other) { return other.key != p.key; };
      EXPECT_EQ(f->has(p.key), p.given != given::may || is_needed(p));
      EXPECT_TRUE(p.given != given::or_default || f->get(p.key) == p.otherwise);
      // The seed stays where the chance is left out.
      EXPECT_EQ(parsed(is_other, low).has_value(), p.given != given::always && p.key != sim::parm::p);
      EXPECT_FALSE(parsed(all, [&](const auto &q) { return is_other(q) ? low(q) : "999999999999999"; }));
    }
  }
}

// A mistake of the program, not of its user: it must not read as a healthy 0.
TEST(sim_faults_death, a_parameter_that_the_kind_lacks_is_never_read) {
  std::string error;
  const auto f = sim::fault_parse("nvram-cell-read-wrong instance=1 offset=2 bit=3", &error).value();
  EXPECT_EQ(f.get(sim::parm::level, 7), 7U);
  EXPECT_EQ(f.find(sim::parm::line), std::nullopt);
  EXPECT_DEATH((void)f.get(sim::parm::line), "is given or has a default");
  EXPECT_DEATH((void)f.get(sim::parm::level), "is given or has a default");
  EXPECT_DEATH((void)f.get(sim::parm::line, 1), "has this parameter");
  EXPECT_DEATH((void)f.has(sim::parm::line), "has this parameter");
  EXPECT_DEATH((void)f.word(sim::parm::port), "has this parameter");
  EXPECT_DEATH((void)f.is_at(1, 2), "is given or has a default");
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
      {{"post"},                    "unexpected argument 'post' (a program comes after --)"},
      {{"--card"},                  "option '--card' needs a value"},
      {{"--trace-limit=0"},         "bad value '0' of option '--trace-limit', allowed is a number of bytes, 1 or more"},
      {{"--card", "11062x"},        "bad value '11062x' of option '--card', allowed is 0..65535"},
      {{"--revision", "P2"},        "bad value 'P2' of option '--revision', allowed is P0|P1"},
      {{"--change-bits", "0x10000000000000000"}, "bad value '0x10000000000000000' of option '--change-bits', allowed is a number of at most 64 bits"},
      {{"--family=velto"},          "bad value 'velto' of option '--family', allowed is dorvan|pellin|tosk"},
      {{"--cut-audit", "--", "-s"}, "bad value '--' of option '--cut-audit', allowed is a path without line ends"},
      {{"--state", "a\nb"},         "bad value 'a\nb' of option '--state', allowed is a path without line ends"},
      {{"--estimate", "--", "cat"}, "--estimate knows only the times of post"},
      {{"--real-times=1"},          "option '--real-times' takes no value"},
      {{"--fault", ""},             "empty fault (--list-faults lists them)"},
      {{"--fault", "rust"},         "unknown fault 'rust' (--list-faults lists them)"},
      {{"--falt", "rust"},          "unknown option '--falt' (did you mean '--fault'?)"},
      {{"--trace-limit", "9"},      "--trace-limit does nothing without --trace"},
      {{"--fault", "nvram-data-stick line=1"}, "unknown fault 'nvram-data-stick' (did you mean 'nvram-data-stuck'?) (--list-faults lists them)"},
      {{"--fault", "straps valu=1"}, "fault 'straps': no parameter 'valu' (did you mean 'value'?) (--list-faults lists them)"},
      {{"--fault", "straps"},       "fault 'straps': parameter 'value' is missing (--list-faults lists them)"},
      {{"--fault", "straps value"}, "fault 'straps': parameter 'value' is not of the form key=value (--list-faults lists them)"},
      {{"--fault", "straps a=1"},   "fault 'straps': no parameter 'a' (--list-faults lists them)"},
      {{"--fault", "straps value=1 value=1"}, "fault 'straps': parameter 'value' is given twice (--list-faults lists them)"},
      {{"--fault", "straps value=1", "--fault", "straps  value=0x1"}, "fault 'straps value=0x1' is given twice"},
      {{"--fault", "ethtool-silent", "--fault", "ethtool-silent port=eth1"}, "fault 'ethtool-silent port=eth1' does nothing beside 'ethtool-silent'"},
      {{"--fault", "flash-power-cut nth=9", "--fault", "flash-power-cut nth=8"}, "fault 'flash-power-cut nth=8' does nothing beside 'flash-power-cut nth=9'"},
      {{"--fault", "nvram-data-short instance=0 line=3 other=3"}, "fault 'nvram-data-short': a line is not shorted to itself (--list-faults lists them)"},
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

TEST(sim_options, list_each_fault_with_an_example_that_a_board_takes) {
  for (const std::string &line : lines_of(sim::fault_list()))
    EXPECT_LE(line.size(), 100U) << line;
  for (const auto &row : sim::fault_table()) {
    const auto text = sim::fault_example(row);
    const auto quote = text.find('"');
    strings args;
    for (const auto word : sim::words_of(std::string_view(text).substr(0, quote)))
      args.emplace_back(word);
    args.push_back(text.substr(quote + 1, text.size() - quote - 2));
    std::string error;
    const auto opts = sim::options_parse(args, &error);
    ASSERT_TRUE(opts) << error;
    EXPECT_EQ(sim::board_check(*opts), "") << text;
  }
}

TEST(sim_options, choose_card_program_and_arguments) {
  // clang-format off
  const struct { strings args; uint32_t card; const char *program; strings arguments; } cases[] = {
      {{},                                                   11062,  "",    {}},
      {{"--family", "pellin"},                               11003,  "",    {}},
      {{"--family", "tosk", "--"},                           11004,  "",    {}},
      {{"--card", "0x2B35", "--family", "tosk", "--", "-s"}, 0x2B35, "",    {"-s"}},
      {{"--", "cat", "--help", "--", "-s"},                  11062,  "cat", {"--help", "--", "-s"}},
  };
  // clang-format on
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
      "b/'\n--trace=/t=r\n--trace-limit=99\n--occasions=/o\n--busy=time\n"
      "--real-times\n--waits=short\n--no-patch\n--fault=ethtool-fail port=eth2 test=loopback\n--fault=i2c-fail "
      "bus=0x11 addr=0122";
  std::string error;
  const auto opts = sim::options_parse_lines(lines + " \t nth=7 ", &error).value();
  EXPECT_EQ(sim::options_format(opts), lines + " nth=7");
  EXPECT_EQ(opts.change_bits, 0x123456789abcdef0U);
  EXPECT_EQ(opts.find(sim::fault_id::ethtool_fail)->word(sim::parm::test), "loopback");
  const auto *const f = opts.find(sim::fault_id::i2c_fail);
  EXPECT_EQ(f->get(sim::parm::bus) << 8 | f->get(sim::parm::addr), 0x1152U);
  EXPECT_EQ(f->get(sim::parm::nth) << 8 | f->get(sim::parm::times), 0x0701U);
}

}  // namespace
