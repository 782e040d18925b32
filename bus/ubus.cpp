// The bus on the command line.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <string_view>
#include <unistd.h>

#include <libubox/blobmsg_json.h>
#include <libubus.h>

namespace {

// Exit statuses are bus statuses, but for these two.
constexpr int USAGE_ERROR = 254;
constexpr int FAILED = 255;

struct Options {
    const char *socket = nullptr;
    int timeout = 0; // seconds; 0: not given
    bool simple = false;
    bool verbose = false;
    uint32_t types = 0;    // of messages to show, a bit each; 0: all
    char direction = '\0'; // 'r' received by the broker, 't' sent; else both
};
Options options;

constexpr int DEFAULT_TIMEOUT = 30;

int time_limit()
{
    return options.timeout != 0 ? options.timeout : DEFAULT_TIMEOUT;
}

// A message built from an optional JSON argument.
struct Message {
    blob_buf buf = {};

    Message() { blob_buf_init(&buf, 0); }
    ~Message() { blob_buf_free(&buf); }
    Message(const Message &) = delete;
    Message &operator=(const Message &) = delete;

    bool parse(const char *json) { return json == nullptr || blobmsg_add_json_from_string(&buf, json); }
};

void print_json(const char *before, char *json, const char *after)
{
    printf("%s%s%s\n", before, json != nullptr ? json : "", after);
    free(json);
}

// A timer that ends the loop (0 seconds: never), and is out of it when its scope ends.
class EndTimer {
public:
    explicit EndTimer(int seconds)
    {
        timer_.cb = [](uloop_timeout *) { uloop_end(); };
        if (seconds > 0) {
            uloop_timeout_set(&timer_, seconds * 1000);
        }
    }
    ~EndTimer() { uloop_timeout_cancel(&timer_); }
    EndTimer(const EndTimer &) = delete;
    EndTimer &operator=(const EndTimer &) = delete;

private:
    uloop_timeout timer_ = {};
};

const char *parameter_type(void * /*priv*/, blob_attr *attr)
{
    if (blobmsg_type(attr) != BLOBMSG_TYPE_INT32) {
        return nullptr;
    }
    switch (blobmsg_get_u32(attr)) {
    case BLOBMSG_TYPE_ARRAY:
        return "\"Array\"";
    case BLOBMSG_TYPE_TABLE:
        return "\"Table\"";
    case BLOBMSG_TYPE_STRING:
        return "\"String\"";
    case BLOBMSG_TYPE_INT32:
        return "\"Integer\"";
    case BLOBMSG_TYPE_BOOL:
        return "\"Boolean\"";
    default:
        return "\"(unknown)\"";
    }
}

void print_object(ubus_context * /*ctx*/, ubus_object_data *object, void * /*priv*/)
{
    if (options.simple || !options.verbose) {
        printf("%s\n", object->path);
        return;
    }
    printf("'%s' @%08x\n", object->path, object->id);
    size_t left = 0;
    blob_attr *method = nullptr;
    blob_for_each_attr(method, object->signature, left)
    {
        print_json("\t", blobmsg_format_json_with_cb(method, false, parameter_type, nullptr, -1), "");
    }
}

void print_reply(ubus_request * /*req*/, int /*type*/, blob_attr *msg)
{
    print_json("", blobmsg_format_json_indent(msg, true, options.simple ? -1 : 0), "");
}

void print_event(ubus_context * /*ctx*/, ubus_event_handler * /*ev*/, const char *type, blob_attr *msg)
{
    printf("{ \"%s\": ", type);
    print_json("", blobmsg_format_json(msg, true), " }");
    if (fflush(stdout) != 0) { // nobody reads on
        uloop_end();
    }
}

int list_objects(ubus_context *ctx, int argc, char **argv)
{
    if (argc > 1) {
        return USAGE_ERROR;
    }
    return ubus_lookup(ctx, argc == 1 ? argv[0] : nullptr, print_object, nullptr);
}

// Into a log goes the whole command that failed; its exit status is negative then.
int call_error(int argc, char **argv, int status)
{
    if (options.simple || isatty(STDERR_FILENO) != 0) {
        return status;
    }
    fprintf(stderr, "Command failed: ubus call ");
    for (int i = 0; i < argc; ++i) {
        fprintf(stderr, "%s ", argv[i]);
    }
    fprintf(stderr, "(%s)\n", ubus_strerror(status));
    return -status;
}

int call_method(ubus_context *ctx, int argc, char **argv)
{
    if (argc < 2 || argc > 3) {
        return USAGE_ERROR;
    }
    Message message;
    if (!message.parse(argc == 3 ? argv[2] : nullptr)) {
        return call_error(argc, argv, UBUS_STATUS_PARSE_ERROR);
    }
    uint32_t id = 0;
    int status = ubus_lookup_id(ctx, argv[0], &id);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    status = ubus_invoke(ctx, id, argv[1], message.buf.head, print_reply, nullptr, time_limit() * 1000);
    return status == UBUS_STATUS_OK ? status : call_error(argc, argv, status);
}

int send_event(ubus_context *ctx, int argc, char **argv)
{
    if (argc < 1 || argc > 2) {
        return USAGE_ERROR;
    }
    Message message;
    if (!message.parse(argc == 2 ? argv[1] : nullptr)) {
        return UBUS_STATUS_PARSE_ERROR;
    }
    return ubus_send_event(ctx, argv[0], message.buf.head);
}

int print_events(ubus_context *ctx, int argc, char **argv)
{
    ubus_event_handler handler = {};
    handler.cb = print_event;
    for (int i = 0; i < (argc > 0 ? argc : 1); ++i) {
        const char *pattern = argc > 0 ? argv[i] : "*";
        const int status = ubus_register_event_handler(ctx, &handler, pattern);
        if (status == UBUS_STATUS_OK) {
            continue;
        }
        if (!options.simple) {
            fprintf(stderr, "Error while registering for event '%s': %s\n", pattern, ubus_strerror(status));
        }
        return FAILED;
    }

    const EndTimer timer(options.timeout);
    ubus_add_uloop(ctx);
    uloop_run();
    return ctx->sock.eof ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_OK;
}

// The objects that are waited for; those that have come are null.
struct Waiting {
    ubus_event_handler handler = {};
    char **paths = nullptr;
    int count = 0;
    int missing = 0;
};

void strike_out(Waiting &waiting, const char *path)
{
    for (int i = 0; i < waiting.count; ++i) {
        if (waiting.paths[i] != nullptr && strcmp(waiting.paths[i], path) == 0) {
            waiting.paths[i] = nullptr;
            --waiting.missing;
        }
    }
    if (waiting.missing == 0) {
        uloop_end();
    }
}

void on_object_added(ubus_context * /*ctx*/, ubus_event_handler *ev, const char * /*type*/, blob_attr *msg)
{
    static constexpr blobmsg_policy policy = {"path", BLOBMSG_TYPE_STRING};
    blob_attr *path = nullptr;
    blobmsg_parse(&policy, 1, &path, blob_data(msg), static_cast<unsigned>(blob_len(msg)));
    if (path != nullptr) {
        strike_out(*container_of(ev, Waiting, handler), blobmsg_get_string(path));
    }
}

void on_object_listed(ubus_context * /*ctx*/, ubus_object_data *object, void *priv)
{
    strike_out(*static_cast<Waiting *>(priv), object->path);
}

int wait_for_objects(ubus_context *ctx, int argc, char **argv)
{
    if (argc < 1) {
        return USAGE_ERROR;
    }
    Waiting waiting;
    waiting.handler.cb = on_object_added;
    waiting.paths = argv;
    waiting.count = argc;
    waiting.missing = argc;
    ubus_add_uloop(ctx);
    int status = ubus_register_event_handler(ctx, &waiting.handler, "ubus.object.add");
    if (status == UBUS_STATUS_OK) {
        status = ubus_lookup(ctx, nullptr, on_object_listed, &waiting);
    }
    if (status != UBUS_STATUS_OK || waiting.missing == 0) {
        return status;
    }

    const EndTimer timer(time_limit());
    uloop_run();
    if (waiting.missing == 0) {
        return UBUS_STATUS_OK;
    }
    return ctx->sock.eof ? UBUS_STATUS_CONNECTION_FAILED : UBUS_STATUS_TIMEOUT;
}

constexpr const char *MESSAGE_TYPES[] = {"hello",     "status",      "data",       "ping",
                                         "lookup",    "invoke",      "add_object", "remove_object",
                                         "subscribe", "unsubscribe", "notify"};

// The members of a message that are printed: those of each type under their names, in the order of their ids.
struct Shown {
    const char *name;
    ubus_msg_attr id;
    unsigned type;
};
constexpr Shown SHOWN[] = {
    {"status", UBUS_ATTR_STATUS, BLOB_ATTR_INT32},    {"objpath", UBUS_ATTR_OBJPATH, BLOB_ATTR_STRING},
    {"objid", UBUS_ATTR_OBJID, BLOB_ATTR_INT32},      {"method", UBUS_ATTR_METHOD, BLOB_ATTR_STRING},
    {"objtype", UBUS_ATTR_OBJTYPE, BLOB_ATTR_INT32},  {"signature", UBUS_ATTR_SIGNATURE, BLOB_ATTR_NESTED},
    {"data", UBUS_ATTR_DATA, BLOB_ATTR_NESTED},       {"active", UBUS_ATTR_ACTIVE, BLOB_ATTR_INT8},
    {"no_reply", UBUS_ATTR_NO_REPLY, BLOB_ATTR_INT8}, {"user", UBUS_ATTR_USER, BLOB_ATTR_STRING},
    {"group", UBUS_ATTR_GROUP, BLOB_ATTR_STRING},
};

// The members of a message as one JSON object, for free().
char *format_members(blob_attr *members)
{
    blob_attr_info policy[UBUS_ATTR_MAX] = {};
    for (const Shown &shown : SHOWN) {
        policy[shown.id].type = shown.type;
    }
    blob_attr *attr[UBUS_ATTR_MAX];
    blob_parse_untrusted(members, blob_raw_len(members), attr, policy, UBUS_ATTR_MAX);

    Message message;
    for (const auto &[name, id, type] : SHOWN) {
        const blob_attr *member = attr[id];
        if (member == nullptr) {
            continue;
        }
        switch (type) {
        case BLOB_ATTR_INT32:
            blobmsg_add_u32(&message.buf, name, blob_get_u32(member));
            break;
        case BLOB_ATTR_STRING:
            blobmsg_add_string(&message.buf, name, blob_get_string(member));
            break;
        case BLOB_ATTR_INT8:
            blobmsg_add_u8(&message.buf, name, blob_get_u8(member) != 0 ? 1 : 0);
            break;
        default:
            blobmsg_add_field(&message.buf, BLOBMSG_TYPE_TABLE, name, blob_data(member),
                              static_cast<unsigned>(blob_len(member)));
        }
    }
    return blobmsg_format_json(message.buf.head, true);
}

void print_message(ubus_context * /*ctx*/, uint32_t /*seq*/, blob_attr *msg)
{
    blob_attr_info policy[UBUS_MONITOR_MAX] = {};
    for (const ubus_monitor_attr id : {UBUS_MONITOR_CLIENT, UBUS_MONITOR_PEER, UBUS_MONITOR_TYPE}) {
        policy[id].type = BLOB_ATTR_INT32;
    }
    policy[UBUS_MONITOR_SEND].type = BLOB_ATTR_INT8;
    policy[UBUS_MONITOR_DATA].type = BLOB_ATTR_NESTED;
    blob_attr *attr[UBUS_MONITOR_MAX];
    blob_parse_untrusted(msg, blob_raw_len(msg), attr, policy, UBUS_MONITOR_MAX);
    for (int id = 0; id < UBUS_MONITOR_MAX; ++id) {
        if (attr[id] == nullptr && id != UBUS_MONITOR_SEQ) {
            printf("Invalid monitor msg\n");
            return;
        }
    }

    const uint32_t type = blob_get_u32(attr[UBUS_MONITOR_TYPE]);
    const bool sent = blob_get_u8(attr[UBUS_MONITOR_SEND]) != 0;
    const bool wanted = options.types == 0 || type >= 32 || (options.types & (1U << type)) != 0;
    if (!wanted || options.direction == (sent ? 'r' : 't')) {
        return;
    }
    char number[16];
    snprintf(number, sizeof(number), "%u", type);
    printf("%s %08x #%08x %14s: ", sent ? "->" : "<-", blob_get_u32(attr[UBUS_MONITOR_CLIENT]),
           blob_get_u32(attr[UBUS_MONITOR_PEER]),
           type < ARRAY_SIZE(MESSAGE_TYPES) ? MESSAGE_TYPES[type] : number);
    print_json("", format_members(attr[UBUS_MONITOR_DATA]), "");
    if (fflush(stdout) != 0) {
        uloop_end();
    }
}

int monitor(ubus_context *ctx, int argc, char ** /*argv*/)
{
    if (argc > 0) {
        return USAGE_ERROR;
    }
    ubus_add_uloop(ctx);
    ctx->monitor_cb = print_message;
    const int status = ubus_monitor_start(ctx);
    if (status != UBUS_STATUS_OK) {
        return status;
    }
    const EndTimer timer(options.timeout);
    uloop_run();
    if (ctx->sock.eof) {
        return UBUS_STATUS_CONNECTION_FAILED;
    }
    ubus_monitor_stop(ctx);
    return UBUS_STATUS_OK;
}

struct Command {
    const char *name;
    int (*run)(ubus_context *ctx, int argc, char **argv);
};
constexpr Command COMMANDS[] = {
    {"list", list_objects}, {"call", call_method},          {"listen", print_events},
    {"send", send_event},   {"wait_for", wait_for_objects}, {"monitor", monitor},
};

int usage(const char *program, FILE *out = stderr)
{
    fprintf(out,
            "Usage: %s [<options>] <command> [arguments...]\n"
            "Looks at the message bus, and talks over it\n"
            "\n"
            "Options:\n"
            " -s <socket>    Connect to this socket instead of " UBUS_UNIX_SOCKET "\n"
            " -t <seconds>   How long a command may take (call, wait_for: 30)\n"
            " -S             Simplified output, for scripts\n"
            " -v             More verbose output\n"
            " -m <type>      monitor: messages of this type, and others given so\n"
            " -M r|t         monitor: only those that the broker receives, or transmits\n"
            " -h, --help     Print this\n"
            " -V, --version  Print the version\n"
            "\n"
            "Commands:\n"
            " list [<path>]                    List objects\n"
            " call <path> <method> [<message>] Call a method of an object\n"
            " listen [<pattern>...]            Print events as they come\n"
            " send <type> [<message>]          Send an event\n"
            " wait_for <object> [<object>...]  Wait until these objects are there\n"
            " monitor                          Print all that goes over the bus\n"
            "\n"
            "A message is a JSON object. A path or pattern may end with '*'.\n",
            program);
    return out == stdout ? 0 : 1;
}

bool parse_seconds(const char *text, int *seconds)
{
    char *end = nullptr;
    errno = 0;
    const long value = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || value < 0 || value > INT_MAX / 1000) {
        return false;
    }
    *seconds = static_cast<int>(value);
    return true;
}

constexpr option LONG_OPTIONS[] = {
    {"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'V'}, {}};

bool add_type(std::string_view name)
{
    for (size_t type = 0; type < ARRAY_SIZE(MESSAGE_TYPES); ++type) {
        if (name == MESSAGE_TYPES[type]) {
            options.types |= 1U << type;
            return true;
        }
    }
    return false;
}

bool parse_options(int argc, char **argv)
{
    int option = 0;
    while ((option = getopt_long(argc, argv, "s:t:Svm:M:hV", LONG_OPTIONS, nullptr)) != -1) {
        switch (option) {
        case 'h':
            exit(usage(argv[0], stdout));
        case 'V':
            puts("ubus " OVANI_VERSION);
            exit(0);
        case 's':
            options.socket = optarg;
            break;
        case 't':
            if (!parse_seconds(optarg, &options.timeout)) {
                return false;
            }
            break;
        case 'S':
            options.simple = true;
            break;
        case 'v':
            options.verbose = true;
            break;
        case 'm':
            if (!add_type(optarg)) {
                return false;
            }
            break;
        case 'M':
            options.direction = optarg[0];
            if (options.direction != 'r' && options.direction != 't') {
                return false;
            }
            break;
        default:
            return false;
        }
    }
    return optind < argc;
}

} // namespace

int main(int argc, char **argv)
{
    if (!parse_options(argc, argv)) {
        return usage(argv[0]);
    }
    const Command *command = nullptr;
    for (const Command &c : COMMANDS) {
        if (strcmp(c.name, argv[optind]) == 0) {
            command = &c;
        }
    }

    if (command == nullptr) {
        usage(argv[0]);
        return USAGE_ERROR;
    }

    ubus_context *ctx = ubus_connect(options.socket);
    if (ctx == nullptr) {
        if (!options.simple) {
            fprintf(stderr, "Failed to connect to ubus\n");
        }
        return FAILED;
    }
    const int status = command->run(ctx, argc - optind - 1, argv + optind + 1);
    if (status == USAGE_ERROR) {
        usage(argv[0]);
    } else if (status > 0 && status < __UBUS_STATUS_LAST && !options.simple) {
        fprintf(stderr, "Command failed: %s\n", ubus_strerror(status));
    }
    ubus_free(ctx);
    return status;
}
