// The real program, started as a child process with its own HOME.
#include "TestHome.h"

#include <QProcess>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>
#include <gtest/gtest.h>

#include <csignal>

namespace {

const QString kBinary = QStringLiteral(VISTREL_BINARY_DIR "/bin/vistrel");

const QByteArray kFinishedOnboarding = "[General]\nonboardingComplete=true\nextensionInstalled=true\n";

// Starts `executable` with the given settings file; by default on the main-window path,
// as a user who finished onboarding.
class AppProcess
{
public:
    explicit AppProcess(const QString &executable, const QByteArray &settings = kFinishedOnboarding,
                        const QList<std::pair<QString, QString>> &environment = {})
    {
        vistrel::test::writeFile(settingsPath(), settings);
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("HOME"), home.path());
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), home.filePath(QStringLiteral(".config")));
        for (const auto &[name, value] : environment)
            env.insert(name, value);
        process.setProcessEnvironment(env);
        process.setStandardErrorFile(home.filePath(QStringLiteral("errors")));
        process.start(executable);
    }
    ~AppProcess()
    {
        process.kill();
        process.waitForFinished(5000);
    }
    // Waits up to ten seconds for `text` in the trace log ("vistrel-trace.log") or standard error ("errors").
    bool waitFor(const char *file, const QString &text)
    {
        return QTest::qWaitFor([&] { return read(file).contains(text); }, 10000);
    }
    QString read(const char *file) const { return QString::fromUtf8(vistrel::test::readFile(home.filePath(QLatin1String(file)))); }
    QString trace() const { return read("vistrel-trace.log"); }
    QString settingsPath() const { return home.filePath(QStringLiteral(".config/Vistrel/Vistrel.conf")); }
    bool launched() { return waitFor("vistrel-trace.log", QStringLiteral("didFinishLaunching EXIT")); }

    QTemporaryDir home{QStringLiteral("/tmp/vsh-XXXXXX")}; // short: the instance's socket path lies inside
    QProcess process;
};

} // namespace

TEST(AppProcess, LaunchesHiddenOnTheMainWindowPathAndASecondLaunchDefersToIt)
{
    AppProcess first(kBinary);
    ASSERT_TRUE(first.launched()) << first.trace().toStdString();
    const QString trace = first.trace();
    EXPECT_TRUE(trace.contains(QStringLiteral("] didFinishLaunching ENTER pid=%1 exec=%2\n").arg(first.process.processId()).arg(kBinary)));
    EXPECT_TRUE(trace.contains(QStringLiteral("] autoLoadedMain=Optional(QMainWindow(0x")));
    EXPECT_TRUE(trace.contains(QStringLiteral(" wc=Optional(vistrel::MainWindowController(0x")));
    EXPECT_TRUE(first.waitFor("errors", QStringLiteral("[Vistrel] main window prepared (hidden) — frame=(")))
        << first.read("errors").toStdString();

    QProcess second;
    second.setProcessEnvironment(first.process.processEnvironment());
    second.start(kBinary);
    ASSERT_TRUE(second.waitForFinished(10000));
    EXPECT_TRUE(second.exitStatus() == QProcess::NormalExit && second.exitCode() == 0);
    EXPECT_TRUE(first.waitFor("errors", QStringLiteral("[Vistrel] reopen requested by a second launch")));
    // The second process never launched: the trace holds the first launch only.
    EXPECT_EQ(first.trace().count(QStringLiteral("didFinishLaunching ENTER")), 1);
    EXPECT_EQ(first.process.state(), QProcess::Running);

    // Another home folder is another user's session: its launch is not deferred.
    AppProcess elsewhere(kBinary);
    EXPECT_TRUE(elsewhere.launched());
}

TEST(AppProcess, WithoutItsInterfaceFileShowsTheFallbackWindow)
{
    // The same program installed into a prefix whose share/vistrel lacks Main.ui.
    QTemporaryDir prefix;
    ASSERT_TRUE(QDir(prefix.path()).mkpath(QStringLiteral("bin")));
    ASSERT_TRUE(QDir(prefix.path()).mkpath(QStringLiteral("share/vistrel")));
    const QString copy = prefix.filePath(QStringLiteral("bin/vistrel"));
    ASSERT_TRUE(QFile::copy(kBinary, copy));

    AppProcess app(copy);
    ASSERT_TRUE(app.launched());
    EXPECT_TRUE(app.waitFor("errors", QStringLiteral("fallback window shown")));
}

// Logout, `systemctl --user stop`, `kill` and Ctrl+C end the app as its Exit buttons do:
// a normal exit, a trace line naming the signal, and the completion flag reset when
// onboarding was still on screen (kept on the main-window path).
TEST(AppProcess, TerminationSignalsEndTheAppThroughItsNormalTermination)
{
    // No stored extension record and none installed: onboarding, although the flag says done.
    const QByteArray onboarding = "[General]\nonboardingComplete=true\n";
    const struct { int signal; const char *name; const QByteArray &settings; bool onboardingPath; } cases[] = {
        {SIGTERM, "SIGTERM", onboarding, true},
        {SIGINT, "SIGINT", onboarding, true},
        {SIGHUP, "SIGHUP", onboarding, true},
        {SIGTERM, "SIGTERM", kFinishedOnboarding, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        AppProcess app(kBinary, c.settings);
        ASSERT_TRUE(app.launched()) << app.trace().toStdString();
        ASSERT_TRUE(app.trace().contains(c.onboardingPath ? QStringLiteral("taking ONBOARDING path")
                                                          : QStringLiteral("taking MAIN WINDOW path")));
        ASSERT_EQ(::kill(static_cast<pid_t>(app.process.processId()), c.signal), 0);
        ASSERT_TRUE(app.process.waitForFinished(10000));
        EXPECT_EQ(app.process.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(app.process.exitCode(), 0);
        EXPECT_TRUE(app.trace().endsWith(QStringLiteral("] terminating on %1\n").arg(QLatin1String(c.name))))
            << app.trace().toStdString();
        const QSettings stored(app.settingsPath(), QSettings::IniFormat);
        EXPECT_EQ(stored.value(QStringLiteral("onboardingComplete")).toString(),
                  c.onboardingPath ? QStringLiteral("false") : QStringLiteral("true"));
    }
}

// A runtime folder that others can enter is not used for the single-instance socket:
// the app says so, starts, and a second launch still finds it (through the fallback).
TEST(AppProcess, AnOpenRuntimeFolderIsRefusedAndTheAppStillStartsAlone)
{
    QTemporaryDir runtime(QStringLiteral("/tmp/vst-XXXXXX"));
    ASSERT_TRUE(QFile::setPermissions(runtime.path(), QFileDevice::Permissions(0x7777)));
    AppProcess first(kBinary, kFinishedOnboarding, {{QStringLiteral("XDG_RUNTIME_DIR"), runtime.path()}});
    ASSERT_TRUE(first.launched());
    EXPECT_TRUE(first.read("errors").contains(QStringLiteral("[Vistrel] XDG_RUNTIME_DIR %1 is not private to this user (").arg(runtime.path())))
        << first.read("errors").toStdString();
    EXPECT_TRUE(QDir(runtime.path()).isEmpty()) << "nothing is put where others can reach it";

    QProcess second;
    second.setProcessEnvironment(first.process.processEnvironment());
    second.start(kBinary);
    ASSERT_TRUE(second.waitForFinished(10000));
    EXPECT_EQ(second.exitCode(), 0);
    EXPECT_TRUE(first.waitFor("errors", QStringLiteral("[Vistrel] reopen requested by a second launch")));
}

// The real program over a damaged settings file: it starts on the onboarding path (the
// odd flag reads as absent), and quitting then stores "not complete" in that one line,
// leaving every other byte of the file as it was.
TEST(AppProcess, ADamagedSettingsFileIsReadAsAbsentAndNotRewritten)
{
    const QByteArray damaged = QByteArray("# mine\n[General]\nonboardingComplete=maybe\nextensionInstalled=@Variant(\\0\\0\\0\\x7f)\n")
                               + QByteArray("blob=\x00\xff\xfe\n", 9) + "[Broken\nx=1\n[Other]\nhuge=" + QByteArray(1 << 20, 'z')
                               + "\ntruncated=\"open";
    AppProcess app(kBinary, damaged);
    ASSERT_TRUE(app.launched()) << app.read("errors").toStdString();
    EXPECT_TRUE(app.trace().contains(QStringLiteral("didFinishLaunching state — onboardingComplete=false ")));
    EXPECT_TRUE(app.trace().contains(QStringLiteral("taking ONBOARDING path")));
    ASSERT_EQ(::kill(static_cast<pid_t>(app.process.processId()), SIGTERM), 0);
    ASSERT_TRUE(app.process.waitForFinished(10000));
    EXPECT_EQ(app.process.exitCode(), 0);
    QByteArray expected = damaged;
    expected.replace("onboardingComplete=maybe\n", "onboardingComplete=false\n");
    EXPECT_TRUE(vistrel::test::readFile(app.settingsPath()) == expected) << "the settings file was rewritten";
}
