#include "Builders.h"

#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqImageParams.h"

#include <cstdlib>
#include <cstring>
#include <numeric>

TestRandom::TestRandom(uint64 defaultSeed) : seed(defaultSeed) {
    if (const char* text = std::getenv("TAVRIN_TEST_SEED")) seed = std::strtoull(text, nullptr, 10);
    engine.seed(seed);
}

uint64 TestRandom::below(uint64 end) {
    return engine() % end;
}

bool TestRandom::chance(double probability) {
    return std::uniform_real_distribution<>()(engine) < probability;
}

std::string TestRandom::bytes(size_t n) {
    std::string result(n, '\0');
    for (size_t i = 0; i < n; i += sizeof(uint64)) {
        const uint64 word = engine();
        std::memcpy(&result[i], &word, std::min(sizeof word, n - i));
    }
    return result;
}

SxArray<uint64> TestRandom::permutation(uint64 n) {
    SxArray<uint64> result(static_cast<int64>(n));
    std::iota(result.begin(), result.end(), uint64{0});
    for (uint64 i = n; i > 1; --i) {
        std::swap(result(static_cast<int64>(i - 1)), result(static_cast<int64>(below(i))));
    }
    return result;
}

TestImage::TestImage(TestRandom& random, uint64 nRaw, double stored)
    : map(static_cast<int64>(nRaw)),
      raw(random.bytes(nRaw * BLOCK)),
      guid(SxString::sprintf("%08X-0000-4000-8000-%012llX", static_cast<unsigned>(random.below(1ULL << 32)),
                             static_cast<unsigned long long>(random.below(1ULL << 48)))) {
    map.set(~uint64{0});
    for (const uint64 rawIdx : random.permutation(nRaw)) {
        if (!random.chance(stored)) continue;
        map(static_cast<int64>(rawIdx)) = nZqf();
        zqf += rawBlock(rawIdx);
    }
}

std::string TestImage::idxBytes() const {
    static_assert(std::endian::native == std::endian::little);
    return std::string(reinterpret_cast<const char*>(map.data()), nRaw() * sizeof(uint64));
}

void TestImage::write(const SxString& prefix, uint64 nZqfBlocks) const {
    const std::string folder = prefix.str();
    std::filesystem::create_directories(folder);
    const auto writeFile = [&](const char* name, std::string_view bytes) {
        std::ofstream out(folder + name, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (!out.flush()) throw std::runtime_error("cannot write " + folder + name);
    };
    writeFile("img.zqf", std::string_view(zqf).substr(0, std::min(nZqfBlocks, nZqf()) * BLOCK));
    writeFile("img.idx", idxBytes());

    ZqImageParams image;
    image.guid = guid;
    image.sizeRaw = static_cast<int64>(raw.size());
    image.write(prefix);

    ZqAppParams app;
    app.guid = guid;
    app.sizeZqf = app.sizeMnt = zqf.size();
    app.sizeIdx = idxBytes().size();
    app.checksumZqf = app.checksumMnt = SxMd5::get(SxString(zqf));
    app.checksumIdx = SxMd5::get(SxString(idxBytes()));
    app.write(prefix);
}
