#include "Exception.h"

#include <algorithm>
#include <ostream>
#include <string>

namespace Orbel {

namespace {
thread_local std::vector<int> expected;
}

NotSupportedException::NotSupportedException(String attribute, unsigned op)
    : NamedException("operation " + String(std::to_string(op)) + " not supported on " + attribute, attribute,
                     notSupported),
      op_(op) {}

void throwNameInUseException(const String& message) {
    throw NameInUseException(message);
}

std::ostream& operator<<(std::ostream& os, const Exception& e) {
    return os << e.typeName() << ": " << e.message();
}

Expect::Expect(int id) : id_(id) {
    expected.push_back(id);
}

Expect::~Expect() {
    auto it = std::find(expected.rbegin(), expected.rend(), id_);
    if (it != expected.rend()) expected.erase(std::next(it).base());
}

bool Expect::isExpected(int id) noexcept {
    return std::find(expected.begin(), expected.end(), id) != expected.end();
}

} // namespace Orbel
