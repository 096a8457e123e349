#include "text/Polisher.h"

#include <QCoro/QCoroTask>
#include <gtest/gtest.h>

using vocari::Polisher;

TEST(PolisherFillers, RemovesHesitationsAndCapitalisesAWordThatNowStartsASentence)
{
    EXPECT_EQ(Polisher::applyRules("Um, so I think, uh, we should go"), "So I think we should go");
    EXPECT_EQ(Polisher::applyRules("It was good. Erm... the next one"),
              "It was good. The next one");
    EXPECT_EQ(Polisher::applyRules("Yes, hmm, fine"), "Yes fine");
    EXPECT_EQ(Polisher::applyRules("Stop! uh wait? umm, what"), "Stop! Wait? What");
    // After an ellipsis the sentence goes on.
    EXPECT_EQ(Polisher::applyRules("Well... um, okay"), "Well... okay");
    // Stretched and upper-case forms, "euh", and the ellipsis character after a filler.
    EXPECT_EQ(Polisher::applyRules("so UMMM the uhhh errm plan hmmm euh… is set"),
              "so the plan is set");
    EXPECT_EQ(Polisher::applyRules("Hmm... okay"), "Okay");
    // Only whole words are fillers.
    EXPECT_EQ(Polisher::applyRules("the umbrella and the drum hum"),
              "the umbrella and the drum hum");
    // Only the first letter of the following word changes case.
    EXPECT_EQ(Polisher::applyRules("Uh, été was hot"), "Été was hot");
    EXPECT_EQ(Polisher::applyRules("Done.\nuh next"), "Done. Next");
}

TEST(PolisherRepeatedWords, CollapsesStuttersButKeepsMeaningfulDoubles)
{
    EXPECT_EQ(Polisher::applyRules("the the plan"), "the plan");
    EXPECT_EQ(Polisher::applyRules("go go go"), "go go");
    EXPECT_EQ(Polisher::applyRules("I I I I said"), "I I said");
    EXPECT_EQ(Polisher::applyRules("the\n the theory"), "the theory");
    EXPECT_EQ(Polisher::applyRules("Été été chaud"), "Été chaud");
    // An accent typed as a combining mark belongs to its word: "ou où" is no stutter.
    EXPECT_EQ(Polisher::applyRules("ou ou\u0300 bien"), "ou ou\u0300 bien");

    for (const char *kept : {"nous nous", "very very", "Bye bye", "ha ha", "that that works"})
        EXPECT_EQ(Polisher::applyRules(kept), kept);
}

TEST(PolisherPunctuation, RepairsSpacingAndDoubledPeriods)
{
    EXPECT_EQ(Polisher::applyRules("Really ?"), "Really?");
    EXPECT_EQ(Polisher::applyRules("Done.."), "Done.");
    EXPECT_EQ(Polisher::applyRules("Wait..."), "Wait...");
    EXPECT_EQ(Polisher::applyRules("Why?."), "Why?");
    EXPECT_EQ(Polisher::applyRules("Yes !."), "Yes!");
    EXPECT_EQ(Polisher::applyRules("one , two ; three :"), "one, two; three:");
    EXPECT_EQ(Polisher::applyRules("  a   b\t\tc\u00a0\u00a0d \n"), "a b c d");
    EXPECT_EQ(Polisher::applyRules("line\nbreak"), "line\nbreak");
    const QString invalid = QString(QChar(0xDC00)) + " the the";
    EXPECT_EQ(Polisher::applyRules(invalid), invalid);
}

TEST(Polisher, PolishReturnsTheRulesTextWithoutALanguageModel)
{
    Polisher polisher;
    EXPECT_EQ(QCoro::waitFor(polisher.polish("um the the plan ?")), "The plan?");
    const QString longText =
        QStringLiteral("so uh we we will meet on monday and then , erm, talk about the budget");
    EXPECT_EQ(QCoro::waitFor(polisher.polish(longText)),
              "so we will meet on monday and then talk about the budget");
}
