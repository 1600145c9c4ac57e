#include "camera/CameraAuthorization.h"

#include <QDir>
#include <QFile>

#include <unistd.h>

namespace vistrel::camera {

V4l2CameraAuthorization::V4l2CameraAuthorization(QString devRoot) : m_devRoot(std::move(devRoot)) {}

int V4l2CameraAuthorization::authorizationStatus()
{
    const QStringList nodes =
        QDir(m_devRoot).entryList({QStringLiteral("video*")}, QDir::System | QDir::Files | QDir::NoDotAndDotDot);
    int openable = 0;
    for (const QString &node : nodes) {
        const QByteArray path = QFile::encodeName(m_devRoot + QLatin1Char('/') + node);
        if (::access(path.constData(), R_OK | W_OK) == 0)
            ++openable;
    }
    if (nodes.isEmpty() || openable > 0)
        return Authorized;
    return Denied;
}

void V4l2CameraAuthorization::requestAccess(std::function<void(bool granted)> answer)
{
    // There is no prompt on Linux: the answer is the current state, at once.
    answer(authorizationStatus() == Authorized);
}

} // namespace vistrel::camera
