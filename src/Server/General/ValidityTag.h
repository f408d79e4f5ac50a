// ValidityTag: the word by which an opaque handle is recognised as a live object of its class.
#pragma once

#include <cstdint>

// Holds Live from construction until revoke() or destruction, 0 afterwards. The word is volatile so that the
// 0 really reaches memory: a plain store to an object that is about to end may be optimised away, and a stale
// handle would pass. A check of freed memory can only ever be a best effort: it refuses as long as the memory
// still holds another value.
template <std::uint32_t Live>
class ValidityTag {
  public:
    ValidityTag() = default;
    ValidityTag(const ValidityTag&) {}  // a copied object is alive in its own right
    ValidityTag& operator=(const ValidityTag&) { return *this; }
    ~ValidityTag() { revoke(); }

    bool holds() const { return word_ == Live; }
    void revoke() { word_ = 0; }

  private:
    volatile std::uint32_t word_ = Live;
};
