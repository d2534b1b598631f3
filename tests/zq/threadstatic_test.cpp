#include "zq/webthreadstorage/threadstatic.h"

#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace kiv {
namespace {

struct Counted {
    static std::atomic<int> s_nDestroyed;
    ~Counted() { s_nDestroyed.fetch_add(1); }
    int nValue = 0;
};
std::atomic<int> Counted::s_nDestroyed{0};

std::atomic<int> g_nCleanups{0};
std::mutex g_cleanupMutex;
std::vector<std::thread::id> g_vecCleanupThreads;  // guarded by g_cleanupMutex

void countingCleanup(Counted* p) {
    g_nCleanups.fetch_add(1);
    {
        std::lock_guard<std::mutex> lock(g_cleanupMutex);
        g_vecCleanupThreads.push_back(std::this_thread::get_id());
    }
    delete p;
}

class ThreadSpecificStaticTest : public ::testing::Test {
protected:
    void SetUp() override {
        Counted::s_nDestroyed = 0;
        g_nCleanups = 0;
        std::lock_guard<std::mutex> lock(g_cleanupMutex);
        g_vecCleanupThreads.clear();
    }
};

TEST_F(ThreadSpecificStaticTest, ThreadWithoutValueGetsNull) {
    ThreadSpecificStatic<Counted> storage;
    EXPECT_EQ(storage.get(), nullptr);
    EXPECT_EQ(storage.release(), nullptr);
}

TEST_F(ThreadSpecificStaticTest, GetOrCreateMakesOneObjectPerThread) {
    ThreadSpecificStatic<Counted> storage;
    Counted& value = storage.getOrCreate();
    EXPECT_EQ(&storage.getOrCreate(), &value);
    EXPECT_EQ(storage.get(), &value);
}

TEST_F(ThreadSpecificStaticTest, ThreadsSeeDistinctValues) {
    constexpr int kThreads = 8;
    ThreadSpecificStatic<Counted> storage;
    std::barrier allSet(kThreads);
    std::mutex mutex;
    std::set<Counted*> setSeen;
    std::atomic<int> nMismatches{0};
    std::vector<std::thread> vecThreads;
    for (int i = 0; i < kThreads; ++i) {
        vecThreads.emplace_back([&, i] {
            Counted& value = storage.getOrCreate();
            value.nValue = i;
            {
                std::lock_guard<std::mutex> lock(mutex);
                setSeen.insert(&value);
            }
            // Every thread holds its value at once, so no address can have been reused.
            allSet.arrive_and_wait();
            if (storage.get() != &value || storage.get()->nValue != i) {
                nMismatches.fetch_add(1);
            }
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    EXPECT_EQ(setSeen.size(), std::size_t{kThreads});
    EXPECT_EQ(nMismatches.load(), 0);
    EXPECT_EQ(storage.get(), nullptr);  // this thread set nothing
}

TEST_F(ThreadSpecificStaticTest, CleanupRunsOnceForEachExitingThreadThatSetAValue) {
    constexpr int kSetters = 50;
    constexpr int kBystanders = 10;
    ThreadSpecificStatic<Counted> storage(&countingCleanup);
    std::mutex mutex;
    std::vector<std::thread::id> vecSetterIds;
    std::atomic<int> nBystandersWithValue{0};
    std::vector<std::thread> vecThreads;
    for (int i = 0; i < kSetters; ++i) {
        vecThreads.emplace_back([&] {
            storage.set(new Counted);
            std::lock_guard<std::mutex> lock(mutex);
            vecSetterIds.push_back(std::this_thread::get_id());
        });
    }
    for (int i = 0; i < kBystanders; ++i) {
        vecThreads.emplace_back([&] {
            if (storage.get() != nullptr) {
                nBystandersWithValue.fetch_add(1);
            }
        });
    }
    for (std::thread& thread : vecThreads) {
        thread.join();
    }
    EXPECT_EQ(nBystandersWithValue.load(), 0);
    EXPECT_EQ(g_nCleanups.load(), kSetters);
    EXPECT_EQ(Counted::s_nDestroyed.load(), kSetters);
    // Each clean-up ran on the thread that was exiting.
    std::lock_guard<std::mutex> lock(g_cleanupMutex);
    std::multiset<std::thread::id> setCleanupThreads(g_vecCleanupThreads.begin(),
                                                     g_vecCleanupThreads.end());
    EXPECT_EQ(setCleanupThreads,
              std::multiset<std::thread::id>(vecSetterIds.begin(), vecSetterIds.end()));
}

TEST_F(ThreadSpecificStaticTest, DefaultCleanupDeletesTheValue) {
    ThreadSpecificStatic<Counted> storage;
    std::thread([&] { storage.getOrCreate().nValue = 1; }).join();
    EXPECT_EQ(Counted::s_nDestroyed.load(), 1);
}

TEST_F(ThreadSpecificStaticTest, ReleasedValueIsNotCleanedUp) {
    ThreadSpecificStatic<Counted> storage(&countingCleanup);
    Counted* pReleased = nullptr;
    std::thread([&] {
        storage.set(new Counted);
        pReleased = storage.release();
        if (storage.get() != nullptr) {
            pReleased = nullptr;
        }
    }).join();
    ASSERT_NE(pReleased, nullptr);
    EXPECT_EQ(g_nCleanups.load(), 0);
    EXPECT_EQ(Counted::s_nDestroyed.load(), 0);
    delete pReleased;
}

TEST_F(ThreadSpecificStaticTest, SetReplacesWithoutCleaningUpTheOldValue) {
    ThreadSpecificStatic<Counted> storage(&countingCleanup);
    Counted* pOld = new Counted;
    std::thread([&] {
        storage.set(pOld);
        storage.set(new Counted);
    }).join();
    EXPECT_EQ(g_nCleanups.load(), 1);
    EXPECT_EQ(Counted::s_nDestroyed.load(), 1);
    delete pOld;
    EXPECT_EQ(Counted::s_nDestroyed.load(), 2);
}

TEST_F(ThreadSpecificStaticTest, ValueSetToNullIsNotCleanedUp) {
    ThreadSpecificStatic<Counted> storage(&countingCleanup);
    Counted* pValue = new Counted;
    std::thread([&] {
        storage.set(pValue);
        storage.set(nullptr);
    }).join();
    EXPECT_EQ(g_nCleanups.load(), 0);
    delete pValue;
}

TEST_F(ThreadSpecificStaticTest, DestructionCleansUpTheCallingThreadsValue) {
    {
        ThreadSpecificStatic<Counted> storage(&countingCleanup);
        storage.getOrCreate();
    }
    EXPECT_EQ(g_nCleanups.load(), 1);
    EXPECT_EQ(Counted::s_nDestroyed.load(), 1);
}

TEST_F(ThreadSpecificStaticTest, InstancesKeepSeparateValues) {
    ThreadSpecificStatic<Counted> first;
    ThreadSpecificStatic<Counted> second;
    first.getOrCreate().nValue = 1;
    second.getOrCreate().nValue = 2;
    EXPECT_EQ(first.get()->nValue, 1);
    EXPECT_EQ(second.get()->nValue, 2);
}

}  // namespace
}  // namespace kiv
