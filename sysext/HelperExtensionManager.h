#pragma once
#include "core/Bundle.h"
#include "sysext/CameraExtensionHelper.h"
#include "sysext/ExtensionManager.h"

#include <QObject>
#include <deque>
#include <sys/types.h>

class QProcess;

namespace vistrel::sysext {

// Installs and removes the camera extension through the privileged helper, started
// with pkexec. A request that would change nothing (the bundled configuration is
// installed and its camera is there, or nothing is left to remove) finishes at once
// without asking for a password. One helper runs at a time: a request submitted while
// one runs waits for it, and is then looked at afresh. All answers arrive later on the
// main thread.
class HelperExtensionManager final : public QObject, public ExtensionManager
{
    Q_OBJECT
public:
    static inline const QString kHelperName = QStringLiteral("vistrel-camera-extension-helper");
    static inline const QString kPolicyName = QStringLiteral("app.vistrel.Vistrel.policy");

    struct Config
    {
        QString pkexecPath = QStringLiteral("/usr/bin/pkexec");
        QString helperPath;    // <prefix>/libexec/vistrel/vistrel-camera-extension-helper
        QString policyPath;    // <prefix>/share/polkit-1/actions/app.vistrel.Vistrel.policy
        QString extensionsDir; // <prefix>/share/vistrel/SystemExtensions
        uid_t helperOwner = 0; // the helper runs as root: only root may have written it
        CameraExtensionHelper::Roots roots;
    };
    static Config configFor(const Bundle &bundle);

    explicit HelperExtensionManager(Config config, QObject *parent = nullptr);

    void submitRequest(ExtensionRequest request) override;

private:
    void runNext();
    void run(const ExtensionRequest &request);
    bool alreadyDone(const ExtensionRequest &request, const QString &bundledVersion) const;
    std::optional<QString> installationProblem() const;
    void startHelper(const ExtensionRequest &request);
    void helperFinished(const ExtensionRequest &request, QProcess *process);
    void helperGone(QProcess *process);
    static void fail(const ExtensionRequest &request, int code, const QString &description);

    Config m_config;
    std::deque<ExtensionRequest> m_waiting;
    bool m_helperRunning = false;
};

} // namespace vistrel::sysext
