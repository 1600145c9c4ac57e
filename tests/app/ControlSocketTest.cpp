// The opt-in control channel: commands press the real window's controls of a real
// controller, over a real local socket.
#include "tests/camera/ControllerFixture.h"

#include "app/ControlSocket.h"

#include <QFileInfo>
#include <QLocalSocket>
#include <QTemporaryDir>

namespace vistrel::test {
namespace {

class ControlSocketTest : public ControllerFixture
{
protected:
    // The fixture's set-up, with the channel's file chooser in front of the scripted one.
    void SetUp() override
    {
        TestCameraProvider::registerOnce();
        env.services.cameraDiscovery = &discovery;
        env.services.fileDialogs = &channel.fileDialogs();
        MainWindowController *windowController =
            instantiateMainInterface(env.services, QStringLiteral(VISTREL_SOURCE_DIR "/resources/Main.ui"));
        ASSERT_NE(windowController, nullptr);
        window.reset(windowController->window());
        vc = windowController->contentViewController();
        ASSERT_NE(vc, nullptr);
        startCamera();
    }

    // Sends `lines` in one write and collects one answer per line.
    QStringList converse(const QString &path, const QByteArray &lines, int answers)
    {
        QLocalSocket client;
        client.connectToServer(path);
        EXPECT_TRUE(client.waitForConnected(2000)) << client.errorString().toStdString();
        client.write(lines);
        QStringList replies;
        const bool answered = QTest::qWaitFor(
            [&] {
                while (client.canReadLine())
                    replies << QString::fromUtf8(client.readLine()).trimmed();
                return replies.size() >= answers;
            },
            3000);
        EXPECT_TRUE(answered) << "answers so far: " << replies.join(u'/').toStdString();
        return replies;
    }

    ControlSocket channel{dialogs, [this] { return vc; }};
};

TEST_F(ControlSocketTest, EffectCommandsPressTheButtonsAndAnswerTheirNewTitles)
{
    EXPECT_EQ(channel.execute(QStringLiteral("freeze")), QStringLiteral("ok Unfreeze"));
    EXPECT_TRUE(vc->isFrozen);
    EXPECT_EQ(channel.execute(QStringLiteral("freeze")), QStringLiteral("ok Freeze"));
    EXPECT_FALSE(vc->isFrozen);

    EXPECT_EQ(channel.execute(QStringLiteral("stutter")), QStringLiteral("ok Stop"));
    EXPECT_TRUE(vc->isShutterActive);
    EXPECT_EQ(channel.execute(QStringLiteral("  stutter  ")), QStringLiteral("ok Stutter"));
    EXPECT_FALSE(vc->isShutterActive);

    // Stop Movie is disabled until a movie was opened: nothing is pressed.
    EXPECT_EQ(channel.execute(QStringLiteral("stop")), QStringLiteral("error Stop Movie is disabled"));
    EXPECT_EQ(channel.execute(QStringLiteral("thaw")), QStringLiteral("error unknown command: thaw"));
    EXPECT_EQ(channel.execute(QString()), QStringLiteral("error empty command"));
}

TEST_F(ControlSocketTest, OpenPicksTheFileInThePanelOnceAndStopReturnsToTheCamera)
{
    QTemporaryDir dir;
    EXPECT_EQ(channel.execute(QStringLiteral("open ") + dir.filePath(QStringLiteral("missing.mp4"))),
              QStringLiteral("error no readable file: ") + dir.filePath(QStringLiteral("missing.mp4")));
    EXPECT_EQ(channel.execute(QStringLiteral("open")), QStringLiteral("error open needs a file path"));
    EXPECT_EQ(dialogs.shown, 0);
    EXPECT_FALSE(vc->isPlayingVideo);

    const QString movie = ColourMovies::make(dir.path(), QStringLiteral("clip with spaces.mp4"),
                                             {"-c:v", "mpeg4", "-q:v", "2"});
    ASSERT_FALSE(movie.isEmpty());
    EXPECT_EQ(channel.execute(QStringLiteral("open ") + movie), QStringLiteral("ok Open Movie…"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return vc->isPlayingVideo.load(); }, 2000));
    EXPECT_TRUE(vc->stopVideoBtn->isEnabled());
    // The answer stood in for the real panel, which was never asked.
    EXPECT_EQ(dialogs.shown, 0);

    EXPECT_EQ(channel.execute(QStringLiteral("stop")), QStringLiteral("ok Stop Movie"));
    EXPECT_FALSE(vc->isPlayingVideo);

    // Without a pending answer the real panel is asked (here it cancels).
    window->findChild<QPushButton *>(QStringLiteral("openVideoButton"))->click();
    EXPECT_EQ(dialogs.shown, 1);
}

TEST_F(ControlSocketTest, CamerasListsTheChooserAndSelectSwitchesByIndex)
{
    QStringList expected;
    for (const camera::CameraDevice &device : vc->videoDevices)
        expected << device.localizedName;
    ASSERT_GE(expected.size(), 2);
    EXPECT_EQ(channel.execute(QStringLiteral("cameras")), QStringLiteral("ok ") + expected.join(QStringLiteral(" | ")));

    const int last = static_cast<int>(expected.size()) - 1;
    EXPECT_EQ(channel.execute(QStringLiteral("select %1").arg(last)), QStringLiteral("ok ") + expected.last());
    ASSERT_TRUE(vc->selectedDevice);
    EXPECT_EQ(vc->selectedDevice->uniqueID, vc->videoDevices.back().uniqueID);

    for (const QString &bad : {QStringLiteral("select"), QStringLiteral("select -1"), QStringLiteral("select x"),
                               QStringLiteral("select %1").arg(last + 1)})
        EXPECT_TRUE(channel.execute(bad).startsWith(QStringLiteral("error no camera at index"))) << bad.toStdString();
    EXPECT_EQ(vc->selectedDevice->uniqueID, vc->videoDevices.back().uniqueID);
}

TEST_F(ControlSocketTest, ServesLinesOverAUserOnlySocketAndRefusesOverlongLines)
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("control"));
    QString error;
    ASSERT_TRUE(channel.listen(path, &error)) << error.toStdString();
    EXPECT_EQ(QFileInfo(path).permissions() & (QFile::ReadOther | QFile::WriteOther | QFile::ReadGroup |
                                               QFile::WriteGroup),
              QFile::Permissions());

    EXPECT_EQ(converse(path, "freeze\nbogus\r\nfreeze\n", 3),
              (QStringList{QStringLiteral("ok Unfreeze"), QStringLiteral("error unknown command: bogus"),
                           QStringLiteral("ok Freeze")}));
    EXPECT_EQ(converse(path, QByteArray(ControlSocket::kMaxLineBytes + 10, 'x') + "\nfreeze\n", 1),
              QStringList{QStringLiteral("error line too long")});
    EXPECT_FALSE(vc->isFrozen);

    // A second channel on a stale path takes it over (the socket file of a crashed run).
    ControlSocket second(dialogs, [] { return nullptr; });
    ASSERT_TRUE(second.listen(path, &error)) << error.toStdString();
    EXPECT_EQ(converse(path, "freeze\n", 1), QStringList{QStringLiteral("error no main window")});
}

TEST(ControlSocketEnvironment, IsOffUnlessTheVariableNamesAPath)
{
    ScriptedFileDialogs panel;
    qunsetenv(ControlSocket::kEnvironmentVariable);
    EXPECT_EQ(ControlSocket::fromEnvironment(panel, [] { return nullptr; }), nullptr);

    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("control"));
    qputenv(ControlSocket::kEnvironmentVariable, path.toLocal8Bit());
    const std::unique_ptr<ControlSocket> channel = ControlSocket::fromEnvironment(panel, [] { return nullptr; });
    qunsetenv(ControlSocket::kEnvironmentVariable);
    ASSERT_NE(channel, nullptr);
    QLocalSocket client;
    client.connectToServer(path);
    EXPECT_TRUE(client.waitForConnected(2000));
}

} // namespace
} // namespace vistrel::test
