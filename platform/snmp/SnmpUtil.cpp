#include "SnmpUtil.h"

#include "statebase/Statebase.h"

namespace SnmpUtil {

Orbel::Ptr<Orbel::Entity> getEntityRelative(const char* path) {
    if (!path) return nullptr;
    return Statebase::root()->entity(path);
}

} // namespace SnmpUtil
