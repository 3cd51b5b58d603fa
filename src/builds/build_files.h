#pragma once
// Files inside one build, reached without following a symbolic link below the build's directory.
// The directory `builds/<id>` itself may be a link (a build kept on another volume); a link that
// sits anywhere under it is never followed, so no upload or download leaves the build.

#include <filesystem>
#include <string>

#include "http/file_answer.h"

namespace quill::builds {

namespace fs = std::filesystem;

// Moves the complete file `source` to `<buildDir>/files/<path>`, replacing a file there, and
// creating the build's directory and the missing directories on the way. `source` must be on the
// build's file system; `path` must have passed the safe-relative-path rule. The file's bytes are
// flushed before the rename and every directory that changed after it, so a placed file survives
// a power cut. Returns false (leaving `source` where it was) when a directory on the way is a
// link or not a directory, the target is a directory, or the file system fails.
bool placeBuildFile(const fs::path& buildDir, const std::string& path, const fs::path& source);

// Opens `<buildDir>/files/<path>` for reading without following links; the descriptor (the
// caller's to close) or -1 when it is missing or not a regular file.
int openBuildFile(const fs::path& buildDir, const std::string& path);

// What a download answer states about the file open at `fd`: its size and time, and, for a file
// of a finalized build (which never changes again), a strong entity tag made of its inode, size
// and modification time, so that a file replaced before finalizing never shares a tag.
http::FileFacts buildFileFacts(int fd, bool finalized);

}  // namespace quill::builds
