#pragma once
#include "camera/CameraAuthorization.h"

namespace vistrel::test {

// Camera authorisation whose status the test sets; access requests answer at once.
class FakeCameraAuthorization final : public camera::CameraAuthorization
{
public:
    int status = camera::Authorized;
    int statusReads = 0;

    int authorizationStatus() override
    {
        ++statusReads;
        return status;
    }
    void requestAccess(std::function<void(bool)> answer) override { answer(status == camera::Authorized); }
};

} // namespace vistrel::test
