#include "String.h"

#include <cstring>
#include <new>
#include <ostream>
#include <stdexcept>
#include <string>

namespace Orbel {

namespace {
std::atomic<std::int64_t> bodies{0};

std::size_t fnv1a(const char* p, std::size_t n) noexcept {
    std::size_t h = String::emptyHash;
    for (std::size_t i = 0; i < n; ++i) {
        h ^= static_cast<unsigned char>(p[i]);
        h *= 1099511628211ull;
    }
    return h;
}
} // namespace

String::String(const char* s) : String(s, s ? std::strlen(s) : 0) {}

String::String(const char* bytes, std::size_t n) {
    if (n == 0) return;
    if (n > maxSize)
        throw std::length_error("Orbel::String: " + std::to_string(n) + " bytes, more than " + std::to_string(maxSize));
    static_assert(sizeof(Body) == 8, "a body header of two 32-bit words");
    void* mem = ::operator new(sizeof(Body) + n + 1);
    b_ = new (mem) Body{};
    b_->refs = 1;
    b_->size = static_cast<std::uint32_t>(n);
    std::memcpy(b_->bytes(), bytes, n);
    b_->bytes()[n] = '\0';
    bodies.fetch_add(1, std::memory_order_relaxed);
}

void String::drop() noexcept {
    if (b_ && --b_->refs == 0) {
        b_->~Body();
        ::operator delete(b_);
        bodies.fetch_sub(1, std::memory_order_relaxed);
    }
    b_ = nullptr;
}

std::size_t String::hash() const noexcept {
    return fnv1a(data(), size());
}

std::int64_t String::liveBodies() noexcept {
    return bodies.load(std::memory_order_relaxed);
}

String operator+(const String& a, const String& b) {
    std::string s;
    s.reserve(a.size() + b.size());
    s.append(a.view()).append(b.view());
    return String(s);
}
String operator+(const String& a, const char* b) {
    return a + String(b);
}
String operator+(const char* a, const String& b) {
    return String(a) + b;
}

std::ostream& operator<<(std::ostream& os, const String& s) {
    return os.write(s.data(), static_cast<std::streamsize>(s.size()));
}

} // namespace Orbel
