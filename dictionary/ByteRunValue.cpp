#include "dictionary/ByteRunValue.h"

#include <cstring>

#include "dictionary/ByteRunValueRef.h"
#include "dictionary/LxErrException.h"

namespace lexkit_private {

ByteRunValue::ByteRunValue(const void* bytes, uint32_t length) : length_(length) {
    if (length != 0) {
        bytes_ = std::make_unique<unsigned char[]>(length);
        std::memcpy(bytes_.get(), bytes, length);
    }
}

namespace {

// The shared empty value holds one reference of its own that is never released, so no handle can
// delete it; it lives to the end of the process.
ByteRunValue* SharedEmptyValue() {
    static ByteRunValue* const empty = [] {
        auto* value = new ByteRunValue();
        value->AddRef();
        return value;
    }();
    return empty;
}

}  // namespace

ByteRunValueRef::ByteRunValueRef() : value_(SharedEmptyValue()) { value_->AddRef(); }

ByteRunValueRef::ByteRunValueRef(const void* bytes, uint32_t length)
    : ByteRunValueRef(new ByteRunValue(bytes, length)) {}

ByteRunValueRef::ByteRunValueRef(ByteRunValue* value) : value_(value) { value_->AddRef(); }

ByteRunValueRef ByteRunValueRef::FromUnits(const char16_t* units, size_t count) {
    return ByteRunValueRef(units, static_cast<uint32_t>(count * sizeof(char16_t)));
}

ByteRunValueRef::ByteRunValueRef(const ByteRunValueRef& other) : value_(other.value_) {
    value_->AddRef();
}

ByteRunValueRef& ByteRunValueRef::operator=(const ByteRunValueRef& other) {
    // Add before release, so that assigning a handle to itself keeps the value alive.
    other.value_->AddRef();
    value_->Release();
    value_ = other.value_;
    return *this;
}

ByteRunValueRef::~ByteRunValueRef() { value_->Release(); }

bool ByteRunValueRef::IsSharedEmptyValue() const { return value_ == SharedEmptyValue(); }

std::u16string ByteRunValueRef::Text() const {
    std::u16string text(UnitLength(), u'\0');
    if (!text.empty()) std::memcpy(text.data(), Bytes(), text.size() * sizeof(char16_t));
    return text;
}

void ByteRunValueRef::CopyOut(char16_t* buffer, uint32_t capacity, bool raiseIfShort) const {
    const uint32_t units = UnitLength();
    if (capacity != 0) {
        const uint32_t copied = units < capacity - 1 ? units : capacity - 1;
        if (copied != 0) std::memcpy(buffer, Bytes(), copied * sizeof(char16_t));
        buffer[copied] = u'\0';
    }
    if (raiseIfShort && capacity < static_cast<uint64_t>(units) + 1) {
        throw LxErrException{kLxErrBufferTooSmall};
    }
}

}  // namespace lexkit_private
