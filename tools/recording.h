// Recordings of a gateway, written by `ovanictl record`, read by `ovanictl replay`.
//
// A recording is a file of lines, a JSON object each, that begin like a journal's (tools/journal.h): "time"
// and "us". What a line says besides:
//
//     "recording"     1, in the first line: with "boot" (the kernel's boot id), "version" of the recorder,
//                     "operator", "daemon" (whether it was on the bus already), "store" and "surroundings" as
//                     they were when the next line had not happened yet.
//     "event"         as in a journal, nothing cut; in the order in which the broker had them. "heard" is
//                     false when the daemon was not there, or not listening yet. "lanhost_event" and
//                     "lanhost_param_change" are there as far as they are the daemon's own.
//     "call"          of a method of the daemon's: its name; "message", what it said, as JSON text; "raw" as
//                     of an event.
//     "answer"        to a call: the method's name, and the "status".
//     "store"         parameters that others than the daemon changed, as far as was seen: before a call, a
//                     change of WAN connections and a start of the daemon.
//     "rest"          1, when nothing had happened for a moment and the daemon was done with all: with
//     "store",
//                     the parameters with other values than when it last was, and "gone", the objects that
//                     were deleted since.
//     "surroundings"  what changed of them, when it came to matter.
//     "mark"          "daemon came", "daemon went", or "lost" ("count" messages that the recorder came too
//                     late for).
//     "end"           1, in the last line: with "store", all of it.
//
// "store" is an object of objects by path, their parameters' values in the form of `ovanictl store export`.
// "surroundings" are the texts that the daemon gets to read: "brctl" (showmacs br0), "neighbours" (ip -6
// neigh), "arp" (/proc/net/arp), "limits" (/qvconf/speedlimit_maclist), and by interface "stations" (wl
// assoclist) and "links" ("mac", "up", "carrier").
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "tools/bus_tap.h"
#include "tools/json.h"

inline constexpr int RECORDING_FORMAT = 1;

// JSON as read: in sorted maps, which any number of members leaves fast.
using Parsed = nlohmann::json;

// What base64() made of bytes; nothing for anything else.
std::optional<std::string> unbase64(std::string_view text);

// A message of these attributes.
std::vector<blob_attr> blob_of(std::string_view bytes);

// What a message's attributes say, as `ovanictl events` has it; `name` is the event's.
Json decode_message(std::string_view name, std::string_view bytes);

// One of its values as it comes back from a file: bytes that are not UTF-8 are U+FFFD there.
Parsed as_read(const Json &value);

// Parameters by path, values as exported.
using StoreText = std::map<std::string, std::string>;
StoreText parse_store(std::string_view exported);
std::string format_store(const StoreText &store); // for `ovanictl store import`
Json store_json(const StoreText &store);

struct StoreChange {
    StoreText set;
    std::set<std::string> gone; // objects
};
StoreChange change_of_store(const StoreText &before, const StoreText &now);
void change_store(StoreText &store, const StoreChange &change);
Json rest_line(const StoreChange &change);

// The line that tells of it, but for its time; not for LOST, CAME and WENT.
Json recording_line(const TapItem &item);

struct RecordingLine {
    enum Kind { HEAD, EVENT, CALL, ANSWER, STORE, REST, SURROUNDINGS, MARK, END };
    size_t number; // in the file, from 1
    std::string text;
    Kind kind;
    int64_t us;
    std::string name; // of the event, method or mark
    std::string raw;
    StoreChange store;
    Parsed json;
};

// Why a file is no recording, with the number of its line.
struct Damaged : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Reads a recording whole. It may come from anywhere: what it returns has been checked for the form above,
// its lengths and its numbers, and its texts for what they are used for. Throws Damaged.
std::vector<RecordingLine> read_recording(const std::string &file);
