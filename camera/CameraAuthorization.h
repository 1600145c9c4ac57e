#pragma once
#include <QString>
#include <functional>

namespace vistrel::camera {

// Camera access for video, in the platform's four values.
enum AuthorizationStatus : int {
    NotDetermined = 0,
    Restricted = 1,
    Denied = 2,
    Authorized = 3,
};

class CameraAuthorization
{
public:
    virtual ~CameraAuthorization() = default;
    virtual int authorizationStatus() = 0;
    // Answers (possibly at once) whether access is granted.
    virtual void requestAccess(std::function<void(bool granted)> answer) = 0;
};

// Outside a sandbox a camera is usable when its device node can be opened: authorised
// when every V4L2 video node under `devRoot` is readable and writable by this user
// (also when there is none), denied when there are nodes and none of them is.
class V4l2CameraAuthorization final : public CameraAuthorization
{
public:
    explicit V4l2CameraAuthorization(QString devRoot = QStringLiteral("/dev"));
    int authorizationStatus() override;
    void requestAccess(std::function<void(bool granted)> answer) override;

private:
    QString m_devRoot;
};

} // namespace vistrel::camera
