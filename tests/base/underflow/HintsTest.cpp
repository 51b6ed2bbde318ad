#include "UnderflowRun.h"
#include "ZqOnDemandHints.h"
#include "ZqOrderHints.h"
#include "ZqRangeSource.h"

#include <set>

namespace {

using Groups = std::vector<ZqOrderHints::Group>;

SxPtr<ZqOrderHints> hintsOf(const Groups& groups) {
    auto hints = SxPtr<ZqOrderHints>::create("0123456789abcdef0123456789abcdef");
    hints->groups = groups;
    return hints;
}

SxArray<uint64> offsetsOf(const std::vector<uint64>& stretches) {
    SxArray<uint64> offsets;
    for (const uint64 idx : stretches)
        offsets.append(idx * STRETCH);
    return offsets;
}

std::vector<uint64> stretchesOf(const SxArray<uint64>& offsets) {
    std::vector<uint64> stretches;
    for (const uint64 offset : offsets)
        stretches.push_back(offset / STRETCH);
    return stretches;
}

/// Gives the image's bytes at once, and notes what it was asked for.
class NotingSource : public ZqRangeSource {
public:
    SxArray<uint64> announce(const SxArray<uint64>& offsets, const SxArray<uint64>&,
                             const SxArray<uint64>& likely) override {
        const std::lock_guard lock(mutex);
        notes.push_back("announce " + textOf(offsets) + " with " + textOf(likely));
        return isCancelled ? SxArray<uint64>() : likely;
    }
    void read(uint64 offset, uint64 size, char* buffer, bool) override {
        const std::lock_guard lock(mutex);
        notes.push_back("read " + std::to_string(offset / STRETCH));
        UnderflowRun::fill(offset, size, buffer);
    }
    void forget(uint64, uint64) override {}
    void cancel(bool on) override { isCancelled = on; }
    std::vector<std::string> take() {
        const std::lock_guard lock(mutex);
        return std::exchange(notes, {});
    }

private:
    static std::string textOf(const SxArray<uint64>& offsets) {
        std::string text;
        for (const uint64 idx : stretchesOf(offsets))
            text += (text.empty() ? "" : ",") + std::to_string(idx);
        return text;
    }

    std::mutex mutex;
    std::vector<std::string> notes;
    std::atomic<bool> isCancelled{false};
};

} // namespace

TEST(OnDemandHints, NameWhatAReadMostLikelyAsksForNext) {
    const Groups groups = {{0, 10, {3, 7, 1, 4, 5, 9}, {{1, 50}, {2, 49}}},
                           {10, 20, {12, 15}, {{0, 100}}},
                           {30, 40, {31, 32}, {}}};
    struct Step {
        std::vector<uint64> waited;
        uint64 nCurrent;
        std::vector<uint64> likely;
    };
    const std::pair<const char*, std::vector<Step>> cases[] = {
        {"the first ones, at most four", {{{0}, 0, {3, 7, 1, 4}}}},
        {"those that follow", {{{0}, 0, {3, 7, 1, 4}}, {{3}, 0, {5, 12, 15}}, {{7}, 0, {9}}}},
        {"what is waited for isn't named", {{{7, 3}, 0, {1, 4, 5, 9}}}},
        {"neither is what the download has", {{{8}, 4 * STRETCH + 1, {7, 12, 15}}}},
        {"a successor that is likely enough", {{{3, 7, 1, 4}, 0, {5, 9, 12, 15}}, {{31}, 0, {32}}}},
        {"in no group", {{{25}, 0, {}}}},
        {"what can't be had tells nothing new", {{{0}, 0, {3, 7, 1, 4}}, {{0}, 0, {}}}},
        {"its group comes before others'", {{{12, 0}, 0, {15, 3, 7, 1}}}},
    };
    for (const auto& [name, steps] : cases) {
        ZqOnDemandHints hints;
        EXPECT_THAT(stretchesOf(hints.findLikely(offsetsOf({0}), 0)), IsEmpty()) << "there are none yet";
        hints.set(hintsOf(groups));
        for (const Step& step : steps)
            EXPECT_EQ(stretchesOf(hints.findLikely(offsetsOf(step.waited), step.nCurrent)), step.likely)
                << name;
    }
}

TEST(OnDemandHints, EndWhereTheyAreOfNoUse) {
    constexpr uint32 N = 4000, STEP = 10;
    ZqOrderHints::Group group{0, N, {}, {}};
    for (uint32 i = 0; i < N; ++i)
        group.hot.push_back(i);
    /// How many are fetched when every `share`-th of them is asked for, beside others.
    const auto fetched = [&](size_t share) {
        ZqOnDemandHints hints;
        hints.set(hintsOf({group}));
        std::deque<uint64> named;
        for (uint64 i = 0; i < 200; ++i) {
            uint64 asked = i * STEP;
            if (share > 0 && named.size() >= share) {
                asked = named.front();
                named.erase(named.begin(), named.begin() + static_cast<std::ptrdiff_t>(share));
            }
            const SxArray<uint64> likely = hints.findLikely(offsetsOf({asked}), 0);
            hints.noteBegun(likely);
            for (const uint64 idx : stretchesOf(likely))
                named.push_back(idx);
        }
        EXPECT_LE(hints.getNUsed(), hints.getNBegun());
        return hints.getNBegun();
    };
    EXPECT_EQ(fetched(0), 16);
    EXPECT_LE(fetched(10), 40);
    EXPECT_GT(fetched(2), 150);

    // What the download has passed has cost nothing.
    ZqOnDemandHints hints;
    hints.set(hintsOf({group}));
    for (uint64 i = 0; i < 10; ++i)
        hints.noteBegun(hints.findLikely(offsetsOf({i * STEP}), 0));
    EXPECT_EQ(hints.getNBegun(), 16);
    EXPECT_EQ(stretchesOf(hints.findLikely(offsetsOf({400}), 399 * STRETCH)),
              (std::vector<uint64>{401, 402, 403, 404}));
}

TEST(OnDemand, FetchesWhatHintsNameWithWhatAReadWaitsFor) {
    UnderflowRun run(20 * STRETCH);
    const auto source = SxPtr<NotingSource>::create();
    run.make(false);
    run.mgr->setRangeSource(source);
    run.launch();
    // Without hints one stretch needs no announcement.
    run.readBlock(0);
    EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 100));
    EXPECT_THAT(source->take(), ElementsAre("read 0"));

    run.mgr->setHints(hintsOf({{2, 12, {7, 3, 4, 9, 10, 11}, {}}}));
    run.readBlock(2 * PER_STRETCH + 5);
    EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 100));
    EXPECT_THAT(source->take(), ElementsAre("announce 2 with 7,3,4,9", "read 2"));
    EXPECT_THAT(run.driver.delivered, Not(Contains(testing::Key(7 * PER_STRETCH)))) << "nobody has asked yet";
    run.readBlock(7 * PER_STRETCH);
    EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 100));
    EXPECT_THAT(source->take(), ElementsAre("announce 7 with 10", "read 7"));
    EXPECT_TRUE(run.isDeliveryRight());
    run.sleep(50);
    ZqRuntimeInfo info = run.mgr->getRuntimeInfo();
    EXPECT_EQ(info.nHinted, 5);
    EXPECT_EQ(info.nHintsUsed, 1);
    EXPECT_EQ(info.nOnDemandFetches, 3);

    // A stop ends it, and the next job knows what was named.
    run.stop();
    run.sleep(1000);
    EXPECT_THAT(source->take(), IsEmpty());
    run.launch();
    run.readBlock(9 * PER_STRETCH);
    EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 100));
    EXPECT_THAT(source->take(), ElementsAre("announce 9 with 11", "read 9"));
    info = run.mgr->getRuntimeInfo();
    EXPECT_EQ(info.nHinted, 6);
    EXPECT_EQ(info.nHintsUsed, 2);
}
