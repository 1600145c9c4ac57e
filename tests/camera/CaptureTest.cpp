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

class OnlyVirtualCamera final : public camera::DeviceDiscovery
{
public:
    std::vector<camera::CameraDevice> videoDevices() override { return {{QStringLiteral("Vistrel"), {}, {}}}; }
};

TEST_F(CameraCaptureTest, ListsEveryCameraButTheExactVirtualCameraNameAndStartsTheFirst)
{
    ConsoleCapture console;
    startCamera();

    QStringList listed;
    for (const auto &device : vc->videoDevices)
        listed << device.localizedName;
    EXPECT_FALSE(listed.contains(TestCameraProvider::kVirtualCameraName));
    EXPECT_TRUE(listed.contains(TestCameraProvider::kSuffixedName));
    EXPECT_EQ(listed.count(TestCameraProvider::kStudioCameraName), 2);

    ASSERT_EQ(vc->popUpButton->count(), listed.size());
    for (int i = 0; i < listed.size(); ++i)
        EXPECT_EQ(vc->popUpButton->itemText(i), listed[i]);
    EXPECT_EQ(vc->popUpButton->currentIndex(), 0);
    ASSERT_TRUE(vc->selectedDevice);
    EXPECT_EQ(vc->selectedDevice->localizedName, listed.front());
    EXPECT_TRUE(QTest::qWaitFor([&] { return vc->currentImage.has_value(); }, 5000));
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
    EXPECT_EQ(console.lines(), QStringList{QStringLiteral("Aucune caméra détectée")});
    EXPECT_EQ(chooser->count(), 1);
    EXPECT_FALSE(controller.captureSession);
}

// Same-named cameras are told apart by index; choosing the running one again still
// gets a new pipeline; an index outside the list changes nothing.
TEST_F(CameraCaptureTest, ChoosingByIndex)
{
    startCamera();
    const int red = indexOf(TestCameraProvider::kStudioCameraName, 0);
    const int blue = indexOf(TestCameraProvider::kStudioCameraName, 1);
    ASSERT_GE(blue, 0);

    ConsoleCapture console;
    choose(blue);
    EXPECT_TRUE(waitForColour(QStringLiteral("blue")));
    choose(red);
    EXPECT_TRUE(waitForColour(QStringLiteral("red")));
    auto session = vc->captureSession;
    choose(red);
    EXPECT_NE(vc->captureSession, session);
    EXPECT_TRUE(QTest::qWaitFor([&] { return vc->captureSession->isRunning(); }, 2000));

    session = vc->captureSession;
    vc->popUpButton->addItem(QStringLiteral("not a camera"));
    choose(vc->popUpButton->count() - 1);
    choose(-1);
    EXPECT_EQ(vc->captureSession, session);
    EXPECT_EQ(vc->selectedDevice->localizedName, TestCameraProvider::kStudioCameraName);
    const QString line = QStringLiteral("Caméra sélectionnée : Studio Camera");
    const QString error = QStringLiteral("Erreur : Index sélectionné hors limites");
    EXPECT_EQ(console.lines(), (QStringList{line, line, line, error, error}));
}

// Pictures wrap the decoded buffer (no copy) at the camera's size; a device that fails
// reports GStreamer's error and leaves the last picture.
TEST_F(CameraCaptureTest, PicturesWrapTheBufferAndAFailingDeviceKeepsTheLastOne)
{
    startCamera();
    choose(indexOf(TestCameraProvider::kSuffixedName));
    ASSERT_TRUE(waitForColour(QStringLiteral("green")));
    EXPECT_EQ(vc->currentImage->size(), QSize(160, 120));
    EXPECT_EQ(vc->currentImage->format(), QImage::Format_RGB32);
    const auto sample = vc->lastCapturedImage.load();
    ASSERT_TRUE(sample);
    GstMapInfo map;
    GstBuffer *buffer = gst_sample_get_buffer(sample.get());
    ASSERT_TRUE(gst_buffer_map(buffer, &map, GST_MAP_READ));
    EXPECT_EQ(static_cast<const void *>(camera::imageFromSample(sample.get()).constBits()),
              static_cast<const void *>(map.data));
    gst_buffer_unmap(buffer, &map);

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

// How many new pictures reach currentImage within `ms`.
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

// Without a reader only a standby picture is taken, every frame once someone reads;
// none while a movie plays or the picture is frozen.
TEST_F(CameraCaptureTest, WhichFramesBecomePictures)
{
    startCamera();
    choose(indexOf(TestCameraProvider::kStudioCameraName, 1));
    ASSERT_TRUE(waitForColour(QStringLiteral("blue")));

    ASSERT_FALSE(vc->needToStream);
    const int standby = picturesWithin(*vc, 2000); // a 30 fps camera: about two a second
    EXPECT_GE(standby, 2);
    EXPECT_LE(standby, 6);
    vc->needToStream = true;
    EXPECT_GE(picturesWithin(*vc, 1000), 12);

    vc->isPlayingVideo = true;
    QTest::qWait(100);
    const auto sampleBeforeMovie = vc->lastCapturedImage.load();
    EXPECT_EQ(picturesWithin(*vc, 300), 0);
    EXPECT_EQ(vc->lastCapturedImage.load(), sampleBeforeMovie);
    vc->isPlayingVideo = false;
    EXPECT_GE(picturesWithin(*vc, 300), 1);

    vc->toggleFreeze();
    QTest::qWait(100);
    EXPECT_EQ(picturesWithin(*vc, 500), 0);
}

} // namespace
} // namespace vistrel::test
