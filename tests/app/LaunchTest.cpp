#include "app/AppDelegate.h"
#include "app/MainWindowController.h"
#include "app/TraceLog.h"
#include "onboarding/OnboardingManager.h"

#include "TestHome.h"
#include "TestServices.h"

#include <QApplication>
#include <QDir>
#include <QLabel>
#include <QScreen>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace vistrel;

namespace {

struct LaunchCase
{
    const char *name;
    bool onboardingComplete;
    int cameraAuth;
    bool extensionInstalledFlag;
    bool installedProbe;
    bool activatedProbe;
    bool expectOnboarding;
};

class LaunchTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QFile::remove(traceLogPath());
        // No interface file: the main-window path falls back to the programmatic window.
        env = std::make_unique<test::TestServices>(emptyShare.path());
    }
    void TearDown() override { qDeleteAll(QApplication::topLevelWidgets()); }

    QStringList traceMessages() const
    {
        QStringList messages;
        const QString content = QString::fromUtf8(test::readFile(traceLogPath()));
        static const QRegularExpression stamp(QStringLiteral(R"(^\[[^\]]+\] )"));
        for (QString line : content.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
            messages << line.remove(stamp);
        return messages;
    }

    QTemporaryDir emptyShare;
    std::unique_ptr<test::TestServices> env;
};

const LaunchCase kLaunchCases[] = {
    {"fresh installation", false, 0, false, false, false, true},
    {"everything done", true, 3, true, false, false, false},
    {"installed but not enabled", true, 3, false, true, false, true},
    {"recorded and visible", true, 3, false, true, true, false},
    {"no record even when complete", true, 3, false, false, true, true},
    {"camera denied", true, 2, true, true, true, true},
    {"camera restricted", true, 1, true, true, true, true},
    {"not complete", false, 3, true, true, true, true},
};

} // namespace

TEST_F(LaunchTest, DecisionTableChoosesThePathAndTracesIt)
{
    for (const LaunchCase &c : kLaunchCases) {
        SCOPED_TRACE(c.name);
        QFile::remove(traceLogPath());
        env = std::make_unique<test::TestServices>(emptyShare.path());
        env->defaults->setBool(QStringLiteral("onboardingComplete"), c.onboardingComplete);
        env->defaults->setBool(QStringLiteral("extensionInstalled"), c.extensionInstalledFlag);
        env->cameraAuthorization.status = c.cameraAuth;
        env->extensionProbes.installed = c.installedProbe;
        env->extensionProbes.activated = c.activatedProbe;

        AppDelegate delegate(env->services);
        delegate.applicationDidFinishLaunching();

        EXPECT_EQ(delegate.needsOnboarding, c.expectOnboarding);
        EXPECT_EQ(delegate.onboardingInProgress, c.expectOnboarding);
        const auto bit = [](bool b) { return b ? QStringLiteral("true") : QStringLiteral("false"); };
        QStringList expected = {
            QStringLiteral("didFinishLaunching ENTER pid=%1 exec=/opt/vistrel/bin/vistrel").arg(QCoreApplication::applicationPid()),
            QStringLiteral("didFinishLaunching state — onboardingComplete=%1 cameraAuth=%2 extInstalled=%3 extActivated=%4 needsOnboarding=%5")
                .arg(bit(c.onboardingComplete)).arg(c.cameraAuth).arg(bit(c.installedProbe), bit(c.activatedProbe), bit(c.expectOnboarding)),
            QStringLiteral("autoLoadedMain=nil wc=nil"),
            c.expectOnboarding ? QStringLiteral("taking ONBOARDING path") : QStringLiteral("taking MAIN WINDOW path"),
            QStringLiteral("didFinishLaunching EXIT"),
        };
        QStringList traced = traceMessages();
        if (c.expectOnboarding) {
            // The onboarding window traces its own showing between the path and the exit.
            expected.insert(4, QStringLiteral("showOnboarding called"));
            ASSERT_EQ(traced.size(), expected.size() + 1) << traced.join(QLatin1Char('\n')).toStdString();
            EXPECT_TRUE(traced[5].startsWith(QStringLiteral("onboarding window shown — frame=(")));
            EXPECT_TRUE(traced[5].contains(QStringLiteral(" isVisible=true screen=")));
            traced.removeAt(5);
        }
        EXPECT_EQ(traced, expected);
        // On the onboarding path the main window is never prepared: no fallback either.
        EXPECT_EQ(fallbackWindow() != nullptr, !c.expectOnboarding);
        qDeleteAll(QApplication::topLevelWidgets());
    }
}

TEST_F(LaunchTest, StoredInstalledFlagShortCircuitsBothProbes)
{
    env->defaults->setBool(QStringLiteral("onboardingComplete"), true);
    env->defaults->setBool(QStringLiteral("extensionInstalled"), true);
    EXPECT_FALSE(OnboardingManager(env->services).isOnboardingNeeded());
    EXPECT_EQ(env->extensionProbes.installedCalls, 0);
    EXPECT_EQ(env->extensionProbes.activatedCalls, 0);
}

TEST_F(LaunchTest, AnAutoLoadedWindowIsFoundTracedAndHiddenOnBothPaths)
{
    for (const bool onboarding : {false, true}) {
        SCOPED_TRACE(onboarding ? "onboarding path" : "main-window path");
        QFile::remove(traceLogPath());
        env->defaults->setBool(QStringLiteral("onboardingComplete"), !onboarding);
        env->defaults->setBool(QStringLiteral("extensionInstalled"), true);
        auto *window = new QWidget;
        auto *controller = new MainWindowController(window, nullptr, window);
        window->show();

        AppDelegate delegate(env->services);
        delegate.applicationDidFinishLaunching();

        EXPECT_EQ(delegate.mainWindowController.data(), controller);
        EXPECT_FALSE(window->isVisible());
        const QStringList trace = traceMessages();
        ASSERT_GE(trace.size(), 3);
        EXPECT_EQ(trace[2], QStringLiteral("autoLoadedMain=") + describeOptional(window) + QStringLiteral(" wc=")
                                + describeOptional(controller));
        EXPECT_TRUE(trace[2].startsWith(QStringLiteral("autoLoadedMain=Optional(QWidget(0x")));
        EXPECT_EQ(fallbackWindow(), nullptr) << "an existing main window needs no fallback";
        if (!onboarding)
            EXPECT_TRUE(window->windowFlags().testFlag(Qt::WindowStaysOnTopHint));
        qDeleteAll(QApplication::topLevelWidgets());
    }
}

TEST_F(LaunchTest, MissingInterfaceFileShowsTheCentredFallbackWindow)
{
    AppDelegate delegate(env->services);
    ::testing::internal::CaptureStderr();
    delegate.prepareMainWindow();
    const std::string log = ::testing::internal::GetCapturedStderr();

    QWidget *window = fallbackWindow();
    ASSERT_NE(window, nullptr);
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(window->windowTitle(), QStringLiteral("Vistrel"));
    EXPECT_EQ(window->size(), QSize(500, 360));
    const QRect available = QGuiApplication::primaryScreen()->availableGeometry();
    // Centred as placed; decorations added at show time may shift it by their width.
    EXPECT_LE((window->geometry().center() - available.center()).manhattanLength(), 4);
    auto *label = window->findChild<QLabel *>();
    ASSERT_NE(label, nullptr);
    EXPECT_EQ(label->text(), QStringLiteral("Vistrel is running.\nClick the menu-bar icon for options."));
    EXPECT_EQ(delegate.mainWindowController, nullptr);

    EXPECT_NE(log.find("[Vistrel] main storyboard fallback instantiate -> nil\n"), std::string::npos) << log;
    EXPECT_NE(log.find("[Vistrel] no main window from storyboard — falling back to programmatic window\n"), std::string::npos);
    EXPECT_NE(log.find("[Vistrel] programmatic fallback window shown — frame=("), std::string::npos);
    EXPECT_NE(log.find(", 500.0, 360.0)"), std::string::npos);

    // Each further call builds a new window and lets the previous one go.
    QPointer<QWidget> first = window;
    delegate.prepareMainWindow();
    EXPECT_TRUE(first.isNull());
    EXPECT_NE(fallbackWindow(), nullptr);
}

TEST_F(LaunchTest, InterfaceFileWithoutAMainWindowFallsBack)
{
    QFile ui(emptyShare.filePath(QStringLiteral("Main.ui")));
    ASSERT_TRUE(ui.open(QIODevice::WriteOnly));
    ui.write(R"(<?xml version="1.0" encoding="UTF-8"?><ui version="4.0"><class>Form</class>
<widget class="QWidget" name="form"><widget class="QLabel" name="label"/></widget></ui>)");
    ui.close();
    AppDelegate delegate(env->services);
    delegate.prepareMainWindow();
    EXPECT_EQ(delegate.mainWindowController, nullptr);
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

    QFile maps(QStringLiteral("/proc/self/maps"));
    ASSERT_TRUE(maps.open(QIODevice::ReadOnly));
    const QByteArray mapped = maps.readAll();
    EXPECT_FALSE(mapped.contains("/designer/")) << "a designer plugin was loaded";
    EXPECT_FALSE(mapped.contains("libQt6Quick")) << "Qt Quick was loaded";
}

TEST(WindowDescriptions, FramesAndObjectsPrintAsTheTraceExpects)
{
    EXPECT_EQ(describeFrame(QRectF(0, 0, 500, 360)), QStringLiteral("(0.0, 0.0, 500.0, 360.0)"));
    EXPECT_EQ(describeFrame(QRectF(-10.5, 7.25, 1, 2)), QStringLiteral("(-10.5, 7.25, 1.0, 2.0)"));
    EXPECT_EQ(describeOptional(nullptr), QStringLiteral("nil"));
    QObject object;
    EXPECT_EQ(describeOptional(&object),
              QStringLiteral("Optional(QObject(0x%1))").arg(reinterpret_cast<quintptr>(&object), 0, 16));
}
