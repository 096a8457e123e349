#include "engines/TextAccumulator.h"

#include <gtest/gtest.h>
#include <thread>

using vocari::TextAccumulator;

TEST(TextAccumulator, VolatileResultsReplaceEachOtherAndFinalOnesAccumulate)
{
    TextAccumulator text;
    EXPECT_EQ(text.apply("hel", false), "hel");
    EXPECT_EQ(text.apply("hello", false), "hello");
    EXPECT_EQ(text.apply("hello world", true), "hello world ");
    EXPECT_EQ(text.snapshot().volatileText, "");
    EXPECT_EQ(text.apply("again", false), "hello world again");
    EXPECT_EQ(text.apply("", true), "hello world  ");
    EXPECT_EQ(text.snapshot().finalText, "hello world  ");
}

TEST(TextAccumulator, ConcurrentApplyKeepsEveryFinalResult)
{
    TextAccumulator text;
    std::thread a([&] {
        for (int i = 0; i < 1000; ++i)
            text.apply("a", true);
    });
    std::thread b([&] {
        for (int i = 0; i < 1000; ++i)
            text.apply("b", i % 2 == 0);
    });
    a.join();
    b.join();
    EXPECT_EQ(text.snapshot().finalText.size(), (1000 + 500) * 2);
}
