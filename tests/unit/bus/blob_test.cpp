// Messages from outside: what is refused (the sanitizers watch that nothing beside them is read), and JSON.
#include <memory>

#include <libubox/blobmsg_json.h>

#include "bus_test.h"

namespace {

std::string to_json(blob_attr *attr, int indent = -1)
{
    const std::unique_ptr<char, decltype(&free)> text(blobmsg_format_json_indent(attr, true, indent), free);
    return text.get();
}

std::string nested_arrays(size_t depth)
{
    return R"({"a":)" + std::string(depth, '[') + std::string(depth, ']') + "}";
}

} // namespace

TEST(Blobmsg, RefusesUnsoundAttributes)
{
    const struct {
        const char *what, *attr;
        bool sound;
    } cases[] = {
        {"a string", "8300000d 0001 'n' 00 'abcd' 00", true},
        {"without a name", "03000009 'abcd' 00", true},
        {"an empty array", "81000008 0000 0000", true},
        {"nothing", "", false},
        {"half a header", "8300", false},
        {"a length below the header's", "83000003", false},
        {"a length beyond the end", "8300000e 0001 'n' 00 'abcd' 00", false},
        {"an unknown type", "89000009 0001 'n' 00 00", false},
        {"a name's header cut off", "83000005 00", false},
        {"a name beyond the end", "83000009 00ff 'n' 00 00", false},
        {"a name that is not ended", "8300000d 0001 'nx' 'abcd' 00", false},
        {"a string that is not ended", "8300000c 0001 'n' 00 'abcd'", false},
        {"a string of no bytes", "83000008 0001 'n' 00", false},
        {"a short integer", "85000009 0001 'n' 00 01", false},
        {"a long integer", "8500000d 0001 'n' 00 0102030405", false},
        {"a short double", "8800000c 0001 'n' 00 00000000", false},
        {"an unsound member", "82000014 0001 't' 00 8500000b 0001 'n' 00 010203 00", false},
    };
    for (const auto &c : cases) {
        const std::string attr = bytes(c.attr);
        const std::vector<char> block(attr.begin(), attr.end()); // of its very size: reading on is noticed
        const auto *start = reinterpret_cast<const blob_attr *>(block.data());
        EXPECT_EQ(blobmsg_check_attr_len(start, false, attr.size()), c.sound) << c.what;
    }
}

TEST(Blobmsg, ParseTakesTheFirstSoundMemberOfTheRightNameAndType)
{
    std::string data = bytes("85000010 0004 'text' 0000 00000001 83000010 0004 'text' 0000 'one' 00"
                             "83000010 0004 'text' 0000 'two' 00 8600000a 0001 'n' 00 fffe 0000"
                             "83000008 0001 'b' 00 83000009 0001 'c' 00 00 000000"); // b is unsound
    const blobmsg_policy policy[] = {{"text", BLOBMSG_TYPE_STRING}, {"n", BLOBMSG_CAST_INT64},
                                     {"text", BLOBMSG_TYPE_UNSPEC}, {"n", BLOBMSG_TYPE_INT32},
                                     {"b", BLOBMSG_TYPE_STRING},    {"c", BLOBMSG_TYPE_STRING},
                                     {nullptr, BLOBMSG_TYPE_UNSPEC}};
    blob_attr *tb[7];
    EXPECT_EQ(blobmsg_parse(policy, 7, tb, data.data(), static_cast<unsigned>(data.size())), -1);
    EXPECT_STREQ(blobmsg_get_string(tb[0]), "one");
    EXPECT_EQ(blobmsg_cast_s64(tb[1]), -2);
    EXPECT_EQ(blobmsg_cast_u64(tb[1]), 0xfffeU);
    EXPECT_EQ(blobmsg_type(tb[2]), BLOBMSG_TYPE_INT32);
    for (int i = 3; i < 7; ++i) {
        EXPECT_EQ(tb[i], nullptr) << i;
    }
    EXPECT_EQ(blobmsg_parse(policy, 7, tb, nullptr, 0), -EINVAL);
}

TEST(Blob, WhatDoesNotFitChangesNothing)
{
    const std::string big(9 << 20, 'x');
    Blob blob;
    EXPECT_EQ(blobmsg_add_string(&blob.buf, "a", big.c_str()), 0);
    const size_t len = blob_raw_len(blob);
    EXPECT_EQ(blobmsg_add_string(&blob.buf, "b", big.c_str()), -1); // 16 MiB is the most
    void *table = blobmsg_open_table(&blob.buf, "t");
    EXPECT_EQ(blobmsg_add_string(&blob.buf, "b", big.c_str()), -1);
    blobmsg_close_table(&blob.buf, table);
    EXPECT_EQ(blobmsg_open_table(&blob.buf, std::string(70000, 'n').c_str()), nullptr);
    EXPECT_EQ(blob_raw_len(blob), len + 8);
}

TEST(Blobmsg, Json)
{
    const struct {
        const char *in, *out; // null: refused
    } cases[] = {
        {"{}", "{}"},
        {R"({"b":1,"a":2})", R"({"b":1,"a":2})"},
        {R"({"a":1,"b":2,"a":3})", R"({"a":3,"b":2})"},
        {R"({"t":true,"n":null,"d":0.5,"e":[],"o":{}})", R"({"t":true,"n":null,"d":0.500000,"e":[],"o":{}})"},
        {R"({"i":[2147483647,2147483648,-2147483649,18446744073709551615]})",
         R"({"i":[2147483647,2147483648,-2147483649,9223372036854775807]})"},
        {R"({"s":"\"\\\/\b\f\n\r\t\u0001\u00e9"})",
         "{\"s\":\"\\\"\\\\/\\b\\u000c\\n\\r\\t\\u0001\xc3\xa9\"}"},
        {"{\"\xce\xd2\x80\":\"\xbf\xff\"}", "{\"\xce\xd2\x80\":\"\xbf\xff\"}"}, // not UTF-8
        {R"({"s":"cut\u0000off"})", R"({"s":"cut"})"},
        {"[1]", nullptr},
        {"", nullptr},
        {R"({"a":1)", nullptr},
        {R"({"a":1} x)", nullptr},
        {"\xff{}", nullptr},
    };
    for (const auto &c : cases) {
        Blob blob;
        EXPECT_EQ(blobmsg_add_json_from_string(&blob.buf, c.in), c.out != nullptr) << c.in;
        EXPECT_EQ(to_json(blob), c.out != nullptr ? c.out : "{}");
    }
    Blob blob;
    blobmsg_add_json_from_string(&blob.buf, R"({"a":[1,{"b":"c"}],"e":{}})");
    EXPECT_EQ(to_json(blob, 0),
              "{\n\t\"a\": [\n\t\t1,\n\t\t{\n\t\t\t\"b\": \"c\"\n\t\t}\n\t],\n\t\"e\": {\n\t\t\n\t}\n}");
    EXPECT_TRUE(blobmsg_add_json_from_string(&blob.buf, nested_arrays(BLOBMSG_MAX_NESTING - 1).c_str()));
    EXPECT_FALSE(blobmsg_add_json_from_string(&blob.buf, nested_arrays(BLOBMSG_MAX_NESTING).c_str()));
    EXPECT_FALSE(blobmsg_add_json_from_string(&blob.buf, nested_arrays(100000).c_str()));
}
