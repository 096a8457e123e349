#include "text/Vocabulary.h"

#include "settings/Preferences.h"
#include "support/ScopedSettings.h"

#include <gtest/gtest.h>

using namespace vocari;

TEST(Vocabulary, CombinesTermsAndReplacementsWithoutCaseInsensitiveDuplicates)
{
    EXPECT_EQ(Preferences::vocabulary(u"Vocari\nvocari\n   \nKubernetes", u"cube = Kubernetes"),
              QStringList({"Vocari", "Kubernetes"}));

    // Vocabulary lines come first, then replacements in rule order; the first spelling wins.
    EXPECT_EQ(Preferences::vocabulary(u"  Qt  \r\n\tKDE\u2028", u"kde => kde\nx = QCoro\ny = QT"),
              QStringList({"Qt", "KDE", "QCoro"}));
    // Deleting rules and lines that are not rules add nothing.
    EXPECT_EQ(Preferences::vocabulary(u"", u"um =\nno rule\n= orphan\nvo cari = Vocari"),
              QStringList({"Vocari"}));
    // Case is compared beyond ASCII.
    EXPECT_EQ(Preferences::vocabulary(u"Été\nÉTÉ\nété", u""), QStringList({"Été"}));
    EXPECT_TRUE(Preferences::vocabulary(u"", u"").isEmpty());
}

TEST(Vocabulary, ReadsBothSettingsOnEveryCall)
{
    test::ScopedSettings settings;
    EXPECT_TRUE(Preferences::vocabulary().isEmpty());

    settings.store().setValue(SettingsKey::vocabulary, QStringLiteral("Vocari\nPipeWire"));
    settings.store().setValue(SettingsKey::replacements, QStringLiteral("cube = Kubernetes"));
    EXPECT_EQ(Preferences::vocabulary(), QStringList({"Vocari", "PipeWire", "Kubernetes"}));

    settings.store().remove(SettingsKey::vocabulary);
    EXPECT_EQ(Preferences::vocabulary(), QStringList({"Kubernetes"}));
}
