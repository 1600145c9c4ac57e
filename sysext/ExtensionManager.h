#pragma once
#include <QPointer>
#include <QString>
#include <memory>

namespace vistrel::sysext {

// Failures are numbered like the other platform's system-extension errors.
inline const QString kSystemExtensionErrorDomain = QStringLiteral("OSSystemExtensionErrorDomain");
enum ExtensionErrorCode : int {
    UnknownError = 1,
    UnsupportedParentBundleLocation = 3, // not installed on this computer (build tree, helper or policy missing)
    ModuleNotInstalled = 4,              // the v4l2loopback kernel module is missing
    ForbiddenBySystemPolicy = 10,        // polkit said no (pkexec: "Not authorized")
    RequestCanceled = 11,                // the password prompt was dismissed
    AuthorizationRequired = 13,          // polkit could not ask: no authentication agent
};

// What a finished request reports.
enum RequestResult : int { Completed = 0, WillCompleteAfterReboot = 1 };
// The answer to a replacement question.
enum ReplacementAction : int { CancelReplacement = 0, Replace = 1 };

struct ExtensionRequestError
{
    QString domain;
    int code = UnknownError;
    QString description;
};

// The four answers a request gives, always on the main thread.
class ExtensionRequestDelegate
{
public:
    virtual ~ExtensionRequestDelegate() = default;
    virtual int actionForReplacingExtension(const QString &existingVersion, const QString &newVersion) = 0;
    virtual void requestNeedsUserApproval() = 0;
    virtual void requestDidFinishWithResult(int result) = 0;
    virtual void requestDidFailWithError(const ExtensionRequestError &error) = 0;
};

// Hands a request's answers to an object with the four answer methods (the view
// controller, the application delegate) for as long as that object lives.
template<typename Target>
class ForwardingRequestDelegate final : public ExtensionRequestDelegate
{
public:
    explicit ForwardingRequestDelegate(Target *target) : m_target(target) {}
    int actionForReplacingExtension(const QString &existingVersion, const QString &newVersion) override
    {
        return m_target ? m_target->actionForReplacingExtension(existingVersion, newVersion) : Replace;
    }
    void requestNeedsUserApproval() override
    {
        if (m_target)
            m_target->requestNeedsUserApproval();
    }
    void requestDidFinishWithResult(int result) override
    {
        if (m_target)
            m_target->requestDidFinishWithResult(result);
    }
    void requestDidFailWithError(const ExtensionRequestError &error) override
    {
        if (m_target)
            m_target->requestDidFailWithError(error);
    }

private:
    QPointer<Target> m_target;
};

template<typename Target>
std::shared_ptr<ExtensionRequestDelegate> delegateFor(Target *target)
{
    return std::make_shared<ForwardingRequestDelegate<Target>>(target);
}

enum class RequestKind { Activation, Deactivation };

struct ExtensionRequest
{
    RequestKind kind = RequestKind::Activation;
    QString identifier;
    std::shared_ptr<ExtensionRequestDelegate> delegate; // may be empty: answers go nowhere
};

// Installs and removes the camera extension. Submitting never blocks; the answers
// arrive later on the main thread, never before submitRequest has returned.
class ExtensionManager
{
public:
    virtual ~ExtensionManager() = default;
    virtual void submitRequest(ExtensionRequest request) = 0;
};

} // namespace vistrel::sysext
