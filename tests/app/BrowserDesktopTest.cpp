// Dictating into the web browsers people use, with their default configuration and Vocari's
// default settings (the start sound on, heard by the microphone as on a laptop). Each browser
// shows a page of a loopback server of the test's own, which reports its text field's value
// after every change.

#include "DesktopSession.h"
#include "PageServer.h"
#include "support/MissingTool.h"

#include <QDir>
#include <QStandardPaths>
#include <gtest/gtest.h>

namespace vocari::test {
namespace {

// One browser window on the test display, with a profile of its own that ends with it.
class Browser
{
public:
    ~Browser() = default; // the process ends with its ChildProcess

    // Starts the browser on the page and gives its window the keyboard. Empty on success,
    // else what went wrong.
    QString start(const QString &name, PageServer &page)
    {
        const QString program = QStandardPaths::findExecutable(name);
        if (program.isEmpty())
            return name + QStringLiteral(" is not installed");
        ChildProcess::Options options;
        options.environment = {{QStringLiteral("DISPLAY"), qEnvironmentVariable("DISPLAY")},
                               {QStringLiteral("HOME"), m_profile.path()}};
        options.logFile = m_profile.filePath(QStringLiteral("browser.log"));
        QString error;
        m_process = ChildProcess::start(program, arguments(name, page.url()), options, &error);
        if (!m_process)
            return error;
        if (!waitUntil([&] { return page.pageLoaded(); }, 60s))
            return name + QStringLiteral(" did not show the page");
        QByteArray window;
        const bool found = waitUntil(
            [&] {
                return ChildProcess::run(QStringLiteral("xdotool"),
                                         {QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                                          QStringLiteral("--name"),
                                          QStringLiteral("Vocari test page")},
                                         {}, &window) == 0;
            },
            20s);
        if (!found)
            return name + QStringLiteral(" shows no window for the page");
        const QString id = QString::fromLatin1(window.split('\n').value(0).trimmed());
        if (!xdotool(QStringLiteral("windowactivate --sync ") + id) ||
            !xdotool(QStringLiteral("windowfocus --sync ") + id))
            return QStringLiteral("cannot give ") + name + QStringLiteral(" the focus");
        spin(1s); // the page's field has the focus once the window does
        return {};
    }

private:
    QStringList arguments(const QString &name, const QString &url)
    {
        const QString profile = m_profile.filePath(QStringLiteral("profile"));
        QDir().mkpath(profile);
        if (name == u"chromium") {
            // Root needs --no-sandbox; the rest keeps a closed network from stalling it.
            return {QStringLiteral("--no-sandbox"),
                    QStringLiteral("--test-type"), // no bar about the missing sandbox
                    QStringLiteral("--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1"),
                    QStringLiteral("--user-data-dir=") + profile,
                    QStringLiteral("--no-first-run"),
                    QStringLiteral("--no-default-browser-check"),
                    QStringLiteral("--disable-background-networking"),
                    QStringLiteral("--disable-component-update"),
                    QStringLiteral("--disable-sync"),
                    QStringLiteral("--disable-quic"),
                    QStringLiteral("--disable-gpu"),
                    QStringLiteral("--password-store=basic"),
                    QStringLiteral("--new-window"),
                    url};
        }
        // Firefox: a fresh profile whose only settings keep the first start quiet; its keys
        // and menus stay as shipped.
        QFile prefs(profile + QStringLiteral("/user.js"));
        if (prefs.open(QIODevice::WriteOnly)) {
            prefs.write("user_pref(\"datareporting.policy.firstRunURL\", \"\");\n"
                        "user_pref(\"browser.shell.checkDefaultBrowser\", false);\n"
                        "user_pref(\"browser.startup.homepage_override.mstone\", \"ignore\");\n"
                        "user_pref(\"startup.homepage_welcome_url\", \"\");\n"
                        "user_pref(\"startup.homepage_welcome_url.additional\", \"\");\n"
                        "user_pref(\"browser.aboutwelcome.enabled\", false);\n"
                        "user_pref(\"datareporting.policy.dataSubmissionEnabled\", false);\n"
                        "user_pref(\"toolkit.telemetry.reportingpolicy.firstRun\", false);\n"
                        "user_pref(\"app.update.enabled\", false);\n"
                        "user_pref(\"browser.tabs.warnOnClose\", false);\n");
        }
        return {QStringLiteral("--no-remote"), QStringLiteral("--profile"), profile, url};
    }

    QTemporaryDir m_profile;
    std::unique_ptr<ChildProcess> m_process;
};

class InBrowser : public ::testing::TestWithParam<const char *>
{
protected:
    void SetUp() override
    {
        if (!Session::get().skipReason.isEmpty())
            VOCARI_SKIP_FOR_MISSING(Session::get().skipReason.toStdString());
        ASSERT_TRUE(m_page.listen());
        if (const QString problem = m_browser.start(QString::fromLatin1(GetParam()), m_page);
            !problem.isEmpty())
            VOCARI_SKIP_FOR_MISSING(problem.toStdString());
    }

    // The user's own words, typed before the dictation.
    bool typeOwnWords()
    {
        return xdotool(QStringLiteral("type keep")) && xdotool(QStringLiteral("key space")) &&
               m_page.waitForText(QStringLiteral("keep "));
    }

    PageServer m_page;
    Browser m_browser;
};

// With the start sound on, heard by the microphone.
QJsonObject withSounds(QJsonObject settings = {})
{
    settings.insert(QStringLiteral("sounds"), true);
    return settings;
}

TEST_P(InBrowser, TheHeldDefaultKeyPastesTheWholeDictation)
{
    VocariRun vocari(VocariRun::Speech::toneModel, withSounds());
    ASSERT_TRUE(vocari.start()) << qPrintable(vocari.log());
    ASSERT_TRUE(typeOwnWords()) << qPrintable(m_page.text());

    ASSERT_TRUE(xdotool(QStringLiteral("keydown 108")));
    spin(1500ms);
    ASSERT_TRUE(speak(fixtureSpeech()));
    ASSERT_TRUE(xdotool(QStringLiteral("keyup 108")));
    EXPECT_TRUE(m_page.waitForText(QStringLiteral("keep ") + kSentence))
        << qPrintable(m_page.text()) << qPrintable(vocari.log());

    // Letting go of Right Alt left no menu open: what the user types next lands in the field.
    spin(500ms);
    ASSERT_TRUE(xdotool(QStringLiteral("type !")));
    EXPECT_TRUE(m_page.waitForText(QStringLiteral("keep ") + kSentence + u'!'))
        << qPrintable(m_page.text());
}

TEST_P(InBrowser, LiveTypingArrivesWholeAndEscapeLeavesTheUsersOwnWords)
{
    VocariRun vocari(
        VocariRun::Speech::toneModel,
        withSounds({{QStringLiteral("liveTyping"), true},
                    {QStringLiteral("replacements"), QStringLiteral("world = ") + kHardWords}}));
    ASSERT_TRUE(vocari.start()) << qPrintable(vocari.log());
    ASSERT_TRUE(typeOwnWords()) << qPrintable(m_page.text());
    QString typed = kSentence;
    typed.replace(QStringLiteral("world"), kHardWords);

    // Typed phrase by phrase while Right Alt is held.
    ASSERT_TRUE(xdotool(QStringLiteral("keydown 108")));
    spin(1500ms);
    ASSERT_TRUE(speak(fixtureSpeech()));
    ASSERT_TRUE(m_page.waitForText(QStringLiteral("keep ") + typed))
        << qPrintable(m_page.text()) << qPrintable(vocari.log());

    // Escape with the key still held takes back exactly the dictation.
    ASSERT_TRUE(xdotool(QStringLiteral("key Escape")));
    EXPECT_TRUE(m_page.waitForText(QStringLiteral("keep ")))
        << qPrintable(m_page.text()) << qPrintable(vocari.log());
    ASSERT_TRUE(xdotool(QStringLiteral("keyup 108")));
    spin(1500ms);
    EXPECT_EQ(m_page.text(), QStringLiteral("keep "));

    // No menu took the keyboard: the user goes on typing in the field.
    ASSERT_TRUE(xdotool(QStringLiteral("type on")));
    EXPECT_TRUE(m_page.waitForText(QStringLiteral("keep on"))) << qPrintable(m_page.text());
}

INSTANTIATE_TEST_SUITE_P(Browsers, InBrowser, ::testing::Values("chromium", "firefox-esr"),
                         [](const auto &info) {
                             return std::string(info.param) == "chromium" ? "chromium" : "firefox";
                         });

} // namespace
} // namespace vocari::test
