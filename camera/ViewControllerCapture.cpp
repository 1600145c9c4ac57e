// Camera discovery, selection and capture.
#include "camera/ViewController.h"

#include "core/SystemLog.h"
#include "camera/CaptureSession.h"
#include "camera/FrameGate.h"
#include "camera/SampleImage.h"
#include "vcam/FrameSize.h"

#include <QComboBox>
#include <QPushButton>
#include <gst/gst.h>

namespace vistrel {
namespace {

// The virtual camera this program publishes; it is never offered as a source.
const QString kVirtualCameraName = QStringLiteral("Vistrel");

} // namespace

std::vector<camera::CameraDevice> ViewController::discoverCameras()
{
    std::vector<camera::CameraDevice> cameras;
    if (!m_services.cameraDiscovery)
        return cameras;
    for (camera::CameraDevice &device : m_services.cameraDiscovery->videoDevices()) {
        if (device.localizedName != kVirtualCameraName)
            cameras.push_back(std::move(device));
    }
    return cameras;
}

void ViewController::setupCameraControls()
{
    connect(freezeButton.data(), &QPushButton::clicked, this, &ViewController::toggleFreeze, Qt::UniqueConnection);
    connect(shutterButton.data(), &QPushButton::clicked, this, &ViewController::toggleShutter, Qt::UniqueConnection);
    connect(popUpButton.data(), &QComboBox::activated, this, [this] { cameraSelected(popUpButton); });

    // The chooser joins the controller's own view, wherever the interface file put it.
    if (popUpButton->parentWidget() != this) {
        popUpButton->setParent(this);
        popUpButton->show();
    }

    videoDevices = discoverCameras();
    if (videoDevices.empty()) {
        consoleLine(QStringLiteral("Aucune caméra détectée"));
        return;
    }

    popUpButton->clear();
    for (const camera::CameraDevice &device : videoDevices)
        popUpButton->addItem(device.localizedName);

    selectedDevice = videoDevices.front();
    popUpButton->setCurrentIndex(0);
    configureCapture(videoDevices.front());
}

void ViewController::cameraSelected(QObject *)
{
    const int index = popUpButton->currentIndex();
    if (index < 0 || index >= static_cast<int>(videoDevices.size())) {
        consoleLine(QStringLiteral("Erreur : Index sélectionné hors limites"));
        return;
    }
    selectedDevice = videoDevices[static_cast<std::size_t>(index)];
    consoleLine(QStringLiteral("Caméra sélectionnée : ")
                + (selectedDevice ? selectedDevice->localizedName : QStringLiteral("Aucune")));
    configureCapture(*selectedDevice);
}

void ViewController::setupDefaultCapture()
{
    captureSession = std::make_shared<camera::CaptureSession>();

    // The default video device is the first one the system lists.
    std::vector<camera::CameraDevice> devices =
        m_services.cameraDiscovery ? m_services.cameraDiscovery->videoDevices() : std::vector<camera::CameraDevice>{};
    if (devices.empty()) {
        consoleLine(QStringLiteral("Erreur : Pas de caméra disponible."));
        return;
    }
    startCaptureSession(devices.front(), QStringLiteral("Erreur lors de la configuration de la caméra : "), &videoOutput);
}

void ViewController::configureCapture(const camera::CameraDevice &device)
{
    // The previous session is released here; it winds down on its own. Each session gets
    // its own output and its own streaming thread; videoOutput keeps the default
    // session's output.
    captureSession = std::make_shared<camera::CaptureSession>();
    startCaptureSession(device, QStringLiteral("Erreur lors de la configuration de la capture vidéo : "), nullptr);
}

void ViewController::startCaptureSession(const camera::CameraDevice &device, const QString &errorPrefix,
                                         std::shared_ptr<camera::VideoDataOutput> *keptOutput)
{
    QString error;
    auto input = camera::CaptureDeviceInput::create(device, &error);
    if (!input) {
        consoleLine(errorPrefix + error);
        return;
    }
    if (captureSession->canAddInput(*input))
        captureSession->addInput(input);

    auto output = std::make_shared<camera::VideoDataOutput>();
    if (keptOutput)
        *keptOutput = output;
    if (captureSession->canAddOutput(*output)) {
        captureSession->addOutput(output);
        attachCameraFrames(*output);
    }

    captureSession->setRuntimeErrorHandler([errorPrefix](const QString &text) { consoleLine(errorPrefix + text); });
    captureSession->startRunning([errorPrefix](bool running, const QString &failure) {
        if (!running)
            consoleLine(errorPrefix + failure);
    });
}

void ViewController::attachCameraFrames(camera::VideoDataOutput &output)
{
    if (!m_cameraFrames)
        m_cameraFrames = camera::FrameGate::openUntilReleased([this](GstSample *sample) { processCameraFrame(sample); },
                                                              [this] { return wantsCameraPicture(); });
    output.setSampleBufferDelegate(m_cameraFrames->sender());
    output.setFrameFilter(m_cameraFrames->filter());
    // A larger picture would only be shrunk to the virtual camera's frame later on.
    output.setLargestPictureSize(QSize(vcam::kFrameWidth, vcam::kFrameHeight));
}

// Streaming thread, before a frame is converted. A frozen picture or a playing movie
// needs no camera picture (processCameraFrame would drop it). While nobody reads the
// virtual camera the picture is only kept fresh at a standby rate, for a Freeze or a
// reader that comes: converting every frame then would be CPU spent on nothing.
bool ViewController::wantsCameraPicture()
{
    if (isPlayingVideo.load(std::memory_order_relaxed) || isFrozen.load(std::memory_order_relaxed))
        return false;
    if (needToStream.load(std::memory_order_relaxed))
        return true;
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    auto due = m_nextStandbyPicture.load(std::memory_order_relaxed);
    if (now < due)
        return false;
    using Ticks = std::chrono::steady_clock::duration;
    const auto next = now + std::chrono::duration_cast<Ticks>(kStandbyPictureInterval).count();
    // Two sessions may overlap while one winds down; only one of them takes the picture.
    return m_nextStandbyPicture.compare_exchange_strong(due, next, std::memory_order_relaxed);
}

// Streaming thread. Reads the two flags without locking: a frame that races with a
// change is simply taken or dropped.
void ViewController::processCameraFrame(GstSample *sample)
{
    if (isPlayingVideo.load(std::memory_order_relaxed))
        return;
    if (!gst_sample_get_buffer(sample))
        return;
    if (!gst_sample_get_caps(sample) || isFrozen.load(std::memory_order_relaxed))
        return;

    lastCapturedImage.store(std::shared_ptr<GstSample>(gst_sample_ref(sample), gst_sample_unref));

    QImage picture = camera::imageFromSample(sample);
    if (picture.isNull())
        return;
    QMetaObject::invokeMethod(
        this, [this, picture = std::move(picture)] { currentImage = picture; }, Qt::QueuedConnection);
}

} // namespace vistrel
