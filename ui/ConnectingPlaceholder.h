#pragma once

class QWidget;

namespace vistrel {

class Spinner;

// Fills `box` with the "Connecting to camera…" placeholder: its children are hidden, and
// a spinning spinner (answered) and the label are kept centred as the box resizes.
// Main thread.
Spinner *showConnectingPlaceholder(QWidget *box);

} // namespace vistrel
