#include "platform/host/data_model.h"

#include <gtest/gtest.h>

namespace {

TEST(DataModel, TellsWhatIsWrongInWhichLine)
{
    const std::pair<const char *, const char *> cases[] = {
        {"A", "line 1: an object's path ends in a dot"},
        {"A.b+c.", "line 1: a component"},
        {"A..b.", "line 1: a component"},
        {"A.{j}.", "line 1: a component"},
        {"A.{i}. 0", "line 1: only a table"},
        {"A.{i}. 256", "line 1: only a table"},
        {"A.b. 4", "line 1: only a table"},
        {"A.{i}.\nA.{i}.B.{i}. 4", "line 2: only a table"},
        {"A.{i}.\nA.{i}.B.{i}.{i}.", "line 2: the table above it"},
        {"A.\nA.", "line 2: the object is listed twice"},
        {"A.1.\nA.{i}.", "line 2: its numbers"},
        {"A.{i}.\nA.1.", "line 2: its numbers"},
        {"  p 3", "line 1: a parameter stands before"},
        {"A.\n\n# comment\n  p q 3", "line 4: the length"},
        {"A.\n  p 256", "line 2: the length"},
        {"A.\n  p 3 four", "line 2: the default is longer"},
        {"A.\n  p 3 [", "line 2: its values"},
        {"A.\n  p 3 []", "line 2: its values"},
        {"A.\n  p 3 [a||b]", "line 2: its values"},
        {"A.\n  p 3 [2..1]", "line 2: its values"},
        {"A.\n  p 3 [1..x]", "line 2: its values"},
        {"A.\n  p\"q 3", "line 2: a parameter's name"},
        {"A.\n  p 3\n  p 3", "line 3: the object has a parameter"},
        {"A.\n  n count", "line 2: the table to count is missing"},
        {"A.\n  n count B.{i}.\nA.C.", "line 2: the table it counts is not listed"},
        {"A.\n  n count B.\nA.B.", "line 2: what it counts is not a table"},
    };
    for (const auto &[text, expected] : cases) {
        DataModel model;
        std::string error;
        EXPECT_FALSE(data_model_parse(text, model, error)) << text;
        EXPECT_EQ(error.substr(0, std::string_view(expected).size()), expected) << text;
    }
}

TEST(DataModel, FindsObjectsByTheirNumbers)
{
    DataModel model;
    std::string error;
    ASSERT_TRUE(
        data_model_parse("A.1.T.{i}.\n  p 9  two words \r\nA.1.T.{i}.U.{i}.\nA.1.T.{i}.S.\n", model, error))
        << error;
    EXPECT_EQ(model.objects[0].parameters[0].initial, "two words");
    EXPECT_EQ(model.objects[2].parent, 0);
    const ObjectRef none;
    const std::pair<const char *, ObjectRef> cases[] = {
        {"A.1.T.7.", {0, {7}}},   {"A.1.T.2147483647.U.12.", {1, {2147483647, 12}}},
        {"A.1.T.7.S.", {2, {7}}}, {"A.2.T.7.", none},
        {"A.1.T.07.", none},      {"A.1.T.0.", none},
        {"A.1.T.-7.", none},      {"A.1.T.2147483648.", none},
        {"A.1.T.{i}.", none},     {"A.1.T.7", none},
        {"A.1.T.", none},         {"", none},
    };
    for (const auto &[path, expected] : cases) {
        const ObjectRef found = data_model_find_object(model, path);
        EXPECT_EQ(found, expected) << path;
        EXPECT_EQ(found == none ? path : data_model_path(model, found), path);
    }
    EXPECT_EQ(data_model_find_table(model, "A.1.T.7.U.").object, 1);
    EXPECT_EQ(data_model_find_table(model, "A.1.T.7.S."), none);
}

TEST(DataModel, TellsWhichValuesMakeSense)
{
    DataModel model;
    std::string error;
    ASSERT_TRUE(
        data_model_parse("A.\n  p 9 [Auto|10..200|4000000000..4294967295] no\n  q 9\n", model, error));
    const std::pair<const char *, bool> cases[] = {
        {"Auto", true},       {"auto", false}, {"no", true},   {"", false},   {"9", false},
        {"10", true},         {"200", true},   {"201", false}, {"-5", false}, {"10..200", false},
        {"4294967295", true}, {"15 ", false},  {"0x10", false}};
    for (const auto &[value, allowed] : cases) {
        EXPECT_EQ(data_model_allows(model.objects[0].parameters[0], value), allowed) << value;
        EXPECT_TRUE(data_model_allows(model.objects[0].parameters[1], value)) << value;
    }
}

} // namespace
