// The exception family of the platform library.
//
// An Exception carries a stack of reasons; each reason is a wide text with the source position that
// raised it. Exceptions are raised by value and caught by reference to Osb::Exception. The family
// does not derive from std::exception: borders that catch "anything else" see standard exceptions
// as foreign, which is what they are.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Osb {

// The source position of the code that raised an exception.
struct ExWhere {
    const char* file = "";
    int line = 0;
};

#define OSB_HERE (::Osb::ExWhere{__FILE__, __LINE__})

// One reason of an exception: what went wrong, where it was raised, and a number whose meaning is
// the raiser's (the program passes 1).
class ExReason {
public:
    ExReason(std::u16string what, ExWhere where, uint32_t number = 1)
        : what_(std::move(what)), where_(where), number_(number) {}

    const std::u16string& what() const { return what_; }
    const char* file() const { return where_.file; }
    int line() const { return where_.line; }
    uint32_t number() const { return number_; }

private:
    std::u16string what_;
    ExWhere where_;
    uint32_t number_;
};

class Exception {
public:
    Exception() = default;
    explicit Exception(ExReason reason) { reasons_.push_back(std::move(reason)); }
    Exception(const Exception&) = default;
    Exception& operator=(const Exception&) = default;
    virtual ~Exception() = default;

    // The text of the first reason, or an empty text when there is none.
    virtual const std::u16string& what() const;
    // A heap copy of the whole exception, of its dynamic type.
    virtual Exception* clone() const { return new Exception(*this); }

    int depth() const { return static_cast<int>(reasons_.size()); }
    // REQUIRES: 0 <= i < depth().
    const ExReason& reason(int i) const { return reasons_.at(static_cast<size_t>(i)); }
    void addReason(ExReason reason) { reasons_.push_back(std::move(reason)); }

private:
    std::vector<ExReason> reasons_;
};

// A failed system call. `status` is a Windows error code (ErrorCode.h); the reason's text is the
// readable message of that code, followed by the system's own text when one is known.
class ExSystem : public Exception {
public:
    ExSystem(uint32_t status, ExWhere where);
    Exception* clone() const override { return new ExSystem(*this); }
    uint32_t status() const { return status_; }

private:
    uint32_t status_;
};

// An id that names no live entry of a lookup table.
class ExLookupId : public Exception {
public:
    ExLookupId(uint32_t id, ExWhere where);
    Exception* clone() const override { return new ExLookupId(*this); }
    uint32_t id() const { return id_; }

private:
    uint32_t id_;
};

// A lookup table with no free slot.
class ExLookupTableFull : public Exception {
public:
    explicit ExLookupTableFull(ExWhere where);
    Exception* clone() const override { return new ExLookupTableFull(*this); }
};

}  // namespace Osb
