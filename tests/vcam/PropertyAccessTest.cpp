#include "ConsoleCapture.h"
#include "SimulatedExtension.h"
#include "vcam/PropertyAccess.h"

#include <gtest/gtest.h>

namespace vistrel::vcam {
namespace {

using test::SimulatedExtension;

TEST(PropertyAccessTest, FindsTheFirstDeviceWithTheExactIdentifier)
{
    SimulatedExtension system;
    system.devices = {{QStringLiteral("Other"), QStringLiteral("/dev/video3")},
                      {QStringLiteral("Vistrel"), QStringLiteral("/dev/video10")},
                      {QStringLiteral("Copy"), QStringLiteral("/dev/video10")}};
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("/dev/video10")), system.deviceObject(1));
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("/dev/video3")), system.deviceObject(0));
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("/dev/VIDEO10")), std::nullopt);
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("/dev/video1")), std::nullopt);

    // Canonically equal texts are equal, whatever their composition.
    system.devices = {{QStringLiteral("Vistrel"), QStringLiteral("cam\u00E9ra")}};
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("came\u0301ra")), system.deviceObject(0));
}

TEST(PropertyAccessTest, ADeviceListOfFewerThanFourBytesHoldsNoDevice)
{
    SimulatedExtension system;
    for (std::uint32_t size : {0u, 1u, 2u, 3u}) {
        system.deviceListSizeOverride = size;
        EXPECT_EQ(findDeviceByUID(system, QStringLiteral("sim:vistrel")), std::nullopt) << size;
    }
    system.deviceListSizeOverride.reset();
    system.devices = {};
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("sim:vistrel")), std::nullopt);
}

TEST(PropertyAccessTest, StreamsComeInTheSystemsOrder)
{
    SimulatedExtension system;
    for (int count : {0, 1, 2, 3}) {
        system.devices[0].streamCount = count;
        EXPECT_EQ(getStreams(system, system.deviceObject(0)), system.streamObjects(0)) << count;
    }
    EXPECT_TRUE(getStreams(system, 9999).empty());
}

TEST(PropertyAccessTest, JustIsReadWhenPresentAndWrittenWholeWhenSettable)
{
    SimulatedExtension system;
    const ObjectID source = system.streamObjects(0)[0];

    system.justAnswer = QStringLiteral("sc=0");
    EXPECT_EQ(readJustProperty(system, source), QStringLiteral("sc=0"));
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
    EXPECT_EQ(readJustProperty(system, source), std::nullopt);
    writeJustProperty(system, source, QStringLiteral("random"));
    EXPECT_EQ(system.justWrites.size(), 1u);
}

TEST(PropertyAccessTest, CaptureLookupsMatchNamesExactlyWithinTheirDeviceTypes)
{
    SimulatedExtension system;
    system.devices = {{QStringLiteral("vistrel"), QStringLiteral("a")},
                      {QStringLiteral("Vistrel Pro"), QStringLiteral("b")},
                      {QStringLiteral("Vistrel"), QStringLiteral("c"), CaptureDeviceType::BuiltInWideAngleCamera}};
    {
        test::ConsoleCapture console;
        EXPECT_EQ(getDevice(system, QStringLiteral("Vistrel")), std::nullopt);
        EXPECT_EQ(console.lines(), QStringList{QStringLiteral("getDevice name= Vistrel")});
    }
    {
        // The built-in camera named "Vistrel" is found here, not by getDevice.
        test::ConsoleCapture console;
        const auto found = findVirtualCameraCaptureDevice(system);
        ASSERT_TRUE(found);
        EXPECT_EQ(found->uniqueID, QStringLiteral("c"));
        EXPECT_TRUE(console.lines().isEmpty());
    }
    system.devices.pop_back();
    test::ConsoleCapture console;
    EXPECT_EQ(findVirtualCameraCaptureDevice(system), std::nullopt);
    EXPECT_EQ(console.lines(), QStringList{QStringLiteral("Erreur : Caméra virtuelle 'Vistrel' non trouvée.")});
}

} // namespace
} // namespace vistrel::vcam

