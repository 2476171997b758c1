// Intrusive reference counting for every model object: PtrInterface carries the count,
// Ptr<T> holds one reference.
//
//   class Row : public Orbel::PtrInterface { ... protected: ~Row() override; };
//   Orbel::Ptr<Row> row = new Row(...);   // count 1
//   Orbel::Ptr<Row const> reader = row;   // count 2; the row dies with the last Ptr
//
// Counts are plain integers unless ORBEL_THREAD_SAFE_PTR is defined, in which case they
// are atomic. Destructors of counted types are not public: only the last Ptr deletes.
#pragma once

#include <cstdint>
#include <cstddef>
#include <atomic>
#include <functional>
#include <utility>

namespace Orbel {

class PtrInterface {
public:
    PtrInterface(const PtrInterface&) = delete;
    PtrInterface& operator=(const PtrInterface&) = delete;

    // Adds one reference. Const so that Ptr<T const> can hold a reference too.
    void newRef() const noexcept { ++refs_; }
    // Drops one reference; the last one calls onLastReference(), which by default deletes.
    void deleteRef() const;
    std::uint32_t references() const noexcept { return refs_; }

    // Number of counted objects alive in the process; tests use it to prove that rows,
    // entities and observers are freed.
    static std::int64_t liveInstances() noexcept;

    // Base of observers of reference-counted objects (the entity layer builds on it).
    class NotifieeConst;

protected:
    PtrInterface() noexcept;
    virtual ~PtrInterface();
    // Called when the count drops to zero. The default deletes the object; an entity first
    // tells its observers (zeroReferencesIs) and deletes only if nobody took a new reference.
    virtual void onLastReference() const;

private:
#ifdef ORBEL_THREAD_SAFE_PTR
    mutable std::atomic<std::uint32_t> refs_{0};
#else
    mutable std::uint32_t refs_{0};
#endif
};

// A counted reference. Null by default; copying adds a reference, destruction drops one.
template <class T>
class Ptr {
public:
    using element_type = T;

    Ptr() noexcept = default;
    Ptr(std::nullptr_t) noexcept {}
    // Takes a new reference to p (which may be a freshly made object with count 0).
    Ptr(T* p) noexcept : p_(p) {
        if (p_) p_->newRef();
    }
    Ptr(const Ptr& o) noexcept : p_(o.p_) {
        if (p_) p_->newRef();
    }
    Ptr(Ptr&& o) noexcept : p_(o.p_) { o.p_ = nullptr; }
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ptr(const Ptr<U>& o) noexcept : p_(o.ptr()) {
        if (p_) p_->newRef();
    }
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    Ptr(Ptr<U>&& o) noexcept : p_(o.release()) {}
    ~Ptr() {
        if (p_) p_->deleteRef();
    }

    Ptr& operator=(const Ptr& o) {
        Ptr(o).swap(*this);
        return *this;
    }
    Ptr& operator=(Ptr&& o) noexcept {
        Ptr(std::move(o)).swap(*this);
        return *this;
    }
    Ptr& operator=(T* p) {
        Ptr(p).swap(*this);
        return *this;
    }
    Ptr& operator=(std::nullptr_t) {
        Ptr().swap(*this);
        return *this;
    }

    T* ptr() const noexcept { return p_; }
    T* operator->() const noexcept { return p_; }
    T& operator*() const noexcept { return *p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }
    // Gives up the reference without dropping it; the caller owns it now.
    T* release() noexcept {
        T* p = p_;
        p_ = nullptr;
        return p;
    }

private:
    T* p_ = nullptr;
};

template <class T, class U>
bool operator==(const Ptr<T>& a, const Ptr<U>& b) noexcept {
    return a.ptr() == b.ptr();
}
template <class T>
bool operator==(const Ptr<T>& a, std::nullptr_t) noexcept {
    return !a;
}
template <class T, class U>
bool operator==(const Ptr<T>& a, const U* b) noexcept {
    return a.ptr() == b;
}

// Checked downcast: null when p is null or not a T.
template <class T, class U>
Ptr<T> dynamicPtrCast(const Ptr<U>& p) {
    return Ptr<T>(dynamic_cast<T*>(p.ptr()));
}

} // namespace Orbel

template <class T>
struct std::hash<Orbel::Ptr<T>> {
    std::size_t operator()(const Orbel::Ptr<T>& p) const noexcept { return std::hash<T*>()(p.ptr()); }
};
