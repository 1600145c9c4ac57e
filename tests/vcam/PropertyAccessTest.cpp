#include "ConsoleCapture.h"
#include "SimulatedExtension.h"
#include "vcam/PropertyAccess.h"

#include <gtest/gtest.h>

namespace vistrel::vcam {
namespace {

using test::SimulatedExtension;

// The first exact match wins: not a later one, not another case, not a prefix.
TEST(PropertyAccessTest, FindsTheFirstDeviceWithTheExactIdentifier)
{
    SimulatedExtension system;
    system.devices = {{QStringLiteral("Other"), QStringLiteral("/dev/video3")},
                      {QStringLiteral("Vistrel"), QStringLiteral("/dev/video10")},
                      {QStringLiteral("Copy"), QStringLiteral("/dev/video10")}};
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("/dev/video10")), system.deviceObject(1));
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("/dev/VIDEO10")), std::nullopt);
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("/dev/video1")), std::nullopt);

    // Canonically equal texts are equal, whatever their composition.
    system.devices = {{QStringLiteral("Vistrel"), QStringLiteral("cam\u00E9ra")}};
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("came\u0301ra")), system.deviceObject(0));

    // A device list of fewer than four bytes holds no device (not one rounded up).
    system.deviceListSizeOverride = 3;
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("cam\u00E9ra")), std::nullopt);
}

// Reading is covered by the link's poll.
TEST(PropertyAccessTest, JustIsWrittenWholeOnlyWhenPresentAndSettable)
{
    SimulatedExtension system;
    const ObjectID source = system.streamObjects(0)[0];

    const QString longValue = QString(300, QLatin1Char('x')) + QStringLiteral("é end");
    writeJustProperty(system, source, longValue);
    ASSERT_EQ(system.justWrites.size(), 1u);
    EXPECT_EQ(system.justWrites[0], longValue);
    EXPECT_EQ(system.justWriteSizes[0], sizeof(QString));

    system.justSettable = false;
    writeJustProperty(system, source, QStringLiteral("random"));
    EXPECT_EQ(system.justWrites.size(), 1u);

    system.justAnswer.reset();
    system.justSettable = true;
    writeJustProperty(system, source, QStringLiteral("random"));
    EXPECT_EQ(system.justWrites.size(), 1u);
}

// getDevice takes only external cameras; the virtual-camera lookup built-in ones too.
// The console lines are checked by the link's cases.
TEST(PropertyAccessTest, CaptureLookupsMatchNamesExactlyWithinTheirDeviceTypes)
{
    SimulatedExtension system;
    system.devices = {{QStringLiteral("vistrel"), QStringLiteral("a")},
                      {QStringLiteral("Vistrel Pro"), QStringLiteral("b")},
                      {QStringLiteral("Vistrel"), QStringLiteral("c"), CaptureDeviceType::BuiltInWideAngleCamera}};
    test::ConsoleCapture console;
    EXPECT_EQ(getDevice(system, QStringLiteral("Vistrel")), std::nullopt);
    const auto found = findVirtualCameraCaptureDevice(system);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->uniqueID, QStringLiteral("c"));
    system.devices.pop_back();
    EXPECT_EQ(findVirtualCameraCaptureDevice(system), std::nullopt);
}

} // namespace
} // namespace vistrel::vcam

