#include "base/thread_control.h"

#include <cerrno>
#include <utility>

#include "log/error_text.h"
#include "log/log.h"

namespace vesk {

namespace {

extern "C" void* runThreadBody(void* body) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    (*static_cast<std::function<void()>*>(body))();
    return nullptr;
}

}  // namespace

void endThreadIfCancelled() {
    const CancellationScope cancellable;
    pthread_testcancel();
}

CancellableThread::~CancellableThread() {
    stop();
}

int CancellableThread::start(std::function<void()> body) {
    body_ = std::move(body);
    // pthread_create may write the id even when it fails.
    pthread_t created{};
    const int error = pthread_create(&created, nullptr, runThreadBody, &body_);
    if (error != 0) {
        const int savedErrno = errno;
        body_ = nullptr;
        errno = savedErrno;
        return error;
    }
    id_ = created;
    started_ = true;
    return 0;
}

int CancellableThread::stop() {
    if (!started_) {
        return ESRCH;
    }
    const int result = cancelAndJoin();
    started_ = false;
    id_ = {};
    if (result == 0 || result == ESRCH) {
        body_ = nullptr;
    }
    return result;
}

int CancellableThread::cancelAndJoin() const {
    const int cancelError = pthread_cancel(id_);
    if (cancelError == ESRCH) {
        // It ended by itself, but nobody has joined it yet: its stack is still to be given back.
        pthread_join(id_, nullptr);
        return cancelError;
    }
    if (cancelError != 0) {
        logError("Failed pthread_cancel: error ", errorText(cancelError));
        return cancelError;
    }
    const int joinError = pthread_join(id_, nullptr);
    if (joinError != 0) {
        logError("Failed pthread_join: error ", errorText(joinError));
    }
    return joinError;
}

}  // namespace vesk
