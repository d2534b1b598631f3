#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "zq/webkeel/handle.h"

namespace kiv {
namespace {

std::atomic<int> g_nDestroyed{0};

struct Shared : RefCountedBaseTemplate<MemAllocNewdel> {
    ~Shared() override { g_nDestroyed.fetch_add(1); }
};

TEST(HandleConcurrencyTest, ManyThreadsCopyingOneObjectDeleteItExactlyOnce) {
    for (int nRound = 0; nRound < 20; ++nRound) {
        g_nDestroyed = 0;
        Handle<Shared> hOrigin(new Shared);
        std::vector<std::thread> vecThreads;
        for (int t = 0; t < 4; ++t) {
            vecThreads.emplace_back([hCopy = hOrigin] {
                for (int i = 0; i < 2000; ++i) {
                    Handle<Shared> hLocal = hCopy;
                    Handle<const Shared> hConst = hLocal;
                }
            });
        }
        hOrigin.reset();
        for (std::thread& thread : vecThreads) {
            thread.join();
        }
        EXPECT_EQ(g_nDestroyed.load(), 1);
    }
}

}  // namespace
}  // namespace kiv
