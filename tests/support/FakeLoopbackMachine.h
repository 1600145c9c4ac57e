#pragma once
// A machine in a temporary folder for the camera extension: sysfs, /etc and /run trees,
// the app's installed extension bundle, and stand-ins for the kernel tools (modprobe,
// modinfo, v4l2loopback-ctl) as small shell scripts that change the fake sysfs the
// way the kernel would. What the "kernel" offers is set with the methods below; every
// tool run is appended to kernel/log.
#include "TestHome.h"

#include <QDir>
#include <QFile>
#include <QStringList>
#include <QTemporaryDir>

namespace vistrel::test {

class FakeLoopbackMachine
{
public:
    static inline const QString kIdentifier = QStringLiteral("app.vistrel.Vistrel.cameraextension");

    FakeLoopbackMachine()
    {
        const QString bundle = root() + QStringLiteral("/share/vistrel/SystemExtensions/") + kIdentifier;
        QDir().mkpath(bundle);
        const QString staged = QStringLiteral(VISTREL_BINARY_DIR "/share/vistrel/SystemExtensions/") + kIdentifier;
        for (const QString &name :
             {QStringLiteral("manifest"), QStringLiteral("modprobe.conf"), QStringLiteral("modules-load.conf")})
            QFile::copy(staged + QLatin1Char('/') + name, bundle + QLatin1Char('/') + name);
        for (const QString &dir :
             {QStringLiteral("etc/modprobe.d"), QStringLiteral("etc/modules-load.d"),
              QStringLiteral("sys/class/video4linux"), QStringLiteral("sys/module"), QStringLiteral("kernel"),
              QStringLiteral("sbin"), QStringLiteral("bin"), QStringLiteral("run")})
            QDir().mkpath(path(dir));
        writeTool(QStringLiteral("sbin/modinfo"), QString::fromUtf8(R"sh(
echo "modinfo $*" >> "$R/kernel/log"
[ -f "$R/kernel/version" ] || { echo "modinfo: ERROR: Module v4l2loopback not found." >&2; exit 1; }
[ "$2" = filename ] && { echo "/lib/modules/fake/updates/dkms/v4l2loopback.ko"; exit 0; }
cat "$R/kernel/version"
)sh"));
        writeTool(QStringLiteral("sbin/modprobe"), QString::fromUtf8(R"sh(
echo "modprobe $*" >> "$R/kernel/log"
M="$R/sys/module/v4l2loopback"
if [ "$1" = "-r" ]; then
  [ -d "$M" ] || exit 0
  [ "$(cat "$M/refcnt")" = 0 ] || { echo "modprobe: FATAL: Module v4l2loopback is in use." >&2; exit 1; }
  rm -rf "$M"
  for d in "$R"/sys/class/video4linux/video*; do [ -f "$d/max_openers" ] && rm -rf "$d"; done
  exit 0
fi
[ -f "$R/kernel/version" ] || { echo "modprobe: FATAL: Module v4l2loopback not found in directory /lib/modules/6.1.0" >&2; exit 1; }
[ -f "$R/kernel/refused" ] && { echo "modprobe: ERROR: could not insert 'v4l2loopback': $(cat "$R/kernel/refused")" >&2; exit 1; }
[ -d "$M" ] && exit 0
label=$(cat "$R"/etc/modprobe.d/*.conf 2>/dev/null | sed -n 's/^options v4l2loopback .*card_label=\([^ ]*\).*/\1/p' | head -1)
mkdir -p "$M" && cp "$R/kernel/version" "$M/version" && echo 0 > "$M/refcnt"
D="$R/sys/class/video4linux/video10"
mkdir -p "$D" && echo "${label:-Dummy video device (0x0000)}" > "$D/name" && touch "$D/max_openers"
)sh"));
        writeTool(QStringLiteral("bin/v4l2loopback-ctl"), QString::fromUtf8(R"sh(
echo "v4l2loopback-ctl $*" >> "$R/kernel/log"
M="$R/sys/module/v4l2loopback"
case "$1" in
add)
  n=10; while [ -d "$R/sys/class/video4linux/video$n" ]; do n=$((n+1)); done
  D="$R/sys/class/video4linux/video$n"
  mkdir -p "$D" && echo "$3" > "$D/name" && touch "$D/max_openers" && echo "/dev/video$n" ;;
delete)
  [ "$(cat "$M/refcnt")" = 0 ] || { echo "failed to delete $2: Device or resource busy" >&2; exit 1; }
  rm -rf "$R/sys/class/video4linux/${2#/dev/}" ;;
*) exit 1 ;;
esac
)sh"));
    }

    QString root() const { return m_dir.path(); }
    QString path(const QString &relative) const { return root() + QLatin1Char('/') + relative; }
    QString modprobeFile() const
    {
        return path(QStringLiteral("etc/modprobe.d/") + kIdentifier + QStringLiteral(".conf"));
    }
    QString modulesLoadFile() const
    {
        return path(QStringLiteral("etc/modules-load.d/") + kIdentifier + QStringLiteral(".conf"));
    }

    // The module is installed on disk (modinfo and modprobe find it) in this version;
    // an empty version is a module without one, as Debian 12's 0.12.7 is built.
    void installModule(const QString &version) { write(QStringLiteral("kernel/version"), version + QLatin1Char('\n')); }
    // The kernel refuses to load the module with this error ("Key was rejected by service").
    void refuseModule(const QString &error) { write(QStringLiteral("kernel/refused"), error); }
    // What /sys/kernel/security/lockdown shows, the mode in force in brackets.
    void setLockdown(const QString &modes)
    {
        write(QStringLiteral("sys/kernel/security/lockdown"), modes + QLatin1Char('\n'));
    }
    // The module is loaded already, with one loopback device of this name.
    void loadModule(const QString &version, const QString &deviceName, int useCount = 0)
    {
        installModule(version);
        write(QStringLiteral("sys/module/v4l2loopback/version"), version + QLatin1Char('\n'));
        setUseCount(useCount);
        addDevice(10, deviceName, true);
    }
    void setUseCount(int count)
    {
        write(QStringLiteral("sys/module/v4l2loopback/refcnt"), QString::number(count) + QLatin1Char('\n'));
    }
    void addDevice(int number, const QString &name, bool loopback)
    {
        const QString device = QStringLiteral("sys/class/video4linux/video") + QString::number(number);
        write(device + QStringLiteral("/name"), name + QLatin1Char('\n'));
        if (loopback)
            write(device + QStringLiteral("/max_openers"), QStringLiteral("10\n"));
    }
    QStringList toolLog() const
    {
        return read(QStringLiteral("kernel/log")).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    }

    // Both take a path inside the machine, or one of its absolute paths (modprobeFile()...).
    void write(const QString &relative, const QString &content) const
    {
        writeFile(absolute(relative), content.toUtf8());
    }
    QString read(const QString &relative) const { return QString::fromUtf8(readFile(absolute(relative))); }

private:
    QString absolute(const QString &file) const { return file.startsWith(QLatin1Char('/')) ? file : path(file); }
    void writeTool(const QString &relative, const QString &body) const
    {
        write(relative, QStringLiteral("#!/bin/sh\nR=\"$(cd \"$(dirname \"$0\")/..\" && pwd)\"\n") + body);
        QFile::setPermissions(path(relative),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner | QFile::ReadGroup
                                  | QFile::ExeGroup | QFile::ReadOther | QFile::ExeOther);
    }

    QTemporaryDir m_dir{QDir::tempPath() + QStringLiteral("/vistrel-machine-XXXXXX")};
};

} // namespace vistrel::test
