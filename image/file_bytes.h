// Whole files in and out as bytes: the one place the image layer touches the file system.
#pragma once

#include <string>
#include <string_view>

namespace marlith {

// Reads the whole regular file at path into bytes. Returns false with a one-line reason naming
// path in error when it cannot be opened or read, is not a regular file (a directory, a FIFO, a
// device: refused at once, never waited on) or is empty.
bool ReadWholeFile(const std::string& path, std::string& bytes, std::string& error);

// Reads the first count bytes of the regular file at path (fewer when it is shorter) into bytes,
// without waiting on anything that is not a regular file. Returns false when it cannot.
bool ReadFileHead(const std::string& path, size_t count, std::string& bytes);

// Writes bytes to path atomically: they go to an unnamed file (O_TMPFILE) in the target's
// folder, synced and linked into place only when complete, so a failed, interrupted or killed
// write leaves any previous file untouched and nothing behind. Where the file system has no
// unnamed files a hidden temporary file beside the target is renamed over it instead (a kill
// then can leave that file behind). When path is a symbolic link its target is replaced and the
// link stays; an existing file keeps its mode, a new one gets 0666 less the umask. Returns false
// with "cannot write <path>: <system reason>" in error.
bool WriteFileAtomically(const std::string& path, std::string_view bytes, std::string& error);

// Removes the temporary files that writes in progress have named (the hidden names above), for a
// signal handler about to end the process: async-signal-safe (unlink only).
void RemoveTemporaryFiles();

}  // namespace marlith
