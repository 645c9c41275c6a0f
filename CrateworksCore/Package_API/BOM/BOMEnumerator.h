// A walk over a BOM: depth first, each directory before its contents, children in the
// order the file lists them (byte order of their names in a writer's file). The first
// entry is the starting entry itself; the walk stays below it. An enumerator keeps its
// BOM's data alive; changing a BOM while one of its enumerators is in use is not
// supported.
//
// Entries come as views (BOMEntryView): the path in one buffer reused from entry to
// entry, the fields decoded when asked for. A walk that reaches damage in the file
// stops there and says so (damaged()); what it handed out before is then not to be
// believed as the BOM's contents.
#pragma once

#include <string>

#include "CrateworksCore/Package_API/BOM/BOMEntry.h"
#include "CrateworksCore/Package_API/BOM/BOMEntryView.h"

namespace crateworks::bom {

// What a visitor wants after seeing an entry.
enum class BOMVisit { kContinue, kSkipDescendants, kStop };
// How a walk ended.
enum class BOMWalkStatus { kComplete, kStopped, kDamaged };

class BOMVisitor {
public:
    virtual ~BOMVisitor() = default;
    virtual BOMVisit visit(const BOMEntryView& entry) = 0;
};

class BOMEnumerator {
public:
    BOMEnumerator() = default;
    // A walk's view points into the walk itself, so walks are not copied.
    BOMEnumerator(const BOMEnumerator&) = delete;
    BOMEnumerator& operator=(const BOMEnumerator&) = delete;
    virtual ~BOMEnumerator() = default;

    // Moves to the next entry; false at the end of the walk or at damage.
    virtual bool advance() = 0;
    // The entry moved to last; only after advance() said true.
    const BOMEntryView& view() const { return view_; }
    // Do not descend into the entry moved to last.
    virtual void skipDescendants() = 0;
    // Whether the walk stopped at damage in the file.
    virtual bool damaged() const { return false; }

    // The stored path of the entry moved to last.
    std::string_view path() const { return view().path(); }
    // The entry moved to last, decoded in full (reusing one entry's storage).
    const BOMEntry& entry();
    // The next entry decoded in full, valid until the next call; null at the end.
    const BOMEntry* next() { return advance() ? &entry() : nullptr; }

    // Hands every remaining entry to `visitor`, allocating nothing per entry. A kind of
    // walk may do this in a loop of its own, without a virtual call to advance() per entry.
    virtual BOMWalkStatus visitRemaining(BOMVisitor& visitor);
    // The same with any callable taking a view and answering a BOMVisit.
    template <typename Visit> BOMWalkStatus forEachRemaining(Visit&& visit) {
        struct Adapter final : BOMVisitor {
            explicit Adapter(Visit& v) : call(v) {}
            BOMVisit visit(const BOMEntryView& entry) override { return call(entry); }
            Visit& call;
        } adapter(visit);
        return visitRemaining(adapter);
    }

protected:
    // Kept up to date by each kind of walk; read without a virtual call, once an entry.
    BOMEntryView view_;

    // The visiting loop, with `step` moving to the next entry as advance() does.
    template <typename Step> BOMWalkStatus _visitWith(BOMVisitor& visitor, Step&& step) {
        while (step()) {
            switch (visitor.visit(view_)) {
            case BOMVisit::kContinue: break;
            case BOMVisit::kSkipDescendants: skipDescendants(); break;
            case BOMVisit::kStop: return BOMWalkStatus::kStopped;
            }
        }
        return damaged() ? BOMWalkStatus::kDamaged : BOMWalkStatus::kComplete;
    }

private:
    BOMEntry decoded_;
};

}  // namespace crateworks::bom
