#include "cdsctl.h"

#include "leaf_json.h"
#include "toolkit/event_log.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <sys/time.h>

using nlohmann::json;
using toolkit::CCdsStore;
using toolkit::CElement;
using toolkit::CLeafInfo;

namespace {

const char k_usage[] =
    "Usage: cdsctl [--store FILE] [--log FILE] COMMAND [ARGS...]\n"
    "       cdsctl --version\n"
    "\n"
    "Reads and changes the data store, a SQLite file that the device's processes share.\n"
    "The store is FILE, else $CDS_STORE, else /var/lib/cds/store.db. Events live in the\n"
    "store unless --log names another file.\n"
    "\n"
    "To give running processes a new store, load into the live one (\"load FILE.json\n"
    "--replace\", one transaction). Replace the file itself only with the store's processes\n"
    "stopped, and remove STORE-wal and STORE-shm with it: a -wal file left beside a new\n"
    "store holds pages of the old one and corrupts it. STORE-changes, a change counter,\n"
    "may stay. Running processes reopen a store renamed over theirs, and refuse writes\n"
    "while it is missing.\n"
    "\n"
    "Commands:\n";

const char k_usage_end[] = "\nRun \"cdsctl COMMAND --help\" for the details of a command.\n";

timeval now() {
    timeval t;
    gettimeofday(&t, nullptr);
    return t;
}

bool read_file(const tk_string& name, tk_string& text, tk_string& error) {
    std::ifstream file;
    std::istream* in = &std::cin;
    if (name != "-") {
        struct stat st;
        if (::stat(name.c_str(), &st) != 0) {
            error = name + ": cannot open: " + std::strerror(errno);
            return false;
        }
        if (!S_ISREG(st.st_mode)) {
            error = name + ": cannot open: not a regular file";
            return false;
        }
        file.open(name, std::ios::binary);
        if (!file) {
            error = name + ": cannot open: " + std::strerror(errno);
            return false;
        }
        in = &file;
    }
    try {
        text.assign(std::istreambuf_iterator<char>(*in), std::istreambuf_iterator<char>());
    } catch (const std::exception& e) {
        error = name + ": read error: " + e.what();
        return false;
    }
    return true;
}

bool parse_uint(const tk_string& text, uint64_t& out) {
    CElement e;
    if (!CElement::convert(CElement::from_string(text), CElement::TYPE_UINT, e))
        return false;
    out = e.to_uint();
    return true;
}

bool parse_int(const tk_string& text, int64_t& out) {
    CElement e;
    if (!CElement::convert(CElement::from_string(text), CElement::TYPE_INT, e))
        return false;
    out = e.to_int();
    return true;
}

const char* status_text(api_status_t status) {
    switch (status) {
    case API_STATUS_NOT_FOUND:
        return "no such leaf";
    case API_STATUS_BAD_VALUE:
        return "the value does not convert to the leaf's type";
    case API_STATUS_READ_ONLY:
        return "the connection is read-only";
    default:
        return "the stored value does not match the leaf's type";
    }
}

} // namespace

const std::vector<CCdsctl::CCommand>& CCdsctl::commands() {
    static const std::vector<CCommand> list = {
        {"init",
         "create an empty store",
         &CCdsctl::cmd_init,
         "init",
         "Creates an empty store. The file must not exist yet.",
         {},
         0,
         0},
        {"load",
         "define leaves from a JSON file",
         &CCdsctl::cmd_load,
         "load FILE.json [--replace]",
         "Defines the leaves of a JSON file (\"-\": standard input), creating them or changing\n"
         "their type and value, all in one transaction: on any error nothing is written.\n"
         "The file is a tree of nested objects, {\"Software\": {\"Port\": 502}}, or a map of\n"
         "absolute paths, {\"/Software/Port\": 502}. true/false make bool leaves, whole\n"
         "numbers int, other numbers float, text string; give other types explicitly:\n"
         "{\"$type\": \"uint\", \"$value\": 502} (types: bool int uint float string time;\n"
         "an optional \"$property\" sets the property word).\n"
         "  --replace   remove every leaf of the store first",
         {"replace"},
         1,
         1},
        {"dump",
         "print leaves as JSON",
         &CCdsctl::cmd_dump,
         "dump [PATH] [--flat]",
         "Prints the leaf at PATH, or every leaf below the node PATH (default: the whole\n"
         "store), as a JSON tree from the root that \"load\" reads back.\n"
         "  --flat      print a map of absolute paths instead of a tree",
         {"flat"},
         0,
         1},
        {"get",
         "print values of leaves",
         &CCdsctl::cmd_get,
         "get PATH... [--long]",
         "Prints the value of each leaf; with several paths as \"PATH = VALUE\". "
         "\"NODE/Children\"\n"
         "gives a node's children. Fails if any leaf cannot be read.\n"
         "  --long      also print type, time stamp and property word",
         {"long"},
         1,
         SIZE_MAX},
        {"set",
         "write a value, or define a leaf with --type",
         &CCdsctl::cmd_set,
         "set PATH VALUE [--type TYPE [--property N]]",
         "Writes VALUE into an existing leaf, converted to the leaf's type, as a device\n"
         "process would. With --type the leaf is created or redefined with that type\n"
         "(bool int uint float string time).",
         {"type=", "property="},
         2,
         2},
        {"ls",
         "list a node's children",
         &CCdsctl::cmd_ls,
         "ls [PATH]",
         "Lists the children of a node (default: the root), nodes with a trailing \"/\".",
         {},
         0,
         1},
        {"rm",
         "remove a leaf or a node",
         &CCdsctl::cmd_rm,
         "rm PATH [--recursive]",
         "Removes a leaf, or with --recursive (-r) a node and everything below it.",
         {"recursive"},
         1,
         1},
        {"event",
         "append a record to the event log (event add)",
         &CCdsctl::cmd_event_add,
         "event add --id N --kind K [--completion C] [--time T] [--value V]\n"
         "          [--source PATH] [--url URL] [--attach NAME]...",
         "Appends a record to the event log. T is ISO 8601 UTC text or seconds since the\n"
         "epoch (default: now); completion and value default to 0.",
         {"id=", "kind=", "completion=", "time=", "value=", "source=", "url=", "attach="},
         1,
         1},
        {"events",
         "print the newest event records",
         &CCdsctl::cmd_events,
         "events [N] [--before T]",
         "Prints the N newest records of the event log (default 20), oldest first.\n"
         "  --before T  only records not after T",
         {"before="},
         0,
         1},
        {"watchdog",
         "show watchdog registrations",
         &CCdsctl::cmd_watchdog,
         "watchdog",
         "Shows the processes registered with the watchdog and which of them are overdue.",
         {},
         0,
         0},
    };
    return list;
}

int CCdsctl::usage_error(const tk_string& message) {
    std::fprintf(stderr, "cdsctl: %s%s%s\n", _command.empty() ? "" : (_command + ": ").c_str(),
                 message.c_str(),
                 ("; see cdsctl " + (_command.empty() ? "" : _command + " ") + "--help").c_str());
    return 2;
}

int CCdsctl::fail(const tk_string& message) {
    std::fprintf(stderr, "cdsctl: %s: %s\n", _command.c_str(), message.c_str());
    return 1;
}

bool CCdsctl::parse(const CCommand& cmd, const std::vector<tk_string>& args, size_t first,
                    CArgs& out) {
    bool options_done = false;
    for (size_t i = first; i < args.size(); ++i) {
        const tk_string& a = args[i];
        // "-5" is a value, not an option.
        const bool looks_like_option =
            a.size() > 1 && a[0] == '-' && !(a[1] >= '0' && a[1] <= '9') && a[1] != '.';
        if (options_done || !looks_like_option) {
            out.positional.push_back(a);
            continue;
        }
        if (a == "--") {
            options_done = true;
            continue;
        }
        tk_string name = a.substr(a[1] == '-' ? 2 : 1);
        tk_string value;
        bool has_value = false;
        const size_t eq = name.find('=');
        if (eq != tk_string::npos) {
            value = name.substr(eq + 1);
            name.erase(eq);
            has_value = true;
        }
        const char* match = nullptr;
        for (const char* opt : cmd.options) {
            const tk_string o = opt;
            const tk_string bare = o.back() == '=' ? o.substr(0, o.size() - 1) : o;
            if (name == bare || (a[1] != '-' && name.size() == 1 && bare[0] == name[0]))
                match = opt;
        }
        if (!match) {
            usage_error("unknown option " + a);
            return false;
        }
        const tk_string o = match;
        if (o.back() == '=') {
            if (!has_value) {
                if (i + 1 >= args.size()) {
                    usage_error("option " + a + " needs a value");
                    return false;
                }
                value = args[++i];
            }
            out.options[o.substr(0, o.size() - 1)].push_back(value);
        } else {
            if (has_value) {
                usage_error("option --" + o + " takes no value");
                return false;
            }
            out.options[o].push_back(tk_string());
        }
    }
    if (out.positional.size() < cmd.min_args) {
        usage_error("missing arguments");
        return false;
    }
    if (out.positional.size() > cmd.max_args) {
        usage_error("too many arguments");
        return false;
    }
    return true;
}

int CCdsctl::run(const std::vector<tk_string>& args) {
    _store = kvr_store_path();
    size_t i = 0;
    for (; i < args.size() && args[i].size() > 1 && args[i][0] == '-'; ++i) {
        const tk_string& a = args[i];
        if (a == "-h" || a == "--help") {
            std::printf("%s", k_usage);
            for (const CCommand& c : commands()) {
                std::printf("  %-10s %s\n", c.name, c.summary);
            }
            std::printf("%s", k_usage_end);
            return 0;
        }
        if (a == "-v" || a == "--version") {
            std::printf("cdsctl: version %s\n", MB_VERSION);
            return 0;
        }
        if ((a == "--store" || a == "-s" || a == "--log") && i + 1 < args.size()) {
            (a == "--log" ? _log : _store) = args[++i];
            continue;
        }
        if (a.compare(0, 8, "--store=") == 0) {
            _store = a.substr(8);
            continue;
        }
        if (a.compare(0, 6, "--log=") == 0) {
            _log = a.substr(6);
            continue;
        }
        return usage_error("unknown option " + a);
    }
    if (_log.empty())
        _log = _store;
    if (i >= args.size())
        return usage_error("no command given");
    for (const CCommand& cmd : commands()) {
        if (args[i] != cmd.name)
            continue;
        _command = cmd.name;
        size_t first = i + 1;
        if (_command == "event") {
            if (first < args.size() && args[first] != "add" && args[first] != "--help" &&
                args[first] != "-h")
                return usage_error("unknown subcommand " + args[first]);
            _command = "event add";
        }
        for (size_t k = first; k < args.size(); ++k) {
            if (args[k] == "--help" || args[k] == "-h") {
                std::printf("Usage: cdsctl %s\n\n%s\n", cmd.synopsis, cmd.help);
                return 0;
            }
            if (args[k] == "--")
                break;
        }
        CArgs parsed;
        if (!parse(cmd, args, first, parsed))
            return 2;
        if (_command == "event add")
            parsed.positional.erase(parsed.positional.begin());
        return (this->*cmd.run)(parsed);
    }
    return usage_error("unknown command " + args[i]);
}

bool CCdsctl::open_store(CCdsStore& store) {
    if (store.open(_store) == 0)
        return true;
    fail(store.error());
    return false;
}

int CCdsctl::cmd_init(const CArgs&) {
    tk_string error;
    if (CCdsStore::create(_store, error) != 0)
        return fail(error);
    std::printf("created %s\n", _store.c_str());
    return 0;
}

int CCdsctl::cmd_load(const CArgs& args) {
    const tk_string& name = args.positional[0];
    tk_string text, error;
    if (!read_file(name, text, error))
        return fail(error);
    std::vector<CLeafInfo> leaves;
    if (!CLeafJson::parse(text, name, leaves, error))
        return fail(error);
    CCdsStore store;
    if (!open_store(store))
        return 1;
    if (store.define(leaves, args.has("replace")) != 0)
        return fail(store.error());
    std::printf("loaded %zu leaves into %s\n", leaves.size(), _store.c_str());
    return 0;
}

int CCdsctl::cmd_dump(const CArgs& args) {
    const tk_string path = args.positional.empty() ? tk_string("/") : args.positional[0];
    CCdsStore store;
    if (!open_store(store))
        return 1;
    std::vector<CLeafInfo> leaves;
    if (store.list(path, leaves) != 0)
        return fail(store.error());
    if (leaves.empty() && CCdsStore::normal_path(path) != "/")
        return fail(CCdsStore::normal_path(path) + ": no such leaf or node");
    json doc;
    tk_string error;
    if (args.has("flat"))
        doc = CLeafJson::to_flat(leaves);
    else if (!CLeafJson::to_tree(leaves, doc, error))
        return fail(error);
    std::printf("%s\n", doc.dump(2).c_str());
    return 0;
}

int CCdsctl::cmd_get(const CArgs& args) {
    CCdsStore store;
    if (!open_store(store))
        return 1;
    std::vector<api_status_t> statuses;
    std::vector<CElement> values;
    std::vector<element_property_t> sources;
    if (store.cds().get_leaves(args.positional, statuses, values, sources) != 0)
        return fail(store.cds().error());
    int rc = 0;
    const bool several = args.positional.size() > 1;
    for (size_t i = 0; i < args.positional.size(); ++i) {
        const tk_string& path = args.positional[i];
        if (statuses[i] != API_STATUS_OK) {
            const tk_string normal = CCdsStore::normal_path(path);
            const bool children =
                normal.size() >= 9 && normal.compare(normal.size() - 9, 9, "/Children") == 0;
            rc = fail(normal + ": " +
                      (children && statuses[i] == API_STATUS_NOT_FOUND ? "no such node"
                                                                       : status_text(statuses[i])));
            continue;
        }
        tk_string line = several ? path + " = " + values[i].str() : values[i].str();
        if (args.has("long")) {
            line += tk_string("  (") + CElement::type_name(values[i].type());
            if (!CElement::is_invalid_time(values[i].time()))
                line += ", " + CElement::time_to_string(values[i].time());
            line += ", property " + std::to_string(sources[i]) + ")";
        }
        std::printf("%s\n", line.c_str());
    }
    return rc;
}

int CCdsctl::cmd_set(const CArgs& args) {
    const tk_string& path = args.positional[0];
    const tk_string& text = args.positional[1];
    CCdsStore store;
    if (args.has("property") && !args.has("type"))
        return usage_error("--property needs --type");
    if (args.has("type")) {
        CLeafInfo leaf;
        leaf.path = path;
        leaf.value = CElement::from_string(text);
        if (!CElement::type_from_name(args.value("type"), leaf.type))
            return usage_error("unknown type '" + args.value("type") +
                               "' (bool int uint float string time)");
        uint64_t property = 0;
        if (args.has("property")) {
            if (!parse_uint(args.value("property"), property) || property > 0xffffffffu)
                return usage_error("--property must be a number from 0 to 4294967295");
        }
        leaf.property = static_cast<element_property_t>(property);
        tk_string error;
        if (!CLeafJson::check_value(leaf, error))
            return fail(error);
        if (!open_store(store))
            return 1;
        if (store.define(std::vector<CLeafInfo>(1, leaf)) != 0)
            return fail(store.error());
        return 0;
    }
    if (!open_store(store))
        return 1;
    // The store would take 2 as true and clamp a far time; a person gets told instead.
    std::vector<CLeafInfo> existing;
    if (store.list(path, existing) == 0 && existing.size() == 1) {
        existing[0].value = CElement::from_string(text);
        tk_string error;
        if (!CLeafJson::check_value(existing[0], error))
            return fail(error);
    }
    std::vector<api_status_t> statuses;
    if (store.cds().set_leaves(
            std::vector<tk_string>(1, path), std::vector<CElement>(1, CElement::from_string(text)),
            std::vector<kvr_tribool_t>(1, KVR_INDETERMINATE), statuses, "cdsctl") != 0)
        return fail(CCdsStore::normal_path(path) + ": " + store.cds().error());
    const tk_string normal = CCdsStore::normal_path(path);
    switch (statuses[0]) {
    case API_STATUS_OK:
        return 0;
    case API_STATUS_NOT_FOUND:
        return fail(normal + ": no such leaf (give --type to create it)");
    case API_STATUS_BAD_VALUE: {
        std::vector<CLeafInfo> leaf;
        store.list(normal, leaf);
        const char* type = leaf.size() == 1 ? CElement::type_name(leaf[0].type) : "value";
        return fail(normal + ": '" + text + "' is not a valid " + type);
    }
    default:
        return fail(normal + ": " + status_text(statuses[0]));
    }
}

int CCdsctl::cmd_ls(const CArgs& args) {
    const tk_string path =
        CCdsStore::normal_path(args.positional.empty() ? "/" : args.positional[0]);
    CCdsStore store;
    if (!open_store(store))
        return 1;
    std::vector<std::pair<tk_string, bool>> names;
    if (store.children(path, names) != 0)
        return fail(store.error());
    if (names.empty()) {
        std::vector<CLeafInfo> leaf;
        if (store.list(path, leaf) != 0)
            return fail(store.error());
        if (leaf.size() == 1 && leaf[0].path == path) {
            std::printf("%s\n", path.c_str());
            return 0;
        }
        if (path != "/")
            return fail(path + ": no such node");
    }
    for (const auto& n : names)
        std::printf("%s%s\n", n.first.c_str(), n.second ? "/" : "");
    return 0;
}

int CCdsctl::cmd_rm(const CArgs& args) {
    CCdsStore store;
    if (!open_store(store))
        return 1;
    size_t removed = 0;
    if (store.remove(args.positional[0], args.has("recursive"), removed) != 0)
        return fail(store.error());
    std::printf("removed %zu %s\n", removed, removed == 1 ? "leaf" : "leaves");
    return 0;
}

int CCdsctl::cmd_event_add(const CArgs& args) {
    if (!args.has("id") || !args.has("kind"))
        return usage_error("--id and --kind are required");
    toolkit::CEvent ev;
    uint64_t u = 0;
    int64_t i = 0;
    if (!parse_uint(args.value("id"), ev.id))
        return usage_error("--id must be a number from 0 to 18446744073709551615");
    if (!parse_uint(args.value("kind"), u) || u > 0xffffffffu)
        return usage_error("--kind must be a number from 0 to 4294967295");
    ev.kind = static_cast<uint32_t>(u);
    if (args.has("completion")) {
        if (!parse_uint(args.value("completion"), u) || u > 0xffffffffu)
            return usage_error("--completion must be a number from 0 to 4294967295");
        ev.completion = static_cast<uint32_t>(u);
    }
    if (args.has("value")) {
        if (!parse_int(args.value("value"), i))
            return usage_error("--value must be a whole number");
        ev.value = i;
    }
    ev.time = now();
    if (args.has("time") && !CElement::time_from_string(args.value("time"), ev.time))
        return usage_error("--time must be ISO 8601 UTC text or seconds since the epoch");
    if (args.has("source"))
        ev.source = args.value("source");
    if (args.has("url"))
        ev.url = args.value("url");
    if (args.has("attach"))
        ev.attachments = args.options.at("attach");
    toolkit::CLog log;
    if (log.init(_log, 0, false, false, false, false, 0, 0, 0, false) != 0)
        return fail(kvr_last_error());
    if (log.add(ev) != 0)
        return fail(_log + ": " + log.error());
    return 0;
}

int CCdsctl::cmd_events(const CArgs& args) {
    uint64_t count = 20;
    if (!args.positional.empty() &&
        (!parse_uint(args.positional[0], count) || count == 0 || count > 1000000))
        return usage_error("N must be a number from 1 to 1000000");
    timeval before{0, 0};
    if (args.has("before") && !CElement::time_from_string(args.value("before"), before))
        return usage_error("--before must be ISO 8601 UTC text or seconds since the epoch");
    toolkit::CLog log;
    if (log.init(_log, 0, false, false, false, false, 0, 0, 0, false) != 0)
        return fail(kvr_last_error());
    std::vector<toolkit::CEvent> records;
    if (log.retrieve(records, tk_string(), nullptr, args.has("before") ? &before : nullptr,
                     static_cast<unsigned int>(count), false, false, 0) != 0)
        return fail(_log + ": " + log.error());
    for (const toolkit::CEvent& ev : records) {
        std::ostringstream line;
        line << CElement::time_to_string(ev.time) << "  id " << ev.id << "  kind " << ev.kind
             << "  completion " << ev.completion << "  value " << ev.value;
        if (ev.source)
            line << "  source " << *ev.source;
        if (ev.url)
            line << "  url " << *ev.url;
        for (size_t k = 0; k < ev.attachments.size(); ++k)
            line << (k == 0 ? "  attachments " : ", ") << ev.attachments[k];
        std::printf("%s\n", line.str().c_str());
    }
    return 0;
}

int CCdsctl::cmd_watchdog(const CArgs&) {
    CCdsStore store;
    if (!open_store(store))
        return 1;
    std::vector<toolkit::CWatchdogInfo> entries;
    if (store.watchdogs(entries) != 0)
        return fail(store.error());
    if (entries.empty())
        std::printf("no processes are registered with the watchdog\n");
    const timeval t = now();
    for (const toolkit::CWatchdogInfo& w : entries) {
        const int64_t age_ms = (static_cast<int64_t>(t.tv_sec) - w.last_ping.tv_sec) * 1000 +
                               (static_cast<int64_t>(t.tv_usec) - w.last_ping.tv_usec) / 1000;
        const char* state = !w.enabled ? "disabled" : age_ms > w.timeout_ms ? "OVERDUE" : "ok";
        std::printf("%-24s pid %lld  timeout %u ms  last ping %s (%lld ms ago)  %s\n",
                    w.ident.c_str(), static_cast<long long>(w.pid), w.timeout_ms,
                    CElement::time_to_string(w.last_ping).c_str(), static_cast<long long>(age_ms),
                    state);
    }
    return 0;
}
