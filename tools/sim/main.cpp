// lurewave-sim: runs scenarios against the real library on virtual time, and serves an operator's
// kit and campaign feed for a device under development.
#include <signal.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include <CLI/CLI.hpp>

#include "sim/host.h"
#include "sim/scenario.h"
#include "sim/server.h"

namespace {

std::optional<std::string> slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

int runCommand(const std::string& file, const sim::RunOptions& options) {
    auto text = slurp(file);
    if (!text) {
        std::fprintf(stderr, "lurewave-sim: cannot read %s\n", file.c_str());
        return 2;
    }
    sim::Scenario scenario;
    try {
        scenario = sim::parseScenario(*text);
    } catch (const sim::ScenarioError& e) {
        std::fprintf(stderr, "lurewave-sim: %s: %s\n", file.c_str(), e.what());
        return 2;
    }
    sim::Host host(std::move(scenario), options);
    return host.run();
}

int serveCommand(const std::string& kitFile, const std::string& feedFile, int port) {
    auto kit = slurp(kitFile), feed = slurp(feedFile);
    if (!kit || !feed) {
        std::fprintf(stderr, "lurewave-sim: cannot read %s\n", (!kit ? kitFile : feedFile).c_str());
        return 2;
    }
    auto kitJson = nlohmann::json::parse(*kit, nullptr, false);
    auto feedJson = nlohmann::json::parse(*feed, nullptr, false);
    if (kitJson.is_discarded() || feedJson.is_discarded()) {
        std::fprintf(stderr, "lurewave-sim: %s is not JSON\n",
                     (kitJson.is_discarded() ? kitFile : feedFile).c_str());
        return 2;
    }
    // Stops on Ctrl-C or a termination signal.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
    std::mutex out;
    sim::OperatorServer server(kitJson, feedJson, port, [&](const sim::ServedRequest& r) {
        std::lock_guard lk(out);
        std::printf("%s %s\n", r.method.c_str(), r.target.c_str());
        for (const auto& [k, v] : r.headers) std::printf("  %s: %s\n", k.c_str(), v.c_str());
        if (!r.body.empty()) {
            auto body = nlohmann::json::parse(r.body, nullptr, false);
            std::printf("%s\n", body.is_discarded() ? r.body.c_str() : body.dump(2).c_str());
        }
        std::fflush(stdout);
    });
    std::printf("serving on %s: GET /kit, GET /campaigns, POST and DELETE anywhere else\n",
                server.baseUrl().c_str());
    std::fflush(stdout);
    int sig = 0;
    sigwait(&stop, &sig);
    server.stop();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Scenario simulator and operator dev server for the Quenby location library"};
    app.require_subcommand(1);

    auto* run = app.add_subcommand("run", "Run a scenario on virtual time");
    std::string scenario;
    sim::RunOptions options;
    std::string documents, svg, report;
    run->add_option("scenario", scenario, "Scenario JSON file")->required();
    run->add_flag("--json", options.json, "Print the trace as JSON Lines");
    run->add_option("--documents", documents, "Documents directory (created if missing)");
    run->add_flag("--verbose", options.verbose, "Print every ranging report and document in full");
    run->add_option("--svg", svg, "Draw the walk's map to this SVG file");
    run->add_option("--report", report, "Write a self-contained HTML report of the run to this file");

    auto* serve = app.add_subcommand("serve", "Serve a kit and a campaign feed on 127.0.0.1");
    std::string kit, feed;
    int port = 8080;
    serve->add_option("--kit", kit, "Kit answer JSON file ({\"kit\": …})")->required();
    serve->add_option("--campaigns", feed, "Campaign feed JSON file")->required();
    serve->add_option("--port", port, "Port (default 8080)");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? 0 : 2;
    }
    if (*run) {
        if (!documents.empty()) options.documents = documents;
        if (!svg.empty()) options.svg = svg;
        if (!report.empty()) options.report = report;
        options.name = scenario;
        return runCommand(scenario, options);
    }
    return serveCommand(kit, feed, port);
}
