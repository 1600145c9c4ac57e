#pragma once
#include <QSettings>
#include <QString>
#include <memory>

namespace vistrel {

// The application's standard user defaults over QSettings ("Vistrel"/"Vistrel",
// ~/.config/Vistrel/Vistrel.conf). An absent key, or a value of the wrong type,
// reads as false / 0.
class UserDefaults
{
public:
    // Settings at the standard place for the current user.
    UserDefaults();
    // Settings in the given INI file (tests, tools).
    explicit UserDefaults(const QString &iniFilePath);

    static UserDefaults &standard();

    bool boolForKey(const QString &key) const;
    qint64 integerForKey(const QString &key) const;
    bool hasKey(const QString &key) const;
    void setBool(const QString &key, bool value);
    void setInteger(const QString &key, qint64 value);
    void sync();

private:
    std::unique_ptr<QSettings> m_settings;
};

} // namespace vistrel
