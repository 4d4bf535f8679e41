// lock.h: named advisory locks between the processes of a board.
//
// A lock is a POSIX record lock on the first byte of a file under /var/lock: shared for reading, exclusive for writing.
// It belongs to the process, never makes it wait for itself, and is lost when the process ends or closes any of its
// descriptors of the file. Any error other than contention ends the process with a message and a failed
// assertion, as does a negative handle.
#pragma once

#include <stdint.h>

enum : uint32_t { LOCK_ERR_BUSY = 293 };  // another process holds a conflicting lock

extern "C" {
// Opens the lock file /var/lock/<name>.lock, and creates it where it is absent. Paths are cut to 286 characters.
// Returns the handle, a descriptor, which may be 0; negative, after a message, when the file cannot be opened.
[[nodiscard]] int32_t lock_create(const char *name);

// Closes the handle, which drops all locks of this process on the file. The file stays. Returns 0.
uint32_t lock_destroy(int32_t lock);

// Take the lock without waiting. Taking it again, or the other way, replaces what this process holds.
// Returns  0              taken
//          LOCK_ERR_BUSY  for a read lock: another process writes; for a write lock: another process holds any lock
[[nodiscard]] uint32_t lock_get_rd_lock(int32_t lock);
[[nodiscard]] uint32_t lock_get_wr_lock(int32_t lock);

// Take the lock and wait for it as long as it takes; signals do not end the wait. Return 0.
uint32_t lock_get_rd_lockw(int32_t lock);
uint32_t lock_get_wr_lockw(int32_t lock);

// Drop the lock, whichever kind it is, also one that this process does not hold. Return 0.
uint32_t lock_drop_rd_lock(int32_t lock);
uint32_t lock_drop_wr_lock(int32_t lock);

// One request, the step under all of them.
//   cmd   F_SETLK or F_SETLKW, by the number for either size of file offsets
//   type  F_RDLCK, F_WRLCK or F_UNLCK
// Returns fcntl's result: 0 or above, or -1 with errno set.
[[nodiscard]] int32_t lock_req(int32_t lock, int32_t cmd, int32_t type);
}
