#include "camera/ViewController.h"

#include "core/NotificationCenter.h"
#include "core/SystemLog.h"
#include "onboarding/OnboardingManager.h"

#include <QApplication>
#include <QComboBox>
#include <QFrame>
#include <QLabel>
#include <QPushButton>
#include <QTimer>

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
    : QWidget(parent), m_services(services)
{
    image = QImage(QStringLiteral(":/images/cham-index.svg"));
    if (image->isNull())
        image.reset();
    videoQueue = QStringLiteral("videoQueue");
}

// Timers, sessions and the sink are released with their owners; nothing is stopped
// explicitly.
ViewController::~ViewController() = default;

void ViewController::bindOutlets()
{
    bindOutlet(this, popUpButton, "popUpButton");
    bindOutlet(this, shutterButton, "shutterButton");
    bindOutlet(this, freezeButton, "freezeButton");
    bindOutlet(this, statusLabel, "statusLabel");
    bindOutlet(this, statusIndicator, "statusIndicator");
    bindOutlet(this, videoPreviewView, "videoPreviewView");
    bindOutlet(this, boxPreview, "boxPreview");
    bindOutlet(this, stopVideoBtn, "stopVideoBtn");
}

void ViewController::viewDidLoad()
{
    stopVideoBtn->setEnabled(false);

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
            window = candidate;
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
            if (debugCaption)
                debugCaption->setText(debugCaption->text() + text + QLatin1Char('\n'));
        },
        Qt::QueuedConnection);
}

} // namespace vistrel
