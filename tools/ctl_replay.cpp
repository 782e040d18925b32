// ovanictl replay: tells a daemon what a recording's was told, and compares what it says and leaves behind.

#include "tools/ovanictl.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <iostream>
#include <memory>

#include "ovani/ovani_fd.h"
#include "tools/bus_tap.h"
#include "tools/journal.h"
#include "tools/recording.h"
#include "tools/stage.h"
#include "tools/text.h"

namespace {

constexpr int START_MS = 20000;
constexpr int MOMENT_MS = 50;

struct ReplayCommand {
    std::string file;
    std::string log;
    std::string write; // a file for the recording with what this daemon says
    double speed = 0;  // 0: as fast as the daemon answers
    bool step = false;
};

// What the daemon says: an announcement, or the answer to a call.
std::string describe(const std::string &name, const Json &fields)
{
    std::string text = name + ' ';
    return printable(text.append(json_text(fields)));
}

Json fields_of(const TapItem &said)
{
    return said.kind == TapItem::ANSWER ? Json{{"status", said.number}}
                                        : decode_message(said.name, said.bytes);
}

// The members of a recorded line that its fields are, under the names of `fields` if it has them.
Json recorded_fields(const RecordingLine &line)
{
    Json fields = Json::object();
    for (const auto &[name, value] : line.json.items()) {
        if (name != "time" && name != "us" && name != "event" && name != "answer" && name != "raw") {
            fields[name] = value;
        }
    }
    return fields;
}

// Times by the clock of the gateway, of which no two runs agree.
bool is_clock(const std::string &path)
{
    return path.ends_with(".LatestActiveTime") || path.ends_with(".LatestInactiveTime");
}

bool is_number(const std::string &text)
{
    return parse_number(text, 0, INT64_MAX).has_value();
}

class Replay {
public:
    Replay(const ReplayCommand &command, std::vector<RecordingLine> lines, int log, UniqueFile anew)
        : command_(command), lines_(std::move(lines)), stage_(log), anew_(std::move(anew))
    {
    }

    void run();

private:
    void begin();
    void perform(const RecordingLine &line);
    void perform_event(const RecordingLine &line);
    void perform_call(const RecordingLine &line);
    void perform_mark(const RecordingLine &line);
    void bring_daemon();
    void settle();
    void expect(const RecordingLine &line);
    void compare_store(const RecordingLine &line);
    void put(const std::string &text);
    void put_said(const Json &said);
    void await_turn(const RecordingLine &line);
    [[noreturn]] void differ(const std::string &what) const;

    const ReplayCommand command_;
    const std::vector<RecordingLine> lines_;
    Stage stage_;
    UniqueFile anew_; // null: to be compared
    BusTap tap_{[this](const TapItem &item) { take(item); }};
    std::deque<TapItem> said_; // and not compared yet
    StoreText store_;          // as recorded; with `anew_`, as written
    size_t line_ = 0;          // that is being played
    size_t told_ = 0;
    size_t compared_ = 0;
    int64_t began_ = 0; // on this machine's clock
    bool stepping_ = false;

    void take(const TapItem &item)
    {
        if (item.kind == TapItem::ANNOUNCED || item.kind == TapItem::ANSWER) {
            said_.push_back(item);
        }
    }
};

void Replay::run()
{
    begin();
    began_ = moment_now().boot;
    stepping_ = command_.step;
    for (const RecordingLine &line : lines_) {
        line_ = line.number;
        perform(line);
    }
    if (anew_) {
        return;
    }
    if (!said_.empty()) {
        differ("nothing more is recorded, and the daemon said " +
               describe(said_.front().name, fields_of(said_.front())));
    }
    const bool whole = lines_.back().kind == RecordingLine::END;
    printf("%s: %zu lines, told %zu things, heard %zu: no difference%s\n", command_.file.c_str(),
           lines_.size(), told_, compared_, whole ? "" : "; it has no end, and so no store to compare");
}

// Of a daemon that was there already the recording knows the store, not the memory: one that starts with that
// store finds what it can.
void Replay::begin()
{
    const RecordingLine &head = lines_.front();
    stage_.set_surroundings(head.json["surroundings"]);
    stage_.import_store(head.store.set);
    store_ = head.store.set;
    stage_.start_broker();
    if (const char *wrong = tap_.start(nullptr); wrong != nullptr) {
        fail(wrong);
    }
    if (head.json["daemon"].get<bool>()) {
        bring_daemon();
        said_.clear();
        stage_.import_store(head.store.set);
    }
}

void Replay::perform(const RecordingLine &line)
{
    const bool is_said = line.kind == RecordingLine::ANSWER || line.kind == RecordingLine::REST ||
                         line.kind == RecordingLine::END ||
                         (line.kind == RecordingLine::EVENT && is_announcement(line.name));
    if (anew_ && !is_said) {
        put(line.text);
    }
    switch (line.kind) {
    case RecordingLine::HEAD:
        break;
    case RecordingLine::EVENT:
        perform_event(line);
        break;
    case RecordingLine::CALL:
        perform_call(line);
        break;
    case RecordingLine::ANSWER:
        expect(line);
        break;
    case RecordingLine::STORE:
        stage_.import_store(line.store.set);
        break;
    case RecordingLine::SURROUNDINGS:
        stage_.set_surroundings(line.json["surroundings"]);
        break;
    case RecordingLine::MARK:
        perform_mark(line);
        break;
    case RecordingLine::REST:
    case RecordingLine::END:
        compare_store(line);
        break;
    }
}

void Replay::perform_event(const RecordingLine &line)
{
    if (is_announcement(line.name)) {
        expect(line);
        return;
    }
    if (!line.json.value("heard", true)) {
        return;
    }
    await_turn(line);
    if (ubus_send_event(tap_.context(), line.name.c_str(), blob_of(line.raw).data()) != UBUS_STATUS_OK) {
        fail("the broker does not take an event");
    }
    ++told_;
    settle();
}

void Replay::perform_call(const RecordingLine &line)
{
    await_turn(line);
    ubus_invoke(tap_.context(), tap_.daemon_object(), line.name.c_str(), blob_of(line.raw).data(), nullptr,
                nullptr, SETTLE_MS);
    ++told_;
    settle();
}

void Replay::perform_mark(const RecordingLine &line)
{
    if (line.name == "daemon came") {
        await_turn(line);
        bring_daemon();
    } else if (line.name == "daemon went") {
        await_turn(line);
        if (const int status = stage_.stop_daemon(); status != 0) {
            differ("the daemon ended with status " + std::to_string(status));
        }
        for (int waited = 0; tap_.daemon_is_there() && waited < SETTLE_MS; waited += MOMENT_MS) {
            tap_.wait(MOMENT_MS);
        }
        said_.clear(); // the recorded one may have been killed before it came to say it
    } else {
        fprintf(stderr, "%s: line %zu: messages are missing from here on\n", command_.file.c_str(), line_);
    }
}

void Replay::bring_daemon()
{
    stage_.start_daemon();
    for (int waited = 0; !tap_.daemon_is_there(); waited += MOMENT_MS) {
        if (!stage_.daemon_runs() || waited >= START_MS) {
            fail("the daemon did not come up");
        }
        tap_.wait(MOMENT_MS);
    }
    settle();
}

void Replay::settle()
{
    if (!tap_.settle(SETTLE_MS) && tap_.daemon_is_there()) {
        differ("the daemon does not answer");
    }
    if (anew_) {
        for (; !said_.empty(); said_.pop_front()) {
            put_said(recording_line(said_.front()));
        }
    }
    if (!stage_.daemon_runs()) {
        differ("the daemon has ended, with status " + std::to_string(stage_.stop_daemon()));
    }
}

// All that came before in the recording was told, and all that the daemon has to say to that was heard.
void Replay::expect(const RecordingLine &line)
{
    if (anew_) {
        return;
    }
    const std::string recorded = describe(line.name, recorded_fields(line));
    if (said_.empty()) {
        differ("recorded is " + recorded + ", and the daemon said nothing");
    }
    const TapItem said = std::move(said_.front());
    said_.pop_front();
    const Json fields = fields_of(said);
    const bool is_answer = line.kind == RecordingLine::ANSWER;
    if ((said.kind == TapItem::ANSWER) != is_answer || said.name != line.name ||
        as_read(fields) != as_read(recorded_fields(line))) {
        differ("recorded is " + recorded + ", and the daemon said " + describe(said.name, fields));
    }
    if (said.bytes != line.raw) {
        const auto [ours, theirs] = std::ranges::mismatch(said.bytes, line.raw);
        differ("recorded is " + recorded + ", and the daemon said the same in other bytes, from byte " +
               std::to_string(ours - said.bytes.begin()) + " on");
    }
    ++compared_;
}

void Replay::compare_store(const RecordingLine &line)
{
    const StoreText left = stage_.export_store();
    if (anew_) {
        put_said(line.kind == RecordingLine::REST ? rest_line(change_of_store(store_, left))
                                                  : Json{{"end", 1}, {"store", store_json(left)}});
        store_ = left;
        return;
    }
    if (line.kind == RecordingLine::END) {
        store_.clear();
    }
    change_store(store_, line.store);
    StoreText all = store_;
    all.insert(left.begin(), left.end());
    for (const auto &[path, ignored] : all) {
        const auto before = store_.find(path);
        const auto now = left.find(path);
        if (before == store_.end()) {
            differ("the store has " + path + ", and recorded is none");
        }
        if (now == left.end()) {
            differ("recorded is " + path + " in the store, and there is none");
        }
        const bool both_times = is_clock(path) && is_number(before->second) && is_number(now->second);
        if (before->second != now->second && !both_times) {
            differ("recorded is " + path + " \"" + before->second + "\" in the store, and it is \"" +
                   now->second + '"');
        }
    }
}

void Replay::put(const std::string &text)
{
    if (fprintf(anew_.get(), "%s\n", text.c_str()) < 0 || fflush(anew_.get()) != 0) {
        fail(command_.write + ": " + strerror(errno));
    }
}

// At the time of what it is said to.
void Replay::put_said(const Json &said)
{
    const Parsed &cause = lines_[line_ - 1].json;
    Json line = {{"time", cause["time"]}, {"us", cause["us"]}};
    line.update(said);
    put(json_text(line));
}

// When something is to be told: in its time, and when the user says so.
void Replay::await_turn(const RecordingLine &line)
{
    if (command_.speed > 0) {
        const auto due =
            began_ + static_cast<int64_t>(static_cast<double>(line.us - lines_.front().us) / command_.speed);
        for (int64_t left = 0; (left = due - moment_now().boot) > 0;) {
            tap_.wait(static_cast<int>(std::min<int64_t>(left / 1000 + 1, MOMENT_MS)));
        }
    }
    if (stepping_) {
        fprintf(stderr, "line %zu: %s ", line.number, describe(line.name, recorded_fields(line)).c_str());
        std::string ignored;
        stepping_ = static_cast<bool>(std::getline(std::cin, ignored));
    }
}

void Replay::differ(const std::string &what) const
{
    const bool from_its_start = !lines_.front().json["daemon"].get<bool>();
    fail(command_.file + ": line " + std::to_string(line_) + ": " + what +
         (from_its_start ? "" : " (the recording does not say what that daemon remembered)"));
}

// Before the root changes. Null without a name.
UniqueFile create_file(const std::string &name)
{
    if (name.empty()) {
        return nullptr;
    }
    UniqueFile file(fopen(name.c_str(), "we"));
    if (!file) {
        fail(name + ": " + strerror(errno));
    }
    return file;
}

void replay(const ReplayCommand &command)
{
    std::vector<RecordingLine> lines;
    try {
        lines = read_recording(command.file);
    } catch (const Damaged &damage) {
        fail(command.file + ": " + damage.what());
    }
    const UniqueFile log = create_file(command.log);
    Replay(command, std::move(lines), log ? fileno(log.get()) : -1, create_file(command.write)).run();
}

} // namespace

void add_replay_command(CLI::App &app)
{
    auto command = std::make_shared<ReplayCommand>();
    CLI::App *replay_app =
        app.add_subcommand("replay", "Play a recording to a daemon of its own, and compare what it says");
    replay_app->add_option("FILE", command->file)->required();
    replay_app->add_option("--speed", command->speed, "1 as it was, 2 twice as fast; without it, at once")
        ->check(CLI::PositiveNumber);
    replay_app->add_flag("--step", command->step, "wait for the enter key before each thing that is told");
    replay_app->add_option("--log", command->log, "a file for what the daemon says on standard error");
    replay_app->add_option("--write", command->write,
                           "a file for the recording as it is now, in place of comparing");
    replay_app->footer(
        "It happens in namespaces of its own, which only root can make. The first difference ends\n"
        "it, with exit status 1. Times of activity may differ.");
    replay_app->callback([command] { replay(*command); });
}
