#include "onboarding/OnboardingView.h"

#include "core/Timers.h"

#include "camera/CameraAuthorization.h"
#include "core/NotificationCenter.h"
#include "core/Platform.h"
#include "onboarding/OnboardingManager.h"
#include "sysext/CameraExtensionHelper.h"
#include "sysext/ExtensionManager.h"
#include "sysext/ExtensionProbes.h"

#include <QApplication>
#include <QFrame>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QSvgRenderer>
#include <QVBoxLayout>

namespace vistrel {
namespace {

const QColor kGreen(0x34, 0xc7, 0x59);
const QColor kBlue(0x0a, 0x84, 0xff);
const QColor kRed(0xff, 0x3b, 0x30);
const QColor kGrey(0x8e, 0x8e, 0x93);

// A monochrome symbol drawn at `size` points in one colour.
QPixmap symbolPixmap(const QString &symbol, int size, const QColor &colour, qreal scale)
{
    QImage image(QSize(size, size) * scale, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QSvgRenderer renderer(QStringLiteral(":/images/") + symbol + QStringLiteral(".svg"));
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    renderer.render(&painter);
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(image.rect(), colour);
    painter.end();
    QPixmap pixmap = QPixmap::fromImage(image);
    pixmap.setDevicePixelRatio(scale);
    return pixmap;
}

// The application icon at 72 × 72 in a rounded rectangle; empty when there is none.
QPixmap appIconPixmap(qreal scale)
{
    QPixmap pixmap(QSize(72, 72) * scale);
    pixmap.fill(Qt::transparent);
    QSvgRenderer renderer(QStringLiteral(":/images/app.vistrel.Vistrel.svg"));
    if (renderer.isValid()) {
        QPainter painter(&pixmap);
        painter.setRenderHint(QPainter::Antialiasing);
        QPainterPath clip;
        clip.addRoundedRect(QRectF(QPointF(0, 0), QSizeF(72, 72) * scale), 16 * scale, 16 * scale);
        painter.setClipPath(clip);
        renderer.render(&painter);
    }
    pixmap.setDevicePixelRatio(scale);
    return pixmap;
}

QFrame *divider()
{
    auto *line = new QFrame;
    line->setFrameShape(QFrame::HLine);
    line->setFrameShadow(QFrame::Sunken);
    return line;
}

QString colourName(const QColor &colour)
{
    return colour.name(QColor::HexRgb);
}

} // namespace

StepRow::StepRow(const QString &symbol, const QString &title, QWidget *parent) : QWidget(parent), m_symbol(symbol)
{
    auto *layout = new QHBoxLayout(this);
    layout->setContentsMargins(14, 12, 14, 12);
    layout->setSpacing(14);

    m_badge = new QLabel;
    m_badge->setObjectName(QStringLiteral("badge"));
    m_badge->setFixedSize(36, 36);
    m_badge->setAlignment(Qt::AlignCenter);
    layout->addWidget(m_badge, 0, Qt::AlignVCenter);

    auto *texts = new QVBoxLayout;
    texts->setSpacing(2);
    auto *titleLabel = new QLabel(title);
    titleLabel->setObjectName(QStringLiteral("title"));
    QFont titleFont = titleLabel->font();
    titleFont.setWeight(QFont::DemiBold);
    titleLabel->setFont(titleFont);
    m_description = new QLabel;
    m_description->setObjectName(QStringLiteral("description"));
    m_description->setStyleSheet(QStringLiteral("color: %1;").arg(colourName(kGrey)));
    texts->addWidget(titleLabel);
    texts->addWidget(m_description);
    layout->addLayout(texts, 1);

    m_doneMark = new QLabel;
    m_doneMark->setObjectName(QStringLiteral("doneMark"));
    m_doneMark->setPixmap(symbolPixmap(QStringLiteral("checkmark.circle.fill"), 20, kGreen, devicePixelRatioF()));
    m_button = new QPushButton(QStringLiteral("Grant Access"));
    m_button->setObjectName(QStringLiteral("actionButton"));
    m_button->setFlat(true);
    m_button->setCursor(Qt::PointingHandCursor);
    m_button->setStyleSheet(
        QStringLiteral("QPushButton { color: %1; border: none; padding: 4px 6px; }").arg(colourName(kBlue)));
    layout->addWidget(m_doneMark, 0, Qt::AlignVCenter);
    layout->addWidget(m_button, 0, Qt::AlignVCenter);
    setDone(false);
}

void StepRow::setDescription(const QString &description)
{
    m_description->setText(description);
}

QColor StepRow::badgeColor() const
{
    return m_done ? kGreen : kBlue;
}

void StepRow::setDone(bool done)
{
    m_done = done;
    m_doneMark->setVisible(done);
    m_button->setVisible(!done);
    const qreal scale = devicePixelRatioF();
    QPixmap badge(QSize(36, 36) * scale);
    badge.fill(Qt::transparent);
    QPainter painter(&badge);
    painter.setRenderHint(QPainter::Antialiasing);
    QColor circle = badgeColor();
    circle.setAlphaF(0.12f);
    painter.setPen(Qt::NoPen);
    painter.setBrush(circle);
    painter.drawEllipse(QRectF(QPointF(0, 0), QSizeF(36, 36) * scale));
    const QPixmap symbol = symbolPixmap(m_symbol, 22, badgeColor(), scale);
    painter.drawImage(QPointF(7 * scale, 7 * scale), symbol.toImage());
    painter.end();
    badge.setDevicePixelRatio(scale);
    m_badge->setPixmap(badge);
}

void StepRow::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QColor fill = kGrey;
    fill.setAlphaF(0.08f);
    painter.setPen(Qt::NoPen);
    painter.setBrush(fill);
    painter.drawRoundedRect(QRectF(rect()), 10, 10);
}

OnboardingView::OnboardingView(const Services &services,
                               std::shared_ptr<sysext::ExtensionRequestDelegate> requestDelegate,
                               std::function<void()> onCompleteHandler, QWidget *parent)
    : QWidget(parent), onComplete(std::move(onCompleteHandler)), m_services(services),
      m_requestDelegate(std::move(requestDelegate))
{
    _dismiss = [this] {
        if (QWidget *host = window())
            host->close();
    };

    auto *stack = new QVBoxLayout(this);
    stack->setContentsMargins(0, 0, 0, 0);
    stack->setSpacing(0);

    // Header.
    auto *header = new QVBoxLayout;
    header->setContentsMargins(40, 28, 40, 20);
    header->setSpacing(8);
    auto *icon = new QLabel;
    icon->setObjectName(QStringLiteral("appIcon"));
    icon->setFixedSize(72, 72);
    icon->setPixmap(appIconPixmap(devicePixelRatioF()));
    auto *title = new QLabel(QStringLiteral("Welcome to Vistrel"));
    title->setObjectName(QStringLiteral("titleLabel"));
    QFont titleFont = title->font();
    titleFont.setPointSizeF(titleFont.pointSizeF() * 2);
    titleFont.setBold(true);
    title->setFont(titleFont);
    auto *subtitle = new QLabel(QStringLiteral("Complete the steps below to get started."));
    subtitle->setObjectName(QStringLiteral("subtitleLabel"));
    subtitle->setStyleSheet(QStringLiteral("color: %1;").arg(colourName(kGrey)));
    header->addWidget(icon, 0, Qt::AlignHCenter);
    header->addWidget(title, 0, Qt::AlignHCenter);
    header->addWidget(subtitle, 0, Qt::AlignHCenter);
    stack->addLayout(header);
    stack->addWidget(divider());

    // The two steps.
    auto *rows = new QVBoxLayout;
    rows->setContentsMargins(24, 20, 24, 20);
    rows->setSpacing(14);
    m_cameraRow = new StepRow(QStringLiteral("camera.fill"), QStringLiteral("Camera Access"));
    m_cameraRow->setObjectName(QStringLiteral("cameraRow"));
    m_cameraRow->setDescription(QStringLiteral("Allow Vistrel to use your camera."));
    m_extensionRow = new StepRow(QStringLiteral("puzzlepiece.extension.fill"), QStringLiteral("Camera Extension"));
    m_extensionRow->setObjectName(QStringLiteral("extensionRow"));
    rows->addWidget(m_cameraRow);
    rows->addWidget(m_extensionRow);
    rows->addStretch(1);
    stack->addLayout(rows, 1);
    stack->addWidget(divider());

    // Footer.
    auto *footer = new QHBoxLayout;
    footer->setContentsMargins(20, 16, 20, 16);
    m_exitButton = new QPushButton(QStringLiteral("Exit"));
    m_exitButton->setObjectName(QStringLiteral("exitButton"));
    m_exitButton->setStyleSheet(QStringLiteral("QPushButton { color: %1; padding: 4px 14px; }").arg(colourName(kRed)));
    m_finishButton = new QPushButton(QStringLiteral("Finish"));
    m_finishButton->setObjectName(QStringLiteral("finishButton"));
    m_finishButton->setFlat(true);
    footer->addWidget(m_exitButton);
    footer->addStretch(1);
    footer->addWidget(m_finishButton);
    stack->addLayout(footer);

    connect(m_cameraRow->actionButton(), &QPushButton::clicked, this, [this] { requestCameraAccess(); });
    connect(m_extensionRow->actionButton(), &QPushButton::clicked, this, [this] { extensionRowAction(); });
    connect(m_finishButton, &QPushButton::clicked, this, [this] { finishOnboarding(); });
    // At once and without confirmation; the termination handler runs as for any quit.
    connect(m_exitButton, &QPushButton::clicked, this, [this] { m_services.application->terminate(); });
    updateRows();
}

OnboardingView::~OnboardingView() = default;

bool OnboardingView::isSetupComplete() const
{
    return _cameraPermissionGranted && _extensionInstalled && _extensionActivated;
}

bool OnboardingView::cameraAuthorized() const
{
    return m_services.cameraAuthorization->authorizationStatus() == camera::Authorized;
}

void OnboardingView::refreshExtensionState()
{
    const bool stored = OnboardingManager(m_services).extensionInstalled();
    _extensionInstalled = stored || m_services.extensionProbes->isExtensionInstalledProbe();
    _extensionActivated = stored || m_services.extensionProbes->isExtensionActivatedProbe();
    updateRows();
}

void OnboardingView::startExtensionRefreshTimer()
{
    if (!_extensionRefreshTimer)
        _extensionRefreshTimer =
            timersOr(m_services.timers).repeating(std::chrono::seconds(2), Qt::CoarseTimer, [this] {
                _cameraPermissionGranted = cameraAuthorized();
                refreshExtensionState();
            });
    _extensionRefreshTimer->start(); // from now: a timer already running starts its interval again
}

void OnboardingView::stopExtensionRefreshTimer()
{
    if (_extensionRefreshTimer)
        _extensionRefreshTimer->stop();
}

void OnboardingView::onAppear()
{
    _cameraPermissionGranted = cameraAuthorized();
    refreshExtensionState();
    startExtensionRefreshTimer();
}

void OnboardingView::onDisappear()
{
    stopExtensionRefreshTimer();
}

void OnboardingView::showEvent(QShowEvent *event)
{
    QWidget::showEvent(event);
    onAppear();
}

void OnboardingView::hideEvent(QHideEvent *event)
{
    QWidget::hideEvent(event);
    onDisappear();
}

void OnboardingView::requestCameraAccess()
{
    QPointer<OnboardingView> view(this);
    // The answer may come from any thread; the state is touched on the main thread only.
    m_services.cameraAuthorization->requestAccess([view](bool granted) {
        QMetaObject::invokeMethod(
            qApp,
            [view, granted] {
                if (!view)
                    return;
                view->_cameraPermissionGranted = granted;
                view->updateRows();
            },
            Qt::QueuedConnection);
    });
}

void OnboardingView::extensionRowAction()
{
    if (_extensionInstalled && !_extensionActivated) {
        // Installed but not enabled: only the user can enable it.
        sysext::CameraExtensionHelper::openExtensionSettings(*m_services.urlOpener, m_services.bundle);
        return;
    }
    installCameraExtension();
}

void OnboardingView::installCameraExtension()
{
    const int response = m_services.alerts->runModal(
        {QStringLiteral("Install Vistrel Camera Extension"),
         QStringLiteral("Vistrel will now install a system extension to provide you with the Vistrel camera "
                        "functionality. This will require administrator privileges."),
         AlertStyle::Informational,
         {QStringLiteral("Continue"), QStringLiteral("Cancel")}});
    if (response != 0)
        return;
    const auto identifier = sysext::CameraExtensionHelper::extensionIdentifier(m_services.bundle);
    if (!identifier)
        return;

    // One more observer per confirmed installation; the handler is idempotent.
    m_services.notifications->addObserver(kExtensionInstallationComplete, this, [this] {
        QMetaObject::invokeMethod(
            this,
            [this] {
                _extensionInstalled = true;
                refreshExtensionState();
            },
            Qt::QueuedConnection);
    });
    if (m_services.extensionManager)
        m_services.extensionManager->submitRequest({sysext::RequestKind::Activation, *identifier, m_requestDelegate});
}

void OnboardingView::finishOnboarding()
{
    OnboardingManager(m_services).setOnboardingComplete(true);
    if (onComplete)
        onComplete();
}

void OnboardingView::updateRows()
{
    m_cameraRow->setDone(_cameraPermissionGranted);
    const bool extensionDone = _extensionInstalled && _extensionActivated;
    m_extensionRow->setDone(extensionDone);
    m_extensionRow->setDescription(_extensionInstalled && !_extensionActivated
                                       ? QStringLiteral("Enable the extension (see Camera Help).")
                                       : QStringLiteral("Install the virtual camera system extension."));

    const bool complete = isSetupComplete();
    m_finishButton->setEnabled(complete);
    const QColor accent = complete ? palette().color(QPalette::Highlight) : kGrey;
    m_finishButton->setStyleSheet(
        QStringLiteral("QPushButton { color: white; font-size: 14px; font-weight: 600; padding: 8px 24px; "
                       "border: none; border-radius: 8px; background: %1; }")
            .arg(colourName(accent)));
    m_finishButton->setProperty("fillColor", accent);
}

} // namespace vistrel
