#include "ConsoleCapture.h"
#include "vcam/FourCharCode.h"

#include <gtest/gtest.h>

namespace vistrel::vcam {
namespace {

const QString kFallbackLine = QStringLiteral(
    "FourCharCode: Can't initialize with '%1', only printable ASCII allowed. Setting to '????'.");

TEST(FourCharCodeTest, FoldsFourAsciiCharactersFirstMostSignificant)
{
    test::ConsoleCapture console;
    EXPECT_EQ(makeFourCharCode(QStringLiteral("just")), 0x6A757374u);
    EXPECT_EQ(makeFourCharCode(QStringLiteral("glob")), 0x676C6F62u);
    EXPECT_EQ(makeFourCharCode(QStringLiteral("dev#")), codes::devices);
    EXPECT_EQ(makeFourCharCode(QStringLiteral("uid ")), codes::deviceUID);
    EXPECT_EQ(makeFourCharCode(QStringLiteral("stm#")), codes::streams);
    // Control characters are taken as they are, without a printability test.
    EXPECT_EQ(makeFourCharCode(QStringLiteral("a\tb\x01")), 0x61096201u);
    EXPECT_TRUE(console.lines().isEmpty());
}

TEST(FourCharCodeTest, AnythingButFourAsciiCharactersFallsBackWithALine)
{
    const QStringList rejected = {QStringLiteral("abc"), QStringLiteral("abcde"), QStringLiteral(""),
                                  QStringLiteral("\u00E9tat"), QStringLiteral("e\u0301ta")};
    for (const QString &text : rejected) {
        test::ConsoleCapture console;
        EXPECT_EQ(makeFourCharCode(text), 0x3F3F3F3Fu) << text.toStdString();
        EXPECT_EQ(console.lines(), QStringList{kFallbackLine.arg(text)});
    }
}

TEST(FourCharCodeTest, StringIsTheInverseAndHighBytesStopTheProgram)
{
    EXPECT_EQ(fourCharCodeString(0x676C6F62), QStringLiteral("glob"));
    EXPECT_EQ(fourCharCodeString(codes::pixelFormatBGRA), QStringLiteral("BGRA"));
    for (const QString &code : {QStringLiteral("just"), QStringLiteral("a\tb\x01")})
        EXPECT_EQ(fourCharCodeString(makeFourCharCode(code)), code);
    EXPECT_DEATH(fourCharCodeString(0x41804142), "");
    EXPECT_DEATH(fourCharCodeString(0xFF414243), "");
}

} // namespace
} // namespace vistrel::vcam
