#pragma once
#include <QString>

namespace vistrel::sysext {

// An extension request's failure, numbered like the other platform's
// system-extension errors.
struct ExtensionRequestError
{
    QString domain;
    int code = 1;
    QString description;
};

class ExtensionManager
{
public:
    virtual ~ExtensionManager() = default;
};

} // namespace vistrel::sysext
