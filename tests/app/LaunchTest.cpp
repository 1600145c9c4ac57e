#include "app/AppDelegate.h"
#include "core/TraceLog.h"
#include "ui/MainWindowController.h"

#include "TestHome.h"
#include "TestServices.h"

#include <QApplication>
#include <QLabel>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace vistrel;

namespace {

class LaunchTest : public ::testing::Test
{
protected:
    void TearDown() override { qDeleteAll(QApplication::topLevelWidgets()); }

    static QStringList traceMessages()
    {
        QString content = QString::fromUtf8(test::readFile(traceLogPath()));
        content.remove(QRegularExpression(QStringLiteral(R"(^\[[^\]]+\] )"), QRegularExpression::MultilineOption));
        return content.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    QTemporaryDir emptyShare; // no interface file: the main-window path shows the fallback window
    std::unique_ptr<test::TestServices> env = std::make_unique<test::TestServices>(emptyShare.path());
};

} // namespace

// Each row also says whether a main window was already loaded: it is then found, traced,
// hidden and used instead of a fallback, on either path.
TEST_F(LaunchTest, DecisionTableChoosesThePathAndTracesIt)
{
    const struct
    {
        const char *name;
        bool complete;
        int cameraAuth;
        bool storedInstalled, installedProbe, activatedProbe, autoLoaded, expectOnboarding;
    } cases[] = {
        {"installed but not enabled", true, 3, false, true, false, false, true},
        {"recorded and visible", true, 3, false, true, true, false, false},
        {"no record even when complete", true, 3, false, false, true, false, true},
        {"camera denied", true, 2, true, true, true, false, true},
        {"loaded window, main path", true, 3, true, false, false, true, false},
        {"loaded window, onboarding path", false, 3, true, false, false, true, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        QFile::remove(traceLogPath());
        env = std::make_unique<test::TestServices>(emptyShare.path());
        env->defaults->setBool(QStringLiteral("onboardingComplete"), c.complete);
        env->defaults->setBool(QStringLiteral("extensionInstalled"), c.storedInstalled);
        env->cameraAuthorization.status = c.cameraAuth;
        env->extensionProbes.installed = c.installedProbe;
        env->extensionProbes.activated = c.activatedProbe;
        QWidget *window = c.autoLoaded ? new QWidget : nullptr;
        MainWindowController *controller = window ? new MainWindowController(window, nullptr, window) : nullptr;
        if (window)
            window->show();

        AppDelegate delegate(env->services);
        delegate.applicationDidFinishLaunching();

        EXPECT_EQ(delegate.isOnboardingInProgress(), c.expectOnboarding);
        const auto bit = [](bool b) { return b ? QStringLiteral("true") : QStringLiteral("false"); };
        QStringList expected = {
            QStringLiteral("didFinishLaunching ENTER pid=%1 exec=/opt/vistrel/bin/vistrel")
                .arg(QCoreApplication::applicationPid()),
            QStringLiteral(
                "didFinishLaunching state — onboardingComplete=%1 cameraAuth=%2 extInstalled=%3 extActivated=%4 needsOnboarding=%5")
                .arg(bit(c.complete))
                .arg(c.cameraAuth)
                .arg(bit(c.installedProbe), bit(c.activatedProbe), bit(c.expectOnboarding)),
            window
                ? QStringLiteral("autoLoadedMain=%1 wc=%2").arg(describeOptional(window), describeOptional(controller))
                : QStringLiteral("autoLoadedMain=nil wc=nil"),
            c.expectOnboarding ? QStringLiteral("taking ONBOARDING path") : QStringLiteral("taking MAIN WINDOW path"),
            QStringLiteral("didFinishLaunching EXIT"),
        };
        QStringList traced = traceMessages();
        if (c.expectOnboarding) { // the window's own "shown" line is checked by its own test
            expected.insert(4, QStringLiteral("showOnboarding called"));
            traced = traced.mid(0, 5) + traced.mid(6);
        }
        EXPECT_EQ(traced, expected);
        // On the onboarding path the main window is never prepared: no fallback either.
        EXPECT_EQ(fallbackWindow() != nullptr, !c.expectOnboarding && !window);
        if (window) {
            EXPECT_FALSE(window->isVisible());
            EXPECT_EQ(window->windowFlags().testFlag(Qt::WindowStaysOnTopHint), !c.expectOnboarding)
                << "the main window floats";
        }
        // A second launch brings forward what this launch shows: during onboarding that is
        // the onboarding window, never the camera window.
        delegate.applicationShouldHandleReopen();
        if (window) {
            EXPECT_EQ(window->isVisible(), !c.expectOnboarding);
        }
        const auto topLevels = QApplication::topLevelWidgets();
        EXPECT_EQ(std::count_if(topLevels.begin(), topLevels.end(),
                                [&](QWidget *w) { return w != window && w->isVisible(); }),
                  c.expectOnboarding || !window ? 1 : 0);
        qDeleteAll(QApplication::topLevelWidgets());
    }
}

TEST_F(LaunchTest, AMissingOrWindowlessInterfaceFileShowsTheFallbackWindowAfreshOnEachClick)
{
    AppDelegate delegate(env->services);
    ::testing::internal::CaptureStderr();
    delegate.prepareMainWindow();
    const std::string log = ::testing::internal::GetCapturedStderr();

    QPointer<QWidget> window = fallbackWindow();
    ASSERT_TRUE(window);
    EXPECT_EQ(window->windowTitle(), QStringLiteral("Vistrel"));
    auto *label = window->findChild<QLabel *>();
    ASSERT_NE(label, nullptr);
    EXPECT_EQ(label->text(), QStringLiteral("Vistrel is running.\nClick the menu-bar icon for options."));
    EXPECT_NE(log.find("[Vistrel] main storyboard fallback instantiate -> nil\n"), std::string::npos) << log;
    EXPECT_NE(log.find("[Vistrel] no main window from storyboard — falling back to programmatic window\n"),
              std::string::npos);
    EXPECT_NE(log.find("[Vistrel] programmatic fallback window shown — frame=("), std::string::npos);

    // A click on the icon shows a fresh one in place of the last, and never hides it.
    delegate.statusItemClicked();
    EXPECT_FALSE(window);
    ASSERT_NE(fallbackWindow(), nullptr);
    EXPECT_TRUE(fallbackWindow()->isVisible());

    // A form whose top level is not a main window falls back the same way.
    ASSERT_TRUE(test::writeFile(emptyShare.filePath(QStringLiteral("Main.ui")),
                                R"(<?xml version="1.0" encoding="UTF-8"?><ui version="4.0"><class>Form</class>
<widget class="QWidget" name="form"><widget class="QLabel" name="label"/></widget></ui>)"));
    qDeleteAll(QApplication::topLevelWidgets());
    AppDelegate withForm(env->services);
    withForm.prepareMainWindow();
    EXPECT_NE(fallbackWindow(), nullptr);
}

// The form holds plain widgets: reading it must not pull designer plugins (Qt Quick and
// QML among them) into the process, nor leave Qt without its plugin folders.
TEST_F(LaunchTest, ReadingTheInterfaceLoadsNoDesignerPluginAndKeepsThePluginFolders)
{
    const QStringList folders = QCoreApplication::libraryPaths();
    MainWindowController *controller =
        instantiateMainInterface(env->services, QStringLiteral(VISTREL_SOURCE_DIR "/resources/Main.ui"));
    ASSERT_NE(controller, nullptr);
    std::unique_ptr<QWidget> window(controller->window()); // the window owns its controller
    EXPECT_EQ(QCoreApplication::libraryPaths(), folders);

    const QByteArray mapped = test::readFile(QStringLiteral("/proc/self/maps"));
    ASSERT_FALSE(mapped.isEmpty());
    EXPECT_FALSE(mapped.contains("/designer/")) << "a designer plugin was loaded";
    EXPECT_FALSE(mapped.contains("libQt6Quick")) << "Qt Quick was loaded";
}
