// Replacing and removing files so that the change survives a crash or power cut whole.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

#include "pkgd/file_io.hpp"

namespace pkgd {

// Replaces the file at `path` with `content`. The content goes to a hidden temporary file in the
// same directory (".tmp.<pid>.<count>", short whatever the name, so a name at the file-name limit
// can be replaced too), is flushed to storage and renamed over `path`; then the directory is
// flushed so the rename itself is on storage. At any moment the path holds either the old file or
// the complete new one. The new file gets `mode` less the umask, whatever the old one had: pass
// 0600 for a file that must stay private. False when it could not be replaced; the old file (or
// none) stays and no temporary file is left behind. A writer killed midway may leave its
// temporary file; readers of the directory skip hidden names.
bool replace_file(const std::string& path, std::string_view content, mode_t mode = 0666);
bool replace_file(FileIo& io, const std::string& path, std::string_view content, mode_t mode = 0666);

// Removes the temporary files in `dir` that a cut-off writer left: those of a process that is
// gone, or of this one. A writer still running keeps its file.
void remove_stale_temporaries(FileIo& io, const std::string& dir);

// Removes `path` and flushes its directory, so a removed record does not come back after a power
// cut. False when the file could not be removed (already gone, say).
bool remove_file(const std::string& path);
bool remove_file(FileIo& io, const std::string& path);

// Creates the directory `path` (its parent must exist) and flushes the parent, so that records
// later renamed into it are not lost with a directory entry that never reached storage. True when
// the directory was made or was there already.
bool make_directory(FileIo& io, const std::string& path, mode_t mode);

}  // namespace pkgd
