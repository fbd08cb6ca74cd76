#pragma once

#include <atomic>

// A scalar that several threads read and write and that publishes nothing but itself. Every
// access is a relaxed atomic, which on the boards' processors costs what a plain variable costs.
template <typename T>
class Relaxed {
public:
    constexpr Relaxed() : value_{} {}
    constexpr explicit Relaxed(T value) : value_{value} {}
    operator T() const {
        return value_.load(std::memory_order_relaxed);
    }                      // NOLINT: reads as a T
    T operator=(T value) { // NOLINT: writes as a T
        value_.store(value, std::memory_order_relaxed);
        return value;
    }
    T add(T amount) {
        return value_.fetch_add(amount, std::memory_order_relaxed);
    }

private:
    std::atomic<T> value_;
};
