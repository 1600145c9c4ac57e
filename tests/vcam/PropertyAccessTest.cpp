#include "vcam/PropertyAccess.h"
#include "ConsoleCapture.h"
#include "SimulatedExtension.h"

#include <gtest/gtest.h>

namespace vistrel::vcam {
namespace {

using test::SimulatedExtension;

// The first exact match wins: not a later one, not another case, not a prefix.
TEST(PropertyAccessTest, FindsTheFirstDeviceWithTheExactIdentifierAndItsStreams)
{
    SimulatedExtension system;
    system.devices = {{QStringLiteral("Other"), QStringLiteral("/dev/video3")},
                      {QStringLiteral("Vistrel"), QStringLiteral("/dev/video10")},
                      {QStringLiteral("Copy"), QStringLiteral("/dev/video10")}};
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("/dev/video10")), system.deviceObject(1));
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("/dev/VIDEO10")), std::nullopt);
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("/dev/video1")), std::nullopt);
    // Streams come in the system's order; an object without a stream list has none.
    EXPECT_EQ(getStreams(system, system.deviceObject(1)), system.streamObjects(1));
    EXPECT_TRUE(getStreams(system, system.streamObjects(1)[0]).empty());

    // Canonically equal texts are equal, whatever their composition.
    system.devices = {{QStringLiteral("Vistrel"), QStringLiteral("cam\u00E9ra")}};
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("came\u0301ra")), system.deviceObject(0));

    // A device list that cannot be read holds no device.
    system.deviceListReadable = false;
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("cam\u00E9ra")), std::nullopt);
}

// A missing "just" reads as absent (the poll then leaves the gate alone), one that is
// there but unreadable as "" (the poll then closes it). Successful reads are covered by
// the link's poll.
TEST(PropertyAccessTest, JustIsReadAndWrittenOnlyWhenPresent)
{
    SimulatedExtension system;
    const ObjectID source = system.streamObjects(0)[0];

    writeJustProperty(system, source, QStringLiteral("random"));
    EXPECT_EQ(system.justWrites, std::vector<QString>{QStringLiteral("random")});

    system.justSettable = false;
    writeJustProperty(system, source, QStringLiteral("random"));
    EXPECT_EQ(system.justWrites.size(), 1u);

    system.justReadable = false;
    EXPECT_EQ(readJustProperty(system, source), QString());

    system.justAnswer.reset();
    system.justSettable = true;
    writeJustProperty(system, source, QStringLiteral("random"));
    EXPECT_EQ(system.justWrites.size(), 1u);
    EXPECT_EQ(readJustProperty(system, source), std::nullopt);
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
