// The three intrusive lists, drawn: "ABC" stands for a list from head to tail, "-" for an empty one.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "platform/mfgd/cmn_lib/diag_util/queue.h"

namespace {

struct letter_t {
  letter_t *next;
  char name;
};

struct dlq_letter_t {
  dlq_letter_t *prev;
  dlq_letter_t *next;
  char name;
};

char name_of(const void *elem) {
  return elem != nullptr ? static_cast<const letter_t *>(elem)->name : '-';
}
char dlq_name_of(const void *elem) {
  return elem != nullptr ? static_cast<const dlq_letter_t *>(elem)->name : '-';
}

// Elements A to Z; their links hold a stray pointer until they are enqueued.
template <typename elem_t>
class alphabet {
 public:
  alphabet() {
    for (size_t i = 0; i < m_elems.size(); i++) {
      m_elems[i].next = &m_stray;
      if constexpr (requires { m_elems[i].prev; }) m_elems[i].prev = &m_stray;
      m_elems[i].name = static_cast<char>('A' + i);
    }
  }
  elem_t *operator[](char name) { return name != '-' ? &m_elems.at(static_cast<size_t>(name - 'A')) : nullptr; }

 private:
  elem_t m_stray{};
  std::array<elem_t, 26> m_elems{};
};

class queue_test : public testing::Test {
 protected:
  queue_t list{};
  alphabet<letter_t> e;

  void build(const std::string &drawn) {
    list = {};
    for (char name : drawn) {
      if (name != '-') enqueue_tail(&list, e[name]);
    }
  }

  // Follows the links and checks them against tail and count.
  std::string draw() {
    std::string drawn;
    const void *last = nullptr;
    for (const void *elem = list.head; elem != nullptr && drawn.size() < 30;
         last = elem, elem = static_cast<const letter_t *>(elem)->next) {
      drawn += name_of(elem);
    }
    EXPECT_EQ(static_cast<const void *>(list.tail), last) << drawn;
    EXPECT_EQ(list.count, static_cast<int32_t>(drawn.size())) << drawn;
    return drawn.empty() ? "-" : drawn;
  }
};

TEST_F(queue_test, each_operation_turns_the_list_before_into_the_list_after) {
  struct change_t {
    const char *name;
    const char *before;
    std::function<void *()> change;
    char result;
    const char *after;
  };
  const auto none = [](auto operation) {
    return [operation]() -> void * {
      operation();
      return nullptr;
    };
  };
  // clang-format off
  const change_t changes[] = {
      {"enqueue_head, empty",        "-",    none([&] { enqueue_head(&list, e['X']); }),         '-', "X"},
      {"enqueue_head",               "AB",   none([&] { enqueue_head(&list, e['X']); }),         '-', "XAB"},
      {"enqueue_tail, empty",        "-",    none([&] { enqueue_tail(&list, e['X']); }),         '-', "X"},
      {"enqueue_tail",               "AB",   none([&] { enqueue_tail(&list, e['X']); }),         '-', "ABX"},
      {"enqueue_elem, null, empty",  "-",    none([&] { enqueue_elem(&list, nullptr, e['X']); }),'-', "X"},
      {"enqueue_elem, null",         "AB",   none([&] { enqueue_elem(&list, nullptr, e['X']); }),'-', "XAB"},
      {"enqueue_elem, in between",   "ABC",  none([&] { enqueue_elem(&list, e['A'], e['X']); }), '-', "AXBC"},
      {"enqueue_elem, after tail",   "ABC",  none([&] { enqueue_elem(&list, e['C'], e['X']); }), '-', "ABCX"},
      {"dequeue_head, empty",        "-",    [&] { return dequeue_head(&list); },                '-', "-"},
      {"dequeue_head, only one",     "A",    [&] { return dequeue_head(&list); },                'A', "-"},
      {"dequeue_head",               "ABC",  [&] { return dequeue_head(&list); },                'A', "BC"},
      {"dequeue_tail, empty",        "-",    [&] { return dequeue_tail(&list); },                '-', "-"},
      {"dequeue_tail, only one",     "A",    [&] { return dequeue_tail(&list); },                'A', "-"},
      {"dequeue_tail, two",          "AB",   [&] { return dequeue_tail(&list); },                'B', "A"},
      {"dequeue_tail",               "ABCD", [&] { return dequeue_tail(&list); },                'D', "ABC"},
      {"dequeue_elem, null",         "AB",   none([&] { dequeue_elem(&list, e['A'], nullptr); }),'-', "AB"},
      {"dequeue_elem, only one",     "A",    none([&] { dequeue_elem(&list, nullptr, e['A']); }),'-', "-"},
      {"dequeue_elem, head",         "ABC",  none([&] { dequeue_elem(&list, nullptr, e['A']); }),'-', "BC"},
      {"dequeue_elem, in between",   "ABC",  none([&] { dequeue_elem(&list, e['A'], e['B']); }), '-', "AC"},
      {"dequeue_elem, tail",         "ABC",  none([&] { dequeue_elem(&list, e['B'], e['C']); }), '-', "AB"},
      {"peek_head",                  "ABC",  [&] { return peek_head(&list); },                   'A', "ABC"},
      {"peek_head, empty",           "-",    [&] { return peek_head(&list); },                   '-', "-"},
      {"peek_head, no list",         "A",    [&] { return peek_head(nullptr); },                 '-', "A"},
      {"peek_tail",                  "ABC",  [&] { return peek_tail(&list); },                   'C', "ABC"},
      {"peek_tail, empty",           "-",    [&] { return peek_tail(&list); },                   '-', "-"},
      {"peek_tail, no list",         "A",    [&] { return peek_tail(nullptr); },                 '-', "A"},
  };
  // clang-format on
  for (const auto &c : changes) {
    SCOPED_TRACE(c.name);
    build(c.before);
    EXPECT_EQ(name_of(c.change()), c.result);
    EXPECT_EQ(draw(), c.after);
    enqueue_tail(&list, e['Z']);  // goes wrong on a stale tail
    EXPECT_EQ(draw(), (c.after[0] == '-' ? std::string{} : c.after) + "Z");
  }
}

TEST_F(queue_test, a_removed_head_keeps_its_link_and_a_removed_tail_ends_the_list) {
  build("ABC");
  EXPECT_EQ(dequeue_head(&list), e['A']);
  EXPECT_EQ(e['A']->next, e['B']);
  EXPECT_EQ(dequeue_tail(&list), e['C']);
  EXPECT_EQ(e['B']->next, nullptr);
}

// Both searches get this operation: non-zero for every element but the one named by arg. They log what they looked at.
std::string looked_at;
int32_t differs(uint32_t arg, void *elem) {
  looked_at += name_of(elem);
  return name_of(elem) == static_cast<char>(arg) ? 0 : -1;
}

TEST_F(queue_test, traverse_selects_on_non_zero_and_search_on_zero) {
  struct search_t {
    const char *before;
    char arg;
    char traversed;           // queue_traverse's result
    const char *traverse_at;  // and what it looked at
    char removed;             // search_and_dequeue_elem's result
    const char *search_at;
    const char *after;
  };
  // clang-format off
  const search_t searches[] = {
      // list   arg  traverse   search
      {"-",     'A', '-', "",   '-', "",    "-"},
      {"A",     'A', '-', "A",  'A', "A",   "-"},
      {"ABC",   'A', 'B', "AB", 'A', "A",   "BC"},
      {"ABC",   'B', 'A', "A",  'B', "AB",  "AC"},
      {"ABC",   'C', 'A', "A",  'C', "ABC", "AB"},
      {"ABC",   'D', 'A', "A",  '-', "ABC", "ABC"},
  };
  // clang-format on
  for (const auto &c : searches) {
    SCOPED_TRACE(testing::Message() << c.before << " " << c.arg);
    const auto arg = static_cast<uint32_t>(c.arg);
    build(c.before);
    looked_at.clear();
    EXPECT_EQ(name_of(queue_traverse(&list, arg, differs)), c.traversed);
    EXPECT_EQ(looked_at, c.traverse_at);
    EXPECT_EQ(draw(), c.before);
    looked_at.clear();
    EXPECT_EQ(name_of(search_and_dequeue_elem(&list, arg, differs)), c.removed);
    EXPECT_EQ(looked_at, c.search_at);
    EXPECT_EQ(draw(), c.after);
  }
}

TEST_F(queue_test, search_ends_at_the_tail_whatever_its_link_holds) {
  build("AB");
  e['B']->next = e['X'];
  looked_at.clear();
  EXPECT_EQ(search_and_dequeue_elem(&list, 'X', differs), nullptr);
  EXPECT_EQ(looked_at, "AB");
}

TEST_F(queue_test, stays_right_under_random_operations) {
  std::mt19937 random{20240607};
  std::string model;
  for (int step = 0; step < 20000; step++) {
    std::string unused;
    for (char name = 'A'; name <= 'Z'; name++) {
      if (model.find(name) == std::string::npos) unused += name;
    }
    const size_t at = model.empty() ? 0 : random() % model.size();
    const bool full = unused.empty() || random() % 8 > 4;
    if (!full) {
      const char name = unused[random() % unused.size()];
      const size_t position = random() % (model.size() + 1);
      enqueue_elem(&list, position == 0 ? nullptr : e[model[position - 1]], e[name]);
      model.insert(position, 1, name);
    } else if (!model.empty()) {
      switch (random() % 4) {
        case 0:
          EXPECT_EQ(dequeue_head(&list), e[model.front()]);
          model.erase(0, 1);
          break;
        case 1:
          EXPECT_EQ(dequeue_tail(&list), e[model.back()]);
          model.pop_back();
          break;
        case 2:
          EXPECT_EQ(search_and_dequeue_elem(&list, static_cast<uint32_t>(model[at]), differs), e[model[at]]);
          model.erase(at, 1);
          break;
        default:
          dequeue_elem(&list, at == 0 ? nullptr : e[model[at - 1]], e[model[at]]);
          model.erase(at, 1);
          break;
      }
    }
    ASSERT_EQ(draw(), model.empty() ? "-" : model) << "step " << step;
  }
}

TEST(tinyq, is_last_in_first_out) {
  alphabet<letter_t> e;
  tinyq_t q = nullptr;
  EXPECT_EQ(tinyq_peek_head(nullptr), nullptr);
  EXPECT_EQ(tinyq_peek_head(&q), nullptr);
  EXPECT_EQ(tinyq_dequeue(&q), nullptr);
  for (char name : {'A', 'B', 'C'}) {
    tinyq_enqueue(&q, e[name]);
    EXPECT_EQ(tinyq_peek_head(&q), e[name]);
  }
  for (char name : {'C', 'B', 'A', '-'})
    EXPECT_EQ(tinyq_dequeue(&q), e[name]);
}

TEST(tinyq, an_element_is_unlinked_behind_its_predecessor) {
  struct unlink_t {
    char prev;
    char elem;
    const char *after;
  };
  for (const auto &c : {unlink_t{'-', 'C', "BA"}, {'C', 'B', "CA"}, {'B', 'A', "CB"}, {'B', '-', "CBA"}}) {
    SCOPED_TRACE(c.after);
    alphabet<letter_t> e;
    tinyq_t q = nullptr;
    for (char name : {'A', 'B', 'C'})
      tinyq_enqueue(&q, e[name]);
    tinyq_dequeue_elem(&q, e[c.prev], e[c.elem]);
    std::string drawn;
    while (const void *elem = tinyq_dequeue(&q))
      drawn += name_of(elem);
    EXPECT_EQ(drawn, c.after);
  }
}

class dlq_test : public testing::Test {
 protected:
  dlq_t list{};
  alphabet<dlq_letter_t> e;

  void build(const std::string &drawn) {
    list = {};
    for (char name : drawn) {
      if (name != '-') dlq_enqueue_tail(&list, e[name]);
    }
  }

  // Follows the links in both directions and checks them against each other and the count.
  std::string draw() {
    std::string forward;
    std::string backward;
    const dlq_elem_t *last = nullptr;
    for (const dlq_elem_t *elem = list.head; elem != nullptr && forward.size() < 30; last = elem, elem = elem->next) {
      EXPECT_EQ(elem->prev, last);
      forward += dlq_name_of(elem);
    }
    for (const dlq_elem_t *elem = list.tail; elem != nullptr && backward.size() < 30; elem = elem->prev) {
      backward += dlq_name_of(elem);
    }
    EXPECT_EQ(forward, std::string(backward.rbegin(), backward.rend()));
    EXPECT_EQ(list.count, static_cast<int32_t>(forward.size())) << forward;
    return forward.empty() ? "-" : forward;
  }
};

TEST_F(dlq_test, each_operation_turns_the_list_before_into_the_list_after) {
  struct change_t {
    const char *name;
    const char *before;
    std::function<void *()> change;
    char result;
    const char *after;
  };
  const auto none = [](auto operation) {
    return [operation]() -> void * {
      operation();
      return nullptr;
    };
  };
  // clang-format off
  const change_t changes[] = {
      {"enqueue_head, empty",       "-",    none([&] { dlq_enqueue_head(&list, e['X']); }),          '-', "X"},
      {"enqueue_head",              "AB",   none([&] { dlq_enqueue_head(&list, e['X']); }),          '-', "XAB"},
      {"enqueue_head, null",        "AB",   none([&] { dlq_enqueue_head(&list, nullptr); }),         '-', "AB"},
      {"enqueue_tail, empty",       "-",    none([&] { dlq_enqueue_tail(&list, e['X']); }),          '-', "X"},
      {"enqueue_tail",              "AB",   none([&] { dlq_enqueue_tail(&list, e['X']); }),          '-', "ABX"},
      {"enqueue_tail, null",        "AB",   none([&] { dlq_enqueue_tail(&list, nullptr); }),         '-', "AB"},
      {"enqueue_elem, null prev",   "AB",   none([&] { dlq_enqueue_elem(&list, nullptr, e['X']); }), '-', "XAB"},
      {"enqueue_elem, in between",  "ABC",  none([&] { dlq_enqueue_elem(&list, e['A'], e['X']); }),  '-', "AXBC"},
      {"enqueue_elem, after tail",  "ABC",  none([&] { dlq_enqueue_elem(&list, e['C'], e['X']); }),  '-', "ABCX"},
      {"enqueue_elem, null elem",   "AB",   none([&] { dlq_enqueue_elem(&list, e['A'], nullptr); }), '-', "AB"},
      {"enqueue_elem, both null",   "-",    none([&] { dlq_enqueue_elem(&list, nullptr, nullptr); }),'-', "-"},
      {"dequeue_head, empty",       "-",    [&] { return dlq_dequeue_head(&list); },                 '-', "-"},
      {"dequeue_head, only one",    "A",    [&] { return dlq_dequeue_head(&list); },                 'A', "-"},
      {"dequeue_head",              "ABC",  [&] { return dlq_dequeue_head(&list); },                 'A', "BC"},
      {"dequeue_tail, empty",       "-",    [&] { return dlq_dequeue_tail(&list); },                 '-', "-"},
      {"dequeue_tail, only one",    "A",    [&] { return dlq_dequeue_tail(&list); },                 'A', "-"},
      {"dequeue_tail",              "ABC",  [&] { return dlq_dequeue_tail(&list); },                 'C', "AB"},
      {"dequeue_elem, null",        "AB",   none([&] { dlq_dequeue_elem(&list, nullptr); }),         '-', "AB"},
      {"dequeue_elem, only one",    "A",    none([&] { dlq_dequeue_elem(&list, e['A']); }),          '-', "-"},
      {"dequeue_elem, head",        "ABC",  none([&] { dlq_dequeue_elem(&list, e['A']); }),          '-', "BC"},
      {"dequeue_elem, in between",  "ABC",  none([&] { dlq_dequeue_elem(&list, e['B']); }),          '-', "AC"},
      {"dequeue_elem, tail",        "ABC",  none([&] { dlq_dequeue_elem(&list, e['C']); }),          '-', "AB"},
      {"peek_head",                 "ABC",  [&] { return dlq_peek_head(&list); },                    'A', "ABC"},
      {"peek_head, empty",          "-",    [&] { return dlq_peek_head(&list); },                    '-', "-"},
      {"peek_head, no list",        "A",    [&] { return dlq_peek_head(nullptr); },                  '-', "A"},
      {"peek_tail",                 "ABC",  [&] { return dlq_peek_tail(&list); },                    'C', "ABC"},
      {"peek_tail, empty",          "-",    [&] { return dlq_peek_tail(&list); },                    '-', "-"},
      {"peek_tail, no list",        "A",    [&] { return dlq_peek_tail(nullptr); },                  '-', "A"},
  };
  // clang-format on
  for (const auto &c : changes) {
    SCOPED_TRACE(c.name);
    build(c.before);
    EXPECT_EQ(dlq_name_of(c.change()), c.result);
    EXPECT_EQ(draw(), c.after);
  }
}

TEST_F(dlq_test, a_removed_element_keeps_its_links) {
  build("ABC");
  dlq_dequeue_elem(&list, e['B']);
  EXPECT_EQ(e['B']->prev, e['A']);
  EXPECT_EQ(e['B']->next, e['C']);
}

// A list whose count is out of step, or an empty one that is not, ends the process.
TEST(queue_death, names_the_operation_and_the_condition) {
  static alphabet<letter_t> e;
  static alphabet<dlq_letter_t> d;
  struct death_t {
    const char *function;
    const char *condition;
    std::function<void()> change;
  };
  const auto on_short_queue = [](auto operation) {
    return [operation] {
      queue_t list{};
      enqueue_tail(&list, e['A']);
      enqueue_tail(&list, e['B']);
      list.count = 0;
      operation(&list);
    };
  };
  const auto on_short_dlq = [](auto operation) {
    return [operation] {
      dlq_t list{};
      dlq_enqueue_tail(&list, d['A']);
      list.count = 0;
      operation(&list);
    };
  };
  const char count[] = "list->count >= 0";
  // clang-format off
  const death_t deaths[] = {
      {"dequeue_head",     count, on_short_queue([](queue_t *l) { (void)dequeue_head(l); })},
      {"dequeue_tail",     count, on_short_queue([](queue_t *l) { (void)dequeue_tail(l); })},
      {"dequeue_elem",     count, on_short_queue([](queue_t *l) { dequeue_elem(l, e['A'], e['B']); })},
      {"dequeue_elem",     count, on_short_queue([](queue_t *l) { (void)search_and_dequeue_elem(l, 'B', differs); })},
      {"dlq_dequeue_elem", count, on_short_dlq([](dlq_t *l) { dlq_dequeue_elem(l, d['A']); })},
      {"dlq_dequeue_elem", count, on_short_dlq([](dlq_t *l) { (void)dlq_dequeue_head(l); })},
      {"dlq_dequeue_elem", count, on_short_dlq([](dlq_t *l) { (void)dlq_dequeue_tail(l); })},
      {"dlq_enqueue_elem", "prev == ((void *)0)", [] { dlq_t l{}; dlq_enqueue_elem(&l, d['A'], d['B']); }},
      {"dlq_enqueue_elem", "list->tail == ((void *)0)",
       [] { dlq_t l{nullptr, static_cast<dlq_elem_t *>(static_cast<void *>(d['A'])), 0}; dlq_enqueue_head(&l, d['B']); }},
  };
  // clang-format on
  for (const auto &c : deaths) {
    SCOPED_TRACE(c.function);
    const std::string line =
        std::string{"^test_queue: platform/mfgd/cmn_lib/diag_util/queue\\.cpp:[0-9]+: "} + c.function + ": Assertion `";
    std::string condition;
    for (char letter : std::string{c.condition}) {
      if (std::string{"()*"}.find(letter) != std::string::npos) condition += '\\';
      condition += letter;
    }
    EXPECT_EXIT(c.change(), testing::KilledBySignal(SIGABRT), line + condition + "' failed\\.\n$");
  }
}

}  // namespace
