// Opening files on the memory card without leaving it. Names below the card root are
// resolved without following any symbolic link and without "." or ".." components, and
// only regular files are opened for reading, never in a way that could block. Any thread.
#pragma once

#include <sys/stat.h>

namespace korvel {

// The directory `path`, which must be the card root or lie beneath it; -1 with errno set
// otherwise (ELOOP or ENOTDIR for a link on the way, EXDEV for a path off the card).
int card_open_dir(const char* path);

// The directory holding path's last component, opened as by card_open_dir; *leaf points
// at that component inside path.
int card_open_parent(const char* path, const char** leaf);

// Whether `name` in dirFd is itself a regular file (a link is not followed); st, when
// given, receives its status.
bool is_regular_at(int dirFd, const char* name, struct stat* st = nullptr);

// The regular file `name` in dirFd, read-only and non-blocking; -1 for anything else.
int open_regular_at(int dirFd, const char* name);

// A regular file on the card by its full path, opened as by open_regular_at.
int card_open_regular(const char* path);

// Whether a full path names a regular file on the card, looked up as by card_open_regular.
bool card_is_regular(const char* path);

namespace testing_seam {
// Tests only: walk the components even where the kernel can resolve beneath a directory,
// as on the older kernels of some cameras.
void force_component_walk(bool on);
}  // namespace testing_seam

}  // namespace korvel
