// Directory tree walk and path utilities shared by the watch table and the
// profiler batch runs. Results are the codes of common/fs_error.h, or whatever
// non-zero value a callback returned to stop a walk.
//
// Thread safety: every function here is reentrant; a walk keeps all its state
// on the calling thread.
#pragma once

#include <array>
#include <cstddef>

namespace zibd {

// Longest path the daemon handles, in characters, and the buffer that holds
// one with its terminator.
inline constexpr std::size_t kFsPathMax = 4096;
inline constexpr std::size_t kFsPathBufferSize = kFsPathMax + 1;
using FsPathBuffer = std::array<char, kFsPathBufferSize>;

// A walk callback gets the full path of an entry (valid only during the call)
// and the caller's opaque word. The walk never dereferences data, so callers
// may pass sentinel values (null, all ones) as well as pointers. Returning 0
// goes on; any other value stops the walk and becomes its result.
using FsWalkCallback = int (*)(const char* path, void* data);

// Walks the tree at path. A directory root is reported to dir_cb (result
// ignored) and then read by fsWalkDir; a regular-file root goes to file_cb;
// a root of any other type gives 0. The root is examined with stat, so a
// symbolic link to a directory is followed. done_cb, if given, is called on
// path at the end (its result is ignored) unless the root could not be
// examined.
// Returns kFsErrInvalid when both file_cb and dir_cb are null, kFsErrPath when
// the root (or, below it, a directory) cannot be read or is too long,
// kFsErrNoMemory, or the first non-zero callback result.
int fsWalkTree(const char* path, FsWalkCallback file_cb, FsWalkCallback dir_cb,
               FsWalkCallback done_cb, void* data, bool recursive);

// Reads one directory level into buffer and, when recursive, descends. Entries
// whose names begin with '.' are neither reported nor entered. With recursive
// set, each subdirectory goes to dir_cb while the level is read; the
// subdirectories are entered after the level's stream is closed (so one
// stream is open at a time), in reverse order of reading. Regular files and
// symbolic links go to file_cb; symbolic links are never entered, and entries
// whose type readdir leaves unknown are passed over. With recursive clear,
// subdirectories are neither reported nor entered.
// buffer is shared by every level of one walk; each level overwrites it.
// Returns kFsErrPath for a directory path of kFsPathMax - 1 characters or
// more, or one that cannot be opened; otherwise as fsWalkTree.
int fsWalkDir(const char* dir, FsWalkCallback file_cb, FsWalkCallback dir_cb, void* data,
              bool recursive, FsPathBuffer& buffer);

// True when directory dir holds an entry named exactly name (byte for byte:
// on a file system that ignores case, lstat finds "a.mp3" as "A.mp3" too).
// False when dir cannot be read.
bool fsHasEntry(const char* dir, const char* name);

// True when path equals prefix or continues it with '/'. A prefix that ends
// in '/' matches only itself; the empty prefix matches every absolute path.
bool fsPathIsUnder(const char* prefix, const char* path);

// Writes the part of path before its last '/' into dest ("" for "/x").
// dest must have room for size + 1 bytes: a parent exactly size characters
// long is accepted and terminated at dest[size].
// Returns 0; kFsErrInvalid when path or dest is null, size is 0 or path holds
// no '/'; kFsErrTooSmall when the parent is longer than size.
int fsDirName(const char* path, char* dest, std::size_t size);

}  // namespace zibd
