#pragma once
// The real program, started as a child process with its own HOME.
#include "TestHome.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

namespace vistrel::test {

inline const QString kBinary = QStringLiteral(VISTREL_BINARY_DIR "/bin/vistrel");

inline const QByteArray kFinishedOnboarding = "[General]\nonboardingComplete=true\nextensionInstalled=true\n";

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
        process.setStandardOutputFile(home.filePath(QStringLiteral("output")));
        process.start(executable);
    }
    ~AppProcess()
    {
        process.kill();
        process.waitForFinished(5000);
    }
    // Waits up to ten seconds for `text` in the trace log ("vistrel-trace.log"), standard
    // error ("errors") or standard output ("output").
    bool waitFor(const char *file, const QString &text)
    {
        return QTest::qWaitFor([&] { return read(file).contains(text); }, 10000);
    }
    QString read(const char *file) const
    {
        return QString::fromUtf8(vistrel::test::readFile(home.filePath(QLatin1String(file))));
    }
    QString trace() const { return read("vistrel-trace.log"); }
    QString settingsPath() const { return home.filePath(QStringLiteral(".config/Vistrel/Vistrel.conf")); }
    bool launched() { return waitFor("vistrel-trace.log", QStringLiteral("didFinishLaunching EXIT")); }

    QTemporaryDir home{QStringLiteral("/tmp/vsh-XXXXXX")}; // short: the instance's socket path lies inside
    QProcess process;
};

} // namespace vistrel::test
