#pragma once

#include "support/Fatal.hpp"

#include <kelvane/Error.hpp>
#include <kelvane/Queue.hpp>

#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace kelvane {

namespace promises {

// The queue that promise work and `then` bodies use when none is given: the main queue until
// replaced. Any thread.
std::shared_ptr<Queue> defaultDispatchQueue();
// Replaces it; an empty pointer brings the main queue back.
void setDefaultDispatchQueue(std::shared_ptr<Queue> queue);
// Scheduled promise work and `then` bodies that have not finished yet, across all promises.
std::size_t outstandingWork();

namespace detail {
void enterGroup();
void leaveGroup();
Error errorFromException(std::exception_ptr thrown);
}  // namespace detail
}  // namespace promises

// A one-shot future of a value or an error. The first resolution wins; later ones are ignored.
// Observers always run later on their queue, never inside the call that adds them or resolves.
// Copies share one state; work in flight and pending observers keep it alive, so a chain needs
// no other owner.
template <class T>
class Promise {
public:
    using Fulfill = std::function<void(T)>;
    using Reject = std::function<void(Error)>;
    using Work = std::function<void(Fulfill fulfill, Reject reject)>;

    // Runs `work` once, later, on `queue`. A throw from `work` rejects.
    Promise(std::shared_ptr<Queue> queue, Work work) : state_(std::make_shared<State>()) {
        auto state = state_;
        promises::detail::enterGroup();
        queue->async([state, work = std::move(work)] {
            try {
                work([state](T value) { resolve(state, std::move(value)); },
                     [state](Error error) { resolve(state, std::move(error)); });
            } catch (const FatalStop&) {
                throw;
            } catch (...) {
                resolve(state, promises::detail::errorFromException(std::current_exception()));
            }
            promises::detail::leaveGroup();
        });
    }
    explicit Promise(Work work) : Promise(promises::defaultDispatchQueue(), std::move(work)) {}

    // A promise that waits for fulfill() or reject().
    static Promise pending() { return Promise(std::make_shared<State>()); }

    void fulfill(T value) const { resolve(state_, std::move(value)); }
    void reject(Error error) const { resolve(state_, std::move(error)); }

    // On fulfilment runs `work` with the value on `queue`; the result settles with the same
    // value, or with the error `work` throws. On rejection `work` does not run and the result
    // is rejected with the same error.
    Promise then(std::shared_ptr<Queue> queue, std::function<void(const T&)> work) const {
        auto next = std::make_shared<State>();
        observe(queue, [next, work = std::move(work)](const Outcome& outcome) {
            if (outcome.index() == 1) {
                resolve(next, std::get<1>(outcome));
                return;
            }
            const T& value = std::get<0>(outcome);
            try {
                work(value);
            } catch (const FatalStop&) {
                throw;
            } catch (...) {
                resolve(next, promises::detail::errorFromException(std::current_exception()));
                return;
            }
            resolve(next, value);
        });
        {
            std::lock_guard lock(state_->mutex);
            if (state_->outcome.index() == 0) state_->pendingObjects.push_back(next);
        }
        return Promise(next);
    }
    Promise then(std::function<void(const T&)> work) const {
        return then(promises::defaultDispatchQueue(), std::move(work));
    }

    bool isPending() const { return snapshot().index() == 0; }
    bool isFulfilled() const { return snapshot().index() == 1; }
    bool isRejected() const { return snapshot().index() == 2; }
    std::optional<T> value() const {
        auto current = snapshot();
        if (current.index() != 1) return std::nullopt;
        return std::get<1>(current);
    }
    std::optional<Error> error() const {
        auto current = snapshot();
        if (current.index() != 2) return std::nullopt;
        return std::get<2>(current);
    }

private:
    using Outcome = std::variant<T, Error>;
    using Observer = std::function<void(const Outcome&)>;

    struct State {
        std::mutex mutex;
        std::variant<std::monostate, T, Error> outcome;
        std::vector<std::pair<std::shared_ptr<Queue>, Observer>> observers;
        std::vector<std::shared_ptr<void>> pendingObjects;
    };

    explicit Promise(std::shared_ptr<State> state) : state_(std::move(state)) {}

    std::variant<std::monostate, T, Error> snapshot() const {
        std::lock_guard lock(state_->mutex);
        return state_->outcome;
    }

    static void schedule(const std::shared_ptr<Queue>& queue, Observer observer, Outcome outcome) {
        promises::detail::enterGroup();
        queue->async([observer = std::move(observer), outcome = std::move(outcome)] {
            observer(outcome);
            promises::detail::leaveGroup();
        });
    }

    void observe(std::shared_ptr<Queue> queue, Observer observer) const {
        std::unique_lock lock(state_->mutex);
        if (state_->outcome.index() == 0) {
            state_->observers.emplace_back(std::move(queue), std::move(observer));
            return;
        }
        Outcome outcome = state_->outcome.index() == 1 ? Outcome(std::in_place_index<0>, std::get<1>(state_->outcome))
                                                       : Outcome(std::in_place_index<1>, std::get<2>(state_->outcome));
        lock.unlock();
        schedule(queue, std::move(observer), std::move(outcome));
    }

    static void resolve(const std::shared_ptr<State>& state, Outcome outcome) {
        // A value that is itself an error counts as a rejection.
        if constexpr (std::is_same_v<T, Error>) {
            if (outcome.index() == 0) outcome = Outcome(std::in_place_index<1>, std::get<0>(outcome));
        }
        std::vector<std::pair<std::shared_ptr<Queue>, Observer>> observers;
        std::vector<std::shared_ptr<void>> pendingObjects;
        {
            std::lock_guard lock(state->mutex);
            if (state->outcome.index() != 0) return;
            if (outcome.index() == 0) {
                state->outcome.template emplace<1>(std::get<0>(outcome));
            } else {
                state->outcome.template emplace<2>(std::get<1>(outcome));
            }
            observers.swap(state->observers);
            pendingObjects.swap(state->pendingObjects);
            for (auto& [queue, observer] : observers) schedule(queue, std::move(observer), outcome);
        }
    }
    static void resolve(const std::shared_ptr<State>& state, T value) {
        resolve(state, Outcome(std::in_place_index<0>, std::move(value)));
    }
    static void resolve(const std::shared_ptr<State>& state, Error error)
        requires(!std::is_same_v<T, Error>)
    {
        resolve(state, Outcome(std::in_place_index<1>, std::move(error)));
    }

    std::shared_ptr<State> state_;
};

}  // namespace kelvane
