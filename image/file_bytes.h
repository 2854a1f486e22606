// Whole files in and out as bytes: the one place the image layer touches the file system.
#pragma once

#include <string>
#include <string_view>

namespace marlith {

// Reads the whole regular file at path into bytes. Returns false with a one-line reason naming
// path in error when it cannot be opened or read, is not a regular file (a directory, say) or
// is empty.
bool ReadWholeFile(const std::string& path, std::string& bytes, std::string& error);

// Reads the first count bytes of the regular file at path (fewer when it is shorter) into bytes,
// without waiting on anything that is not a regular file. Returns false when it cannot.
bool ReadFileHead(const std::string& path, size_t count, std::string& bytes);

// Writes bytes to path atomically: they go to a temporary file in path's folder that is synced
// and renamed over path only when complete, so a failed or interrupted write leaves any previous
// file at path untouched and no temporary behind. The new file gets the mode 0666 less the
// umask. Returns false with "cannot write <path>: <system reason>" in error.
bool WriteFileAtomically(const std::string& path, std::string_view bytes, std::string& error);

}  // namespace marlith
