#include "platform/Thread.h"

#include <cerrno>
#include <cstdio>
#include <system_error>
#include <thread>

#include "platform/ErrorCode.h"
#include "platform/Exception.h"
#include "platform/Utf.h"
#include "platform/posix/ThreadParker.h"

namespace Osb {

namespace detail {

namespace {

// Marks the parker ended when its thread goes, so that later APCs are refused and freed at once
// instead of waiting forever in a queue nobody drains.
struct ParkerHolder {
    std::shared_ptr<ThreadParker> parker;
    ~ParkerHolder() {
        if (!parker) return;
        std::deque<std::function<void()>> dropped;
        {
            NativeMutexLock lock(parker->mutex);
            parker->ended = true;
            dropped = parker->takeApcs();
        }
    }
};

thread_local ParkerHolder tlsParker;

void ReportStrayException(const char* where, const std::u16string& what) {
    std::fprintf(stderr, "Unhandled exception in %s: %s\n", where, Utf16ToUtf8(what).c_str());
    std::fflush(stderr);
}

}  // namespace

const std::shared_ptr<ThreadParker>& CurrentParker() {
    if (!tlsParker.parker) tlsParker.parker = std::make_shared<ThreadParker>();
    return tlsParker.parker;
}

void InstallParker(std::shared_ptr<ThreadParker> parker) { tlsParker.parker = std::move(parker); }

void RunApcs(std::deque<std::function<void()>>& apcs) {
    while (!apcs.empty()) {
        std::function<void()> routine = std::move(apcs.front());
        apcs.pop_front();
        try {
            routine();
        } catch (const Exception& e) {
            ReportStrayException("an asynchronous procedure call", e.what());
        } catch (const std::exception& e) {
            ReportStrayException("an asynchronous procedure call", Utf8ToUtf16(e.what()));
        } catch (...) {
            ReportStrayException("an asynchronous procedure call", u"unknown exception");
        }
    }
}

}  // namespace detail

ApcTarget CurrentApcTarget() { return ApcTarget(detail::CurrentParker()); }

bool QueueApc(const ApcTarget& target, std::function<void()> routine) {
    detail::ThreadParker* parker = target.parker();
    if (parker == nullptr) return false;
    {
        detail::NativeMutexLock lock(parker->mutex);
        if (parker->ended) return false;
        parker->apcs.push_back(std::move(routine));
    }
    parker->wake.notify_one();
    return true;
}

struct Thread::Impl {
    std::thread thread;
};

Thread::Thread() : impl_(std::make_unique<Impl>()) {}

Thread::~Thread() {
    // An owner that forgot join() would otherwise terminate the process in ~std::thread.
    join();
}

void Thread::begin() {
    auto parker = std::make_shared<detail::ThreadParker>();
    target_ = ApcTarget(parker);
    try {
        impl_->thread = std::thread([this, parker]() mutable {
            detail::InstallParker(std::move(parker));
            try {
                run();
            } catch (const Exception& e) {
                detail::ReportStrayException("a thread", e.what());
            } catch (const std::exception& e) {
                detail::ReportStrayException("a thread", Utf8ToUtf16(e.what()));
            } catch (...) {
                detail::ReportStrayException("a thread", u"unknown exception");
            }
        });
    } catch (const std::system_error& e) {
        target_ = ApcTarget();
        int err = e.code().value();
        throw ExSystem(SetLastErrorFromErrno(err == 0 ? EAGAIN : err), OSB_HERE);
    }
}

void Thread::join() {
    if (impl_->thread.joinable()) impl_->thread.join();
}

}  // namespace Osb
