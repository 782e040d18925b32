#include "tools/stage.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "ovani/ovani_fd.h"
#include "tools/program.h"

namespace {

namespace fs = std::filesystem;

constexpr char ROOT[] = "/sys";        // the new one's place in the old: neither has any use for it
constexpr char STAGE[] = "/run/stage"; // inside: the store, and what the stand-ins answer
constexpr int TRIES = 200;             // of 50 ms
constexpr useconds_t TRY_US = 50'000;
constexpr int CANNOT_EXECUTE = 127;

void require(bool done, const std::string &what)
{
    if (!done) {
        throw std::runtime_error(what + ": " + strerror(errno));
    }
}

void write_file(const std::string &name, std::string_view content)
{
    std::ofstream file(name, std::ios::binary);
    if (!file.write(content.data(), static_cast<std::streamsize>(content.size())).flush()) {
        throw std::runtime_error(name + " cannot be written");
    }
}

// Shows an entry of the old root at its place in the new one. What cannot be shown is not there.
void show(const fs::path &entry)
{
    std::error_code ignored;
    const fs::path place = ROOT + entry.string();
    if (fs::is_symlink(entry, ignored)) {
        fs::copy_symlink(entry, place, ignored);
        return;
    }
    if (fs::is_directory(entry, ignored)) {
        fs::create_directory(place, ignored);
    } else if (fs::is_regular_file(entry, ignored)) {
        write_file(place, "");
    }
    mount(entry.c_str(), place.c_str(), nullptr, MS_BIND | MS_REC, nullptr);
}

void show_all_in(const char *directory, std::initializer_list<std::string_view> hidden)
{
    for (const auto &entry : fs::directory_iterator(directory)) {
        if (std::ranges::find(hidden, entry.path().native()) == hidden.end()) {
            show(entry.path());
        }
    }
}

// The kernel's, but for the ARP cache, which is a file.
void make_proc()
{
    const std::string root = ROOT;
    fs::create_directories(root + "/proc/net");
    fs::create_directory(root + "/.proc");
    require(mount("/proc", (root + "/.proc").c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "/proc");
    for (const auto &entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name != "net" && (name[0] < '0' || name[0] > '9')) {
            fs::create_symlink(fs::path("/.proc") / name, fs::path(root) / "proc" / name);
        }
    }
}

void change_root()
{
    require(unshare(CLONE_NEWNS | CLONE_NEWNET) == 0, "namespaces");
    require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "/");
    require(mount("tmpfs", ROOT, "tmpfs", 0, "mode=755") == 0, ROOT);
    fs::create_directory(std::string(ROOT) + "/var");
    show_all_in("/", {"/proc", "/qvconf", "/run", "/sys", "/var"});
    show_all_in("/var", {"/var/ovani_debug", "/var/run"});
    make_proc();
    require(chroot(ROOT) == 0 && chdir("/") == 0, "chroot");
    fs::create_directories("/run/ubus");
    fs::create_directory_symlink("/run", "/var/run");
    fs::create_directory("/qvconf");
}

// Commands that print a file whatever they are asked, but for wl, which is asked for an interface's.
void make_stand_ins()
{
    struct StandIn {
        const char *name;
        const char *file;
    };
    const std::string bin = std::string(STAGE) + "/bin/";
    fs::create_directories(bin);
    for (const auto &[name, file] :
         {StandIn{"brctl", "brctl"}, {"ip", "neighbours"}, {"wl", "stations.$2"}}) {
        write_file(bin + name, std::string("#!/bin/sh\nexec cat \"") + STAGE + '/' + file + "\"\n");
        require(chmod((bin + name).c_str(), S_IRWXU) == 0, name);
    }
}

bool is_running(const std::string &interface)
{
    const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    ifreq request{};
    interface.copy(request.ifr_name, sizeof request.ifr_name - 1);
    return ioctl(socket.get(), SIOCGIFFLAGS, &request) == 0 && (request.ifr_flags & IFF_RUNNING) != 0;
}

void run(const std::vector<std::string> &command, const char *what)
{
    if (!output_of(command)) {
        throw std::runtime_error(what);
    }
}

} // namespace

Stage::Stage(int log) : log_(log)
{
    require(geteuid() == 0 || (errno = EPERM, false), "only root can make namespaces");
    change_root();
    make_stand_ins();
    // Nothing that the kernel would say of its own accord, and the daemon would hear.
    write_file("/proc/sys/net/ipv6/conf/default/disable_ipv6", "1");
    require(setenv("OVANI_STORE", (std::string(STAGE) + "/store.db").c_str(), 1) == 0 &&
                unsetenv("OVANI_UBUS_SOCKET") == 0 && unsetenv("OVANI_LOG") == 0,
            "environment");
}

Stage::~Stage()
{
    if (daemon_runs()) {
        stop_daemon();
    }
    if (broker_ != 0) {
        kill(broker_, SIGTERM);
        waitpid(broker_, nullptr, 0);
    }
}

void Stage::set_surroundings(const Parsed &surroundings)
{
    for (const auto &[name, value] : surroundings.items()) {
        if (name == "links") {
            set_links(value);
        } else if (name == "stations") {
            for (const auto &[interface, stations] : value.items()) {
                write_file(std::string(STAGE) + "/stations." + interface, stations.get<std::string>());
            }
        } else {
            const std::string file = name == "arp"      ? "/proc/net/arp"
                                     : name == "limits" ? "/qvconf/speedlimit_maclist"
                                                        : std::string(STAGE) + '/' + name;
            write_file(file, value.get<std::string>());
        }
    }
}

// An interface is one end of a cable; it has a carrier when the other end is up. The kernel notes that a
// little later.
void Stage::set_links(const Parsed &links)
{
    const std::string file = std::string(STAGE) + "/links";
    std::string batch;
    for (const auto &[name, link] : links.items()) {
        auto &peer = peers_[name];
        if (peer.empty()) {
            peer = "peer" + std::to_string(peers_.size());
            batch.append("link add ").append(name).append(" type veth peer name ").append(peer).append("\n");
        }
        batch.append("link set ").append(name).append(" address ").append(link["mac"].get<std::string>());
        batch.append(link["up"].get<bool>() ? " up\nlink set " : " down\nlink set ").append(peer);
        batch.append(link["carrier"].get<bool>() ? " up\n" : " down\n");
    }
    write_file(file, batch);
    run({"ip", "-batch", file}, "the interfaces cannot be made");
    for (const auto &[name, link] : links.items()) {
        const bool running = link["up"].get<bool>() && link["carrier"].get<bool>();
        for (int tries = 0; is_running(name) != running; ++tries) {
            if (tries == TRIES) {
                throw std::runtime_error(name + " does not get its carrier");
            }
            usleep(TRY_US);
        }
    }
}

void Stage::import_store(const StoreText &store) const
{
    const std::string file = std::string(STAGE) + "/store.conf";
    write_file(file, format_store(store));
    run({own_path(), "store", "import", file}, "the store does not take what the recording says");
}

StoreText Stage::export_store() const
{
    const auto text = output_of({own_path(), "store", "export", "-"});
    if (!text) {
        throw std::runtime_error("the store cannot be exported");
    }
    return parse_store(*text);
}

// --- Processes

// Found beside this program, or in PATH. It ends with this process.
pid_t Stage::start(const char *program) const
{
    const pid_t child = fork();
    require(child >= 0, program);
    if (child > 0) {
        return child;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    signal(SIGPIPE, SIG_DFL);
    const int quiet = open("/dev/null", O_RDWR);
    dup2(quiet, STDIN_FILENO);
    dup2(log_ < 0 ? quiet : log_, STDOUT_FILENO);
    dup2(log_ < 0 ? quiet : log_, STDERR_FILENO);
    const char *path = getenv("PATH");
    const std::string beside =
        own_directory() + ':' + (path == nullptr ? "/usr/sbin:/usr/bin:/sbin:/bin" : path);
    setenv("PATH", (std::string(STAGE) + "/bin:" + beside).c_str(), 1);
    execvp(program, exec_arguments({program}).data());
    _exit(CANNOT_EXECUTE);
}

void Stage::start_broker()
{
    broker_ = start("ubusd");
    for (int tries = 0; connect_bus(nullptr) == nullptr; ++tries) {
        if (tries == TRIES || waitpid(broker_, nullptr, WNOHANG) != 0) {
            throw std::runtime_error("the broker did not come up");
        }
        usleep(TRY_US);
    }
}

void Stage::start_daemon()
{
    daemon_ = start("ovani");
}

bool Stage::daemon_runs()
{
    int status = 0;
    if (daemon_ != 0 && waitpid(daemon_, &status, WNOHANG) == daemon_) {
        daemon_ = 0;
        daemon_status_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }
    return daemon_ != 0;
}

int Stage::stop_daemon()
{
    for (int tries = 0; daemon_runs(); ++tries) {
        kill(daemon_, tries < TRIES ? SIGTERM : SIGKILL);
        usleep(TRY_US);
    }
    return daemon_status_;
}
