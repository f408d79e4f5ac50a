// Locks, events, threads, time and file locks, between real threads and real processes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>
#include <vector>

#include "platform/UThread.h"
#include "platform/eventobj_impl.h"
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

int tryLockElsewhere(Mutex& mutex) {
    int result = -1;
    std::thread([&] { result = mutex.TryLock() || mutex.UnLock(); }).join();
    return result;
}

TEST(MutexTest, PrivateMutexNeedsAnUnlockForEachLock) {
    Mutex mutex(Mutex::kPrivate);
    EXPECT_EQ(mutex.Lock() + mutex.Lock() + mutex.UnLock(), 0);
    EXPECT_EQ(tryLockElsewhere(mutex), 1);
    EXPECT_EQ(mutex.UnLock(), 0);
    EXPECT_EQ(tryLockElsewhere(mutex), 0);
    mutex.DestroyMutex();
    EXPECT_EQ(mutex.Lock() + mutex.TryLock() + mutex.UnLock() + mutex.Destroy(), 4) << "there is none";
    EXPECT_TRUE(mutex.CreateMutex(Mutex::kPrivate));
    EXPECT_FALSE(mutex.CreateMutex(Mutex::kShared));
    mutex.DestroyMutex();
}

TEST(MutexTest, SharedMutexIsOneForParentAndChild) {
    Mutex mutex(7);
    EXPECT_EQ(mutex.Lock(), 0);
    EXPECT_EQ(mutex.TryLock(), 1) << "a shared mutex is not recursive";
    EXPECT_EQ(resultOf(startChild([&] { return mutex.TryLock(); })), 1);
    mutex.UnLock();
    EXPECT_EQ(resultOf(startChild([&] { return mutex.TryLock(); })), 0);
    EXPECT_EQ(mutex.TryLock(), 1) << "the child took it";
    mutex.Release();
}

TEST(MutexTest, SharedMutexWithoutADescriptorThrowsOne) {
    const pid_t child = startChild([] {
        const rlimit none{0, 0};
        setrlimit(RLIMIT_NOFILE, &none);
        try {
            return Mutex(Mutex::kShared).Lock();
        } catch (int thrown) {
            return 100 + thrown;
        }
    });
    EXPECT_EQ(resultOf(child), 101);
}

TEST(EventTest, SignalReleasesOneWaiterOrWithManualResetAll) {
    for (const bool manualReset : {false, true}) {
        TEvent event(manualReset, false);
        event.CreateEvent();
        std::atomic<int> released{0};
        const auto wait = [&] { released += event.WaitForEvent(kPlenty) == TEvent::kSignalled; };
        {
            Runner first(wait), second(wait);
            EXPECT_TRUE(first.blocks() && second.blocks());
            EXPECT_TRUE(event.SetEvent());
            while (released == 0)
                MilliSleep(1);
            EXPECT_EQ(first.blocks() + second.blocks(), manualReset ? 0 : 1);
            EXPECT_EQ(event.WaitForEvent(0), manualReset ? TEvent::kSignalled : TEvent::kTimedOut);
            event.SetEvent();
        }
        EXPECT_EQ(released, 2);
        EXPECT_TRUE(event.ResetEvent());
        EXPECT_EQ(event.WaitForEvent(0), TEvent::kTimedOut);
        event.DestroyEvent();
    }
}

TEST(EventTest, EachLifeBeginsInTheInitialState) {
    TEvent event(false, true);
    for (int life = 0; life < 2; ++life) {
        EXPECT_EQ(event.WaitForEvent(0), TEvent::kFailed);
        EXPECT_FALSE(event.SetEvent() || event.ResetEvent());
        EXPECT_TRUE(event.CreateEvent());
        EXPECT_FALSE(event.CreateEvent());
        EXPECT_EQ(event.WaitForEvent(TEvent::kNoLimit), TEvent::kSignalled);
        EXPECT_EQ(event.WaitForEvent(20), TEvent::kTimedOut);
        EXPECT_TRUE(event.DestroyEvent());
    }
}

TEST(EventTest, AbsoluteTimeIsNowPlusMilliseconds) {
    const auto nanoseconds = [](std::uint32_t ms) {
        timespec time;
        GetAbsoluteTime(ms, time);
        EXPECT_LT(time.tv_nsec, 1000000000);
        return std::int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
    };
    for (const std::uint32_t ms : {1u, 999u, 1000u, 0xFFFFFFFFu}) {
        const std::int64_t before = nanoseconds(0);
        const std::int64_t start = nanoseconds(ms) - std::int64_t{ms} * 1000000;
        EXPECT_TRUE(before <= start && start <= nanoseconds(0)) << ms;
    }
}

class RWLockTest : public testing::Test {
  protected:
    void SetUp() override { ASSERT_TRUE(lock.CreateRWLock()); }
    void TearDown() override { EXPECT_TRUE(lock.DestroyRWLock()); }
    TReadWriteLock lock;
};

TEST_F(RWLockTest, WaitingWriterGoesBeforeNewReaders) {
    std::atomic<bool> writing{false}, reading{false}, finish{false};
    ASSERT_TRUE(lock.WaitForRead());
    ASSERT_TRUE(lock.WaitForRead()) << "readers run together";
    Runner writer([&] {
        WriteLock hold(lock);
        for (writing = true; !finish;)
            std::this_thread::yield();
    });
    EXPECT_TRUE(writer.blocks());
    Runner reader([&] {
        ReadLock hold(lock);
        reading = true;
    });
    EXPECT_TRUE(reader.blocks());
    lock.ReleaseReadLock();
    EXPECT_TRUE(writer.blocks()) << "one reader is left";
    lock.ReleaseReadLock();
    while (!writing)
        MilliSleep(1);
    EXPECT_TRUE(reader.blocks());
    EXPECT_FALSE(reading);
    finish = true;
}

TEST_F(RWLockTest, ReadersSeeWhatWritersFinished) {
    int first = 0, second = 0;
    const auto write = [&] {
        for (int round = 0; round < 2000; ++round) {
            WriteLock hold(lock);
            ++first, ++second;
        }
    };
    const auto read = [&] {
        for (int round = 0; round < 2000; ++round) {
            ReadLock hold(lock);
            ASSERT_EQ(first, second);
        }
    };
    { Runner threads[] = {Runner(write), Runner(read), Runner(write), Runner(read)}; }
    EXPECT_EQ(first, 4000);
}

TEST_F(RWLockTest, LivesAgainAfterItsEnd) {
    EXPECT_FALSE(lock.CreateRWLock());
    EXPECT_FALSE(lock.ReleaseReadLock() || lock.ReleaseWriteLock()) << "nothing to release";
    EXPECT_TRUE(lock.WaitForRead());
    lock.DestroyRWLock();
    EXPECT_FALSE(ReadLock(lock) || WriteLock(lock)) << "it is not there";
    EXPECT_TRUE(lock.CreateRWLock());
    EXPECT_TRUE(static_cast<bool>(WriteLock(lock))) << "the reader of the former life is forgotten";
    EXPECT_FALSE(lock.ReleaseReadLock() || lock.ReleaseWriteLock()) << "the holder released it";
}

// Sleeps until it is told to stop.
struct SleepingThread : TThread {
    std::uint32_t Process() override { return Sleep(0xFFFFFFFFu), 0; }
    ~SleepingThread() override { RequestStop(), WaitForThread(kPlenty); }
};

TEST(ThreadTest, RunsTheProcedureOnceForEachStart) {
    std::atomic<int> runs{0};
    const auto start = [&runs](TThread& thread) {
        return thread.StartNewThread(
            [](void* arg) -> std::uint32_t { return ++*static_cast<std::atomic<int>*>(arg), 0; }, &runs);
    };
    TThread thread;
    EXPECT_EQ(thread.WaitForThread(kPlenty), 0) << "never started";
    for (int round = 1; round <= 2; ++round) {
        EXPECT_EQ(start(thread), 0);
        EXPECT_EQ(thread.WaitForThread(kPlenty), 0);
        EXPECT_EQ(runs, round);
        EXPECT_EQ(start(thread), -7) << "ended, but not forgotten";
        thread.DestroyThread();
    }
}

TEST(ThreadTest, StopRequestEndsASleepAndIsForgottenWithTheThread) {
    TEvent stop(true, false);
    stop.CreateEvent();
    for (TEvent* event : {static_cast<TEvent*>(nullptr), &stop}) {
        SleepingThread thread;
        thread.SetStopEvent(event);
        ASSERT_EQ(thread.StartNewThread(nullptr, nullptr), 0);
        EXPECT_EQ(thread.WaitForThread(0), TEvent::kTimedOut);
        thread.DestroyThread();
        EXPECT_EQ(thread.StartNewThread(nullptr, nullptr), -7) << "forgotten, but still running";
        event != nullptr ? static_cast<void>(event->SetEvent()) : thread.RequestStop();
        thread.DestroyThread();
        EXPECT_EQ(thread.WaitForThread(kPlenty), 0) << "the request holds until the thread has ended";
        thread.DestroyThread();
        EXPECT_EQ(thread.IsStopRequested(), event != nullptr);
    }
    stop.DestroyEvent();
}

TEST(ThreadTest, ThreadThatCannotBeMadeCountsAsEnded) {
    pthread_attr_t ordinary, huge;
    pthread_getattr_default_np(&ordinary);
    pthread_getattr_default_np(&huge);
    pthread_attr_setstacksize(&huge, SIZE_MAX / 4);
    pthread_setattr_default_np(&huge);
    TThread thread;
    EXPECT_EQ(thread.StartNewThread(nullptr, nullptr), -19);
    pthread_setattr_default_np(&ordinary);
    EXPECT_EQ(thread.WaitForThread(0), 0);
    EXPECT_EQ(thread.StartNewThread(nullptr, nullptr), 0);
    EXPECT_EQ(thread.WaitForThread(kPlenty), 0);
}

TEST(ThreadTest, YieldsAtMostOnceInTheInterval) {
    struct : TThread {
        void DoYield(pthread_t other) override { yields.push_back(other); }
        std::vector<pthread_t> yields;
    } yielder;
    MilliSleep(2);  // past tick 0, which stands for never
    yielder.SetYieldInterval(0xFFFFFFFFu);
    yielder.YieldTo(nullptr);
    yielder.YieldTo(nullptr);
    yielder.SetYieldInterval(0);
    yielder.YieldTo(nullptr);
    EXPECT_EQ(yielder.yields, (std::vector<pthread_t>{0, 0}));
}

// Each of its three calls takes 20 ms; it notes its sleeps in place of sleeping.
struct SleepRecorder : TPeriodicThread {
    explicit SleepRecorder(std::uint32_t intervalMs) : TPeriodicThread(intervalMs, call, this) {}
    static bool call(void* self) {
        MilliSleep(20);
        return ++static_cast<SleepRecorder*>(self)->calls == 3;
    }
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
    EXPECT_EQ(TPeriodicThread().Process(), 0xFFFFFFFFu) << "nothing to call";
}

TEST(PeriodicThreadTest, StopRequestEndsItBeforeTheNextCall) {
    SleepRecorder thread(0);
    const auto call = [](void* self) {
        static_cast<SleepRecorder*>(self)->RequestStop();
        return ++static_cast<SleepRecorder*>(self)->calls == 0;
    };
    thread.SetCallback(0, call, &thread);
    EXPECT_EQ(thread.StartNewThread(nullptr, nullptr), 0);
    EXPECT_EQ(thread.WaitForThread(kPlenty), 0);
    EXPECT_EQ(thread.calls, 1);
}

TEST(TimeTest, MillisecondsBorrowAndWrap) {
    EXPECT_EQ(millisecondsBetween({10, 0}, {10, 999}), 0u);
    EXPECT_EQ(millisecondsBetween({10, 500000}, {12, 700999}), 2200u);
    EXPECT_EQ(millisecondsBetween({10, 900000}, {12, 100000}), 1200u);
    EXPECT_EQ(millisecondsBetween({0, 0}, {4294967, 295000}), 4294967295u);
    EXPECT_EQ(millisecondsBetween({0, 0}, {4294967, 296000}), 0u);
    EXPECT_EQ(millisecondsBetween({10, 0}, {9, 999000}), 4294967295u);
}

void expectSignal(int number) {
    struct sigaction action {};
    action.sa_handler = [](int) {};  // no SA_RESTART: calls end with EINTR
    sigaction(number, &action, nullptr);
}

TEST(TimeTest, SignalDoesNotShortenASleep) {
    expectSignal(SIGALRM);
    const std::uint32_t tick = GetTickCountEx();
    const auto start = std::chrono::steady_clock::now();
    ualarm(7000, 7000);
    EXPECT_EQ(MilliSleep(100), 0);
    ualarm(0, 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(95));
    EXPECT_GE(GetTickCountEx() - tick, 95u);
}

class OSFileTest : public testing::Test {
  protected:
    void TearDown() override { close(fd); }

    // Whether another process could have that lock, on bytes far behind the end of the file.
    bool othersCanLock(short type) const {
        struct flock lock {};
        lock.l_type = type;
        lock.l_start = 1000000;
        return resultOf(startChild([&] { return fcntl(fd, F_SETLK, &lock) + 1; })) == 1;
    }

    support::TempDir dir;
    const int fd = open((dir / "file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
};

TEST_F(OSFileTest, LocksExcludeOtherProcesses) {
    EXPECT_TRUE(LockOSFile(fd, true));
    EXPECT_FALSE(othersCanLock(F_RDLCK));
    EXPECT_TRUE(LockOSFile(fd, false));
    EXPECT_TRUE(othersCanLock(F_RDLCK));
    EXPECT_FALSE(othersCanLock(F_WRLCK));
    EXPECT_TRUE(UnLockOSFile(fd));
    EXPECT_TRUE(othersCanLock(F_WRLCK));
}

TEST_F(OSFileTest, LockIsWaitedForThroughSignals) {
    expectSignal(SIGUSR1);
    EXPECT_TRUE(LockOSFile(fd, true));
    const pid_t child = startChild([this] {
        struct stat status;
        return LockOSFile(fd, true) && GetFileStatusInfo(nullptr, fd, status) == 0 && status.st_size == 1;
    });
    for (int i = 0; i < 100; ++i)
        kill(child, SIGUSR1), MilliSleep(1);
    EXPECT_TRUE(ChangeOSFileSize(fd, 1));
    EXPECT_TRUE(UnLockOSFile(fd));
    EXPECT_EQ(resultOf(child), 1);
}

TEST_F(OSFileTest, SizeIsSetAndReported) {
    struct stat status;
    for (const std::uint32_t size : {5u, 0xFFFFFFFFu, 0u}) {
        EXPECT_TRUE(ChangeOSFileSize(fd, size));
        EXPECT_EQ(GetFileStatusInfo("no such name", fd, status), 0);
        EXPECT_EQ(status.st_size, off_t{size});
    }
    EXPECT_EQ(GetFileStatusInfo("no such name", -1, status), -1);
    EXPECT_FALSE(ChangeOSFileSize(-1, 0) || LockOSFile(-1, true) || UnLockOSFile(-1));
    EXPECT_EQ(errno, EBADF);
}

}  // namespace
