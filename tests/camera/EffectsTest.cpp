// Freeze and the one-second shutter, driven through the real buttons with time moved by
// hand; the one flag they share decides what the capture path takes.
#include "ControllerFixture.h"

#include "camera/FreezeEffect.h"

namespace vistrel::test {
namespace {

class EffectsTest : public ControllerFixture
{
protected:
    void SetUp() override
    {
        env.services.timers = &env.clock;
        ControllerFixture::SetUp();
    }
    bool frozen() { return vc->effects().isFrozen(); }
};

TEST_F(EffectsTest, ShutterAlternatesEverySecondFreezeShiftsThePhaseAndStoppingLeavesItLive)
{
    QPushButton *shutter = button("shutterButton");
    QPushButton *freeze = button("freezeButton");
    vc->setupCameraControls();
    ConsoleCapture console;

    shutter->click();
    EXPECT_EQ(shutter->text(), QStringLiteral("Stop"));
    env.clock.advance(0.75);
    EXPECT_FALSE(frozen()) << "the first switch comes one second later";
    env.clock.advance(0.25);
    EXPECT_TRUE(frozen());
    env.clock.advance(0.5);

    // Freeze while the shutter runs inverts the current phase; the shutter keeps its beat.
    freeze->click();
    EXPECT_FALSE(frozen());
    EXPECT_EQ(freeze->text(), QStringLiteral("Freeze")) << "the title follows the old flag value";
    env.clock.advance(0.5);
    EXPECT_TRUE(frozen());
    env.clock.advance(1.0);
    EXPECT_FALSE(frozen());
    env.clock.advance(1.0);
    EXPECT_TRUE(frozen());

    // Stopping while frozen: live at once, and it stays live.
    shutter->click();
    EXPECT_FALSE(frozen());
    EXPECT_EQ(shutter->text(), QStringLiteral("Stutter"));
    env.clock.advance(3.0);
    EXPECT_FALSE(frozen());
    EXPECT_EQ(console.lines(),
              (QStringList{QStringLiteral("Shutter activé : effet freeze toutes les 1s"),
                           QStringLiteral("Shutter désactivé")}));

    // Frozen by the button, a shutter started and stopped leaves it live with the
    // button's last title; a shutter started again begins a new second.
    freeze->click();
    EXPECT_EQ(freeze->text(), QStringLiteral("Unfreeze"));
    shutter->click();
    env.clock.advance(0.75);
    shutter->click();
    EXPECT_FALSE(frozen());
    EXPECT_EQ(freeze->text(), QStringLiteral("Unfreeze"));
    shutter->click();
    env.clock.advance(0.75);
    EXPECT_FALSE(frozen());
    env.clock.advance(0.25);
    EXPECT_TRUE(frozen());
    EXPECT_EQ(env.clock.runningTimers(std::chrono::seconds(1)), 1);
}

// The controller's own toggle shows (bringing the app forward) and hides its window; a
// controller that found no main window says so and does nothing else.
TEST_F(EffectsTest, ToggleWindowShowsAndHidesOrSaysTheWindowIsMissing)
{
    vc->toggleWindow();
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(env.application.activateCalls, 1);
    vc->toggleWindow();
    EXPECT_FALSE(window->isVisible());

    ConsoleCapture console;
    ViewController unloaded(env.services); // never loaded into a window
    unloaded.toggleWindow();
    EXPECT_EQ(console.lines(), QStringList{QStringLiteral("Erreur : Fenêtre principale non trouvée!")});
    EXPECT_FALSE(window->isVisible());
    EXPECT_EQ(env.application.activateCalls, 1);
}

} // namespace
} // namespace vistrel::test
