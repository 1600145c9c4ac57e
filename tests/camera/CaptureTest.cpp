// Camera discovery through the real GstDeviceMonitor, selection by index, and the
// capture pipeline's pictures, with the solid-colour test cameras.
#include "ControllerFixture.h"

#include "camera/CaptureSession.h"
#include "camera/SampleImage.h"

#include <QElapsedTimer>
#include <gst/gst.h>

namespace vistrel::test {
namespace {

using CameraCaptureTest = ControllerFixture;

QStringList names(const std::vector<camera::CameraDevice> &devices)
{
    QStringList list;
    for (const auto &device : devices)
        list << device.localizedName;
    return list;
}

// A system whose only camera is the program's own virtual camera.
class OnlyVirtualCamera final : public camera::DeviceDiscovery
{
public:
    std::vector<camera::CameraDevice> videoDevices() override { return {{QStringLiteral("Vistrel"), {}, {}}}; }
};

TEST_F(CameraCaptureTest, ListsEveryCameraButTheExactVirtualCameraNameAndStartsTheFirst)
{
    ConsoleCapture console;
    startCamera();

    const QStringList listed = names(vc->videoDevices);
    EXPECT_FALSE(listed.contains(TestCameraProvider::kVirtualCameraName));
    EXPECT_TRUE(listed.contains(TestCameraProvider::kSuffixedName));
    EXPECT_EQ(listed.count(TestCameraProvider::kStudioCameraName), 2);
    EXPECT_EQ(names(discovery.videoDevices()).count(TestCameraProvider::kVirtualCameraName), 1);

    // The chooser mirrors the list, in order, and the first camera runs.
    ASSERT_EQ(vc->popUpButton->count(), listed.size());
    for (int i = 0; i < listed.size(); ++i)
        EXPECT_EQ(vc->popUpButton->itemText(i), listed[i]);
    EXPECT_EQ(vc->popUpButton->currentIndex(), 0);
    ASSERT_TRUE(vc->selectedDevice);
    EXPECT_EQ(vc->selectedDevice->localizedName, listed.front());
    EXPECT_TRUE(QTest::qWaitFor([&] { return vc->currentImage.has_value(); }, 5000));
    EXPECT_TRUE(vc->lastCapturedImage.load());
    EXPECT_FALSE(console.lines().contains(QStringLiteral("Aucune caméra détectée")));
}

TEST_F(CameraCaptureTest, OnlyTheVirtualCameraMeansNoCameraAndAnUntouchedChooser)
{
    OnlyVirtualCamera onlyVirtual;
    env.services.cameraDiscovery = &onlyVirtual;
    ViewController controller(env.services);
    auto *chooser = new QComboBox(&controller);
    chooser->addItems({QStringLiteral("from the interface file")});
    controller.popUpButton = chooser;
    controller.freezeButton = new QPushButton(&controller);
    controller.shutterButton = new QPushButton(&controller);

    ConsoleCapture console;
    controller.setupCameraControls();

    EXPECT_TRUE(controller.videoDevices.empty());
    EXPECT_EQ(console.lines(), QStringList{QStringLiteral("Aucune caméra détectée")});
    EXPECT_EQ(chooser->count(), 1);
    EXPECT_FALSE(controller.captureSession);
}

TEST_F(CameraCaptureTest, SameNamedCamerasAreChosenByIndexEachTimeWithAFreshSession)
{
    startCamera();
    const int red = indexOf(TestCameraProvider::kStudioCameraName, 0);
    const int blue = indexOf(TestCameraProvider::kStudioCameraName, 1);
    ASSERT_GE(red, 0);
    ASSERT_GE(blue, 0);

    ConsoleCapture console;
    choose(blue);
    EXPECT_TRUE(waitForColour(QStringLiteral("blue")));
    choose(red);
    EXPECT_TRUE(waitForColour(QStringLiteral("red")));

    // The running camera chosen again still gets a new pipeline.
    const auto running = vc->captureSession;
    choose(red);
    EXPECT_NE(vc->captureSession, running);
    EXPECT_TRUE(QTest::qWaitFor([&] { return vc->captureSession->isRunning(); }, 2000));

    const QString line = QStringLiteral("Caméra sélectionnée : Studio Camera");
    EXPECT_EQ(console.lines(), (QStringList{line, line, line}));
}

TEST_F(CameraCaptureTest, AnIndexOutsideTheListChangesNothing)
{
    startCamera();
    const auto session = vc->captureSession;
    const auto selected = vc->selectedDevice;
    vc->popUpButton->addItem(QStringLiteral("not a camera"));

    ConsoleCapture console;
    choose(vc->popUpButton->count() - 1);
    choose(-1);

    const QString error = QStringLiteral("Erreur : Index sélectionné hors limites");
    EXPECT_EQ(console.lines(), (QStringList{error, error}));
    EXPECT_EQ(vc->captureSession, session);
    EXPECT_EQ(vc->selectedDevice->localizedName, selected->localizedName);
}

TEST_F(CameraCaptureTest, AFailingDeviceReportsGStreamersErrorAndLeavesTheLastPicture)
{
    startCamera();
    choose(indexOf(TestCameraProvider::kSuffixedName));
    ASSERT_TRUE(waitForColour(QStringLiteral("green")));

    ConsoleCapture console;
    choose(indexOf(TestCameraProvider::kUnpluggedName));
    QTest::qWait(300);

    const QStringList lines = console.lines();
    ASSERT_EQ(lines.size(), 2) << lines.join(QLatin1Char('\n')).toStdString();
    EXPECT_EQ(lines[0], QStringLiteral("Caméra sélectionnée : Unplugged Camera"));
    EXPECT_TRUE(lines[1].startsWith(QStringLiteral("Erreur lors de la configuration de la capture vidéo : ")));
    EXPECT_TRUE(lines[1].contains(QStringLiteral("/dev/vistrel-unplugged-camera"))) << lines[1].toStdString();
    EXPECT_EQ(pictureColour(), QStringLiteral("green"));
    EXPECT_FALSE(vc->captureSession->isRunning());
}

// Freezing is checked with the standby rate below and on the virtual camera's frames.
TEST_F(CameraCaptureTest, FramesAreIgnoredWhileAMoviePlays)
{
    startCamera();
    choose(indexOf(TestCameraProvider::kStudioCameraName, 1));
    ASSERT_TRUE(waitForColour(QStringLiteral("blue")));

    // A movie owns the picture: the running camera is ignored.
    vc->isPlayingVideo = true;
    QTest::qWait(100);
    vc->currentImage = QImage(8, 8, QImage::Format_RGB32);
    const qint64 moviePicture = vc->currentImage->cacheKey();
    const auto sampleBeforeMovie = vc->lastCapturedImage.load();
    QTest::qWait(300);
    EXPECT_EQ(vc->currentImage->cacheKey(), moviePicture);
    EXPECT_EQ(vc->lastCapturedImage.load(), sampleBeforeMovie);

    vc->isPlayingVideo = false;
    EXPECT_TRUE(waitForColour(QStringLiteral("blue")));
}

// How many new pictures reach currentImage within `ms` (each conversion is a new picture).
int picturesWithin(ViewController &vc, int ms)
{
    int changes = 0;
    qint64 last = vc.currentImage ? vc.currentImage->cacheKey() : 0;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < ms) {
        QTest::qWait(5);
        const qint64 key = vc.currentImage ? vc.currentImage->cacheKey() : 0;
        changes += key != last;
        last = key;
    }
    return changes;
}

TEST_F(CameraCaptureTest, WithoutAReaderOnlyAStandbyPictureIsTakenAndEveryFrameOnceSomeoneReads)
{
    startCamera();
    choose(indexOf(TestCameraProvider::kStudioCameraName, 1));
    ASSERT_TRUE(waitForColour(QStringLiteral("blue")));

    // Nobody reads the virtual camera: a 30 fps camera yields about two pictures a second.
    ASSERT_FALSE(vc->needToStream);
    const int standby = picturesWithin(*vc, 2000);
    EXPECT_GE(standby, 2);
    EXPECT_LE(standby, 6);

    vc->needToStream = true;
    EXPECT_GE(picturesWithin(*vc, 1000), 12);

    // Frozen, not even the standby picture replaces the held one.
    vc->needToStream = false;
    vc->toggleFreeze();
    QTest::qWait(100);
    EXPECT_EQ(picturesWithin(*vc, 1200), 0);
}

TEST_F(CameraCaptureTest, PicturesWrapTheDecodedBufferInTheCamerasOwnSize)
{
    startCamera();
    choose(indexOf(TestCameraProvider::kSuffixedName));
    ASSERT_TRUE(waitForColour(QStringLiteral("green")));
    const QImage picture = *vc->currentImage;
    EXPECT_EQ(picture.size(), QSize(160, 120));
    EXPECT_EQ(picture.format(), QImage::Format_RGB32);

    // The picture's pixels are the sample's mapped memory, not a copy of them.
    const auto sample = vc->lastCapturedImage.load();
    ASSERT_TRUE(sample);
    GstMapInfo map;
    GstBuffer *buffer = gst_sample_get_buffer(sample.get());
    ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
    const QImage fromSample = camera::imageFromSample(sample.get());
    EXPECT_EQ(static_cast<const void *>(fromSample.constBits()), static_cast<const void *>(map.data));
    gst_buffer_unmap(buffer, &map);
}

} // namespace
} // namespace vistrel::test
