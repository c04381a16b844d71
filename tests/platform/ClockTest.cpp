// Timers of a clock and the credit bucket of the review timer, with the time moved by hand.
#include "Olm/ReviewTimer.h"
#include "TestRecords.h"

#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <stdexcept>

namespace Nex {
namespace {

struct Timer : Listener<Clock::Notifiee> {
    Timer(Ptr<Clock> clock, char name, String& told)
        : Listener(std::move(clock)), label(name), fired(told) {}
    void onTime() override {
        EXPECT_EQ(timeMin(), never) << "disarmed before its callback";
        fired += label;
        if (act) act();
    }
    char const label;
    String& fired;
    std::function<void()> act;
};

class ClockTest : public testing::Test {
  protected:
    Ptr<Timer> newTimer(char label) { return newObject<Timer>(clock, label, fired); }
    String at(double now) {
        fired.clear();
        clock->timeIs(now);
        return fired;
    }

    Ptr<Clock> clock = Clock::ClockIs();
    String fired;
    Ptr<Timer> a = newTimer('a'), b = newTimer('b'), c = newTimer('c');
};

TEST_F(ClockTest, FireInTheOrderOfTheirTimesAndEqualTimesInTheOrderOfArming) {
    a->timeMinIs(3);
    c->timeMinIs(2);
    b->timeMinIs(2);
    EXPECT_EQ(clock->nextExpiry(), 2);
    EXPECT_EQ(at(1.999), "");
    EXPECT_EQ(at(3), "cba");
    EXPECT_EQ(at(3), "");
    EXPECT_EQ(clock->nextExpiry(), never);
    a->timeMinIs(4);
    b->timeMinIs(4);
    EXPECT_THROW(b->timeMinIs(std::nan("")), RangeException) << "and stays armed";
    a->timeMinIs(4); // arming again is a new arming
    a->act = [&] { a->timeMinIs(0); };
    EXPECT_EQ(at(4), "ba");
    EXPECT_EQ(at(4), "a") << "not in the same turn, though its time has passed";
}

TEST_F(ClockTest, NeighbourMaySilenceDisarmRearmOrDropAnotherBeforeItsTurn) {
    std::vector<std::function<void()>> const ways{
        [&] { b->timeMinIs(never); }, [&] { b->timeMinIs(2); },
        [&] { b->zombieIs(true); },   [&] { b->hasNotificationActiveIs(false); },
        [&] { b->nexRetire(); },      [&] { b->notifierIs(nullptr); },
        [&] { b = nullptr; }};
    for (auto const& way : ways) {
        b = newTimer('b');
        a->timeMinIs(1);
        b->timeMinIs(2);
        c->timeMinIs(3);
        a->act = way;
        EXPECT_EQ(at(3), "ac");
    }
    c->timeMinIs(4);
    c->nexRetire();
    EXPECT_EQ(clock->nextExpiry(), never);
}

TEST_F(ClockTest, TimerThatThrowsAndIsDroppedLivesUntilThenAndTheOthersKeepTheirTurn) {
    Destructions destructions;
    Timer const* const raw = a.get();
    for (Ptr<Timer> const& each : {a, b, c}) each->timeMinIs(1);
    a->act = [&] {
        a = nullptr;
        EXPECT_EQ(destructions.count(raw), 0);
        throw std::runtime_error("timer");
    };
    EXPECT_THROW(at(1), std::runtime_error);
    EXPECT_EQ(fired, "a");
    EXPECT_EQ(destructions.count(raw), 1);
    b->act = [&] { clock->timeIs(1); }; // told from inside
    EXPECT_EQ(at(1), "bc");
}

/// Delays of 1 and 8 seconds, one credit in 16 seconds, two at most.
class ReviewTimerTest : public ClockTest {
  protected:
    static constexpr float minDelay = 1, maxDelay = 8, fillInterval = 16;

    Ptr<Olm::ReviewTimer> newReviewTimer() {
        return newObject<Olm::ReviewTimer>(a.get(), fillInterval, 2u, minDelay, maxDelay);
    }
    /// The delays of reviews that are asked for as "next" or as "now", or after so many seconds.
    String delays(String const& script) {
        String text;
        std::istringstream words(script);
        for (String word; words >> word;) {
            if (word == "now") {
                timer->doUpdateNextReviewImmediately();
            } else if (word == "next") {
                timer->doUpdateNextReview();
            } else {
                time.nowIs(time.now() + std::stod(word));
                continue;
            }
            EXPECT_TRUE(timer->reviewPending());
            double const wake = a->timeMin();
            text += textOf(wake - time.now()) + ' ';
            time.nowIs(wake);
            EXPECT_EQ(at(wake), "a");
            EXPECT_FALSE(timer->reviewPending());
        }
        return text;
    }

    ManualTime time{1000};
    Ptr<Olm::ReviewTimer> timer = newReviewTimer();
};

// Two credits at first: two short delays, then a long one.
TEST_F(ReviewTimerTest, DelaysGoByTheCreditsAndOneComesBackPerInterval) {
    EXPECT_EQ(delays("next next +13 next"), "1 1 8 ") << "an interval has not passed";
    EXPECT_EQ(delays("+1 next next"), "1 8 ") << "the part of a credit that was there is kept";
    EXPECT_EQ(delays("+1000 next next next"), "1 1 8 ") << "no more than the most";
    EXPECT_EQ(delays("now now now"), "1 1 1 ") << "without a credit";
    EXPECT_EQ(delays("+4 next"), "1 ") << "nothing was borrowed, and no part of a credit spent";
    EXPECT_EQ(delays("+16 now next"), "1 8 ") << "it has taken what came back meanwhile";
    EXPECT_EQ(delays("+1000 next -1000 next next"), "1 1 8 ") << "backwards nothing is taken away";
}

TEST_F(ReviewTimerTest, PacingIsReplacedAndCreditsAboveTheNewMostAreLost) {
    timer->pacingIs(fillInterval, 1, 2, 4);
    timer->pacingIs(fillInterval, 5, 2, 4);
    EXPECT_EQ(delays("next next"), "2 4 ") << "a higher most is no gift";
    timer = newReviewTimer();
    timer->pacingIs(0, 1, 2, 4);
    EXPECT_EQ(delays("next next next"), "2 2 2 ") << "without an interval always full";
}

} // namespace
} // namespace Nex
