// queue.h: intrusive linked lists: the queue, the tiny queue and the doubly linked queue.
//
// An element is any record of the caller's whose first member is its link (for the doubly linked queue, its first
// two members). Lists neither allocate nor release; the caller owns each element before, while and after it is on a
// list. List and element pointers must not be null unless an operation says that they may. Everything is constant
// time but dequeue_tail and the two searches. A removal that would take a count below 0 fails the assertion
// "list->count >= 0". Nothing is locked.
#pragma once

#include <stdint.h>

extern "C" {

// The link types may alias: elements have links of their own types, as `foo_t *next`.
struct __attribute__((may_alias)) queue_elem_t {
  queue_elem_t *next;  // towards the tail; null at the tail
};

struct queue_t {
  queue_elem_t *head;  // null when empty
  queue_elem_t *tail;  // null when empty
  int32_t count;
};

static_assert(sizeof(queue_t) == (sizeof(void *) == 4 ? 12 : 24));

// Selects an element: gets the search's argument and the element.
using queue_test_t = int32_t (*)(uint32_t arg, void *elem);

// Insert at the head; at the tail; after `prev`, which is on the list, or at the head where it is null.
void enqueue_head(queue_t *list, void *elem);
void enqueue_tail(queue_t *list, void *elem);
void enqueue_elem(queue_t *list, void *prev, void *elem);

// The first or last element, which stays; null when the list is empty or itself null.
[[nodiscard]] void *peek_head(const queue_t *list);
[[nodiscard]] void *peek_tail(const queue_t *list);

// The first element, from the head, whose test returns other than 0; null when there is none. It stays.
[[nodiscard]] void *queue_traverse(const queue_t *list, uint32_t arg, queue_test_t test);

// Remove and return the first or the last element; null when the list is empty. dequeue_tail walks the whole list.
// dequeue_head leaves the removed element's link as it was.
void *dequeue_head(queue_t *list);
void *dequeue_tail(queue_t *list);

// Removes one element.
//   prev  its predecessor, null when it is the head; not checked
//   elem  the element; null does nothing
void dequeue_elem(queue_t *list, void *prev, void *elem);

// Removes and returns the first element, from the head, whose comparison returns 0 (queue_traverse selects the other
// way round); null when there is none. The walk ends at the tail and ignores the tail's link.
void *search_and_dequeue_elem(queue_t *list, uint32_t arg, queue_test_t compare);

// Tiny queue: a bare pointer to the first element; last in, first out.
using tinyq_t = queue_elem_t *;

void tinyq_enqueue(tinyq_t *q, void *elem);

// The first element, which stays; null when the queue is empty or `q` is null.
[[nodiscard]] void *tinyq_peek_head(const tinyq_t *q);

// Removes and returns the first element; null when the queue is empty.
void *tinyq_dequeue(tinyq_t *q);

// Removes one element; arguments as those of dequeue_elem.
void tinyq_dequeue_elem(tinyq_t *q, void *prev, void *elem);

struct __attribute__((may_alias)) dlq_elem_t {
  dlq_elem_t *prev;  // towards the head; null at the head
  dlq_elem_t *next;  // towards the tail; null at the tail
};

struct dlq_t {
  dlq_elem_t *head;  // null when empty
  dlq_elem_t *tail;  // null when empty
  int32_t count;
};

static_assert(sizeof(dlq_t) == (sizeof(void *) == 4 ? 12 : 24));

// Insert at the head; at the tail; after `prev`, or at the head where it is null. A null element does nothing. An
// empty list with a `prev`, or with a tail left over, fails an assertion.
void dlq_enqueue_head(dlq_t *list, void *elem);
void dlq_enqueue_tail(dlq_t *list, void *elem);
void dlq_enqueue_elem(dlq_t *list, void *prev, void *elem);

// The first or last element, which stays; null when the list is empty or itself null.
[[nodiscard]] void *dlq_peek_head(const dlq_t *list);
[[nodiscard]] void *dlq_peek_tail(const dlq_t *list);

// Remove and return the first or the last element; null when the list is empty.
void *dlq_dequeue_head(dlq_t *list);
void *dlq_dequeue_tail(dlq_t *list);

// Removes one element, whose own links stay as they were. Null does nothing.
void dlq_dequeue_elem(dlq_t *list, void *elem);
}
