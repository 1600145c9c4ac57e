#pragma once

namespace vistrel {
class UserDefaults;
struct Services;
namespace camera {
class CameraAuthorization;
}
namespace sysext {
class ExtensionProbes;
}

inline constexpr const char *kOnboardingCompleteKey = "onboardingComplete";
inline constexpr const char *kExtensionInstalledKey = "extensionInstalled";

// The onboarding-needed test and the reads/writes of the two persisted flags.
// Keeps no state of its own.
class OnboardingManager
{
public:
    OnboardingManager(UserDefaults &defaults, camera::CameraAuthorization &authorization,
                      sysext::ExtensionProbes &probes);
    explicit OnboardingManager(const Services &services);

    bool isOnboardingNeeded() const;

    bool onboardingComplete() const;
    void setOnboardingComplete(bool complete);
    bool extensionInstalled() const;

private:
    UserDefaults &m_defaults;
    camera::CameraAuthorization &m_authorization;
    sysext::ExtensionProbes &m_probes;
};

} // namespace vistrel
