// Locks and threads, times, and writing to a pipe.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>

#include "platform/UThread.h"
#include "platform/mutexobj.h"
#include "platform/osfile_impl.h"
#include "platform/rwlockobj.h"
#include "platform/systimer_impl.h"
#include "support/Concurrent.h"

namespace {

using namespace support;

TEST(MutexTest, KeepsOtherThreadsAndProcessesOut) {
    Mutex mutex(Mutex::kPrivate), shared(Mutex::kShared);
    mutex.Lock();
    shared.Lock();
    EXPECT_EQ(mutex.TryLock(), 0) << "its own thread may";
    Runner([&] { EXPECT_EQ(mutex.TryLock(), 1); });
    const pid_t child = startChild([&] {
        alarm(20);  // in vain, or nobody wakes it
        return shared.TryLock() == 1 && shared.Lock() == 0 && shared.UnLock() == 0;
    });
    EXPECT_TRUE(sleeps(std::to_string(child), [] { return false; }));
    shared.UnLock();
    EXPECT_EQ(resultOf(child), 1);
    shared.DestroyMutex();
    for (int i = 0; i < 2; ++i)
        mutex.UnLock();
    mutex.DestroyMutex();
}

TEST(RWLockTest, LetsWritersInOneByOneAndBeforeNewReaders) {
    TReadWriteLock lock;
    ASSERT_TRUE(lock.CreateRWLock());
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(lock.WaitForRead());
    {
        const auto write = [&] { EXPECT_TRUE(lock.WaitForWrite()); };
        const auto read = [&] { EXPECT_TRUE(lock.WaitForRead()); };
        Runner first(write);
        EXPECT_TRUE(first.blocks());
        Runner reader(read), another(read);
        EXPECT_TRUE(reader.blocks());
        EXPECT_TRUE(another.blocks());
        lock.ReleaseReadLock();
        EXPECT_TRUE(first.blocks()) << "one reader is left";
        lock.ReleaseReadLock();
        EXPECT_FALSE(first.blocks());
        Runner second(write);
        EXPECT_TRUE(second.blocks());
        lock.ReleaseWriteLock();
        EXPECT_FALSE(second.blocks()) << "one writer follows the other";
        EXPECT_TRUE(reader.blocks());
        lock.ReleaseWriteLock();
    }
    for (int i = 0; i < 2; ++i)
        EXPECT_TRUE(lock.ReleaseReadLock());
    EXPECT_TRUE(lock.DestroyRWLock());
}

TEST(PeriodicThreadTest, SleepsBetweenItsCallsUntilItIsStopped) {
    std::atomic<int> calls{0};
    const auto count = [](void* number) {
        ++*static_cast<std::atomic<int>*>(number);
        return false;
    };
    TPeriodicThread thread(90000, count, &calls);
    ASSERT_EQ(thread.StartNewThread(nullptr, nullptr), 0);
    while (calls == 0)
        ASSERT_EQ(thread.WaitForThread(1), TEvent::kTimedOut);
    EXPECT_EQ(thread.WaitForThread(20), TEvent::kTimedOut);
    EXPECT_EQ(thread.StartNewThread(nullptr, nullptr), TThread::kAlreadyStarted);
    thread.RequestStop();
    EXPECT_EQ(thread.WaitForThread(30000), TEvent::kSignalled);
    EXPECT_EQ(calls, 1);
}

TEST(TimeTest, MillisecondsBorrowFromTheSeconds) {
    EXPECT_EQ(millisecondsBetween({10, 900000}, {12, 100999}), 1200u);
}

TEST(OSFileTest, WritesAllPartsToAFullNonBlockingPipe) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    fcntl(ends[1], F_SETFL, O_NONBLOCK);
    std::string head = "head", body = std::string(100000, 'a') + std::string(100000, 'b'), got(300000, '\0');
    iovec parts[] = {{head.data(), 4}, {nullptr, 0}, {body.data(), body.size()}};
    {
        const Runner reader([&] { EXPECT_EQ(ReadOSFile(ends[0], got.data(), 300000), 200004); });
        EXPECT_TRUE(WriteOSFile(ends[1], parts, 3));
        close(ends[1]);
    }
    EXPECT_TRUE(got.c_str() == head + body);
    close(ends[0]);
}

}  // namespace
