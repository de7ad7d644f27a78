#include "real_arming.h"

#include <cerrno>

#include "context/forwarder_context.h"
#include "log/log.h"
#include "poll/poll_loop.h"

namespace vesk::model {

namespace {

using Kind = Operation::Kind;

}  // namespace

RealArming::RealArming(const std::shared_ptr<ForwarderContext>& context, Surroundings& surroundings,
                       Actors& actors)
    : context_(context),
      surroundings_(surroundings),
      actors_(actors),
      pollThread_(context->serverPollSock.get(), {}, {}) {
    descriptors_.fill(-1);
    surroundings_.takeReplies();
    for (Worker& worker : workers_) {
        worker.receiver = std::make_unique<UpstreamReceiver>(context);
    }
    actors_.pollThread.run([this] {
        const auto keepReady = [this](const std::vector<int>& fds) {
            ready_.assign(fds.begin(), fds.end());
        };
        const auto ignore = [](const std::vector<int>& /*fds*/) {};
        pollLoop(pollThread_, keepReady, ignore, ignore);
    });
}

RealArming::~RealArming() {
    for (Actor& worker : actors_.workers) {
        while (worker.paused()) {
            worker.resume();
        }
    }
    for (Worker& worker : workers_) {
        worker.receiver.reset();
    }
    surroundings_.removeFlow();
    while (recordIsWaiting()) {
        actors_.pollThread.resume();
    }
    pollThread_.ended = true;
    actors_.pollThread.resume();
}

void RealArming::carryOut(const Operation& operation) {
    const std::uint8_t which = operation.which;
    switch (operation.kind) {
        case Kind::arrive:
            surroundings_.sendReply(endpoints_.at(which).address);
            break;
        case Kind::create:
            create();
            break;
        case Kind::remove:
            surroundings_.removeFlow();
            break;
        case Kind::wake:
            actors_.pollThread.resume();
            break;
        case Kind::deal:
            workers_.at(which).queue.push_back(ready_.front());
            ready_.pop_front();
            break;
        case Kind::collect: {
            Worker& worker = workers_.at(which);
            worker.serving.insert(worker.serving.end(), worker.queue.begin(), worker.queue.end());
            worker.queue.clear();
            break;
        }
        case Kind::begin:
            begin(which);
            break;
        case Kind::receive:
        case Kind::finish:
            proceed(which);
            break;
        case Kind::fill:
            fill(which);
            break;
        case Kind::refuse:
            fail(which, ECONNREFUSED);
            break;
        case Kind::failForNow:
            fail(which, ENOMEM);
            break;
        case Kind::failForGood:
            fail(which, EIO);
            break;
        case Kind::endPass:
            endPass(which);
            break;
    }
}

void RealArming::create() {
    const EndpointPtr endpoint = surroundings_.openFlow();
    endpoints_.push_back(
        {endpoint, endpoint->rdsockfd, endpoint->wrsockfd, surroundings_.addressOf(*endpoint)});
}

void RealArming::begin(std::uint8_t who) {
    Worker& worker = workers_.at(who);
    worker.socket = worker.serving.front();
    worker.serving.pop_front();
    worker.keep = true;
    actors_.workers.at(who).run(
        [&worker] { upstreamSocketRecv(worker.socket, worker.keep, *worker.receiver); });
    noteResult(who);
}

void RealArming::proceed(std::uint8_t who) {
    actors_.workers.at(who).resume();
    noteResult(who);
}

void RealArming::noteResult(std::uint8_t who) {
    Worker& worker = workers_.at(who);
    if (!actors_.workers.at(who).paused() && worker.keep) {
        worker.serving.push_back(worker.socket);
    }
}

void RealArming::fail(std::uint8_t who, int error) {
    actors_.workers.at(who).failReceive(error);
    proceed(who);
}

void RealArming::fill(std::uint8_t who) {
    actors_.workers.at(who).fillReceive();
    proceed(who);
}

void RealArming::endPass(std::uint8_t who) {
    actors_.workers.at(who).run([this, who] { workers_.at(who).receiver->endPass(LogDelay()); });
}

}  // namespace vesk::model
