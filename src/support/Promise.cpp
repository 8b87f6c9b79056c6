#include "support/Promise.hpp"

#include <atomic>
#include <stdexcept>

namespace kelvane::promises {
namespace {

struct Defaults {
    std::mutex mutex;
    std::shared_ptr<Queue> queue;
};

Defaults& defaults() {
    static auto* shared = new Defaults();
    return *shared;
}

std::atomic<std::size_t> groupCount{0};

}  // namespace

std::shared_ptr<Queue> defaultDispatchQueue() {
    auto& shared = defaults();
    std::lock_guard lock(shared.mutex);
    return shared.queue ? shared.queue : Queue::main();
}

void setDefaultDispatchQueue(std::shared_ptr<Queue> queue) {
    auto& shared = defaults();
    std::lock_guard lock(shared.mutex);
    shared.queue = std::move(queue);
}

std::size_t outstandingWork() { return groupCount.load(); }

namespace detail {

void enterGroup() { groupCount.fetch_add(1); }
void leaveGroup() { groupCount.fetch_sub(1); }

Error errorFromException(std::exception_ptr thrown) {
    try {
        std::rethrow_exception(thrown);
    } catch (const std::exception& exception) {
        return Error{"Promise", 1, exception.what()};
    } catch (...) {
        return Error{"Promise", 1, "unknown exception"};
    }
}

}  // namespace detail
}  // namespace kelvane::promises
