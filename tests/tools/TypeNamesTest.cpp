#include "TypeNames.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "ProgramRun.h"
#include "Tool.h"

namespace {

using testing::HasSubstr;
using testing::Not;
using zorrecord::TypeNames;

class TypeNamesTest : public testing::Test
{
 protected:
    static void SetUpTestSuite()
    {
        sDirectory = new zortest::ScratchDirectory;
        sRecording = sDirectory->Path("calls.zor");
        const auto result =
            zortest::RunProgram(RECORDED_PROGRAM, {"tasks"}, {{"ZOR_RECORD", sRecording}});
        ASSERT_EQ(result.exitCode, 0) << result.err;
    }

    static void TearDownTestSuite() { delete sDirectory; }

    /// Reads names from a file with this text.
    TypeNames Named(const std::string& text) const
    {
        zortest::WriteText(path, text);
        TypeNames names;
        names.ReadFile(path);
        return names;
    }

    std::string ErrorOf(const std::string& text) const
    {
        try {
            Named(text);
        } catch (const std::runtime_error& error) {
            return error.what();
        }
        return "";
    }

    /// What the tool prints with these arguments, then --types and the recording.
    std::string Run(std::vector<const char*> arguments)
    {
        arguments.insert(arguments.begin(), "zor-record");
        arguments.insert(arguments.end(), {"--types", path.c_str(), sRecording.c_str()});
        std::ostringstream out;
        std::ostringstream err;
        code = zorrecord::RunTool(static_cast<int>(arguments.size()), arguments.data(), out, err);
        messages = err.str();
        return out.str();
    }

    inline static zortest::ScratchDirectory* sDirectory = nullptr;
    inline static std::string sRecording;

    const std::string path = sDirectory->Path("names");
    int code = -1;
    std::string messages;
};

TEST_F(TypeNamesTest, FileHasANumberAndANameALine)
{
    const TypeNames names = Named(
        "# what the remote control sends\n\n0x64 EV_KEY  # pressed\n 101\tEV_ASK\r\n"
        "0b11 EV_THREE\n0o17 EV_FIFTEEN\n18446744073709551615 EV_LAST");
    EXPECT_EQ(names.NameOf(100), "EV_KEY");
    EXPECT_EQ(names.TextOf(101), "101 (EV_ASK)");
    EXPECT_EQ(names.NameOf(15), "EV_FIFTEEN");
    EXPECT_EQ(names.NameOf(~std::uint64_t{0}), "EV_LAST");
    EXPECT_EQ(names.NameOf(102), "");
    EXPECT_EQ(names.TextOf(102), "102");
}

TEST_F(TypeNamesTest, TasksOwnTypesHaveNamesUnlessTheFileHasOthers)
{
    EXPECT_EQ(TypeNames().TextOf(0), "0 (EVENT_EXIT)");
    EXPECT_EQ(TypeNames().TextOf(5), "5 (EVENT_RESUME)");
    EXPECT_EQ(TypeNames().TextOf(6), "6");
    EXPECT_EQ(Named("2 EV_MINE\n").TextOf(2), "2 (EV_MINE)");
    EXPECT_EQ(Named("2 EV_MINE\n").TextOf(3), "3 (EVENT_CLEAR_QUEUE)");
}

TEST_F(TypeNamesTest, OtherLinesAreRefusedWithTheirNumber)
{
    for (const char* line : {"one EV_ONE", "1", "1 EV_ONE EV_TWO", "-1 EV_ONE", "1x EV_ONE",
                             "0x EV_ONE", "99999999999999999999 EV_ONE"}) {
        EXPECT_EQ(ErrorOf("7 EV_SEVEN\n\n" + std::string(line) + "\n"),
                  "'" + path + "', line 3: not a number and a name, as in '101 EV_ASK'")
            << line;
    }
    EXPECT_EQ(ErrorOf(""), "");
}

TEST_F(TypeNamesTest, FileThatCannotBeReadIsSaid)
{
    Named("200 EV_OUTER\n");
    const std::string missing = sDirectory->Path("missing");
    Run({"print", "--types", missing.c_str()}); // given twice: refused
    EXPECT_EQ(code, 1);
    TypeNames names;
    try {
        names.ReadFile(missing);
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(error.what(),
                  "No such file or directory: the names of event types in '" + missing + "'");
    }
    EXPECT_THROW(names.ReadFile(sDirectory->Path("")), std::runtime_error);
}

TEST_F(TypeNamesTest, EveryCommandShowsThem)
{
    Named("200 EV_OUTER\n201 EV_INNER\n100 EV_\xFF\"<b>\n");
    EXPECT_THAT(Run({"print"}), HasSubstr(" type=200(EV_OUTER) param1="));
    EXPECT_THAT(Run({"print"}), HasSubstr(" type=100(EV_\\xff\\x22<b>) param1="));
    EXPECT_THAT(Run({"print"}), HasSubstr(" type=500 param1="));
    EXPECT_THAT(Run({"top"}), HasSubstr("  EV_INNER\n"));
    EXPECT_THAT(Run({"path", "--type", "200"}), HasSubstr(" type 200 (EV_OUTER) for "));
    EXPECT_THAT(Run({"path", "--type", "200"}),
                HasSubstr("type 201 (EV_INNER) waits in the queue"));
    const auto trace = nlohmann::json::parse(Run({"export"})).at("traceEvents");
    int named = 0;
    for (const auto& event : trace) {
        if (event.value("name", "") == "send 201 (EV_INNER)") {
            EXPECT_EQ(event.at("args").at("type_name"), "EV_INNER");
            ++named;
        }
    }
    EXPECT_EQ(named, 1);
    const auto top = nlohmann::json::parse(Run({"top", "--json", "--type", "201"}));
    EXPECT_EQ(top.at(0).at("type_name"), "EV_INNER");
    const auto path = nlohmann::json::parse(Run({"path", "--json", "--type", "201"}));
    EXPECT_EQ(path.at("type_name"), "EV_INNER");
    EXPECT_EQ(code, 0);
    EXPECT_EQ(messages, "");
}

TEST_F(TypeNamesTest, TypeIsAskedForByItsNameAsWell)
{
    Named("201 EV_INNER\n");
    const std::string byName = Run({"print", "--type", "EV_INNER"});
    EXPECT_THAT(byName, HasSubstr(" type=201(EV_INNER) "));
    EXPECT_THAT(byName, Not(HasSubstr(" type=200 ")));
    EXPECT_EQ(byName, Run({"print", "--type", "0xc9"}));
    EXPECT_EQ(Run({"print", "--type", "EV_OTHER"}), "");
    EXPECT_EQ(code, 1);
    EXPECT_EQ(messages,
              "zor-record: 'EV_OTHER' is neither a number nor the name of an event type\n");
}

} // namespace
