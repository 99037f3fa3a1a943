// Intrusive reference counting.
//
// SmartPointerBase carries one strong count; the object is deleted when it falls to 0.
// SmartPointerBaseTwo adds soft references: the object stays valid while either count is above 0,
// and strongReleased() runs when the strong count falls to 0 while soft references remain.
// Counting is atomic; the counts themselves need no lock.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

namespace Osb {

class SmartPointerBase {
public:
    SmartPointerBase() = default;
    SmartPointerBase(const SmartPointerBase&) = delete;
    SmartPointerBase& operator=(const SmartPointerBase&) = delete;
    virtual ~SmartPointerBase() = default;

    void incRefCount() { refs_.fetch_add(1, std::memory_order_relaxed); }
    void decRefCount() {
        if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

private:
    std::atomic<uint32_t> refs_{0};
};

class SmartPointerBaseTwo {
public:
    SmartPointerBaseTwo() = default;
    SmartPointerBaseTwo(const SmartPointerBaseTwo&) = delete;
    SmartPointerBaseTwo& operator=(const SmartPointerBaseTwo&) = delete;
    virtual ~SmartPointerBaseTwo() = default;

    // Called when the last strong reference goes while soft references remain. The object stays
    // valid during the call.
    virtual void strongReleased() {}

    void incRefCount() { counts_.fetch_add(kStrong, std::memory_order_relaxed); }
    void decRefCount() {
        // Trade the strong reference for a soft one in one step, so that no other thread can drop
        // the last soft reference and delete the object while strongReleased() runs.
        uint64_t before = counts_.fetch_add(kSoft - kStrong, std::memory_order_acq_rel);
        if ((before & kStrongMask) == kStrong) strongReleased();
        decSoftRef();
    }
    void incSoftRef() { counts_.fetch_add(kSoft, std::memory_order_relaxed); }
    void decSoftRef() {
        if (counts_.fetch_sub(kSoft, std::memory_order_acq_rel) == kSoft) delete this;
    }

private:
    static constexpr uint64_t kStrong = 1;
    static constexpr uint64_t kSoft = uint64_t{1} << 32;
    static constexpr uint64_t kStrongMask = kSoft - 1;
    std::atomic<uint64_t> counts_{0};  // soft count in the high half, strong in the low
};

// A strong reference to a counted object of type T.
template <typename T>
class SmartPointer {
public:
    SmartPointer() = default;
    SmartPointer(std::nullptr_t) {}
    explicit SmartPointer(T* object) : object_(object) {
        if (object_) object_->incRefCount();
    }
    SmartPointer(const SmartPointer& other) : SmartPointer(other.object_) {}
    SmartPointer(SmartPointer&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <typename U>
    SmartPointer(const SmartPointer<U>& other) : SmartPointer(other.get()) {}
    ~SmartPointer() { reset(); }

    SmartPointer& operator=(SmartPointer other) noexcept {
        std::swap(object_, other.object_);
        return *this;
    }

    void reset() {
        if (T* object = std::exchange(object_, nullptr)) object->decRefCount();
    }
    T* get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }
    explicit operator bool() const { return object_ != nullptr; }
    bool operator==(const SmartPointer& other) const { return object_ == other.object_; }

private:
    T* object_ = nullptr;
};

template <typename T, typename... Args>
SmartPointer<T> MakeSmart(Args&&... args) {
    return SmartPointer<T>(new T(std::forward<Args>(args)...));
}

}  // namespace Osb
