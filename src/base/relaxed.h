#pragma once

// A number or flag that several threads share without a lock.
// Stands on: nothing else of ours.

#include <atomic>

// For a value that publishes no other data. Every access is a relaxed atomic, which on the boards'
// processors costs no more than a plain variable.
template <typename T>
class Relaxed {
public:
    constexpr Relaxed() : value_{} {}
    constexpr explicit Relaxed(T value) : value_{value} {}
    operator T() const {
        return value_.load(std::memory_order_relaxed);
    }                      // NOLINT: reads like a T
    T operator=(T value) { // NOLINT: assigns like a T
        value_.store(value, std::memory_order_relaxed);
        return value;
    }
    T add(T amount) {
        return value_.fetch_add(amount, std::memory_order_relaxed);
    }

private:
    std::atomic<T> value_;
};
