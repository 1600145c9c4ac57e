// Freeze and the one-second shutter, driven through the real buttons and Qt's event
// loop; the one flag they share decides what the capture path takes.
#include "ControllerFixture.h"

namespace vistrel::test {
namespace {

using EffectsTest = ControllerFixture;

TEST_F(EffectsTest, ShutterAlternatesEverySecondFreezeShiftsThePhaseAndStoppingLeavesItLive)
{
    startCamera();
    ConsoleCapture console;

    vc->shutterButton->click();
    EXPECT_EQ(vc->shutterButton->text(), QStringLiteral("Stop"));
    QTest::qWait(700);
    EXPECT_FALSE(vc->isFrozen) << "the first switch comes one second later";
    EXPECT_TRUE(QTest::qWaitFor([&] { return vc->isFrozen.load(); }, 600));

    // Freeze while the shutter runs inverts the current phase.
    vc->freezeButton->click();
    EXPECT_FALSE(vc->isFrozen);
    EXPECT_EQ(vc->freezeButton->text(), QStringLiteral("Freeze")) << "the title follows the old flag value";
    EXPECT_TRUE(QTest::qWaitFor([&] { return vc->isFrozen.load(); }, 1300));

    // Stopping while frozen: live at once (that it stays live is left to the VM lab).
    vc->shutterButton->click();
    EXPECT_FALSE(vc->isFrozen);
    EXPECT_EQ(vc->shutterButton->text(), QStringLiteral("Stutter"));
    EXPECT_EQ(console.lines(), (QStringList{QStringLiteral("Shutter activé : effet freeze toutes les 1s"),
                                            QStringLiteral("Shutter désactivé")}));

    // Frozen by the button, a shutter started and stopped leaves it live with the button's last title.
    vc->freezeButton->click();
    EXPECT_EQ(vc->freezeButton->text(), QStringLiteral("Unfreeze"));
    vc->shutterButton->click();
    vc->shutterButton->click();
    EXPECT_FALSE(vc->isFrozen);
    EXPECT_EQ(vc->freezeButton->text(), QStringLiteral("Unfreeze"));
}

// The controller's own toggle shows (bringing the app forward) and hides its window; a
// controller that found no main window says so and does nothing else.
TEST_F(EffectsTest, ToggleWindowShowsAndHidesOrSaysTheWindowIsMissing)
{
    ASSERT_EQ(vc->window, window.get());
    vc->toggleWindow();
    EXPECT_TRUE(window->isVisible());
    EXPECT_EQ(env.application.activateCalls, 1);
    vc->toggleWindow();
    EXPECT_FALSE(window->isVisible());

    ConsoleCapture console;
    vc->window = nullptr;
    vc->toggleWindow();
    EXPECT_EQ(console.lines(), QStringList{QStringLiteral("Erreur : Fenêtre principale non trouvée!")});
    EXPECT_FALSE(window->isVisible());
}

} // namespace
} // namespace vistrel::test
