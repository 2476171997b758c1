// Reading a state file's bytes whole, for the reader: bounded in size, refused with a line
// that names the file when it cannot be read, is not a regular file, is empty or too big.
//
//   std::size_t length = 0;
//   std::string bytes = readStateFileBytes(path, path, 16, length);   // length bytes, then 16 zeros
#pragma once

#include <cstddef>
#include <string>

namespace Feed {

// The file at path, followed by padBytes zero bytes (the parser's vector loads may look past
// the end); length gets the file's size. shown names the file in messages. Throws
// StateError: cannot open or read (with the reason), not a regular file, empty, or more
// than maxStateFileBytes (also when it grows past that while being read).
std::string readStateFileBytes(const std::string& path, const std::string& shown, std::size_t padBytes,
                               std::size_t& length);

} // namespace Feed
