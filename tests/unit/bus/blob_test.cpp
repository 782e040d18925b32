// Messages from outside: what is refused, and that nothing outside them is ever read (the sanitizers watch).
#include <cstring>
#include <numeric>
#include <random>

#include <libubox/blobmsg_json.h>

#include "bus/libubus_internal.h"
#include "bus_test.h"

namespace {

// Every byte the attribute claims to have.
int read_all(const blob_attr *attr)
{
    EXPECT_GE(blob_raw_len(attr), sizeof(blob_attr));
    const auto *payload = static_cast<const uint8_t *>(blob_data(attr));
    return std::accumulate(payload, payload + blob_len(attr), 0);
}

// Looks at bytes in every way there is. They lie at the very end of a heap block, `shift` bytes off
// alignment.
int parse_everything(const Bytes &message, size_t shift)
{
    const std::unique_ptr<uint8_t[]> block(new uint8_t[message.size() + shift]);
    std::copy(message.begin(), message.end(), block.get() + shift);
    void *data = block.get() + shift;
    auto *attr = static_cast<blob_attr *>(data);
    const auto size = static_cast<unsigned>(message.size());

    blob_attr *tb[UBUS_ATTR_MAX];
    int found = blob_parse_untrusted(attr, size, tb, nullptr, UBUS_ATTR_MAX);
    for (const blob_attr *member : tb) {
        found += member ? read_all(member) : 0;
    }
    if (size >= sizeof(blob_attr) && blob_raw_len(attr) <= size && bus::MessageAttrs(attr)[UBUS_ATTR_DATA]) {
        free(blobmsg_format_json(bus::MessageAttrs(attr)[UBUS_ATTR_DATA], true));
    }
    if (blobmsg_check_attr_len(attr, false, size)) {
        free(blobmsg_format_json_indent(attr, false, 0));
    }

    const blobmsg_policy policy[] = {{"text", BLOBMSG_TYPE_STRING},
                                     {"n", BLOBMSG_CAST_INT64},
                                     {"t", BLOBMSG_TYPE_TABLE},
                                     {"x", BLOBMSG_TYPE_UNSPEC}};
    blob_attr *members[4];
    blobmsg_parse(policy, 4, members, data, size);
    for (blob_attr *member : members) {
        if (member) {
            found += read_all(member) + (blobmsg_cast_s64(member) != 0);
            free(blobmsg_format_json(member, false));
        }
    }
    return found + (members[0] ? static_cast<int>(strlen(blobmsg_get_string(members[0]))) : 0);
}

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
        const Bytes attr = bytes(c.attr);
        const std::unique_ptr<uint8_t[]> block(new uint8_t[attr.size()]); // so that reading on is noticed
        std::copy(attr.begin(), attr.end(), block.get());
        const auto *start = reinterpret_cast<blob_attr *>(block.get());
        EXPECT_EQ(blobmsg_check_attr_len(start, false, attr.size()), c.sound) << c.what;
    }
}

TEST(Blobmsg, ParseTakesTheFirstSoundMemberOfTheRightNameAndType)
{
    Bytes data = bytes("85000010 0004 'text' 0000 00000001 83000010 0004 'text' 0000 'one' 00"
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

TEST(Blobmsg, SurvivesAnyBytes)
{
    Blob message;
    blob_put_u32(&message.buf, UBUS_ATTR_OBJID, 4711);
    blob_put_string(&message.buf, UBUS_ATTR_METHOD, "method");
    void *data = blob_nest_start(&message.buf, UBUS_ATTR_DATA);
    blobmsg_add_json_from_string(&message.buf,
                                 R"({"text":"abc","n":-5,"t":{"a":[1,{"y":null}]},"x":1.5,"b":5000000000})");
    blob_nest_end(&message.buf, data);
    const Bytes valid = bytes_of(message);
    EXPECT_GT(parse_everything(valid, 0), 0);

    std::mt19937 random(20090423);
    const auto below = [&](size_t n) { return random() % n; };
    const uint8_t nasty[] = {0x00, 0x01, 0x03, 0x04, 0x7f, 0x80, 0x81, 0x82, 0xff};
    for (size_t round = 0; round < 20000; ++round) {
        Bytes mutant = valid;
        for (size_t n = 1 + below(4); n > 0; --n) {
            mutant[below(mutant.size())] =
                below(2) ? nasty[below(sizeof(nasty))] : static_cast<uint8_t>(random());
        }
        // Without the outer headers the members are what is looked at first.
        if (below(3) == 0) {
            mutant.erase(mutant.begin(), mutant.begin() + 28);
        }
        if (below(4) == 0) {
            mutant.resize(below(mutant.size()));
        }
        parse_everything(mutant, round % 4);
    }
}

TEST(Blobmsg, NestingIsLimited)
{
    // Every eight bytes one level more, as far as a message can go.
    Bytes deep;
    for (uint32_t left = 1 << 20; left >= 8; left -= 8) {
        const Bytes head = bytes("[head] 0000 0000", {{"head", 0x81000000 | left}});
        deep.insert(deep.end(), head.begin(), head.end());
    }
    EXPECT_FALSE(blobmsg_check_attr_len(reinterpret_cast<blob_attr *>(deep.data()), false, deep.size()));
    parse_everything(deep, 0);

    Blob blob;
    EXPECT_TRUE(blobmsg_add_json_from_string(&blob.buf, nested_arrays(BLOBMSG_MAX_NESTING - 1).c_str()));
    EXPECT_TRUE(blobmsg_check_attr(static_cast<blob_attr *>(blob_data(blob)), true));
    EXPECT_FALSE(blobmsg_add_json_from_string(&blob.buf, nested_arrays(BLOBMSG_MAX_NESTING).c_str()));
    EXPECT_FALSE(blobmsg_add_json_from_string(&blob.buf, nested_arrays(100000).c_str()));
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
        EXPECT_EQ(to_json(blob), c.out ? c.out : "{}");
    }
    Blob blob;
    blobmsg_add_json_from_string(&blob.buf, R"({"a":[1,{"b":"c"}],"e":{}})");
    EXPECT_EQ(to_json(blob, 0),
              "{\n\t\"a\": [\n\t\t1,\n\t\t{\n\t\t\t\"b\": \"c\"\n\t\t}\n\t],\n\t\"e\": {\n\t\t\n\t}\n}");
}
