#include "Platform/BlockPool.h"

#include "Model/ZUBProCustomEvent.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

// An object whose pool no other test touches.
struct Sample {
    explicit Sample(int v) : value(v) {}
    int value;
    char payload[200] = {};
};

zub::BlockPool& samplePool() {
    // The block of a pooled shared Sample holds the shared count too: found the
    // way the library's queue finds it.
    zub::stockPooled<Sample>(0, 0);
    return *zub::detail::probedPool;
}

}  // namespace

TEST(BlockPool, BlocksComeBackStockedBlocksAreUsedFirstAndTheFreeListIsBounded) {
    zub::BlockPool& pool = samplePool();
    ASSERT_EQ(pool.freeBlocks(), 0u);

    // A freed object's block is the next one taken.
    const void* first = nullptr;
    {
        auto a = zub::makePooled<Sample>(1);
        first = a.get();
        EXPECT_EQ(pool.freeBlocks(), 0u);
    }
    EXPECT_EQ(pool.freeBlocks(), 1u);
    auto b = zub::makePooled<Sample>(2);
    EXPECT_EQ(b.get(), first);
    EXPECT_EQ(b->value, 2);
    EXPECT_EQ(pool.freeBlocks(), 0u);

    // Stocking adds blocks up to the number asked for, never beyond the bound,
    // and makePooled takes them.
    zub::stockPooled<Sample>(10, 0);
    EXPECT_EQ(pool.freeBlocks(), 10u);
    zub::stockPooled<Sample>(4, 0);
    EXPECT_EQ(pool.freeBlocks(), 10u) << "stocking never takes blocks away";
    auto c = zub::makePooled<Sample>(3);
    EXPECT_EQ(pool.freeBlocks(), 9u);

    std::vector<std::shared_ptr<Sample>> many;
    for (std::size_t i = 0; i < zub::BlockPool::kMaxFreeBlocks + 50; ++i) many.push_back(zub::makePooled<Sample>(7));
    EXPECT_EQ(pool.freeBlocks(), 0u);
    many.clear();
    EXPECT_EQ(pool.freeBlocks(), zub::BlockPool::kMaxFreeBlocks) << "the rest went back to the heap";
    zub::stockPooled<Sample>(zub::BlockPool::kMaxFreeBlocks + 10, 0);
    EXPECT_EQ(pool.freeBlocks(), zub::BlockPool::kMaxFreeBlocks);
}

#if defined(__SANITIZE_ADDRESS__)
TEST(BlockPool, AnEventUsedAfterItDiedIsStillReportedInThePool) {
    zub::stockPooled<ZUBProCustomEvent>(1, std::int64_t{0});
    ZUBProCustomEvent* raw = nullptr;
    {
        auto event = zub::makePooled<ZUBProCustomEvent>(std::int64_t{0});
        raw = event.get();
    }
    EXPECT_DEATH((void)*static_cast<volatile int*>(static_cast<void*>(raw)), "use-after-poison");
}
#endif

TEST(BlockPoolConcurrency, ObjectsMadeOnOneThreadAndDroppedOnAnotherShareOnePool) {
    zub::BlockPool& pool = samplePool();
    constexpr int kObjects = 20000;
    std::vector<std::shared_ptr<Sample>> handed(kObjects);
    std::thread maker([&] {
        for (int i = 0; i < kObjects; ++i) handed[static_cast<std::size_t>(i)] = zub::makePooled<Sample>(i);
    });
    maker.join();
    // Dropped on two threads at once, while a third makes more from what they return.
    std::vector<std::thread> droppers;
    for (int t = 0; t < 2; ++t) {
        droppers.emplace_back([&, t] {
            for (int i = t; i < kObjects; i += 2) handed[static_cast<std::size_t>(i)].reset();
        });
    }
    long sum = 0;
    std::thread taker([&] {
        for (int i = 0; i < kObjects / 2; ++i) sum += zub::makePooled<Sample>(1)->value;
    });
    for (auto& d : droppers) d.join();
    taker.join();
    EXPECT_EQ(sum, kObjects / 2);
    EXPECT_EQ(pool.freeBlocks(), zub::BlockPool::kMaxFreeBlocks);
}
