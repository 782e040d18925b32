#include "tools/journal.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr int64_t MICROSECONDS = 1'000'000;

int64_t microseconds(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    return time.tv_sec * MICROSECONDS + time.tv_nsec / 1000;
}

std::string file_path(const std::string &directory, size_t age)
{
    return directory + (age == 0 ? "/journal.jsonl" : "/journal." + std::to_string(age) + ".jsonl");
}

// The lock that a journal holds on the file it writes: of the open file, so that it goes with it.
flock whole_file(short type)
{
    flock lock{};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

bool is_written(int fd)
{
    flock lock = whole_file(F_RDLCK);
    return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type == F_WRLCK;
}

} // namespace

// --- Lines

std::string journal_directory()
{
    const char *directory = getenv("OVANI_JOURNAL");
    return directory != nullptr && directory[0] != '\0' ? directory : "/var/log/ovani";
}

Moment moment_now()
{
    return {microseconds(CLOCK_REALTIME), microseconds(CLOCK_BOOTTIME)};
}

std::string boot_id()
{
    char id[64] = "";
    const UniqueFile file(fopen("/proc/sys/kernel/random/boot_id", "re"));
    if (file && fgets(id, sizeof id, file.get()) != nullptr) {
        id[strcspn(id, "\n")] = '\0';
    }
    return id;
}

std::string iso_time(int64_t wall)
{
    const time_t seconds = wall / MICROSECONDS;
    tm local{};
    localtime_r(&seconds, &local);
    const long zone = local.tm_gmtoff / 60;
    char text[80];
    snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%06d%c%02ld:%02ld", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<int>(wall % MICROSECONDS), zone < 0 ? '-' : '+', labs(zone) / 60, labs(zone) % 60);
    return text;
}

std::optional<int64_t> parse_iso_time(const std::string &text)
{
    tm utc{};
    unsigned fraction = 0;
    unsigned zone_hours = 0;
    unsigned zone_minutes = 0;
    char sign = 0;
    if (sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%6u%c%2u:%2u", // NOLINT(cert-err34-c): widths bound it
               &utc.tm_year, &utc.tm_mon, &utc.tm_mday, &utc.tm_hour, &utc.tm_min, &utc.tm_sec, &fraction,
               &sign, &zone_hours, &zone_minutes) != 10 ||
        (sign != '+' && sign != '-')) {
        return std::nullopt;
    }
    utc.tm_year -= 1900;
    utc.tm_mon -= 1;
    const int64_t zone = static_cast<int64_t>(zone_hours * 60 + zone_minutes) * 60 * (sign == '-' ? -1 : 1);
    return (timegm(&utc) - zone) * MICROSECONDS + fraction;
}

Json journal_line(const Moment &when)
{
    return {{"time", iso_time(when.wall)}, {"us", when.boot}};
}

std::string base64(std::string_view bytes)
{
    static constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const auto byte = [&](size_t at) { return at < bytes.size() ? static_cast<uint8_t>(bytes[at]) : 0U; };
        const unsigned group = byte(i) << 16 | byte(i + 1) << 8 | byte(i + 2);
        for (const int shift : {18, 12, 6, 0}) {
            text += digits[group >> shift & 63];
        }
    }
    const size_t padding = (3 - bytes.size() % 3) % 3;
    return text.replace(text.size() - padding, padding, padding, '=');
}

// --- Writing

JournalFile::JournalFile(std::string directory, size_t files, size_t bytes, std::function<Json()> on_line)
    : directory_(std::move(directory)), files_(files), bytes_(bytes), on_line_(std::move(on_line))
{
}

std::string JournalFile::path(size_t age) const
{
    return file_path(directory_, age);
}

bool JournalFile::write(const Moment &when, const Json &line)
{
    when_ = when;
    const std::string text = json_text(line) + '\n';
    const bool ready = is_in_place() || open();
    if (ready && (size_ + text.size() <= bytes_ || rotate()) && tell_losses() && put_text(text)) {
        failure_.clear();
        return true;
    }
    ++lost_;
    if (untold_++ == 0) {
        fprintf(stderr, "%s: %s, lines are lost\n", directory_.c_str(), failure_.c_str());
    }
    return false;
}

bool JournalFile::is_in_place() const
{
    struct stat now {};
    return fd_ && stat(path(0).c_str(), &now) == 0 && now.st_ino == inode_ && now.st_dev == device_ &&
           static_cast<size_t>(now.st_size) == size_;
}

bool JournalFile::failed(const char *why)
{
    failure_ = why;
    fd_ = UniqueFd();
    return false;
}

bool JournalFile::open()
{
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(directory_).parent_path(), ignored);
    mkdir(directory_.c_str(), 0700);
    struct stat directory {};
    if (stat(directory_.c_str(), &directory) != 0) {
        return failed(strerror(errno));
    }
    if (directory.st_uid != geteuid() || (directory.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return failed("others may write there");
    }
    fd_ = UniqueFd(::open(path(0).c_str(), O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                          S_IRUSR | S_IWUSR));
    return fd_ ? prepare_file() : failed(strerror(errno));
}

bool JournalFile::prepare_file()
{
    struct stat file {};
    if (fstat(fd_.get(), &file) != 0 || !S_ISREG(file.st_mode) || file.st_uid != geteuid() ||
        fchmod(fd_.get(), S_IRUSR | S_IWUSR) != 0) {
        return failed("journal.jsonl is no file of ours");
    }
    flock lock = whole_file(F_WRLCK);
    if (fcntl(fd_.get(), F_OFD_SETLK, &lock) != 0) {
        return failed("another journal writes there");
    }
    device_ = file.st_dev;
    inode_ = file.st_ino;
    size_ = static_cast<size_t>(file.st_size);
    const bool fresh = size_ == 0;
    char last = '\n';
    const bool torn = !fresh && pread(fd_.get(), &last, 1, file.st_size - 1) == 1 && last != '\n';
    Json head = journal_line(when_);
    head["journal"] = 1;
    head["boot"] = boot_id();
    if ((torn && !put_text("\n")) || !put(head)) {
        reopen(); // no line without its head
        return false;
    }
    if (fresh) {
        put_on_line();
    }
    return true;
}

bool JournalFile::rotate()
{
    for (size_t age = files_ - 1; age > 0; --age) {
        if (rename(path(age - 1).c_str(), path(age).c_str()) != 0 && errno != ENOENT) {
            return failed(strerror(errno));
        }
    }
    for (size_t age = files_; unlink(path(age).c_str()) == 0; ++age) { // of one that kept more
    }
    return open();
}

bool JournalFile::tell_losses()
{
    if (untold_ == 0) {
        return true;
    }
    Json line = journal_line(when_);
    line["mark"] = "lost";
    line["count"] = untold_;
    line["why"] = failure_;
    if (!put(line)) {
        return false;
    }
    fprintf(stderr, "%s: going on, %zu lines were lost\n", directory_.c_str(), untold_);
    untold_ = 0;
    put_on_line();
    return true;
}

// At most half a file: hosts beyond that are left out.
void JournalFile::put_on_line()
{
    Json line = journal_line(when_);
    line["on_line"] = on_line_();
    auto &hosts = line["on_line"].get_ref<Json::array_t &>();
    while (json_text(line).size() > bytes_ / 2) {
        hosts.resize(hosts.size() / 2);
    }
    put(line);
}

bool JournalFile::put_text(std::string_view text)
{
    const ssize_t written = ::write(fd_.get(), text.data(), text.size());
    if (written == static_cast<ssize_t>(text.size())) {
        size_ += text.size();
        return true;
    }
    failure_ = strerror(written < 0 ? errno : ENOSPC);
    if (written > 0 && ftruncate(fd_.get(), static_cast<off_t>(size_)) != 0) {
        reopen(); // which mends the line
    }
    return false;
}

// --- Reading

JournalReading read_journal(const std::string &directory, const std::function<void(const Json &)> &take)
{
    // Opened from the newest on, so that none is missed while the journal renames them; one that it renamed
    // in between is met again.
    std::vector<UniqueFile> files;
    std::vector<ino_t> inodes;
    for (size_t age = 0;; ++age) {
        UniqueFile file(fopen(file_path(directory, age).c_str(), "re"));
        struct stat status {};
        if (!file && age > 0) {
            break;
        }
        if (file && fstat(fileno(file.get()), &status) == 0 &&
            std::ranges::find(inodes, status.st_ino) == inodes.end()) {
            inodes.push_back(status.st_ino);
            files.push_back(std::move(file));
        }
    }

    JournalReading reading{.files = files.size(),
                           .written = !files.empty() && is_written(fileno(files.front().get()))};
    struct Line {
        char *text = nullptr;
        size_t size = 0;
        ~Line() { free(text); }
    } line;
    std::ranges::reverse(files); // the oldest first
    for (const UniqueFile &file : files) {
        for (ssize_t length = 0; (length = getline(&line.text, &line.size, file.get())) > 0;) {
            const Json entry = Json::parse(line.text, line.text + length, nullptr, false);
            if (entry.is_object()) {
                take(entry);
            } else {
                ++reading.damaged;
            }
        }
    }
    return reading;
}
