// Camera discovery, selection and capture.
#include "camera/ViewController.h"

namespace vistrel {

// Camera discovery is not wired yet: no camera is offered until the GStreamer device monitor lands.
std::vector<camera::CameraDevice> ViewController::discoverCameras() { return {}; }
// Camera controls are not wired yet: the chooser and effect buttons keep the interface file's state.
void ViewController::setupCameraControls() {}
// Capture is not wired yet: no session runs until the GStreamer capture pipeline lands.
void ViewController::setupDefaultCapture() {}
void ViewController::configureCapture(const camera::CameraDevice &) {}
void ViewController::processCameraFrame(GstSample *) {}
void ViewController::cameraSelected(QObject *) {}

} // namespace vistrel
