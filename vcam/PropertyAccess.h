#pragma once
#include "vcam/VirtualCameraSystem.h"

#include <QString>
#include <optional>
#include <vector>

namespace vistrel::vcam {

// Stateless property accessors of the virtual-camera link, written against the
// VirtualCameraSystem interface only. Statuses are not reported: missing devices and
// properties surface as absent results or empty lists.

// The first device of the system's device list whose unique identifier equals uid.
std::optional<ObjectID> findDeviceByUID(VirtualCameraSystem &system, const QString &uid);
// The device's streams in the order the system lists them.
std::vector<ObjectID> getStreams(VirtualCameraSystem &system, ObjectID device);
// The stream's "just" text; absent when the stream has no such property, "" when it
// has one that cannot be read.
std::optional<QString> readJustProperty(VirtualCameraSystem &system, ObjectID stream);
// Writes the stream's "just" text when the property exists and is settable.
void writeJustProperty(VirtualCameraSystem &system, ObjectID stream, const QString &value);

// The capture world's view of the virtual camera.
// First external device named exactly `name`; prints "getDevice name= <name>".
std::optional<CaptureDevice> getDevice(VirtualCameraSystem &system, const QString &name);
// The camera named "Vistrel" among built-in and external devices.
std::optional<CaptureDevice> virtualCameraCaptureDevice(VirtualCameraSystem &system);
// The same, with a console line when there is none.
std::optional<CaptureDevice> findVirtualCameraCaptureDevice(VirtualCameraSystem &system);

inline const QString kVirtualCameraName = QStringLiteral("Vistrel");

} // namespace vistrel::vcam
