// Locks, events, threads, time and file locks, between real threads and real processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <vector>

#include "platform/UThread.h"
#include "platform/osfile_impl.h"
#include "platform/rwlockobj.h"
#include "platform/systimer_impl.h"
#include "support/Concurrent.h"
#include "support/TempDir.h"

namespace {

using support::resultOf;
using support::Runner;
using support::startChild;

constexpr std::uint32_t kPlenty = 30000;  // milliseconds, for waits that must end before

TEST(MutexTest, PrivateMutexNeedsAnUnlockForEachLock) {
    Mutex mutex(Mutex::kPrivate);
    EXPECT_EQ(mutex.Lock() + mutex.Lock() + mutex.UnLock(), 0);
    {
        Runner other([&] { MutexLock hold(mutex); });
        EXPECT_TRUE(other.blocks());
        mutex.UnLock();
    }
    EXPECT_TRUE(mutex.DestroyMutex());
}

TEST(EventTest, SignalReleasesOneWaiterOrWithManualResetAll) {
    for (const bool manualReset : {false, true}) {
        TEvent event(manualReset, true);
        EXPECT_EQ(event.WaitForEvent(0), TEvent::kFailed) << "there is none";
        EXPECT_TRUE(event.CreateEvent());
        EXPECT_EQ(event.WaitForEvent(TEvent::kNoLimit), TEvent::kSignalled);
        EXPECT_TRUE(event.ResetEvent());
        {
            const auto wait = [&] { EXPECT_EQ(event.WaitForEvent(kPlenty), TEvent::kSignalled); };
            Runner first(wait), second(wait);
            EXPECT_TRUE(first.blocks() && second.blocks());
            EXPECT_TRUE(event.SetEvent());
            EXPECT_EQ(first.blocks() + second.blocks(), manualReset ? 0 : 1);
            event.SetEvent();
        }
        event.ResetEvent();
        EXPECT_EQ(event.WaitForEvent(20), TEvent::kTimedOut);
        event.DestroyEvent();
    }
}

class RWLockTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(lock.CreateRWLock()); }
    void TearDown() override { EXPECT_TRUE(lock.DestroyRWLock()); }
    TReadWriteLock lock;
};

TEST_F(RWLockTest, WaitingWriterGoesBeforeNewReaders) {
    std::atomic<bool> writing{false}, finish{false};
    EXPECT_FALSE(lock.ReleaseReadLock() || lock.ReleaseWriteLock()) << "nothing to release";
    ASSERT_TRUE(lock.WaitForRead() && lock.WaitForRead()) << "readers run together";
    Runner writer([&] {
        WriteLock hold(lock);
        for (writing = true; !finish;)
            std::this_thread::yield();
    });
    EXPECT_TRUE(writer.blocks());
    Runner reader([&] { ReadLock hold(lock); });
    EXPECT_TRUE(reader.blocks());
    lock.ReleaseReadLock();
    EXPECT_TRUE(writer.blocks()) << "one reader is left";
    lock.ReleaseReadLock();
    while (!writing)
        MilliSleep(1);
    EXPECT_TRUE(reader.blocks());
    finish = true;
}

// Sleeps until it is told to stop.
struct SleepingThread : TThread {
    std::uint32_t Process() override { return Sleep(0xFFFFFFFFu), 0; }
};

TEST(ThreadTest, StopRequestEndsASleepAndIsForgottenWithTheThread) {
    SleepingThread thread;
    EXPECT_EQ(thread.WaitForThread(kPlenty), 0) << "never started";
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(thread.StartNewThread(nullptr, nullptr), 0);
        EXPECT_EQ(thread.WaitForThread(0), TEvent::kTimedOut);
        thread.DestroyThread();
        EXPECT_EQ(thread.StartNewThread(nullptr, nullptr), -7) << "forgotten, but still running";
        thread.RequestStop();
        EXPECT_EQ(thread.WaitForThread(kPlenty), 0);
        thread.DestroyThread();
    }
}

// Each of its three calls takes 20 ms; it notes its sleeps in place of sleeping.
struct SleepRecorder : TPeriodicThread {
    explicit SleepRecorder(std::uint32_t intervalMs) : TPeriodicThread(intervalMs, call, this) {}
    static bool call(void* self) { return MilliSleep(20), ++static_cast<SleepRecorder*>(self)->calls == 3; }
    void Sleep(std::uint32_t ms) override { sleeps.push_back(ms); }
    std::vector<std::uint32_t> sleeps;
    int calls = 0;
};

TEST(PeriodicThreadTest, SleepsForTheRestOfTheIntervalIfAny) {
    SleepRecorder seldom(kPlenty), often(10);
    EXPECT_EQ(seldom.Process() + often.Process(), 0u);
    EXPECT_EQ(seldom.calls + often.calls, 6);
    ASSERT_EQ(seldom.sleeps.size(), 2u);
    EXPECT_TRUE(seldom.sleeps[0] <= kPlenty - 19 && seldom.sleeps[1] <= kPlenty - 19);
    EXPECT_TRUE(often.sleeps.empty());
}

TEST(TimeTest, MillisecondsBorrowAndWrap) {
    EXPECT_EQ(millisecondsBetween({10, 900000}, {12, 100999}), 1200u);
    EXPECT_EQ(millisecondsBetween({0, 0}, {4294967, 296000}), 0u);
    EXPECT_EQ(millisecondsBetween({10, 0}, {9, 999000}), 4294967295u);
}

TEST(OSFileTest, LockIsWaitedForThroughSignals) {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // no SA_RESTART: calls end with EINTR
    sigaction(SIGUSR1, &action, nullptr);
    const support::TempDir dir;
    const int fd = open((dir / "file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_TRUE(LockOSFile(fd, true));
    const pid_t child = startChild([fd] {
        struct stat status;
        return LockOSFile(fd, false) && GetFileStatusInfo(nullptr, fd, status) == 0 && status.st_size == 1;
    });
    for (int i = 0; i < 100; ++i)
        kill(child, SIGUSR1), MilliSleep(1);
    EXPECT_TRUE(ChangeOSFileSize(fd, 1) && UnLockOSFile(fd));
    EXPECT_EQ(resultOf(child), 1);
    close(fd);
    EXPECT_FALSE(ChangeOSFileSize(fd, 0) || LockOSFile(fd, true) || UnLockOSFile(fd));
}

TEST(OSFileTest, WritesAllPartsToAFullNonBlockingPipe) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    std::string head = "head", body(300000, 'b'), got;
    iovec parts[] = {{head.data(), 4}, {nullptr, 0}, {body.data(), body.size()}};
    {
        const Runner reader([&] {
            char block[7000];
            for (ssize_t n; (n = read(ends[0], block, sizeof block)) != 0;)
                n > 0 ? void(got.append(block, static_cast<std::size_t>(n))) : void(MilliSleep(1));
        });
        EXPECT_TRUE(WriteOSFile(ends[1], parts, 3));
        close(ends[1]);
    }
    EXPECT_TRUE(got == head + body);
    close(ends[0]);
    parts[0] = {head.data(), 4};
    EXPECT_FALSE(WriteOSFile(ends[1], parts, 1));
}

}  // namespace
