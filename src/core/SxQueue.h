#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

/// Blocking queue between the threads of one job, for pipelines whose stages must not sleep. They block on
/// each other, which has nothing to do with the clock (SxClock). All operations are safe from any thread.
template<class T>
class SxQueue {
public:
    void push(T value) {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            values.push_back(std::move(value));
        }
        changed.notify_one();
    }

    /// The oldest value; waits for one. Empty when the queue is closed and drained.
    std::optional<T> pop() {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [this] { return !values.empty() || closed; });
        if (values.empty()) return std::nullopt;
        T value = std::move(values.front());
        values.pop_front();
        return value;
    }

    /// No more values come: ends the waits of pop().
    void close() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            closed = true;
        }
        changed.notify_all();
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<T> values;
    bool closed = false;
};
