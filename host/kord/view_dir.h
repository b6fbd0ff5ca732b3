// The file-system side of views: directories of symbolic links. Callers hold
// the database's write lock (an open write transaction) while they change a
// view directory, which orders those changes across threads and processes
// exactly as the tag changes they follow.
#pragma once

#include <map>
#include <string>

namespace zibd::kord {

// mkdir -p with mode 0755; throws Failure(kFailed).
void makeDirectories(const std::string& path);

// Makes dir/name a symbolic link to target (replacing a link that points
// elsewhere; creating dir when it is missing). false when that failed.
bool ensureLink(const std::string& dir, const std::string& name, const std::string& target);

// Removes dir/name; a missing link is fine. false when removing failed.
bool removeLink(const std::string& dir, const std::string& name);

// Makes dir (created when missing) hold exactly the symbolic links of
// `wanted` (name -> target). Entries that are not symbolic links are left
// alone. Throws Failure(kFailed).
void reconcileDirectory(const std::string& dir, const std::map<std::string, std::string>& wanted);

// Removes the symbolic links in dir, then dir; a missing dir is fine. Throws
// Failure(kFailed) when dir stays (for instance because it holds other files).
void removeViewDirectory(const std::string& dir);

}  // namespace zibd::kord
