#include "vcam/PropertyAccess.h"

#include "core/SystemLog.h"

namespace vistrel::vcam {

namespace {

PropertyAddress globalAddress(FourCharCode selector)
{
    return {selector, codes::scopeGlobal, codes::elementMain};
}

// A list the object does not have reads as an empty one.
std::vector<ObjectID> readObjectList(VirtualCameraSystem &system, ObjectID object, FourCharCode selector)
{
    return system.objectListProperty(object, globalAddress(selector)).value_or(std::vector<ObjectID>{});
}

// A string that cannot be read reads as "".
QString readStringProperty(VirtualCameraSystem &system, ObjectID object, const PropertyAddress &address)
{
    return system.stringProperty(object, address).value_or(QString());
}

} // namespace

std::optional<ObjectID> findDeviceByUID(VirtualCameraSystem &system, const QString &uid)
{
    const PropertyAddress uidAddress = globalAddress(codes::deviceUID);
    for (const ObjectID device : readObjectList(system, kSystemObject, codes::devices)) {
        // Canonically equal strings match, whatever their Unicode composition.
        if (readStringProperty(system, device, uidAddress).normalized(QString::NormalizationForm_C)
            == uid.normalized(QString::NormalizationForm_C))
            return device;
    }
    return std::nullopt;
}

std::vector<ObjectID> getStreams(VirtualCameraSystem &system, ObjectID device)
{
    return readObjectList(system, device, codes::streams);
}

std::optional<QString> readJustProperty(VirtualCameraSystem &system, ObjectID stream)
{
    const PropertyAddress address = globalAddress(makeFourCharCode(QStringLiteral("just")));
    if (!system.hasProperty(stream, address))
        return std::nullopt;
    return readStringProperty(system, stream, address);
}

void writeJustProperty(VirtualCameraSystem &system, ObjectID stream, const QString &value)
{
    const PropertyAddress address = globalAddress(makeFourCharCode(QStringLiteral("just")));
    if (!system.hasProperty(stream, address) || !system.isPropertySettable(stream, address))
        return;
    system.setStringProperty(stream, address, value);
}

std::optional<CaptureDevice> getDevice(VirtualCameraSystem &system, const QString &name)
{
    consoleLine(QStringLiteral("getDevice name= ") + name);
    for (const CaptureDevice &device : system.captureDevices({CaptureDeviceType::ExternalUnknown})) {
        if (device.localizedName == name)
            return device;
    }
    return std::nullopt;
}

std::optional<CaptureDevice> virtualCameraCaptureDevice(VirtualCameraSystem &system)
{
    const auto devices =
        system.captureDevices({CaptureDeviceType::BuiltInWideAngleCamera, CaptureDeviceType::ExternalUnknown});
    for (const CaptureDevice &device : devices) {
        if (device.localizedName == kVirtualCameraName)
            return device;
    }
    return std::nullopt;
}

std::optional<CaptureDevice> findVirtualCameraCaptureDevice(VirtualCameraSystem &system)
{
    auto device = virtualCameraCaptureDevice(system);
    if (!device)
        consoleLine(QStringLiteral("Erreur : Caméra virtuelle 'Vistrel' non trouvée."));
    return device;
}

} // namespace vistrel::vcam
