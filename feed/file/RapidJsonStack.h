// RapidJSON's reader, with its stack's Reserve replaced for the state file reader alone.
//
// RapidJSON 1.1.0's Stack<A>::Reserve tests `stackTop_ + n > stackEnd_`. The stack is
// allocated on its first push, so on the first string of every file both pointers are
// null and that sum is arithmetic on a null pointer: undefined behaviour, which UBSan
// reports (and an optimiser may exploit). The replacement below compares the room left
// instead, which is also defined for an empty stack (null - null is 0). It applies only to
// stacks whose allocator is Feed::ReaderStackAllocator, so no other user of RapidJSON in
// the process is affected. The reader pushes only chars on its stack.
//
// Include this header, not <rapidjson/reader.h>, in the one file that reads state files.
#pragma once

#if defined(__SSE2__) && !defined(RAPIDJSON_SSE2)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/reader.h>

namespace Feed {
// RapidJSON's CrtAllocator under a type of its own, so that the specialisation below
// selects this reader's stack and no other.
struct ReaderStackAllocator : rapidjson::CrtAllocator {};
} // namespace Feed

RAPIDJSON_NAMESPACE_BEGIN
namespace internal {
template <>
template <>
inline void Stack<Feed::ReaderStackAllocator>::Reserve<char>(size_t count) {
    if (RAPIDJSON_UNLIKELY(count > static_cast<size_t>(stackEnd_ - stackTop_))) Expand<char>(count);
}
} // namespace internal
RAPIDJSON_NAMESPACE_END
