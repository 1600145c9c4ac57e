#pragma once
#include "core/Services.h"
#include "core/Timers.h"

#include <QColor>
#include <QPointer>
#include <QWidget>
#include <functional>
#include <memory>

class QLabel;
class QPushButton;

namespace vistrel {
namespace sysext {
class ExtensionRequestDelegate;
}

// One set-up step: a tinted symbol on a soft circle, a title and a description, and
// either a "Grant Access" button or a check mark.
class StepRow final : public QWidget
{
    Q_OBJECT
public:
    StepRow(const QString &symbol, const QString &title, QWidget *parent = nullptr);

    void setDescription(const QString &description);
    void setDone(bool done);
    bool isDone() const { return m_done; }
    QColor badgeColor() const;
    QPushButton *actionButton() const { return m_button; }

protected:
    void paintEvent(QPaintEvent *event) override;

private:
    QString m_symbol;
    bool m_done = false;
    QLabel *m_badge = nullptr;
    QLabel *m_description = nullptr;
    QLabel *m_doneMark = nullptr;
    QPushButton *m_button = nullptr;
};

// The set-up screen: camera access and the camera extension, each a row whose state
// follows three flags; "Finish" once all hold. While shown it re-reads the camera
// permission and the extension's state every 2 seconds.
class OnboardingView final : public QWidget
{
    Q_OBJECT
public:
    OnboardingView(const Services &services, std::shared_ptr<sysext::ExtensionRequestDelegate> requestDelegate,
                   std::function<void()> onComplete, QWidget *parent = nullptr);
    ~OnboardingView() override;

    bool isSetupComplete() const;

    // Actions of the rows and the footer.
    void requestCameraAccess();
    void extensionRowAction();
    void installCameraExtension();
    void finishOnboarding();

    void refreshExtensionState();
    void startExtensionRefreshTimer();
    void stopExtensionRefreshTimer();

    // View state, in declaration order.
    bool _cameraPermissionGranted = false;
    bool _extensionInstalled = false;
    bool _extensionActivated = false;
    std::unique_ptr<RepeatingTimer> _extensionRefreshTimer; // every 2 s while shown
    std::function<void()> _dismiss; // closes the hosting window; held, not used by the set-up flow
    std::function<void()> onComplete;

    StepRow *cameraRow() const { return m_cameraRow; }
    StepRow *extensionRow() const { return m_extensionRow; }
    QPushButton *finishButton() const { return m_finishButton; }
    QPushButton *exitButton() const { return m_exitButton; }

protected:
    void showEvent(QShowEvent *event) override;
    void hideEvent(QHideEvent *event) override;

private:
    void onAppear();
    void onDisappear();
    bool cameraAuthorized() const;
    void updateRows();

    Services m_services;
    std::shared_ptr<sysext::ExtensionRequestDelegate> m_requestDelegate;
    StepRow *m_cameraRow = nullptr;
    StepRow *m_extensionRow = nullptr;
    QPushButton *m_exitButton = nullptr;
    QPushButton *m_finishButton = nullptr;
};

} // namespace vistrel
