// Hand-over objects: Semaphore, SemaphoreManual and ThreadedDeque.
#include "vk_semaphore.h"

#include "threaded_deque.h"

#include <array>
#include <atomic>
#include <climits>
#include <csignal>
#include <thread>

#include <gtest/gtest.h>
#include <pthread.h>

namespace {

TEST(Semaphore, PassesNeitherForASignalNorTwiceForOneNotify) {
    static std::atomic<int> signals;
    signals = 0;
    struct sigaction action = {}, previous = {};
    action.sa_handler = [](int) { signals++; };  // without SA_RESTART, so that sem_wait returns EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);

    Semaphore semaphore;
    for (int i = 0; i < 3; i++) semaphore.Notify();
    for (int i = 0; i < 3; i++) semaphore.Wait();
    std::atomic<bool> passed = false;
    std::thread waiter([&] {
        semaphore.Wait();
        passed = true;
    });
    for (int i = 1; i <= 50; i++) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        while (signals < i) std::this_thread::yield();
    }
    EXPECT_FALSE(passed);
    semaphore.Notify();
    waiter.join();
    sigaction(SIGUSR1, &previous, nullptr);
}

TEST(Semaphore, DropsPostsAtItsLimit) {
    Semaphore semaphore(SEM_VALUE_MAX);
    semaphore.Notify();
    semaphore.Wait();
    semaphore.Notify();
    semaphore.Notify();
    semaphore.Wait();
}

TEST(SemaphoreManual, HoldsForAllWaitersUntilReset) {
    SemaphoreManual event;
    Semaphore started;
    std::atomic<int> passed = 0;
    const auto wait = [&] {
        started.Notify();
        event.Wait();
        passed++;
    };
    std::array<std::thread, 3> waiters = {std::thread(wait), std::thread(wait), std::thread(wait)};
    for (std::size_t i = 0; i < waiters.size(); i++) started.Wait();
    EXPECT_EQ(passed, 0);
    event.Notify();
    event.Notify();
    for (std::thread& waiter : waiters) waiter.join();
    EXPECT_EQ(passed, 3);
    event.Wait();  // still set

    event.Reset();
    std::thread late(wait);
    started.Wait();
    EXPECT_EQ(passed, 3);
    event.Notify();
    late.join();
    EXPECT_EQ(passed, 4);
}

TEST(ThreadedDeque, FrontStaysValidWhileTheFarEndGrows) {
    constexpr int COUNT = 2000;
    ThreadedDeque<int, COUNT> deque;
    deque.push_back(-1);
    deque.pop_front();  // so that the ring turns over
    deque.push_back(0);
    int& front = deque.front();
    std::thread producer([&] {
        for (int i = 1; i < COUNT; i++) deque.push_back(i);
    });
    for (int i = 0; i < COUNT; i++) front++;
    producer.join();
    EXPECT_EQ(deque.front(), COUNT);
    deque.pop_front();
    for (int i = 1; i < COUNT; i++) {
        ASSERT_EQ(deque.front(), i);
        deque.pop_front();
    }
}

TEST(ThreadedDequeDeathTest, EmptyDequeHasNoFrontAndAFullOneNoRoom) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    ThreadedDeque<int, 1> deque;
    EXPECT_DEATH(deque.front(), "count > 0");
    EXPECT_DEATH(deque.pop_front(), "count > 0");
    deque.push_back(1);
    EXPECT_DEATH(deque.push_back(2), "count < CAPACITY");
}

}  // namespace
