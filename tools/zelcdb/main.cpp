// zelcdb: use CDB and SBP services from a terminal, through libzelcdbsdk.so.1.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cctype>
#include <climits>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Capture.h"
#include "ClientCommands.h"
#include "Console.h"
#include "Failure.h"
#include "Inbox.h"
#include "Library.h"
#include "Server.h"

namespace {

using namespace zelcdb;

const char* const kFooter = R"(
Exit codes:
  0    done; Ctrl-C (or SIGTERM) is the normal end of serve, and of listen and subscribe
       without --count
  1    the peer refused a request or answered with an error
  2    bad command line or value: unknown option, value of the wrong type, bad JSON or hex
  3    cannot connect, or the connection was lost
  4    unknown service or element
  5    time-out: the peer did not answer in time
  6    the element file cannot be read or is malformed
  130  interrupted by Ctrl-C or SIGTERM before the command got what it was asked for)";

// Each command's --timeout, to tell after parsing whether it was given.
std::vector<std::pair<const CLI::Option*, ConnectOptions*>> timeoutOptions;

void addConnect(CLI::App* command, ConnectOptions& connect) {
    command->add_option("URL", connect.url, "the peer, cdb://IPV4-ADDRESS:PORT")->required();
    const CLI::Option* timeout =
        command
            ->add_option("--timeout", connect.timeoutMs,
                         "milliseconds to wait for the connection (retried while refused), "
                         "the peer's list of services and each reply; given, it also limits "
                         "the wait for a peer with --server and for each update or payload. "
                         "SBP requests time out after 5 s of silence")
            ->default_val(5000)
            ->check(CLI::Range(1, 3600000));
    timeoutOptions.emplace_back(timeout, &connect);
    command->add_flag("--server", connect.waitForPeer,
                      "be the server endpoint: wait for the peer to connect to URL");
}

void addService(CLI::App* command, ServiceArgs& service) {
    addConnect(command, service.connect);
    command->add_option("SERVICE", service.service, "the peer's service, by name or by ID")
        ->required();
}

void addElementOptions(CLI::App* command, ElementArgs& elements) {
    command->add_flag("--uid", elements.byUid,
                      "ELEMENT is a UID (decimal or 0x hex), not a name to hash");
    command->add_option("--elements", elements.elementFile,
                        "element file to take names and types from (as for serve)");
    command->add_option("-n,--name", elements.names,
                        "more names to show in answers, such as structure members");
    command->add_flag("--raw", elements.raw, "SBP data as hex instead of JSON");
}

// CLI11 reports a missing argument before an unknown option, so "get --bogus" would only
// say that the URL is required. The first option that neither zelcdb nor the command knows.
std::string unknownOption(const CLI::App& app, const CLI::App* command, int argc, char** argv) {
    bool afterCommand = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (arg == "--") break;
        // Values such as -5 or -.5 are not options.
        if (arg.size() < 2 || arg[0] != '-' ||
            !(arg[1] == '-' || std::isalpha(static_cast<unsigned char>(arg[1])))) {
            afterCommand = afterCommand || (command && arg == command->get_name());
            continue;
        }
        // "--name=value", and "-vv" or "-n3": a short option's name is its first letter.
        std::string name = arg[1] == '-' ? arg.substr(0, arg.find('=')) : arg.substr(0, 2);
        if (app.get_option_no_throw(name)) continue;
        if (afterCommand && command->get_option_no_throw(name)) continue;
        return arg;
    }
    return "";
}

std::string versionText() {
    const ZELCDBSDK& table = sdk();
    return "zelcdb, libzelcdbsdk " + std::to_string(table.versionMajor) + "." +
           std::to_string(table.versionMinor) + "." + std::to_string(table.versionPatch) +
           " (build " + std::to_string(table.versionBuild) + ")";
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{
        "zelcdb: offer, list and use CDB and SBP services from a terminal.\n"
        "Values are printed as one JSON object per line, keyed by element name (or by UID\n"
        "in hex where the name is not known)."};
    app.name("zelcdb");
    app.footer(kFooter);
    app.fallthrough();
    app.require_subcommand(1);
    int verbosity = 0;
    app.add_flag("-v,--verbose", verbosity,
                 "show the library's log: -v errors, warnings and information, -vv all");
    app.set_version_flag("--version", versionText, "the version of zelcdb's library");
    std::string capturePath;
    app.add_option("--capture", capturePath,
                   "record the bytes exchanged with the peer in FILE, a pcap file with TCP "
                   "framing for Wireshark (tools/wireshark/zelcdb.lua reads CDB and SBP in it)")
        ->type_name("FILE");

    ServeArgs serve;
    CLI::App* serveCommand = app.add_subcommand(
        "serve", "offer an SBP service whose elements come from a JSON element file");
    serveCommand->add_option("URL", serve.url, "where to listen, cdb://IPV4-ADDRESS:PORT")
        ->required();
    serveCommand->add_option("--elements", serve.elementFile, "the element file")->required();
    serveCommand->add_option("--service", serve.service,
                             "service name and version, NAME[:MAJOR.MINOR] (default: the "
                             "file's \"service\", else zelcdb:1.0)");
    serveCommand->add_flag("--client", serve.client,
                           "connect to URL as the client endpoint instead of listening");
    serveCommand->add_option("--echo", serve.echo,
                             "also offer a plain CDB service of this name that repeats every "
                             "payload to every peer that started it");

    ConnectOptions servicesConnect;
    bool servicesJson = false;
    CLI::App* servicesCommand =
        app.add_subcommand("services", "connect and list the peer's services");
    addConnect(servicesCommand, servicesConnect);
    servicesCommand->add_flag("--json", servicesJson, "one JSON object per service");

    ServiceArgs getService;
    ElementArgs getElements;
    CLI::App* getCommand = app.add_subcommand("get", "read elements of an SBP service");
    addService(getCommand, getService);
    getCommand->add_option("ELEMENT", getElements.elements, "element names (or UIDs with --uid)")
        ->required();
    addElementOptions(getCommand, getElements);

    ServiceArgs setService;
    ElementArgs setElements;
    std::string setElement, setValue, setType;
    CLI::App* setCommand = app.add_subcommand(
        "set",
        "write an element of an SBP service. VALUE is JSON; a bare word is a string.\n"
        "Unless --type or --raw is given, the element is read first to learn its type, and\n"
        "structure members left out keep their values.");
    addService(setCommand, setService);
    setCommand->add_option("ELEMENT", setElement, "element name (or UID with --uid)")->required();
    setCommand->add_option("VALUE", setValue, "the value: JSON, or hex SBP data with --raw")
        ->required();
    setCommand->add_option("--type", setType,
                           "send a scalar of this type without reading the element first: "
                           "boolean, byte, short, int, long, float, double, bytes, string");
    addElementOptions(setCommand, setElements);

    ServiceArgs subscribeService;
    ElementArgs subscribeElements;
    std::string subscribeElement;
    SubscribeArgs subscribe;
    bool onChange = false;
    CLI::App* subscribeCommand = app.add_subcommand(
        "subscribe", "print the updates of an element, periodic or on change; Ctrl-C cancels");
    addService(subscribeCommand, subscribeService);
    subscribeCommand->add_option("ELEMENT", subscribeElement, "element name (or UID with --uid)")
        ->required();
    CLI::Option* periodicOption =
        subscribeCommand->add_option("--periodic", subscribe.periodicMs, "an update every MS ms")
            ->check(CLI::Range(1u, 0xFFFFFFu));
    CLI::Option* onChangeOption =
        subscribeCommand->add_flag("--on-change", onChange, "an update when the value changes");
    periodicOption->excludes(onChangeOption);
    subscribeCommand
        ->add_option("--count", subscribe.count,
                     "updates to print before cancelling (default: until Ctrl-C)")
        ->check(CLI::Range(0, INT_MAX));
    addElementOptions(subscribeCommand, subscribeElements);

    ServiceArgs aliveService;
    int aliveCount = 1;
    double aliveInterval = 1.0;
    CLI::App* aliveCommand =
        app.add_subcommand("alive", "send SBP Alive requests and print each answer");
    addService(aliveCommand, aliveService);
    aliveCommand->add_option("--count", aliveCount, "how many")->check(CLI::Range(1, INT_MAX));
    aliveCommand->add_option("--interval", aliveInterval, "seconds between them")
        ->check(CLI::Range(0.0, 3600.0));

    ServiceArgs sendService;
    std::string sendHex;
    int sendReplies = 0;
    CLI::App* sendCommand = app.add_subcommand("send", "send one payload on a plain CDB service");
    addService(sendCommand, sendService);
    sendCommand->add_option("HEX", sendHex, "the payload in hex, such as 0102ff")->required();
    sendCommand->add_option("--replies", sendReplies, "payloads to wait for and print, in hex")
        ->check(CLI::Range(0, INT_MAX));

    ServiceArgs listenService;
    int listenCount = 0;
    CLI::App* listenCommand = app.add_subcommand(
        "listen", "print the payloads of a plain CDB service in hex, one per line");
    addService(listenCommand, listenService);
    listenCommand->add_option("--count", listenCount, "payloads to print (default: until Ctrl-C)")
        ->check(CLI::Range(0, INT_MAX));

    // CLI11 would only say that a command is missing.
    const CLI::App* chosen = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--capture") {  // its FILE is no command
            ++i;
            continue;
        }
        if (argv[i][0] == '-') continue;
        std::string list;
        for (const CLI::App* command : app.get_subcommands({})) {
            if (command->get_name() == argv[i]) chosen = command;
            list += (list.empty() ? "" : ", ") + command->get_name();
        }
        if (!chosen) {
            std::fprintf(stderr, "zelcdb: unknown command '%s' (%s)\n", argv[i], list.c_str());
            return kExitUsage;
        }
        break;
    }
    std::string unknown = unknownOption(app, chosen, argc, argv);
    if (!unknown.empty()) {
        std::string where = chosen ? " " + chosen->get_name() : "";
        std::fprintf(stderr, "zelcdb: unknown option '%s' (see zelcdb%s --help)\n", unknown.c_str(),
                     where.c_str());
        return kExitUsage;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e);  // --help, --version
        std::fprintf(stderr, "zelcdb: %s (see zelcdb --help)\n", e.what());
        return kExitUsage;
    } catch (const Failure& failure) {  // --version, when the library refuses
        std::fprintf(stderr, "zelcdb: %s\n", failure.what());
        return failure.exitCode();
    }
    for (const auto& [option, connect] : timeoutOptions)
        connect->timeoutGiven = option->count() > 0;
    if (*subscribeCommand && !onChange && subscribe.periodicMs == 0) {
        std::fprintf(stderr, "zelcdb: subscribe needs --periodic MS or --on-change\n");
        return kExitUsage;
    }

    console::setVerbosity(verbosity);
    watchInterrupts();
    // Created after watchInterrupts() so that its thread leaves the signals to that one.
    std::unique_ptr<CaptureRelay> capture;
    if (!capturePath.empty()) {
        ConnectOptions* connect = nullptr;
        for (auto [command, options] : {std::pair{servicesCommand, &servicesConnect},
                                        {getCommand, &getService.connect},
                                        {setCommand, &setService.connect},
                                        {subscribeCommand, &subscribeService.connect},
                                        {aliveCommand, &aliveService.connect},
                                        {sendCommand, &sendService.connect},
                                        {listenCommand, &listenService.connect}}) {
            if (*command) connect = options;
        }
        std::string& url = connect ? connect->url : serve.url;
        bool peerConnects = connect ? connect->waitForPeer : !serve.client;
        try {
            checkUrl(url);
            capture = std::make_unique<CaptureRelay>(capturePath, url, peerConnects);
        } catch (const Failure& failure) {
            console::message(failure.what());
            return failure.exitCode();
        }
        if (connect) {
            connect->endpointUrl = capture->endpointUrl();
        } else {
            serve.shownUrl = url;
            url = capture->endpointUrl();
        }
    }
    auto run = [&]() -> int {
        try {
            if (*serveCommand) return runServe(serve);
            if (*servicesCommand) return runServices(servicesConnect, servicesJson);
            if (*getCommand) return runGet(getService, getElements);
            if (*setCommand) {
                setElements.elements = {setElement};
                return runSet(setService, setElements, setValue, setType);
            }
            if (*subscribeCommand) {
                subscribeElements.elements = {subscribeElement};
                return runSubscribe(subscribeService, subscribeElements, subscribe);
            }
            if (*aliveCommand) return runAlive(aliveService, aliveCount, aliveInterval);
            if (*sendCommand) return runSend(sendService, sendHex, sendReplies);
            if (*listenCommand) return runListen(listenService, listenCount);
        } catch (const Failure& failure) {
            console::message(failure.what());
            return failure.exitCode();
        } catch (const Interrupted&) {
            console::message("interrupted");
            return kExitInterrupted;
        } catch (const std::exception& e) {
            console::message(std::string("internal error: ") + e.what());
            return kExitRefused;
        }
        return kExitUsage;
    };
    int code = run();
    if (Session::abandonedAny()) {
        std::fflush(stdout);
        std::fflush(stderr);
        _exit(code);
    }
    return code;
}
