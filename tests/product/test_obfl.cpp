// The flash driver and the flash test.
#include "platform/mfgd/cmn_lib/hw_acc/obfl/obfl_acc.h"
#include "post/obfl.h"
#include "post/post_tbl.h"
#include "tests/product/driver_board.h"

namespace {

constexpr obfl_timeout_t quick = {.typ_erase_ms = 512, .max_erase_ms = 4096, .typ_wr_us = 256, .max_wr_us = 1024};

obfl_addr_t at(uint32_t address) {
  return {.addr = address};
}

// What reads give in place of the bus: these words, the last two again and again.
std::vector<uint16_t> answers;
size_t next_answer = 0;

uint32_t answer(uint32_t /*inst*/, uint32_t offset, uint32_t *data, void * /*parm*/) {
  *data = answers[next_answer++];
  if (next_answer == answers.size()) next_answer -= 2;
  note(format("flash r 16 0x%x 0x%x", offset, *data));
  return HW_ERR_INV_PARAM;
}

// Runs `body` with the driver started and the log empty; reads are answered if there are words for them. No status of
// a write or a lock matters.
void with_driver(const std::vector<uint16_t> &words, const std::function<void()> &body) {
  on_board("--card=11062", [&] {
    answers = words;
    change_acc = [](hw_acc_cb_t *cb) {
      cb->m_rd = answers.empty() ? cb->m_rd : answer;
      cb->m_wr = [](uint32_t inst, uint32_t offset, uint32_t data, void *parm) {
        return _mmap_wr16(inst, offset, data, parm) + HW_ERR_INV_PARAM;
      };
      cb->m_wr_lk_acq = [](uint32_t inst, void *parm) { return _mmap_wr_lk_acq(inst, parm) + HW_ERR_INV_PARAM; };
    };
    EXPECT_EQ(obfl_sw_init(), HW_SUCCESS);
    (void)events();
    body();
  });
}

const std::string write_lock = "+w OBFL_Flash0-write.lock\n", write_unlock = "-OBFL_Flash0-write.lock\n";
const std::string read_lock = "+r OBFL_Flash0-read.lock\n", read_unlock = "-OBFL_Flash0-read.lock\n";

// What an erase, the program of an erased page and a read of some words look like.
std::string erase_command(uint32_t sector) {
  return cycles("flash w", {{0xAAA, 0xAA}, {0x554, 0x55}, {0xAAA, 0x80}, {0xAAA, 0xAA}, {0x554, 0x55}, {sector, 0x30}});
}

std::string erase(uint32_t sector) {
  return write_lock + erase_command(sector) + "wait 512000\n" + cycles("flash r", {{sector, 0x44}, {sector, 8}}) +
         "wait 512000\n" + cycles("flash r", {{sector, 0xFFFF}, {sector, 0xFFFF}}) + write_unlock;
}

std::string command(const words_t &words) {
  const uint32_t sector = words[0].offset & ~0x1FFFFU, count = static_cast<uint32_t>(words.size());
  return cycles("flash w", {{0xAAA, 0xAA}, {0x554, 0x55}, {sector, 0x25}, {sector, count - 1}}) +
         cycles("flash w", words) + cycles("flash w", {{sector, 0x29}});
}

std::string program(const words_t &words) {
  return write_lock + command(words) + "wait 256\n" + cycles("flash r", {words.back(), words.back()}) + write_unlock;
}

std::string read(const words_t &words) {
  return read_lock + cycles("flash r", words) + read_unlock;
}

uint16_t sector_words[OBFL_SECTOR_WORDS];

uint32_t wr(const std::vector<obfl_addr_t> &addr) {
  return obfl_wr_array(0, static_cast<uint32_t>(addr.size()), addr.data(), sector_words, quick);
}

TEST(obfl_driver, starts_and_reads_its_times) {
  expect_start(
      obfl_sw_init, obfl_libinit, "hw_acc_wr", [] { (void)get_timeout_val(0); },
      "obfl_sw_init(): mmap_acc_init( mmap_info, OBFL_FLASH_DEV_NAME, OBFL_INST_MAX, &addr, len, "
      "OBFL_WORD_SIZE, dev)\n");
  on_board("--card=11062", [] {
    EXPECT_EQ(obfl_libinit() + obfl_sw_init(), HW_SUCCESS);
    EXPECT_EQ(get_timeout_val(0).max_wr_us, 32U);
    EXPECT_EQ(events(), "pci 24\nmap OBFL_Flash 1 x 2 4000000 f8000000..f8000000\n" +
                            cycles("flash w", {{0xAA, 0x98}}) + cycles("flash r", {{0x40, 2}, {0x48, 3}}) +
                            cycles("flash w", {{0xAAA, 0xF0}, {0xAA, 0x98}}) +
                            cycles("flash r", {{0x42, 1}, {0x4A, 3}}) + cycles("flash w", {{0xAAA, 0xF0}}));
    EXPECT_EQ(obfl_sw_finish(), HW_SUCCESS);
    EXPECT_EQ(events(), "unmap\nrelease\n");
  });
  change_acc = [](hw_acc_cb_t *cb) {
    cb->m_rd = [](uint32_t, uint32_t, uint32_t *, void *) { return HW_SUCCESS + 0; };
  };
  on_board("--card=11062", [] {
    uint16_t word = 0xFFFF;
    EXPECT_EQ(obfl_sw_init(), HW_SUCCESS);
    _obfl_rd(0, 0, &word);
    EXPECT_EQ(word, 0) << "nothing was read";
  });
  // The low half of long times.
  const auto expect = [](const std::vector<uint16_t> &exponents, const char *expected) {
    with_driver(exponents, [expected] {
      const auto [typ_erase_ms, max_erase_ms, typ_wr_us, max_wr_us] = get_timeout_val(0);
      EXPECT_EQ(format("%x %x %x %x", typ_wr_us, max_wr_us, typ_erase_ms, max_erase_ms), expected);
    });
  };
  expect({31, 1, 31, 0}, "80000000 0 80000000 80000000");
  expect({32, 0, 0, 64}, "0 0 1 0");
  expect({0, 31, 63, 1}, "1 80000000 0 0");
  expect({1024, 0, 0xFFFF, 0xFFFF}, "0 0 0 0");
}

// Lists of words and the programs that their writing takes: neighbours of one page, in the order of the list.
const std::vector<words_t> grouped[] = {
    {{{0x20040, 0x1234}, {0x20042, 0x5678}}},
    {{{0, 1}, {2, 2}}, {{0x20, 3}}, {{4, 4}}, {{0x20060, 1}}, {{0x40060, 2}}},
    {{{0x5E, 1}, {0x5C, 2}}, {{0x3FFFFFE, 0x8001}}},
};

TEST(obfl_driver, gathers_neighbours_of_a_page) {
  for (const std::vector<words_t> &groups : grouped) {
    with_driver({}, [&] {
      std::vector<obfl_addr_t> addr;
      std::vector<uint16_t> data;
      words_t all;
      std::string expected;
      for (const words_t &group : groups) {
        expected += program(group);
        for (const word_t &word : group) {
          all.push_back(word);
          addr.push_back(at(word.offset));
          data.push_back(static_cast<uint16_t>(word.data));
          (void)obfl_sector_erase(0, at(word.offset & ~0x1FFFFU), quick);
        }
      }
      (void)events();
      const auto count = static_cast<uint32_t>(all.size());
      EXPECT_EQ(obfl_wr_array(0, count, addr.data(), data.data(), quick), HW_SUCCESS);
      obfl_rd_array(0, count, addr.data(), data.data());
      EXPECT_EQ(events(), expected + read(all));
    });
  }
  with_driver({}, [] {
    (void)obfl_sector_erase(0, at(0), quick);
    (void)events();
    uint16_t word = 0;
    EXPECT_EQ(_obfl_wr(0, 0xAAA, 0xF0), HW_ERR_INV_PARAM);
    (void)events();
    EXPECT_EQ(obfl_wr_word(0, at(0x100), 7, quick), HW_SUCCESS);
    obfl_rd_word(0, at(0x100), &word);
    EXPECT_EQ(word, 7);
    obfl_rd_array(0, 0, nullptr, nullptr);
    EXPECT_EQ(events(), program({{0x100, 7}}) + read({{0x100, 7}}) + read({}));
  });
}

TEST(obfl_driver, erases_writes_and_reads_whole_sectors) {
  with_driver({}, [] {
    std::vector<uint16_t> words(OBFL_SECTOR_WORDS), now(OBFL_SECTOR_WORDS);
    std::generate(words.begin(), words.end(),
                  [word = uint16_t{0}]() mutable { return word = static_cast<uint16_t>(word + 0x9E37); });
    words_t all;
    std::string programs;
    for (const uint32_t sector : {0U, 0x40000U, 0x3FE0000U, 0x20000U}) {
      EXPECT_EQ(obfl_sector_erase(0, at(sector), quick), HW_SUCCESS);
      programs += erase(sector);
    }
    for (uint32_t i = 0; i < OBFL_SECTOR_WORDS; ++i) {
      all.push_back({0x20000 + 2 * i, words[i]});
      if (i % 16 == 15) programs += program({all.end() - 16, all.end()});
    }
    EXPECT_EQ(obfl_sector_wr(0, at(0x20000), words.data(), quick), HW_SUCCESS);
    EXPECT_TRUE(events() == programs);
    obfl_sector_rd(0, at(0x20000), now.data());
    EXPECT_EQ(now, words);
    EXPECT_TRUE(events() == read(all));
  });
}

// The program of a page with so many polls, each of which reads `status` and 0.
std::string polled(const words_t &words, uint32_t polls, uint32_t status) {
  std::string log = write_lock + command(words);
  for (uint32_t i = 0; i < polls; ++i)
    log += "wait 256\n" + cycles("flash r", {{words.back().offset, status}, {words.back().offset, 0}});
  return log + write_unlock;
}

TEST(obfl_driver, stops_at_the_first_failure_and_sends_no_reset) {
  std::array<words_t, 3> page;
  for (uint16_t i = 0; i < 48; ++i)
    page[i / 16].push_back({0x20000 + 2U * i, sector_words[i] = i});
  std::string erasing = write_lock + erase_command(0x20000);
  for (int i = 0; i < 8; ++i)
    erasing += "wait 512000\n" + cycles("flash r", {{0x20000, 0x44}, {0x20000, 0}});
  // clang-format off
  const struct { std::vector<uint16_t> status; uint32_t (*call)(); std::string events; } cases[] = {
      {{0x44, 0},       [] { return obfl_sector_erase(0, at(0x20000), quick); }, erasing + write_unlock},
      {{0, 0, 0, 0, 0x40, 0}, [] { return obfl_sector_wr(0, at(0x20000), sector_words, quick); },
                        polled(page[0], 1, 0) + polled(page[1], 1, 0) + polled(page[2], 4, 0x40)},
      {{0, 0, 0x40, 0}, [] { return wr({at(0), at(2), at(0x20), at(0x40)}); },
                        polled({{0, 0}, {2, 1}}, 1, 0) + polled({{0x20, 2}}, 4, 0x40)},
      {{0x40, 0},       [] { return wr({at(0x20)}); },                         polled({{0x20, 0}}, 4, 0x40)},
  };
  // clang-format on
  for (const auto &c : cases) {
    with_driver(c.status, [&] {
      EXPECT_EQ(stdout_of([&] { EXPECT_EQ(c.call(), HW_ERR_TIMEOUT); }),
                "<6>Reached the max timeout but DQ5 bit not set\n");
      EXPECT_EQ(events(), c.events);
    });
  }
}

TEST(obfl_driver, polls_while_the_status_toggles_and_the_times_allow) {
  const char ready[] = "", dq5[] = "<6>Reached the max timeout and DQ5 bit is set\n";
  const char busy[] = "<6>Reached the max timeout but DQ5 bit not set\n";
  const auto expect = [](auto wait, obfl_timeout_t times, const std::vector<uint16_t> &status, size_t polls,
                         uint32_t usec, const std::string &said) {
    with_driver(status, [&] {
      const uint32_t rc = said.empty() ? HW_SUCCESS : HW_ERR_TIMEOUT;
      EXPECT_EQ(stdout_of([&] { EXPECT_EQ(wait(0, at(0x20002), times), rc); }), said);
      std::string expected;
      for (size_t i = 0; i < polls; ++i) {
        const uint16_t *const pair = &status[std::min(2 * i, status.size() - 2)];
        expected += format("wait %u\n", usec) + cycles("flash r", {{0x20002, pair[0]}, {0x20002, pair[1]}});
      }
      EXPECT_EQ(events(), expected);
    });
  };
  // clang-format off
  expect(_obfl_erase_wait, quick, {0x44, 0, 0, 0x44, 0x80, 0x80},              3, 512000,    ready);
  expect(_obfl_erase_wait, quick, {0x40, 0},                                   1, 512000,    ready);  // DQ2 steady
  expect(_obfl_erase_wait, quick, {0x04, 0},                                   1, 512000,    ready);  // DQ6 steady
  expect(_obfl_write_wait, quick, {0x40, 0, 0x40, 0x40},                       2, 256,       ready);
  expect(_obfl_write_wait, quick, {0x04, 0},                                   1, 256,       ready);
  expect(_obfl_erase_wait, {512, 1535, 1, 1}, {0x44, 0, 0x44, 0x40},           2, 512000,    ready);
  expect(_obfl_erase_wait, {512, 1535, 1, 1}, {0x44, 0},                       2, 512000,    busy);
  expect(_obfl_erase_wait, {1, 2, 1, 1}, {0x44, 0x20, 0x64, 0},                2, 1000,      busy);
  expect(_obfl_erase_wait, {1, 1, 1, 1}, {0x44, 0x20},                         1, 1000,      dq5);
  expect(_obfl_write_wait, {1, 1, 20000, 80000}, {0x40, 0x20},                 4, 20000,     dq5);
  expect(_obfl_erase_wait, {100, 100000, 1, 1}, {0x44, 0},                     1000, 100000, busy);
  expect(_obfl_write_wait, {1, 1, 0xFFFFFFFF, 0xFFFFFFFF}, {0x40, 0},          1, 0xFFFFFFFF, busy);
  expect(_obfl_erase_wait, {4294967, 2 * 4294967, 1, 1}, {0x44, 0},            2, 4294967000, busy);
  expect(_obfl_write_wait, {1, 1, 3, 6001}, {0x40, 0},                         2000, 3,      busy);
  // Times that cannot be used: none, one beyond what a wait can take, a maximum below the typical time.
  expect(_obfl_erase_wait, {0, 4, 1, 1}, {0x44, 0},                            1, 512000,    busy);
  expect(_obfl_write_wait, {1, 1, 0, ~0U}, {0x40, 0},                          1, 512,       busy);
  expect(_obfl_erase_wait, {4294968, ~0U, 1, 1}, {0x44, 0},                    1, 512000,    busy);
  expect(_obfl_erase_wait, {9, 4, 1, 1}, {0x44, 0},                            1, 9000,      busy);
  expect(_obfl_write_wait, {1, 1, 9, 0}, {0x40, 0},                            1, 9,         busy);
  // clang-format on
}

void rd(const std::vector<obfl_addr_t> &addr) {
  obfl_rd_array(0, static_cast<uint32_t>(addr.size()), addr.data(), sector_words);
}

// So many events come before the report: arguments are checked just before their use.
// clang-format off
struct assert_case { const char *op, *condition; int before; std::function<void()> call; };
const assert_case assert_cases[] = {
    {"obfl_get_sector_addr", "addr.so.mbz == 0",            0,  [] { (void)obfl_get_sector_addr(at(0x04000001)); }},
    {"obfl_get_sector_addr", "addr.pw.wr.mbz == 0",         0,  [] { (void)obfl_get_sector_addr(at(0x0003CAFF)); }},
    {"obfl_rd_array", "inst < OBFL_INST_MAX",               0,  [] { obfl_rd_array(1, 0, nullptr, sector_words); }},
    {"obfl_rd_array", "rd_addr[i].so.mbz == 0",             3,  [] { rd({at(0), at(2), at(0x04000001)}); }},
    {"obfl_rd_array", "rd_addr[i].pw.wr.mbz == 0",          2,  [] { rd({at(0), at(3)}); }},
    {"obfl_wr_array", "n_cpt && wr_addr && wr_data",        0,  [] { (void)wr({}); }},
    {"obfl_wr_array", "n_cpt && wr_addr && wr_data",        0,  [] { (void)obfl_wr_array(0, 1, nullptr, sector_words, quick); }},
    {"obfl_wr_array", "next_addr.so.mbz == 0",              0,  [] { (void)wr({at(0x04000001)}); }},
    {"obfl_wr_array", "next_addr.pw.wr.mbz == 0",           0,  [] { (void)wr({at(0), at(0x21)}); }},
    {"obfl_wr_array", "next_addr.so.mbz == 0",              11, [] { (void)wr({at(0), at(0x20), at(0x04000000)}); }},
    {"_obfl_wr_page", "word_count <= (OBFL_WRITE_PAGE_SIZE/OBFL_WORD_SIZE)", 0, [] { (void)wr(std::vector<obfl_addr_t>(17)); }},
};

// Each checks its instance, then its address.
const std::pair<const char *, void (*)(uint32_t inst, obfl_addr_t addr)> sector_operations[] = {
    {"obfl_sector_erase", [](uint32_t inst, obfl_addr_t addr) { (void)obfl_sector_erase(inst, addr, quick); }},
    {"obfl_sector_wr",    [](uint32_t inst, obfl_addr_t addr) { (void)obfl_sector_wr(inst, addr, sector_words, quick); }},
    {"obfl_sector_rd",    [](uint32_t inst, obfl_addr_t addr) { obfl_sector_rd(inst, addr, sector_words); }},
};
// clang-format on

TEST(obfl_driver, asserts_its_arguments) {
  const auto expect = [](const assert_case &c) {
    with_driver({0, 0}, [&] {
      const outcome child = run_child(c.call);
      EXPECT_EQ(child.status, 128 + SIGABRT);
      const std::string log = events(), text = std::string("         :\"") + c.condition + "\" is false\n";
      EXPECT_EQ(std::ranges::count(log, '\n'), c.before) << c.op << c.condition;
      EXPECT_THAT(child.out, StartsWith(std::string("## Assert:") + c.op + "():"));
      EXPECT_THAT(child.out, HasSubstr("\n" + text + "<6>" + text + "## BT: "));
    });
  };
  for (const assert_case &c : assert_cases)
    expect(c);
  for (const auto &[op, call] : sector_operations) {
    expect({op, "inst < OBFL_INST_MAX", 0, [run = call] { run(1, at(0x04000001)); }});
    expect({op, "sector_addr.so.mbz == 0", 0, [run = call] { run(0, at(0x04000001)); }});
    expect({op, "sector_addr.so.offset == 0", 0, [run = call] { run(0, at(0x00020002)); }});
  }
}

// The sub-tests in an erased sector. The low 9 bits of the number are the sector's.
TEST(obfl_test, writes_reads_and_compares) {
  with_driver({}, [] {
    words_t one, zero, set, clear;
    for (uint32_t i = 0; i < 16; ++i) {
      one.push_back({0xA0000 + 2 * i, 1U << i});
      zero.push_back({0xA0020 + 2 * i, 0xFFFF ^ 1U << i});
      set.push_back({0xA0000 + (2U << i), i});
      clear.push_back({0xA0000 + (0x1FFFE & ~(1U << i)), 16 + i});
    }
    std::string set_pages = program({set.begin(), set.begin() + 4});
    std::string clear_pages = program({clear.begin(), clear.begin() + 5});
    for (size_t i = 4; i < 16; ++i) {
      set_pages += program({set[i]});
      if (i > 4) clear_pages += program({clear[i]});
    }
    const auto run = [](const auto &subtest) {
      (void)obfl_sector_erase(0, at(0xA0000), quick);
      (void)events();
      EXPECT_EQ(subtest(0, 0x605, quick), 0U);
      return events();
    };
    EXPECT_EQ(run(dataline_test), program(one) + read(one) + program(zero) + read(zero));
    EXPECT_EQ(run(addressline_low_test), set_pages + read(set) + clear_pages + read(clear));
    EXPECT_EQ(run(addressline_high_test), program({{0xACAFE, 0x605}}) + read({{0xACAFE, 0x605}}));
    // A list longer than a page.
    words_t longer = one;
    longer.push_back(zero[0]);
    const auto test_longer = [&longer](uint32_t inst, uint16_t, obfl_timeout_t timeout) {
      std::vector<obfl_addr_t> addr;
      std::vector<uint16_t> data;
      for (const auto &[offset, word] : longer) {
        addr.push_back(at(offset));
        data.push_back(static_cast<uint16_t>(word));
      }
      return obfl_test("", inst, static_cast<uint32_t>(longer.size()), addr.data(), data.data(), timeout);
    };
    EXPECT_EQ(run(test_longer), program(one) + program({zero[0]}) + read(longer));
  });
  with_driver({0x40, 0}, [] {
    const std::string said = stdout_of([] { EXPECT_EQ(addressline_high_test(0, 1, quick), 436U); });
    EXPECT_THAT(said, EndsWith("\n## Error:obfl_wr_array failed\n"));
    EXPECT_EQ(events(), polled({{0x2CAFE, 1}}, 4, 0x40)) << "nothing is read back";
  });
}

// The sector operations as the test calls them: the erase alone does its work, and the nth erase or write fails.
bool calls_only = false;
int failing_call = 0;

uint32_t sector_call(const char *name, obfl_addr_t addr, obfl_timeout_t timeout) {
  note(format("%s %u", name, addr.so.sector) + (timeout.max_wr_us == 32 ? "" : " with other times"));
  return failing_call != 0 && --failing_call == 0 ? HW_ERR_TIMEOUT : HW_SUCCESS;
}

TEST(obfl_test, saves_tests_and_restores_sector_by_sector) {
  const auto run = [](int failing) {
    failing_call = failing;
    uint32_t result = 99, status = 99;
    const int before = blocks;
    const std::string said = stdout_of([&] { status = dorvan_obfl_test(0, &result, 0, nullptr); });
    EXPECT_EQ(result, status == 0 ? POST_RESULT_PASS : POST_RESULT_FAIL);
    EXPECT_EQ(blocks, before);
    sigset_t held;
    EXPECT_TRUE(sigprocmask(SIG_BLOCK, nullptr, &held) == 0 && sigismember(&held, SIGTERM) == 0) << failing;
    const std::string log = events("+-w");
    // The times are read once, by two queries.
    const std::string query = cycles("flash w", {{0xAA, 0x98}});
    EXPECT_EQ(std::regex_replace(log, std::regex(query), "?").size() + 2 * (query.size() - 1), log.size());
    return std::regex_replace(log, std::regex("flash [^\n]*\n"), "") + said + std::to_string(status);
  };
  with_driver({}, [&run] {
    calls_only = true;
    std::string all;
    for (const int n : {6, 0, 2, 509, 4, 507, 8, 503, 16, 495, 32, 479, 64, 447, 128, 383, 256, 255, 0, 511})
      all += format("Save %d\nErase %d\nErase %d\nRestore %d\n", n, n, n, n);
    EXPECT_EQ(run(0), all + "0");
    EXPECT_EQ(run(1), "Save 6\nErase 6\n## Error : obfl_sector_erase failed \n435");
    EXPECT_EQ(run(2), "Save 6\nErase 6\nErase 6\n## Error : obfl_sector_erase failed \n435");
    EXPECT_EQ(run(3), "Save 6\nErase 6\nErase 6\nRestore 6\n## Error : obfl_sector_wr failed \n436");
    failing_malloc = 1;
    EXPECT_EQ(stdout_of([] { EXPECT_EQ(obfl_post_test(), 6U); }) + events(), "");
    // The clean-up comes after a failed sub-test too, whose status wins.
    failing_call = 2;
    const obfl_subtest_t fails = [](uint32_t, uint16_t, obfl_timeout_t) { return 434U; };
    EXPECT_EQ(obfl_sector_test(fails, 0, 7, nullptr, get_timeout_val(0)), 434U);
    EXPECT_EQ(events("f+-w"), "Erase 7\nErase 7\n");
  });
}

}  // namespace

extern "C" {

decltype(obfl_sector_rd) __real_obfl_sector_rd, __wrap_obfl_sector_rd;
decltype(obfl_sector_wr) __real_obfl_sector_wr, __wrap_obfl_sector_wr;
decltype(obfl_sector_erase) __real_obfl_sector_erase, __wrap_obfl_sector_erase;

void __wrap_obfl_sector_rd(uint32_t inst, obfl_addr_t addr, uint16_t *dst) {
  calls_only ? note(format("Save %u", addr.so.sector)) : __real_obfl_sector_rd(inst, addr, dst);
}

uint32_t __wrap_obfl_sector_wr(uint32_t inst, obfl_addr_t addr, const uint16_t *src, obfl_timeout_t timeout) {
  return calls_only ? sector_call("Restore", addr, timeout) : __real_obfl_sector_wr(inst, addr, src, timeout);
}

uint32_t __wrap_obfl_sector_erase(uint32_t inst, obfl_addr_t addr, obfl_timeout_t timeout) {
  const uint32_t rc = __real_obfl_sector_erase(inst, addr, timeout);
  return calls_only ? sector_call("Erase", addr, timeout) : rc;
}
}
