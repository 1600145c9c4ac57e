#include "update/LatestResponse.h"
#include "update/UpdateChecker.h"

#include <gtest/gtest.h>

using namespace vistrel;

namespace {

struct BodyCase
{
    const char *name;
    const char *json;
};

// Each body breaks exactly one rule of the record.
const BodyCase kRejected[] = {
    {"not JSON", "<html>502 Bad Gateway</html>"},
    {"empty", ""},
    {"an array", R"([{"latestShortVersion":"1.3","latestBuild":130,"downloadURL":"https://x"}])"},
    {"missing latestShortVersion", R"({"latestBuild":130,"downloadURL":"https://x"})"},
    {"missing latestBuild", R"({"latestShortVersion":"1.3","downloadURL":"https://x"})"},
    {"missing downloadURL", R"({"latestShortVersion":"1.3","latestBuild":130})"},
    {"latestBuild as text", R"({"latestShortVersion":"1.3","latestBuild":"130","downloadURL":"https://x"})"},
    {"latestBuild fractional", R"({"latestShortVersion":"1.3","latestBuild":130.5,"downloadURL":"https://x"})"},
    {"latestBuild past 64 bits", R"({"latestShortVersion":"1.3","latestBuild":9223372036854775808,"downloadURL":"https://x"})"},
    {"latestBuild huge exponent", R"({"latestShortVersion":"1.3","latestBuild":1e300,"downloadURL":"https://x"})"},
    {"latestBuild null", R"({"latestShortVersion":"1.3","latestBuild":null,"downloadURL":"https://x"})"},
    {"minimumBuild as text", R"({"latestShortVersion":"1.3","latestBuild":130,"minimumBuild":"110","downloadURL":"https://x"})"},
    {"minimumBuild fractional", R"({"latestShortVersion":"1.3","latestBuild":130,"minimumBuild":0.5,"downloadURL":"https://x"})"},
    {"version as number", R"({"latestShortVersion":1.3,"latestBuild":130,"downloadURL":"https://x"})"},
    {"releaseNotes as number", R"({"latestShortVersion":"1.3","latestBuild":130,"downloadURL":"https://x","releaseNotes":5})"},
    {"releaseNotesURL as object", R"({"latestShortVersion":"1.3","latestBuild":130,"downloadURL":"https://x","releaseNotesURL":{}})"},
};

} // namespace

TEST(LatestResponseTest, RejectsBodiesThatBreakTheRecord)
{
    for (const BodyCase &c : kRejected) {
        SCOPED_TRACE(c.name);
        EXPECT_FALSE(LatestResponse::decode(QByteArray(c.json)).has_value());
    }
}

TEST(LatestResponseTest, DecodesFullAndMinimalRecordsIgnoringUnknownKeys)
{
    const auto full = LatestResponse::decode(R"({"latestShortVersion":"1.3","latestBuild":130,"minimumBuild":110,
        "downloadURL":"https://vistrel.app/download","releaseNotes":"Faster freeze.",
        "releaseNotesURL":"https://vistrel.app/notes","channel":"beta","extra":[1,2]})");
    ASSERT_TRUE(full.has_value());
    EXPECT_EQ(full->latestShortVersion, QStringLiteral("1.3"));
    EXPECT_EQ(full->latestBuild, 130);
    EXPECT_EQ(full->minimumBuild, 110);
    EXPECT_EQ(full->downloadURL, QStringLiteral("https://vistrel.app/download"));
    EXPECT_EQ(full->releaseNotes, QStringLiteral("Faster freeze."));
    EXPECT_EQ(full->releaseNotesURL, QStringLiteral("https://vistrel.app/notes"));

    const auto minimal = LatestResponse::decode(
        R"({"latestShortVersion":"1.3","latestBuild":130,"minimumBuild":null,"downloadURL":"x","releaseNotes":null})");
    ASSERT_TRUE(minimal.has_value());
    EXPECT_FALSE(minimal->minimumBuild.has_value());
    EXPECT_FALSE(minimal->releaseNotes.has_value());
    EXPECT_FALSE(minimal->releaseNotesURL.has_value());
}

TEST(LatestResponseTest, KeepsSixtyFourBitIntegersExactAndRoundTrips)
{
    const auto extreme = LatestResponse::decode(R"({"latestShortVersion":"9","latestBuild":9223372036854775807,
        "minimumBuild":-9223372036854775808,"downloadURL":"https://x"})");
    ASSERT_TRUE(extreme.has_value());
    EXPECT_EQ(extreme->latestBuild, std::numeric_limits<qint64>::max());
    EXPECT_EQ(extreme->minimumBuild, std::numeric_limits<qint64>::min());
    // Just above 2^53, where a double would round.
    const auto odd = LatestResponse::decode(R"({"latestShortVersion":"9","latestBuild":9007199254740993,"downloadURL":"x"})");
    ASSERT_TRUE(odd.has_value());
    EXPECT_EQ(odd->latestBuild, 9007199254740993LL);

    EXPECT_EQ(LatestResponse::decode(extreme->encode()), extreme);
    LatestResponse withNotes = *odd;
    withNotes.releaseNotes = QString();
    withNotes.releaseNotesURL = QStringLiteral("https://n");
    EXPECT_EQ(LatestResponse::decode(withNotes.encode()), withNotes);
    // Absent optional fields are left out rather than written as null.
    EXPECT_FALSE(odd->encode().contains("minimumBuild"));
    EXPECT_FALSE(odd->encode().contains("releaseNotes"));
}

TEST(LatestResponseTest, BuildNumberIsAStrictBaseTenInteger)
{
    const std::pair<QVariant, qint64> cases[] = {
        {QStringLiteral("120"), 120},
        {QStringLiteral("+7"), 7},
        {QStringLiteral("-3"), -3},
        {QStringLiteral("0042"), 42},
        {QStringLiteral("9223372036854775807"), std::numeric_limits<qint64>::max()},
        {QStringLiteral("9223372036854775808"), 0},
        {QStringLiteral("1.2"), 0},
        {QStringLiteral(" 120"), 0},
        {QStringLiteral("120\n"), 0},
        {QStringLiteral(""), 0},
        {QStringLiteral("+"), 0},
        {QStringLiteral("0x10"), 0},
        {QString::fromUtf8("\u0661\u0662\u0660"), 0}, // Arabic-Indic digits
        {QVariant(120), 0},                          // not a string
        {QVariant(), 0},                             // absent
    };
    for (const auto &[value, expected] : cases) {
        SCOPED_TRACE(value.toString().toStdString());
        Bundle bundle;
        if (value.isValid())
            bundle.infoDictionary.insert(QStringLiteral("CFBundleVersion"), value);
        EXPECT_EQ(UpdateChecker::currentBuildNumber(bundle), expected);
    }
}
