// Directory tree walk and path utilities shared by the watch table and the
// profiler batch runs. A walk's result is a Status (common/status.h): the
// failure that ended it, or whatever a visitor returned to stop it.
//
// Thread safety: every function here is reentrant; a walk keeps all its state
// on the calling thread.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string_view>

#include "common/status.h"

namespace zibd {

// Longest path the daemon handles, in characters, and the buffer that holds
// one with its terminator.
inline constexpr std::size_t kFsPathMax = 4096;
inline constexpr std::size_t kFsPathBufferSize = kFsPathMax + 1;
using FsPathBuffer = std::array<char, kFsPathBufferSize>;

// A visitor gets the full path of an entry, valid only during the call. A
// Status that is not ok stops the walk and becomes its result.
using FsWalkVisitor = std::function<Status(const char* path)>;

struct FsWalkVisitors {
  FsWalkVisitor file = {};  // regular files and symbolic links
  FsWalkVisitor dir = {};   // directories, the root first (its result is ignored)
};

// Walks the tree at path. A directory root goes to the dir visitor and is
// then read level by level; a regular-file root goes to the file visitor; a
// root of any other type is no error and visits nothing. The root is examined
// with stat, so a symbolic link to a directory is followed.
//
// Each level is read whole before the walk descends, and entries whose names
// begin with '.' are neither visited nor entered. With recursive set, each
// subdirectory goes to the dir visitor as its level is read, and the
// subdirectories are entered after the level's stream is closed (so one
// stream is open at a time), in reverse order of reading; with it clear,
// subdirectories are neither visited nor entered. Regular files and symbolic
// links go to the file visitor; symbolic links are never entered, and entries
// whose type readdir leaves unknown are passed over.
//
// Fails with EINVAL when neither visitor is given, ENAMETOOLONG for a
// directory path of kFsPathMax - 1 characters or more, and the errno of the
// stat of the root or of the open of a directory that cannot be read; or
// returns the first visitor result that is not ok.
Status fsWalkTree(const char* path, const FsWalkVisitors& visit, bool recursive);

// True when directory dir holds an entry named exactly name (byte for byte:
// on a file system that ignores case, lstat finds "a.mp3" as "A.mp3" too).
// False when dir cannot be read.
bool fsHasEntry(const char* dir, const char* name);

// True when path equals prefix or continues it with '/'. A prefix that ends
// in '/' matches only itself; the empty prefix matches every absolute path.
bool fsPathIsUnder(const char* prefix, const char* path);

// The part of path before its last '/' ("" for "/x"); nullopt when path
// holds no '/'. The view is into path.
std::optional<std::string_view> fsDirName(std::string_view path);

}  // namespace zibd
