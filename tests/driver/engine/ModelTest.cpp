#include "DriveImage.h"
#include "Instrumented.h"
#include "SxException.h"
#include "VirtualClock.h"

#include <gmock/gmock.h>

namespace {

constexpr int64 STEPS_OF_ONE_IMAGE = 8'000, N_IMAGES = IS_INSTRUMENTED ? 2 : 42;

/// A drive beside plain arrays that say what it must answer.
class Model {
public:
    using Blocks = std::set<uint64>;
    struct Request {
        uint64 offset;
        uint32 size;
        std::string data; ///< of a write
        bool isWrite;
        Blocks missing; ///< ZqF indices; empty where it is held because the drive is suspended
    };

    Model(TestRandom* random_, Mode mode_)
        : random(*random_),
          mode(mode_),
          image(random, random.between(1, 300), random.chance(0.2) ? 1.0 : 0.7, "", TempDir::inMemory()),
          content(image.rawBytes()) {
        cursor = mode == Mode::Rw ? image.nZqf : random.below(image.nZqf + 1);
        image.put(0, cursor, false);
        open();
    }
    ~Model() { endDrive(); }

    void step() {
        struct Choice {
            int weight;
            void (Model::*run)();
        };
        constexpr Choice CHOICES[] = {
            {410, &Model::read},       {150, &Model::write},     {200, &Model::deliver},
            {60, &Model::moveCursor},  {80, &Model::pop},        {20, &Model::suspendOrResume},
            {40, &Model::letTimePass}, {5, &Model::changeCache}, {10, &Model::forgetOne},
            {2, &Model::sync},         {2, &Model::flush},       {1, &Model::reopen},
            {40, &Model::checkQueue},  {40, &Model::discard},
        };
        int at = static_cast<int>(random.below(1060));
        for (const Choice& choice : CHOICES) {
            at -= choice.weight;
            if (at < 0) return (this->*choice.run)();
        }
    }

private:
    void open() {
        VirtualDisk::Config config = image.config(mode, cursor);
        config.cacheSize = random.chance(0.5) ? random.below(64 * DriveImage::BLOCK) : 0;
        drive = std::make_unique<VirtualDisk>(config, [this](uint64 token) { woken.push_back(token); });
    }

    void endDrive() {
        EXPECT_EQ(drive->close(), 0) << drive->getFailure();
        EXPECT_EQ(std::exchange(woken, {}).size(), held.size());
        for (const auto& [token, request] : held) {
            const auto [result, error] = carryOut(request, token, true);
            EXPECT_EQ(result, VirtualDisk::Result::Failed);
            EXPECT_EQ(error, mode == Mode::Ro && request.isWrite ? EROFS : EIO);
        }
        held.clear();
        drive.reset();
    }

    bool isPresent(uint64 zqfIdx) const { return zqfIdx < cursor || delivered.contains(zqfIdx); }

    /// What the request must wait for.
    Blocks missingOf(uint64 offset, uint64 size, bool isWrite) const {
        Blocks missing;
        for (uint64 at = offset; at < offset + size; at = (at / DriveImage::BLOCK + 1) * DriveImage::BLOCK) {
            const uint64 rawIdx = at / DriveImage::BLOCK, begin = rawIdx * DriveImage::BLOCK;
            const bool isWhole = offset <= begin && offset + size >= begin + image.validBytes(rawIdx);
            if (layered.contains(rawIdx) || !image.hasPlace(rawIdx) || (isWrite && isWhole)) continue;
            if (!isPresent(image.zqfIdxOf(rawIdx))) missing.insert(image.zqfIdxOf(rawIdx));
        }
        return missing;
    }

    std::pair<VirtualDisk::Result, int> carryOut(const Request& request, uint64 token, bool retry) {
        int error = 0;
        VirtualDisk::Result result;
        if (request.isWrite) {
            result = drive->write(request.offset, request.size, request.data.data(), token, retry, &error);
        } else {
            buffer.assign(request.size, '?');
            result = drive->read(request.offset, request.size, buffer.data(), token, retry, &error);
        }
        return {result, error};
    }

    void submit(Request request, uint64 token, bool retry) {
        request.missing = missingOf(request.offset, request.size, request.isWrite);
        const bool mustHold = isSuspended || !request.missing.empty();
        if (isSuspended) request.missing.clear();
        const auto [result, error] = carryOut(request, token, retry);
        const auto wanted = mustHold ? VirtualDisk::Result::Held : VirtualDisk::Result::Done;
        ASSERT_EQ(result, wanted) << "errno " << error << ", " << drive->getFailure();
        if (mustHold) {
            held.emplace(token, std::move(request));
        } else if (request.isWrite) {
            written(request);
        } else {
            ASSERT_TRUE(buffer == std::string_view(content).substr(request.offset, request.size))
                << "read of " << request.size << " bytes at " << request.offset << ", cursor " << cursor;
        }
    }

    void written(const Request& request) {
        content.replace(request.offset, request.size, request.data);
        const uint64 last = (request.offset + request.size - 1) / DriveImage::BLOCK;
        for (uint64 rawIdx = request.offset / DriveImage::BLOCK; rawIdx <= last; ++rawIdx) {
            if (layered.contains(rawIdx)) continue;
            if (mode == Mode::Rw && fits(rawIdx)) {
                store(rawIdx);
            } else {
                layered.insert(rawIdx);
            }
        }
    }

    /// Held only while the drive is suspended, and not by this test.
    void discard() {
        if (isSuspended) return;
        const uint64 n = image.nRaw(), first = random.below(n);
        const uint64 end = std::min(n, first + random.between(1, 40));
        const uint64 offset = first * DriveImage::BLOCK;
        const uint64 size = std::min(end * DriveImage::BLOCK, image.sizeRaw) - offset;
        int error = 0;
        const auto result = drive->discard(offset, size, ++nTokens, false, &error);
        if (mode == Mode::Ro) {
            ASSERT_EQ(error, EROFS);
            return;
        }
        ASSERT_EQ(result, VirtualDisk::Result::Done) << error << drive->getFailure();
        written({offset, static_cast<uint32>(size), std::string(size, '\0'), true, {}});
    }

    bool fits(uint64 rawIdx) const {
        return image.hasPlace(rawIdx) &&
               image.zqfIdxOf(rawIdx) * DriveImage::BLOCK + image.validBytes(rawIdx) <= image.sizeZqf;
    }
    void store(uint64 rawIdx) {
        const uint64 begin = rawIdx * DriveImage::BLOCK, n = image.validBytes(rawIdx);
        image.zqf.replace(image.zqfIdxOf(rawIdx) * DriveImage::BLOCK, n, content, begin, n);
    }

    Request randomRequest(bool isWrite) {
        const uint64 most = std::min<uint64>(image.sizeRaw, random.chance(0.05) ? MAX_REQUEST : 50'000);
        auto size = static_cast<uint32>(random.between(1, most));
        uint64 offset = random.below(image.sizeRaw - size + 1);
        if (random.chance(0.7)) {
            offset -= offset % DriveImage::BLOCK;
            size = (size + 4095U) & ~4095U;
            size = static_cast<uint32>(std::min<uint64>(size, image.sizeRaw - offset));
        }
        size = std::min(size, MAX_REQUEST);
        return {offset, size, isWrite ? random.bytes(size) : "", isWrite, {}};
    }

    void read() {
        if (held.size() < 40) submit(randomRequest(false), ++nTokens, false);
    }

    void write() {
        if (held.size() >= 40) return;
        if (mode != Mode::Ro) return submit(randomRequest(true), ++nTokens, false);
        const auto [result, error] = carryOut(randomRequest(true), ++nTokens, false);
        ASSERT_EQ(result, VirtualDisk::Result::Failed);
        ASSERT_EQ(error, EROFS);
    }

    /// The blocks from `first` to `end` - 1 are there: who waited for the last of its blocks is woken, nobody
    /// else is.
    void arrive(uint64 first, uint64 end) {
        std::vector<uint64> complete;
        for (auto& [token, request] : held) {
            if (request.missing.empty()) continue;
            request.missing.erase(request.missing.lower_bound(first), request.missing.lower_bound(end));
            if (request.missing.empty()) complete.push_back(token);
        }
        for (uint64 zqfIdx = first; zqfIdx < end; ++zqfIdx)
            poppedAt.erase(zqfIdx);
        expectWoken(std::move(complete));
    }

    void expectWoken(std::vector<uint64> tokens) {
        ASSERT_THAT(woken, testing::UnorderedElementsAreArray(tokens));
        woken.clear();
        for (const uint64 token : tokens) {
            const auto request = held.extract(token);
            submit(request.mapped(), token, true);
            if (testing::Test::HasFatalFailure()) return;
        }
    }

    void deliver() {
        if (image.nZqf == 0) return;
        uint64 first = random.below(image.nZqf);
        const std::set<uint64> wanted = allMissing();
        if (!wanted.empty() && random.chance(0.7)) first = *wanted.begin();
        const uint64 n = std::min(random.between(1, 20), image.nZqf - first);
        uint64 length = n * DriveImage::BLOCK;
        if (first + n == image.nZqf && random.chance(0.5))
            length -= image.nZqf * DriveImage::BLOCK - image.sizeZqf;
        drive->deliver(first, image.zqf.data() + first * DriveImage::BLOCK, length);
        for (uint64 zqfIdx = std::max(first, cursor); zqfIdx < first + n; ++zqfIdx)
            delivered.insert(zqfIdx);
        arrive(first, first + n);
    }

    void moveCursor() {
        const uint64 old = cursor;
        uint64 to = random.chance(0.3) ? random.below(image.nZqf + 1)
                                       : std::min(cursor + random.below(30), image.nZqf);
        if (mode == Mode::Rw) to = image.nZqf;
        if (to >= old) image.moveCursor(old, to);
        cursor = to;
        if (to < old) {
            image.moveCursor(old, to);
            return lowerCursor();
        }
        drive->setCursor(to);
        delivered.erase(delivered.begin(), delivered.lower_bound(to));
        arrive(old, to);
    }

    /// What is held is looked at anew.
    void lowerCursor() {
        drive->setCursor(cursor);
        std::vector<uint64> complete;
        for (auto& [token, request] : held) {
            if (request.missing.empty()) continue;
            request.missing = missingOf(request.offset, request.size, request.isWrite);
            if (request.missing.empty()) complete.push_back(token);
        }
        forgetUnwanted();
        expectWoken(std::move(complete));
    }

    std::set<uint64> allMissing() const {
        std::set<uint64> blocks;
        for (const auto& [token, request] : held)
            blocks.insert(request.missing.begin(), request.missing.end());
        return blocks;
    }
    void forgetUnwanted() {
        const std::set<uint64> wanted = allMissing();
        std::erase_if(poppedAt, [&](const auto& block) { return !wanted.contains(block.first); });
    }
    std::set<uint64> queue() {
        std::set<uint64> blocks = allMissing();
        std::erase_if(blocks, [&](uint64 zqfIdx) {
            const auto popped = poppedAt.find(zqfIdx);
            return popped != poppedAt.end() && clock.elapsedMs() - popped->second < 100;
        });
        return blocks;
    }

    void checkQueue() {
        ASSERT_EQ(drive->queueLength(), queue().size());
        ASSERT_EQ(drive->nHeld(), held.size());
        const auto isReadMissing = [](const auto& entry) {
            return !entry.second.isWrite && !entry.second.missing.empty();
        };
        ASSERT_EQ(drive->isUnderflow(), std::any_of(held.begin(), held.end(), isReadMissing));
    }

    void pop() {
        const std::set<uint64> wanted = queue();
        const uint64 max = random.below(50);
        const std::vector<uint64> popped = drive->popMissing(max);
        ASSERT_EQ(popped.size(), std::min<uint64>(max, wanted.size()));
        for (const uint64 zqfIdx : popped) {
            ASSERT_TRUE(wanted.contains(zqfIdx)) << zqfIdx;
            ASSERT_TRUE(poppedAt.insert_or_assign(zqfIdx, clock.elapsedMs()).second ||
                        clock.elapsedMs() >= 100);
        }
    }

    void suspendOrResume() {
        isSuspended = !isSuspended;
        if (isSuspended) return drive->suspend();
        std::vector<uint64> waiting;
        for (const auto& [token, request] : held) {
            if (request.missing.empty()) waiting.push_back(token);
        }
        drive->resume();
        expectWoken(std::move(waiting));
    }

    void letTimePass() { SxClock::get().sleepNs(static_cast<int64>(random.below(60)) * 1'000'000); }
    void changeCache() { drive->setCacheSize(random.below(40) * DriveImage::BLOCK); }

    void forgetOne() {
        if (held.empty()) return;
        const auto request = std::next(held.begin(), static_cast<int64>(random.below(held.size())));
        ASSERT_TRUE(drive->forget(request->first));
        ASSERT_FALSE(drive->forget(request->first));
        held.erase(request);
        forgetUnwanted();
    }

    void sync() { ASSERT_EQ(drive->sync(), 0) << drive->getFailure(); }

    void flush() {
        if (mode == Mode::Ro) return;
        drive->flushLayer();
        std::erase_if(layered, [&](uint64 rawIdx) {
            if (!fits(rawIdx) || image.zqfIdxOf(rawIdx) >= cursor) return false;
            store(rawIdx);
            return true;
        });
    }

    void reopen() {
        endDrive();
        delivered.clear();
        poppedAt.clear();
        isSuspended = false;
        open();
    }

    TestRandom& random;
    const Mode mode;
    DriveImage image;
    VirtualClock clock;
    std::unique_ptr<VirtualDisk> drive;
    std::string content, buffer;
    uint64 cursor = 0, nTokens = 0;
    bool isSuspended = false;
    std::set<uint64> delivered, layered; ///< ZqF indices, RAW indices
    std::map<uint64, int64> poppedAt;
    std::map<uint64, Request> held;
    std::vector<uint64> woken;
};

class DriveModel : public testing::TestWithParam<Mode> {};

} // namespace

TEST_P(DriveModel, AnswersAsPlainArraysDo) {
    TestRandom random(7 + static_cast<uint64>(GetParam()));
    TRACE_SEED(random);
    for (int64 n = 0; n < N_IMAGES; ++n) {
        Model model(&random, GetParam());
        for (int64 step = 0; step < STEPS_OF_ONE_IMAGE; ++step) {
            model.step();
            if (HasFailure()) FAIL() << "image " << n << ", step " << step;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, DriveModel, testing::Values(Mode::Ro, Mode::Rtw, Mode::Rw));
