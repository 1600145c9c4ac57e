// The settings file as users and other programs leave it: wrong types and damage read
// as absent, and the app's writes change its own line and nothing else.
#include "app/UserDefaults.h"

#include "SystemLogCapture.h"
#include "TestHome.h"

#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace vistrel;

namespace {

const QString kComplete = QStringLiteral("onboardingComplete");
const QString kInstalled = QStringLiteral("extensionInstalled");
const QString kDismissed = QStringLiteral("updateCheckerDismissedBuild");
const char kBinary[] = "\x7f" "ELF\x00\x00[\xff\n=\n[General\n\x00=\x01\n";

} // namespace

// A hand-edited, half-damaged file: every odd value reads as absent, and each write
// replaces (or adds) exactly one line, leaving comments, raw bytes, foreign values,
// broken sections and line endings byte for byte.
TEST(SettingsTest, WrongTypesReadAsAbsentAndWritesTouchOnlyTheirOwnLine)
{
    const QByteArray huge(1 << 20, 'A');
    const QByteArray damaged = QByteArray("# kept by hand: do not touch\r\n[General]\r\nonboardingComplete=maybe\r\n"
                                          "extensionInstalled=@Variant(\\0\\0\\0\\x7f\\0\\0\\0\\x5Qxyz)\r\n"
                                          "updateCheckerDismissedBuild=99999999999999999999999999\r\n")
                               + QByteArray("blob=\x00\x01\xff\xfe raw\r\n", 15) + "shape=@Rect(1 2 3 4)\r\n[Broken\r\n"
                               + "mine = keep me\r\n[Other]\r\nonboardingComplete=true\r\nhuge=" + huge
                               + "\r\ntruncated=\"no closing quote";
    const struct { const char *name; QByteArray before; bool complete, installed; qint64 dismissed; } reads[] = {
        {"damaged", damaged, false, false, 0},
        {"wrong types", "[General]\nonboardingComplete=1\nextensionInstalled=@Rect(1 2 3 4)\nupdateCheckerDismissedBuild=12.5\n", false, false, 0},
        {"more wrong types", "[General]\nonboardingComplete=TRUE\nextensionInstalled=true, false\nupdateCheckerDismissedBuild=@ByteArray(120)\n", false, false, 0},
        {"binary garbage", QByteArray(kBinary, sizeof kBinary - 1), false, false, 0},
        {"fine", "[General]\nonboardingComplete=true\nextensionInstalled=false\nupdateCheckerDismissedBuild=120\n", true, false, 120},
    };
    for (const auto &c : reads) {
        SCOPED_TRACE(c.name);
        QTemporaryDir folder;
        const QString path = folder.filePath(QStringLiteral("Vistrel.conf"));
        ASSERT_TRUE(test::writeFile(path, c.before));
        UserDefaults defaults(path);
        EXPECT_EQ(defaults.boolForKey(kComplete), c.complete);
        EXPECT_EQ(defaults.boolForKey(kInstalled), c.installed);
        EXPECT_EQ(defaults.integerForKey(kDismissed), c.dismissed);

        // Each write, read back, changes the file by its own line only.
        QByteArray expected = c.before;
        defaults.setBool(kComplete, true);
        defaults.setInteger(kDismissed, 121);
        defaults.setInteger(kDismissed, 131); // same length, same instant
        EXPECT_TRUE(defaults.boolForKey(kComplete));
        EXPECT_EQ(defaults.integerForKey(kDismissed), 131);
        EXPECT_EQ(UserDefaults(path).integerForKey(kDismissed), 131) << "what another reader finds";
        const QByteArray after = test::readFile(path);
        if (&c == &reads[0]) {
            expected.replace("onboardingComplete=maybe\r\n", "onboardingComplete=true\r\n");
            expected.replace("updateCheckerDismissedBuild=99999999999999999999999999\r\n", "updateCheckerDismissedBuild=131\r\n");
            EXPECT_TRUE(after == expected) << "the rest of the file changed";
            EXPECT_FALSE(UserDefaults(path).boolForKey(kInstalled));
        }
        EXPECT_TRUE(UserDefaults(path).boolForKey(kComplete));
    }

    // No general section yet: one is made on top, the rest stays below it.
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("Vistrel.conf"));
    ASSERT_TRUE(test::writeFile(path, "[Other]\nonboardingComplete=false\nx=1"));
    UserDefaults(path).setBool(kInstalled, true);
    EXPECT_EQ(test::readFile(path), QByteArray("[General]\nextensionInstalled=true\n[Other]\nonboardingComplete=false\nx=1"));
    EXPECT_TRUE(UserDefaults(path).boolForKey(kInstalled));
    EXPECT_FALSE(UserDefaults(path).boolForKey(kComplete));

    // A folder where the file belongs: the write is logged and holds for this run.
    const QString blocked = folder.filePath(QStringLiteral("blocked.conf"));
    ASSERT_TRUE(QDir().mkpath(blocked));
    UserDefaults defaults(blocked);
    test::SystemLogCapture log;
    defaults.setBool(kComplete, true);
    EXPECT_TRUE(defaults.boolForKey(kComplete));
    ASSERT_EQ(log.lines().size(), 1);
    EXPECT_TRUE(log.lines()[0].startsWith(QStringLiteral("settings: onboardingComplete not saved to ") + blocked + QStringLiteral(": ")))
        << log.lines()[0].toStdString();
    EXPECT_TRUE(QFileInfo(blocked).isDir() && QDir(blocked).isEmpty());
}
