#include "vcam/PixelBuffer.h"
#include "vcam/PropertyAccess.h"
#include "vcam/v4l2loopback/LoopbackSink.h"
#include "vcam/v4l2loopback/LoopbackSystem.h"
#include "vcam/v4l2loopback/VideoDeviceList.h"
#include "vcam/v4l2loopback/YuyvConversion.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace vistrel::vcam {
namespace {

// A sysfs tree as the kernel lays it out, in a temporary folder: class entries link to
// device folders; drivers are named by links.
class FakeSysfs
{
public:
    FakeSysfs() { QDir(root()).mkpath(QStringLiteral("class/video4linux")); }

    QString root() const { return m_dir.path(); }

    // kind: "driver" (a device/driver link, as for uvcvideo or newer v4l2loopback),
    // "virtual" (no parent device; v4l2loopback's own max_openers attribute).
    void addDevice(const QString &node, const QString &name, const QString &driver, const QString &kind)
    {
        const QString devicePath = root() + QStringLiteral("/devices/") + node;
        QDir(devicePath).mkpath(QStringLiteral("."));
        writeFile(devicePath + QStringLiteral("/name"), name + QLatin1Char('\n'));
        if (kind == QLatin1String("driver")) {
            const QString parent = root() + QStringLiteral("/devices/parent-") + node;
            const QString driverPath = root() + QStringLiteral("/bus/drivers/") + driver;
            QDir(parent).mkpath(QStringLiteral("."));
            QDir(driverPath).mkpath(QStringLiteral("."));
            QFile::link(driverPath, parent + QStringLiteral("/driver"));
            QFile::link(parent, devicePath + QStringLiteral("/device"));
        } else {
            writeFile(devicePath + QStringLiteral("/max_openers"), QStringLiteral("10\n"));
        }
        QFile::link(devicePath, root() + QStringLiteral("/class/video4linux/") + node);
    }

private:
    static void writeFile(const QString &path, const QString &text)
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text.toUtf8());
    }
    QTemporaryDir m_dir;
};

TEST(LoopbackBackendTest, SysfsListsEveryVideoNodeInNumberOrderWithItsDriver)
{
    FakeSysfs sysfs;
    sysfs.addDevice(QStringLiteral("video10"), QStringLiteral("Vistrel"), {}, QStringLiteral("virtual"));
    sysfs.addDevice(QStringLiteral("video2"), QStringLiteral("Integrated Camera"), QStringLiteral("uvcvideo"),
                    QStringLiteral("driver"));
    sysfs.addDevice(QStringLiteral("video11"), QStringLiteral("Other Loop"), QStringLiteral("v4l2loopback"),
                    QStringLiteral("driver"));

    const auto devices = listVideoDevices(sysfs.root(), QStringLiteral("/dev"));
    ASSERT_EQ(devices.size(), 3u);
    EXPECT_EQ(devices[0].node, QStringLiteral("/dev/video2"));
    EXPECT_EQ(devices[0].name, QStringLiteral("Integrated Camera"));
    EXPECT_EQ(devices[0].driver, QStringLiteral("uvcvideo"));
    EXPECT_FALSE(devices[0].isLoopback());
    EXPECT_EQ(devices[1].node, QStringLiteral("/dev/video10"));
    EXPECT_TRUE(devices[1].isLoopback());
    EXPECT_TRUE(devices[2].isLoopback());

    EXPECT_TRUE(listVideoDevices(sysfs.root() + QStringLiteral("/missing")).empty());
}

TEST(LoopbackBackendTest, LoopbackDevicesAreObjectsWithTwoStreamsAndTheirNodeAsIdentifier)
{
    FakeSysfs sysfs;
    sysfs.addDevice(QStringLiteral("video0"), QStringLiteral("Vistrel"), QStringLiteral("uvcvideo"),
                    QStringLiteral("driver"));
    sysfs.addDevice(QStringLiteral("video10"), QStringLiteral("Vistrel"), {}, QStringLiteral("virtual"));
    LoopbackSystem system(sysfs.root(), QStringLiteral("/dev"));

    // Only the loopback device is an object of the virtual camera's world...
    const auto device = findDeviceByUID(system, QStringLiteral("/dev/video10"));
    ASSERT_TRUE(device);
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("/dev/video0")), std::nullopt);
    EXPECT_EQ(findDeviceByUID(system, QStringLiteral("/dev/video10")), device); // stable identifiers
    const auto streams = getStreams(system, *device);
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_NE(streams[0], streams[1]);

    // ...and the external camera of the capture world, under the same identifier; the
    // camera named alike is a built-in one.
    const auto external = getDevice(system, QStringLiteral("Vistrel"));
    ASSERT_TRUE(external);
    EXPECT_EQ(external->uniqueID, QStringLiteral("/dev/video10"));
    const auto both = system.captureDevices(
        {CaptureDeviceType::BuiltInWideAngleCamera, CaptureDeviceType::ExternalUnknown});
    ASSERT_EQ(both.size(), 2u);
    EXPECT_EQ(both[0].uniqueID, QStringLiteral("/dev/video0"));
    EXPECT_TRUE(system.captureInputError({QStringLiteral("Vistrel"), QStringLiteral("/dev/null"),
                                          CaptureDeviceType::ExternalUnknown})
                    .isEmpty());
    EXPECT_FALSE(system.captureInputError(*external).isEmpty()); // no such node on this machine

    // "just": present and settable on streams only; with no sink running nobody can tell
    // whether someone reads, so frames are wanted.
    EXPECT_EQ(readJustProperty(system, streams[0]), QStringLiteral("sc=1"));
    EXPECT_EQ(readJustProperty(system, *device), std::nullopt);
    const PropertyAddress just{codes::just, codes::scopeGlobal, codes::elementMain};
    EXPECT_TRUE(system.isPropertySettable(streams[0], just));
    const QString value = QStringLiteral("random");
    EXPECT_EQ(system.setPropertyData(streams[0], just, sizeof(QString), &value), 0);
    EXPECT_NE(system.setPropertyData(streams[0], just, 3, &value), 0);
}

TEST(LoopbackBackendTest, TheSinkIsOnlyTheSecondStreamAndAMissingNodeFailsToStart)
{
    FakeSysfs sysfs;
    sysfs.addDevice(QStringLiteral("video10"), QStringLiteral("Vistrel"), {}, QStringLiteral("virtual"));
    QTemporaryDir devRoot;
    LoopbackSystem system(sysfs.root(), devRoot.path());
    const auto device = findDeviceByUID(system, devRoot.path() + QStringLiteral("/video10"));
    ASSERT_TRUE(device);
    const auto streams = getStreams(system, *device);

    std::shared_ptr<SimpleQueue> queue;
    EXPECT_NE(system.copyBufferQueue(streams[0], [] {}, &queue), 0);
    EXPECT_FALSE(queue);
    ASSERT_EQ(system.copyBufferQueue(streams[1], [] {}, &queue), 0);
    ASSERT_TRUE(queue);
    EXPECT_EQ(queue->capacity(), LoopbackSink::kCapacity);
    EXPECT_EQ(system.startStream(*device, streams[1]), ENOENT);

    // A node that is no video device (a plain file) is refused too.
    QFile plain(devRoot.path() + QStringLiteral("/video10"));
    ASSERT_TRUE(plain.open(QIODevice::WriteOnly));
    plain.close();
    EXPECT_NE(system.startStream(*device, streams[1]), 0);
    EXPECT_NE(system.startStream(streams[0], streams[1]), 0);

    // Not started: frames are refused rather than piling up.
    EXPECT_NE(queue->enqueue(SampleBuffer{}), 0);
    EXPECT_EQ(queue->count(), 0);
}

TEST(LoopbackBackendTest, BgraBecomesLimitedRangeYuyv)
{
    PixelBuffer buffer(4, 2);
    const QRgb colours[] = {qRgb(0, 0, 0), qRgb(255, 255, 255), qRgb(255, 0, 0), qRgb(0, 0, 255)};
    for (int x = 0; x < 4; ++x)
        for (int y = 0; y < 2; ++y)
            buffer.image().setPixel(x, y, colours[x]);
    std::vector<std::uint8_t> yuyv(yuyvFrameBytes(4, 2));
    convertBgraToYuyv(buffer, yuyv.data());

    // Luma per pixel (Y0 U Y1 V): black 16, white 235, red ~82, blue ~41.
    EXPECT_NEAR(yuyv[0], 16, 1);
    EXPECT_NEAR(yuyv[2], 235, 1);
    EXPECT_NEAR(yuyv[4], 82, 2);
    EXPECT_NEAR(yuyv[6], 41, 2);
    // Chroma of the red/blue pair: red pulls V up, blue pulls U up.
    EXPECT_GT(yuyv[5], 128);
    EXPECT_GT(yuyv[7], 128);
    // The second row is the same picture.
    EXPECT_TRUE(std::equal(yuyv.begin(), yuyv.begin() + 8, yuyv.begin() + 8));

    std::vector<std::uint8_t> black(yuyvFrameBytes(2, 1));
    fillYuyvBlack(black.data(), 2, 1);
    EXPECT_EQ(black, (std::vector<std::uint8_t>{16, 128, 16, 128}));
}

} // namespace
} // namespace vistrel::vcam
