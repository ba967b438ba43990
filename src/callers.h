// Callers, the order among the threads that call one device at the same time. TqDevice has one, and each of its members
// that touches engine or endpoints takes a place in it. Three kinds of callers:
//
//   Turn    uses the endpoints or waits for data: a data call, a command. One at a time, in the order of arrival, so
//           that a display loop does not go back in over and over past the thread that wants to stop it.
//   Guest   only looks at the engine, or waits for a sweep that is under way already. Any number, beside a turn.
//   Ending  takes the engine away or puts another one in its place. Alone: it sends home whoever waits for data, and
//           returns from its constructor when the last of the others has left.
//
// All three are atomics without a lock: 5 ns where nobody waits. None of them nests in another one of the same thread.
#pragma once

#include <atomic>
#include <utility>

#include "vk_critical_section.h"

class Callers {
public:
    class Turn {
    public:
        explicit Turn(Callers& all) : callers(all) { callers.turns.Enter(); }
        ~Turn() { callers.turns.Leave(); }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

    private:
        Callers& callers;
    };

    // A turn for who would rather do without than wait: false when somebody has it.
    class TurnIfFree {
    public:
        explicit TurnIfFree(Callers& all) : callers(all), got(all.turns.TryEnter()) {}
        ~TurnIfFree() {
            if (got) callers.turns.Leave();
        }
        TurnIfFree(const TurnIfFree&) = delete;
        TurnIfFree& operator=(const TurnIfFree&) = delete;
        explicit operator bool() const { return got; }

    private:
        Callers& callers;
        const bool got;
    };

    // False, and no guest, when an ending is under way.
    class Guest {
    public:
        explicit Guest(Callers& all) : callers(all) {
            callers.guests.fetch_add(1);
            welcome = !callers.AreBeingEnded();
        }
        ~Guest() {
            if (callers.guests.fetch_sub(1) == 1) callers.guests.notify_all();
        }
        Guest(const Guest&) = delete;
        Guest& operator=(const Guest&) = delete;
        explicit operator bool() const { return welcome; }

    private:
        Callers& callers;
        bool welcome;
    };

    class Ending {
    public:
        // Blocks until all others have left.
        //   sendHome()  called when no other ending is under way: makes the engine let go of those who wait inside.
        //               Who comes later must see AreBeingEnded and not wait.
        template <class SendHome>
        Ending(Callers& all, SendHome&& sendHome) : callers(all) {
            callers.endings.fetch_add(1);
            callers.enders.Enter();
            std::forward<SendHome>(sendHome)();
            callers.turns.Enter();
            for (int left; (left = callers.guests.load()) != 0;) callers.guests.wait(left);
        }
        ~Ending() {
            callers.endings.fetch_sub(1);
            callers.turns.Leave();
            callers.enders.Leave();
        }
        Ending(const Ending&) = delete;
        Ending& operator=(const Ending&) = delete;

    private:
        Callers& callers;
    };

    // Whether an ending is under way or waits: who has got a turn leaves at once, with tqInvalidConfigurationErr.
    bool AreBeingEnded() const { return endings.load() != 0; }

private:
    std::atomic<int> endings = 0;  // under way or waiting
    std::atomic<int> guests = 0;
    FairSection turns;
    FairSection enders;
};
