// The three intrusive lists, drawn: "ABC" stands for a list from head to tail, '-' for no element.
#include "platform/mfgd/cmn_lib/diag_util/queue.h"
#include "tests/support/host.h"

namespace {

// Serves every kind: the queues have only the first link.
struct letter_t {
  letter_t *link[2];
  char name;
};

char name_of(const void *elem) {
  return elem != nullptr ? static_cast<const letter_t *>(elem)->name : '-';
}

constexpr int QUEUE = 0, DLQ = 8, TINYQ = 16;
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

// A list of each kind and elements A to Z, whose links hold a stray pointer until they are enqueued.
struct drawing {
  queue_t q{};
  dlq_t d{};
  tinyq_t t{};
  letter_t elems[27]{};

  drawing() {
    for (int i = 0; i < 26; ++i)
      elems[i] = {{&elems[26], &elems[26]}, static_cast<char>('A' + i)};
  }

  letter_t *at(char name) { return name != '-' ? &elems[name - 'A'] : nullptr; }

  // clang-format off
  void *run(int kind, op_t op, letter_t *prev, letter_t *elem) {
    switch (kind + op) {
      case QUEUE + ENQ_HEAD: enqueue_head(&q, elem);               return nullptr;
      case QUEUE + ENQ_TAIL: enqueue_tail(&q, elem);               return nullptr;
      case QUEUE + ENQ_ELEM: enqueue_elem(&q, prev, elem);         return nullptr;
      case QUEUE + DEQ_HEAD:                                       return dequeue_head(&q);
      case QUEUE + DEQ_TAIL:                                       return dequeue_tail(&q);
      case QUEUE + DEQ_ELEM: dequeue_elem(&q, prev, elem);         return nullptr;
      case QUEUE + TRAVERSE: return queue_traverse(&q, static_cast<uint32_t>(elem->name), differs);
      case QUEUE + SEARCH:   return search_and_dequeue_elem(&q, static_cast<uint32_t>(elem->name), differs);
      case DLQ + ENQ_HEAD:   dlq_enqueue_head(&d, elem);           return nullptr;
      case DLQ + ENQ_TAIL:   dlq_enqueue_tail(&d, elem);           return nullptr;
      case DLQ + ENQ_ELEM:   dlq_enqueue_elem(&d, prev, elem);     return nullptr;
      case DLQ + DEQ_HEAD:                                         return dlq_dequeue_head(&d);
      case DLQ + DEQ_TAIL:                                         return dlq_dequeue_tail(&d);
      case DLQ + DEQ_ELEM:   dlq_dequeue_elem(&d, elem);           return nullptr;
      case TINYQ + ENQ_HEAD: tinyq_enqueue(&t, elem);              return nullptr;
      case TINYQ + DEQ_HEAD:                                       return tinyq_dequeue(&t);
      default:               tinyq_dequeue_elem(&t, prev, elem);   return nullptr;
    }
  }
  // clang-format on

  // Follows the links from the head, and checks what leads back.
  std::string draw(int kind) {
    std::string names;
    const void *const head = kind == QUEUE ? peek_head(&q) : kind == DLQ ? dlq_peek_head(&d) : tinyq_peek_head(&t);
    const letter_t *last = nullptr;
    const auto *elem = static_cast<const letter_t *>(head);
    for (; elem != nullptr && names.size() < 30; last = elem, elem = elem->link[kind == DLQ ? 1 : 0]) {
      EXPECT_TRUE(kind != DLQ || elem->link[0] == last) << names;
      names += elem->name;
    }
    EXPECT_EQ(kind == QUEUE ? peek_tail(&q) : kind == DLQ ? dlq_peek_tail(&d) : last, last);
    EXPECT_EQ(kind == QUEUE ? q.count : d.count, kind == TINYQ ? 0 : static_cast<int32_t>(names.size()));
    return names;
  }
};

TEST(lists, each_operation_turns_the_list_before_into_the_list_after) {
  for (const auto &c : changes) {
    for (const char letter : std::string(c.kinds)) {
      SCOPED_TRACE(testing::Message() << letter << " " << c.op << " " << c.before << " " << c.with);
      const int kind = letter == 'q' ? QUEUE : letter == 'd' ? DLQ : TINYQ;
      drawing d;
      for (size_t i = strlen(c.before); i-- > 0;)
        (void)d.run(kind, ENQ_HEAD, nullptr, d.at(c.before[i]));
      letter_t *const removed = d.at(c.with[c.op == DEQ_ELEM ? 1 : 3]);
      const letter_t former = removed != nullptr ? *removed : letter_t{};
      EXPECT_EQ(name_of(d.run(kind, c.op, d.at(c.with[0]), d.at(c.with[1]))), c.with[3]);
      EXPECT_EQ(d.draw(kind), c.after);
      EXPECT_TRUE(removed == nullptr || std::ranges::equal(former.link, removed->link)) << "lost its links";
    }
  }
  for (const void *end : {peek_head(nullptr), peek_tail(nullptr), dlq_peek_head(nullptr), dlq_peek_tail(nullptr),
                          tinyq_peek_head(nullptr)})
    EXPECT_EQ(end, nullptr);
}

TEST(queue, search_ends_at_the_tail_whatever_its_link_holds) {
  drawing d;
  enqueue_tail(&d.q, d.at('A'));
  d.at('A')->link[0] = d.at('X');
  EXPECT_EQ(search_and_dequeue_elem(&d.q, 'X', differs), nullptr);
}

TEST(lists, a_count_out_of_step_or_an_empty_list_that_is_not_ends_the_process) {
  drawing d;
  enqueue_tail(&d.q, d.at('A'));
  dlq_enqueue_tail(&d.d, d.at('B'));
  dlq_t empty{};
  dlq_t headless = {nullptr, d.d.tail, 0};
  d.q.count = d.d.count = 0;
  const char count[] = "list->count >= 0";
  // clang-format off
  const struct { const char *op, *text; std::function<void()> body; } cases[] = {
      {"dequeue_head",     count,                       [&] { (void)dequeue_head(&d.q); }},
      {"dequeue_tail",     count,                       [&] { (void)dequeue_tail(&d.q); }},
      {"dequeue_elem",     count,                       [&] { dequeue_elem(&d.q, nullptr, d.at('A')); }},
      {"dlq_dequeue_elem", count,                       [&] { (void)dlq_dequeue_tail(&d.d); }},
      {"dlq_enqueue_elem", "prev == ((void *)0)",       [&] { dlq_enqueue_elem(&empty, d.at('B'), d.at('X')); }},
      {"dlq_enqueue_elem", "prev == ((void *)0)",       [&] { dlq_enqueue_tail(&headless, d.at('X')); }},
      {"dlq_enqueue_elem", "list->tail == ((void *)0)", [&] { dlq_enqueue_head(&headless, d.at('X')); }},
  };
  // clang-format on
  for (const auto &c : cases)
    expect_assertion(c.body, "diag_util/queue.cpp", c.op, c.text);
}

}  // namespace
