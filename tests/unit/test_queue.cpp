// The three intrusive lists, drawn: "ABC" stands for a list from head to tail, '-' for no element.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "platform/mfgd/cmn_lib/diag_util/queue.h"
#include "tests/unit/host.h"

namespace {

// Serves every kind: the queues have only the first link.
struct letter_t {
  letter_t *link[2];
  char name;
};

char name_of(const void *elem) {
  return elem != nullptr ? static_cast<const letter_t *>(elem)->name : '-';
}

enum op_t { ENQ_HEAD, ENQ_TAIL, ENQ_ELEM, DEQ_HEAD, DEQ_TAIL, DEQ_ELEM, TRAVERSE, SEARCH };

// Both searches get this: other than 0 for every element but the one named by arg.
int32_t differs(uint32_t arg, void *elem) {
  return name_of(elem) == static_cast<char>(arg) ? 0 : -1;
}

// clang-format off
// Lists of the kinds in question; what is done with which `prev` and `elem`, and what it returns; the list after.
struct change_t { op_t op; const char *kinds, *before, *with; const char *after; };
const change_t changes[] = {
    {ENQ_HEAD, "qdt", "",     "-X -", "X"},     {ENQ_HEAD, "qdt", "AB",   "-X -", "XAB"},
    {ENQ_HEAD, "d",   "AB",   "-- -", "AB"},    {ENQ_TAIL, "qd",  "",     "-X -", "X"},
    {ENQ_TAIL, "qd",  "AB",   "-X -", "ABX"},   {ENQ_TAIL, "d",   "",     "-- -", ""},
    {ENQ_ELEM, "qd",  "",     "-X -", "X"},     {ENQ_ELEM, "qd",  "AB",   "-X -", "XAB"},
    {ENQ_ELEM, "qd",  "ABC",  "AX -", "AXBC"},  {ENQ_ELEM, "qd",  "ABC",  "CX -", "ABCX"},
    {ENQ_ELEM, "d",   "AB",   "A- -", "AB"},    {DEQ_HEAD, "qdt", "",     "-- -", ""},
    {DEQ_HEAD, "qdt", "A",    "-- A", ""},      {DEQ_HEAD, "qdt", "ABC",  "-- A", "BC"},
    {DEQ_TAIL, "qd",  "",     "-- -", ""},      {DEQ_TAIL, "qd",  "A",    "-- A", ""},
    {DEQ_TAIL, "qd",  "AB",   "-- B", "A"},     {DEQ_TAIL, "qd",  "ABCD", "-- D", "ABC"},
    {DEQ_ELEM, "qdt", "AB",   "A- -", "AB"},    {DEQ_ELEM, "qdt", "A",    "-A -", ""},
    {DEQ_ELEM, "qdt", "ABC",  "-A -", "BC"},    {DEQ_ELEM, "qdt", "ABC",  "AB -", "AC"},
    {DEQ_ELEM, "qdt", "ABC",  "BC -", "AB"},    {TRAVERSE, "q",   "",     "-A -", ""},
    {TRAVERSE, "q",   "A",    "-A -", "A"},     {TRAVERSE, "q",   "ABC",  "-A B", "ABC"},
    {TRAVERSE, "q",   "ABC",  "-B A", "ABC"},   {SEARCH,   "q",   "",     "-A -", ""},
    {SEARCH,   "q",   "ABC",  "-A A", "BC"},    {SEARCH,   "q",   "ABC",  "-B B", "AC"},
    {SEARCH,   "q",   "ABC",  "-C C", "AB"},    {SEARCH,   "q",   "ABC",  "-D -", "ABC"},
};
// clang-format on

// Head first, tail second.
template <typename list_t>
struct ops_t {
  char kind;
  void (*enqueue[2])(list_t *, void *);
  void (*enqueue_elem)(list_t *, void *, void *);
  void *(*dequeue[2])(list_t *);
  void (*dequeue_elem)(list_t *, void *, void *);
  void *(*peek[2])(const list_t *);
};

// A list and elements A to Z, whose links hold a stray pointer until they are enqueued.
template <typename list_t>
struct drawing {
  const ops_t<list_t> &ops;
  list_t list{};
  letter_t elems[27]{};

  drawing(const ops_t<list_t> &of, const std::string &names) : ops(of) {
    for (size_t i = 0; i < 26; i++)
      elems[i] = {{&elems[26], &elems[26]}, static_cast<char>('A' + i)};
    for (size_t i = names.size(); i-- > 0;)
      ops.enqueue[0](&list, at(names[i]));
  }

  letter_t *at(char name) { return name != '-' ? &elems[name - 'A'] : nullptr; }

  void *run(op_t op, letter_t *prev, letter_t *elem) {
    if constexpr (std::is_same_v<list_t, queue_t>) {
      if (op == TRAVERSE) return queue_traverse(&list, static_cast<uint32_t>(elem->name), differs);
      if (op == SEARCH) return search_and_dequeue_elem(&list, static_cast<uint32_t>(elem->name), differs);
    }
    if (op == DEQ_HEAD || op == DEQ_TAIL) return ops.dequeue[op - DEQ_HEAD](&list);
    if (op == ENQ_HEAD || op == ENQ_TAIL) ops.enqueue[op - ENQ_HEAD](&list, elem);
    if (op == ENQ_ELEM) ops.enqueue_elem(&list, prev, elem);
    if (op == DEQ_ELEM) ops.dequeue_elem(&list, prev, elem);
    return nullptr;
  }

  // Follows the links from the head, and checks what leads back.
  std::string draw() {
    std::string names;
    const letter_t *last = nullptr;
    auto *elem = static_cast<letter_t *>(ops.peek[0](&list));
    for (; elem != nullptr && names.size() < 30; last = elem, elem = elem->link[ops.kind == 'd' ? 1 : 0]) {
      EXPECT_TRUE(ops.kind != 'd' || elem->link[0] == last) << names;
      names += elem->name;
    }
    if constexpr (requires { list.count; }) {
      EXPECT_EQ(ops.peek[1](&list), last);
      EXPECT_EQ(list.count, static_cast<int32_t>(names.size()));
    }
    return names;
  }
};

template <typename list_t>
void check_changes(const ops_t<list_t> &ops) {
  for (const auto &c : changes) {
    if (std::string(c.kinds).find(ops.kind) == std::string::npos) continue;
    SCOPED_TRACE(testing::Message() << ops.kind << " " << c.op << " " << c.before << " " << c.with);
    drawing d(ops, c.before);
    letter_t *const removed = d.at(c.with[c.op == DEQ_ELEM ? 1 : 3]);
    const letter_t former = removed != nullptr ? *removed : letter_t{};
    EXPECT_EQ(name_of(d.run(c.op, d.at(c.with[0]), d.at(c.with[1]))), c.with[3]);
    EXPECT_EQ(d.draw(), c.after);
    EXPECT_TRUE(removed == nullptr || std::ranges::equal(former.link, removed->link)) << "lost its links";
  }
  for (const auto peek : ops.peek)
    EXPECT_TRUE(peek == nullptr || peek(nullptr) == nullptr);
}

// clang-format off
const ops_t<queue_t> queue_ops = {'q', {enqueue_head, enqueue_tail}, enqueue_elem,
    {dequeue_head, dequeue_tail}, dequeue_elem, {peek_head, peek_tail}};
const ops_t<dlq_t> dlq_ops = {'d', {dlq_enqueue_head, dlq_enqueue_tail}, dlq_enqueue_elem,
    {dlq_dequeue_head, dlq_dequeue_tail}, [](dlq_t *list, void *, void *elem) { dlq_dequeue_elem(list, elem); },
    {dlq_peek_head, dlq_peek_tail}};
const ops_t<tinyq_t> tinyq_ops = {'t', {tinyq_enqueue, nullptr}, nullptr,
    {tinyq_dequeue, nullptr}, tinyq_dequeue_elem, {tinyq_peek_head, nullptr}};
// clang-format on

TEST(lists, each_operation_turns_the_list_before_into_the_list_after) {
  check_changes(queue_ops);
  check_changes(dlq_ops);
  check_changes(tinyq_ops);
}

TEST(queue, search_ends_at_the_tail_whatever_its_link_holds) {
  drawing d(queue_ops, "AB");
  d.at('B')->link[0] = d.at('X');
  EXPECT_EQ(search_and_dequeue_elem(&d.list, 'X', differs), nullptr);
}

TEST(lists, a_count_out_of_step_or_an_empty_list_that_is_not_ends_the_process) {
  drawing q(queue_ops, "AB");
  drawing d(dlq_ops, "AB");
  dlq_t empty{};
  dlq_t headless = {nullptr, d.list.tail, 0};
  q.list.count = d.list.count = 0;
  const char count[] = "list->count >= 0";
  // clang-format off
  const struct { const char *op, *text; std::function<void()> body; } cases[] = {
      {"dequeue_head",     count,                       [&] { (void)dequeue_head(&q.list); }},
      {"dequeue_tail",     count,                       [&] { (void)dequeue_tail(&q.list); }},
      {"dequeue_elem",     count,                       [&] { dequeue_elem(&q.list, q.at('A'), q.at('B')); }},
      {"dlq_dequeue_elem", count,                       [&] { (void)dlq_dequeue_tail(&d.list); }},
      {"dlq_enqueue_elem", "prev == ((void *)0)",       [&] { dlq_enqueue_elem(&empty, d.at('A'), d.at('X')); }},
      {"dlq_enqueue_elem", "prev == ((void *)0)",       [&] { dlq_enqueue_tail(&headless, d.at('X')); }},
      {"dlq_enqueue_elem", "list->tail == ((void *)0)", [&] { dlq_enqueue_head(&headless, d.at('X')); }},
  };
  // clang-format on
  for (const auto &c : cases)
    expect_assertion(c.body, "diag_util/queue.cpp", c.op, c.text);
}

}  // namespace
