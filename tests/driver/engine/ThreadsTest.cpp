#include "DriveImage.h"
#include "Instrumented.h"
#include "SxException.h"
#include "ZqBlocks.h"

#include <condition_variable>
#include <gtest/gtest.h>
#include <mutex>
#include <thread>

namespace {

constexpr uint64 N_BLOCKS = 1'200, N_THREADS = 4, OWN_BLOCKS = 100;
constexpr int64 N_REQUESTS = IS_INSTRUMENTED ? 1'500 : 10'000;
using Bytes = std::string;

/// Lets a thread wait for the wake of its token.
class Wakes {
public:
    void wake(uint64 token) {
        const std::lock_guard lock(mutex);
        woken.insert(token);
        changed.notify_all();
    }
    void await(uint64 token) {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return woken.erase(token) > 0; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::set<uint64> woken;
};

/// One user of the drive: reads everywhere, and writes and discards the blocks that are its own.
class User {
public:
    User(const DriveImage& image_, VirtualDisk* drive_, Wakes* wakes_, uint64 number)
        : image(image_),
          drive(*drive_),
          wakes(*wakes_),
          random(100 + number),
          ownFirst(number * OWN_BLOCKS),
          token(number << 32),
          content(image.rawBytes()) {}

    void run() {
        for (int64 n = 0; n < N_REQUESTS && fault.empty(); ++n) {
            const bool isWrite = random.chance(0.3);
            const uint64 nBlocks = random.between(1, random.chance(0.1) ? 200 : 12);
            const uint64 first = isWrite ? ownFirst + random.below(OWN_BLOCKS) : random.below(N_BLOCKS);
            const uint64 end = std::min(first + nBlocks, isWrite ? ownFirst + OWN_BLOCKS : N_BLOCKS);
            const uint64 from = first * ZqBlocks::SIZE,
                         size = std::min(end * ZqBlocks::SIZE, image.sizeRaw) - from;
            if (isWrite) {
                const bool isDiscard = random.chance(0.3);
                content.replace(from, size, isDiscard ? Bytes(size, '\0') : random.bytes(size));
                carryOut(from, size, isDiscard ? Kind::Discard : Kind::Write);
            } else {
                carryOut(from, size, Kind::Read);
                compare(from, size);
            }
        }
    }

    Bytes fault;

private:
    enum class Kind { Read, Write, Discard };

    VirtualDisk::Result ask(Kind kind, uint64 offset, uint32 n, bool retry, int* error) {
        if (kind == Kind::Discard) return drive.discard(offset, n, token, retry, error);
        return kind == Kind::Write ? drive.write(offset, n, &content[offset], token, retry, error)
                                   : drive.read(offset, n, buffer.data(), token, retry, error);
    }

    void carryOut(uint64 offset, uint64 size, Kind kind) {
        const auto n = static_cast<uint32>(size);
        buffer.assign(size, '?');
        ++token;
        for (bool retry = false;; retry = true) {
            int error = 0;
            const auto result = ask(kind, offset, n, retry, &error);
            if (result == VirtualDisk::Result::Done) return;
            if (result == VirtualDisk::Result::Failed) {
                fault = "errno " + std::to_string(error) + ": " + drive.getFailure().str();
                return;
            }
            wakes.await(token);
        }
    }

    /// Blocks of the other users are theirs to compare.
    void compare(uint64 offset, uint64 size) {
        for (uint64 at = offset; at < offset + size && fault.empty(); at += ZqBlocks::SIZE) {
            const uint64 rawIdx = at / ZqBlocks::SIZE, n = std::min(ZqBlocks::SIZE, offset + size - at);
            const bool isOwn = rawIdx >= ownFirst && rawIdx < ownFirst + OWN_BLOCKS;
            if (rawIdx < N_THREADS * OWN_BLOCKS && !isOwn) continue;
            if (buffer.compare(at - offset, n, content, at, n) != 0) {
                fault = "RAW block " + std::to_string(rawIdx) + " differs, request at " +
                        std::to_string(offset / ZqBlocks::SIZE);
            }
        }
    }

    const DriveImage& image;
    VirtualDisk& drive;
    Wakes& wakes;
    TestRandom random;
    const uint64 ownFirst;
    uint64 token;
    Bytes content, buffer;
};

/// Moves what can be moved while the users run, and delivers what they wait for.
void disturb(VirtualDisk* drive, const DriveImage& image, TestRandom* random,
             const std::atomic<int>* nRunning) {
    const auto deliver = [&](uint64 zqfIdx, uint64 n) {
        n = std::min(n, image.nZqf - zqfIdx);
        // What has been flushed is in the file, which holds all blocks from the start.
        std::ifstream file(image.path("img.zqf"), std::ios::binary);
        file.seekg(static_cast<std::streamoff>(zqfIdx * ZqBlocks::SIZE));
        std::string bytes(n * ZqBlocks::SIZE, '\0');
        file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        drive->deliver(zqfIdx, bytes.data(), bytes.size());
    };
    while (nRunning->load() > 0) {
        for (const uint64 zqfIdx : drive->popMissing(64))
            deliver(zqfIdx, 1);
        switch (random->below(12)) {
        case 0:
            drive->setCursor(random->below(image.nZqf + 1));
            break;
        case 1:
            drive->setCursor(std::min(drive->getCursor() + 40, image.nZqf));
            break;
        case 2:
            drive->suspend();
            break;
        case 3:
            drive->setCacheSize(random->below(200) * ZqBlocks::SIZE);
            break;
        case 4:
            drive->getTrace()->start(image.prefix);
            break;
        case 5:
            drive->getTrace()->stop();
            break;
        case 6:
            drive->flushLayer();
            break;
        case 7:
            EXPECT_EQ(drive->sync(), 0);
            break;
        case 8:
            drive->tick();
            break;
        default:
            deliver(random->below(image.nZqf), random->between(1, 50));
        }
        drive->resume();
    }
}

} // namespace

TEST(DriveThreads, NothingIsMixedUpWhileBlocksComeAndGo) {
    TestRandom random(31);
    TRACE_SEED(random);
    const DriveImage image(random, N_BLOCKS, 0.8, "", TempDir::inMemory());
    image.put(0, image.nZqf, false);
    Wakes wakes;
    VirtualDisk drive(image.config(Mode::Rtw, 100), [&](uint64 token) { wakes.wake(token); });

    std::vector<std::unique_ptr<User>> users;
    std::vector<std::thread> threads;
    std::atomic<int> nRunning{N_THREADS};
    for (uint64 n = 0; n < N_THREADS; ++n) {
        users.push_back(std::make_unique<User>(image, &drive, &wakes, n));
        threads.emplace_back([user = users.back().get(), &nRunning] {
            user->run();
            --nRunning;
        });
    }
    disturb(&drive, image, &random, &nRunning);
    for (std::thread& thread : threads)
        thread.join();
    for (const auto& user : users)
        EXPECT_EQ(user->fault, "");
    EXPECT_EQ(drive.nHeld(), 0U);
    EXPECT_EQ(drive.getTrace()->getFailure(), "");
}
