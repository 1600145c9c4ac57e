// Test entry point: every test process runs with its own temporary HOME and
// XDG_CONFIG_HOME (so settings and the trace file never touch the real ones),
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
