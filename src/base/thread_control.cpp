#include "base/thread_control.h"

#include <cerrno>
#include <memory>
#include <utility>

#include "log/error_text.h"
#include "log/log.h"

namespace vesk {

namespace {

using ThreadBody = std::function<void()>;
/// The running thread's reference to its body, as it is passed through pthread_create.
using Share = std::shared_ptr<ThreadBody>;

extern "C" void* runThreadBody(void* argument) {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    const Share body = *std::unique_ptr<Share>(static_cast<Share*>(argument));
    (*body)();
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
    body_ = std::make_shared<ThreadBody>(std::move(body));
    auto share = std::make_unique<Share>(body_);
    // pthread_create may write the id even when it fails.
    pthread_t created{};
    const int error = pthread_create(&created, nullptr, runThreadBody, share.get());
    if (error != 0) {
        const int savedErrno = errno;
        share.reset();
        body_.reset();
        errno = savedErrno;
        return error;
    }
    // The new thread owns it now.
    static_cast<void>(share.release());
    id_ = created;
    state_ = State::started;
    return 0;
}

int CancellableThread::stop() {
    if (!started()) {
        return ESRCH;
    }
    const int result = cancelAndJoin();
    state_ = result == 0 || result == ESRCH ? State::ended : State::leftRunning;
    id_ = {};
    body_.reset();
    return result;
}

int CancellableThread::cancelAndJoin() const {
    const int cancelError = pthread_cancel(id_);
    if (cancelError == ESRCH) {
        // The thread has ended by itself. Joining it releases its stack.
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
