// ValidityTag: by which an opaque handle is recognised as a live object of its class.
#pragma once

#include <cstdint>

// An object's entry in the process's register of live objects. Threads: any.
class LiveObject {
  public:
    LiveObject(const LiveObject&) = delete;
    LiveObject& operator=(const LiveObject&) = delete;

    // From here on the object counts as dead.
    void revoke();

  protected:
    LiveObject(const void* object, std::uint32_t tag);
    ~LiveObject() { revoke(); }

    // Nothing is read at the address itself, which may be any.
    static bool isLive(const void* object, std::uint32_t tag);

  private:
    std::uint32_t tag_;  // 0: not in the register
    const void* const object_;
    LiveObject* next_ = nullptr;
};

// A member of a class whose objects are handed out as handles; Tag is the class's own. The object is live from the
// tag's construction until revoke() or the tag's destruction.
template <std::uint32_t Tag>
class ValidityTag : public LiveObject {
  public:
    explicit ValidityTag(const void* object) : LiveObject(object, Tag) {}

    // Whether the handle, any pointer, is the address of a live object of the class.
    static bool isOn(const void* handle) { return isLive(handle, Tag); }
};
