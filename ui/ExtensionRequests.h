#pragma once
#include "core/Services.h"

#include <QObject>
#include <functional>

namespace vistrel {
namespace sysext {
struct ExtensionRequestError;
enum class RequestKind;
} // namespace sysext

// The main window's requests to activate or deactivate the camera extension, and their
// four answers, told through the window's message line. Also the warning shown at start
// when the extension is installed but not active.
//
// Threads: the main thread; the answers arrive there too.
class ExtensionRequests : public QObject
{
    Q_OBJECT
public:
    ExtensionRequests(const Services &services, std::function<void(const QString &)> showMessage,
                      QObject *parent = nullptr);

    void requestActivation();
    void requestDeactivation();
    void requestExtensionChange(sysext::RequestKind kind);
    void warnIfExtensionNotActivated();
    // What the last request asked for: the answers' messages depend on it.
    bool activating() const { return m_activating; }

    // The answers.
    int actionForReplacingExtension(const QString &existingVersion, const QString &newVersion);
    void requestNeedsUserApproval();
    void requestDidFinishWithResult(int result);
    void requestDidFailWithError(const sysext::ExtensionRequestError &error);

private:
    const Services &m_services;
    const std::function<void(const QString &)> m_showMessage;
    bool m_activating = false;
};

} // namespace vistrel
