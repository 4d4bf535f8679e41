#include "platform/mfgd/cmn_lib/diag_util/queue.h"

#include "platform/mfgd/cmn_lib/diag_util/diag_assert.h"

namespace {

queue_elem_t *elem_of(void *elem) {
  return static_cast<queue_elem_t *>(elem);
}
dlq_elem_t *dlq_elem_of(void *elem) {
  return static_cast<dlq_elem_t *>(elem);
}

}  // namespace

extern "C" {

void enqueue_head(queue_t *list, void *elem) {
  queue_elem_t *const first = elem_of(elem);
  first->next = list->head;
  if (list->head == nullptr) list->tail = first;
  list->head = first;
  ++list->count;
}

void enqueue_tail(queue_t *list, void *elem) {
  queue_elem_t *const last = elem_of(elem);
  if (list->tail != nullptr) {
    list->tail->next = last;
  } else {
    list->head = last;
  }
  last->next = nullptr;
  list->tail = last;
  ++list->count;
}

void enqueue_elem(queue_t *list, void *prev, void *elem) {
  if (prev == nullptr) {
    enqueue_head(list, elem);
    return;
  }
  queue_elem_t *const before = elem_of(prev);
  queue_elem_t *const added = elem_of(elem);
  added->next = before->next;
  if (added->next == nullptr) list->tail = added;
  before->next = added;
  ++list->count;
}

void *peek_head(const queue_t *list) {
  return list != nullptr ? list->head : nullptr;
}

void *peek_tail(const queue_t *list) {
  return list != nullptr ? list->tail : nullptr;
}

void *queue_traverse(const queue_t *list, uint32_t arg, queue_test_t test) {
  for (queue_elem_t *elem = list->head; elem != nullptr; elem = elem->next) {
    if (test(arg, elem) != 0) return elem;
  }
  return nullptr;
}

void *dequeue_head(queue_t *list) {
  queue_elem_t *const first = list->head;
  if (first == nullptr) return nullptr;
  list->head = first->next;
  if (list->head == nullptr) list->tail = nullptr;
  --list->count;
  assert(list->count >= 0);
  return first;
}

void *dequeue_tail(queue_t *list) {
  queue_elem_t *const last = list->tail;
  if (last == nullptr) return nullptr;
  --list->count;
  assert(list->count >= 0);
  if (list->head == last) {
    list->head = nullptr;
    list->tail = nullptr;
    return last;
  }
  queue_elem_t *before = list->head;
  while (before->next != last)
    before = before->next;
  list->tail = before;
  before->next = nullptr;
  return last;
}

void dequeue_elem(queue_t *list, void *prev, void *elem) {
  if (elem == nullptr) return;
  queue_elem_t *const before = elem_of(prev);
  queue_elem_t *const removed = elem_of(elem);
  if (before != nullptr) {
    before->next = removed->next;
  } else {
    list->head = removed->next;
  }
  if (list->tail == removed) list->tail = before;
  --list->count;
  assert(list->count >= 0);
}

void *search_and_dequeue_elem(queue_t *list, uint32_t arg, queue_test_t compare) {
  queue_elem_t *prev = nullptr;
  for (queue_elem_t *elem = list->head; elem != nullptr; prev = elem, elem = elem->next) {
    if (compare(arg, elem) == 0) {
      dequeue_elem(list, prev, elem);
      return elem;
    }
    if (elem == list->tail) return nullptr;
  }
  return nullptr;
}

void tinyq_enqueue(tinyq_t *q, void *elem) {
  queue_elem_t *const first = elem_of(elem);
  first->next = *q;
  *q = first;
}

void *tinyq_peek_head(const tinyq_t *q) {
  return q != nullptr ? *q : nullptr;
}

void *tinyq_dequeue(tinyq_t *q) {
  queue_elem_t *const first = *q;
  if (first != nullptr) *q = first->next;
  return first;
}

void tinyq_dequeue_elem(tinyq_t *q, void *prev, void *elem) {
  if (elem == nullptr) return;
  queue_elem_t *const after = elem_of(elem)->next;
  if (prev != nullptr) {
    elem_of(prev)->next = after;
  } else {
    *q = after;
  }
}

void dlq_enqueue_head(dlq_t *list, void *elem) {
  dlq_enqueue_elem(list, nullptr, elem);
}

void dlq_enqueue_tail(dlq_t *list, void *elem) {
  dlq_enqueue_elem(list, list->tail, elem);
}

void dlq_enqueue_elem(dlq_t *list, void *prev, void *elem) {
  if (elem == nullptr) return;
  dlq_elem_t *const added = dlq_elem_of(elem);
  dlq_elem_t *const before = dlq_elem_of(prev);
  ++list->count;
  if (list->head == nullptr) {
    DIAG_STD_ASSERT_AS(prev == nullptr, "prev == ((void *)0)");
    DIAG_STD_ASSERT_AS(list->tail == nullptr, "list->tail == ((void *)0)");
  }
  added->prev = before;
  added->next = before != nullptr ? before->next : list->head;
  (added->prev != nullptr ? added->prev->next : list->head) = added;
  (added->next != nullptr ? added->next->prev : list->tail) = added;
}

void *dlq_peek_head(const dlq_t *list) {
  return list != nullptr ? list->head : nullptr;
}

void *dlq_peek_tail(const dlq_t *list) {
  return list != nullptr ? list->tail : nullptr;
}

void *dlq_dequeue_head(dlq_t *list) {
  dlq_elem_t *const first = list->head;
  dlq_dequeue_elem(list, first);
  return first;
}

void *dlq_dequeue_tail(dlq_t *list) {
  dlq_elem_t *const last = list->tail;
  dlq_dequeue_elem(list, last);
  return last;
}

void dlq_dequeue_elem(dlq_t *list, void *elem) {
  if (elem == nullptr) return;
  const dlq_elem_t *const removed = dlq_elem_of(elem);
  (removed->prev != nullptr ? removed->prev->next : list->head) = removed->next;
  (removed->next != nullptr ? removed->next->prev : list->tail) = removed->prev;
  --list->count;
  assert(list->count >= 0);
}

}  // extern "C"
