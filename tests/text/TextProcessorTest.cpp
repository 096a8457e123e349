#include "text/TextProcessor.h"

#include "settings/Preferences.h"
#include "support/ScopedSettings.h"

#include <gtest/gtest.h>

using namespace vocari;

namespace {

QString applyRules(const QString &text, const QString &ruleText)
{
    return TextProcessor::apply(text, false, ruleText, false);
}

std::vector<std::pair<QString, QString>> parsed(QStringView ruleText)
{
    std::vector<std::pair<QString, QString>> out;
    for (const auto &rule : TextProcessor::rules(ruleText))
        out.emplace_back(rule.heard, rule.replacement);
    return out;
}

} // namespace

TEST(TextProcessorRules, ParsesSeparatorsTrimmingLineBreaksAndSkippedLines)
{
    const std::vector<std::pair<QString, QString>> expected{{"vo cari", "Vocari"}, {"a = b", "c"},
                                                            {"x", "y = z"},        {"p", "q = r"},
                                                            {"foo", ""},           {"(c)", "©"}};
    EXPECT_EQ(parsed(u"vo cari = Vocari\n"
                     u"a = b => c\n"  // "=>" anywhere is the only separator
                     u"x => y => z\n" // further separators stay as "="
                     u"p = q = r\n"
                     u"=foo\n\nno separator here\n  \t  => nothing heard\n"
                     u"foo =\n"                 // an empty replacement deletes
                     u"\t(c)\u00a0=  \u00a9 "), // tabs and no-break spaces trim
              expected);
    const std::vector<std::pair<QString, QString>> everyBreak{{"a", "1"}, {"b", "2"}, {"c", "3"},
                                                              {"d", "4"}, {"e", "5"}, {"f", "6"},
                                                              {"g", "7"}, {"h", "8"}};
    EXPECT_EQ(parsed(u"a = 1\r\nb = 2\rc = 3\u0085d = 4\u2028e = 5\u2029f = 6\vg = 7\fh = 8"),
              everyBreak);
    EXPECT_TRUE(TextProcessor::rules(u"\n\n   \n").empty());
}

TEST(TextProcessorApply, MatchesWholeWordsRegardlessOfCase)
{
    const QString rule = QStringLiteral("vo cari = Vocari");
    EXPECT_EQ(applyRules("I use VO CARI daily", rule), "I use Vocari daily");
    EXPECT_EQ(applyRules("avo cari", rule), "avo cari");
    EXPECT_EQ(applyRules("vo caring", rule), "vo caring");
    EXPECT_EQ(applyRules("vo cari, vo cari!", rule), "Vocari, Vocari!");
    // The replacement is inserted as written; the matched case is not carried over.
    EXPECT_EQ(applyRules("VOCARI", "vocari = vocari"), "vocari");
    // Numbers are word characters too.
    EXPECT_EQ(applyRules("2 or 42", "2 = two"), "two or 42");

    // A side that ends in punctuation or a symbol needs no boundary.
    const QString copyright = QStringLiteral("(c) = ©");
    EXPECT_EQ(applyRules("abc(c)d", copyright), "abc©d");
    EXPECT_EQ(applyRules("(C) 2024", copyright), "© 2024");
    EXPECT_EQ(applyRules("price: 5$", "$ = dollars"), "price: 5dollars");
}

TEST(TextProcessorApply, TreatsNonAsciiLettersAsLetters)
{
    const QString rule = QStringLiteral("café = coffee");
    EXPECT_EQ(applyRules("CAFÉ au lait", rule), "coffee au lait");
    EXPECT_EQ(applyRules("un café.", rule), "un coffee.");
    // "é" continues the word, so these are not whole-word matches.
    EXPECT_EQ(applyRules("cafés", rule), "cafés");
    EXPECT_EQ(applyRules("décafé", rule), "décafé");
    EXPECT_EQ(applyRules("Über alles", "über = over"), "over alles");

    // A combining mark belongs to its letter, whether the rule or the text is decomposed.
    const QString decomposed = QStringLiteral("cafe\u0301");
    for (const QString &heard : {decomposed, QStringLiteral("café")}) {
        const QString rule = heard + " = coffee";
        for (const QString &word : {decomposed, QStringLiteral("café")}) {
            EXPECT_EQ(applyRules(word + " " + word + "s", rule), "coffee " + word + "s");
            EXPECT_EQ(applyRules(word.toUpper() + "!", rule), "coffee!");
        }
    }
    EXPECT_EQ(applyRules(decomposed, "cafe = coffee"), decomposed);
    // Vowel signs and viramas continue an Indic word: "कम" is not a word inside "कमी" or
    // "कम्प", nor "பட" inside "படம்" or "படி".
    EXPECT_EQ(applyRules("कमी कम्प कम", "कम = less"), "कमी कम्प less");
    EXPECT_EQ(applyRules("படம் படி பட", "பட = x"), "படம் படி x");

    // Letters outside the Basic Multilingual Plane get their boundaries as well.
    const QString boldA = QString::fromUcs4(U"\U0001D400");
    const QString leading = boldA + "bc = x";
    EXPECT_EQ(applyRules(boldA + "bc y", leading), "x y");
    EXPECT_EQ(applyRules("z" + boldA + "bc", leading), "z" + boldA + "bc");
    const QString trailing = "ab" + boldA + " = x";
    EXPECT_EQ(applyRules("ab" + boldA + "z", trailing), "ab" + boldA + "z");
    EXPECT_EQ(applyRules("ab" + boldA, trailing), "x");
}

TEST(TextProcessorApply, InsertsReplacementsLiterallyAndChainsRulesInOrder)
{
    EXPECT_EQ(applyRules("say hi", "hi = $1 \\1 $0 & \\\\ \\n <\\0>"),
              "say $1 \\1 $0 & \\\\ \\n <\\0>");
    // Special characters in the heard text are literal as well.
    EXPECT_EQ(applyRules("a.c abc a*c", "a.c = dot\na*c = star"), "dot abc star");

    EXPECT_EQ(applyRules("a", "a = b\nb = c"), "c");
    EXPECT_EQ(applyRules("a", "b = c\na = b"), "b");
    EXPECT_EQ(applyRules("a b a", "a = b\nb = a"), "a a a");

    // A deleting rule can leave a leading space; the result is not trimmed again.
    EXPECT_EQ(applyRules("  um hello  ", "um ="), " hello");
    EXPECT_EQ(TextProcessor::apply("um hello", true, u"um =", true), " hello");
    // Without rules the text is only trimmed, line breaks included.
    EXPECT_EQ(applyRules("\n\t hello \u2029", ""), "hello");
}

TEST(TextProcessorApply, CapitalisesTheFirstCharacterOnlyWhenBothFlagsAllowIt)
{
    EXPECT_EQ(TextProcessor::apply("  hello World ", true, u"", true), "Hello World");
    EXPECT_EQ(TextProcessor::apply("hello", false, u"", true), "hello");
    EXPECT_EQ(TextProcessor::apply("hello", true, u"", false), "hello");
    EXPECT_EQ(TextProcessor::apply("   ", true, u"", true), "");
    EXPECT_EQ(TextProcessor::apply("vocari rocks", true, u"vocari = vOcari", true), "VOcari rocks");
    // The upper-case form may be longer, and a character may be several code points.
    EXPECT_EQ(TextProcessor::apply("ßtraße", true, u"", true), "SStraße");
    EXPECT_EQ(TextProcessor::apply(QStringLiteral("e\u0301cole"), true, u"", true),
              QStringLiteral("E\u0301cole"));
    EXPECT_EQ(TextProcessor::apply(QString::fromUcs4(U"\U00010428x"), true, u"", true),
              QString::fromUcs4(U"\U00010400x"));
    EXPECT_EQ(TextProcessor::upperCaseCharacterAt("one two", 4), "one Two");
    EXPECT_EQ(TextProcessor::upperCaseCharacterAt("one", 3), "one");
}

TEST(TextProcessorApply, SkipsRulesThatCannotBeCompiledAndKeepsTheRest)
{
    // A lone surrogate is not valid text, so its pattern does not compile.
    const QString broken = QString(QChar(0xD800)) + "x = y\nhello = hi";
    EXPECT_EQ(applyRules("hello there", broken), "hi there");
    // Text that is not valid UTF-16 cannot be searched; it passes through whole.
    const QString invalid = QString(QChar(0xDC00)) + " hello";
    EXPECT_EQ(TextProcessor::apply(invalid, true, broken, true), invalid);
}

TEST(TextProcessorApply, ReadsRulesAndCapitalisationFromTheSettingsOnEveryCall)
{
    test::ScopedSettings settings;
    EXPECT_EQ(TextProcessor::apply(" vo cari ", true), "vo cari");

    settings.store().setValue(SettingsKey::replacements,
                              QStringLiteral("vo cari = Vocari\r\ncube => Kubernetes\r\n"));
    EXPECT_EQ(TextProcessor::apply("vo cari on a cube", true), "Vocari on a Kubernetes");

    settings.store().setValue(SettingsKey::replacements, QStringLiteral("cube = dice"));
    settings.store().setValue(SettingsKey::autoCapitalize, true);
    EXPECT_EQ(TextProcessor::apply("a cube", true), "A dice");
    EXPECT_EQ(TextProcessor::apply("a cube", false), "a dice");

    // A value of the wrong type reads as the default.
    settings.store().setValue(SettingsKey::autoCapitalize, QStringLiteral("true"));
    settings.store().setValue(SettingsKey::replacements, 42);
    EXPECT_EQ(TextProcessor::apply("a cube", true), "a cube");
}
