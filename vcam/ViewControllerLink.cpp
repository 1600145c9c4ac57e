// The virtual-camera link of the controller.
#include "camera/ViewController.h"

namespace vistrel {

// The virtual-camera link is not wired yet: no device is looked up and no frame is sent until it lands.
void ViewController::startVirtualCameraLink() {}
void ViewController::connectVirtualCamera() {}
void ViewController::showConnectingPlaceholder() {}
void ViewController::showVirtualCameraPreview() {}
void ViewController::initSink(vcam::ObjectID, vcam::ObjectID) {}
void ViewController::sinkQueueAltered() {}
void ViewController::enqueueFrame(vcam::SimpleQueue &, const QImage &) {}
void ViewController::pollStreamState() {}
void ViewController::fireTimer() {}
void ViewController::propertyTimer() {}

} // namespace vistrel
