// One watched folder read from the test's thread, and the changes its reads bring, for the tests
// of directory change notification.
#pragma once

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <ostream>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "platform/DirectoryChanges.h"
#include "platform/Sleep.h"
#include "platform/Utf.h"

namespace vigil_test {

struct Change {
    uint32_t action;
    std::string name;
    bool operator<(const Change& o) const {
        return std::tie(action, name) < std::tie(o.action, o.name);
    }
    bool operator==(const Change& o) const = default;
};

inline void PrintTo(const Change& c, std::ostream* os) { *os << c.action << ":" << c.name; }

// One watched folder read from this thread; completions arrive in its alertable waits.
class Watch {
  public:
    Watch(const std::string& folder, bool subtree, uint32_t bufferBytes = 65536)
        : subtree_(subtree), buffer_(bufferBytes) {
        handle_ = Osb::OpenDirectoryForWatch(Osb::Utf8ToUtf16(folder));
        overlapped_.context = this;
    }
    ~Watch() {
        if (handle_) close();
    }
    bool opened() const { return handle_ != nullptr; }

    bool issue() {
        done_ = false;
        outstanding_ = true;
        return outstanding_ = Osb::ReadDirectoryChanges(
                   handle_, buffer_.data(), static_cast<uint32_t>(buffer_.size()), subtree_,
                   &overlapped_, &Watch::onCompletion);
    }
    // Waits up to `ms` for the outstanding read's completion.
    bool wait(int ms = 10000) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!done_ && std::chrono::steady_clock::now() < deadline) Osb::SleepEx(50, true);
        if (done_) outstanding_ = false;
        return done_;
    }
    // Reads until `expected` has all been seen, counting what the last completed read brought
    // (or until the time is up); returns everything seen, that read's changes first.
    std::vector<Change> collectUntil(const std::set<Change>& expected, int ms = 10000) {
        std::vector<Change> all;
        std::set<Change> missing = expected;
        if (done_ && bytes_ > 0) {
            for (const Change& c : decode()) {
                missing.erase(c);
                all.push_back(c);
            }
        }
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
        while (!missing.empty() && std::chrono::steady_clock::now() < deadline) {
            if (!issue()) break;
            if (!wait(ms)) break;
            if (bytes_ == 0) break;
            for (const Change& c : decode()) {
                missing.erase(c);
                all.push_back(c);
            }
        }
        return all;
    }
    std::vector<Change> decode() const {
        std::vector<Change> out;
        size_t at = 0;
        for (;;) {
            Osb::FileNotifyInformation record;
            std::memcpy(&record, buffer_.data() + at, Osb::kFileNotifyHeaderBytes);
            std::u16string name(record.fileNameLength / 2, u'\0');
            std::memcpy(name.data(), buffer_.data() + at + Osb::kFileNotifyHeaderBytes,
                        record.fileNameLength);
            out.push_back({record.action, Osb::Utf16ToUtf8(name)});
            if (record.nextEntryOffset == 0) break;
            at += record.nextEntryOffset;
        }
        return out;
    }
    // Closes the handle; an outstanding read's completion is awaited, since it refers to us.
    void close() {
        Osb::CloseDirectory(handle_);
        handle_ = nullptr;
        if (outstanding_) wait();
    }
    uint32_t error() const { return error_; }
    uint32_t bytes() const { return bytes_; }
    Osb::HDirectory handle() const { return handle_; }

  private:
    static void onCompletion(uint32_t error, uint32_t bytes, Osb::DirectoryOverlapped* o) {
        auto* self = static_cast<Watch*>(o->context);
        self->error_ = error;
        self->bytes_ = bytes;
        self->done_ = true;
    }

    bool subtree_;
    std::vector<uint8_t> buffer_;
    Osb::HDirectory handle_ = nullptr;
    Osb::DirectoryOverlapped overlapped_;
    bool done_ = false;
    bool outstanding_ = false;
    uint32_t error_ = 0, bytes_ = 0;
};

inline void Touch(const std::filesystem::path& p) { std::ofstream(p) << "x"; }

}  // namespace vigil_test
