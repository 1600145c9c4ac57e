// Test entry point: every test process runs with its own temporary HOME and
// XDG_CONFIG_HOME (so settings and the trace file never touch the real ones) and
// TMPDIR inside it (so nothing it makes outlives it),
// Qt's offscreen platform, an initialised GStreamer, and an update feed on a closed
// loopback port (no test reaches the vendor's server; the update tests set their own).
#include "TestHome.h"

#include <QApplication>
#include <QTemporaryDir>
#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <cstdlib>

int main(int argc, char **argv)
{
    QTemporaryDir home(QDir::tempPath() + QStringLiteral("/vistrel-test-home-XXXXXX"));
    if (!home.isValid())
        return 2;
    vistrel::test::useHome(home.path());
    // Everything else a test makes in the temporary folder goes inside this home, so it
    // is removed with it, also what a process dies holding: the fake machines of a test
    // whose process ends in abort(), and the children of death tests (they run this main
    // again, inherit this TMPDIR and make their own home inside it).
    const QString temp = home.filePath(QStringLiteral("tmp"));
    if (!QDir().mkpath(temp))
        return 2;
    qputenv("TMPDIR", temp.toUtf8());
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    if (qEnvironmentVariableIsEmpty("VISTREL_UPDATE_URL"))
        qputenv("VISTREL_UPDATE_URL", "http://127.0.0.1:9/updates/latest.json");

    ::testing::InitGoogleMock(&argc, argv);
    gst_init(&argc, &argv);
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    return RUN_ALL_TESTS();
}
