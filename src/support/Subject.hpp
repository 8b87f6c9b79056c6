#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace kelvane {

// Ends a subscription, at the latest when the handle goes away. Any thread.
class Cancellable {
public:
    virtual ~Cancellable() = default;
    virtual void cancel() = 0;
};

// A stream of values that never fails: each value goes to the subscribers present when it is
// sent, on the sender's thread, outside any lock. Any thread.
template <class T>
class Subject {
public:
    // Every value from now on.
    std::unique_ptr<Cancellable> sink(std::function<void(const T&)> receive) { return subscribe(std::move(receive), false); }
    // The next value only; the subscription ends with it.
    std::unique_ptr<Cancellable> first(std::function<void(const T&)> receive) { return subscribe(std::move(receive), true); }

    void send(const T& value) {
        std::vector<std::shared_ptr<Subscription>> receivers;
        {
            std::lock_guard lock(mutex_);
            receivers = subscriptions_;
        }
        for (auto& subscription : receivers) {
            if (subscription->once) {
                if (!subscription->active.exchange(false)) continue;
                forget(subscription.get());
            } else if (!subscription->active.load()) {
                continue;
            }
            subscription->receive(value);
        }
    }

private:
    struct Subscription {
        std::function<void(const T&)> receive;
        bool once = false;
        std::atomic<bool> active{true};
    };

    class Handle final : public Cancellable {
    public:
        Handle(std::weak_ptr<Subject*> owner, std::shared_ptr<Subscription> subscription)
            : owner_(std::move(owner)), subscription_(std::move(subscription)) {}
        ~Handle() override { cancel(); }
        void cancel() override {
            if (!subscription_->active.exchange(false)) return;
            if (auto owner = owner_.lock()) (*owner)->forget(subscription_.get());
        }

    private:
        std::weak_ptr<Subject*> owner_;
        std::shared_ptr<Subscription> subscription_;
    };

    std::unique_ptr<Cancellable> subscribe(std::function<void(const T&)> receive, bool once) {
        auto subscription = std::make_shared<Subscription>();
        subscription->receive = std::move(receive);
        subscription->once = once;
        {
            std::lock_guard lock(mutex_);
            subscriptions_.push_back(subscription);
        }
        return std::make_unique<Handle>(self_, std::move(subscription));
    }

    void forget(const Subscription* subscription) {
        std::lock_guard lock(mutex_);
        std::erase_if(subscriptions_, [&](const auto& entry) { return entry.get() == subscription; });
    }

    std::mutex mutex_;
    std::vector<std::shared_ptr<Subscription>> subscriptions_;
    // Lets handles that outlive the subject do nothing.
    std::shared_ptr<Subject*> self_ = std::make_shared<Subject*>(this);
};

}  // namespace kelvane
