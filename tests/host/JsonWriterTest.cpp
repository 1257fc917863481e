#include "host/JsonWriter.h"

#include <gtest/gtest.h>

#include <limits>

namespace Host {
namespace {
TEST(JsonWriter, NestsAndSeparates) {
    JsonWriter json;
    json.BeginObject();
    json.Name("version");
    json.Number(std::uint64_t(1));
    json.Name("files");
    json.BeginArray();
    json.BeginObject();
    json.Name("a");
    json.Boolean(true);
    json.Name("b");
    json.Null();
    json.EndObject();
    json.Text("x");
    json.EndArray();
    json.Name("none");
    json.BeginArray();
    json.EndArray();
    json.EndObject();
    EXPECT_EQ("{\n"
              "  \"version\": 1,\n"
              "  \"files\": [\n"
              "    {\n"
              "      \"a\": true,\n"
              "      \"b\": null\n"
              "    },\n"
              "    \"x\"\n"
              "  ],\n"
              "  \"none\": []\n"
              "}\n",
              json.GetText());
}

std::string WriteText(std::string_view value) {
    JsonWriter json;
    json.Text(value);
    return json.GetText();
}

TEST(JsonWriter, QuotesWhatHasAMeaning) {
    EXPECT_EQ(R"("a\"b\\c")", WriteText("a\"b\\c"));
    EXPECT_EQ(R"("\u0000\u000a\u001b\u007f")", WriteText(std::string_view("\0\n\033\x7F", 4)));
    EXPECT_EQ("\"\xC3\xA9\xEF\xBF\xBD\"", WriteText("\xC3\xA9\xFF"));
}

TEST(JsonWriter, WritesNumbersThatReadBackTheSame) {
    JsonWriter json;
    json.BeginArray();
    json.Number(0.1);
    json.Number(72.0);
    json.Number(std::numeric_limits<std::uint64_t>::max());
    json.Number(std::numeric_limits<double>::infinity());
    json.Number(std::numeric_limits<double>::quiet_NaN());
    json.EndArray();
    EXPECT_EQ("[\n  0.1,\n  72,\n  18446744073709551615,\n  null,\n  null\n]\n", json.GetText());
}
}
}
