// The real camera is let go while nobody sees its pictures and taken back when someone
// does: the controller with the test cameras, a simulated virtual camera whose reader
// the test brings and takes away, and time moved by hand.
#include "ControllerFixture.h"
#include "SimulatedExtension.h"

#include "camera/CaptureSession.h"
#include "camera/FreezeEffect.h"

namespace vistrel::test {
namespace {

class CameraLightTest : public ControllerFixture
{
protected:
    void SetUp() override
    {
        env.services.timers = &env.clock;
        env.services.virtualCamera = &sim;
        sim.justAnswer = QStringLiteral("sc=0");
        ControllerFixture::SetUp();
    }
    bool released() { return vc->cameraSource().isCameraReleased(); }
    bool running()
    {
        const auto &session = vc->cameraSource().captureSession();
        return session && session->isRunning();
    }
    bool waitRunning()
    {
        return QTest::qWaitFor([&] { return running(); }, 5000);
    }

    SimulatedExtension sim;
};

TEST_F(CameraLightTest, ReleasedWhileNobodyWatchesAndBackWhenAReaderOrTheWindowComes)
{
    vc->startVirtualCameraLink();
    ASSERT_TRUE(waitRunning());
    ASSERT_TRUE(waitForColour(QStringLiteral("red"))) << "the standby picture of the first camera";

    env.clock.advance(4.9);
    EXPECT_FALSE(released()) << "the grace is five seconds";
    env.clock.advance(0.1);
    EXPECT_TRUE(released());
    EXPECT_FALSE(running());
    EXPECT_EQ(pictureColour(), QStringLiteral("red")) << "the last picture stays for a reader that comes";

    // Frozen while released; a reader comes and is noticed by the quick probe, well
    // before the link's own two-second poll. The picture stays frozen.
    vc->toggleFreeze();
    sim.justAnswer = QStringLiteral("sc=1");
    env.clock.advance(0.25);
    EXPECT_FALSE(released());
    EXPECT_TRUE(waitRunning());
    EXPECT_TRUE(vc->effects().isFrozen());

    // The reader leaves: the grace starts when the link's poll sees it.
    sim.justAnswer = QStringLiteral("sc=0");
    vc->link().pollStreamState();
    env.clock.advance(4.9);
    EXPECT_FALSE(released());
    env.clock.advance(0.1);
    EXPECT_TRUE(released());

    // The window shown takes the camera back at once; hidden, a new grace begins.
    window->show();
    EXPECT_FALSE(released());
    EXPECT_TRUE(waitRunning());
    env.clock.advance(10.0);
    EXPECT_FALSE(released()) << "not while the window is seen";
    window->hide();
    env.clock.advance(5.0);
    EXPECT_TRUE(released());

    // Another camera picked from outside while released is opened, then let go again.
    choose(indexOf(TestCameraProvider::kStudioCameraName, 1));
    EXPECT_FALSE(released());
    EXPECT_TRUE(waitRunning());
    env.clock.advance(5.0);
    EXPECT_TRUE(released());
    EXPECT_TRUE(vc->effects().isFrozen()) << "the camera's light is not the freeze";
}

// Where the driver cannot tell whether anyone reads (the link always streams), the
// camera stays on.
TEST_F(CameraLightTest, StaysOnWhenReadersCannotBeCounted)
{
    sim.justAnswer = QStringLiteral("sc=1");
    vc->startVirtualCameraLink();
    ASSERT_TRUE(waitRunning());
    env.clock.advance(60.0);
    EXPECT_FALSE(released());
    EXPECT_TRUE(running());
}

} // namespace
} // namespace vistrel::test
