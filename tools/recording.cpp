#include "tools/recording.h"

#include <algorithm>
#include <cstring>
#include <fstream>

#include "ovani/ovani_event.h"
#include "tools/events.h"
#include "tools/journal.h"
#include "tools/text.h"

// --- Bytes as text

std::optional<std::string> unbase64(std::string_view text)
{
    static constexpr std::string_view digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    unsigned held = 0;
    int bits = 0;
    for (const char c : text.substr(0, text.find('='))) {
        const size_t digit = digits.find(c);
        if (digit == std::string_view::npos) {
            return std::nullopt;
        }
        held = held << 6 | static_cast<unsigned>(digit);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            bytes += static_cast<char>(held >> bits);
        }
    }
    return base64(bytes) == text ? std::optional(bytes) : std::nullopt; // there is one way to write it
}

// --- Messages

namespace {

constexpr int DEEPEST = 32;

bool members_are_sound(const void *members, size_t length, int depth)
{
    const blob_attr *member = nullptr;
    __blob_for_each_attr(member, members, length)
    {
        if (depth == 0 || !blobmsg_check_attr_len(member, false, length)) {
            return false;
        }
        const bool nested =
            blobmsg_type(member) == BLOBMSG_TYPE_TABLE || blobmsg_type(member) == BLOBMSG_TYPE_ARRAY;
        if (nested && !members_are_sound(blobmsg_data(member), blobmsg_data_len(member), depth - 1)) {
            return false;
        }
    }
    return true;
}

} // namespace

std::vector<blob_attr> blob_of(std::string_view bytes)
{
    std::vector<blob_attr> message(2 + bytes.size() / sizeof(blob_attr));
    memcpy(blob_data(message.data()), bytes.data(), bytes.size());
    blob_set_raw_len(message.data(), static_cast<unsigned>(sizeof(blob_attr) + bytes.size()));
    return message;
}

Json decode_message(std::string_view name, std::string_view bytes)
{
    std::vector<blob_attr> message = blob_of(bytes);
    if (!members_are_sound(blob_data(message.data()), bytes.size(), DEEPEST)) {
        return {{"error", "damaged message"}};
    }
    return decode_event(name, message.data());
}

Json recording_line(const TapItem &item)
{
    if (item.kind == TapItem::ANSWER) {
        return {{"answer", item.name}, {"status", item.number}};
    }
    const bool is_call = item.kind == TapItem::CALL;
    Json line = {{is_call ? "call" : "event", item.name}};
    line.update(decode_message(is_call ? "" : item.name, item.bytes));
    line["raw"] = base64(item.bytes);
    if (!item.heard) {
        line["heard"] = false;
    }
    return line;
}

Parsed as_read(const Json &value)
{
    return Parsed::parse(json_text(value));
}

// --- The store as text

StoreText parse_store(std::string_view exported)
{
    StoreText store;
    while (!exported.empty()) {
        const std::string_view line = exported.substr(0, exported.find('\n'));
        exported.remove_prefix(std::min(exported.size(), line.size() + 1));
        const size_t equals = line.find('=');
        if (equals != std::string_view::npos && !line.starts_with('#')) {
            store.emplace(line.substr(0, equals), line.substr(equals + 1));
        }
    }
    return store;
}

std::string format_store(const StoreText &store)
{
    std::string text;
    for (const auto &[path, value] : store) {
        text.append(path).append(1, '=').append(value).append(1, '\n');
    }
    return text;
}

Json store_json(const StoreText &store)
{
    Json json = Json::object();
    for (const auto &[path, value] : store) {
        const size_t name = path.rfind('.') + 1;
        json[path.substr(0, name)][path.substr(name)] = value;
    }
    return json;
}

StoreChange change_of_store(const StoreText &before, const StoreText &now)
{
    StoreChange change;
    for (const auto &[path, value] : now) {
        const auto known = before.find(path);
        if (known == before.end() || known->second != value) {
            change.set.emplace(path, value);
        }
    }
    for (const auto &[path, ignored] : before) {
        if (!now.contains(path)) {
            change.gone.insert(path.substr(0, path.rfind('.') + 1));
        }
    }
    return change;
}

void change_store(StoreText &store, const StoreChange &change)
{
    std::erase_if(store, [&](const auto &parameter) {
        return change.gone.contains(parameter.first.substr(0, parameter.first.rfind('.') + 1));
    });
    for (const auto &[path, value] : change.set) {
        store[path] = value;
    }
}

Json rest_line(const StoreChange &change)
{
    return {{"rest", 1}, {"store", store_json(change.set)}, {"gone", change.gone}};
}

// --- Reading

namespace {

constexpr std::streamoff LONGEST_FILE = 256 << 20;
constexpr size_t LONGEST_LINE = 8 << 20;
constexpr size_t LONGEST_MESSAGE = 1 << 20; // on the bus
constexpr size_t LONGEST_TEXT = 1 << 20;    // of the surroundings
constexpr size_t LONGEST_VALUE = 2048;      // of the store, escaped
constexpr size_t MOST_INTERFACES = 64;
constexpr size_t LONGEST_INTERFACE = 15;
constexpr int64_t LAST_MOMENT = int64_t{1} << 53; // in JSON

struct KindName {
    const char *member; // that tells the kind of a line
    RecordingLine::Kind kind;
};
constexpr KindName KINDS[] = {
    {"recording", RecordingLine::HEAD}, {"event", RecordingLine::EVENT},
    {"call", RecordingLine::CALL},      {"answer", RecordingLine::ANSWER},
    {"mark", RecordingLine::MARK},      {"rest", RecordingLine::REST},
    {"end", RecordingLine::END}, // which have a "store" as well
    {"store", RecordingLine::STORE},    {"surroundings", RecordingLine::SURROUNDINGS},
};
constexpr std::string_view MARKS[] = {"daemon came", "daemon went", "lost"};
constexpr std::string_view TEXTS[] = {"brctl", "neighbours", "arp", "limits"};

bool consists_of(std::string_view text, size_t longest, std::string_view marks)
{
    return !text.empty() && text.size() <= longest && std::ranges::all_of(text, [&](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
               marks.find(c) != std::string_view::npos;
    });
}

bool is_object(std::string_view path)
{
    return consists_of(path, 256, "._-") && path.ends_with('.');
}

bool is_interface(std::string_view name)
{
    return consists_of(name, LONGEST_INTERFACE, "._-") && name[0] != '.' && name[0] != '-' && name != "lo";
}

// Takes a line apart, and throws why it cannot be one.
class LineReader {
public:
    explicit LineReader(size_t number) { line_.number = number; }

    RecordingLine read(const std::string &text)
    {
        require(text.size() <= LONGEST_LINE, "too long");
        line_.text = text;
        line_.json = Parsed::parse(text, nullptr, false);
        require(line_.json.is_object(), "no JSON object");
        line_.us = number(line_.json, "us", 0, LAST_MOMENT);
        text_of(line_.json, "time", 64);
        const auto kind =
            std::ranges::find_if(KINDS, [&](const KindName &k) { return line_.json.contains(k.member); });
        require(kind != std::end(KINDS), "it says nothing that a recording says");
        line_.kind = kind->kind;
        switch (line_.kind) {
        case RecordingLine::HEAD:
            read_head();
            break;
        case RecordingLine::EVENT:
            read_event();
            break;
        case RecordingLine::CALL:
        case RecordingLine::ANSWER:
            read_call(kind->member);
            break;
        case RecordingLine::STORE:
        case RecordingLine::END:
            read_store();
            break;
        case RecordingLine::REST:
            read_store();
            read_gone();
            break;
        case RecordingLine::SURROUNDINGS:
            read_surroundings();
            break;
        case RecordingLine::MARK:
            line_.name = text_of(line_.json, "mark", 32);
            require(std::ranges::find(MARKS, line_.name) != std::end(MARKS), "an unknown mark");
            break;
        }
        return std::move(line_);
    }

    void require(bool is_so, const char *what) const
    {
        if (!is_so) {
            throw Damaged("line " + std::to_string(line_.number) + ": " + what);
        }
    }

private:
    const Parsed &member(const Parsed &json, const char *name, bool (Parsed::*is)() const noexcept) const
    {
        const auto found = json.find(name);
        if (found == json.end() || !((*found).*is)()) {
            throw Damaged("line " + std::to_string(line_.number) + ": \"" + name + "\" is missing or wrong");
        }
        return *found;
    }

    int64_t number(const Parsed &json, const char *name, int64_t least, int64_t most) const
    {
        const Parsed &found = member(json, name, &Parsed::is_number_integer);
        const bool fits = !found.is_number_unsigned() || found.get<uint64_t>() <= INT64_MAX;
        const int64_t value = fits ? found.get<int64_t>() : -1;
        require(fits && value >= least && value <= most, "a number out of range");
        return value;
    }

    const std::string &text_of(const Parsed &json, const char *name, size_t longest) const
    {
        const auto &text = member(json, name, &Parsed::is_string).get_ref<const std::string &>();
        require(text.size() <= longest && text.find('\0') == std::string::npos,
                "a text too long, or with a NUL");
        return text;
    }

    void read_head()
    {
        require(number(line_.json, "recording", 0, LAST_MOMENT) == RECORDING_FORMAT,
                "a recording of a format that is not known here");
        for (const char *name : {"boot", "version", "operator"}) {
            text_of(line_.json, name, 64);
        }
        member(line_.json, "daemon", &Parsed::is_boolean);
        read_store();
        read_surroundings();
    }

    void read_raw()
    {
        const auto raw = unbase64(text_of(line_.json, "raw", LONGEST_MESSAGE * 4 / 3 + 4));
        require(raw && !line_.json.contains("length"), "the message's bytes are not whole");
        line_.raw = *raw;
    }

    // What the daemon was told must be what the line says it was; what it said is looked at when it says it
    // again.
    void read_event()
    {
        line_.name = text_of(line_.json, "event", 64);
        require(find_event(line_.name) != nullptr, "no event of a gateway");
        read_raw();
        if (line_.json.contains("heard")) {
            member(line_.json, "heard", &Parsed::is_boolean);
        }
        if (!is_announcement(line_.name)) {
            require_fields(decode_message(line_.name, line_.raw));
        }
    }

    void read_call(const char *kind)
    {
        line_.name = text_of(line_.json, kind, 64);
        require(std::ranges::find(DAEMON_METHODS, line_.name) != std::end(DAEMON_METHODS),
                "no method of the daemon");
        if (line_.kind == RecordingLine::ANSWER) {
            number(line_.json, "status", INT32_MIN, INT32_MAX);
        } else {
            read_raw();
            require_fields(decode_message("", line_.raw));
        }
    }

    void require_fields(const Json &fields) const
    {
        for (const auto &[name, value] : fields.items()) {
            const auto found = line_.json.find(name);
            require(found != line_.json.end() && found->is_primitive() && *found == as_read(value),
                    "its fields are not what its bytes say");
        }
    }

    void read_store()
    {
        for (const auto &[object, parameters] : member(line_.json, "store", &Parsed::is_object).items()) {
            require(is_object(object), "no object of a store");
            require(parameters.is_object(), "an object without parameters");
            for (const auto &[name, value] : parameters.items()) {
                require(consists_of(name, 128, "_-"), "no parameter of a store");
                const std::string &text = text_of(parameters, name.c_str(), LONGEST_VALUE);
                require(unescape(text).has_value(), "no value of a store");
                line_.store.set[object + name] = text;
            }
        }
    }

    void read_gone()
    {
        for (const auto &object : member(line_.json, "gone", &Parsed::is_array)) {
            require(object.is_string() && is_object(object.get<std::string>()), "no object of a store");
            line_.store.gone.insert(object.get<std::string>());
        }
    }

    void read_surroundings() const
    {
        for (const auto &[name, value] : member(line_.json, "surroundings", &Parsed::is_object).items()) {
            if (std::ranges::find(TEXTS, name) != std::end(TEXTS)) {
                text_of(line_.json["surroundings"], name.c_str(), LONGEST_TEXT);
                continue;
            }
            require(name == "stations" || name == "links", "surroundings that are not known here");
            require(value.is_object() && value.size() <= MOST_INTERFACES, "no list of interfaces");
            for (const auto &[interface, what] : value.items()) {
                require(is_interface(interface), "no name of an interface");
                if (name == "stations") {
                    text_of(value, interface.c_str(), LONGEST_TEXT);
                } else {
                    require(what.is_object() && parse_mac(text_of(what, "mac", 17)).has_value(),
                            "no MAC address");
                    member(what, "up", &Parsed::is_boolean);
                    member(what, "carrier", &Parsed::is_boolean);
                }
            }
        }
    }

    RecordingLine line_{};
};

} // namespace

std::vector<RecordingLine> read_recording(const std::string &file)
{
    std::ifstream in(file, std::ios::binary | std::ios::ate);
    if (!in || in.tellg() < 0) {
        throw Damaged("it cannot be read");
    }
    if (in.tellg() > LONGEST_FILE) {
        throw Damaged("it is too long for a recording");
    }
    in.seekg(0);
    std::vector<RecordingLine> lines;
    std::string text;
    while (std::getline(in, text)) {
        LineReader reader(lines.size() + 1);
        reader.require(lines.empty() || lines.back().kind != RecordingLine::END, "something behind the end");
        lines.push_back(reader.read(text));
        reader.require((lines.size() == 1) == (lines.back().kind == RecordingLine::HEAD),
                       "a recording has one head, at its beginning");
    }
    if (lines.empty()) {
        throw Damaged("it is empty");
    }
    return lines;
}
