#pragma once

#include "SxTypes.h"

#include <atomic>

/// Counts an operation while it runs.
class Counted {
public:
    explicit Counted(std::atomic<int64>* n_) : n(n_) { ++*n; }
    ~Counted() { --*n; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;

private:
    std::atomic<int64>* n;
};
