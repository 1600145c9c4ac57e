// The virtual-camera link of the controller: finding the device and its streams, the
// start-up sequence, the connecting placeholder and the preview, and sending frames.
#include "app/Spinner.h"
#include "core/SystemLog.h"
#include "camera/ViewController.h"
#include "vcam/FrameDrawing.h"
#include "vcam/FrameSize.h"
#include "vcam/LoopbackPreview.h"
#include "vcam/PixelBuffer.h"
#include "vcam/PropertyAccess.h"
#include "vcam/SimpleQueue.h"

#include <QEvent>
#include <QFrame>
#include <QLabel>
#include <QTimer>

namespace vistrel {

namespace {

// Enough for a full sink queue, the frame the device writer holds, the one the
// preview shows and the one being drawn.
constexpr int kPoolExtraBuffers = 3;

// Keeps the connecting spinner centred (12 points above the middle) and its label
// 8 points below it, as the box resizes.
class PlaceholderLayout final : public QObject
{
public:
    PlaceholderLayout(QWidget *content, Spinner *spinner, QLabel *label)
        : QObject(content), m_content(content), m_spinner(spinner), m_label(label)
    {
        content->installEventFilter(this);
        place();
    }

    bool eventFilter(QObject *watched, QEvent *event) override
    {
        if (watched == m_content && (event->type() == QEvent::Resize || event->type() == QEvent::Show))
            place();
        return false;
    }

private:
    void place()
    {
        if (!m_spinner || !m_label)
            return;
        const QPoint centre = m_content->rect().center();
        const QSize spinnerSize = m_spinner->size();
        m_spinner->move(centre.x() - spinnerSize.width() / 2, centre.y() - 12 - spinnerSize.height() / 2);
        m_label->adjustSize();
        m_label->move(centre.x() - m_label->width() / 2, m_spinner->geometry().bottom() + 1 + 8);
    }

    QWidget *m_content;
    QPointer<Spinner> m_spinner;
    QPointer<QLabel> m_label;
};

// The virtual camera can vanish while the app runs (its device deleted, its module
// unloaded); its sink then stops writing and reports itself lost. The first poll that
// sees this takes the link down and shows what the window shows when there is no
// virtual camera: the connecting placeholder, and the console line of a camera not
// found. The lost sink stays in sinkQueue as the mark of that state (its streams are
// gone, the gate is closed); each later poll connects again once the camera is listed.
void followLostVirtualCamera(ViewController &vc)
{
    if (!vc.sinkQueue || !vc.sinkQueue->isLost())
        return;
    if (vc.sinkStream || vc.sourceStream) {
        vc.sinkStream.reset();
        vc.sourceStream.reset();
        vc.needToStream = false;
        vc.enqueued = false;
        vc.readyToEnqueue = false;
        delete vc.virtualCameraView;
        vc.virtualCameraView = nullptr;
        if (vc.previewSpinner) {
            vc.previewSpinner->show();
            vc.previewSpinner->startAnimation();
        }
        consoleLine(QStringLiteral("Erreur : Caméra virtuelle 'Vistrel' non trouvée."));
        return;
    }
    vcam::VirtualCameraSystem *system = vc.services().virtualCamera;
    if (!system || !vcam::virtualCameraCaptureDevice(*system))
        return;
    vc.connectVirtualCamera();
    if (!vc.sinkQueue->isLost())
        vc.showVirtualCameraPreview();
}

} // namespace

void ViewController::startVirtualCameraLink()
{
    setupDefaultCapture();

    // Owned here and never displayed: explicitly hidden so it stays out of sight when
    // the window shows, and not a top-level window of its own.
    debugCaption = std::make_unique<QLabel>(this);
    debugCaption->setVisible(false);
    debugCaption->setGeometry(0, 0, 200, 24);
    debugCaption->setTextInteractionFlags(Qt::NoTextInteraction);
    debugCaption->setAutoFillBackground(false);

    connectVirtualCamera();

    if (timer)
        delete timer;
    timer = new QTimer(this);
    timer->setTimerType(Qt::PreciseTimer);
    timer->setInterval(1000 / 30);
    connect(timer, &QTimer::timeout, this, &ViewController::fireTimer);
    timer->start();

    if (propTimer)
        delete propTimer;
    propTimer = new QTimer(this);
    propTimer->setInterval(2000);
    connect(propTimer, &QTimer::timeout, this, &ViewController::propertyTimer);
    propTimer->start();

    setupCameraControls();
    requestActivation();
    showVirtualCameraPreview();
    warnIfExtensionNotActivated();
}

void ViewController::connectVirtualCamera()
{
    vcam::VirtualCameraSystem *system = m_services.virtualCamera;
    if (!system)
        return;
    const auto device = vcam::getDevice(*system, vcam::kVirtualCameraName);
    if (!device)
        return;
    const auto deviceObject = vcam::findDeviceByUID(*system, device->uniqueID);
    if (!deviceObject)
        return;
    const std::vector<vcam::ObjectID> streams = vcam::getStreams(*system, *deviceObject);
    if (streams.size() == 2) {
        sinkStream = streams[1];
        showMessage(QStringLiteral("found sink stream"));
        initSink(*deviceObject, streams[1]);
    }
    if (!streams.empty()) {
        sourceStream = streams[0];
        showMessage(QStringLiteral("found source stream"));
    }
}

void ViewController::showConnectingPlaceholder()
{
    if (!boxPreview)
        qFatal("ViewController: the outlet boxPreview is not connected");
    QWidget *content = boxPreview;
    for (QWidget *child : content->findChildren<QWidget *>(Qt::FindDirectChildrenOnly))
        child->hide();

    auto *spinner = new Spinner(content);
    auto *label = new QLabel(QStringLiteral("Connecting to camera…"), content);
    QFont font = label->font();
    font.setPointSize(12);
    label->setFont(font);
    label->setAlignment(Qt::AlignCenter);
    label->setForegroundRole(QPalette::PlaceholderText);
    label->setFrameShape(QFrame::NoFrame);
    label->setAutoFillBackground(false);
    label->setTextInteractionFlags(Qt::NoTextInteraction);
    new PlaceholderLayout(content, spinner, label);
    spinner->show();
    label->show();

    spinner->startAnimation();
    previewSpinner = spinner;
}

void ViewController::showVirtualCameraPreview()
{
    vcam::VirtualCameraSystem *system = m_services.virtualCamera;
    if (!system)
        return;
    const auto device = vcam::findVirtualCameraCaptureDevice(*system);
    if (!device)
        return;
    const QString inputError = system->captureInputError(*device);
    if (!inputError.isEmpty()) {
        consoleLine(QStringLiteral("Erreur lors de la configuration de la caméra virtuelle : ") + inputError);
        return;
    }
    // The preview sits above the placeholder and shows the frames as they are sent;
    // the spinner goes once the first of them is on screen.
    auto *preview = new vcam::LoopbackPreview(boxPreview, this);
    preview->show();
    virtualCameraView = preview;
}

void ViewController::initSink(vcam::ObjectID device, vcam::ObjectID stream)
{
    _videoDescription = std::make_shared<vcam::VideoFormatDescription>(
        vcam::VideoFormatDescription{vcam::codes::pixelFormatBGRA, vcam::kFrameWidth, vcam::kFrameHeight});

    std::shared_ptr<vcam::SimpleQueue> queue;
    const vcam::Status copied = m_services.virtualCamera->copyBufferQueue(
        stream, [this] { sinkQueueAltered(); }, &queue);
    if (copied != 0) {
        showMessage(QStringLiteral("error starting sink"));
        return;
    }
    if (queue) {
        sinkQueue = queue;
        _bufferPool = std::make_shared<vcam::PixelBufferPool>(_videoDescription->width, _videoDescription->height,
                                                              _videoDescription->codecType,
                                                              queue->capacity() + kPoolExtraBuffers);
    }
    const vcam::Status started = m_services.virtualCamera->startStream(device, stream);
    showMessage(started != 0 ? QStringLiteral("initSink error startstream") : QStringLiteral("initSink started"));
}

void ViewController::sinkQueueAltered()
{
    readyToEnqueue.store(true, std::memory_order_release);
}

void ViewController::fireTimer()
{
    if (!needToStream)
        return;
    if (!sinkQueue)
        return;
    if (!currentImage)
        return;
    if (enqueued && !readyToEnqueue.load(std::memory_order_acquire))
        return;
    enqueued = true;
    readyToEnqueue.store(false, std::memory_order_release);
    enqueueFrame(*sinkQueue, *currentImage);
}

void ViewController::enqueueFrame(vcam::SimpleQueue &queue, const QImage &image)
{
    if (queue.count() >= queue.capacity()) {
        consoleLine(QStringLiteral("error enqueuing"));
        return;
    }
    if (!_bufferPool)
        qFatal("ViewController: frame submitted without a pixel buffer pool");
    std::shared_ptr<vcam::PixelBuffer> buffer = _bufferPool->createPixelBuffer();
    if (!buffer) {
        consoleLine(QStringLiteral("error getting pixel buffer"));
        return;
    }
    vcam::drawFrame(*buffer, image, mirrorCamera);

    if (!_videoDescription)
        qFatal("ViewController: frame submitted without a video format description");
    if (auto *preview = qobject_cast<vcam::LoopbackPreview *>(virtualCameraView)) {
        if (preview->showFrame(buffer) && previewSpinner) {
            previewSpinner->stopAnimation();
            previewSpinner->hide();
        }
    }
    queue.enqueue(vcam::SampleBuffer{std::move(buffer), _videoDescription, vcam::hostTimeNanoseconds()});
}

void ViewController::pollStreamState()
{
    if (!sourceStream || !m_services.virtualCamera)
        return;
    vcam::writeJustProperty(*m_services.virtualCamera, *sourceStream, QStringLiteral("random"));
    if (const auto value = vcam::readJustProperty(*m_services.virtualCamera, *sourceStream))
        needToStream = (*value == QLatin1String("sc=1"));
}

void ViewController::propertyTimer()
{
    followLostVirtualCamera(*this);
    pollStreamState();
}

} // namespace vistrel
