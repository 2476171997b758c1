// Orbel::String: a shared, immutable, reference-counted byte string. Copies share one
// body; the empty string has no body at all. String8 is the same type under its older
// name, so signatures print as Orbel::String.
//
//   Orbel::String a("bgpd");
//   Orbel::String b = a;               // shares a's bytes
//   for (char c : a) ...;              // IteratorConst walks the bytes
//   std::unordered_map<Orbel::String, int> m;   // hashing via String::hash()
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

namespace Orbel {

class String {
public:
    // Position in the bytes; parsers take (IteratorConst& pos, const IteratorConst& end).
    using IteratorConst = const char*;

    String() noexcept = default;
    String(const char* s);
    // Throws std::length_error for more than maxSize bytes (before reading any).
    String(const char* bytes, std::size_t n);
    String(std::string_view s) : String(s.data(), s.size()) {}
    String(const std::string& s) : String(s.data(), s.size()) {}
    String(const String& o) noexcept : b_(o.b_) {
        if (b_) ++b_->refs;
    }
    String(String&& o) noexcept : b_(o.b_) { o.b_ = nullptr; }
    ~String() { drop(); }
    String& operator=(const String& o) noexcept {
        String(o).swap(*this);
        return *this;
    }
    String& operator=(String&& o) noexcept {
        String(std::move(o)).swap(*this);
        return *this;
    }

    std::size_t size() const noexcept { return b_ ? b_->size : 0; }
    bool empty() const noexcept { return b_ == nullptr; }
    // Never null; not NUL-terminated in general (use stdString() or cStr() for C text).
    const char* data() const noexcept { return b_ ? b_->bytes() : ""; }
    IteratorConst begin() const noexcept { return data(); }
    IteratorConst end() const noexcept { return data() + size(); }
    std::string_view view() const noexcept { return {data(), size()}; }
    std::string stdString() const { return std::string(view()); }
    // NUL-terminated: the body always keeps a terminating zero after the bytes.
    const char* cStr() const noexcept { return data(); }
    unsigned char operator[](std::size_t i) const noexcept { return static_cast<unsigned char>(data()[i]); }

    // The framework's string hash (FNV-1a over the bytes), computed on each call: bodies
    // keep no copy of it (see Body).
    std::size_t hash() const noexcept;
    // True when both share one body (cheap identity test, not equality).
    bool sharesBodyWith(const String& o) const noexcept { return b_ == o.b_; }

    void swap(String& o) noexcept { std::swap(b_, o.b_); }

    // Number of string bodies alive in the process (tests prove that none leak).
    static std::int64_t liveBodies() noexcept;

    friend bool operator==(const String& a, const String& b) noexcept { return a.b_ == b.b_ || a.view() == b.view(); }
    friend bool operator!=(const String& a, const String& b) noexcept { return !(a == b); }
    // Byte order (unsigned), a prefix before its extensions: the order of std::string.
    friend bool operator<(const String& a, const String& b) noexcept { return a.view().compare(b.view()) < 0; }
    friend bool operator>(const String& a, const String& b) noexcept { return b < a; }
    friend bool operator<=(const String& a, const String& b) noexcept { return !(b < a); }
    friend bool operator>=(const String& a, const String& b) noexcept { return !(a < b); }

    static constexpr std::size_t emptyHash = 14695981039346656037ull;
    // The longest string a body holds.
    static constexpr std::size_t maxSize = 0xffffffffu;

private:
    // 8 bytes before the string's own: a model holds hundreds of thousands of short keys
    // and values, each in a body of its own, so the header keeps only the count and the
    // length. A cached hash would cost 8 bytes a body to save hashing a key of a few
    // dozen bytes on a lookup.
    struct Body {
#ifdef ORBEL_THREAD_SAFE_PTR
        std::atomic<std::uint32_t> refs;
#else
        std::uint32_t refs;
#endif
        std::uint32_t size;
        char* bytes() noexcept {
            return reinterpret_cast<char*>(this + 1);
        }
    };
    void drop() noexcept;
    Body* b_ = nullptr;
};

using String8 = String;

String operator+(const String& a, const String& b);
String operator+(const String& a, const char* b);
String operator+(const char* a, const String& b);

// Writes the bytes as they are (unformatted: no width or fill applies).
std::ostream& operator<<(std::ostream& os, const String& s);

// An entity's name.
class Name : public String {
public:
    using String::String;
    Name() noexcept = default;
    Name(const String& s) : String(s) {}
};

} // namespace Orbel

template <>
struct std::hash<Orbel::String> {
    std::size_t operator()(const Orbel::String& s) const noexcept { return s.hash(); }
};
template <>
struct std::hash<Orbel::Name> {
    std::size_t operator()(const Orbel::Name& s) const noexcept { return s.hash(); }
};
