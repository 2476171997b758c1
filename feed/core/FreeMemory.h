// Handing memory that the allocator holds free back to the system.
#pragma once

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace Feed {

// A big state parsed or applied and then released leaves pages behind in the allocator's
// arenas that it would otherwise keep resident until a later change of the same size
// reuses them. Costs a pass over the arenas: call it after big changes only.
inline void releaseFreeMemory() {
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
}

} // namespace Feed
