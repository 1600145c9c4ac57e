#include "camera/CameraSource.h"

#include "camera/CaptureSession.h"
#include "camera/FrameGate.h"
#include "camera/SampleImage.h"
#include "core/SystemLog.h"

#include <gst/gst.h>

namespace vistrel::camera {
namespace {

// The virtual camera this program publishes; it is never offered as a source.
const QString kVirtualCameraName = QStringLiteral("Vistrel");

} // namespace

CameraSource::CameraSource(DeviceDiscovery *discovery, QSize largestPicture, std::function<bool()> held,
                           std::function<bool()> streaming, QObject *parent)
    : QObject(parent), m_discovery(discovery), m_largestPicture(largestPicture), m_held(std::move(held)),
      m_streaming(std::move(streaming))
{}

CameraSource::~CameraSource() = default;

const std::vector<CameraDevice> &CameraSource::discoverCameras()
{
    m_videoDevices.clear();
    if (!m_discovery)
        return m_videoDevices;
    for (CameraDevice &device : m_discovery->videoDevices()) {
        if (device.localizedName != kVirtualCameraName)
            m_videoDevices.push_back(std::move(device));
    }
    return m_videoDevices;
}

void CameraSource::useCamera(std::size_t index)
{
    m_selectedDevice = m_videoDevices.at(index);
    configureCapture(*m_selectedDevice);
    Q_EMIT cameraChanged();
}

void CameraSource::cameraSelected(int index)
{
    if (index < 0 || index >= static_cast<int>(m_videoDevices.size())) {
        consoleLine(QStringLiteral("Erreur : Index sélectionné hors limites"));
        return;
    }
    m_selectedDevice = m_videoDevices[static_cast<std::size_t>(index)];
    consoleLine(QStringLiteral("Caméra sélectionnée : ") + m_selectedDevice->localizedName);
    configureCapture(*m_selectedDevice);
    Q_EMIT cameraChanged();
}

void CameraSource::setupDefaultCapture()
{
    m_captureSession = std::make_shared<CaptureSession>();

    // The default video device is the first one the system lists.
    std::vector<CameraDevice> devices = m_discovery ? m_discovery->videoDevices() : std::vector<CameraDevice>{};
    if (devices.empty()) {
        consoleLine(QStringLiteral("Erreur : Pas de caméra disponible."));
        return;
    }
    startCaptureSession(devices.front(), QStringLiteral("Erreur lors de la configuration de la caméra : "));
}

void CameraSource::configureCapture(const CameraDevice &device)
{
    // The previous session is released here; it winds down on its own. Each session gets
    // its own output and its own streaming thread.
    m_captureSession = std::make_shared<CaptureSession>();
    startCaptureSession(device, QStringLiteral("Erreur lors de la configuration de la capture vidéo : "));
}

void CameraSource::resumeCapture()
{
    if (m_captureSession && !m_captureSession->isRunning())
        m_captureSession->startRunning();
}

void CameraSource::releaseCamera()
{
    if (m_released || !m_capturedDevice)
        return;
    // An empty session in its place: the one that held the device winds down on its own.
    m_captureSession = std::make_shared<CaptureSession>();
    m_released = true;
    systemLog(QStringLiteral("camera released: ") + m_capturedDevice->localizedName);
}

void CameraSource::reopenCamera()
{
    if (!m_released)
        return;
    systemLog(QStringLiteral("camera reopened: ") + m_capturedDevice->localizedName);
    configureCapture(*m_capturedDevice);
}

void CameraSource::startCaptureSession(const CameraDevice &device, const QString &errorPrefix)
{
    m_capturedDevice = device;
    m_released = false;
    QString error;
    auto input = CaptureDeviceInput::create(device, &error);
    if (!input) {
        consoleLine(errorPrefix + error);
        return;
    }
    if (m_captureSession->canAddInput(*input))
        m_captureSession->addInput(input);

    auto output = std::make_shared<VideoDataOutput>();
    if (m_captureSession->canAddOutput(*output)) {
        m_captureSession->addOutput(output);
        attachCameraFrames(*output);
    }

    m_captureSession->setRuntimeErrorHandler([errorPrefix](const QString &text) { consoleLine(errorPrefix + text); });
    m_captureSession->startRunning([errorPrefix](bool running, const QString &failure) {
        if (!running)
            consoleLine(errorPrefix + failure);
    });
}

void CameraSource::attachCameraFrames(VideoDataOutput &output)
{
    if (!m_cameraFrames)
        m_cameraFrames = FrameGate::openUntilReleased([this](GstSample *sample) { processCameraFrame(sample); },
                                                      [this] { return wantsCameraPicture(); });
    output.setSampleBufferDelegate(m_cameraFrames->sender());
    output.setFrameFilter(m_cameraFrames->filter());
    output.setLargestPictureSize(m_largestPicture);
}

// Streaming thread, before a frame is converted: a held picture needs no camera
// picture, and while nobody reads the virtual camera one at the standby rate is enough;
// converting every frame then would be CPU spent on nothing.
bool CameraSource::wantsCameraPicture()
{
    if (m_held())
        return false;
    if (m_streaming())
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

// Streaming thread. A frame that races with a change of `held` is simply taken or
// dropped.
void CameraSource::processCameraFrame(GstSample *sample)
{
    if (!gst_sample_get_buffer(sample) || !gst_sample_get_caps(sample) || m_held())
        return;
    QImage picture = imageFromSample(sample);
    if (picture.isNull())
        return;
    QMetaObject::invokeMethod(
        this, [this, picture = std::move(picture)] { Q_EMIT pictureTaken(picture); }, Qt::QueuedConnection);
}

} // namespace vistrel::camera
