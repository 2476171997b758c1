// Orbel::RbTreeMap: an ordered map of reference-counted rows threaded through links that
// the rows carry themselves, so inserting, erasing and iterating never allocate.
//
//   class Route : public Orbel::PtrInterface, public Orbel::RbTreeNode<Route> {
//   public: const Prefix& fwkKey() const; ...
//   };
//   Orbel::RbTreeMap<Route, Prefix> routes;
//   routes.insert(new Route(...));              // the map holds one reference
//   for (auto it = routes.begin(); it; ++it) ...  // survives erasure of the current row
//   Orbel::Ptr<Route> gone = routes.erase(prefix);
//
// Keys need == and <. A row's key must not change while the row is in a map.
#pragma once

#include "PtrInterface.h"

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <stdexcept>
#include <string>

namespace Orbel {

template <class V, class K, class L = V>
class RbTreeMap;

// Links that a row carries so a map can thread it. A row type L derives publicly from
// RbTreeNode<L>; a row belongs to at most one map at a time. Copying a row never copies
// its links: the copy starts unlinked.
template <class L>
class RbTreeNode {
public:
    // True while the row is linked in a map.
    bool rbInTree() const noexcept { return rbLinked_; }

protected:
    RbTreeNode() noexcept = default;
    RbTreeNode(const RbTreeNode&) noexcept {}
    RbTreeNode& operator=(const RbTreeNode&) noexcept { return *this; }
    ~RbTreeNode() = default;

private:
    template <class, class, class>
    friend class RbTreeMap;

    L* rbParent_ = nullptr;
    L* rbLeft_ = nullptr;
    L* rbRight_ = nullptr;
    bool rbRed_ = false;
    bool rbLinked_ = false;
};

// Red-black tree of rows V ordered by their keys K (V::fwkKey()), linked through the
// RbTreeNode<L> base of each row (L is V or a base of V). Holds one reference to every
// row it contains. Not thread-safe; callers serialise access.
template <class V, class K, class L>
class RbTreeMap {
public:
    class Iterator;

    // Empty map.
    RbTreeMap() noexcept = default;
    // Unlinks and releases every row (see clear()).
    ~RbTreeMap() { clear(); }
    RbTreeMap(const RbTreeMap&) = delete;
    RbTreeMap& operator=(const RbTreeMap&) = delete;
    RbTreeMap(RbTreeMap&&) = delete;
    RbTreeMap& operator=(RbTreeMap&&) = delete;

    // Number of rows in the map.
    std::size_t size() const noexcept { return size_; }
    // True when the map holds no row.
    bool empty() const noexcept { return size_ == 0; }
    // Mutation counter, bumped by every insert, replace, effective erase and clear;
    // iterators compare it to tell whether their fast path is still valid.
    std::uint64_t modCount() const noexcept { return modCount_; }

    // Row with key k as a counted reference, null when absent.
    Ptr<V> operator[](const K& k) const { return Ptr<V>(find(k)); }

    // Row with key k, null when absent; the map keeps the only reference it holds.
    V* find(const K& k) const {
        L* n = root_;
        while (n) {
            const K& nk = keyOf(n);
            if (k == nk) return asV(n);
            n = k < nk ? n->rbLeft_ : n->rbRight_;
        }
        return nullptr;
    }

    // Links row and takes one reference to it. Precondition: row is non-null and in no
    // map (throws std::invalid_argument otherwise, leaving the map unchanged). When a row
    // with an equal key is present, row takes its place and colour in the tree (no
    // rebalancing) and the old row is unlinked and returned, carrying the reference the
    // map held; otherwise returns null. Iterators stay valid: those past a change reseek
    // on their next step.
    Ptr<V> insert(const Ptr<V>& row) {
        if (!row) throw std::invalid_argument("RbTreeMap::insert: null row");
        L* z = asL(row.ptr());
        if (z->rbLinked_) throw std::invalid_argument("RbTreeMap::insert: row is already in a map");
        const K& k = row->fwkKey();
        L* parent = nullptr;
        L* cur = root_;
        bool goLeft = false;
        while (cur) {
            const K& ck = keyOf(cur);
            if (k == ck) return replaceNode(cur, z);
            parent = cur;
            goLeft = k < ck;
            cur = goLeft ? cur->rbLeft_ : cur->rbRight_;
        }
        z->newRef();
        z->rbParent_ = parent;
        z->rbLeft_ = z->rbRight_ = nullptr;
        z->rbRed_ = true;
        z->rbLinked_ = true;
        if (!parent)
            root_ = z;
        else if (goLeft)
            parent->rbLeft_ = z;
        else
            parent->rbRight_ = z;
        insertFixup(z);
        ++size_;
        ++modCount_;
        return Ptr<V>();
    }

    // Unlinks the row with key k and returns it carrying the map's reference; null (and
    // no change) when absent. The erased row's links are cleared.
    Ptr<V> erase(const K& k) {
        V* row = find(k);
        if (!row) return Ptr<V>();
        return eraseLinked(row);
    }

    // Unlinks row and returns it carrying the map's reference. Precondition: row is in
    // this map (throws std::invalid_argument otherwise, leaving the map unchanged).
    Ptr<V> erase(V* row) {
        if (!row || !asL(row)->rbLinked_ || !isInThisMap(asL(row)))
            throw std::invalid_argument("RbTreeMap::erase: row is not in this map");
        return eraseLinked(row);
    }

    // Unlinks every row and drops the map's reference to each (rows nobody else holds are
    // destroyed). The map is already empty while rows are released, so a row's destructor
    // may use it. Iterators step to end on their next step.
    void clear() {
        L* n = root_;
        root_ = nullptr;
        size_ = 0;
        ++modCount_;
        // Post-order teardown of the detached tree: a row is released only after its
        // subtrees are, and never touched again afterwards.
        while (n) {
            if (n->rbLeft_) {
                n = n->rbLeft_;
            } else if (n->rbRight_) {
                n = n->rbRight_;
            } else {
                L* parent = n->rbParent_;
                if (parent) {
                    if (parent->rbLeft_ == n)
                        parent->rbLeft_ = nullptr;
                    else
                        parent->rbRight_ = nullptr;
                }
                resetLinks(n);
                n->deleteRef();
                n = parent;
            }
        }
    }

    // Row with the smallest key, null when empty.
    V* first() const noexcept { return root_ ? asV(minimum(root_)) : nullptr; }
    // Row with the greatest key, null when empty.
    V* last() const noexcept { return root_ ? asV(maximum(root_)) : nullptr; }

    // In-order successor of row (which must be in a map), null at the end; amortised O(1).
    static V* next(const V* row) noexcept {
        L* n = asL(const_cast<V*>(row));
        if (n->rbRight_) return asV(minimum(n->rbRight_));
        L* p = n->rbParent_;
        while (p && n == p->rbRight_) {
            n = p;
            p = p->rbParent_;
        }
        return p ? asV(p) : nullptr;
    }

    // In-order predecessor of row (which must be in a map), null at the start.
    static V* prev(const V* row) noexcept {
        L* n = asL(const_cast<V*>(row));
        if (n->rbLeft_) return asV(maximum(n->rbLeft_));
        L* p = n->rbParent_;
        while (p && n == p->rbLeft_) {
            n = p;
            p = p->rbParent_;
        }
        return p ? asV(p) : nullptr;
    }

    // Root row, null when empty.
    V* root() const noexcept { return root_ ? asV(root_) : nullptr; }

    // Row whose key equals k, else the first row with a greater key, else null. Descends
    // from the root using == and <, stopping early on an exact match.
    V* findExactOrNext(const K& k) const {
        L* n = root_;
        L* candidate = nullptr;
        while (n) {
            const K& nk = keyOf(n);
            if (k == nk) return asV(n);
            if (k < nk) {
                candidate = n;
                n = n->rbLeft_;
            } else {
                n = n->rbRight_;
            }
        }
        return candidate ? asV(candidate) : nullptr;
    }

    // First row whose key is strictly greater than k, or null.
    V* upperBound(const K& k) const {
        L* n = root_;
        L* candidate = nullptr;
        while (n) {
            if (k < keyOf(n)) {
                candidate = n;
                n = n->rbLeft_;
            } else {
                n = n->rbRight_;
            }
        }
        return candidate ? asV(candidate) : nullptr;
    }

    // First row whose key is not less than k, or null.
    V* lowerBound(const K& k) const {
        L* n = root_;
        L* candidate = nullptr;
        while (n) {
            if (keyOf(n) < k) {
                n = n->rbRight_;
            } else {
                candidate = n;
                n = n->rbLeft_;
            }
        }
        return candidate ? asV(candidate) : nullptr;
    }

    // Verifies parent links, the linked flag, strictly increasing keys in order, the
    // red-black rules (black root, no red row with a red child, equal black height) and
    // the row count; throws std::logic_error naming the first broken rule. O(n).
    void checkInvariants() const {
        if (root_ && root_->rbRed_) fail("root is red");
        std::size_t count = 0;
        const L* previous = nullptr;
        checkSubtree(root_, nullptr, count, previous);
        if (count != size_) fail("size " + std::to_string(size_) + " but " + std::to_string(count) + " rows linked");
    }

    // Position in the map. Holds a counted reference to its row, so the row stays readable
    // even after it is erased; stepping then continues at the first row whose key is
    // strictly greater. Copyable; never allocates. Must not be stepped after its map dies.
    class Iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = V;
        using difference_type = std::ptrdiff_t;
        using pointer = V*;
        using reference = V&;

        // At end, attached to no map.
        Iterator() noexcept = default;
        // On m.first() (end when m is empty).
        explicit Iterator(const RbTreeMap& m) : map_(&m), row_(m.first()), modCount_(m.modCount_) {}
        // On row, which must be in m; null means end.
        Iterator(const RbTreeMap& m, V* row) : map_(&m), row_(row), modCount_(m.modCount_) {}

        // Current row, null at end.
        V* ptr() const noexcept { return row_.ptr(); }
        // The iterator's counted reference to its row (null at end).
        const Ptr<V>& row() const noexcept { return row_; }
        // Current row; precondition: not at end.
        V* operator->() const noexcept { return row_.ptr(); }
        // Current row; precondition: not at end.
        V& operator*() const noexcept { return *row_; }
        // Key of the current row; precondition: not at end.
        const K& key() const { return row_->fwkKey(); }
        // True at end.
        bool isEnd() const noexcept { return !row_; }
        // True when on a row.
        explicit operator bool() const noexcept { return static_cast<bool>(row_); }
        // The map this iterator walks, null for a default-constructed one.
        const RbTreeMap* map() const noexcept { return map_; }
        // The map's modCount when the iterator was last positioned.
        std::uint64_t modCount() const noexcept { return modCount_; }

        // Steps to the next row; stays at end when at end. If the map changed since the
        // iterator was positioned, it reseeks from the root for the first key strictly
        // greater than its row's key. Releases its reference to the row it leaves.
        Iterator& operator++() {
            if (!row_) return *this;
            V* n;
            if (map_->modCount_ == modCount_) {
                n = RbTreeMap::next(row_.ptr());
            } else {
                n = map_->upperBound(row_->fwkKey());
                modCount_ = map_->modCount_;
            }
            row_ = n;
            return *this;
        }
        // Steps like prefix ++ and returns the previous position.
        Iterator operator++(int) {
            Iterator before = *this;
            ++*this;
            return before;
        }

        // Equal when on the same row; all end iterators are equal.
        friend bool operator==(const Iterator& a, const Iterator& b) noexcept { return a.row_.ptr() == b.row_.ptr(); }

    private:
        const RbTreeMap* map_ = nullptr;
        Ptr<V> row_;
        std::uint64_t modCount_ = 0;
    };

    // Iterator on the first row.
    Iterator begin() const { return Iterator(*this); }
    // Iterator at end.
    Iterator end() const { return Iterator(*this, nullptr); }
    // Iterator on row, which must be in this map (null gives end).
    Iterator iterator(V* row) const { return Iterator(*this, row); }

private:
    static V* asV(L* n) noexcept { return static_cast<V*>(n); }
    static L* asL(V* v) noexcept { return v; }
    static const K& keyOf(const L* n) { return static_cast<const V*>(n)->fwkKey(); }
    static bool isRed(const L* n) noexcept { return n && n->rbRed_; }

    static L* minimum(L* n) noexcept {
        while (n->rbLeft_) n = n->rbLeft_;
        return n;
    }
    static L* maximum(L* n) noexcept {
        while (n->rbRight_) n = n->rbRight_;
        return n;
    }

    static void resetLinks(L* n) noexcept {
        n->rbParent_ = n->rbLeft_ = n->rbRight_ = nullptr;
        n->rbRed_ = false;
        n->rbLinked_ = false;
    }

    [[noreturn]] static void fail(const std::string& rule) {
        throw std::logic_error("RbTreeMap invariant broken: " + rule);
    }

    bool isInThisMap(const L* n) const noexcept {
        while (n->rbParent_) n = n->rbParent_;
        return n == root_;
    }

    // Puts v where u hangs (in u's parent or as root); u's own links are left alone.
    void replaceChild(L* u, L* v) noexcept {
        L* p = u->rbParent_;
        if (!p)
            root_ = v;
        else if (u == p->rbLeft_)
            p->rbLeft_ = v;
        else
            p->rbRight_ = v;
        if (v) v->rbParent_ = p;
    }

    void rotateLeft(L* x) noexcept {
        L* y = x->rbRight_;
        x->rbRight_ = y->rbLeft_;
        if (y->rbLeft_) y->rbLeft_->rbParent_ = x;
        replaceChild(x, y);
        y->rbLeft_ = x;
        x->rbParent_ = y;
    }

    void rotateRight(L* x) noexcept {
        L* y = x->rbLeft_;
        x->rbLeft_ = y->rbRight_;
        if (y->rbRight_) y->rbRight_->rbParent_ = x;
        replaceChild(x, y);
        y->rbRight_ = x;
        x->rbParent_ = y;
    }

    // Swaps newcomer z into old's place and colour; returns old with the map's reference.
    Ptr<V> replaceNode(L* old, L* z) {
        z->newRef();
        z->rbParent_ = old->rbParent_;
        z->rbLeft_ = old->rbLeft_;
        z->rbRight_ = old->rbRight_;
        z->rbRed_ = old->rbRed_;
        z->rbLinked_ = true;
        replaceChild(old, z);
        if (z->rbLeft_) z->rbLeft_->rbParent_ = z;
        if (z->rbRight_) z->rbRight_->rbParent_ = z;
        resetLinks(old);
        ++modCount_;
        Ptr<V> out(asV(old));
        old->deleteRef(); // the map's reference now lives in out
        return out;
    }

    void insertFixup(L* z) noexcept {
        while (isRed(z->rbParent_)) {
            L* p = z->rbParent_;
            L* g = p->rbParent_; // exists: a red parent is never the root
            if (p == g->rbLeft_) {
                L* uncle = g->rbRight_;
                if (isRed(uncle)) {
                    p->rbRed_ = false;
                    uncle->rbRed_ = false;
                    g->rbRed_ = true;
                    z = g;
                } else {
                    if (z == p->rbRight_) {
                        z = p;
                        rotateLeft(z);
                        p = z->rbParent_;
                    }
                    p->rbRed_ = false;
                    g->rbRed_ = true;
                    rotateRight(g);
                }
            } else {
                L* uncle = g->rbLeft_;
                if (isRed(uncle)) {
                    p->rbRed_ = false;
                    uncle->rbRed_ = false;
                    g->rbRed_ = true;
                    z = g;
                } else {
                    if (z == p->rbLeft_) {
                        z = p;
                        rotateRight(z);
                        p = z->rbParent_;
                    }
                    p->rbRed_ = false;
                    g->rbRed_ = true;
                    rotateLeft(g);
                }
            }
        }
        root_->rbRed_ = false;
    }

    // Unlinks z, which is in this map, and rebalances. Leaves z's links untouched.
    void unlinkNode(L* z) noexcept {
        L* x;
        L* xParent;
        bool removedRed = z->rbRed_;
        if (!z->rbLeft_) {
            x = z->rbRight_;
            xParent = z->rbParent_;
            replaceChild(z, x);
        } else if (!z->rbRight_) {
            x = z->rbLeft_;
            xParent = z->rbParent_;
            replaceChild(z, x);
        } else {
            L* y = minimum(z->rbRight_);
            removedRed = y->rbRed_;
            x = y->rbRight_;
            if (y->rbParent_ == z) {
                xParent = y;
            } else {
                xParent = y->rbParent_;
                replaceChild(y, x);
                y->rbRight_ = z->rbRight_;
                y->rbRight_->rbParent_ = y;
            }
            replaceChild(z, y);
            y->rbLeft_ = z->rbLeft_;
            y->rbLeft_->rbParent_ = y;
            y->rbRed_ = z->rbRed_;
        }
        if (!removedRed) eraseFixup(x, xParent);
    }

    // Restores black height after a black row left the tree; x (maybe null) carries the
    // missing black and hangs under xParent.
    void eraseFixup(L* x, L* xParent) noexcept {
        while (x != root_ && !isRed(x)) {
            if (x == xParent->rbLeft_) {
                L* w = xParent->rbRight_; // non-null: that side has black height >= 1
                if (w->rbRed_) {
                    w->rbRed_ = false;
                    xParent->rbRed_ = true;
                    rotateLeft(xParent);
                    w = xParent->rbRight_;
                }
                if (!isRed(w->rbLeft_) && !isRed(w->rbRight_)) {
                    w->rbRed_ = true;
                    x = xParent;
                    xParent = x->rbParent_;
                } else {
                    if (!isRed(w->rbRight_)) {
                        w->rbLeft_->rbRed_ = false;
                        w->rbRed_ = true;
                        rotateRight(w);
                        w = xParent->rbRight_;
                    }
                    w->rbRed_ = xParent->rbRed_;
                    xParent->rbRed_ = false;
                    w->rbRight_->rbRed_ = false;
                    rotateLeft(xParent);
                    x = root_;
                    xParent = nullptr;
                }
            } else {
                L* w = xParent->rbLeft_;
                if (w->rbRed_) {
                    w->rbRed_ = false;
                    xParent->rbRed_ = true;
                    rotateRight(xParent);
                    w = xParent->rbLeft_;
                }
                if (!isRed(w->rbLeft_) && !isRed(w->rbRight_)) {
                    w->rbRed_ = true;
                    x = xParent;
                    xParent = x->rbParent_;
                } else {
                    if (!isRed(w->rbLeft_)) {
                        w->rbRight_->rbRed_ = false;
                        w->rbRed_ = true;
                        rotateLeft(w);
                        w = xParent->rbLeft_;
                    }
                    w->rbRed_ = xParent->rbRed_;
                    xParent->rbRed_ = false;
                    w->rbLeft_->rbRed_ = false;
                    rotateRight(xParent);
                    x = root_;
                    xParent = nullptr;
                }
            }
        }
        if (x) x->rbRed_ = false;
    }

    // Unlinks a row known to be in this map and hands back the map's reference.
    Ptr<V> eraseLinked(V* row) {
        Ptr<V> out(row);
        L* n = asL(row);
        unlinkNode(n);
        resetLinks(n);
        --size_;
        ++modCount_;
        n->deleteRef(); // cannot be the last reference: out holds one
        return out;
    }

    // Returns the black height of the subtree at n, checking it on the way down.
    int checkSubtree(const L* n, const L* parent, std::size_t& count, const L*& previous) const {
        if (!n) return 1;
        // Parent links are checked before descending, so a corrupt tree cannot loop.
        if (n->rbParent_ != parent) fail("parent link mismatch");
        if (!n->rbLinked_) fail("row in the tree not marked as linked");
        if (++count > size_) fail("more rows linked than size " + std::to_string(size_));
        if (n->rbRed_ && (isRed(n->rbLeft_) || isRed(n->rbRight_))) fail("red row with a red child");
        int leftHeight = checkSubtree(n->rbLeft_, n, count, previous);
        if (previous && !(keyOf(previous) < keyOf(n))) fail("keys not strictly increasing in order");
        previous = n;
        int rightHeight = checkSubtree(n->rbRight_, n, count, previous);
        if (leftHeight != rightHeight) fail("unequal black height");
        return leftHeight + (n->rbRed_ ? 0 : 1);
    }

    L* root_ = nullptr;
    std::size_t size_ = 0;
    std::uint64_t modCount_ = 0;
};

} // namespace Orbel
