#pragma once
#include "core/Bundle.h"

#include <QString>

namespace vistrel::sysext {

// The camera extension that ships with the app.
struct ExtensionBundle
{
    QString path;
    QString identifier;   // empty when its manifest names none
    QString shortVersion; // empty when its manifest names none
};

// The first entry, by name, of the app's SystemExtensions folder. The app cannot work
// without it: a missing or unreadable folder, an empty one, or a first entry that is
// not a bundle folder stops the process.
ExtensionBundle extensionBundle(const Bundle &bundle);

// The manifest of the extension folder at `path`; empty fields when unreadable.
ExtensionBundle readExtensionBundle(const QString &path);

} // namespace vistrel::sysext
