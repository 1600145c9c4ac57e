#include "ui/ViewController.h"

#include "camera/CameraRelease.h"
#include "camera/CameraSource.h"
#include "camera/FreezeEffect.h"
#include "camera/VideoFileSource.h"
#include "core/NotificationCenter.h"
#include "core/Platform.h"
#include "core/SystemLog.h"
#include "core/Timers.h"
#include "onboarding/OnboardingManager.h"
#include "ui/ConnectingPlaceholder.h"
#include "ui/ExtensionRequests.h"
#include "ui/LoopbackPreview.h"
#include "ui/Spinner.h"
#include "vcam/FrameSize.h"
#include "vcam/VirtualCameraLink.h"

#include <QApplication>
#include <QComboBox>
#include <QFrame>
#include <QLabel>
#include <QPushButton>

namespace vistrel {
namespace {

template<typename T>
void bindOutlet(ViewController *controller, QPointer<T> &outlet, const char *name)
{
    outlet = controller->findChild<T *>(QString::fromLatin1(name));
    if (!outlet)
        qFatal("ViewController: outlet '%s' is not connected in the interface file", name);
}

} // namespace

ViewController::ViewController(const Services &services, QWidget *parent)
    : QWidget(parent), m_services(services),
      m_effects(std::make_unique<camera::FreezeEffect>(timersOr(services.timers))),
      m_movie(std::make_unique<camera::VideoFileSource>(services.alerts, timersOr(services.timers))),
      m_link(std::make_unique<vcam::VirtualCameraLink>(services.virtualCamera, timersOr(services.timers))),
      m_requests(std::make_unique<ExtensionRequests>(m_services, [this](const QString &text) { showMessage(text); }))
{
    // A frozen picture or a playing movie needs no camera picture; every camera frame
    // becomes one only while someone reads the virtual camera.
    m_camera = std::make_unique<camera::CameraSource>(
        services.cameraDiscovery, QSize(vcam::kFrameWidth, vcam::kFrameHeight),
        [this] { return m_movie->isPlayingVideo() || m_effects->isFrozen(); },
        [this] { return m_link->needToStream(); });

    connect(m_camera.get(), &camera::CameraSource::pictureTaken, this, &ViewController::showPicture);
    connect(m_movie.get(), &camera::VideoFileSource::pictureReady, this, &ViewController::showPicture);
    connect(m_link.get(), &vcam::VirtualCameraLink::message, this, &ViewController::showMessage);
    connect(m_link.get(), &vcam::VirtualCameraLink::frameSent, this, &ViewController::showSentFrame);
    connect(m_link.get(), &vcam::VirtualCameraLink::virtualCameraLost, this, &ViewController::showVirtualCameraGone);
    connect(m_link.get(), &vcam::VirtualCameraLink::virtualCameraBack, this, &ViewController::showVirtualCameraPreview);

    // One announcement for every change the tray, the session bus and the camera light
    // follow, whoever made it: a button, a call from outside, the shutter's switches, a
    // reader that came or left.
    m_effects->setChangeHandler([this] { Q_EMIT stateChanged(); });
    connect(m_movie.get(), &camera::VideoFileSource::playingChanged, this, &ViewController::stateChanged);
    connect(m_camera.get(), &camera::CameraSource::cameraChanged, this, &ViewController::stateChanged);
    connect(m_link.get(), &vcam::VirtualCameraLink::streamingChanged, this, &ViewController::stateChanged);
}

// Timers, sessions and the sink are released with their owners; nothing is stopped
// explicitly.
ViewController::~ViewController() = default;

void ViewController::bindOutlets()
{
    bindOutlet(this, m_popUpButton, "popUpButton");
    bindOutlet(this, m_shutterButton, "shutterButton");
    bindOutlet(this, m_freezeButton, "freezeButton");
    bindOutlet(this, m_statusLabel, "statusLabel");
    bindOutlet(this, m_statusIndicator, "statusIndicator");
    bindOutlet(this, m_videoPreviewView, "videoPreviewView");
    bindOutlet(this, m_boxPreview, "boxPreview");
    bindOutlet(this, m_stopVideoBtn, "stopVideoBtn");
}

void ViewController::viewDidLoad()
{
    m_stopVideoBtn->setEnabled(false);

    setAutoFillBackground(true);
    QPalette background = palette();
    background.setColor(QPalette::Window, Qt::white);
    setPalette(background);

    showConnectingPlaceholder();

    if (!OnboardingManager(m_services).isOnboardingNeeded()) {
        startVirtualCameraLink();
    } else {
        // The camera is not touched before onboarding has finished.
        m_services.notifications->addObserver(kMainWindowShown, this, [this] { mainWindowShown(); });
    }

    for (QWidget *candidate : QApplication::topLevelWidgets()) {
        if (qstrcmp(candidate->metaObject()->className(), "QMainWindow") == 0) {
            m_window = candidate;
            break;
        }
    }
}

void ViewController::showMessage(const QString &text)
{
    consoleLine(QStringLiteral("showMessage ") + text);
    QMetaObject::invokeMethod(
        this,
        [this, text] {
            if (m_debugCaption)
                m_debugCaption->setText(m_debugCaption->text() + text + QLatin1Char('\n'));
        },
        Qt::QueuedConnection);
}

// --- The start-up and the preview ------------------------------------------------

void ViewController::startVirtualCameraLink()
{
    m_camera->setupDefaultCapture();

    // Never displayed: explicitly hidden so it stays out of sight when the window shows.
    delete m_debugCaption;
    m_debugCaption = new QLabel(this);
    m_debugCaption->setObjectName(QStringLiteral("debugCaption"));
    m_debugCaption->setVisible(false);
    m_debugCaption->setGeometry(0, 0, 200, 24);
    m_debugCaption->setTextInteractionFlags(Qt::NoTextInteraction);
    m_debugCaption->setAutoFillBackground(false);

    m_link->connectVirtualCamera();
    m_link->startTimers();

    setupCameraControls();
    m_requests->requestActivation();
    showVirtualCameraPreview();
    m_requests->warnIfExtensionNotActivated();

    // The camera's light goes off while nobody sees its pictures: the window hidden and
    // no reader of the virtual camera. Where the driver cannot tell whether anyone reads,
    // the link always streams, and the camera stays on.
    m_cameraRelease = std::make_unique<camera::CameraRelease>(
        timersOr(m_services.timers), kCameraReleaseGrace,
        camera::CameraRelease::Actions{[this] { return isVisible() || m_link->needToStream(); },
                                       [this] { return m_camera->isCameraReleased(); },
                                       [this] { m_camera->releaseCamera(); }, [this] { m_camera->reopenCamera(); },
                                       [this] { m_link->pollStreamState(); }});
    connect(this, &ViewController::stateChanged, this, [this] { m_cameraRelease->update(); });
    m_cameraRelease->update();
}

void ViewController::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    if (m_cameraRelease)
        m_cameraRelease->update();
}

void ViewController::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    if (m_cameraRelease)
        m_cameraRelease->update();
}

void ViewController::showConnectingPlaceholder()
{
    if (!m_boxPreview)
        qFatal("ViewController: the outlet boxPreview is not connected");
    m_previewSpinner = vistrel::showConnectingPlaceholder(m_boxPreview);
}

void ViewController::showVirtualCameraPreview()
{
    if (!m_link->virtualCameraReadable())
        return;
    // The preview sits above the placeholder and shows the frames as they are sent;
    // the spinner goes once the first of them is on screen.
    auto *preview = new LoopbackPreview(m_boxPreview, this);
    preview->show();
    m_virtualCameraView = preview;
}

void ViewController::showSentFrame(const std::shared_ptr<const vcam::PixelBuffer> &frame)
{
    if (m_virtualCameraView && m_virtualCameraView->showFrame(frame) && m_previewSpinner) {
        m_previewSpinner->stopAnimation();
        m_previewSpinner->hide();
    }
}

// What the window shows when there is no virtual camera: the connecting placeholder.
void ViewController::showVirtualCameraGone()
{
    delete m_virtualCameraView;
    if (m_previewSpinner) {
        m_previewSpinner->show();
        m_previewSpinner->startAnimation();
    }
}

void ViewController::showPicture(const QImage &picture)
{
    m_link->setCurrentImage(picture);
}

// --- Camera, Freeze and Stutter --------------------------------------------------

void ViewController::setupCameraControls()
{
    connect(m_freezeButton.data(), &QPushButton::clicked, this, &ViewController::toggleFreeze, Qt::UniqueConnection);
    connect(m_shutterButton.data(), &QPushButton::clicked, this, &ViewController::toggleShutter, Qt::UniqueConnection);
    connect(m_popUpButton.data(), &QComboBox::activated, this, [this] { cameraSelected(m_popUpButton); });

    // The chooser joins the controller's own view, wherever the interface file put it.
    if (m_popUpButton->parentWidget() != this) {
        m_popUpButton->setParent(this);
        m_popUpButton->show();
    }

    const std::vector<camera::CameraDevice> &devices = m_camera->discoverCameras();
    if (devices.empty()) {
        consoleLine(QStringLiteral("Aucune caméra détectée"));
        return;
    }
    m_popUpButton->clear();
    for (const camera::CameraDevice &device : devices)
        m_popUpButton->addItem(device.localizedName);
    m_popUpButton->setCurrentIndex(0);
    m_camera->useCamera(0);
}

void ViewController::selectCamera(int index)
{
    m_popUpButton->setCurrentIndex(index);
    cameraSelected(m_popUpButton);
}

void ViewController::cameraSelected(QObject *)
{
    m_camera->cameraSelected(m_popUpButton->currentIndex());
}

void ViewController::toggleFreeze()
{
    // The title and the held state change before the flag, whose change announces them,
    // so whoever follows stateChanged finds them matching the new flag.
    m_freezeHeld = !m_effects->isFrozen();
    m_freezeButton->setText(m_freezeHeld ? QStringLiteral("Unfreeze") : QStringLiteral("Freeze"));
    m_effects->toggleFreeze();
}

void ViewController::toggleShutter()
{
    const bool wasActive = m_effects->toggleShutter();
    m_shutterButton->setText(wasActive ? QStringLiteral("Stutter") : QStringLiteral("Stop"));
}

// --- Movies ----------------------------------------------------------------------

void ViewController::openVideoFile(QObject *)
{
    if (!m_services.fileDialogs)
        return;
    QPointer<ViewController> self(this);
    m_services.fileDialogs->chooseMovie(this, [self](std::optional<QString> file) {
        if (!self || !file || file->isEmpty())
            return;
        self->openMovie(*file);
    });
}

bool ViewController::openMovie(const QString &filePath)
{
    // Refused before anything changes: what plays now (camera or movie) goes on.
    if (!m_movie->acceptsFile(filePath))
        return false;
    m_camera->resumeCapture();
    playVideo(filePath);
    m_stopVideoBtn->setEnabled(true);
    return true;
}

void ViewController::playVideo(const QString &filePath)
{
    m_movie->playVideo(filePath);
}

// Freeze and Stutter go on as they were: they hold the camera's pictures, not a movie's.
void ViewController::stopVideoPlayback(QObject *)
{
    m_movie->stopVideoPlayback();
}

void ViewController::stopVideo(QObject *sender)
{
    stopVideoPlayback(sender);
}

// --- The window and the extension ------------------------------------------------

void ViewController::toggleWindow()
{
    if (!m_window) {
        consoleLine(QStringLiteral("Erreur : Fenêtre principale non trouvée!"));
        return;
    }
    // Unlike the status item, this neither places the window nor debounces.
    if (!m_window->isVisible()) {
        m_window->show();
        m_window->raise();
        m_window->activateWindow();
        m_services.application->activateIgnoringOtherApps();
    } else {
        m_window->hide();
    }
}

void ViewController::closeApp(QObject *)
{
    const AlertSpec confirmation{QStringLiteral("Exit Vistrel"),
                                 QStringLiteral("Are you sure you want to exit Vistrel?"),
                                 AlertStyle::Warning,
                                 {QStringLiteral("Exit"), QStringLiteral("Cancel")}};
    if (m_services.alerts->runModal(confirmation) == 0)
        m_services.application->terminate();
}

void ViewController::mainWindowShown()
{
    // The start-up that loading deferred while onboarding was pending; runs once.
    startVirtualCameraLink();
    m_services.notifications->removeObserver(this, kMainWindowShown);
}

void ViewController::activate(QObject *)
{
    m_requests->requestActivation();
}

void ViewController::deactivate(QObject *)
{
    m_requests->requestDeactivation();
}

} // namespace vistrel
