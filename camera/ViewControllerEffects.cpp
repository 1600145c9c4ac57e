// Freeze and shutter.
#include "camera/ViewController.h"

namespace vistrel {

// The effects are not wired yet: the buttons do nothing until freeze and shutter land.
void ViewController::toggleFreeze() {}
void ViewController::toggleShutter() {}
void ViewController::freezeEffect() {}

} // namespace vistrel
