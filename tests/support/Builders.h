#pragma once

#include "SxArray.h"
#include "SxString.h"
#include "TempDir.h"

#include <random>
#include <string>
#include <string_view>
#include <vector>

/// The random numbers of one test. The seed is fixed, or taken from the environment variable
/// TAVRIN_TEST_SEED to try others.
class TestRandom {
public:
    explicit TestRandom(uint64 defaultSeed = 1);

    uint64 getSeed() const { return seed; }
    /// What to show with a failure.
    std::string note() const { return "TAVRIN_TEST_SEED=" + std::to_string(seed); }
    /// A number of 0 to `end` - 1.
    uint64 below(uint64 end);
    /// A number of `first` to `last`.
    uint64 between(uint64 first, uint64 last) { return first + below(last - first + 1); }
    bool chance(double probability);
    std::string bytes(size_t n);
    /// The numbers 0 to `n` - 1 in random order.
    SxArray<uint64> permutation(uint64 n);

private:
    uint64 seed;
    std::mt19937_64 engine;
};

/// Names the seed in every failure that the rest of the scope reports.
#define TRACE_SEED(random) SCOPED_TRACE((random).note())

/// A small image: a RAW disk, its map, and the two records.
class TestImage {
public:
    static constexpr uint64 BLOCK = 4096;

    /// `nRaw` RAW blocks of which about the share `stored` has a place in the ZqF file, in random order.
    TestImage(TestRandom& random, uint64 nRaw, double stored = 0.8);

    uint64 nRaw() const { return static_cast<uint64>(map.getSize()); }
    uint64 nZqf() const { return zqf.size() / BLOCK; }
    std::string_view rawBlock(uint64 rawIdx) const { return block(raw, rawIdx); }
    std::string_view zqfBlock(uint64 zqfIdx) const { return block(zqf, zqfIdx); }
    std::string idxBytes() const;

    /// Writes `img.zqf`, cut to its first `nZqfBlocks` blocks, `img.idx`, `img.json` and `app.json`, with
    /// sizes and checksums, into the folder `prefix` (with its trailing slash), which is made.
    void write(const SxString& prefix, uint64 nZqfBlocks = ~uint64{0}) const;

    SxArray<uint64> map; ///< indexed by RAW index; ~0 where the block isn't stored
    std::string raw, zqf;
    SxString guid;

private:
    static std::string_view block(const std::string& bytes, uint64 idx) {
        return std::string_view(bytes).substr(idx * BLOCK, BLOCK);
    }
};
