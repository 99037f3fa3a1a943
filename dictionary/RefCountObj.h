// Base of the dictionary library's counted objects.
//
// The count is a plain integer, 0 after construction: AddRef adds one, Release takes one off and
// deletes the object through its virtual destructor when the count reaches 0. It is not atomic.
// Counted objects are shared only under the lookup lock or on the load path, which is never run
// beside a lookup (see LookupString.h), so no two threads touch one count at once.
#pragma once

#include <cstdint>

namespace lexkit_private {

class RefCountObj {
  public:
    RefCountObj() = default;
    RefCountObj(const RefCountObj&) = delete;
    RefCountObj& operator=(const RefCountObj&) = delete;
    virtual ~RefCountObj() = default;

    void AddRef() { ++refCount_; }
    void Release() {
        if (--refCount_ == 0) delete this;
    }
    uint32_t RefCountForTesting() const { return refCount_; }

  private:
    uint32_t refCount_ = 0;
};

}  // namespace lexkit_private
